#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <set>

#include "effectcache/CacheClient.h"
#include "effectcache/EffectCacheImpl.h"
#include "effectcache/PlatformStubs.h"
#include "effectcache/StoredCache.h"
#include "platform/Path.h"
#include "quorvel/MultiProcessTimeStamp.h"
#include "support/StdioFaults.h"

// How a cache keeps within its space budget.
namespace Quorvel::Testing {

namespace {

using Names = std::vector<std::string>;
using Time = Platform::LocalTime;

constexpr std::uint64_t kPlenty = std::uint64_t{1} << 40;
constexpr std::uint64_t kCap = 268435456;
constexpr std::size_t kSize = 100;
constexpr std::uint64_t kStreamSize = kSize + 8;

// The bytes that a save of a small cache sets aside for its journal: for the head page and twelve
// more.
constexpr std::uint64_t kJournalShare = 13 * (8192 + 265);

Time Year(std::uint16_t year) {
    return {year, 6, 15, 12, 30, 30, 500};
}

StoredEffect Effect(const std::string& name, const Time& time, bool permanent = false) {
    return {name, EffectBytes(name, kSize), permanent ? 1u : 0u, time};
}

// The bytes that the cache counts for a pending effect of that name and kSize bytes.
std::uint64_t PendingBytes(const std::string& name) {
    return 44 + (name.size() + 8) + (kSize + 8);
}

class EffectCacheTrim : public ::testing::Test {
public:
    void Write(const std::vector<StoredEffect>& effects) { WriteCache(path, effects); }

    // The names left after the cache is opened with `freeSpace` free bytes.
    Names LeftAfterOpening(std::uint64_t freeSpace) {
        FreeSpaceStub space(freeSpace);
        CacheClient(directory).Close();
        return StoredCache(directory).Names();
    }

    // The total size of all streams.
    std::uint64_t Total() const { return StoredCache(directory).TotalDataSize(); }

