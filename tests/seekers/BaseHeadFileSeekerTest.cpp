#include "seekers/BaseHeadFileSeeker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <limits>

#include "pagestore/PagedFileStream.h"
#include "quorvel/Exceptions.h"
#include "seekers/HeadFileFixture.h"
#include "seekers/HeadFileSeeker.h"
#include "seekers/HeadFileWriteOnlySeeker.h"
#include "support/StdioFaults.h"

namespace Quorvel::Testing {

namespace {

class BaseHeadFileSeekerTest : public HeadFileFixture {
protected:
    const Util::RefPtr<HeadFileWriteOnlySeeker> writer_{new HeadFileWriteOnlySeeker(&cache_)};
    const Util::RefPtr<HeadFileSeeker> reader_{new HeadFileSeeker(&cache_)};
};

using CreateHeadFileTest = BaseHeadFileSeekerTest;
using OpenHeadFileTest = BaseHeadFileSeekerTest;

void ExpectNew(const BaseHeadFileSeeker& seeker) {
    EXPECT_EQ(seeker.byteSize, 0u);
    EXPECT_EQ(seeker.pageCount, 0u);
    EXPECT_EQ(seeker.pageNumbers, nullptr);
    EXPECT_EQ(seeker.pageRanges, nullptr);
}

}  // namespace

// ---- Sizes --------------------------------------------------------------------------------------

TEST(HeadFileSizes, PagesForSizeAddsAPageWhenThoseBeforeAreFull) {
    const auto pages = &BaseHeadFileSeeker::PagesForSize;
    EXPECT_EQ(pages(0), 1u);
    EXPECT_EQ(pages(1), 1u);
    EXPECT_EQ(pages(8159), 1u);
    EXPECT_EQ(pages(8160), 1u);
    EXPECT_EQ(pages(8161), 2u);
    EXPECT_EQ(pages(8160 + 8175), 2u);
    EXPECT_EQ(pages(8160 + 8176), 2u);
    EXPECT_EQ(pages(8160 + 8177), 3u);
    EXPECT_EQ(pages(8160 + 2 * 8176), 3u);
    EXPECT_EQ(pages(8160 + 2 * 8176 + 1), 4u);
    EXPECT_EQ(pages(8160 + std::uint64_t{1000000} * 8176), 1000001u);
    EXPECT_EQ(pages(8160 + std::uint64_t{1000000} * 8176 + 1), 1000002u);
}

TEST_F(BaseHeadFileSeekerTest, DataEndForPageIsTheEndOfThePageExceptInThePartlyFilledLast) {
    const auto ends = [&](std::uint64_t byteSize) {
        writer_->byteSize = byteSize;
        Numbers result;
        for (std::uint64_t i = 0; i < BaseHeadFileSeeker::PagesForSize(byteSize); ++i) {
            result.push_back(writer_->DataEndForPage(i));
        }
        return result;
    };
    EXPECT_EQ(ends(1), Numbers{33});
    EXPECT_EQ(ends(8159), Numbers{8191});
    EXPECT_EQ(ends(8160), Numbers{8192});
    EXPECT_EQ(ends(8161), (Numbers{8192, 17}));
    EXPECT_EQ(ends(8160 + 8175), (Numbers{8192, 8191}));
    EXPECT_EQ(ends(8160 + 8176), (Numbers{8192, 8192}));
    EXPECT_EQ(ends(8160 + 8177), (Numbers{8192, 8192, 17}));
    EXPECT_EQ(ends(8160 + 2 * 8176), (Numbers{8192, 8192, 8192}));
}

// ---- Positions ----------------------------------------------------------------------------------

TEST_F(BaseHeadFileSeekerTest, EveryPositionLiesAfterTheHeaderOfItsPage) {
    for (const std::uint64_t size :
         Numbers{1, kFirst - 1, kFirst, kFirst + 1, kFirst + kLater - 1, kFirst + kLater,
                 kFirst + kLater + 1, kFirst + 2 * kLater, kFirst + 3 * kLater + 100}) {
        ASSERT_TRUE(Create(*writer_, size));
        for (std::uint64_t position = 0; position < size; ++position) {
            const Place expected = position < kFirst ? Place{true, 0, 32 + position}
                                                     : Place{true, 1 + (position - kFirst) / kLater,
                                                             16 + (position - kFirst) % kLater};
            ASSERT_EQ(PlaceOf(*writer_, static_cast<std::int32_t>(position)), expected)
                << position << " of " << size;
        }
    }
}

TEST_F(BaseHeadFileSeekerTest, TheEndLiesAtTheEndOfTheLastPagesData) {
    const auto end = [&](std::uint64_t size) {
        Create(*writer_, size);
        return PlaceOf(*writer_, static_cast<std::int32_t>(size));
    };
    EXPECT_EQ(end(1), (Place{true, 0, 33}));
    EXPECT_EQ(end(kFirst - 1), (Place{true, 0, 8191}));
    EXPECT_EQ(end(kFirst), (Place{true, 0, 8192}));
    EXPECT_EQ(end(kFirst + 1), (Place{true, 1, 17}));
    EXPECT_EQ(end(kFirst + kLater - 1), (Place{true, 1, 8191}));
    EXPECT_EQ(end(kFirst + kLater), (Place{true, 1, 8192}));
    EXPECT_EQ(end(kFirst + kLater + 1), (Place{true, 2, 17}));
    EXPECT_EQ(end(kFirst + 2 * kLater), (Place{true, 2, 8192}));
}

TEST_F(BaseHeadFileSeekerTest, APageBoundaryLiesInTheNextPageWhenThereIsOne) {
    ASSERT_TRUE(Create(*writer_, kFirst + 1));
    EXPECT_EQ(PlaceOf(*writer_, kFirst), (Place{true, 1, 16}));
    ASSERT_TRUE(Create(*writer_, kFirst));
    EXPECT_EQ(PlaceOf(*writer_, kFirst), (Place{true, 0, 8192}));
}

TEST_F(BaseHeadFileSeekerTest, APositionOutsideTheFileIsNowhere) {
    for (const std::uint64_t size : Numbers{1, kFirst, kFirst + 1, kFirst + kLater}) {
        ASSERT_TRUE(Create(*writer_, size));
        EXPECT_EQ(PlaceOf(*writer_, -1), kNowhere);
        EXPECT_EQ(PlaceOf(*writer_, std::numeric_limits<std::int32_t>::min()), kNowhere);
        EXPECT_EQ(PlaceOf(*writer_, static_cast<std::int32_t>(size) + 1), kNowhere);
        EXPECT_EQ(PlaceOf(*writer_, std::numeric_limits<std::int32_t>::max()), kNowhere);
    }
}

TEST_F(BaseHeadFileSeekerTest, WithoutAHeadFileNoPositionExists) {
    EXPECT_EQ(PlaceOf(*writer_, 0), kNowhere);
    EXPECT_FALSE(Moved(*writer_, {0, 0}, 0).found);
    EXPECT_FALSE(Moved(*writer_, {0, 32}, 0).found);
}

TEST_F(BaseHeadFileSeekerTest, PositionsAreComparedWithTheLow32BitsOfTheSizeAsASignedNumber) {
    ASSERT_TRUE(Create(*writer_, 0x80000000u));
    EXPECT_EQ(PlaceOf(*writer_, 0), kNowhere);
    ASSERT_TRUE(Create(*writer_, 0x100000005u));
    EXPECT_EQ(PlaceOf(*writer_, 5), (Place{true, 0, 37}));
    EXPECT_EQ(PlaceOf(*writer_, 6), kNowhere);
}

// The size in the header is bounded only by whole pages, so it may reach past the data.
TEST_F(BaseHeadFileSeekerTest, APositionPastTheDataOfTheLastPageIsNowhere) {
    WriteHeaders({10}, kFirst + 10, 8192);
    ASSERT_TRUE(reader_->OpenHeadFile());
    EXPECT_EQ(PlaceOf(*reader_, kFirst), (Place{true, 0, 8192}));
    EXPECT_EQ(PlaceOf(*reader_, kFirst + 1), kNowhere);
    EXPECT_EQ(PlaceOf(*reader_, kFirst + 10), kNowhere);
}

TEST_F(BaseHeadFileSeekerTest, APositionPastTheDataOfItsPageIsRefusedWithItsPlace) {
    WriteHeaders({10, 11}, kFirst + 100, 16 + 50);
    ASSERT_TRUE(reader_->OpenHeadFile());
    EXPECT_EQ(PlaceOf(*reader_, kFirst + 50), (Place{true, 1, 66}));
    EXPECT_EQ(PlaceOf(*reader_, kFirst + 51), (Place{false, 1, 67}));
}

TEST_F(BaseHeadFileSeekerTest, APositionTwoPagesPastTheLastIsNowhere) {
    WriteHeaders({10}, 60, 8192);
    SetWord(10, 24, 33);  // one byte of data in a file of 8192
    SetWord(10, 8, 8192);
    ASSERT_TRUE(reader_->OpenHeadFile());
    EXPECT_EQ(PlaceOf(*reader_, 1), (Place{true, 0, 33}));
    EXPECT_EQ(PlaceOf(*reader_, 2), kNowhere);
    EXPECT_EQ(PlaceOf(*reader_, 1 + 8176), kNowhere);
}

TEST_F(BaseHeadFileSeekerTest, TheEndAtAPageBoundaryIsFoundBeforeThatPageIsRead) {
    WriteHeaders({10, 12, 11}, kFirst + 2 * kLater, 8192);
    ASSERT_TRUE(reader_->OpenHeadFile());
    EXPECT_EQ(PlaceOf(*reader_, kFirst + 2 * kLater), (Place{true, 2, 8192}));
}

// ---- Moving -------------------------------------------------------------------------------------

TEST_F(BaseHeadFileSeekerTest, MovesForwardsFromTheFirstPage) {
    ASSERT_TRUE(Create(*writer_, kFirst + 1));
    EXPECT_EQ(Moved(*writer_, {0, 32}, 8160), (Place{true, 1, 16}));
    ASSERT_TRUE(Create(*writer_, kFirst));
    EXPECT_EQ(Moved(*writer_, {0, 32}, 8160), (Place{true, 0, 8192}));
}

TEST_F(BaseHeadFileSeekerTest, MovesFromEveryPlaceToEveryOtherInBothDirections) {
    const std::uint64_t size = kFirst + 2 * kLater + 50;
    ASSERT_TRUE(Create(*writer_, size));
    writer_->LoadPageInfo(3);
    const std::vector<std::int32_t> positions = {0,
                                                 1,
                                                 8159,
                                                 8160,
                                                 8161,
                                                 16335,
                                                 16336,
                                                 16337,
                                                 24511,
                                                 24512,
                                                 24513,
                                                 static_cast<std::int32_t>(size) - 1,
                                                 static_cast<std::int32_t>(size)};
    for (const std::int32_t from : positions) {
        const Place start = PlaceOf(*writer_, from);
        for (const std::int32_t to : positions) {
            EXPECT_EQ(Moved(*writer_, {start.pageIndex, start.pageOffset},
                            static_cast<std::uint32_t>(to - from)),
                      PlaceOf(*writer_, to))
                << from << " to " << to;
        }
    }
}

TEST_F(BaseHeadFileSeekerTest, TheEndOfAFullPageIsThePlaceOfTheNextPagesFirstByte) {
    ASSERT_TRUE(Create(*writer_, kFirst + 10));
    EXPECT_EQ(Moved(*writer_, {0, 8192}, 0), (Place{true, 1, 16}));
    EXPECT_EQ(Moved(*writer_, {0, 8192}, ~std::uint32_t{0}), (Place{true, 0, 8191}));
}

TEST_F(BaseHeadFileSeekerTest, MovingOutOfTheFileLeadsNowhere) {
    ASSERT_TRUE(Create(*writer_, kFirst));
    EXPECT_EQ(Moved(*writer_, {0, 32}, ~std::uint32_t{0}), kNowhere);
    EXPECT_EQ(Moved(*writer_, {0, 8192}, 1), kNowhere);
    EXPECT_EQ(Moved(*writer_, {0, 42}, 0x80000000u), kNowhere);
}

TEST_F(BaseHeadFileSeekerTest, MovingFromOutsideTheFileIsRefused) {
    ASSERT_TRUE(Create(*writer_, 100));
    EXPECT_FALSE(Moved(*writer_, {1, 16}, 0).found);
    EXPECT_FALSE(Moved(*writer_, {~std::uint64_t{0}, 16}, 0).found);
    EXPECT_FALSE(Moved(*writer_, {0, 133}, 0).found);
    EXPECT_TRUE(Moved(*writer_, {0, 132}, 0).found);
}

TEST_F(BaseHeadFileSeekerTest, MovingFromAPageThatIsNotLoadedYetIsRefused) {
    WriteHeaders({10, 11, 12}, kFirst + kLater + 5, 21);
    ASSERT_TRUE(reader_->OpenHeadFile());
    EXPECT_FALSE(Moved(*reader_, {1, 16}, 0).found);
    reader_->LoadPageInfo(1);
    EXPECT_EQ(Moved(*reader_, {1, 16}, 0), (Place{true, 1, 16}));
}

// Offset 0 is inside the page's header, 16 bytes before its data, so the place lies in the previous
// page.
TEST_F(BaseHeadFileSeekerTest, MovingFromTheStartOfAPageLoadsThePage) {
    WriteHeaders({10, 11, 12}, kFirst + kLater + 5, 21);
    ASSERT_TRUE(reader_->OpenHeadFile());
    EXPECT_EQ(Moved(*reader_, {1, 0}, 0), (Place{true, 0, 8192 - 16}));
    EXPECT_EQ(reader_->pageNumbers[1], 11u);
}

namespace {

class ConstantPlaceHeadSeeker : public HeadFileWriteOnlySeeker {
public:
    using HeadFileWriteOnlySeeker::HeadFileWriteOnlySeeker;
    bool PositionToPage(std::uint64_t& pageIndex, std::uint64_t& pageOffset,
                        std::int32_t position) override {
        pageIndex = 5;
        pageOffset = 6;
        asked = position;
        return true;
    }
    std::int32_t asked = 0;
};

}  // namespace

TEST_F(BaseHeadFileSeekerTest, MovePositionCallsPositionToPageOfADerivedSeeker) {
    const Util::RefPtr<ConstantPlaceHeadSeeker> seeker(new ConstantPlaceHeadSeeker(&cache_));
    ASSERT_TRUE(Create(*seeker, 100));
    EXPECT_EQ(Moved(*seeker, {0, 42}, 7), (Place{true, 5, 6}));
    EXPECT_EQ(seeker->asked, 17);
    EXPECT_EQ(Moved(*seeker, {0, 42}, static_cast<std::uint32_t>(-30)), (Place{true, 5, 6}));
    EXPECT_EQ(seeker->asked, -20);
}

// ---- Validation of page entries -----------------------------------------------------------------

namespace {

class OpenTablesSeeker : public HeadFileSeeker {
public:
    explicit OpenTablesSeeker(FilePageCache* cache) : HeadFileSeeker(cache) {
        pageCount = 3;
        SizeTables();
    }

