#include "pagestore/FilePageCache.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <type_traits>

#include "pagestore/Fakes.h"
#include "pagestore/RefusedMemory.h"
#include "quorvel/Exceptions.h"
#include "support/StdioFaults.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

constexpr std::uint64_t kFirstInvalidPage = 0x100000;

// The record that the data of a resident page belongs to.
CachedPage& RecordOf(std::uint8_t* data) {
    return *reinterpret_cast<CachedPage*>(data - offsetof(CachedPage, data));
}

// The neighbours of a record, by value: their fields are not aligned.
CachedPage* OlderThan(const CachedPage& page) {
    return page.older;
}
CachedPage* NewerThan(const CachedPage& page) {
    return page.newer;
}

class FilePageCacheTest : public ::testing::Test {
protected:
    void MakeZeroFile(std::uint64_t pages) { WriteFile(path_, Bytes(pages * kPageSize)); }

    // Loads a page for reading and releases it.
    static void Touch(FilePageCache& cache, std::uint64_t page) {
        ASSERT_NE(cache.GetPageForRead(page), nullptr);
        cache.ReleasePageForRead(page);
    }

    // Loads a page for writing, fills it with its own number, and keeps the pin.
    static std::uint8_t* PinFilled(FilePageCache& cache, std::uint64_t page) {
        std::uint8_t* const data = cache.GetPageForWrite(page);
        if (data) { std::memset(data, static_cast<int>(page), kPageSize); }
        return data;
    }

    static void Fill(FilePageCache& cache, std::uint64_t page) {
        ASSERT_NE(PinFilled(cache, page), nullptr);
        cache.ReleasePageForWrite(page);
    }

    // The pages of a zero-filled file that hold exactly the bytes that Fill writes.
    Numbers FilledPagesOfFile() const {
        Numbers filled;
        const Bytes file = ReadFile(path_);
        for (std::uint64_t page = 10; FileOffset(page) < file.size(); ++page) {
            if (Slice(file, FileOffset(page), kPageSize) ==
                Bytes(kPageSize, static_cast<std::uint8_t>(page))) {
                filled.push_back(page);
            }
        }
        return filled;
    }

    TemporaryDirectory directory_;
    const std::string path_ = directory_.File("pages");
};

}  // namespace

// ---- Opening ------------------------------------------------------------------------------------

TEST_F(FilePageCacheTest, OpeningAMissingFileCreatesItEmpty) {
    const FilePageCache cache(path_.c_str(), 4);
    EXPECT_TRUE(std::filesystem::exists(path_));
    EXPECT_EQ(std::filesystem::file_size(path_), 0u);
}

TEST_F(FilePageCacheTest, ReadingAPageOfAnEmptyFileThrowsFileIOWithoutAnErrorNumber) {
    FilePageCache cache(path_.c_str(), 4);
    errno = EBUSY;  // left over from an earlier call
    EXPECT_EQ(FileErrorOf([&] { cache.GetPageForRead(10); }), 0);
}

TEST_F(FilePageCacheTest, WritingAPageOfAnEmptyFileGrowsItToThatPageAndPinsIt) {
    FilePageCache cache(path_.c_str(), 4);
    std::uint8_t* const data = cache.GetPageForWrite(10);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(std::filesystem::file_size(path_), 8192u);
    EXPECT_EQ(RecordOf(data).pinCount, 1);
}

TEST_F(FilePageCacheTest, OpeningAnExistingFileKeepsItsBytes) {
    const Bytes content = PatternBytes(3 * kPageSize);
    WriteFile(path_, content);
    { const FilePageCache cache(path_.c_str(), 4); }
    EXPECT_EQ(ReadFile(path_), content);
}

TEST_F(FilePageCacheTest, OpenTriesToUpdateAFileAndOnlyThenToCreateIt) {
    const StdioCounts before = CountStdioCalls();
    { const FilePageCache created(path_.c_str(), 4); }
    const StdioCounts between = CountStdioCalls();
    { const FilePageCache updated(path_.c_str(), 4); }
    EXPECT_EQ(between.opens - before.opens, 2u);
    EXPECT_EQ(CountStdioCalls().opens - between.opens, 1u);
}

TEST_F(FilePageCacheTest, OpenReturnsTrue) {
    FilePageCache cache(path_.c_str(), 4);
    EXPECT_TRUE(cache.Open(directory_.File("other").c_str(), 4));
}

TEST_F(FilePageCacheTest, OpenThrowsTheErrorNumberOfTheAttemptToCreate) {
    const std::string path = directory_.File("no such folder/pages");
    const StdioFault fault(StdioCall::Open, EMFILE, 0, 1);
    EXPECT_EQ(FileErrorOf([&] { FilePageCache(path.c_str(), 4); }), ENOENT);
    EXPECT_EQ(fault.Calls(), 2u);
}

TEST_F(FilePageCacheTest, ACacheThatCouldNotOpenStaysClosedAndCanOpenLater) {
    FilePageCache cache(path_.c_str(), 4);
    const std::string other = directory_.File("other");
    {
        const StdioFault fault(StdioCall::Open, EMFILE);
        EXPECT_EQ(FileErrorOf([&] { cache.Open(other.c_str(), 4); }), EMFILE);
    }
    EXPECT_EQ(FileErrorOf([&] { cache.GetPageForRead(10); }), 0);
    cache.Open(other.c_str(), 4);
    EXPECT_NE(cache.GetPageForWrite(10), nullptr);
    EXPECT_EQ(std::filesystem::file_size(other), 8192u);
}

TEST_F(FilePageCacheTest, AFileOfUnknownLengthIsClosedWhenTheConstructorThrows) {
    for (const StdioCall call : {StdioCall::Seek, StdioCall::Tell}) {
        const StdioCounts before = CountStdioCalls();
        const StdioFault fault(call, EIO);
        EXPECT_EQ(FileErrorOf([&] { FilePageCache(path_.c_str(), 4); }), EIO);
        EXPECT_EQ(CountStdioCalls().closes - before.closes, 1u);
    }
}

