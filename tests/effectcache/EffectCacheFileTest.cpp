#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>

#include "effectcache/CacheClient.h"
#include "effectcache/EffectCacheImpl.h"
#include "effectcache/StoredCache.h"
#include "quorvel/MultiProcessTimeStamp.h"
#include "support/StdioFaults.h"

// What a save does to the file.
namespace Quorvel::Testing {

namespace {

using Names = std::vector<std::string>;
using Ids = std::vector<std::uint64_t>;

class EffectCacheFile : public ::testing::Test {
public:
    TemporaryDirectory directory;
    std::string path = CacheFilePath(directory);
};

// ---- Effects come back --------------------------------------------------------------------------

TEST_F(EffectCacheFile, SavedEffectsComeBackByteForByte) {
    CacheClient cache(directory);
    const std::vector<std::size_t> sizes = {1,     7,     8,     100,   8183,  8184,   8185,  8192,
                                            16376, 16377, 40000, 65528, 65536, 131072, 500000};
    for (const std::size_t size : sizes) {
        const std::string name = "effect of " + std::to_string(size);
        cache.Add(name, EffectBytes(name, size));
    }
    cache->ForceSaveToFile();
    EXPECT_EQ(cache.InMemory(), 0u);
    EXPECT_EQ(cache.InFile(), sizes.size());
    CacheClient fresh(directory);
    for (const std::size_t size : sizes) {
        const std::string name = "effect of " + std::to_string(size);
        EXPECT_EQ(cache.Find(name), EffectBytes(name, size));
        EXPECT_EQ(fresh.Find(name), EffectBytes(name, size));
    }
}

TEST_F(EffectCacheFile, SavesAddUp) {
    CacheClient cache(directory);
    for (int round = 0; round < 10; ++round) {
        const std::string name = "round " + std::to_string(round);
        cache.Add(name, EffectBytes(name, 3000));
        cache->ForceSaveToFile();
    }
    CacheClient fresh(directory);
    EXPECT_EQ(fresh.InFile(), 10u);
    for (int round = 0; round < 10; ++round) {
        const std::string name = "round " + std::to_string(round);
        EXPECT_EQ(fresh.Find(name), EffectBytes(name, 3000));
    }
}

// Replaces an effect of the first size with one of the second, between two that stay.
class EffectCacheReplace
    : public EffectCacheFile,
      public ::testing::WithParamInterface<std::pair<std::size_t, std::size_t>> {};

TEST_P(EffectCacheReplace, KeepsTheLastBytesAndLeavesTheOthers) {
    const auto& [oldSize, newSize] = GetParam();
    CacheClient cache(directory);
    cache.Add("before", EffectBytes("before", oldSize));
    cache.Add("x", EffectBytes("old", oldSize), true);
    cache.Add("zz after", EffectBytes("after", oldSize));
    cache->ForceSaveToFile();
    cache.Add("x", EffectBytes("new", newSize), false);
    EXPECT_EQ(cache.Find("x"), EffectBytes("new", newSize));
    cache->ForceSaveToFile();
    CacheClient fresh(directory);
    for (CacheClient* client : {&cache, &fresh}) {
        EXPECT_EQ(client->InFile(), 3u);
        EXPECT_EQ(client->Find("before"), EffectBytes("before", oldSize));
        EXPECT_EQ(client->Find("x"), EffectBytes("new", newSize));
        EXPECT_EQ(client->Find("zz after"), EffectBytes("after", oldSize));
    }
    const StoredCache stored(directory);
    EXPECT_EQ(stored.StreamIds().size(), 4u);
    EXPECT_EQ(NumberAt(stored.RecordOf("x"), 12, 4), newSize);
    EXPECT_EQ(NumberAt(stored.RecordOf("x"), 16, 4), 0u);
    EXPECT_EQ(stored.TotalDataSize(), stored.Index().size() + 2 * (oldSize + 8) + newSize + 8);
}

INSTANTIATE_TEST_SUITE_P(Sizes, EffectCacheReplace,
                         ::testing::Values(std::pair{100u, 100u}, std::pair{100u, 99u},
                                           std::pair{99u, 100u}, std::pair{100u, 30000u},
                                           std::pair{30000u, 100u}, std::pair{30000u, 30000u},
                                           std::pair{8184u, 8184u}));

TEST_F(EffectCacheFile, ReplacingOverAndOverDoesNotGrowTheFile) {
    CacheClient cache(directory);
    cache.Add("x", EffectBytes("start", 20000));
    cache->ForceSaveToFile();
    cache.Add("x", EffectBytes("again", 20000));
    cache->ForceSaveToFile();
    const std::size_t size = ReadWholeFile(path).size();
    for (int round = 0; round < 20; ++round) {
        cache.Add("x", EffectBytes("round " + std::to_string(round), 20000));
        cache->ForceSaveToFile();
    }
    EXPECT_LE(ReadWholeFile(path).size(), size + 3 * 8192);
    EXPECT_EQ(cache.Find("x"), EffectBytes("round 19", 20000));
}

// ---- The header data ----------------------------------------------------------------------------

TEST_F(EffectCacheFile, SaveLeavesTheOtherBlocksOfTheHeaderData) {
    const Bytes before = Block(1, Bytes(5, 0xAA));
    const Bytes after = ByteList().Append(Block(2, Bytes(9, 0xBB))).Append(Bytes(4, 0xCC));
    const Bytes index = ByteList().Append(Record{1, 1, 3}.Get()).Append(ByteArray("x"));
    WritePackage(path,
                 ByteList().Append(before).Append(Block(kTagOfCache, Header(1, 0))).Append(after),
                 {index, ByteArray(Bytes{1, 2, 3})});
    CacheClient cache(directory);
    cache.Add("y", {4});
    cache->ForceSaveToFile();
    EXPECT_EQ(
        StoredCache(directory).HeaderData(),
        ByteList().Append(before).Append(Block(kTagOfCache, Header(2, 0))).Append(after).Get());
    EXPECT_EQ(CacheClient(directory).Find("y"), (Bytes{4}));
}

TEST_F(EffectCacheFile, SaveWritesOnly28BytesOfALongerPayload) {
    const Bytes index = ByteList().Append(Record{1, 1, 3}.Get()).Append(ByteArray("x"));
    Bytes block = Block(kTagOfCache, ByteList().Append(Header(1, 0)).Append(Bytes(12, 0xEE)));
    block[8] = 0xDD;  // reserved
    WritePackage(path, block, {index, ByteArray(Bytes{1, 2, 3})});
    CacheClient cache(directory);
    cache.Add("y", {4});
    cache->ForceSaveToFile();
    block[16] = 2;  // the number of records
    EXPECT_EQ(StoredCache(directory).HeaderData(), block);
}

TEST_F(EffectCacheFile, SaveKeepsWhatTheReservedFieldsOfRecordsHold) {
    const Record record = {1, 1, 3, 0, {2024, 1, 1, 0, 0, 0, 0}, 0x1122334455667788};
    WritePackage(
        path, Block(kTagOfCache, Header(1, 0)),
        {ByteList().Append(record.Get()).Append(ByteArray("x")), ByteArray(Bytes{1, 2, 3})});
    CacheClient cache(directory);
    cache.Add("y", {4});
    cache->ForceSaveToFile();
    EXPECT_EQ(StoredCache(directory).RecordOf("x"), record.Get());
    EXPECT_EQ(NumberAt(StoredCache(directory).RecordOf("y"), 36, 8), 0u);
}

// ---- The index stream ---------------------------------------------------------------------------

// A cache whose index is stream 2 and whose stream 1 is deleted, so that a new stream gets a lower
// id than the index.
class EffectCacheIndexStream : public EffectCacheFile {
public:
    EffectCacheIndexStream() {
        const Bytes index = ByteList().Append(Record{0, 1, 100}.Get()).Append(ByteArray("x"));
        WritePackage(path, Block(kTagOfCache, Header(1, 2)),
                     {ByteArray(EffectBytes("old", 100)), {1}, index});
        const Util::RefPtr<IDataStreamSet> package = OpenFilePackage(CacheConfig(path));
        package->DeleteDataStream(1);
    }