    bool IsValid(std::uint64_t index, std::uint64_t number, std::uint64_t next, PageRange range) {
        pageNumberTable_[index] = number;
        nextPageTable_[index] = next;
        rangeTable_[index] = range;
        return ValidatePageInfo(index);
    }
};

}  // namespace

TEST_F(BaseHeadFileSeekerTest, ValidatePageInfoRequiresAValidPageNumber) {
    const Util::RefPtr<OpenTablesSeeker> seeker(new OpenTablesSeeker(&cache_));
    for (const std::uint64_t number : Numbers{0, 1, 9, 0x100000}) {
        EXPECT_FALSE(seeker->IsValid(1, number, 0, {16, 8192})) << number;
    }
    EXPECT_TRUE(seeker->IsValid(1, 10, 0, {16, 8192}));
    EXPECT_TRUE(seeker->IsValid(1, 0xFFFFF, 0, {16, 8192}));
}

TEST_F(BaseHeadFileSeekerTest, ValidatePageInfoRequiresANonEmptyRangeInThePage) {
    const Util::RefPtr<OpenTablesSeeker> seeker(new OpenTablesSeeker(&cache_));
    for (const std::uint64_t end : Numbers{0, 15, 16, 8193}) {
        EXPECT_FALSE(seeker->IsValid(1, 12, 0, {16, end})) << end;
    }
    EXPECT_FALSE(seeker->IsValid(1, 12, 0, {16, ~std::uint64_t{0}}));
    EXPECT_TRUE(seeker->IsValid(1, 12, 0, {16, 17}));
    EXPECT_TRUE(seeker->IsValid(1, 12, 0, {16, 8192}));
}

TEST_F(BaseHeadFileSeekerTest, ValidatePageInfoRequiresEveryPageButTheLastToBeFull) {
    const Util::RefPtr<OpenTablesSeeker> seeker(new OpenTablesSeeker(&cache_));
    EXPECT_TRUE(seeker->IsValid(0, 10, 11, {32, 8192}));
    EXPECT_FALSE(seeker->IsValid(0, 10, 11, {32, 8191}));
    EXPECT_FALSE(seeker->IsValid(0, 10, 11, {16, 8192}));
    EXPECT_TRUE(seeker->IsValid(0, 10, 0, {32, 8191}));
    EXPECT_TRUE(seeker->IsValid(2, 12, 13, {16, 8192}));
    EXPECT_FALSE(seeker->IsValid(2, 12, 13, {16, 8191}));
    EXPECT_FALSE(seeker->IsValid(2, 12, 13, {32, 8192}));
    EXPECT_TRUE(seeker->IsValid(2, 12, 0, {16, 8191}));
}

// ---- Creating -----------------------------------------------------------------------------------

TEST_F(CreateHeadFileTest, WritesTheHeaderOfTheFirstPage) {
    const Numbers pages = {10, 0x12345};
    const Numbers nextPages = {0x12345, 0};
    EXPECT_TRUE(writer_->CreateHeadFile(pages.data(), nextPages.data(), 2, 8161));
    EXPECT_EQ(Slice(File(), 0, 40), (Bytes{
                                        0x02, 0,    0,    0, 0, 0, 0, 0,  // pages
                                        0xE1, 0x1F, 0,    0, 0, 0, 0, 0,  // bytes
                                        0x45, 0x23, 0x01, 0, 0, 0, 0, 0,  // the second page
                                        0x00, 0x20, 0,    0, 0, 0, 0, 0,  // end of the data
                                        0,    0,    0,    0, 0, 0, 0, 0,  // the first byte of data
                                    }));
}

TEST_F(CreateHeadFileTest, WritesTheHeaderOfAnOnlyPage) {
    ASSERT_TRUE(Create(*writer_, 1));
    EXPECT_EQ(Slice(File(), 0, 32), (Bytes{
                                        1,  0, 0, 0, 0, 0, 0, 0,  // pages
                                        1,  0, 0, 0, 0, 0, 0, 0,  // bytes
                                        0,  0, 0, 0, 0, 0, 0, 0,  // no second page
                                        33, 0, 0, 0, 0, 0, 0, 0,  // end of the data
                                    }));
    ASSERT_TRUE(Create(*writer_, 8160));
    EXPECT_EQ(Slice(File(), 0, 32), (Bytes{
                                        1,    0,    0, 0, 0, 0, 0, 0,  //
                                        0xE0, 0x1F, 0, 0, 0, 0, 0, 0,  //
                                        0,    0,    0, 0, 0, 0, 0, 0,  //
                                        0x00, 0x20, 0, 0, 0, 0, 0, 0,  //
                                    }));
}

TEST_F(CreateHeadFileTest, ChangesNothingButTheHeaderOfTheFirstPage) {
    const Bytes file = PatternBytes(8 * kPageSize);
    SetFile(file);
    ASSERT_TRUE(Create(*writer_, kFirst + kLater));
    const Bytes after = File();
    EXPECT_EQ(Slice(after, 32, after.size() - 32), Slice(file, 32, file.size() - 32));
}

TEST_F(CreateHeadFileTest, GrowsTheFileToCoverTheFirstPage) {
    SetFile({});
    ASSERT_TRUE(Create(*writer_, kFirst + kLater));
    EXPECT_EQ(std::filesystem::file_size(path_), 8192u);
}

TEST_F(CreateHeadFileTest, SetsUpTheTables) {
    ASSERT_TRUE(Create(*writer_, kFirst + kLater + 1));
    EXPECT_EQ(writer_->byteSize, kFirst + kLater + 1);
    EXPECT_EQ(writer_->pageCount, 3u);
    EXPECT_EQ(Numbers(writer_->pageNumbers, writer_->pageNumbers + 3), (Numbers{10, 11, 12}));
    EXPECT_EQ(writer_->pageRanges[0].start, 32u);
    EXPECT_EQ(writer_->pageRanges[0].end, 8192u);
    for (const std::uint64_t unknown : Numbers{1, 2}) {
        EXPECT_EQ(writer_->pageRanges[unknown].start, 0u);
        EXPECT_EQ(writer_->pageRanges[unknown].end, 0u);
    }
    ASSERT_TRUE(Create(*writer_, 8159));
    EXPECT_EQ(writer_->pageCount, 1u);
    EXPECT_EQ(writer_->pageRanges[0].end, 8191u);
}

TEST_F(CreateHeadFileTest, OfNoBytesReturnsFalseAndWritesNothing) {
    ASSERT_TRUE(Create(*writer_, 100));
    const Bytes file = File();
    const Chain chain(1);
    const StdioCounts before = CountStdioCalls();
    EXPECT_FALSE(writer_->CreateHeadFile(chain.pages.data(), chain.nextPages.data(), 1, 0));
    EXPECT_FALSE(writer_->CreateHeadFile(nullptr, nullptr, 0, 0));
    EXPECT_EQ(CountStdioCalls().reads, before.reads);
    EXPECT_EQ(File(), file);
    EXPECT_EQ(writer_->byteSize, 100u);
    EXPECT_EQ(writer_->pageCount, 1u);
}

TEST_F(CreateHeadFileTest, RefusesInconsistentArgumentsBeforeAnythingChanges) {
    ASSERT_TRUE(Create(*writer_, 100));
    const Bytes file = File();
    const auto refused = [&](const Numbers& pages, std::uint64_t pageCount, std::uint64_t size) {
        EXPECT_THROW(writer_->CreateHeadFile(pages.data(), pages.data(), pageCount, size),
                     InvalidParameterException)
            << pageCount << " pages, " << size << " bytes";
    };
    constexpr std::uint64_t kMostBytes = std::uint64_t{1048566} * 8192;
    refused({10}, BaseHeadFileSeeker::PagesForSize(kMostBytes + 1), kMostBytes + 1);
    refused({10}, BaseHeadFileSeeker::PagesForSize(~std::uint64_t{0}), ~std::uint64_t{0});
    refused({10, 11}, 2, 8160);
    refused({10}, 1, 8161);
    refused({10, 11, 12}, 3, kFirst + kLater);
    refused({10}, 0, 1);
    refused({11}, 1, 1);
    refused({0}, 1, 1);
    EXPECT_EQ(writer_->byteSize, 100u);
    EXPECT_EQ(writer_->pageCount, 1u);
    EXPECT_EQ(PlaceOf(*writer_, 100), (Place{true, 0, 132}));
    EXPECT_EQ(File(), file);
}

TEST_F(CreateHeadFileTest, TheBoundOnTheSizeDoesNotCountThePageHeaders) {
    EXPECT_TRUE(Create(*writer_, std::uint64_t{1048566} * 8192));
}

TEST_F(CreateHeadFileTest, WithoutAPageFromTheCacheThrowsCorrupt) {
    ASSERT_NE(cache_.GetPageForRead(12), nullptr);
    EXPECT_THROW(Create(*writer_, 100), FileDataCorruptException);
    cache_.ReleasePageForRead(12);
    EXPECT_TRUE(Create(*writer_, 100));
}

TEST_F(CreateHeadFileTest, ReleasesThePage) {
    ASSERT_TRUE(Create(*writer_, 100));
    EXPECT_TRUE(NothingIsPinned());
}

TEST_F(CreateHeadFileTest, PassesOnTheErrorsOfTheCache) {
    const StdioFault fault(StdioCall::Read, EIO);
    EXPECT_EQ(FileErrorOf([&] { Create(*writer_, 100); }), EIO);
}

// ---- Opening ------------------------------------------------------------------------------------

TEST_F(OpenHeadFileTest, ReadsTheHeaderOfTheFirstPage) {
    Bytes file(8 * kPageSize);
    const Bytes header = {
        0x03, 0,    0,    0, 0, 0, 0, 0,  // pages
        0x34, 0x42, 0,    0, 0, 0, 0, 0,  // bytes
        0x45, 0x23, 0x01, 0, 0, 0, 0, 0,  // the second page
        0x00, 0x20, 0,    0, 0, 0, 0, 0,  // end of the data
    };
    std::copy(header.begin(), header.end(), file.begin());
    SetFile(file);
    EXPECT_TRUE(reader_->OpenHeadFile());
    EXPECT_EQ(reader_->pageCount, 3u);
    EXPECT_EQ(reader_->byteSize, 0x4234u);
    EXPECT_EQ(Numbers(reader_->pageNumbers, reader_->pageNumbers + 3), (Numbers{10, 0, 0}));
    EXPECT_EQ(reader_->pageRanges[0].start, 32u);
    EXPECT_EQ(reader_->pageRanges[0].end, 8192u);
    EXPECT_EQ(reader_->pageRanges[1].start, 0u);
    EXPECT_EQ(reader_->pageRanges[2].end, 0u);
}

TEST_F(OpenHeadFileTest, ReadsNoOtherPage) {
    WriteHeaders({10, 11, 12}, kFirst + kLater + 5, 21);
    const StdioCounts before = CountStdioCalls();
    ASSERT_TRUE(reader_->OpenHeadFile());
    EXPECT_EQ(CountStdioCalls().reads - before.reads, 1u);
}

TEST_F(OpenHeadFileTest, ReleasesThePage) {
    WriteHeaders({10}, 5, 37);
    ASSERT_TRUE(reader_->OpenHeadFile());
    EXPECT_TRUE(NothingIsPinned());
}

TEST_F(OpenHeadFileTest, APageCountOutsideItsRangeIsCorrupt) {
    WriteHeaders({10, 11}, kFirst + 5, 21);
    for (const std::uint64_t count :
         Numbers{0, 1048567, std::uint64_t{1} << 51, ~std::uint64_t{0}}) {
        SetWord(10, 0, count);
        EXPECT_THROW(reader_->OpenHeadFile(), FileDataCorruptException) << count;
        EXPECT_TRUE(NothingIsPinned());
    }
    SetWord(10, 0, 1048566);
    EXPECT_TRUE(reader_->OpenHeadFile());
    EXPECT_EQ(reader_->pageCount, 1048566u);
}

TEST_F(OpenHeadFileTest, APageCountOfZeroIsCorruptEvenForNoBytes) {
    WriteHeaders({10}, 5, 37);
    SetWord(10, 0, 0);
    SetWord(10, 8, 0);
    EXPECT_THROW(reader_->OpenHeadFile(), FileDataCorruptException);
}

TEST_F(OpenHeadFileTest, MoreBytesThanThePagesCouldHoldIsCorrupt) {
    WriteHeaders({10, 11}, kFirst + 5, 21);
    SetWord(10, 8, 2 * 8192 + 1);
    EXPECT_THROW(reader_->OpenHeadFile(), FileDataCorruptException);
    EXPECT_TRUE(NothingIsPinned());
    SetWord(10, 8, ~std::uint64_t{0});
    EXPECT_THROW(reader_->OpenHeadFile(), FileDataCorruptException);
    SetWord(10, 8, 2 * 8192);  // the headers are not counted
    EXPECT_TRUE(reader_->OpenHeadFile());
}

TEST_F(OpenHeadFileTest, AFirstPageThatIsEmptyOrTooLongOrNotFullIsCorrupt) {
    WriteHeaders({10}, 5, 37);
    for (const std::uint64_t end : Numbers{0, 31, 32, 8193}) {
        SetWord(10, 24, end);
        EXPECT_THROW(reader_->OpenHeadFile(), FileDataCorruptException) << end;
        EXPECT_TRUE(NothingIsPinned());
    }
    SetWord(10, 24, 8191);
    EXPECT_TRUE(reader_->OpenHeadFile());
    SetWord(10, 16, 11);
    EXPECT_THROW(reader_->OpenHeadFile(), FileDataCorruptException);
}

TEST_F(OpenHeadFileTest, WithoutAPageFromTheCacheThrowsCorrupt) {
    WriteHeaders({10}, 5, 37);
    ASSERT_NE(cache_.GetPageForRead(12), nullptr);
    EXPECT_THROW(reader_->OpenHeadFile(), FileDataCorruptException);
    cache_.ReleasePageForRead(12);
    EXPECT_TRUE(reader_->OpenHeadFile());
}

TEST_F(OpenHeadFileTest, PassesOnTheErrorsOfTheCache) {
    SetFile({});
    EXPECT_EQ(FileErrorOf([&] { reader_->OpenHeadFile(); }), 0);
    const StdioFault fault(StdioCall::Seek, EIO);
    EXPECT_EQ(FileErrorOf([&] { reader_->OpenHeadFile(); }), EIO);
}

TEST_F(OpenHeadFileTest, ForgetsTheFileOpenedBefore) {
    WriteHeaders({10, 11, 12}, kFirst + kLater + 5, 21);
    ASSERT_TRUE(reader_->OpenHeadFile());
    reader_->LoadPageInfo(2);
    WriteHeaders({10, 13}, kFirst + 9, 25);
    ASSERT_TRUE(reader_->OpenHeadFile());
    EXPECT_EQ(reader_->pageCount, 2u);
    EXPECT_EQ(reader_->pageNumbers[1], 0u);
    reader_->LoadPageInfo(1);
    EXPECT_EQ(reader_->pageNumbers[1], 13u);
    EXPECT_EQ(reader_->pageRanges[1].end, 25u);
}

TEST_F(OpenHeadFileTest, OfAnInvalidFileForgetsTheOneBefore) {
    WriteHeaders({10, 11}, kFirst + 9, 25);
    ASSERT_TRUE(reader_->OpenHeadFile());
    SetWord(10, 0, 0);
    EXPECT_THROW(reader_->OpenHeadFile(), FileDataCorruptException);
    EXPECT_EQ(PlaceOf(*reader_, 0), kNowhere);
}

TEST_F(OpenHeadFileTest, ThatCannotReadTheFirstPageForgetsTheFileBeforeToo) {
    WriteHeaders({10, 11}, kFirst + 9, 25);
    ASSERT_TRUE(reader_->OpenHeadFile());
    ASSERT_NE(cache_.GetPageForRead(12), nullptr);
    EXPECT_THROW(reader_->OpenHeadFile(), FileDataCorruptException);
    ExpectNew(*reader_);
    EXPECT_EQ(PlaceOf(*reader_, 0), kNowhere);
}

namespace {

class JudgingSeeker : public HeadFileSeeker {
public:
    using HeadFileSeeker::HeadFileSeeker;
    bool ValidatePageInfo(std::uint64_t pageIndex) override {
        judged.push_back(pageIndex);
        return verdict;
    }
    bool verdict = true;
    Numbers judged;
};

}  // namespace

TEST_F(OpenHeadFileTest, ADerivedSeekerValidatesThePages) {
    const Util::RefPtr<JudgingSeeker> seeker(new JudgingSeeker(&cache_));
    WriteHeaders({10, 11}, kFirst + 9, 9000);  // its second page is too long
    EXPECT_TRUE(seeker->OpenHeadFile());
    seeker->LoadPageInfo(1);
    EXPECT_EQ(seeker->judged, (Numbers{0, 1}));
    seeker->verdict = false;
    EXPECT_THROW(seeker->OpenHeadFile(), FileDataCorruptException);
}

// ---- Lifetime -----------------------------------------------------------------------------------

TEST_F(BaseHeadFileSeekerTest, IsEmptyAtFirstAndAfterClear) {
    ExpectNew(*writer_);
    ExpectNew(*reader_);
    ASSERT_TRUE(Create(*writer_, kFirst + 10));
    writer_->LoadPageInfo(1);
    writer_->Clear();
    ExpectNew(*writer_);
    EXPECT_EQ(PlaceOf(*writer_, 0), kNowhere);
    EXPECT_FALSE(Moved(*writer_, {0, 32}, 0).found);
    ASSERT_TRUE(Create(*writer_, kFirst + 10));
    EXPECT_EQ(PlaceOf(*writer_, kFirst), (Place{true, 1, 16}));
}

TEST_F(BaseHeadFileSeekerTest, WrittenBytesAreReadBackForEverySize) {
    for (const std::uint64_t size :
         Numbers{1, kFirst - 1, kFirst, kFirst + 1, kFirst + kLater - 1, kFirst + kLater,
                 kFirst + kLater + 1, kFirst + 4 * kLater, kFirst + 4 * kLater + 1}) {
        const Bytes content = PatternBytes(size, size);
        SetFile({});
        ASSERT_TRUE(Create(*writer_, size));
        {
            const Util::RefPtr<IDataStream> stream(new PagedFileStream(&cache_, writer_));
            ASSERT_EQ(stream->Write(content.data(), size), size);
        }
        writer_->Clear();
        cache_.Open(path_.c_str(), 1);

        ASSERT_TRUE(reader_->OpenHeadFile());
        const Util::RefPtr<IDataStream> stream(new PagedFileStream(&cache_, reader_));
        Bytes read(size + 1);
        ASSERT_EQ(stream->Read(read.data(), size + 1), size);
        read.resize(size);
        EXPECT_EQ(read, content);
        EXPECT_EQ(std::filesystem::file_size(path_), 8192 * BaseHeadFileSeeker::PagesForSize(size));
    }
}

// ---- Layout -------------------------------------------------------------------------------------

TEST(HeadFileRecords, HaveTheirFieldsInFileOrder) {
    EXPECT_EQ(sizeof(HeadFileHeader), 32u);
    EXPECT_EQ(offsetof(HeadFileHeader, pageCount), 0u);
    EXPECT_EQ(offsetof(HeadFileHeader, byteSize), 8u);
    EXPECT_EQ(offsetof(HeadFileHeader, nextPage), 16u);
    EXPECT_EQ(offsetof(HeadFileHeader, dataEnd), 24u);
    EXPECT_EQ(sizeof(HeadFilePageHeader), 16u);
    EXPECT_EQ(offsetof(HeadFilePageHeader, nextPage), 0u);
    EXPECT_EQ(offsetof(HeadFilePageHeader, dataEnd), 8u);
}

TEST(SeekerRecords, AreAnIndexOrStartAndThenAnOffsetOrEnd) {
    EXPECT_EQ(sizeof(PagePosition), 16u);
    EXPECT_EQ(offsetof(PagePosition, pageIndex), 0u);
    EXPECT_EQ(offsetof(PagePosition, pageOffset), 8u);
    EXPECT_EQ(sizeof(PageRange), 16u);
    EXPECT_EQ(offsetof(PageRange, start), 0u);
    EXPECT_EQ(offsetof(PageRange, end), 8u);
}

TEST_F(BaseHeadFileSeekerTest, KeepsItsStateInOneFixedOrder) {
    static_assert(sizeof(BaseHeadFileSeeker) == 136);
    static_assert(sizeof(HeadFileSeeker) == sizeof(BaseHeadFileSeeker));
    static_assert(sizeof(HeadFileWriteOnlySeeker) == sizeof(BaseHeadFileSeeker));
    ASSERT_TRUE(Create(*writer_, kFirst + 2 * kLater));
    writer_->LoadPageInfo(1);
    const HeadFileWriteOnlySeeker& seeker = *writer_;
    EXPECT_EQ(OffsetIn(seeker, seeker.byteSize), 16);
    EXPECT_EQ(OffsetIn(seeker, seeker.pageCount), 24);
    EXPECT_EQ(OffsetIn(seeker, seeker.pageNumbers), 32);
    EXPECT_EQ(OffsetIn(seeker, seeker.pageRanges), 40);
    EXPECT_EQ(FieldAt<FilePageCache*>(&seeker, 48), &cache_);
    EXPECT_EQ(FieldAt<std::uint64_t>(&seeker, 56), 1u);  // known so far
    const auto* const numbers = FieldAt<std::uint64_t*>(&seeker, 64);
    EXPECT_EQ(numbers, seeker.pageNumbers);
    const auto* const nextPages = FieldAt<std::uint64_t*>(&seeker, 88);
    EXPECT_EQ(Numbers(nextPages, nextPages + 3), (Numbers{11, 12, 0}));
    const auto* const ranges = FieldAt<PageRange*>(&seeker, 112);
    EXPECT_EQ(ranges, seeker.pageRanges);
}

TEST(SeekerInterface, HasItsOperationsInOrderAfterTheReferenceCounting) {
    const std::size_t first = VirtualSlot(&IPagedFileSeeker::AddRef) + 3;
    EXPECT_EQ(VirtualSlot(&IPagedFileSeeker::PositionToPage), first);
    EXPECT_EQ(VirtualSlot(&IPagedFileSeeker::MovePosition), first + 1);
    EXPECT_EQ(VirtualSlot(&IPagedFileSeeker::LoadPageInfo), first + 2);
    EXPECT_EQ(VirtualSlot(&BaseHeadFileSeeker::ValidatePageInfo), first + 3);
}

}  // namespace Quorvel::Testing
