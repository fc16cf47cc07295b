#include <gtest/gtest.h>

#include "effectcache/CacheClient.h"
#include "effectcache/PlatformStubs.h"
#include "effectcache/StoredCache.h"
#include "platform/Clock.h"

// The time of an effect: when it was saved or last found.
namespace Quorvel::Testing {

namespace {

using Time = Platform::LocalTime;

const Time kSaved = {2024, 1, 2, 3, 4, 5, 6};
const Time kFound = {2025, 2, 3, 4, 5, 6, 7};
const Time kSavedAgain = {2026, 3, 4, 5, 6, 7, 8};

Bytes TimeBytes(const Time& time) {
    return ByteList()
        .U16(time.year)
        .U16(time.month)
        .U16(time.day)
        .U16(time.hour)
        .U16(time.minute)
        .U16(time.second)
        .U32(time.milliseconds);
}

class EffectCacheClock : public ::testing::Test {
public:
    EffectCacheClock() : clock(kSaved), cache(directory) {
        cache.Add("x", EffectBytes("x", 50));
        cache.Add("y", EffectBytes("y", 50));
        cache->ForceSaveToFile();
        clock.Set(kFound);
    }

    void SaveAnother() {
        clock.Set(kSavedAgain);
        cache.Add("z", EffectBytes("z", 50));
        cache->ForceSaveToFile();
    }

    Bytes StoredTime(const std::string& name) {
        const Bytes record = StoredCache(directory).RecordOf(name);
        return record.empty() ? record : Bytes(record.begin() + 20, record.begin() + 36);
    }

    TemporaryDirectory directory;
    ClockStub clock;
    CacheClient cache;
};

TEST_F(EffectCacheClock, SaveStoresTheLocalTime) {
    EXPECT_EQ(StoredTime("x"), TimeBytes(kSaved));
    EXPECT_EQ(StoredTime("y"), TimeBytes(kSaved));
}

TEST_F(EffectCacheClock, HitIsStoredByTheNextSave) {
    ASSERT_TRUE(cache.Find("x"));
    EXPECT_EQ(StoredTime("x"), TimeBytes(kSaved));
    SaveAnother();
    EXPECT_EQ(StoredTime("x"), TimeBytes(kFound));
    EXPECT_EQ(StoredTime("y"), TimeBytes(kSaved));
    EXPECT_EQ(StoredTime("z"), TimeBytes(kSavedAgain));
}

TEST_F(EffectCacheClock, HitAloneIsNeverSaved) {
    const Bytes before = ReadWholeFile(CacheFilePath(directory));
    ASSERT_TRUE(cache.Find("x"));
    cache->ForceSaveToFile();
    cache.Close();
    EXPECT_EQ(ReadWholeFile(CacheFilePath(directory)), before);
}

TEST_F(EffectCacheClock, MissRefreshesNothing) {
    EXPECT_EQ(cache.Find("absent"), std::nullopt);
    SaveAnother();
    EXPECT_EQ(StoredTime("x"), TimeBytes(kSaved));
    EXPECT_EQ(StoredTime("y"), TimeBytes(kSaved));
}

TEST_F(EffectCacheClock, HitAmongPendingEffectsRefreshesNothingInTheFile) {
    cache.Add("x", EffectBytes("new", 50));
    ASSERT_TRUE(cache.Find("x"));
    SaveAnother();
    EXPECT_EQ(StoredTime("x"), TimeBytes(kSavedAgain));
}

TEST_F(EffectCacheClock, ReloadDiscardsHitsThatWereNotSaved) {
    ASSERT_TRUE(cache.Find("x"));
    CacheClient other(directory);
    other.Add("w", EffectBytes("w", 50));
    other->ForceSaveToFile();
    SaveAnother();
    EXPECT_EQ(StoredTime("x"), TimeBytes(kSaved));
    EXPECT_EQ(StoredTime("w"), TimeBytes(kFound));
}

TEST_F(EffectCacheClock, EachHitCounts) {
    ASSERT_TRUE(cache.Find("x"));
    const Time later = {2025, 2, 3, 4, 5, 6, 8};
    clock.Set(later);
    ASSERT_TRUE(cache.Find("x"));
    SaveAnother();
    EXPECT_EQ(StoredTime("x"), TimeBytes(later));
}

// The one test that reads the real clock: the stored time lies between two readings.
TEST(EffectCacheRealClock, SaveStoresTheTimeOfTheSystem) {
    const auto now = [] { return TimeBytes(Platform::CurrentLocalTime()); };
    const auto order = [](const Bytes& time) {
        std::vector<std::uint64_t> fields;
        for (const std::size_t offset : {0u, 2u, 4u, 6u, 8u, 10u}) {
            fields.push_back(NumberAt(time, offset, 2));
        }
        fields.push_back(NumberAt(time, 12, 4));
        return fields;
    };
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache.Add("x", {1});
    const Bytes before = now();
    cache->ForceSaveToFile();
    const Bytes after = now();
    const Bytes record = StoredCache(directory).RecordOf("x");
    const Bytes stored(record.begin() + 20, record.begin() + 36);
    EXPECT_LE(order(before), order(stored));
    EXPECT_LE(order(stored), order(after));
}

}  // namespace

}  // namespace Quorvel::Testing
