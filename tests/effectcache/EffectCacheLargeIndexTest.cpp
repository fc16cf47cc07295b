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

TEST_F(EffectCacheLargeIndex, FailedSaveLeavesAnEmptyCache) {
    std::uint64_t faults = 0;
    bool failed = true;
    for (std::uint64_t skipped = 0; failed; skipped += kStep) {
        SCOPED_TRACE("writes that succeed: " + std::to_string(skipped));
        std::filesystem::remove(path_);
        CacheClient cache(directory_);
        AddAll(cache);
        {
            const StdioFault fault(StdioCall::Write, ENOSPC, skipped, 1);
            cache->ForceSaveToFile();
            failed = fault.Failures() != 0;
        }
        EXPECT_EQ(cache->IsEnabled(), !failed);
        cache.Close();
        CacheClient fresh(directory_);
        EXPECT_TRUE(fresh->IsEnabled());
        EXPECT_EQ(fresh.InFile(), failed ? 0 : kNames);
        EXPECT_EQ(CountFound(fresh), failed ? 0 : kNames);
        faults += failed ? 1 : 0;
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(faults, 10u);
}

TEST_F(EffectCacheLargeIndex, FailedTrimLeavesAnEmptyCache) {
    std::vector<StoredEffect> effects;
    for (std::size_t number = 0; number < kNames; ++number) {
        effects.push_back({NameOf(number), BytesOf(number)});
    }
    WriteCache(path_, effects);
    const Bytes file = ReadWholeFile(path_);
    const std::uint64_t total = StoredCache(path_).TotalDataSize();
    std::uint64_t faults = 0;
    bool failed = true;
    for (std::uint64_t skipped = 0; failed; skipped += kStep) {
        SCOPED_TRACE("writes that succeed: " + std::to_string(skipped));
        WriteWholeFile(path_, file);
        {
            const FreeSpaceStub space(total - kEffectSize);
            const StdioFault fault(StdioCall::Write, ENOSPC, skipped, 1);
            CacheClient cache(directory_);
            EXPECT_TRUE(cache->IsEnabled());
            failed = fault.Failures() != 0;
        }
        CacheClient fresh(directory_);
        EXPECT_TRUE(fresh->IsEnabled());
        EXPECT_EQ(CountFound(fresh), fresh.InFile());
        // No effect is lost if the write fails while the index is being read.
        const bool isEmpty = fresh.InFile() == 0;
        EXPECT_TRUE(failed || !isEmpty);
        faults += isEmpty ? 1 : 0;
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(faults, 10u);
}

}  // namespace Quorvel::Testing
