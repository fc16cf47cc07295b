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

// The journal of all evictions at once would need more than the volume has.
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

}  // namespace Quorvel::Testing
