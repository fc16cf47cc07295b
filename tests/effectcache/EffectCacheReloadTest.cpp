#include <gtest/gtest.h>

#include <functional>

#include "effectcache/CacheClient.h"
#include "effectcache/EffectCacheImpl.h"
#include "effectcache/PlatformStubs.h"
#include "effectcache/StoredCache.h"
#include "quorvel/MultiProcessTimeStamp.h"
#include "support/StdioFaults.h"

// Two caches of one directory, as in two processes.
namespace Quorvel::Testing {

namespace {

class EffectCacheReload : public ::testing::Test {
public:
    // Number of times that the operation opened the file; a reload opens it once.
    template <typename Operation>
    std::uint64_t Reloads(const Operation& operation) {
        const std::uint64_t before = CountStdioCalls().opens;
        operation();
        return CountStdioCalls().opens - before;
    }

    void Announce() {
        MultiProcessTimeStamp stamp;
        stamp.Initialize((SharedObjectName(directory) + "_timestamp").c_str());
        stamp.UpdateTimeStamp();
    }

    TemporaryDirectory directory;
    std::string path = CacheFilePath(directory);
    CacheClient a{directory};
    CacheClient b{directory};
};

TEST_F(EffectCacheReload, OneFindsWhatTheOtherSaved) {
    a.Add("x", EffectBytes("x", 5000));
    EXPECT_EQ(b.Find("x"), std::nullopt);
    a->ForceSaveToFile();
    EXPECT_EQ(b.InFile(), 0u);
    EXPECT_EQ(b.Find("x"), EffectBytes("x", 5000));
    EXPECT_EQ(b.InFile(), 1u);
}

TEST_F(EffectCacheReload, HappensOncePerSave) {
    for (int round = 0; round < 3; ++round) {
        a.Add("x", EffectBytes("round " + std::to_string(round), 100));
        a->ForceSaveToFile();
        EXPECT_EQ(Reloads([this] { b.Find("absent"); }), 1u);
        EXPECT_EQ(Reloads([this] { b.Find("absent"); }), 0u);
        EXPECT_EQ(Reloads([this] { b.Find("x"); }), 0u);
    }
}

TEST_F(EffectCacheReload, SeveralSavesCauseOneReload) {
    for (int round = 0; round < 3; ++round) {
        a.Add("x", EffectBytes("round " + std::to_string(round), 100));
        a->ForceSaveToFile();
    }
    EXPECT_EQ(Reloads([this] { EXPECT_EQ(b.Find("x"), EffectBytes("round 2", 100)); }), 1u);
    EXPECT_EQ(Reloads([this] { b.Find("x"); }), 0u);
}

TEST_F(EffectCacheReload, DoesNotHappenInASaveWithNothingQueued) {
    a.Add("x", EffectBytes("x", 100));
    a->ForceSaveToFile();
    EXPECT_EQ(Reloads([this] { b->ForceSaveToFile(); }), 0u);
    EXPECT_EQ(Reloads([this] { b.Find("x"); }), 1u);
}

TEST_F(EffectCacheReload, DoesNotFollowTheCachesOwnSave) {
    b.Find("absent");
    b.Add("x", EffectBytes("x", 100));
    b->ForceSaveToFile();
    EXPECT_EQ(Reloads([this] { EXPECT_TRUE(b.Find("x")); }), 0u);
}

TEST_F(EffectCacheReload, SearchAmongPendingEffectsDoesNotReload) {
    b.Add("mine", {1});
    a.Add("x", {2});
    a->ForceSaveToFile();
    EXPECT_EQ(Reloads([this] { EXPECT_TRUE(b.Find("mine")); }), 0u);
    EXPECT_EQ(b.InFile(), 0u);
}

TEST_F(EffectCacheReload, PendingEffectsSurviveIt) {
    b.Add("mine", EffectBytes("mine", 300));
    a.Add("x", EffectBytes("x", 100));
    a->ForceSaveToFile();
    EXPECT_EQ(b.Find("x"), EffectBytes("x", 100));
    EXPECT_EQ(b.InMemory(), 1u);
    EXPECT_EQ(b.Find("mine"), EffectBytes("mine", 300));
    b->ForceSaveToFile();
    CacheClient fresh(directory);
    EXPECT_EQ(fresh.InFile(), 2u);
    EXPECT_EQ(fresh.Find("mine"), EffectBytes("mine", 300));
    EXPECT_EQ(fresh.Find("x"), EffectBytes("x", 100));
}

TEST_F(EffectCacheReload, SaveAddsToWhatTheOtherSaved) {
    b.Add("of b", EffectBytes("of b", 200));
    a.Add("of a", EffectBytes("of a", 200));
    a->ForceSaveToFile();
    b->ForceSaveToFile();
    EXPECT_EQ(b.InFile(), 2u);
    EXPECT_EQ(a.Find("of b"), EffectBytes("of b", 200));
    EXPECT_EQ(a.InFile(), 2u);
    EXPECT_EQ(b.Find("of a"), EffectBytes("of a", 200));
}

TEST_F(EffectCacheReload, LaterSaveOfANameReplacesTheEarlierOne) {
    b.Add("x", EffectBytes("of b", 100), true);
    a.Add("x", EffectBytes("of a", 100), false);
    a->ForceSaveToFile();
    b->ForceSaveToFile();
    EXPECT_EQ(a.Find("x"), EffectBytes("of b", 100));
    const StoredCache stored(directory);
    EXPECT_EQ(stored.RecordCount(), 1u);
    EXPECT_EQ(stored.StreamIds().size(), 2u);
    EXPECT_EQ(NumberAt(stored.RecordOf("x"), 16, 4), 1u);
}

TEST_F(EffectCacheReload, PendingEffectHidesTheOneThatTheOtherSaved) {
    b.Add("x", EffectBytes("of b", 100));
    a.Add("x", EffectBytes("of a", 100));
    a->ForceSaveToFile();
    EXPECT_EQ(b.Find("x"), EffectBytes("of b", 100));
}

TEST_F(EffectCacheReload, ReplacedEffectIsReadAgain) {
    a.Add("x", EffectBytes("one", 9000));
    a->ForceSaveToFile();
    EXPECT_EQ(b.Find("x"), EffectBytes("one", 9000));
    a.Add("x", EffectBytes("two", 9000));
    a->ForceSaveToFile();
    EXPECT_EQ(b.Find("x"), EffectBytes("two", 9000));
}

TEST_F(EffectCacheReload, EvictedEffectIsNoLongerFound) {
    a.Add("x", EffectBytes("x", 100));
    a->ForceSaveToFile();
    ASSERT_TRUE(b.Find("x"));
    {
        const FreeSpaceStub space(0);
        CacheClient trimming(directory);
        EXPECT_EQ(trimming.InFile(), 0u);
    }
    EXPECT_EQ(b.Find("x"), std::nullopt);
    EXPECT_EQ(b.InFile(), 0u);
}

TEST_F(EffectCacheReload, TrimsToTheSpaceBudget) {
    a.Add("x", EffectBytes("x", 100));
    a->ForceSaveToFile();
    const FreeSpaceStub space(0);
    EXPECT_EQ(b.Find("x"), std::nullopt);
    EXPECT_TRUE(b->IsEnabled());
    EXPECT_EQ(StoredCache(directory).RecordCount(), 0u);
    EXPECT_EQ(a.Find("x"), std::nullopt);
    EXPECT_EQ(a.InFile(), 0u);
}

TEST_F(EffectCacheReload, SearchesAndClosesLeaveTheNewerFileAlone) {
    a.Add("x", EffectBytes("one", 9000));
    a->ForceSaveToFile();
    ASSERT_TRUE(b.Find("x"));
    a.Add("x", EffectBytes("two", 9000));
    a.Add("y", EffectBytes("y", 9000));
    a->ForceSaveToFile();
    const Bytes saved = ReadWholeFile(path);
    b.Close();
    EXPECT_EQ(ReadWholeFile(path), saved);
    a.Find("x");
    a.Close();
    EXPECT_EQ(ReadWholeFile(path), saved);
    CacheClient fresh(directory);
    EXPECT_EQ(fresh.Find("x"), EffectBytes("two", 9000));
    EXPECT_EQ(fresh.Find("y"), EffectBytes("y", 9000));
}

// A cache notices a change that is announced while it opens the file.
TEST(EffectCacheOpening, AdoptsTheStampBeforeItReadsTheFile) {
    const TemporaryDirectory directory;
    WriteCache(CacheFilePath(directory), {{"x", EffectBytes("one", 100)}});
    MultiProcessTimeStamp stamp;
    stamp.Initialize((SharedObjectName(directory) + "_timestamp").c_str());
    FreeSpaceStub space(1 << 30);
    space.OnQuery([&, done = false]() mutable {
        if (!std::exchange(done, true)) {
            WriteCache(CacheFilePath(directory), {{"x", EffectBytes("two", 100)}});
            stamp.UpdateTimeStamp();
        }
    });
    CacheClient cache(directory);
    EXPECT_EQ(cache.Find("x"), EffectBytes("two", 100));
}

TEST(EffectCacheOpening, CountsEarlierSavesAsSeen) {
    const TemporaryDirectory directory;
    CacheClient a(directory);
    a.Add("x", {1});
    a->ForceSaveToFile();
    CacheClient b(directory);
    const std::uint64_t opens = CountStdioCalls().opens;
    EXPECT_TRUE(b.Find("x"));
    EXPECT_EQ(CountStdioCalls().opens, opens);
}

// ---- Reloads that fail --------------------------------------------------------------------------

// Damage to the file. The cache must leave the damaged file unchanged.
struct Damage {
    const char* name;
    std::function<void(const std::string& path)> inflict;
};

class EffectCacheFailedReload : public EffectCacheReload,
                                public ::testing::WithParamInterface<Damage> {
public:
    EffectCacheFailedReload() {
        a.Add("x", EffectBytes("x", 100));
        a->ForceSaveToFile();
        EXPECT_TRUE(b.Find("x"));
        b.Add("mine", {1});
        GetParam().inflict(path);
        damaged = ReadWholeFile(path);
        Announce();
    }

    void ExpectInertAndFileAsItWas() {
        EXPECT_FALSE(b->IsEnabled());
        EXPECT_EQ(b.InMemory(), 1u);
        EXPECT_EQ(b.Find("x"), std::nullopt);
        EXPECT_EQ(b.Find("mine"), std::nullopt);
        EXPECT_TRUE(IsFileMutexFree(directory));
        b.Close();
        EXPECT_EQ(ReadWholeFile(path), damaged);
    }

    Bytes damaged;
};

TEST_P(EffectCacheFailedReload, MakesASearchFailAndTheCacheInert) {
    EXPECT_EQ(b.Find("x"), std::nullopt);
    ExpectInertAndFileAsItWas();
}

TEST_P(EffectCacheFailedReload, MakesASaveFailAndTheCacheInert) {
    b->ForceSaveToFile();
    ExpectInertAndFileAsItWas();
}

TEST_P(EffectCacheFailedReload, IsNotRepairedByANewerFile) {
    EXPECT_EQ(b.Find("x"), std::nullopt);
    CacheClient fresh(directory);
    EXPECT_TRUE(fresh->IsEnabled());
    fresh.Add("y", EffectBytes("y", 100));
    fresh->ForceSaveToFile();
    EXPECT_EQ(b.Find("y"), std::nullopt);
    EXPECT_FALSE(b->IsEnabled());
    EXPECT_EQ(CacheClient(directory).Find("y"), EffectBytes("y", 100));
}

INSTANTIATE_TEST_SUITE_P(
    Damages, EffectCacheFailedReload,
    ::testing::Values(
        Damage{"EmptyFile", [](const std::string& path) { WriteWholeFile(path, {}); }},
        Damage{"NotAPackage",
               [](const std::string& path) { WriteWholeFile(path, Bytes(20000, 0x5A)); }},
        Damage{"NoHeader", [](const std::string& path) { WritePackage(path, {}, {{1}}); }},
        Damage{"OtherVersion",
               [](const std::string& path) {
                   WritePackage(path, Block(kTagOfCache, Header(0, 0, 8)), {{1}});
               }},
        Damage{"NoIndexStream",
               [](const std::string& path) {
                   WritePackage(path, Block(kTagOfCache, Header(0, 5)), {{1}});
               }},
        Damage{"DamagedIndex",
               [](const std::string& path) {
                   WritePackage(path, Block(kTagOfCache, Header(1, 0)), {Bytes(60, 0)});
               }}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(EffectCacheReload, RecordsReadBeforeTheDamageStayCounted) {
    a.Add("x", EffectBytes("x", 100));
    a->ForceSaveToFile();
    ASSERT_TRUE(b.Find("x"));
    WritePackage(path, Block(kTagOfCache, Header(4, 0)),
                 {ByteList()
                      .Append(Record{1, 1, 100}.Get())
                      .Append(ByteArray("p"))
                      .Append(Record{1, 1, 100}.Get())
                      .Append(ByteArray("q"))
                      .Append(Record{1, 0, 100}.Get()),
                  ByteArray(Bytes(100, 1))});
    Announce();
    EXPECT_EQ(b.Find("x"), std::nullopt);
    EXPECT_FALSE(b->IsEnabled());
    EXPECT_EQ(b.InFile(), 2u);
}

TEST_F(EffectCacheReload, SaveThatCannotReloadKeepsTheQueue) {
    EffectCacheImpl cache(ToCStr(directory.Path().string()));
    const unsigned char byte = 1;
    cache.CacheCompiledEffect("x", &byte, 1, false);
    WriteWholeFile(path, {});
    Announce();
    for (int attempt = 0; attempt < 2; ++attempt) {
        cache.SaveToFile();
        EXPECT_FALSE(cache.IsEnabled());
        EXPECT_EQ(cache.GetNumberOfEffectsInMemory(), 1u);
    }
}

}  // namespace

}  // namespace Quorvel::Testing
