#include "Session.h"

#include <fmt/format.h>

#include <algorithm>

#include "Failure.h"
#include "Pattern.h"
#include "StopRequest.h"

namespace EffectHost {

namespace {

// The most bytes of a name that a message shows.
constexpr std::size_t kShownName = 200;

constexpr const char* kWhyMissing =
    "The volume may have no room: the cache drops what it can't save, and evicts its oldest "
    "effects when little space is free. It ignores names over 65536 bytes and effects over 1 MiB";

}  // namespace

Session::Session(const Options& options, const EffectLibrary& library,
                 const ShaderCompiler& compiler)
    : options_(options), library_(library), compiler_(compiler), cache_(options.cacheDirectory) {
    summary_.sources = library.sourceCount;
    summary_.effects = library.variants.size();
}

void Session::GetAllEffects(Progress& progress) {
    const std::size_t count = library_.variants.size();
    for (std::size_t i = 0; i < count; ++i) {
        if (StopRequested()) { SaveAndStop(i); }
        const bool compiled = GetEffect((options_.start + i) % count);
        if (compiled && options_.saveEvery > 0 &&
            summary_.compiledEffects.size() % options_.saveEvery == 0) {
            cache_.Save();
        }
        progress.Advance(compiled);
    }
    cache_.Save();
    KeepTimes();
}

void Session::SaveAndStop(std::size_t done) {
    cache_.Save();
    throw Failure(ExitCode::Interrupted,
                  fmt::format("stopped after {} of {} effects; what was compiled is saved", done,
                              library_.variants.size()));
}

// Returns whether the effect had to be compiled.
bool Session::GetEffect(std::size_t index) {
    const EffectVariant& variant = library_.variants[index];
    const std::string name = EffectName(variant, compiler_.Identity());
    CachedEffect effect;
    const HostCache::Result found = cache_.Find(name, effect);
    if (found == HostCache::Result::Found) {
        UseFound(name, effect);
        return false;
    }
    try {
        CompileAndStore(variant, name);
    } catch (const Failure& failure) {
        if (failure.Code() != ExitCode::CompileError || !options_.keepGoing) { throw; }
        summary_.broken[index] = failure.what();
        return false;
    }
    ++(found == HostCache::Result::Damaged ? summary_.damaged : summary_.misses);
    summary_.compiledEffects.push_back(index);
    return true;
}

// Stores the effect again if it should be permanent but is not yet.
void Session::UseFound(const std::string& name, CachedEffect& effect) {
    ++summary_.hits;
    summary_.sparedTime += effect.compileMicroseconds;
    summary_.untimed += effect.compileMicroseconds == 0 ? 1 : 0;
    if (!effect.permanent && IsPermanent(name)) {
        effect.permanent = true;
        cache_.Store(name, effect);
        ++summary_.madePermanent;
    }
}

void Session::CompileAndStore(const EffectVariant& variant, const std::string& name) {
    CachedEffect effect;
    TimeAccount time;
    {
        const TimedScope total(compileTime_);
        const TimedScope one(time);
        effect.bytes = compiler_.Compile(variant);
    }
    effect.compileMicroseconds = options_.worker ? 0 : time.Microseconds();
    effect.permanent = IsPermanent(name);
    cache_.Store(name, effect);
}

// Called before the cache is checked: the searches of the check count as checking.
void Session::KeepTimes() {
    summary_.compileTime = compileTime_.Microseconds();
    summary_.openTime = cache_.OpenTime().Microseconds();
    summary_.searchTime = cache_.SearchTime().Microseconds();
    summary_.storeTime = cache_.StoreTime().Microseconds();
}

bool Session::IsPermanent(const std::string& name) const {
    return std::any_of(options_.permanent.begin(), options_.permanent.end(),
                       [&](const std::string& pattern) { return MatchesPattern(pattern, name); });
}

std::vector<const EffectVariant*> Session::Whole() const {
    std::vector<const EffectVariant*> whole;
    for (std::size_t i = 0; i < library_.variants.size(); ++i) {
        if (!summary_.broken.contains(i)) { whole.push_back(&library_.variants[i]); }
    }
    return whole;
}

void Session::RequireAllSaved() {
    const TimedScope watch(checkTime_);
    std::size_t missing = 0;
    std::string example;
    for (const EffectVariant* variant : Whole()) {
        const std::string name = EffectName(*variant, compiler_.Identity());
        CachedEffect effect;
        if (cache_.Find(name, effect) == HostCache::Result::Missing && ++missing == 1) {
            example = name.substr(0, kShownName);
        }
    }
    if (missing > 0) {
        throw Failure(ExitCode::UnusableCache,
                      fmt::format("the cache file does not hold {} of {} effects, such as {}. {}",
                                  missing, library_.variants.size(), example, kWhyMissing));
    }
}

void Session::Verify(std::size_t count) {
    const TimedScope watch(checkTime_);
    const std::vector<const EffectVariant*> whole = Whole();
    const std::size_t total = whole.size();
    count = std::min(count, total);
    for (std::size_t i = 0; i < count; ++i) {
        if (StopRequested()) {
            throw Failure(ExitCode::Interrupted, "stopped while verifying; all effects are saved");
        }
        const EffectVariant& variant = *whole[i * total / count];
        summary_.verified += IsSame(variant, EffectName(variant, compiler_.Identity())) ? 1 : 0;
    }
    if (summary_.verified < count) {
        throw Failure(
            ExitCode::UnusableCache,
            fmt::format("only {} of {} effects could be verified; the cache does not hold "
                        "the others. {}",
                        summary_.verified, count, kWhyMissing));
    }
}

// Returns false when the cache does not have the effect.
bool Session::IsSame(const EffectVariant& variant, const std::string& name) {
    CachedEffect effect;
    const HostCache::Result result = cache_.Find(name, effect);
    if (result == HostCache::Result::Missing) { return false; }
    if (result == HostCache::Result::Damaged || effect.bytes != compiler_.Compile(variant)) {
        throw Failure(ExitCode::VerificationFailed,
                      fmt::format("the cache returns other bytes than the compiler for {}", name));
    }
    return true;
}

Summary Session::Result() const {
    Summary summary = summary_;
    summary.effectsInFile = cache_.EffectsInFile();
    summary.mostCompilations = summary.compiledEffects.empty() ? 0 : 1;
    summary.checkTime = checkTime_.Microseconds();
    return summary;
}

}  // namespace EffectHost