    void SaveX(const Bytes& bytes) {
        CacheClient cache(directory);
        ASSERT_EQ(cache.InFile(), 1u);
        cache.Add("x", bytes);
        cache->ForceSaveToFile();
    }
};

TEST_F(EffectCacheIndexStream, IsWrittenInPlaceWhenItsSizeStays) {
    SaveX(EffectBytes("new", 77));
    const StoredCache stored(directory);
    EXPECT_EQ(stored.IndexStreamId(), 2u);
    EXPECT_EQ(stored.StreamIds(), (Ids{0, 2}));
    EXPECT_EQ(NumberAt(stored.RecordOf("x"), 12, 4), 77u);
    EXPECT_EQ(CacheClient(directory).Find("x"), EffectBytes("new", 77));
}

TEST_F(EffectCacheIndexStream, IsReplacedWhenItsSizeChanges) {
    CacheClient cache(directory);
    cache.Add("yy", EffectBytes("yy", 50));
    cache->ForceSaveToFile();
    const StoredCache stored(directory);
    EXPECT_EQ(stored.IndexStreamId(),
              2u);  // "yy" took id 1; the index freed id 2 and got it again
    EXPECT_EQ(stored.Index().size(), 53u + 54u);
    EXPECT_EQ(stored.StreamIds(), (Ids{0, 1, 2}));
}

TEST_F(EffectCacheIndexStream, FreesItsOldStreamWhenItsSizeChanges) {
    const Bytes longer =
        ByteList().Append(Record{0, 1, 100}.Get()).Append(ByteArray("x")).Append({0xEE});
    WritePackage(path, Block(kTagOfCache, Header(1, 2)),
                 {ByteArray(EffectBytes("old", 100)), {1}, longer});
    {
        const Util::RefPtr<IDataStreamSet> package = OpenFilePackage(CacheConfig(path));
        package->DeleteDataStream(1);
    }
    SaveX(EffectBytes("new", 77));
    const StoredCache stored(directory);
    EXPECT_EQ(stored.IndexStreamId(), 1u);
    EXPECT_EQ(stored.StreamIds(), (Ids{0, 1}));
    EXPECT_EQ(stored.Index().size(), 53u);
    EXPECT_EQ(CacheClient(directory).Find("x"), EffectBytes("new", 77));
}

TEST_F(EffectCacheIndexStream, ReplacesTheSingleByteOfANewCache) {
    std::filesystem::remove(path);
    CacheClient cache(directory);
    EXPECT_EQ(StoredCache(directory).Index().size(), 1u);
    cache.Add("x", {1});
    cache->ForceSaveToFile();
    EXPECT_EQ(StoredCache(directory).Index().size(), 53u);
    EXPECT_EQ(StoredCache(directory).StreamIds().size(), 2u);
}

// ---- Announcing changes -------------------------------------------------------------------------

TEST_F(EffectCacheFile, SaveAnnouncesOneChange) {
    CacheClient cache(directory);
    MultiProcessTimeStamp stamp;
    stamp.Initialize((SharedObjectName(directory) + "_timestamp").c_str());
    cache.Add("x", {1});
    EXPECT_FALSE(stamp.IsChanged());
    cache->ForceSaveToFile();
    EXPECT_TRUE(stamp.IsChanged());
    EXPECT_FALSE(stamp.IsChanged());
    cache->ForceSaveToFile();
    EXPECT_FALSE(stamp.IsChanged());
    cache.Find("x");
    EXPECT_FALSE(stamp.IsChanged());
}

// ---- More streams than a package may have -------------------------------------------------------

// A file with that number of streams: the index of an empty cache, and streams without bytes.
void WriteCacheWithStreams(const std::string& path, std::uint64_t streams) {
    const Util::RefPtr<IDataStreamSet> package = CreateFilePackage(CacheConfig(path));
    ASSERT_EQ(package->CreateDataStream(1), 0u);
    for (std::uint64_t stream = 1; stream < streams; ++stream) {
        ASSERT_EQ(package->CreateDataStream(0), stream);
    }
    const Bytes header = Block(kTagOfCache, Header(0, 0));
    package->SetHeaderDataSize(header.size());
    std::copy(header.begin(), header.end(), package->GetHeaderData());
}

TEST_F(EffectCacheFile, EffectThatTakesTheLastStreamIsSaved) {
    WriteCacheWithStreams(path, 65534);
    EffectCacheImpl cache(ToCStr(directory.Path().string()));
    const Bytes bytes = EffectBytes("x", 100);
    cache.CacheCompiledEffect("x", bytes.data(), bytes.size(), false);
    cache.SaveToFile();
    EXPECT_EQ(CacheClient(directory).Find("x"), bytes);
}

// The package's streams are not effects of the cache, so none of them can be evicted.
TEST_F(EffectCacheFile, SaveDropsTheNewestEffectsWhenNoStreamIsLeftForThem) {
    WriteCacheWithStreams(path, 65533);
    EffectCacheImpl cache(ToCStr(directory.Path().string()));
    const Bytes bytes = EffectBytes("x", 100);
    for (const char* name : {"z", "x", "zz", "y"}) {
        cache.CacheCompiledEffect(name, bytes.data(), bytes.size(), false);
    }
    cache.SaveToFile();
    EXPECT_TRUE(cache.IsEnabled());
    EXPECT_EQ(cache.GetNumberOfEffectsInMemory(), 0u);
    CacheClient fresh(directory);
    EXPECT_EQ(fresh.InFile(), 2u);
    EXPECT_EQ(fresh.Find("z"), bytes);
    EXPECT_EQ(fresh.Find("x"), bytes);
}

// A cache with room for one more stream. It holds a permanent effect and two others, of which "old"
// was saved first.
class FullCacheTest : public EffectCacheFile {
protected:
    void SetUp() override {
        StoredEffect permanent{"p", EffectBytes("p", 100)};
        permanent.permanent = 1;
        StoredEffect old{"old", EffectBytes("old", 100)};
        old.time = {2001, 1, 1, 0, 0, 0, 0};
        StoredEffect later{"later", EffectBytes("later", 100)};
        later.time = {2002, 1, 1, 0, 0, 0, 0};
        WriteCache(path, {permanent, old, later});
        const Util::RefPtr<IDataStreamSet> package = OpenFilePackage(CacheConfig(path));
        while (package->GetNumberOfDataStreams() < 65534) {
            package->CreateDataStream(0);
        }
    }