    TemporaryDirectory directory;
    std::string path = CacheFilePath(directory);
};

// ---- While the index is loaded ------------------------------------------------------------------

TEST_F(EffectCacheTrim, ThatCannotBeWrittenLeavesAllEffectsFindable) {
    Write({Effect("old", Year(2001)), Effect("new", Year(2002)), Effect("kept", Year(2000), true)});
    const Bytes before = ReadWholeFile(path);
    CacheClient earlier(directory);
    const std::uint64_t total = Total();
    {
        FreeSpaceStub space(total);
        const StdioFault fault(StdioCall::Write, EIO);
        CacheClient cache(directory);
        EXPECT_GT(fault.Failures(), 0u);
        EXPECT_TRUE(cache->IsEnabled());
        for (const char* name : {"old", "new", "kept"}) {
            EXPECT_EQ(cache.Find(name), EffectBytes(name, kSize));
        }
    }
    EXPECT_TRUE(ReadWholeFile(path) == before);
    EXPECT_EQ(earlier.Find("old"), EffectBytes("old", kSize));
    EXPECT_EQ(LeftAfterOpening(total), (Names{"new", "kept"}));
}

TEST_F(EffectCacheTrim, FreeSpaceIsQueriedForTheDirectoryWithItsSeparator) {
    FreeSpaceStub space(kPlenty);
    const std::string separated = directory.Path().string() + Platform::kPathSeparator;
    CacheClient creator(directory);
    EXPECT_TRUE(space.Queries().empty());
    CacheClient plain(directory);
    CacheClient other(separated);
    EXPECT_EQ(space.Queries(), (Names{separated, separated}));
}

TEST_F(EffectCacheTrim, TotalBelowTheBudgetKeepsAll) {
    Write({Effect("a", Year(2003)), Effect("b", Year(2001)), Effect("c", Year(2002))});
    EXPECT_EQ(LeftAfterOpening(Total() + 1), (Names{"a", "b", "c"}));
}

TEST_F(EffectCacheTrim, TotalEqualToTheBudgetEvictsTheOldest) {
    Write({Effect("a", Year(2003)), Effect("b", Year(2001)), Effect("c", Year(2002))});
    EXPECT_EQ(LeftAfterOpening(Total()), (Names{"a", "c"}));
}

TEST_F(EffectCacheTrim, StopsAsSoonAsTheTotalIsBelowTheBudget) {
    const std::vector<StoredEffect> effects = {Effect("a", Year(2003)), Effect("b", Year(2001)),
                                               Effect("c", Year(2002))};
    Write(effects);
    const std::uint64_t total = Total();
    EXPECT_EQ(LeftAfterOpening(total - kStreamSize + 1), (Names{"a", "c"}));
    Write(effects);
    EXPECT_EQ(LeftAfterOpening(total - kStreamSize), (Names{"a"}));
}

TEST_F(EffectCacheTrim, NoSpaceEvictsAllButThePermanentOnes) {
    Write({Effect("a", Year(2003)), Effect("b", Year(2001), true), Effect("c", Year(2002)),
           Effect("d", Year(2004), true)});
    EXPECT_EQ(LeftAfterOpening(0), (Names{"b", "d"}));
}

TEST_F(EffectCacheTrim, PermanentEffectsSurviveEvenIfOldest) {
    Write({Effect("a", Year(2003)), Effect("b", Year(2001), true), Effect("c", Year(2002))});
    EXPECT_EQ(LeftAfterOpening(Total()), (Names{"a", "b"}));
}

TEST_F(EffectCacheTrim, AnyNonZeroPermanentFlagKeepsAnEffect) {
    std::vector<StoredEffect> effects = {Effect("a", Year(2003)), Effect("b", Year(2001)),
                                         Effect("c", Year(2002))};
    effects[1].permanent = 2;
    effects[2].permanent = 0x80000000;
    Write(effects);
    EXPECT_EQ(LeftAfterOpening(0), (Names{"b", "c"}));
}

TEST_F(EffectCacheTrim, CacheThatIsStillOverItsBudgetWorks) {
    Write({Effect("a", Year(2001)), Effect("b", Year(2002), true)});
    const FreeSpaceStub space(0);
    CacheClient cache(directory);
    EXPECT_TRUE(cache->IsEnabled());
    EXPECT_EQ(cache.InFile(), 1u);
    EXPECT_EQ(cache.Find("a"), std::nullopt);
    EXPECT_EQ(cache.Find("b"), EffectBytes("b", kSize));
}

TEST_F(EffectCacheTrim, NothingToEvictLeavesTheFileAlone) {
    Write({Effect("a", Year(2001), true), Effect("b", Year(2002), true)});
    const Bytes before = ReadWholeFile(path);
    EXPECT_EQ(LeftAfterOpening(0), (Names{"a", "b"}));
    EXPECT_EQ(ReadWholeFile(path), before);
}

TEST_F(EffectCacheTrim, RemainingEffectsKeepTheirBytesAndRecords) {
    Write({Effect("a", Year(2003)), Effect("b", Year(2001)), Effect("c", Year(2002))});
    const Bytes record = StoredCache(directory).RecordOf("c");
    LeftAfterOpening(Total());
    EXPECT_EQ(StoredCache(directory).RecordOf("c"), record);
    CacheClient cache(directory);
    EXPECT_EQ(cache.InFile(), 2u);
    EXPECT_EQ(cache.Find("a"), EffectBytes("a", kSize));
    EXPECT_EQ(cache.Find("b"), std::nullopt);
    EXPECT_EQ(cache.Find("c"), EffectBytes("c", kSize));
}

TEST_F(EffectCacheTrim, EvictionFreesTheStreams) {
    Write({Effect("a", Year(2003)), Effect("b", Year(2001)), Effect("c", Year(2002))});
    const std::uint64_t total = Total();
    LeftAfterOpening(total);
    EXPECT_EQ(StoredCache(directory).StreamIds().size(), 3u);
    EXPECT_EQ(Total(), total - kStreamSize - (44 + 8 + 1));
}

TEST_F(EffectCacheTrim, WhileLoadingIsAnnouncedToOthers) {
    Write({Effect("a", Year(2001)), Effect("b", Year(2002))});
    MultiProcessTimeStamp stamp;
    stamp.Initialize((SharedObjectName(directory) + "_timestamp").c_str());
    LeftAfterOpening(Total());
    EXPECT_TRUE(stamp.IsChanged());
}

TEST_F(EffectCacheTrim, EveryFieldOfTheTimeCounts) {
    const std::vector<Time> ascending = {
        {2020, 12, 31, 23, 59, 59, 999}, {2021, 1, 31, 23, 59, 59, 999},
        {2021, 2, 1, 23, 59, 59, 999},   {2021, 2, 2, 1, 59, 59, 999},
        {2021, 2, 2, 2, 1, 59, 999},     {2021, 2, 2, 2, 2, 1, 999},
        {2021, 2, 2, 2, 2, 2, 1},        {2021, 2, 2, 2, 2, 2, 2}};
    for (std::size_t older = 0; older + 1 < ascending.size(); ++older) {
        Write({Effect("a", ascending[older]), Effect("b", ascending[older + 1])});
        EXPECT_EQ(LeftAfterOpening(Total()), (Names{"b"})) << older;
        Write({Effect("a", ascending[older + 1]), Effect("b", ascending[older])});
        EXPECT_EQ(LeftAfterOpening(Total()), (Names{"a"})) << older;
    }
}

TEST_F(EffectCacheTrim, ManyEffectsAreEvictedOldestFirst) {
    std::vector<StoredEffect> effects;
    for (std::uint16_t index = 0; index < 50; ++index) {
        const auto shuffled = static_cast<std::uint16_t>(index * 37 % 50);
        effects.push_back(Effect("effect " + std::to_string(100 + index),
                                 Year(static_cast<std::uint16_t>(1990 + shuffled))));
    }
    Write(effects);
    EXPECT_EQ(LeftAfterOpening(Total() - 29 * kStreamSize).size(), 20u);
    for (const std::string& name : StoredCache(directory).Names()) {
        EXPECT_GE(NumberAt(StoredCache(directory).RecordOf(name), 20, 2), 1990u + 30) << name;
    }
}

// ---- With a journal that would be larger than the free space ------------------------------------

class EffectCacheTrimInSteps : public EffectCacheTrim {
public:
    static constexpr std::size_t kLarge = 3000;