TEST_F(FilePageCacheTest, AFileOfUnknownLengthIsClosedWhenOpenThrows) {
    FilePageCache cache(path_.c_str(), 4);
    for (const StdioCall call : {StdioCall::Seek, StdioCall::Tell}) {
        cache.Close();
        const StdioCounts before = CountStdioCalls();
        const StdioFault fault(call, ESPIPE);
        EXPECT_EQ(FileErrorOf([&] { cache.Open(path_.c_str(), 4); }), ESPIPE);
        EXPECT_EQ(CountStdioCalls().closes - before.closes, 1u);
    }
    EXPECT_EQ(FileErrorOf([&] { cache.GetPageForRead(10); }), 0);
}

TEST_F(FilePageCacheTest, OpenWritesBackTheResidentPagesOfTheEarlierFile) {
    MakeZeroFile(2);
    FilePageCache cache(path_.c_str(), 4);
    ASSERT_NE(PinFilled(cache, 11), nullptr);
    const StdioCounts before = CountStdioCalls();
    cache.Open(directory_.File("other").c_str(), 4);
    EXPECT_EQ(CountStdioCalls().closes - before.closes, 1u);
    EXPECT_THAT(FilledPagesOfFile(), ElementsAre(11));
    EXPECT_EQ(FileErrorOf([&] { cache.GetPageForRead(11); }), 0);
}

TEST_F(FilePageCacheTest, OpenThatCannotWriteBackTheEarlierFileKeepsIt) {
    MakeZeroFile(1);
    FilePageCache cache(path_.c_str(), 4);
    Fill(cache, 10);
    {
        const StdioFault fault(StdioCall::Write, ENOSPC);
        EXPECT_EQ(FileErrorOf([&] { cache.Open(directory_.File("other").c_str(), 4); }), ENOSPC);
    }
    EXPECT_FALSE(std::filesystem::exists(directory_.File("other")));
    cache.Close();
    EXPECT_THAT(FilledPagesOfFile(), ElementsAre(10));
}

TEST_F(FilePageCacheTest, CapacityZeroIsTreatedAsOne) {
    MakeZeroFile(2);
    FilePageCache cache(path_.c_str(), 0);
    ASSERT_NE(cache.GetPageForRead(10), nullptr);
    EXPECT_EQ(cache.GetPageForRead(11), nullptr);
    cache.ReleasePageForRead(10);
    EXPECT_NE(cache.GetPageForRead(11), nullptr);
}

// ---- Getting pages ------------------------------------------------------------------------------

TEST_F(FilePageCacheTest, InvalidNumbersHaveNoPage) {
    MakeZeroFile(1);
    FilePageCache cache(path_.c_str(), 4);
    const StdioCounts before = CountStdioCalls();
    for (const std::uint64_t page : Numbers{0, 1, 5, 9, kFirstInvalidPage, kFirstInvalidPage + 10,
                                            std::uint64_t{1} << 32, ~std::uint64_t{0}}) {
        EXPECT_EQ(cache.GetPageForRead(page), nullptr) << page;
        EXPECT_EQ(cache.GetPageForWrite(page), nullptr) << page;
    }
    EXPECT_EQ(CountStdioCalls().seeks, before.seeks);
    EXPECT_EQ(std::filesystem::file_size(path_), 8192u);
}

TEST_F(FilePageCacheTest, ReleasingAnInvalidNumberDoesNothing) {
    MakeZeroFile(1);
    FilePageCache cache(path_.c_str(), 4);
    std::uint8_t* const data = cache.GetPageForRead(10);
    for (const std::uint64_t page :
         Numbers{0, 9, kFirstInvalidPage, kFirstInvalidPage + 10, ~std::uint64_t{0}}) {
        cache.ReleasePageForRead(page);
        cache.ReleasePageForWrite(page);
    }
    EXPECT_EQ(RecordOf(data).pinCount, 1);
}

TEST_F(FilePageCacheTest, TheHighestValidNumberNamesAPage) {
    FilePageCache cache(path_.c_str(), 4);
    EXPECT_THROW(cache.GetPageForRead(kFirstInvalidPage - 1), FileIOException);
}

TEST_F(FilePageCacheTest, PageTenIsAtTheStartOfTheFileAndTheOthersFollow) {
    const Bytes content = PatternBytes(4 * kPageSize);
    WriteFile(path_, content);
    FilePageCache cache(path_.c_str(), 4);
    EXPECT_EQ(PageBytes(cache.GetPageForRead(10)), Slice(content, 0, 8192));
    EXPECT_EQ(PageBytes(cache.GetPageForRead(13)), Slice(content, 24576, 8192));
    EXPECT_EQ(PageBytes(cache.GetPageForWrite(11)), Slice(content, 8192, 8192));
}

TEST_F(FilePageCacheTest, ReadingAPageThatLiesPartlyBeyondTheEndThrowsFileIO) {
    WriteFile(path_, PatternBytes(kPageSize + 8191));
    FilePageCache cache(path_.c_str(), 4);
    EXPECT_NE(cache.GetPageForRead(10), nullptr);
    EXPECT_EQ(FileErrorOf([&] { cache.GetPageForRead(11); }), 0);
}

TEST_F(FilePageCacheTest, APageThatCouldNotBeReadIsAvailableOnceTheFileCoversIt) {
    FilePageCache cache(path_.c_str(), 1);
    EXPECT_THROW(cache.GetPageForRead(11), FileIOException);
    cache.EnsurePageInFile(11);
    EXPECT_EQ(PageBytes(cache.GetPageForRead(11)), Bytes(8192));
}

TEST_F(FilePageCacheTest, WritingAPageBeyondTheEndFillsTheFileWithZerosUpToItsEnd) {
    WriteFile(path_, Bytes(100, 7));
    FilePageCache cache(path_.c_str(), 4);
    EXPECT_EQ(PageBytes(cache.GetPageForWrite(13)), Bytes(8192));
    Bytes expected(100, 7);
    expected.resize(4 * 8192);
    EXPECT_EQ(ReadFile(path_), expected);
}

TEST_F(FilePageCacheTest, WritingAPageThatTheFileHoldsInPartKeepsThatPart) {
    const Bytes content = PatternBytes(kPageSize + 5000);
    WriteFile(path_, content);
    FilePageCache cache(path_.c_str(), 4);
    Bytes expected = Slice(content, 8192, 5000);
    expected.resize(8192);
    EXPECT_EQ(PageBytes(cache.GetPageForWrite(11)), expected);
    EXPECT_EQ(std::filesystem::file_size(path_), 16384u);
}

