#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "effectcache/CacheClient.h"
#include "effectcache/PlatformStubs.h"
#include "effectcache/StoredCache.h"
#include "support/StdioFaults.h"

// An index larger than the page cache, so that parts of it reach the file before the commit.
namespace Quorvel::Testing {

namespace {

constexpr std::size_t kNames = 24;
constexpr std::size_t kNameSize = 60000;
constexpr std::size_t kEffectSize = 500;

std::string NameOf(std::size_t number) {
    return std::string(kNameSize, 'n') + std::to_string(number + 10);
}

Bytes BytesOf(std::size_t number) {
    return EffectBytes(std::to_string(number + 10), kEffectSize);
}

// The number of names that are found. Fails the test if a name has another's bytes.
std::size_t CountFound(CacheClient& cache) {
    std::size_t found = 0;
    for (std::size_t number = 0; number < kNames; ++number) {
        if (const auto bytes = cache.Find(NameOf(number))) {
            EXPECT_EQ(*bytes, BytesOf(number)) << number;
            ++found;
        }
    }
    return found;
}

class EffectCacheLargeIndex : public ::testing::Test {
protected:
    void AddAll(CacheClient& cache) {
        for (std::size_t number = 0; number < kNames; ++number) {
            cache.Add(NameOf(number), BytesOf(number));
        }
    }

    const TemporaryDirectory directory_;
    const std::string path_ = CacheFilePath(directory_);
};

// Only every kStep-th write is made to fail, so that a run takes seconds.
constexpr std::uint64_t kStep = 13;

}  // namespace

TEST_F(EffectCacheLargeIndex, IsFoundAgain) {
    {
        CacheClient cache(directory_);
        AddAll(cache);
    }
    CacheClient cache(directory_);
    EXPECT_EQ(cache.InFile(), kNames);
    EXPECT_EQ(CountFound(cache), kNames);
}

TEST_F(EffectCacheLargeIndex, FailedSaveLeavesWhatWasSavedBefore) {
    {
        CacheClient cache(directory_);
        AddAll(cache);
    }
    const Bytes file = ReadWholeFile(path_);
    std::uint64_t failures = 0;
    bool hasFaults = true;
    for (std::uint64_t skipped = 0; hasFaults; skipped += kStep) {
        SCOPED_TRACE("writes that succeed: " + std::to_string(skipped));
        WriteWholeFile(path_, file);
        CacheClient cache(directory_);
        cache.Add(NameOf(0), BytesOf(0));
        cache.Add("new", EffectBytes("new", 9000));
        {
            const StdioFault fault(StdioCall::Write, EIO, skipped, 1);
            cache->ForceSaveToFile();
            hasFaults = fault.Failures() != 0;
        }
        // A save that can't reserve pages does without them.
        const bool isSaved = cache->IsEnabled();
        EXPECT_TRUE(isSaved || hasFaults);
        cache.Close();
        CacheClient fresh(directory_);
        EXPECT_TRUE(fresh->IsEnabled());
        EXPECT_EQ(fresh.InFile(), isSaved ? kNames + 1 : kNames);
        EXPECT_EQ(CountFound(fresh), kNames);
        EXPECT_EQ(fresh.Find("new").has_value(), isSaved);
        EXPECT_FALSE(std::filesystem::exists(path_ + "-journal"));
        failures += isSaved ? 0 : 1;
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(failures, 5u);
}

TEST_F(EffectCacheLargeIndex, FailedTrimIsPutOff) {
    std::vector<StoredEffect> effects;
    for (std::size_t number = 0; number < kNames; ++number) {
        effects.push_back({NameOf(number), BytesOf(number)});
    }
    WriteCache(path_, effects);
    const Bytes file = ReadWholeFile(path_);
    const std::uint64_t total = StoredCache(path_).TotalDataSize();
    std::uint64_t putOff = 0;
    bool failed = true;
    for (std::uint64_t skipped = 0; failed; skipped += kStep) {
        SCOPED_TRACE("writes that succeed: " + std::to_string(skipped));
        WriteWholeFile(path_, file);
        // A write that fails while the index is read is tried again.
        bool isTrimmed = false;
        {
            const FreeSpaceStub space(total - kEffectSize);
            const StdioFault fault(StdioCall::Write, ENOSPC, skipped, 1);
            CacheClient cache(directory_);
            EXPECT_TRUE(cache->IsEnabled());
            failed = fault.Failures() != 0;
            isTrimmed = cache.InFile() < kNames;
            EXPECT_TRUE(isTrimmed || failed);
            EXPECT_EQ(CountFound(cache), cache.InFile());
        }
        CacheClient fresh(directory_);
        EXPECT_TRUE(fresh->IsEnabled());
        EXPECT_EQ(fresh.InFile() < kNames, isTrimmed);
        EXPECT_EQ(CountFound(fresh), fresh.InFile());
        putOff += isTrimmed ? 0 : 1;
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(putOff, 5u);
}

}  // namespace Quorvel::Testing
