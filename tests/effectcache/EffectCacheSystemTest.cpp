#include "quorvel/EffectCacheSystem.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <thread>

#include "effectcache/CacheClient.h"
#include "effectcache/EffectCacheImpl.h"
#include "effectcache/PlatformStubs.h"
#include "effectcache/StoredCache.h"
#include "platform/NamedMemory.h"
#include "platform/Path.h"
#include "quorvel/AutoMutex.h"
#include "quorvel/Exceptions.h"
#include "quorvel/MultiProcessTimeStamp.h"
#include "quorvel/MutexObject.h"
#include "support/StdioFaults.h"
#include "support/WorkingDirectory.h"

namespace Quorvel::Testing {

namespace {

constexpr std::size_t kLargest = 1048576;
constexpr std::size_t kThreshold = 2097152;

// The bytes that an effect adds to the count that triggers a save.
constexpr std::size_t Counted(std::size_t nameLength, std::size_t size) {
    return 44 + (nameLength + 8) + (size + 8);
}

// The directory's path with the platform's separator at its end.
std::string WithSeparator(const TemporaryDirectory& directory) {
    return directory.Path().string() + Platform::kPathSeparator;
}

void ExpectInert(CacheClient& cache) {
    EXPECT_FALSE(cache->IsEnabled());
    cache->SetEnabled(true);
    EXPECT_FALSE(cache->IsEnabled());
    const std::uint64_t inMemory = cache.InMemory();
    cache.Add("an inert cache ignores this", {1});
    EXPECT_EQ(cache.InMemory(), inMemory);
    EXPECT_EQ(cache.Find("an inert cache ignores this"), std::nullopt);
    cache->ForceSaveToFile();
    EXPECT_FALSE(cache->IsEnabled());
}

// Runs a function on its own thread, to test whether it waits for something that this thread holds.
// It counts as waiting after 100 ms, and must end within 10 s.
class Waiting {
public:
    explicit Waiting(const std::function<void()>& function)
        : done_(std::async(std::launch::async, function)) {}

    bool Waits() const {
        return done_.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready;
    }
    bool Ends() const {
        return done_.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    }

private:
    std::future<void> done_;
};

// ---- The cache's location -----------------------------------------------------------------------

TEST(EffectCacheSystem, EmptyDirectoryMakesAnInertCache) {
    CacheClient cache("");
    ExpectInert(cache);
    EXPECT_EQ(cache.InFile(), 0u);
    EXPECT_EQ(cache.InMemory(), 0u);
    EXPECT_EQ(cache->GetCacheFilePath(), CStr(""));
}

TEST(EffectCacheSystem, MissingDirectoryMakesAnInertCacheAndStaysMissing) {
    const TemporaryDirectory directory;
    const std::string missing = directory.File("missing");
    CacheClient cache(missing);
    ExpectInert(cache);
    EXPECT_EQ(cache.InFile(), 0u);
    cache.Close();
    EXPECT_FALSE(std::filesystem::exists(missing));
}

TEST(EffectCacheSystem, FileThatCanBeNeitherOpenedNorCreatedMakesAnInertCache) {
    const TemporaryDirectory directory;
    std::filesystem::create_directory(CacheFilePath(directory));
    CacheClient cache(directory);
    ExpectInert(cache);
}

TEST(EffectCacheSystem, InertCacheDoesNotWaitForTheFileMutex) {
    const TemporaryDirectory directory;
    std::filesystem::create_directory(CacheFilePath(directory));
    auto cache = std::make_unique<CacheClient>(directory);
    ASSERT_FALSE((*cache)->IsEnabled());
    MutexObject mutex((SharedObjectName(directory) + "_mutex").c_str());
    const AutoMutex guard(mutex, kWaitForever);
    EXPECT_TRUE(Waiting([&] { (*cache)->ForceSaveToFile(); }).Ends());
    EXPECT_TRUE(Waiting([&] { cache.reset(); }).Ends());
}

TEST(EffectCacheSystem, SearchesAndSavesWaitForTheFileMutexEvenWithNothingToSave) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache.Add("x", EffectBytes("x", 100));
    cache->ForceSaveToFile();
    MutexObject mutex((SharedObjectName(directory) + "_mutex").c_str());
    for (const std::function<void()>& operation :
         {std::function<void()>([&] { EXPECT_TRUE(cache.Find("x")); }),
          std::function<void()>([&] { cache->ForceSaveToFile(); })}) {
        mutex.Acquire(kWaitForever);
        const Waiting waiting(operation);
        EXPECT_TRUE(waiting.Waits());
        mutex.Release();
        EXPECT_TRUE(waiting.Ends());
    }
}

// A search that waits for the file mutex holds the cache's own lock.
TEST(EffectCacheSystem, SearchBlocksCachingAndTheSwitchButNotSavesAndCounts) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache.Add("x", EffectBytes("x", 100));
    cache->ForceSaveToFile();
    MutexObject mutex((SharedObjectName(directory) + "_mutex").c_str());
    mutex.Acquire(kWaitForever);
    const Waiting searching([&] { cache.Find("x"); });
    ASSERT_TRUE(searching.Waits());