TEST_F(FilePageCacheTest, WritingAPageThatTheFileCoversDoesNotAskForTheFileSizeAgain) {
    MakeZeroFile(3);
    FilePageCache cache(path_.c_str(), 4);
    const StdioCounts before = CountStdioCalls();
    ASSERT_NE(cache.GetPageForWrite(12), nullptr);
    EXPECT_EQ(CountStdioCalls().tells, before.tells);
    EXPECT_EQ(CountStdioCalls().writes, before.writes);
}

TEST_F(FilePageCacheTest, LoadingAPageIsOneReadOfOneWholePage) {
    MakeZeroFile(2);
    FilePageCache cache(path_.c_str(), 4);
    const StdioCounts before = CountStdioCalls();
    ASSERT_NE(cache.GetPageForRead(11), nullptr);
    const StdioCounts after = CountStdioCalls();
    EXPECT_EQ(after.seeks - before.seeks, 1u);
    EXPECT_EQ(after.reads - before.reads, 1u);
    EXPECT_EQ(after.bytesRead - before.bytesRead, 8192u);
    EXPECT_EQ(after.writes, before.writes);
}

TEST_F(FilePageCacheTest, EvictingAPageIsOneWriteOfOneWholePage) {
    MakeZeroFile(2);
    FilePageCache cache(path_.c_str(), 1);
    Touch(cache, 10);
    const StdioCounts before = CountStdioCalls();
    Touch(cache, 11);
    const StdioCounts after = CountStdioCalls();
    EXPECT_EQ(after.writes - before.writes, 1u);
    EXPECT_EQ(after.bytesWritten - before.bytesWritten, 8192u);
    EXPECT_EQ(after.reads - before.reads, 1u);
    EXPECT_EQ(after.bytesRead - before.bytesRead, 8192u);
}

TEST_F(FilePageCacheTest, AResidentPageIsFoundWithoutTouchingTheFile) {
    MakeZeroFile(1);
    FilePageCache cache(path_.c_str(), 4);
    std::uint8_t* const data = cache.GetPageForRead(10);
    const StdioCounts before = CountStdioCalls();
    EXPECT_EQ(cache.GetPageForRead(10), data);
    EXPECT_EQ(cache.GetPageForWrite(10), data);
    const StdioCounts after = CountStdioCalls();
    EXPECT_EQ(after.seeks, before.seeks);
    EXPECT_EQ(after.reads, before.reads);
    EXPECT_EQ(RecordOf(data).pinCount, 3);
}

TEST_F(FilePageCacheTest, APinForWritingMakesAPageDirtyAndOneForReadingLeavesItSo) {
    MakeZeroFile(2);
    FilePageCache cache(path_.c_str(), 4);
    std::uint8_t* const read = cache.GetPageForRead(10);
    std::uint8_t* const written = cache.GetPageForWrite(11);
    EXPECT_EQ(RecordOf(read).dirty, 0);
    EXPECT_EQ(RecordOf(written).dirty, 1);
    cache.GetPageForRead(11);
    EXPECT_EQ(RecordOf(written).dirty, 1);
    cache.GetPageForWrite(10);
    EXPECT_EQ(RecordOf(read).dirty, 1);
}

TEST_F(FilePageCacheTest, GettingAPageWithoutMemoryThrowsOutOfMemoryAndCanBeRepeated) {
    const Bytes content = PatternBytes(kPageSize);
    WriteFile(path_, content);
    FilePageCache cache(path_.c_str(), 1);
    {
        const RefusedMemory refused;
        EXPECT_THROW(cache.GetPageForRead(10), OutOfMemoryException);
        EXPECT_THROW(cache.GetPageForWrite(10), OutOfMemoryException);
    }
    EXPECT_EQ(PageBytes(cache.GetPageForRead(10)), content);
}

TEST_F(FilePageCacheTest, ReadingAClosedCacheThrowsFileIOWithoutAnErrorNumber) {
    MakeZeroFile(1);
    FilePageCache cache(path_.c_str(), 4);
    cache.Close();
    EXPECT_EQ(FileErrorOf([&] { cache.GetPageForRead(10); }), 0);
}

TEST_F(FilePageCacheTest, GrowingAClosedCacheThrowsInvalidParameter) {
    FilePageCache cache(path_.c_str(), 4);
    cache.Close();
    EXPECT_THROW(cache.GetPageForWrite(10), InvalidParameterException);
    EXPECT_THROW(cache.EnsurePageInFile(10), InvalidParameterException);
}

// ---- Failing loads ------------------------------------------------------------------------------

TEST_F(FilePageCacheTest, ALoadThatFailsThrowsTheErrorNumberAndLeavesTheSlotEmpty) {
    const Bytes content = PatternBytes(2 * kPageSize);
    WriteFile(path_, content);
    for (const StdioCall call : {StdioCall::Seek, StdioCall::Read}) {
        FilePageCache cache(path_.c_str(), 1);
        {
            const StdioFault fault(call, EIO);
            EXPECT_EQ(FileErrorOf([&] { cache.GetPageForRead(11); }), EIO);
            EXPECT_EQ(FileErrorOf([&] { cache.GetPageForWrite(11); }), EIO);
        }
        cache.ReleasePageForRead(11);
        EXPECT_EQ(PageBytes(cache.GetPageForRead(11)), Slice(content, 8192, 8192));
    }
}

TEST_F(FilePageCacheTest, AReadOfPartOfAPageIsAFailure) {
    const Bytes content = PatternBytes(kPageSize);
    WriteFile(path_, content);
    FilePageCache cache(path_.c_str(), 1);
    {
        const StdioFault fault(StdioCall::Read, EIO, 0, 1, 4096);
        EXPECT_EQ(FileErrorOf([&] { cache.GetPageForRead(10); }), EIO);
        EXPECT_EQ(fault.Calls(), 1u);
    }
    EXPECT_EQ(PageBytes(cache.GetPageForRead(10)), content);
}

