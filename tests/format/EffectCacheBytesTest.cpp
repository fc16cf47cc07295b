#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "format/EffectCacheImage.h"
#include "format/TestData.h"
#include "quorvel/Quorvel.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Format {
namespace {

class EffectCacheBytes : public testing::Test {
protected:
    Util::RefPtr<EffectCacheSystem> OpenCache() {
        return new EffectCacheSystem(directory_.Path().string().c_str());
    }

    PackageImage Read() { return ReadPackage(ReadWholeFile(directory_.File("vornFxoCache.dat"))); }

    Testing::TemporaryDirectory directory_;
};

// The index of a cache of two effects, with the saving times set to zero.
Bytes WithoutTimes(Bytes index) {
    for (const std::size_t record : {0u, 44u + 8u + 1u}) {
        StoreInteger(index, record + 20, 8, 0);
        StoreInteger(index, record + 28, 8, 0);
    }
    return index;
}

TEST_F(EffectCacheBytes, OfTheHeaderDataOfANewCache) {
    OpenCache();

    const PackageImage image = Read();
    const Bytes expected = {0x96, 0x90, 0x32, 0x01,               // tag
                            28,   0,    0,    0,                  // payload length
                            0,    0,    0,    0,                  // reserved
                            7,    0,    0,    0,                  // version
                            0,    0,    0,    0,    0, 0, 0, 0,   // effects
                            0,    0,    0,    0,    0, 0, 0, 0,   // index stream
                            0,    0,    0,    0,    0, 0, 0, 0};  // reserved
    EXPECT_THAT(image.headerData, testing::ElementsAreArray(expected));
    EXPECT_EQ(StreamReader(image).Read(0).size(), 1u);
}

TEST_F(EffectCacheBytes, OfTwoEffects) {
    {
        const auto cache = OpenCache();
        const unsigned char permanentEffect[] = {1, 2, 3};
        const unsigned char effect[] = {9};
        cache->CacheCompiledEffect("ab", permanentEffect, 3, true);
        cache->CacheCompiledEffect("z", effect, 1, false);
    }

    const PackageImage image = Read();
    const StreamReader streams(image);
    const Bytes header = {0x96, 0x90, 0x32, 0x01, 28, 0, 0, 0, 0, 0, 0, 0,
                          7,    0,    0,    0,    2,  0, 0, 0, 0, 0, 0, 0,  // effects
                          0,    0,    0,    0,    0,  0, 0, 0,              // index stream
                          0,    0,    0,    0,    0,  0, 0, 0};
    const Bytes index = {1, 0, 0, 0, 0, 0, 0, 0,                             // data stream
                         1, 0, 0, 0,                                         // name length
                         1, 0, 0, 0,                                         // effect size
                         0, 0, 0, 0,                                         // not permanent
                         0, 0, 0, 0, 0, 0, 0, 0, 0,   0,  0, 0, 0, 0, 0, 0,  // time, zeroed
                         0, 0, 0, 0, 0, 0, 0, 0,                             // reserved
                         1, 0, 0, 0, 0, 0, 0, 0, 'z',                        // name
                         2, 0, 0, 0, 0, 0, 0, 0,                             // data stream
                         2, 0, 0, 0,                                         // name length
                         3, 0, 0, 0,                                         // effect size
                         1, 0, 0, 0,                                         // permanent
                         0, 0, 0, 0, 0, 0, 0, 0, 0,   0,  0, 0, 0, 0, 0, 0,  // time, zeroed
                         0, 0, 0, 0, 0, 0, 0, 0,                             // reserved
                         2, 0, 0, 0, 0, 0, 0, 0, 'a', 'b'};                  // name
    EXPECT_THAT(image.headerData, testing::ElementsAreArray(header));
    EXPECT_THAT(WithoutTimes(streams.Read(0)), testing::ElementsAreArray(index));
    EXPECT_THAT(streams.Read(1), testing::ElementsAre(1, 0, 0, 0, 0, 0, 0, 0, 9));
    EXPECT_THAT(streams.Read(2), testing::ElementsAre(3, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3));
    EXPECT_EQ(image.streams.size(), 3u);
    EXPECT_EQ(image.blocks.size(), 1u);
    EXPECT_THAT(image.blocks[0].streams, testing::ElementsAre(1, 2, 0));
}

TEST_F(EffectCacheBytes, OfTheSavingTimeAreALocalCalendarTime) {
    {
        const auto cache = OpenCache();
        const unsigned char effect[] = {9};
        cache->CacheCompiledEffect("z", effect, 1, false);
    }

    const EntryTime time = ReadEffectCache(Read()).at("z").record.time;
    EXPECT_GE(time.year, 2020);
    EXPECT_LE(time.year, 2200);
    EXPECT_TRUE(time.month >= 1 && time.month <= 12) << time.month;
    EXPECT_TRUE(time.day >= 1 && time.day <= 31) << time.day;
    EXPECT_LT(time.hour, 24);
    EXPECT_LT(time.minute, 60);
    EXPECT_LT(time.second, 61);
    EXPECT_LT(time.millisecond, 1000u);
}

}  // namespace
}  // namespace Quorvel::Format