    cache->ForceSaveToFile();
    cache->ListCachedEffects(directory.File("list").c_str());
    EXPECT_EQ(cache.InFile(), 1u);
    EXPECT_EQ(cache.InMemory(), 0u);
    EXPECT_EQ(cache.Find(""), std::nullopt);
    EXPECT_TRUE(std::filesystem::exists(directory.File("list")));
    {
        const Waiting adding([&] { cache.Add("y", {1}); });
        const Waiting asking([&] { cache->IsEnabled(); });
        const Waiting setting([&] { cache->SetEnabled(true); });
        EXPECT_TRUE(adding.Waits() && asking.Waits() && setting.Waits());
        mutex.Release();
    }
    EXPECT_TRUE(searching.Ends());
}

TEST(EffectCacheSystem, CacheFilePathIsTheDirectoryAsItWasPassed) {
    const TemporaryDirectory directory;
    const std::string plain = directory.Path().string();
    EXPECT_EQ(CacheClient(plain)->GetCacheFilePath(), ToCStr(plain));
    const std::string separated = WithSeparator(directory);
    EXPECT_EQ(CacheClient(separated)->GetCacheFilePath(), ToCStr(separated));
}

TEST(EffectCacheSystem, TrailingSeparatorLeadsToTheSameFile) {
    const TemporaryDirectory directory;
    CacheClient plain(directory.Path().string());
    CacheClient separated(WithSeparator(directory));
    plain.Add("x", EffectBytes("x", 100));
    plain->ForceSaveToFile();
    EXPECT_EQ(separated.Find("x"), EffectBytes("x", 100));
    separated.Add("y", EffectBytes("y", 200));
    separated->ForceSaveToFile();
    EXPECT_EQ(plain.Find("y"), EffectBytes("y", 200));
}

TEST(EffectCacheSystem, DirectoryOfOneLetterGetsASeparator) {
    const TemporaryDirectory directory;
    const WorkingDirectory working(directory.Path());
    std::filesystem::create_directory("d");
    EXPECT_TRUE(CacheClient("d")->IsEnabled());
    EXPECT_TRUE(std::filesystem::exists(std::filesystem::path("d") / "vornFxoCache.dat"));
}

// With or without a trailing separator, a cache announces changes under the same name and holds the
// same mutex while it opens the file.
class EffectCacheObjects : public ::testing::TestWithParam<bool> {};

TEST_P(EffectCacheObjects, AreNamedAfterTheFile) {
    const TemporaryDirectory parent;
    const std::filesystem::path folder = parent.Path() / "Az09 _-.+(~)#";
    std::filesystem::create_directory(folder);
    const std::string plain = folder.string();
    const std::string directory = GetParam() ? plain + Platform::kPathSeparator : plain;
    const std::string name =
        SharedObjectName(plain + Platform::kPathSeparator + "vornFxoCache.dat");

    std::uint32_t waited = kWaitAcquired;
    FreeSpaceStub space(1 << 30);
    space.OnQuery([&] {
        std::thread([&] {
            MutexObject mutex((name + "_mutex").c_str());
            waited = mutex.Acquire(0);
        }).join();
    });
    { CacheClient creator(directory); }
    CacheClient cache(directory);
    EXPECT_EQ(waited, kWaitTimedOut);

    MultiProcessTimeStamp stamp;
    stamp.Initialize((name + "_timestamp").c_str());
    cache.Add("x", {1});
    cache->ForceSaveToFile();
    EXPECT_TRUE(stamp.IsChanged());
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutSeparator, EffectCacheObjects, ::testing::Bool());