TEST_F(FilePageCacheTest, AGrowthThatFailsThrowsTheErrorNumberAndCanBeRepeated) {
    FilePageCache cache(path_.c_str(), 1);
    {
        const StdioFault fault(StdioCall::Write, ENOSPC, 1, 1, 3000);
        EXPECT_EQ(FileErrorOf([&] { cache.GetPageForWrite(12); }), ENOSPC);
    }
    EXPECT_EQ(std::filesystem::file_size(path_), 8192u + 3000u);
    EXPECT_EQ(PageBytes(cache.GetPageForWrite(12)), Bytes(8192));
    EXPECT_EQ(std::filesystem::file_size(path_), 3u * 8192u);
}

TEST_F(FilePageCacheTest, AnEvictionThatFailsKeepsThePageAndLoadsNoOther) {
    MakeZeroFile(2);
    for (const StdioCall call : {StdioCall::Seek, StdioCall::Write}) {
        FilePageCache cache(path_.c_str(), 1);
        Fill(cache, 10);
        {
            const StdioFault fault(call, ENOSPC);
            EXPECT_EQ(FileErrorOf([&] { cache.GetPageForRead(11); }), ENOSPC);
        }
        const StdioCounts before = CountStdioCalls();
        EXPECT_EQ(PageBytes(cache.GetPageForRead(10)), Bytes(8192, 10));
        EXPECT_EQ(CountStdioCalls().reads, before.reads);
        cache.ReleasePageForRead(10);
        EXPECT_EQ(PageBytes(cache.GetPageForRead(11)), Bytes(8192, 0));
        EXPECT_THAT(FilledPagesOfFile(), ElementsAre(10));
        cache.DiscardAll();
        MakeZeroFile(2);
    }
}

// ---- Pins and eviction --------------------------------------------------------------------------

TEST_F(FilePageCacheTest, WithCapacityOneASecondPageIsRefusedUntilTheFirstIsReleased) {
    MakeZeroFile(2);
    FilePageCache cache(path_.c_str(), 1);
    ASSERT_NE(PinFilled(cache, 10), nullptr);
    EXPECT_EQ(cache.GetPageForRead(11), nullptr);
    EXPECT_EQ(cache.GetPageForWrite(11), nullptr);
    EXPECT_THAT(FilledPagesOfFile(), IsEmpty());
    cache.ReleasePageForWrite(10);
    EXPECT_NE(cache.GetPageForRead(11), nullptr);
    EXPECT_THAT(FilledPagesOfFile(), ElementsAre(10));
}

TEST_F(FilePageCacheTest, APagePinnedTwiceCanBeEvictedAfterTwoReleases) {
    MakeZeroFile(2);
    FilePageCache cache(path_.c_str(), 1);
    cache.GetPageForRead(10);
    cache.GetPageForWrite(10);
    cache.ReleasePageForRead(10);
    EXPECT_EQ(cache.GetPageForRead(11), nullptr);
    cache.ReleasePageForRead(10);
    EXPECT_NE(cache.GetPageForRead(11), nullptr);
}

TEST_F(FilePageCacheTest, AnExtraReleaseMakesThePinCountNegativeAndThePageStaysEvictable) {
    MakeZeroFile(2);
    FilePageCache cache(path_.c_str(), 1);
    std::uint8_t* const data = cache.GetPageForRead(10);
    cache.ReleasePageForRead(10);
    cache.ReleasePageForWrite(10);
    EXPECT_EQ(RecordOf(data).pinCount, -1);
    cache.ReleasePageForRead(10);
    EXPECT_EQ(RecordOf(data).pinCount, -2);
    EXPECT_EQ(cache.GetPageForRead(10), data);
    EXPECT_NE(cache.GetPageForRead(11), nullptr);
}

TEST_F(FilePageCacheTest, APinAfterAnExtraReleaseDoesNotHoldThePage) {
    MakeZeroFile(2);
    FilePageCache cache(path_.c_str(), 1);
    std::uint8_t* const data = cache.GetPageForRead(10);
    cache.ReleasePageForRead(10);
    cache.ReleasePageForRead(10);
    EXPECT_EQ(cache.GetPageForRead(10), data);
    EXPECT_EQ(RecordOf(data).pinCount, 0);
    EXPECT_NE(cache.GetPageForRead(11), nullptr);
}

TEST_F(FilePageCacheTest, ReleasingAPageThatIsNotResidentDoesNothing) {
    MakeZeroFile(2);
    FilePageCache cache(path_.c_str(), 1);
    cache.ReleasePageForRead(10);
    cache.ReleasePageForRead(5000);
    Touch(cache, 11);
    cache.ReleasePageForRead(10);
    std::uint8_t* const data = cache.GetPageForRead(10);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(RecordOf(data).pinCount, 1);
}

TEST_F(FilePageCacheTest, TheLeastRecentlyUsedPageIsEvictedFirst) {
    MakeZeroFile(5);
    FilePageCache cache(path_.c_str(), 3);
    Fill(cache, 10);
    Fill(cache, 11);
    Fill(cache, 12);
    Touch(cache, 13);
    EXPECT_THAT(FilledPagesOfFile(), ElementsAre(10));
    Touch(cache, 14);
    EXPECT_THAT(FilledPagesOfFile(), ElementsAre(10, 11));
}

TEST_F(FilePageCacheTest, UsingAPageAgainMakesItTheMostRecent) {
    MakeZeroFile(6);
    FilePageCache cache(path_.c_str(), 4);
    for (const std::uint64_t page : Numbers{10, 11, 12, 13}) {
        Fill(cache, page);
    }
    Touch(cache, 10);  // the oldest
    Touch(cache, 12);  // one in the middle
    Touch(cache, 12);  // the newest
    Touch(cache, 14);
    EXPECT_THAT(FilledPagesOfFile(), ElementsAre(11));
    Touch(cache, 15);
    EXPECT_THAT(FilledPagesOfFile(), ElementsAre(11, 13));
}

TEST_F(FilePageCacheTest, ReleasingAPageDoesNotMakeItMoreRecentAndWritesNothing) {
    MakeZeroFile(3);
    FilePageCache cache(path_.c_str(), 2);
    ASSERT_NE(PinFilled(cache, 10), nullptr);
    ASSERT_NE(PinFilled(cache, 11), nullptr);
    const StdioCounts before = CountStdioCalls();
    cache.ReleasePageForWrite(11);
    cache.ReleasePageForWrite(10);
    EXPECT_EQ(CountStdioCalls().writes, before.writes);
    Touch(cache, 12);
    EXPECT_THAT(FilledPagesOfFile(), ElementsAre(10));
}

