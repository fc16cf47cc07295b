#include "format/LibraryCache.h"

#include <gtest/gtest.h>

#include "format/TestData.h"

namespace Quorvel::Format {
namespace {

CStr ToCStr(const std::string& text) {
    return CStr(text.data(), text.size());
}

}  // namespace

LibraryCache::LibraryCache(const Testing::TemporaryDirectory& directory)
    : cache_(new EffectCacheSystem(ToCStr(directory.Path().string()))) {}

void LibraryCache::Add(const std::string& name, const CachedEffect& effect) {
    cache_->CacheCompiledEffect(ToCStr(name), effect.data.data(), effect.data.size(),
                                effect.permanent);
}

std::optional<Bytes> LibraryCache::Search(const std::string& name) {
    Tab<unsigned char> data;
    if (!cache_->SearchCachedEffects(ToCStr(name), data)) { return std::nullopt; }
    return Bytes(data.Addr(0), data.Addr(0) + data.Count());
}

std::string CacheFile(const Testing::TemporaryDirectory& directory) {
    return directory.File("vornFxoCache.dat");
}

void ExpectCacheFile(const std::string& path, const CachedEffects& effects) {
    const PackageImage image = ReadPackage(ReadWholeFile(path), kCacheStreamLimit);
    ASSERT_EQ(Joined(CheckEffectCache(image)), "");
    const Effects stored = ReadEffectCache(image);
    ASSERT_EQ(stored.size(), effects.size());
    auto found = stored.begin();
    for (const auto& [name, effect] : effects) {
        EXPECT_EQ(found->first, name);
        EXPECT_TRUE(found->second.data == effect.data) << name;
        EXPECT_EQ(found->second.record.permanent, effect.permanent ? 1u : 0u) << name;
        ++found;
    }
}

}  // namespace Quorvel::Format