TEST(EffectCacheSystem, ObjectNamesHaveUnderscoresForAllButLettersAndDigits) {
    const std::string directory = "no/such\\place \x01\x7F\x80\xE4\xFF@[`{";
    const std::string name = "no_such_place__________";
    const std::string stamp = name + "_vornFxoCache_dat_timestamp";
    {
        const CacheClient cache(directory);
        void* const memory = Platform::OpenNamedMemory(stamp.c_str());
        ASSERT_NE(memory, nullptr);
        Platform::CloseNamedMemory(memory);
    }
    EXPECT_EQ(Platform::OpenNamedMemory(stamp.c_str()), nullptr);
}

// The constructor tries twice to agree on the name, so two attempts fail.
TEST(EffectCacheSystem, ConstructorThrowsWhenTheSharedNameCannotBeMade) {
    const TemporaryDirectory directory;
    const NamedMutexFault fault(0, 2);
    EXPECT_THROW(CacheClient{directory}, Win32APICallFailedException);
    EXPECT_FALSE(std::filesystem::exists(CacheFilePath(directory)));
}

TEST(EffectCacheSystem, ConstructorThrowsWhenTheFileMutexCannotBeMade) {
    const TemporaryDirectory directory;
    const NamedMutexFault fault(1);
    EXPECT_THROW(CacheClient{directory}, Win32APICallFailedException);
    EXPECT_FALSE(std::filesystem::exists(CacheFilePath(directory)));
}

TEST(EffectCacheSystem, ConstructorThrowsWhenTheTimeStampCannotBeMade) {
    const TemporaryDirectory directory;
    const NamedMutexFault fault(2);
    EXPECT_THROW(CacheClient{directory}, Win32APICallFailedException);
    EXPECT_FALSE(std::filesystem::exists(CacheFilePath(directory)));
}

// ---- Queuing ------------------------------------------------------------------------------------

TEST(EffectCacheSystem, NewCacheIsEnabledAndEmpty) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    EXPECT_TRUE(cache->IsEnabled());
    EXPECT_EQ(cache.InFile(), 0u);
    EXPECT_EQ(cache.InMemory(), 0u);
}

TEST(EffectCacheSystem, CachedEffectIsFoundBeforeAnySave) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache.Add("x", {1, 2, 3});
    EXPECT_EQ(cache.InMemory(), 1u);
    EXPECT_EQ(cache.InFile(), 0u);
    EXPECT_EQ(cache.Find("x"), (Bytes{1, 2, 3}));
}

TEST(EffectCacheSystem, KeepsACopyOfTheBytes) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    Bytes bytes = {1, 2, 3};
    cache.Add("x", bytes);
    bytes.assign(3, 9);
    EXPECT_EQ(cache.Find("x"), (Bytes{1, 2, 3}));
}

TEST(EffectCacheSystem, NullDataIsIgnored) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache->CacheCompiledEffect("x", nullptr, 3, false);
    EXPECT_EQ(cache.InMemory(), 0u);
    EXPECT_EQ(cache.Find("x"), std::nullopt);
}

TEST(EffectCacheSystem, EffectOfNoBytesIsIgnored) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    const unsigned char byte = 7;
    cache->CacheCompiledEffect("x", &byte, 0, false);
    EXPECT_EQ(cache.InMemory(), 0u);
}

TEST(EffectCacheSystem, EffectOfOneByteIsAccepted) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache.Add("x", {7});
    cache->ForceSaveToFile();
    EXPECT_EQ(CacheClient(directory).Find("x"), (Bytes{7}));
}

