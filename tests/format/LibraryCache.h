#pragma once

#include <map>
#include <optional>
#include <string>

#include "format/Bytes.h"
#include "format/EffectCacheImage.h"
#include "quorvel/Quorvel.h"
#include "support/TemporaryDirectory.h"

// The library's effect cache, with this folder's types.
namespace Quorvel::Format {

struct CachedEffect {
    Bytes data;
    bool permanent = false;
};
using CachedEffects = std::map<std::string, CachedEffect, NameOrder>;

class LibraryCache {
public:
    explicit LibraryCache(const Testing::TemporaryDirectory& directory);

    EffectCacheSystem& operator*() const { return *cache_; }
    EffectCacheSystem* operator->() const { return cache_.Get(); }

    void Add(const std::string& name, const CachedEffect& effect);
    std::optional<Bytes> Search(const std::string& name);

private:
    Util::RefPtr<EffectCacheSystem> cache_;
};

// The path of the cache file in a directory.
std::string CacheFile(const Testing::TemporaryDirectory& directory);

// Fails the test unless the file is sound and holds exactly these effects.
void ExpectCacheFile(const std::string& path, const CachedEffects& effects);

}  // namespace Quorvel::Format
