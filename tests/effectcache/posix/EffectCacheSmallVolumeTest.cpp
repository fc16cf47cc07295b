#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <cstring>
#include <fstream>
#include <string>

#include "effectcache/CacheClient.h"
#include "support/SmallVolume.h"

// A cache on a volume with little free space.
namespace Quorvel::Testing {

namespace {

std::uint64_t FreeBytes(const std::string& path) {
    struct statvfs status {};
    EXPECT_EQ(::statvfs(path.c_str(), &status), 0);
    return std::uint64_t{status.f_bavail} * status.f_frsize;
}

}  // namespace

// One journal for all evictions would need more than is free on the volume.
TEST(EffectCacheOnASmallVolume, EvictsMuchMoreThanIsFreeAndKeepsNewEffects) {
    constexpr int kEffects = 4000;
    constexpr std::uint64_t kFree = 3000000;
    const SmallVolume volume(40);
    if (volume.Error() != 0) {
        GTEST_SKIP() << "this user cannot mount a volume: " << std::strerror(volume.Error());
    }
    CacheClient cache(volume.Path());
    const auto add = [&](int number) {
        const std::string name = "effect " + std::to_string(number);
        cache.Add(name, EffectBytes(name, 3000));
    };
    for (int number = 0; number < kEffects; ++number) {
        add(number);
    }
    cache->ForceSaveToFile();
    ASSERT_EQ(cache.InFile(), std::uint64_t{kEffects});
    std::ofstream(volume.Path() + "/other") << std::string(FreeBytes(volume.Path()) - kFree, 'x');
    for (int number = kEffects; number < kEffects + 100; ++number) {
        add(number);
    }
    cache->ForceSaveToFile();
    EXPECT_TRUE(cache->IsEnabled());
    EXPECT_LT(cache.InFile(), std::uint64_t{kEffects / 4});
    for (int number = kEffects; number < kEffects + 100; ++number) {
        const std::string name = "effect " + std::to_string(number);
        EXPECT_TRUE(cache.Find(name) == EffectBytes(name, 3000)) << name;
    }
}

// Replacing an effect changes its whole tail block, however little is left in the block.
TEST(EffectCacheOnASmallVolume, DropsEffectsThatReplaceMoreThanTheJournalHasRoomFor) {
    constexpr int kEffects = 1500;
    const SmallVolume volume(40);
    if (volume.Error() != 0) {
        GTEST_SKIP() << "this user cannot mount a volume: " << std::strerror(volume.Error());
    }
    const auto name = [](int number) { return "effect " + std::to_string(number); };
    CacheClient cache(volume.Path());
    const auto fill = [&](std::uint64_t left) {
        std::ofstream other(volume.Path() + "/other", std::ios::app);
        other << std::string(FreeBytes(volume.Path()) - left, 'x');
    };
    // One effect in each block stays: it is permanent.
    for (int number = 0; number < kEffects; ++number) {
        cache.Add(name(number), EffectBytes(name(number), 6000), number % 10 == 0);
    }
    cache->ForceSaveToFile();
    fill(2500000);
    cache.Add("evicts", EffectBytes("evicts", 100));
    cache->ForceSaveToFile();
    ASSERT_LT(cache.InFile(), std::uint64_t{kEffects / 3});
    for (int number = 0; number < kEffects; number += 10) {
        cache.Add(name(number), EffectBytes("new", 6000), true);
    }
    cache->ForceSaveToFile();
    EXPECT_TRUE(cache->IsEnabled());
    for (int number = 0; number < kEffects; number += 10) {
        EXPECT_TRUE(cache.Find(name(number)).has_value()) << number;
    }
}

}  // namespace Quorvel::Testing