    // Saves effects in this order.
    void Save(const std::vector<const char*>& names) {
        EffectCacheImpl cache(ToCStr(directory.Path().string()));
        for (const char* name : names) {
            const Bytes bytes = EffectBytes("new", 200);
            cache.CacheCompiledEffect(name, bytes.data(), bytes.size(), false);
        }
        cache.SaveToFile();
        EXPECT_TRUE(cache.IsEnabled());
    }

    std::vector<std::string> Names() {
        std::vector<std::string> names;
        CacheClient cache(directory);
        for (const char* name : {"p", "old", "later", "a", "b", "c", "d"}) {
            if (cache.Find(name)) { names.push_back(name); }
        }
        return names;
    }
};

TEST_F(FullCacheTest, TakesTheLastStreamWithoutAnEviction) {
    Save({"a"});
    EXPECT_THAT(Names(), ::testing::ElementsAre("p", "old", "later", "a"));
}

TEST_F(FullCacheTest, EvictsTheOldestEffectsForNewOnes) {
    Save({"a", "b"});
    EXPECT_THAT(Names(), ::testing::ElementsAre("p", "later", "a", "b"));
}

TEST_F(FullCacheTest, NeedsNoStreamForEffectsThatAreReplaced) {
    Save({"later", "p", "old", "a"});
    EXPECT_THAT(Names(), ::testing::ElementsAre("p", "old", "later", "a"));
}

TEST_F(FullCacheTest, DoesNotEvictWhatIsReplaced) {
    Save({"old", "a", "b"});
    EXPECT_THAT(Names(), ::testing::ElementsAre("p", "old", "a", "b"));
}

TEST_F(FullCacheTest, DropsTheNewestEffectsWhenOnlyPermanentOnesAreLeft) {
    Save({"d", "b", "c", "a"});
    EXPECT_THAT(Names(), ::testing::ElementsAre("p", "b", "c", "d"));
}

TEST_F(EffectCacheFile, SaveThatWritesNothingLeavesTheFileUnchanged) {
    {
        CacheClient cache(directory);
        cache.Add("a", EffectBytes("a", 9000));
    }
    const Bytes before = ReadWholeFile(path);
    CacheClient other(directory);
    MultiProcessTimeStamp stamp;
    stamp.Initialize((SharedObjectName(directory) + "_timestamp").c_str());
    CacheClient cache(directory);
    cache.Add("a", EffectBytes("new", 9000));
    {
        const StdioFault fault(StdioCall::Write, EIO);
        cache->ForceSaveToFile();
        EXPECT_GT(fault.Failures(), 0u);
    }
    EXPECT_FALSE(cache->IsEnabled());
    EXPECT_FALSE(stamp.IsChanged());
    EXPECT_EQ(other.Find("a"), EffectBytes("a", 9000));
    const Bytes after = ReadWholeFile(path);
    EXPECT_TRUE(Bytes(after.begin(), after.begin() + static_cast<std::ptrdiff_t>(before.size())) ==
                before);
}

// The streams of "x", "yy" and "zzz" are missing; the first two ids are the next to be assigned: to
// a new effect and to the new index stream.
TEST_F(EffectCacheFile, EffectsWithoutStreamsAreDropped) {
    WritePackage(path, Block(kTagOfCache, Header(3, 2)),
                 {ByteArray("X"), ByteArray("Y"),
                  ByteList()
                      .Append(Record{0, 1, 1}.Get())
                      .Append(ByteArray("x"))
                      .Append(Record{1, 2, 1}.Get())
                      .Append(ByteArray("yy"))
                      .Append(Record{~std::uint64_t{0}, 3, 1}.Get())
                      .Append(ByteArray("zzz"))});
    {
        const Util::RefPtr<IDataStreamSet> package = OpenFilePackage(CacheConfig(path));
        ASSERT_TRUE(package->DeleteDataStream(0));
        ASSERT_TRUE(package->DeleteDataStream(1));
    }
    CacheClient cache(directory);
    EXPECT_EQ(cache.InFile(), 0u);
    cache.Add("longer", {1});
    cache->ForceSaveToFile();
    EXPECT_EQ(cache.InFile(), 1u);
    for (const char* const name : {"x", "yy", "zzz"}) {
        EXPECT_EQ(cache.Find(name), std::nullopt);
    }
    EXPECT_EQ(cache.Find("longer"), Bytes{1});
    EXPECT_EQ(StoredCache(directory).Names(), std::vector<std::string>{"longer"});
    EXPECT_EQ(StoredCache(directory).IndexStreamId(), 1u);
}

// As soon as the new file is a package, the other caches must be notified to read it.
TEST_F(EffectCacheFile, NewFileIsAnnouncedEvenIfItCannotBeFinished) {
    bool failed = true;
    for (std::uint64_t writes = 0; failed; ++writes) {
        WriteWholeFile(path, Bytes(20000, 0x5A));
        MultiProcessTimeStamp stamp;
        stamp.Initialize((SharedObjectName(directory) + "_timestamp").c_str());
        const Bytes before = ReadWholeFile(path);
        {
            const StdioFault fault(StdioCall::Write, EIO, writes);
            CacheClient cache(directory);
            failed = fault.Failures() != 0;
        }
        const bool isPackage = static_cast<bool>(OpenFilePackage(CacheConfig(path)));
        EXPECT_EQ(stamp.IsChanged(), isPackage) << "after " << writes << " writes";
    }
}

}  // namespace

}  // namespace Quorvel::Testing