    // The oldest one is the first.
    void WriteLarge(std::size_t count) {
        effects.clear();
        for (std::size_t number = 0; number < count; ++number) {
            const std::string name = "effect " + std::to_string(1000 + number);
            const auto year = static_cast<std::uint16_t>(2000 + number);
            effects.push_back({name, EffectBytes(name, kLarge), 0, Year(year)});
        }
        Write(effects);
    }

    // Fails the test unless the file has the newest effects, whole. Returns their number.
    std::size_t NewestEffectsLeft() {
        CacheClient cache(directory);
        EXPECT_TRUE(cache->IsEnabled());
        const std::size_t left = cache.InFile();
        for (std::size_t number = effects.size() - left; number < effects.size(); ++number) {
            EXPECT_EQ(cache.Find(effects[number].name), effects[number].bytes) << number;
        }
        return left;
    }

    // The largest size of the journal. Only writes to the journal are larger than a page.
    static std::uint64_t LargestJournal(StdioTrace& trace) {
        std::uint64_t largest = 0;
        for (const StdioTransfer& transfer : trace.Take()) {
            if (transfer.kind == StdioTransfer::Kind::Write && transfer.size > 8192) {
                largest = std::max(largest, transfer.offset + transfer.size);
            }
        }
        return largest;
    }