TEST(EffectCacheSystem, EffectOfTheLargestSizeIsAccepted) {
    const TemporaryDirectory directory;
    const Bytes bytes = EffectBytes("largest", kLargest);
    CacheClient cache(directory);
    cache.Add("x", bytes);
    EXPECT_EQ(cache.Find("x"), bytes);
    cache->ForceSaveToFile();
    EXPECT_EQ(cache.Find("x"), bytes);
    EXPECT_EQ(CacheClient(directory).Find("x"), bytes);
}

TEST(EffectCacheSystem, EffectOfOneByteMoreIsIgnored) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache.Add("x", Bytes(kLargest + 1));
    EXPECT_EQ(cache.InMemory(), 0u);
    EXPECT_EQ(cache.Find("x"), std::nullopt);
}

TEST(EffectCacheSystem, OversizeEffectLeavesTheEarlierOne) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache.Add("x", {1});
    cache.Add("x", Bytes(kLargest + 1));
    EXPECT_EQ(cache.Find("x"), (Bytes{1}));
}

TEST(EffectCacheSystem, EmptyNameIsIgnored) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache.Add("", {1});
    EXPECT_EQ(cache.InMemory(), 0u);
}

TEST(EffectCacheSystem, NameOfOneByteIsAccepted) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache.Add("n", {1});
    EXPECT_EQ(cache.InMemory(), 1u);
}

TEST(EffectCacheSystem, NameOfTheGreatestLengthIsAccepted) {
    const TemporaryDirectory directory;
    const std::string name(65536, 'n');
    CacheClient cache(directory);
    cache.Add(name, {1, 2});
    EXPECT_EQ(cache.InMemory(), 1u);
    cache->ForceSaveToFile();
    EXPECT_EQ(CacheClient(directory).Find(name), (Bytes{1, 2}));
}

TEST(EffectCacheSystem, NameOfOneByteMoreIsIgnored) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache.Add(std::string(65537, 'n'), {1});
    EXPECT_EQ(cache.InMemory(), 0u);
    EXPECT_EQ(cache.Find(std::string(65537, 'n')), std::nullopt);
}

TEST(EffectCacheSystem, CachingANameTwiceKeepsTheSecondBytesAndFlag) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache.Add("up", {1, 2, 3}, false);
    cache.Add("up", {4}, true);
    cache.Add("down", {5}, true);
    cache.Add("down", {6, 7}, false);
    EXPECT_EQ(cache.InMemory(), 2u);
    EXPECT_EQ(cache.Find("up"), (Bytes{4}));
    cache->ForceSaveToFile();
    EXPECT_EQ(cache.Find("up"), (Bytes{4}));
    EXPECT_EQ(cache.Find("down"), (Bytes{6, 7}));
    const StoredCache stored(directory);
    EXPECT_EQ(NumberAt(stored.RecordOf("up"), 16, 4), 1u);
    EXPECT_EQ(NumberAt(stored.RecordOf("down"), 16, 4), 0u);
}

TEST(EffectCacheSystem, NamesOfEqualBytesAreOneEffect) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache.Add("x", {1});
    cache.Add(std::string("x\0", 2), {2});
    cache.Add("X", {3});
    EXPECT_EQ(cache.InMemory(), 3u);
    EXPECT_EQ(cache.Find("x"), (Bytes{1}));
    EXPECT_EQ(cache.Find(std::string("x\0", 2)), (Bytes{2}));
    EXPECT_EQ(cache.Find("X"), (Bytes{3}));
}

// ---- The size at which a cache saves by itself --------------------------------------------------

TEST(EffectCacheSystem, SavesWhenTheCountReachesTwoMebibytes) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache.Add("abc", Bytes(kLargest, 1));
    EXPECT_EQ(cache.InMemory(), 1u);
    const std::size_t left = kThreshold - Counted(3, kLargest);
    cache.Add("d", Bytes(left - Counted(1, 0), 2));
    EXPECT_EQ(cache.InMemory(), 0u);
    EXPECT_EQ(cache.InFile(), 2u);
    EXPECT_EQ(StoredCache(directory).RecordCount(), 2u);
}

