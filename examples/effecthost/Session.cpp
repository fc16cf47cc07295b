#include "Session.h"

#include <fmt/format.h>

#include <algorithm>

#include "Failure.h"
#include "Pattern.h"

namespace EffectHost {

Session::Session(const Options& options, const EffectLibrary& library,
                 const ShaderCompiler& compiler)
    : options_(options), library_(library), compiler_(compiler), cache_(options.cacheDirectory) {
    summary_.sources = library.sourceCount;
    summary_.effects = library.variants.size();
}

void Session::GetAllEffects(Progress& progress) {
    const std::size_t count = library_.variants.size();
    for (std::size_t i = 0; i < count; ++i) {
        const bool compiled = GetEffect((options_.start + i) % count);
        if (compiled && options_.saveEvery > 0 &&
            summary_.compiledEffects.size() % options_.saveEvery == 0) {
            cache_.Save();
        }
        progress.Advance(compiled);
    }
    cache_.Save();
}

// Returns whether the effect had to be compiled.
bool Session::GetEffect(std::size_t index) {
    const EffectVariant& variant = library_.variants[index];
    const std::string name = EffectName(variant, compiler_.Identity());
    CachedEffect effect;
    switch (cache_.Find(name, effect)) {
        case HostCache::Result::Found:
            ++summary_.hits;
            summary_.sparedTime += effect.compileMicroseconds;
            return false;
        case HostCache::Result::Missing:
            ++summary_.misses;
            break;
        case HostCache::Result::Damaged:
            ++summary_.damaged;
            break;
    }
    CompileAndStore(variant, name);
    summary_.compiledEffects.push_back(index);
    return true;
}

void Session::CompileAndStore(const EffectVariant& variant, const std::string& name) {
    CachedEffect effect;
    TimeAccount time;
    {
        const Stopwatch total(compileTime_);
        const Stopwatch one(time);
        effect.bytes = compiler_.Compile(variant);
    }
    effect.compileMicroseconds = time.Microseconds();
    cache_.Store(name, effect, IsPermanent(name));
}

bool Session::IsPermanent(const std::string& name) const {
    return std::any_of(options_.permanent.begin(), options_.permanent.end(),
                       [&](const std::string& pattern) { return MatchesPattern(pattern, name); });
}

void Session::Verify(std::size_t count) {
    const std::size_t total = library_.variants.size();
    count = std::min(count, total);
    for (std::size_t i = 0; i < count; ++i) {
        const EffectVariant& variant = library_.variants[i * total / count];
        const std::string name = EffectName(variant, compiler_.Identity());
        CachedEffect effect;
        const HostCache::Result result = cache_.Find(name, effect);
        if (result == HostCache::Result::Missing) {
            continue;
        }
        if (result == HostCache::Result::Damaged || effect.bytes != compiler_.Compile(variant)) {
            throw Failure(
                ExitCode::VerificationFailed,
                fmt::format("the cache returns other bytes than the compiler for {}", name));
        }
        ++summary_.verified;
    }
}

Summary Session::Result() const {
    Summary summary = summary_;
    summary.effectsInFile = cache_.EffectsInFile();
    summary.mostCompilations = summary.compiledEffects.empty() ? 0 : 1;
    summary.compileTime = compileTime_.Microseconds();
    summary.openTime = cache_.OpenTime().Microseconds();
    summary.searchTime = cache_.SearchTime().Microseconds();
    summary.storeTime = cache_.StoreTime().Microseconds();
    return summary;
}

}  // namespace EffectHost