TEST_F(FilePageCacheTest, PinnedPagesAreSkippedAndKeepTheirPlaces) {
    MakeZeroFile(6);
    FilePageCache cache(path_.c_str(), 4);
    ASSERT_NE(PinFilled(cache, 10), nullptr);
    ASSERT_NE(PinFilled(cache, 11), nullptr);
    Fill(cache, 12);
    Fill(cache, 13);
    Touch(cache, 14);
    EXPECT_THAT(FilledPagesOfFile(), ElementsAre(12));
    cache.ReleasePageForWrite(11);
    Touch(cache, 15);
    EXPECT_THAT(FilledPagesOfFile(), ElementsAre(11, 12));
    cache.ReleasePageForWrite(10);
    Touch(cache, 12);
    EXPECT_THAT(FilledPagesOfFile(), ElementsAre(10, 11, 12));
}

TEST_F(FilePageCacheTest, WhenEveryPageIsPinnedNoneIsReturnedAndNoneIsLost) {
    MakeZeroFile(4);
    FilePageCache cache(path_.c_str(), 3);
    for (const std::uint64_t page : Numbers{10, 11, 12}) {
        ASSERT_NE(PinFilled(cache, page), nullptr);
    }
    const StdioCounts before = CountStdioCalls();
    EXPECT_EQ(cache.GetPageForRead(13), nullptr);
    EXPECT_EQ(CountStdioCalls().writes, before.writes);
    EXPECT_EQ(CountStdioCalls().reads, before.reads);
    cache.ReleasePageForWrite(11);
    EXPECT_NE(cache.GetPageForRead(13), nullptr);
    EXPECT_THAT(FilledPagesOfFile(), ElementsAre(11));
}

TEST_F(FilePageCacheTest, APageThatWasOnlyReadIsWrittenWhenEvicted) {
    const Bytes content = PatternBytes(2 * kPageSize);
    WriteFile(path_, content);
    FilePageCache cache(path_.c_str(), 1);
    Touch(cache, 10);
    WriteFile(path_, Bytes(2 * kPageSize));
    Touch(cache, 11);
    EXPECT_EQ(ReadFilePage(path_, 10), Slice(content, 0, 8192));
}

TEST_F(FilePageCacheTest, AnEvictedPageIsInTheFileAtOnce) {
    FilePageCache cache(path_.c_str(), 1);
    const Bytes content = PatternBytes(kPageSize, 3);
    std::uint8_t* const data = cache.GetPageForWrite(11);
    ASSERT_NE(data, nullptr);
    std::copy(content.begin(), content.end(), data);
    cache.ReleasePageForWrite(11);
    cache.GetPageForWrite(10);
    EXPECT_EQ(ReadFilePage(path_, 11), content);
}

TEST_F(FilePageCacheTest, AnEvictedPageIsReadBackUnchanged) {
    MakeZeroFile(3);
    FilePageCache cache(path_.c_str(), 1);
    for (const std::uint64_t page : Numbers{10, 11, 12}) {
        Fill(cache, page);
    }
    for (const std::uint64_t page : Numbers{12, 10, 11}) {
        EXPECT_EQ(PageBytes(cache.GetPageForRead(page)),
                  Bytes(8192, static_cast<std::uint8_t>(page)));
        cache.ReleasePageForRead(page);
    }
}

TEST_F(FilePageCacheTest, BytesPassThroughTheFileUnchanged) {
    Bytes content(kPageSize, '\n');
    for (std::size_t i = 0; i < 256; ++i) {
        content[2 * i] = static_cast<std::uint8_t>(i);
    }
    content[4000] = '\r';
    content[5000] = 0x1A;
    {
        FilePageCache cache(path_.c_str(), 1);
        std::copy(content.begin(), content.end(), cache.GetPageForWrite(10));
    }
    EXPECT_EQ(ReadFile(path_), content);
    FilePageCache cache(path_.c_str(), 1);
    EXPECT_EQ(PageBytes(cache.GetPageForRead(10)), content);
}

// ---- Closing ------------------------------------------------------------------------------------

TEST_F(FilePageCacheTest, CloseWritesBackPinnedAndCleanPages) {
    const Bytes content = PatternBytes(3 * kPageSize);
    WriteFile(path_, content);
    FilePageCache cache(path_.c_str(), 4);
    ASSERT_NE(cache.GetPageForRead(10), nullptr);
    Touch(cache, 11);
    ASSERT_NE(PinFilled(cache, 12), nullptr);
    WriteFile(path_, Bytes(3 * kPageSize));
    const StdioCounts before = CountStdioCalls();
    cache.Close();
    const StdioCounts after = CountStdioCalls();
    EXPECT_EQ(after.writes - before.writes, 3u);
    EXPECT_EQ(after.bytesWritten - before.bytesWritten, 3u * 8192u);
    EXPECT_EQ(after.closes - before.closes, 1u);
    EXPECT_EQ(Slice(ReadFile(path_), 0, 16384), Slice(content, 0, 16384));
    EXPECT_EQ(ReadFilePage(path_, 12), Bytes(8192, 12));
}

TEST_F(FilePageCacheTest, CloseWritesBackPagesInAscendingOrder) {
    MakeZeroFile(4);
    FilePageCache cache(path_.c_str(), 4);
    Fill(cache, 12);
    ASSERT_NE(PinFilled(cache, 10), nullptr);
    Fill(cache, 13);
    ASSERT_NE(PinFilled(cache, 11), nullptr);
    for (Numbers written; written.size() < 3;) {
        const StdioFault fault(StdioCall::Write, EIO, 1);
        EXPECT_EQ(FileErrorOf([&] { cache.Close(); }), EIO);
        written.push_back(10 + written.size());
        EXPECT_EQ(FilledPagesOfFile(), written);
    }
    cache.Close();
    EXPECT_THAT(FilledPagesOfFile(), ElementsAre(10, 11, 12, 13));
}