TEST(EffectCacheSystem, DoesNotSaveOneByteBelow) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache.Add("abc", Bytes(kLargest, 1));
    const std::size_t left = kThreshold - Counted(3, kLargest);
    cache.Add("d", Bytes(left - Counted(1, 0) - 1, 2));
    EXPECT_EQ(cache.InMemory(), 2u);
    EXPECT_EQ(cache.InFile(), 0u);
    EXPECT_EQ(StoredCache(directory).RecordCount(), 0u);
}

TEST(EffectCacheSystem, NameCachedTwiceCountsTwice) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache.Add("abc", Bytes(kLargest, 1));
    const std::size_t left = kThreshold - Counted(3, kLargest);
    const Bytes second(left - Counted(3, 0) - 1, 2);
    cache.Add("abc", second);
    EXPECT_EQ(cache.InMemory(), 1u);
    EXPECT_EQ(cache.InFile(), 0u);

    const TemporaryDirectory other;
    CacheClient oneMore(other);
    oneMore.Add("abc", Bytes(kLargest, 1));
    oneMore.Add("abc", Bytes(second.size() + 1, 2));
    EXPECT_EQ(oneMore.InMemory(), 0u);
    EXPECT_EQ(oneMore.InFile(), 1u);
    EXPECT_EQ(oneMore.Find("abc"), Bytes(second.size() + 1, 2));
}

TEST(EffectCacheSystem, CountStartsAgainAfterASave) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache.Add("a", Bytes(kLargest, 1));
    cache->ForceSaveToFile();
    cache.Add("b", Bytes(kLargest, 2));
    const std::size_t left = kThreshold - Counted(1, kLargest);
    cache.Add("c", Bytes(left - Counted(1, 0) - 1, 3));
    EXPECT_EQ(cache.InMemory(), 2u);
    cache.Add("d", Bytes(1, 4));
    EXPECT_EQ(cache.InMemory(), 0u);
    EXPECT_EQ(cache.InFile(), 4u);
}

TEST(EffectCacheSystem, IgnoredEffectsDoNotCount) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    const Bytes bytes(kLargest, 1);
    for (int round = 0; round < 5; ++round) {
        cache.Add("", bytes);
        cache.Add("a", Bytes(kLargest + 1));
        cache->CacheCompiledEffect("a", nullptr, kLargest, false);
    }
    cache.Add("a", bytes);
    EXPECT_EQ(cache.InMemory(), 1u);
    EXPECT_EQ(cache.InFile(), 0u);
}

// ---- Searching ----------------------------------------------------------------------------------

TEST(EffectCacheSystem, UnknownNameIsNotFound) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache.Add("x", {1});
    cache->ForceSaveToFile();
    EXPECT_EQ(cache.Find("y"), std::nullopt);
    EXPECT_EQ(cache.Find(""), std::nullopt);
}

TEST(EffectCacheSystem, SearchMakesTheArrayAsLongAsTheEffect) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache.Add("short", {1, 2});
    cache.Add("long", Bytes(100, 3));
    Tab<unsigned char> data;
    ASSERT_TRUE(cache->SearchCachedEffects("long", data));
    EXPECT_EQ(data.Count(), 100);
    ASSERT_TRUE(cache->SearchCachedEffects("short", data));
    EXPECT_EQ(data.Count(), 2);
    cache->ForceSaveToFile();
    ASSERT_TRUE(cache->SearchCachedEffects("long", data));
    EXPECT_EQ(data.Count(), 100);
    ASSERT_TRUE(cache->SearchCachedEffects("short", data));
    EXPECT_EQ(data.Count(), 2);
}