    std::vector<StoredEffect> effects;
};

TEST_F(EffectCacheTrimInSteps, JournalTakesAtMostTheFreeSpace) {
    constexpr std::uint64_t kFree = 1200000;
    WriteLarge(1500);
    FreeSpaceStub space(kFree);
    {
        StdioTrace trace;
        const CacheClient cache(directory);
        EXPECT_GT(cache.InFile(), 100u);
        EXPECT_LT(LargestJournal(trace), kFree);
    }
    WriteLarge(1500);
    space.Set(kPlenty);
    CacheClient cache(directory);
    cache.Add("new", EffectBytes("new", kLarge));
    space.Set(kFree);
    StdioTrace trace;
    cache->ForceSaveToFile();
    EXPECT_GT(cache.InFile(), 100u);
    EXPECT_LT(LargestJournal(trace), kFree);
    EXPECT_EQ(cache.Find("new"), EffectBytes("new", kLarge));
}

TEST_F(EffectCacheTrimInSteps, StepThatFailsKeepsTheEvictionsBeforeIt) {
    std::set<std::size_t> sizes;
    bool hasFailed = true;
    for (std::uint64_t writes = 0; hasFailed; writes += 7) {
        SCOPED_TRACE(writes);
        WriteLarge(300);
        {
            const FreeSpaceStub space(0);
            const StdioFault fault(StdioCall::Write, ENOSPC, writes, 1);
            CacheClient cache(directory);
            EXPECT_TRUE(cache->IsEnabled());
            hasFailed = fault.Failures() != 0;
        }
        sizes.insert(NewestEffectsLeft());
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(sizes.size(), 5u);
    EXPECT_EQ(*sizes.begin(), 0u);
    EXPECT_EQ(*sizes.rbegin(), 300u);
}

// ---- Before pending effects are moved into the file ---------------------------------------------

// Saves "new" in a cache of the given effects. Once the file is open, the free space is limited to
// freeSpace bytes in addition to those of the journal.
class EffectCacheTrimOnSave : public EffectCacheTrim {
public:
    void SaveNew(const std::vector<StoredEffect>& effects, std::uint64_t freeSpace) {
        Write(effects);
        before.emplace(directory);
        EffectCacheImpl cache(ToCStr(directory.Path().string()));
        const Bytes bytes = EffectBytes("new", kSize);
        cache.CacheCompiledEffect("new", bytes.data(), bytes.size(), false);
        FreeSpaceStub space(freeSpace + kJournalShare);
        cache.SaveToFile();
        EXPECT_EQ(cache.GetNumberOfEffectsInMemory(), 0u);
        EXPECT_TRUE(cache.IsEnabled());
        after.emplace(directory);
        EXPECT_EQ(cache.GetNumberOfEffectsInFile(), after->RecordCount());
    }

    const std::vector<StoredEffect> threeEffects = {
        Effect("a", Year(2003)), Effect("b", Year(2001)), Effect("c", Year(2002))};
    const std::uint64_t threeTotal = 3 * kStreamSize + 3 * (44 + 8 + 1);
    const std::uint64_t pending = PendingBytes("new");
    std::optional<StoredCache> before;
    std::optional<StoredCache> after;
};

TEST_F(EffectCacheTrimOnSave, RoomForAllKeepsAll) {
    SaveNew(threeEffects, threeTotal + pending + 1);
    EXPECT_EQ(before->TotalDataSize(), threeTotal);
    EXPECT_EQ(after->Names(), (Names{"a", "b", "c", "new"}));
}

TEST_F(EffectCacheTrimOnSave, TotalThatReachesTheLimitEvictsTheOldest) {
    SaveNew(threeEffects, threeTotal + pending);
    EXPECT_EQ(after->Names(), (Names{"a", "c", "new"}));
}

TEST_F(EffectCacheTrimOnSave, EvictsUntilThereIsRoom) {
    SaveNew(threeEffects, threeTotal + pending - kStreamSize);
    EXPECT_EQ(after->Names(), (Names{"a", "new"}));
}

TEST_F(EffectCacheTrimOnSave, PermanentEffectsMakeNoRoom) {
    SaveNew({Effect("a", Year(2003), true), Effect("b", Year(2001), true)},
            2 * kStreamSize + 2 * 53 + pending);
    EXPECT_EQ(after->Names(), (Names{"a", "b"}));
}

TEST_F(EffectCacheTrimOnSave, PermanentEffectsSurviveWhileOthersMakeRoom) {
    SaveNew({Effect("a", Year(2003)), Effect("b", Year(2001), true), Effect("c", Year(2002))},
            threeTotal + pending - kStreamSize);
    EXPECT_EQ(after->Names(), (Names{"b", "new"}));
}

TEST_F(EffectCacheTrimOnSave, BudgetEqualToThePendingBytesEvictsAllInVain) {
    SaveNew({Effect("a", Year(2003)), Effect("b", Year(2001), true), Effect("c", Year(2002))},
            pending);
    EXPECT_EQ(after->Names(), (Names{"b"}));
}

TEST_F(EffectCacheTrimOnSave, BudgetBelowThePendingBytesDropsThemAndEvictsNothing) {
    SaveNew(threeEffects, pending - 1);
    EXPECT_EQ(after->Names(), (Names{"a", "b", "c"}));
    EXPECT_EQ(after->HeaderData(), before->HeaderData());
    EXPECT_EQ(after->StreamIds(), before->StreamIds());
    for (const std::uint64_t id : after->StreamIds()) {
        EXPECT_EQ(after->Stream(id), before->Stream(id)) << id;
    }
}

TEST_F(EffectCacheTrimOnSave, NewCacheWithoutRoomKeepsAnEmptyIndex) {
    FreeSpaceStub space(kPlenty);
    CacheClient cache(directory);
    cache.Add("new", {1});
    space.Set(0);
    cache->ForceSaveToFile();
    EXPECT_TRUE(cache->IsEnabled());
    EXPECT_EQ(cache.Find("new"), std::nullopt);
    const StoredCache stored(directory);
    EXPECT_EQ(stored.RecordCount(), 0u);
    EXPECT_EQ(stored.Index().size(), 1u);
    space.Set(kPlenty);
    cache.Add("new", {2});
    cache->ForceSaveToFile();
    EXPECT_EQ(CacheClient(directory).Find("new"), (Bytes{2}));
}

TEST_F(EffectCacheTrimOnSave, EvictingTheLastEffectLeavesACacheThatOpens) {
    FreeSpaceStub space(kPlenty);
    Write({Effect("a", Year(2001))});
    CacheClient cache(directory);
    cache.Add("new", EffectBytes("new", kSize));
    space.Set(kJournalShare + pending);
    cache->ForceSaveToFile();
    EXPECT_EQ(cache.InFile(), 0u);
    const StoredCache stored(directory);
    EXPECT_EQ(stored.RecordCount(), 0u);
    EXPECT_EQ(stored.Index().size(), 1u);
    const Bytes file = ReadWholeFile(path);
    CacheClient fresh(directory);
    EXPECT_TRUE(fresh->IsEnabled());
    EXPECT_EQ(ReadWholeFile(path), file);
}

TEST_F(EffectCacheTrimOnSave, WithoutRoomRefreshedTimesAreStillWritten) {
    Write(threeEffects);
    const ClockStub clock({2040, 7, 8, 9, 10, 11, 12});
    FreeSpaceStub space(kPlenty);
    CacheClient cache(directory);
    ASSERT_TRUE(cache.Find("b"));
    cache.Add("new", {1});
    space.Set(0);
    cache->ForceSaveToFile();
    const StoredCache stored(directory);
    EXPECT_EQ(stored.RecordOf("b"), (Record{2, 1, kSize, 0, clock.Time(), 0}.Get()));
    EXPECT_EQ(stored.RecordOf("a"), (Record{1, 1, kSize, 0, Year(2003), 0}.Get()));
}

TEST_F(EffectCacheTrimOnSave, WithoutRoomAChangeIsStillAnnounced) {
    FreeSpaceStub space(kPlenty);
    CacheClient cache(directory);
    cache.Add("new", {1});
    MultiProcessTimeStamp stamp;
    stamp.Initialize((SharedObjectName(directory) + "_timestamp").c_str());
    space.Set(0);
    cache->ForceSaveToFile();
    EXPECT_TRUE(stamp.IsChanged());
}

TEST_F(EffectCacheTrimOnSave, DroppedEffectsNoLongerCount) {
    constexpr std::size_t kLargestEffect = 1048576;
    FreeSpaceStub space(kPlenty);
    CacheClient cache(directory);
    cache.Add("a", Bytes(kLargestEffect, 1));
    space.Set(0);
    cache->ForceSaveToFile();
    space.Set(kPlenty);
    cache.Add("b", Bytes(kLargestEffect, 2));
    cache.Add("c", Bytes(kLargestEffect - 500, 3));
    EXPECT_EQ(cache.InMemory(), 2u);
    EXPECT_EQ(cache.InFile(), 0u);
}

TEST_F(EffectCacheTrimOnSave, NameCachedTwiceNeedsRoomForBoth) {
    FreeSpaceStub space(kPlenty);
    CacheClient cache(directory);
    const std::uint64_t emptyTotal = 1;
    cache.Add("new", EffectBytes("one", kSize));
    cache.Add("new", EffectBytes("two", kSize));
    space.Set(kJournalShare + 2 * pending + emptyTotal);
    cache->ForceSaveToFile();
    EXPECT_EQ(cache.InFile(), 0u);
    cache.Add("new", EffectBytes("one", kSize));
    cache.Add("new", EffectBytes("two", kSize));
    space.Set(kJournalShare + 2 * pending + emptyTotal + 1);
    cache->ForceSaveToFile();
    EXPECT_EQ(cache.InFile(), 1u);
    EXPECT_EQ(cache.Find("new"), EffectBytes("two", kSize));
}

TEST_F(EffectCacheTrimOnSave, FoundEffectIsEvictedLast) {
    Write(threeEffects);
    FreeSpaceStub space(kPlenty);
    CacheClient cache(directory);
    ASSERT_TRUE(cache.Find("b"));
    cache.Add("new", EffectBytes("new", kSize));
    space.Set(kJournalShare + threeTotal + pending - kStreamSize);
    cache->ForceSaveToFile();
    EXPECT_EQ(StoredCache(directory).Names(), (Names{"b", "new"}));
}

// ---- The cap of the budget ----------------------------------------------------------------------

// Besides an effect, the file holds a stream that adds any number of bytes to the total but takes
// almost no disk space: its size in the stream directory is patched.
class EffectCacheBudgetCap : public EffectCacheTrim {
public:
    void WriteWithTotal(std::uint64_t total) {
        constexpr std::uint64_t kBallast = 0x2B3C4D;
        const StoredEffect effect = Effect("a", Year(2001));
        const Bytes index =
            ByteList().Append(Record{1, 1, kSize, 0, effect.time, 0}.Get()).Append(ByteArray("a"));
        WritePackage(path, Block(kTagOfCache, Header(1, 0)), {index, ByteArray(effect.bytes)});
        {
            const Util::RefPtr<IDataStreamSet> package = OpenFilePackage(CacheConfig(path));
            ASSERT_NE(package->CreateDataStream(kBallast), kInvalidStreamId);
        }
        Bytes file = ReadWholeFile(path);
        const Bytes size = ByteList().U64(kBallast);
        const auto found = std::search(file.begin(), file.end(), size.begin(), size.end());
        ASSERT_NE(found, file.end());
        const Bytes made = ByteList().U64(total - kStreamSize - index.size());
        std::copy(made.begin(), made.end(), found);
        WriteWholeFile(path, file);
        const Util::RefPtr<IDataStreamSet> package = OpenFilePackage(CacheConfig(path));
        ASSERT_TRUE(package);
        ASSERT_EQ(package->GetTotalDataSize(), total);
    }

    std::uint64_t EffectsLeft() {
        CacheClient cache(directory);
        EXPECT_TRUE(cache->IsEnabled());
        return cache.InFile();
    }
};

TEST_F(EffectCacheBudgetCap, TotalOf256MebibytesIsTrimmedHoweverMuchIsFree) {
    FreeSpaceStub space(kPlenty);
    WriteWithTotal(kCap);
    EXPECT_EQ(EffectsLeft(), 0u);
}

TEST_F(EffectCacheBudgetCap, OneByteLessIsKept) {
    FreeSpaceStub space(kPlenty);
    WriteWithTotal(kCap - 1);
    EXPECT_EQ(EffectsLeft(), 1u);
}

TEST_F(EffectCacheBudgetCap, FreeSpaceBelowTheCapIsTheBudget) {
    FreeSpaceStub space(kCap - 1);
    WriteWithTotal(kCap - 1);
    EXPECT_EQ(EffectsLeft(), 0u);
    WriteWithTotal(kCap - 2);
    EXPECT_EQ(EffectsLeft(), 1u);
}

TEST_F(EffectCacheBudgetCap, UnknownFreeSpaceIsTakenAsTheCap) {
    FreeSpaceStub space(0);
    space.Fail();
    WriteWithTotal(kCap);
    EXPECT_EQ(EffectsLeft(), 0u);
    WriteWithTotal(kCap - 1);
    EXPECT_EQ(EffectsLeft(), 1u);
    EXPECT_FALSE(space.Queries().empty());
}

}  // namespace

}  // namespace Quorvel::Testing