TEST_F(FilePageCacheTest, ACloseThatCannotWriteAPageKeepsItTheLaterOnesAndTheFile) {
    MakeZeroFile(3);
    for (const StdioCall call : {StdioCall::Seek, StdioCall::Write}) {
        FilePageCache cache(path_.c_str(), 4);
        std::uint8_t* pages[3] = {};
        for (const std::uint64_t page : Numbers{10, 11, 12}) {
            pages[page - 10] = PinFilled(cache, page);
        }
        const StdioCounts before = CountStdioCalls();
        {
            const StdioFault fault(call, ENOSPC, 1, 1);
            EXPECT_EQ(FileErrorOf([&] { cache.Close(); }), ENOSPC);
        }
        EXPECT_EQ(cache.GetPageForRead(11), pages[1]);
        EXPECT_EQ(cache.GetPageForRead(12), pages[2]);
        EXPECT_EQ(CountStdioCalls().reads, before.reads);
        EXPECT_EQ(CountStdioCalls().closes, before.closes);
        EXPECT_EQ(PageBytes(cache.GetPageForRead(10)), Bytes(8192, 10));
        cache.Close();
        EXPECT_EQ(CountStdioCalls().closes - before.closes, 1u);
        EXPECT_THAT(FilledPagesOfFile(), ElementsAre(10, 11, 12));
        MakeZeroFile(3);
    }
}

TEST_F(FilePageCacheTest, AClosedCacheIsAsNewAndCanOpenAgain) {
    MakeZeroFile(2);
    FilePageCache cache(path_.c_str(), 4);
    ASSERT_NE(cache.GetPageForRead(11), nullptr);
    cache.Close();
    EXPECT_EQ(FileErrorOf([&] { cache.GetPageForRead(11); }), 0);
    cache.Open(path_.c_str(), 1);
    std::uint8_t* const data = cache.GetPageForRead(11);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(RecordOf(data).pinCount, 1);
    EXPECT_EQ(cache.GetPageForRead(10), nullptr);
}

TEST_F(FilePageCacheTest, ClosingAClosedCacheTouchesNothing) {
    FilePageCache cache(path_.c_str(), 4);
    cache.Close();
    const StdioCounts before = CountStdioCalls();
    cache.Close();
    EXPECT_EQ(CountStdioCalls().closes, before.closes);
    EXPECT_EQ(CountStdioCalls().writes, before.writes);
}

TEST_F(FilePageCacheTest, AFailureToCloseTheFileIsReportedAndLeavesTheCacheClosed) {
    MakeZeroFile(1);
    FilePageCache cache(path_.c_str(), 4);
    Fill(cache, 10);
    {
        const StdioFault fault(StdioCall::Close, EIO);
        EXPECT_EQ(FileErrorOf([&] { cache.Close(); }), EIO);
        EXPECT_EQ(fault.Failures(), 1u);
        cache.Close();
        EXPECT_EQ(fault.Failures(), 1u);
    }
    EXPECT_THAT(FilledPagesOfFile(), ElementsAre(10));
    EXPECT_EQ(FileErrorOf([&] { cache.GetPageForRead(10); }), 0);
}

TEST_F(FilePageCacheTest, TheDestructorWritesBackAndClosesTheFile) {
    MakeZeroFile(2);
    const StdioCounts before = CountStdioCalls();
    {
        FilePageCache cache(path_.c_str(), 4);
        ASSERT_NE(PinFilled(cache, 11), nullptr);
    }
    EXPECT_EQ(CountStdioCalls().closes - before.closes, 1u);
    EXPECT_THAT(FilledPagesOfFile(), ElementsAre(11));
}

TEST_F(FilePageCacheTest, TheDestructorClosesTheFileEvenIfPagesCannotBeWritten) {
    MakeZeroFile(3);
    const StdioCounts before = CountStdioCalls();
    {
        auto cache = std::make_unique<FilePageCache>(path_.c_str(), 4);
        for (const std::uint64_t page : Numbers{10, 11, 12}) {
            ASSERT_NE(PinFilled(*cache, page), nullptr);
        }
        const StdioFault fault(StdioCall::Write, ENOSPC, 1);
        cache.reset();
    }
    EXPECT_EQ(CountStdioCalls().closes - before.closes, 1u);
    EXPECT_THAT(FilledPagesOfFile(), ElementsAre(10));
}

// ---- Discarding ---------------------------------------------------------------------------------

TEST_F(FilePageCacheTest, DiscardAllFreesPinnedAndDirtyPagesWithoutWritingThem) {
    MakeZeroFile(2);
    FilePageCache cache(path_.c_str(), 2);
    ASSERT_NE(PinFilled(cache, 10), nullptr);
    Fill(cache, 11);
    const StdioCounts before = CountStdioCalls();
    cache.DiscardAll();
    EXPECT_EQ(CountStdioCalls().writes, before.writes);
    cache.ReleasePageForWrite(10);
    EXPECT_EQ(PageBytes(cache.GetPageForRead(10)), Bytes(8192, 0));
    EXPECT_EQ(PageBytes(cache.GetPageForRead(11)), Bytes(8192, 0));
}

TEST_F(FilePageCacheTest, DiscardAllKeepsTheFileItsSizeAndTheCapacity) {
    MakeZeroFile(3);
    FilePageCache cache(path_.c_str(), 2);
    Touch(cache, 10);
    const StdioCounts before = CountStdioCalls();
    cache.DiscardAll();
    EXPECT_NE(cache.GetPageForWrite(11), nullptr);
    EXPECT_NE(cache.GetPageForWrite(12), nullptr);
    EXPECT_EQ(cache.GetPageForWrite(10), nullptr);
    EXPECT_EQ(CountStdioCalls().tells, before.tells);
    EXPECT_EQ(CountStdioCalls().closes, before.closes);
}

TEST_F(FilePageCacheTest, DiscardAllOfAnEmptyCacheDoesNothing) {
    MakeZeroFile(1);
    FilePageCache cache(path_.c_str(), 1);
    cache.DiscardAll();
    cache.DiscardAll();
    EXPECT_NE(cache.GetPageForRead(10), nullptr);
}

// ---- Writing one page ---------------------------------------------------------------------------

TEST_F(FilePageCacheTest, WritePageWritesAResidentPageToTheFileAndKeepsIt) {
    FilePageCache cache(path_.c_str(), 4);
    Fill(cache, 10);
    Fill(cache, 11);
    const StdioCounts before = CountStdioCalls();
    cache.WritePage(11);
    EXPECT_EQ(CountStdioCalls().writes, before.writes + 1);
    EXPECT_EQ(CountStdioCalls().bytesWritten, before.bytesWritten + kPageSize);
    EXPECT_EQ(FilledPagesOfFile(), (Numbers{11}));

    Touch(cache, 11);
    EXPECT_EQ(CountStdioCalls().reads, before.reads);
}