// Another thread holds the file mutex throughout, so a call that needs it would never return.
TEST(EffectCacheSystem, CallsThatNeedNoFileDoNotWaitForTheFileMutex) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    MutexObject mutex((SharedObjectName(directory) + "_mutex").c_str());
    ASSERT_EQ(mutex.Acquire(kWaitForever), kWaitAcquired);
    const StdioCounts before = CountStdioCalls();
    std::thread([&] {
        cache.Add("x", {1, 2});
        EXPECT_EQ(cache.Find("x"), (Bytes{1, 2}));
        EXPECT_EQ(cache.Find(""), std::nullopt);
        EXPECT_TRUE(cache->IsEnabled());
        cache->SetEnabled(false);
        EXPECT_FALSE(cache->IsEnabled());
        EXPECT_EQ(cache.InFile(), 0u);
        EXPECT_EQ(cache.InMemory(), 1u);
        cache->ListCachedEffects(directory.File("list.txt").c_str());
    }).join();
    mutex.Release();
    const StdioCounts after = CountStdioCalls();
    EXPECT_EQ(after.opens, before.opens + 1);  // the listing
    EXPECT_EQ(after.reads, before.reads);
    EXPECT_EQ(after.seeks, before.seeks);
}

// ---- The switch ---------------------------------------------------------------------------------

TEST(EffectCacheSystem, SwitchIsReported) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache->SetEnabled(false);
    EXPECT_FALSE(cache->IsEnabled());
    cache->SetEnabled(true);
    EXPECT_TRUE(cache->IsEnabled());
}

TEST(EffectCacheSystem, SwitchedOffCacheStillCachesFindsAndSaves) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache->SetEnabled(false);
    cache.Add("x", {1, 2});
    EXPECT_EQ(cache.InMemory(), 1u);
    EXPECT_EQ(cache.Find("x"), (Bytes{1, 2}));
    cache->ForceSaveToFile();
    EXPECT_EQ(cache.InFile(), 1u);
    EXPECT_EQ(cache.Find("x"), (Bytes{1, 2}));
    EXPECT_FALSE(cache->IsEnabled());
}

TEST(EffectCacheSystem, SwitchSurvivesAReload) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache->SetEnabled(false);
    CacheClient other(directory);
    other.Add("x", {1});
    other->ForceSaveToFile();
    EXPECT_EQ(cache.Find("x"), (Bytes{1}));
    EXPECT_FALSE(cache->IsEnabled());
}

// ---- Releasing the cache ------------------------------------------------------------------------

TEST(EffectCacheSystem, ReleasingTheCacheSaves) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache.Add("x", EffectBytes("x", 5000));
    cache->SetEnabled(false);
    cache.Close();
    EXPECT_EQ(CacheClient(directory).Find("x"), EffectBytes("x", 5000));
}

TEST(EffectCacheSystem, ReleasingACacheThatQueuedNothingLeavesTheFileAlone) {
    const TemporaryDirectory directory;
    WriteCache(CacheFilePath(directory), {{"x", EffectBytes("x", 100)}});
    const Bytes before = ReadWholeFile(CacheFilePath(directory));
    CacheClient cache(directory);
    EXPECT_TRUE(cache.Find("x"));
    cache.Close();
    EXPECT_EQ(ReadWholeFile(CacheFilePath(directory)), before);
}

TEST(EffectCacheSystem, SaveWithNothingQueuedLeavesTheFileAlone) {
    const TemporaryDirectory directory;
    WriteCache(CacheFilePath(directory), {{"x", EffectBytes("x", 100)}});
    const Bytes before = ReadWholeFile(CacheFilePath(directory));
    EffectCacheImpl cache(ToCStr(directory.Path().string()));
    const StdioCounts counts = CountStdioCalls();
    cache.SaveToFile();
    EXPECT_EQ(CountStdioCalls().seeks, counts.seeks);
    EXPECT_EQ(CountStdioCalls().opens, counts.opens);
    EXPECT_EQ(ReadWholeFile(CacheFilePath(directory)), before);
}

TEST(EffectCacheSystem, SaveOfAnInertCacheDoesNothing) {
    EffectCacheImpl cache("");
    const StdioCounts counts = CountStdioCalls();
    cache.SaveToFile();
    EXPECT_EQ(CountStdioCalls().opens, counts.opens);
}

// ---- The listing --------------------------------------------------------------------------------

// The bytes of a text file with that text on this platform.
Bytes AsTextFile(const TemporaryDirectory& directory, const std::string& text) {
    const std::string path = directory.File("expected.txt");
    std::ofstream(path) << text;
    return ReadWholeFile(path);
}

