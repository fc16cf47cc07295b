#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

#include "CachedEffect.h"
#include "Stopwatch.h"
#include "quorvel/EffectCacheSystem.h"
#include "vornutil/RefPtr.h"

namespace EffectHost {

// The name of the cache's file.
constexpr const char* kCacheFileName = "vornFxoCache.dat";

// The effect cache as this host uses it: effects are stored and returned as checked blocks, every
// call is timed, and a cache that can't be used is an error, since caching is this host's purpose.
class HostCache {
public:
    // Opens the cache of a directory, as FindCacheDirectory returns it. Throws
    // Failure(UnusableCache).
    explicit HostCache(const std::filesystem::path& directory);
    HostCache(const HostCache&) = delete;
    HostCache& operator=(const HostCache&) = delete;

    enum class Result { Found, Missing, Damaged };

    // Fills effect when the result is Found.
    Result Find(const std::string& name, CachedEffect& effect);

    // Queues an effect and replaces any effect of that name. The cache silently ignores names over
    // 65536 bytes and effects over 1 MiB, and silently drops effects when its volume has no room:
    // use Find to check. Throws Failure(UnusableCache) when the cache is inert.
    void Store(const std::string& name, const CachedEffect& effect);

    // Saves what is not in the file yet. Throws Failure(UnusableCache) when the cache is inert.
    void Save();

    // Number of effects in the file.
    std::size_t EffectsInFile() const;

    // Writes the listing of the saved effects. Throws Failure(OutputFailed) when the file can't be
    // written completely.
    void WriteListing(const std::filesystem::path& file);

    const TimeAccount& OpenTime() const { return openTime_; }
    const TimeAccount& SearchTime() const { return searchTime_; }
    const TimeAccount& StoreTime() const { return storeTime_; }

private:
    void RequireUsable(const char* problem) const;
    std::string ListedEffects();

    std::filesystem::path directory_;
    Util::RefPtr<Quorvel::EffectCacheSystem> cache_;
    TimeAccount openTime_;
    TimeAccount searchTime_;
    TimeAccount storeTime_;
};

}  // namespace EffectHost
