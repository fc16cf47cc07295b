#include "micro/FullCache.h"

#include <map>
#include <stdexcept>

#include "support/Random.h"

namespace Quorvel::Benchmarks {

namespace {

constexpr std::uint64_t kSeed = 1;

}  // namespace

FullCache::FullCache(std::size_t count) {
    const EffectSource source("", kSeed);
    const std::vector<Effect> effects = source.Make(0, count);
    for (const Effect& effect : effects) {
        names_.push_back(effect.name);
        absentNames_.push_back(effect.name);
        absentNames_.back()[effect.name.Length() - 1] = '~';
    }
    Reopen();
    for (const std::size_t number : ShuffledOrder(count, kSeed)) {
        const Effect& effect = effects[number];
        cache_->CacheCompiledEffect(effect.name, effect.bytes.data(), effect.bytes.size(), false);
    }
    Reopen();
    if (cache_->GetNumberOfEffectsInFile() != count) {
        throw std::runtime_error("the cache did not save all effects");
    }
}

void FullCache::QueueAgain(std::size_t first, std::size_t count) {
    const EffectSource source("", kSeed);
    for (std::size_t number = first; number < first + count; ++number) {
        const Effect effect = source.Make(number % names_.size());
        cache_->CacheCompiledEffect(effect.name, effect.bytes.data(), effect.bytes.size(), false);
    }
}

void FullCache::Reopen() {
    cache_.Reset();
    cache_ =
        Util::RefPtr<EffectCacheSystem>(new EffectCacheSystem(CStr(directory_.Path().c_str())));
}

FullCache& CacheOf(std::int64_t count) {
    static std::map<std::int64_t, FullCache> caches;
    return caches.try_emplace(count, static_cast<std::size_t>(count)).first->second;
}

}  // namespace Quorvel::Benchmarks