TEST_F(FilePageCacheTest, WritePageThrowsIfThePageCannotBeWritten) {
    FilePageCache cache(path_.c_str(), 4);
    Fill(cache, 10);
    const StdioFault fault(StdioCall::Write, ENOSPC);
    EXPECT_THROW(cache.WritePage(10), FileIOException);
}

// Records the pages that are written, with the number of writes before each, and the pages that
// change, with their first byte. Throws when told to.
class PageWatch : public PageListener {
public:
    void BeforePageChange(std::uint64_t page, const std::uint8_t* bytes) override {
        changes.emplace_back(page, bytes[0]);
        if (throws) { throw FileIOException(EIO); }
    }

    void BeforePageWrite(std::uint64_t page) override {
        writes.emplace_back(page, CountStdioCalls().writes);
        if (throws) { throw FileIOException(EIO); }
    }

    std::vector<std::pair<std::uint64_t, std::uint8_t>> changes;
    std::vector<std::pair<std::uint64_t, std::uint64_t>> writes;
    bool throws = false;
};

TEST_F(FilePageCacheTest, TellsTheListenerBeforeEachPageThatLeaves) {
    MakeZeroFile(4);
    PageWatch watch;
    FilePageCache cache(path_.c_str(), 2);
    cache.SetListener(&watch);
    Fill(cache, 10);
    Fill(cache, 11);
    EXPECT_THAT(watch.writes, IsEmpty());
    const std::uint64_t before = CountStdioCalls().writes;
    Touch(cache, 12);
    EXPECT_THAT(watch.writes, ElementsAre(Pair(10, before)));
    cache.Close();
    EXPECT_THAT(watch.writes,
                ElementsAre(Pair(10, before), Pair(11, before + 1), Pair(12, before + 2)));
}

TEST_F(FilePageCacheTest, DoesNotTellTheListenerOfOtherWrites) {
    PageWatch watch;
    FilePageCache cache(path_.c_str(), 2);
    cache.SetListener(&watch);
    Fill(cache, 10);
    cache.WritePage(10);
    cache.EnsurePageInFile(15);
    cache.DiscardAll();
    cache.SetListener(nullptr);
    Fill(cache, 10);
    cache.Close();
    EXPECT_THAT(watch.writes, IsEmpty());
}

TEST_F(FilePageCacheTest, ShowsTheListenerEachPageThatIsGivenOutForWriting) {
    MakeZeroFile(2);
    PageWatch watch;
    FilePageCache cache(path_.c_str(), 2);
    cache.SetListener(&watch);
    cache.GetPageForRead(10);
    EXPECT_THAT(watch.changes, IsEmpty());
    cache.GetPageForWrite(10)[0] = 7;
    cache.GetPageForWrite(11)[0] = 8;
    cache.GetPageForWrite(10);
    EXPECT_THAT(watch.changes, ElementsAre(Pair(10, 0), Pair(11, 0), Pair(10, 7)));
}

TEST_F(FilePageCacheTest, DoesNotGiveOutAPageThatTheListenerRefuses) {
    MakeZeroFile(2);
    PageWatch watch;
    FilePageCache cache(path_.c_str(), 1);
    Touch(cache, 10);
    cache.SetListener(&watch);
    watch.throws = true;
    EXPECT_EQ(FileErrorOf([&] { cache.GetPageForWrite(10); }), EIO);
    EXPECT_TRUE(cache.IsResident(10));
    watch.throws = false;
    Touch(cache, 11);  // page 10 was not pinned
    watch.throws = true;
    Touch(cache, 11);
    cache.DiscardAll();
    EXPECT_EQ(FileErrorOf([&] { cache.GetPageForWrite(10); }), EIO);
    EXPECT_FALSE(cache.IsResident(10));
    cache.SetListener(nullptr);
    EXPECT_NE(cache.GetPageForWrite(11), nullptr);
}

TEST_F(FilePageCacheTest, KeepsAPageThatTheListenerDoesNotWantWritten) {
    MakeZeroFile(4);
    PageWatch watch;
    FilePageCache cache(path_.c_str(), 2);
    cache.SetListener(&watch);
    Fill(cache, 10);
    Fill(cache, 11);
    watch.throws = true;
    EXPECT_EQ(FileErrorOf([&] { cache.GetPageForRead(12); }), EIO);
    EXPECT_EQ(FilledPagesOfFile(), Numbers());
    EXPECT_TRUE(cache.IsResident(10));
    cache.SetListener(nullptr);
    cache.Close();
    EXPECT_EQ(FilledPagesOfFile(), (Numbers{10, 11}));
}

TEST_F(FilePageCacheTest, KnowsWhichPagesAreResident) {
    MakeZeroFile(3);
    FilePageCache cache(path_.c_str(), 1);
    EXPECT_FALSE(cache.IsResident(10));
    Touch(cache, 10);
    EXPECT_TRUE(cache.IsResident(10));
    Touch(cache, 12);
    EXPECT_FALSE(cache.IsResident(10));
    EXPECT_FALSE(cache.IsResident(11));
    EXPECT_TRUE(cache.IsResident(12));
    EXPECT_FALSE(cache.IsResident(9));
    EXPECT_FALSE(cache.IsResident(1000000));
}

TEST_F(FilePageCacheTest, IsOpenUntilItIsClosed) {
    FilePageCache cache(path_.c_str(), 1);
    EXPECT_TRUE(cache.IsOpen());
    cache.Close();
    EXPECT_FALSE(cache.IsOpen());
}

// ---- Making the file cover a page ---------------------------------------------------------------

TEST_F(FilePageCacheTest, CoversThePagesThatLieWhollyInTheFile) {
    MakeZeroFile(2);
    FilePageCache cache(path_.c_str(), 4);
    EXPECT_TRUE(cache.CoversPage(10));
    EXPECT_TRUE(cache.CoversPage(11));
    EXPECT_FALSE(cache.CoversPage(12));
    cache.EnsurePageInFile(12);
    EXPECT_TRUE(cache.CoversPage(12));
    EXPECT_FALSE(cache.CoversPage(13));
}