Bytes Listing(CacheClient& cache, const TemporaryDirectory& directory) {
    const std::string path = directory.File("listing.txt");
    cache->ListCachedEffects(path.c_str());
    return ReadWholeFile(path);
}

TEST(EffectCacheListing, HasALineForEachSavedEffectInTheOrderOfKeys) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache.Add("longer name", Bytes(1234, 1), false);
    cache.Add("b", Bytes(1, 1), true);
    cache.Add("\xFF", Bytes(3, 1), false);
    cache.Add("a", Bytes(2, 1), false);
    cache.Add("zz", Bytes(kLargest, 1), true);
    cache->ForceSaveToFile();
    EXPECT_EQ(Listing(cache, directory), AsTextFile(directory,
                                                    "Name: a Size: 2 Permanent: 0\n"
                                                    "Name: b Size: 1 Permanent: 1\n"
                                                    "Name: \xFF Size: 3 Permanent: 0\n"
                                                    "Name: zz Size: 1048576 Permanent: 1\n"
                                                    "Name: longer name Size: 1234 Permanent: 0\n"));
}

TEST(EffectCacheListing, ShowsOnlyWhatIsSaved) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache.Add("saved", {1});
    cache->ForceSaveToFile();
    cache.Add("queued", {2});
    cache.Add("saved", {3, 4, 5});
    EXPECT_EQ(Listing(cache, directory),
              AsTextFile(directory, "Name: saved Size: 1 Permanent: 0\n"));
}

TEST(EffectCacheListing, OfNothingIsAnEmptyFile) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    EXPECT_EQ(Listing(cache, directory), Bytes());
    EXPECT_TRUE(std::filesystem::exists(directory.File("listing.txt")));
}

TEST(EffectCacheListing, ReplacesWhatTheFileHeld) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache.Add("x", {1});
    cache->ForceSaveToFile();
    WriteWholeFile(directory.File("listing.txt"), Bytes(5000, 'o'));
    EXPECT_EQ(Listing(cache, directory), AsTextFile(directory, "Name: x Size: 1 Permanent: 0\n"));
}

TEST(EffectCacheListing, CanBeWrittenWhileOthersHaveTheFileOpen) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache.Add("x", {1});
    cache->ForceSaveToFile();
    const std::string path = directory.File("listing.txt");
    WriteWholeFile(path, {'o', 'l', 'd'});
    std::fstream other(path, std::ios::in | std::ios::out | std::ios::binary);
    ASSERT_TRUE(other.is_open());
    cache->ListCachedEffects(path.c_str());
    EXPECT_EQ(Bytes(std::istreambuf_iterator<char>(other), {}),
              AsTextFile(directory, "Name: x Size: 1 Permanent: 0\n"));
}

TEST(EffectCacheListing, WritesNameBytesAsTheyAre) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    const std::string name("a\0\x80 %s\\", 8);
    cache.Add(name, {1});
    cache->ForceSaveToFile();
    EXPECT_EQ(Listing(cache, directory),
              AsTextFile(directory, "Name: " + name + " Size: 1 Permanent: 0\n"));
}

TEST(EffectCacheListing, ToAFileThatCannotBeOpenedDoesNothing) {
    const TemporaryDirectory directory;
    CacheClient cache(directory);
    cache.Add("x", {1});
    cache->ForceSaveToFile();
    cache->ListCachedEffects(directory.File("missing/listing.txt").c_str());
    cache->ListCachedEffects(nullptr);
    EXPECT_FALSE(std::filesystem::exists(directory.File("missing")));
    EXPECT_TRUE(cache->IsEnabled());
    EXPECT_EQ(cache.Find("x"), (Bytes{1}));
}

TEST(EffectCacheListing, OfAnInertCacheIsAnEmptyFile) {
    const TemporaryDirectory directory;
    CacheClient cache("");
    EXPECT_EQ(Listing(cache, directory), Bytes());
    EXPECT_TRUE(std::filesystem::exists(directory.File("listing.txt")));
}

}  // namespace

}  // namespace Quorvel::Testing
