#include <gtest/gtest.h>

#include "effectcache/CacheClient.h"
#include "effectcache/PlatformStubs.h"
#include "effectcache/StoredCache.h"

// What the cache writes into its package, byte for byte.
namespace Quorvel::Testing {

namespace {

TEST(EffectCacheLayout, NewCacheHoldsOnlyTheHeaderBlock) {
    const TemporaryDirectory directory;
    CacheClient(directory).Close();
    const StoredCache stored(directory);
    EXPECT_EQ(stored.HeaderData(), (Bytes{0x96, 0x90, 0x32, 0x01, 28, 0, 0, 0, 0, 0, 0, 0,  //
                                          7,    0,    0,    0,                              //
                                          0,    0,    0,    0,    0,  0, 0, 0,              //
                                          0,    0,    0,    0,    0,  0, 0, 0,              //
                                          0,    0,    0,    0,    0,  0, 0, 0}));
    EXPECT_EQ(stored.StreamIds(), (std::vector<std::uint64_t>{0}));
    EXPECT_EQ(stored.Stream(0).size(), 1u);
}

TEST(EffectCacheLayout, SavedEffectIsARecordANameAndAStream) {
    const TemporaryDirectory directory;
    const ClockStub clock({2024, 2, 29, 23, 59, 58, 987});
    CacheClient cache(directory);
    cache.Add("ab", {0xC1, 0xC2, 0xC3}, true);
    cache->ForceSaveToFile();

    const StoredCache stored(directory);
    EXPECT_EQ(stored.HeaderData(), (Bytes{0x96, 0x90, 0x32, 0x01, 28, 0, 0, 0, 0, 0, 0, 0,  //
                                          7,    0,    0,    0,                              //
                                          1,    0,    0,    0,    0,  0, 0, 0,              //
                                          0,    0,    0,    0,    0,  0, 0, 0,              //
                                          0,    0,    0,    0,    0,  0, 0, 0}));
    EXPECT_EQ(stored.StreamIds(), (std::vector<std::uint64_t>{0, 1}));
    EXPECT_EQ(stored.Stream(0), (Bytes{1,    0,    0, 0, 0,  0, 0,  0,                  //
                                       2,    0,    0, 0, 3,  0, 0,  0, 1,   0,  0,  0,  //
                                       0xE8, 0x07, 2, 0, 29, 0, 23, 0, 59,  0,  58, 0,  //
                                       0xDB, 0x03, 0, 0,                                //
                                       0,    0,    0, 0, 0,  0, 0,  0,                  //
                                       2,    0,    0, 0, 0,  0, 0,  0, 'a', 'b'}));
    EXPECT_EQ(stored.Stream(1), (Bytes{3, 0, 0, 0, 0, 0, 0, 0, 0xC1, 0xC2, 0xC3}));
}

TEST(EffectCacheLayout, EvictableEffectHasPermanentZero) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache.Add("x", {1}, false);
    cache->ForceSaveToFile();
    EXPECT_EQ(NumberAt(StoredCache(directory).RecordOf("x"), 16, 4), 0u);
}

TEST(EffectCacheLayout, IndexHoldsTheRecordsInTheOrderOfKeys) {
    const TemporaryDirectory directory;
    const ClockStub clock({1999, 1, 2, 3, 4, 5, 6});
    CacheClient cache(directory);
    cache.Add("bb", {4, 5}, false);
    cache.Add("c", {6}, true);
    cache.Add("a", {7, 8, 9}, false);
    cache->ForceSaveToFile();

    const Platform::LocalTime& time = clock.Time();
    const StoredCache stored(directory);
    EXPECT_EQ(stored.RecordCount(), 3u);
    EXPECT_EQ(stored.Index(), ByteList()
                                  .Append(Record{1, 1, 3, 0, time, 0}.Get())
                                  .Append(ByteArray("a"))
                                  .Append(Record{2, 1, 1, 1, time, 0}.Get())
                                  .Append(ByteArray("c"))
                                  .Append(Record{3, 2, 2, 0, time, 0}.Get())
                                  .Append(ByteArray("bb"))
                                  .Get());
    EXPECT_EQ(stored.Stream(1), ByteArray(Bytes{7, 8, 9}));
    EXPECT_EQ(stored.Stream(2), ByteArray(Bytes{6}));
    EXPECT_EQ(stored.Stream(3), ByteArray(Bytes{4, 5}));
}

TEST(EffectCacheLayout, NamesKeepEveryByte) {
    const TemporaryDirectory directory;
    const std::string name("\0\xFF\n\\", 4);
    CacheClient cache(directory);
    cache.Add(name, {1});
    cache->ForceSaveToFile();
    EXPECT_EQ(StoredCache(directory).Names(), (std::vector<std::string>{name}));
    EXPECT_EQ(CacheClient(directory).Find(name), (Bytes{1}));
}

TEST(EffectCacheLayout, IndexStreamIsAsLongAsItsRecords) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    std::uint64_t size = 0;
    for (const std::size_t length : {1u, 17u, 300u, 65536u}) {
        cache.Add(std::string(length, 'n'), {1});
        size += 44 + 8 + length;
    }
    cache->ForceSaveToFile();
    EXPECT_EQ(StoredCache(directory).Index().size(), size);
}

TEST(EffectCacheLayout, FileIsInTheDirectoryUnderItsName) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(directory.Path())) {
        files.push_back(entry.path().filename().string());
    }
    EXPECT_EQ(files, (std::vector<std::string>{"vornFxoCache.dat"}));
}

}  // namespace

}  // namespace Quorvel::Testing