TEST_F(FilePageCacheTest, EnsurePageInFileGrowsTheFileToTheEndOfThePageWithoutLoadingIt) {
    FilePageCache cache(path_.c_str(), 1);
    const StdioCounts before = CountStdioCalls();
    cache.EnsurePageInFile(12);
    EXPECT_EQ(ReadFile(path_), Bytes(3 * 8192));
    EXPECT_EQ(CountStdioCalls().reads, before.reads);
    ASSERT_NE(cache.GetPageForRead(10), nullptr);
}

TEST_F(FilePageCacheTest, EnsurePageInFileDoesNothingForAPageThatTheFileCovers) {
    MakeZeroFile(2);
    FilePageCache cache(path_.c_str(), 1);
    cache.EnsurePageInFile(13);
    const StdioCounts before = CountStdioCalls();
    for (const std::uint64_t page : Numbers{10, 11, 12, 13}) {
        cache.EnsurePageInFile(page);
    }
    EXPECT_EQ(CountStdioCalls().seeks, before.seeks);
    EXPECT_EQ(CountStdioCalls().writes, before.writes);
    EXPECT_EQ(std::filesystem::file_size(path_), 4u * 8192u);
}

TEST_F(FilePageCacheTest, EnsurePageInFileThatFailsThrowsTheErrorNumberAndCanBeRepeated) {
    FilePageCache cache(path_.c_str(), 1);
    for (const StdioCall call : {StdioCall::Seek, StdioCall::Tell, StdioCall::Write}) {
        const StdioFault fault(call, ENOSPC);
        EXPECT_EQ(FileErrorOf([&] { cache.EnsurePageInFile(11); }), ENOSPC);
    }
    EXPECT_EQ(std::filesystem::file_size(path_), 0u);
    cache.EnsurePageInFile(11);
    EXPECT_EQ(std::filesystem::file_size(path_), 16384u);
}

// ---- Layout -------------------------------------------------------------------------------------

TEST(CachedPage, IsPackedInTheOrderOfItsFields) {
    EXPECT_EQ(offsetof(CachedPage, pageIndex), 0u);
    EXPECT_EQ(offsetof(CachedPage, pinCount), 8u);
    EXPECT_EQ(offsetof(CachedPage, dirty), 12u);
    EXPECT_EQ(offsetof(CachedPage, data), 13u);
    EXPECT_EQ(offsetof(CachedPage, older), 8205u);
    EXPECT_EQ(offsetof(CachedPage, newer), 8213u);
    EXPECT_EQ(sizeof(CachedPage), 8221u);
}

TEST_F(FilePageCacheTest, ResidentPagesAreLinkedFromTheOldestToTheNewest) {
    MakeZeroFile(4);
    FilePageCache cache(path_.c_str(), 4);
    CachedPage& ten = RecordOf(cache.GetPageForRead(10));
    CachedPage& twelve = RecordOf(cache.GetPageForRead(12));
    CachedPage& eleven = RecordOf(cache.GetPageForRead(11));
    EXPECT_EQ(ten.pageIndex, 0u);
    EXPECT_EQ(twelve.pageIndex, 2u);
    EXPECT_EQ(eleven.pageIndex, 1u);
    EXPECT_EQ(OlderThan(ten), nullptr);
    EXPECT_EQ(NewerThan(ten), &twelve);
    EXPECT_EQ(OlderThan(twelve), &ten);
    EXPECT_EQ(NewerThan(twelve), &eleven);
    EXPECT_EQ(OlderThan(eleven), &twelve);
    EXPECT_EQ(NewerThan(eleven), nullptr);

    cache.GetPageForRead(12);
    EXPECT_EQ(NewerThan(ten), &eleven);
    EXPECT_EQ(OlderThan(eleven), &ten);
    EXPECT_EQ(NewerThan(eleven), &twelve);
    EXPECT_EQ(OlderThan(twelve), &eleven);
    EXPECT_EQ(NewerThan(twelve), nullptr);
}

// The cache's fields, in order.
struct CacheFields {
    const void* virtualTable;
    std::FILE* file;
    std::uint64_t fileSize;
    std::uint64_t capacity;
    CachedPage** pages;
    CachedPage** pagesEnd;
    CachedPage** pagesRoom;
    std::uint64_t residentCount;
    CachedPage* mostRecent;
    CachedPage* leastRecent;
    PageListener* listener;
};

TEST_F(FilePageCacheTest, KeepsItsStateInOneFixedOrder) {
    static_assert(sizeof(FilePageCache) == sizeof(CacheFields));
    static_assert(std::has_virtual_destructor_v<FilePageCache>);
    MakeZeroFile(5);
    FilePageCache cache(path_.c_str(), 7);
    std::uint8_t* const twelve = cache.GetPageForRead(12);
    std::uint8_t* const eleven = cache.GetPageForRead(11);
    auto fields = FieldAt<CacheFields>(&cache, 0);
    EXPECT_NE(fields.file, nullptr);
    EXPECT_EQ(fields.fileSize, 5u * 8192u);
    EXPECT_EQ(fields.capacity, 7u);
    EXPECT_EQ(fields.pagesEnd - fields.pages, 3);
    EXPECT_EQ(fields.pages[0], nullptr);
    EXPECT_EQ(fields.pages[1], &RecordOf(eleven));
    EXPECT_EQ(fields.pages[2], &RecordOf(twelve));
    EXPECT_EQ(fields.residentCount, 2u);
    EXPECT_EQ(fields.mostRecent, &RecordOf(eleven));
    EXPECT_EQ(fields.leastRecent, &RecordOf(twelve));

    cache.EnsurePageInFile(20);
    EXPECT_EQ(FieldAt<CacheFields>(&cache, 0).fileSize, 11u * 8192u);

    cache.Close();
    fields = FieldAt<CacheFields>(&cache, 0);
    EXPECT_EQ(fields.file, nullptr);
    EXPECT_EQ(fields.fileSize, 0u);
    EXPECT_EQ(fields.capacity, 1u);
    EXPECT_EQ(fields.pages, fields.pagesEnd);
    EXPECT_EQ(fields.residentCount, 0u);
    EXPECT_EQ(fields.mostRecent, nullptr);
    EXPECT_EQ(fields.leastRecent, nullptr);
}

}  // namespace Quorvel::Testing
