#include "seekers/HeadFileSeeker.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "pagestore/PagedFileStream.h"
#include "quorvel/Exceptions.h"
#include "seekers/HeadFileFixture.h"
#include "support/StdioFaults.h"

namespace Quorvel::Testing {

namespace {

class HeadFileSeekerTest : public HeadFileFixture {
protected:
    Numbers KnownNumbers() const {
        return {seeker_->pageNumbers, seeker_->pageNumbers + seeker_->pageCount};
    }

    // The number of file reads that an action makes.
    template <typename Action>
    static std::uint64_t ReadsOf(Action&& action) {
        const std::uint64_t before = CountStdioCalls().reads;
        action();
        return CountStdioCalls().reads - before;
    }

    const Util::RefPtr<HeadFileSeeker> seeker_{new HeadFileSeeker(&cache_)};
};

}  // namespace

TEST_F(HeadFileSeekerTest, ReadsTheHeaderOfALaterPage) {
    WriteHeaders({10, 11, 13}, kFirst + kLater + 5, 21);
    Bytes file = File();
    const Bytes header = {
        0x0D, 0,    0, 0, 0, 0, 0, 0,  // the next page
        0x00, 0x20, 0, 0, 0, 0, 0, 0,  // end of the data
    };
    std::copy(header.begin(), header.end(), file.begin() + 8192);
    SetFile(file);
    ASSERT_TRUE(seeker_->OpenHeadFile());
    seeker_->LoadPageInfo(2);
    EXPECT_EQ(KnownNumbers(), (Numbers{10, 11, 13}));
    EXPECT_EQ(seeker_->pageRanges[1].start, 16u);
    EXPECT_EQ(seeker_->pageRanges[1].end, 8192u);
    EXPECT_EQ(seeker_->pageRanges[2].start, 16u);
    EXPECT_EQ(seeker_->pageRanges[2].end, 21u);
}

TEST_F(HeadFileSeekerTest, FollowsTheChainOnlyAsFarAsRequested) {
    WriteHeaders({10, 16, 11, 15}, kFirst + 2 * kLater + 5, 21);
    ASSERT_TRUE(seeker_->OpenHeadFile());
    EXPECT_EQ(ReadsOf([&] { seeker_->LoadPageInfo(0); }), 0u);
    EXPECT_EQ(KnownNumbers(), (Numbers{10, 0, 0, 0}));
    EXPECT_EQ(ReadsOf([&] { seeker_->LoadPageInfo(1); }), 1u);
    EXPECT_EQ(KnownNumbers(), (Numbers{10, 16, 0, 0}));
    EXPECT_EQ(ReadsOf([&] { seeker_->LoadPageInfo(3); }), 2u);
    EXPECT_EQ(KnownNumbers(), (Numbers{10, 16, 11, 15}));
}

TEST_F(HeadFileSeekerTest, ReadsEachPagesHeaderOnce) {
    WriteHeaders({10, 16, 11, 15}, kFirst + 2 * kLater + 5, 21);
    ASSERT_TRUE(seeker_->OpenHeadFile());
    seeker_->LoadPageInfo(2);
    for (const std::uint64_t known : Numbers{2, 1, 0}) {
        EXPECT_EQ(ReadsOf([&] { seeker_->LoadPageInfo(known); }), 0u);
    }
    EXPECT_EQ(ReadsOf([&] { seeker_->LoadPageInfo(3); }), 1u);
}

TEST_F(HeadFileSeekerTest, APositionLoadsThePagesUpToItsOwn) {
    WriteHeaders({10, 16, 11, 15}, kFirst + 2 * kLater + 5, 21);
    ASSERT_TRUE(seeker_->OpenHeadFile());
    EXPECT_EQ(PlaceOf(*seeker_, kFirst - 1), (Place{true, 0, 8191}));
    EXPECT_EQ(KnownNumbers(), (Numbers{10, 0, 0, 0}));
    EXPECT_EQ(PlaceOf(*seeker_, kFirst + kLater), (Place{true, 2, 16}));
    EXPECT_EQ(KnownNumbers(), (Numbers{10, 16, 11, 0}));
    EXPECT_EQ(Moved(*seeker_, {2, 16}, kLater + 4), (Place{true, 3, 20}));
    EXPECT_EQ(KnownNumbers(), (Numbers{10, 16, 11, 15}));
}

TEST_F(HeadFileSeekerTest, ReleasesThePagesItReads) {
    WriteHeaders({10, 11, 12}, kFirst + kLater + 5, 21);
    ASSERT_TRUE(seeker_->OpenHeadFile());
    seeker_->LoadPageInfo(2);
    EXPECT_TRUE(NothingIsPinned());
}

TEST_F(HeadFileSeekerTest, AChainThatReturnsToTheFirstPageIsCorruptWhenThatLinkIsFollowed) {
    WriteHeaders({10, 11, 12, 13}, kFirst + 3 * kLater, 8192);
    SetWord(12, 0, 10);
    ASSERT_TRUE(seeker_->OpenHeadFile());
    seeker_->LoadPageInfo(2);
    EXPECT_THROW(seeker_->LoadPageInfo(3), FileDataCorruptException);
    EXPECT_TRUE(NothingIsPinned());
}

TEST_F(HeadFileSeekerTest, AChainThatReturnsToAnyEarlierPageIsCorrupt) {
    for (const std::uint64_t earlier : Numbers{10, 11, 12, 13}) {
        WriteHeaders({10, 11, 12, 13, 14}, kFirst + 4 * kLater, 8192);
        SetWord(13, 0, earlier);
        ASSERT_TRUE(seeker_->OpenHeadFile());
        EXPECT_THROW(seeker_->LoadPageInfo(4), FileDataCorruptException) << earlier;
    }
}

TEST_F(HeadFileSeekerTest, AFirstPageThatFollowsItselfIsCorrupt) {
    WriteHeaders({10, 11}, kFirst + 5, 21);
    SetWord(10, 16, 10);
    ASSERT_TRUE(seeker_->OpenHeadFile());
    EXPECT_THROW(seeker_->LoadPageInfo(1), FileDataCorruptException);
}

TEST_F(HeadFileSeekerTest, AChainThatEndsTooEarlyIsCorruptWhenTheMissingPageIsLoaded) {
    WriteHeaders({10, 11, 12}, kFirst + 2 * kLater, 8192);
    SetWord(11, 0, 0);
    ASSERT_TRUE(seeker_->OpenHeadFile());
    seeker_->LoadPageInfo(1);
    EXPECT_THROW(seeker_->LoadPageInfo(2), FileDataCorruptException);

    WriteHeaders({10, 11}, kFirst + 5, 21);
    SetWord(10, 16, 0);
    ASSERT_TRUE(seeker_->OpenHeadFile());
    EXPECT_THROW(PlaceOf(*seeker_, kFirst), FileDataCorruptException);
}

TEST_F(HeadFileSeekerTest, ALinkToAnInvalidPageNumberIsCorrupt) {
    for (const std::uint64_t number : Numbers{1, 9, 0x100000, ~std::uint64_t{0}}) {
        WriteHeaders({10, 11}, kFirst + 5, 21);
        SetWord(10, 16, number);
        ASSERT_TRUE(seeker_->OpenHeadFile());
        EXPECT_THROW(seeker_->LoadPageInfo(1), FileDataCorruptException) << number;
    }
}

TEST_F(HeadFileSeekerTest, APageInTheMiddleThatIsNotFullIsCorrupt) {
    WriteHeaders({10, 11, 12}, kFirst + kLater + 5, 21);
    SetWord(11, 8, 8191);
    ASSERT_TRUE(seeker_->OpenHeadFile());
    EXPECT_THROW(seeker_->LoadPageInfo(1), FileDataCorruptException);
    EXPECT_TRUE(NothingIsPinned());
}

TEST_F(HeadFileSeekerTest, APageThatIsEmptyOrTooLongIsCorrupt) {
    for (const std::uint64_t end : Numbers{0, 15, 16, 8193}) {
        WriteHeaders({10, 11}, kFirst + 5, end);
        ASSERT_TRUE(seeker_->OpenHeadFile());
        EXPECT_THROW(seeker_->LoadPageInfo(1), FileDataCorruptException) << end;
        EXPECT_TRUE(NothingIsPinned());
    }
}

TEST_F(HeadFileSeekerTest, ALastPageMayBePartlyFilled) {
    for (const std::uint64_t end : Numbers{17, 8191, 8192}) {
        WriteHeaders({10, 11}, kFirst + end - 16, end);
        ASSERT_TRUE(seeker_->OpenHeadFile());
        seeker_->LoadPageInfo(1);
        EXPECT_EQ(seeker_->pageRanges[1].end, end);
    }
}

TEST_F(HeadFileSeekerTest, WithoutAPageFromTheCacheThrowsCorrupt) {
    WriteHeaders({10, 11}, kFirst + 5, 21);
    ASSERT_TRUE(seeker_->OpenHeadFile());
    ASSERT_NE(cache_.GetPageForRead(12), nullptr);
    EXPECT_THROW(seeker_->LoadPageInfo(1), FileDataCorruptException);
}

TEST_F(HeadFileSeekerTest, KeepsTheRecordedPageNumberWhenAPageFails) {
    WriteHeaders({10, 11}, kFirst + 5, 21);
    ASSERT_TRUE(seeker_->OpenHeadFile());
    ASSERT_NE(cache_.GetPageForRead(12), nullptr);
    EXPECT_THROW(seeker_->LoadPageInfo(1), FileDataCorruptException);
    EXPECT_EQ(KnownNumbers(), (Numbers{10, 11}));
    seeker_->LoadPageInfo(1);  // known, so the page is not loaded again
    EXPECT_EQ(seeker_->pageRanges[1].end, 0u);
}

TEST_F(HeadFileSeekerTest, PassesOnTheErrorsOfTheCache) {
    WriteHeaders({10, 11}, kFirst + 5, 21);
    SetWord(10, 16, 500);  // past the end of the file
    ASSERT_TRUE(seeker_->OpenHeadFile());
    EXPECT_EQ(FileErrorOf([&] { seeker_->LoadPageInfo(1); }), 0);
    EXPECT_TRUE(NothingIsPinned());
    SetWord(10, 16, 11);
    ASSERT_TRUE(seeker_->OpenHeadFile());
    const StdioFault fault(StdioCall::Read, EIO);
    EXPECT_EQ(FileErrorOf([&] { seeker_->LoadPageInfo(1); }), EIO);
}

TEST_F(HeadFileSeekerTest, AStreamOverADamagedChainReadsUpToTheDamage) {
    WriteHeaders({10, 11, 12}, kFirst + kLater + 5, 21);
    SetWord(12, 8, 16);
    ASSERT_TRUE(seeker_->OpenHeadFile());
    const Util::RefPtr<IDataStream> stream(new PagedFileStream(&cache_, seeker_));
    Bytes bytes(kFirst + kLater + 5);
    EXPECT_EQ(stream->Read(bytes.data(), kFirst + kLater - 1), kFirst + kLater - 1);
    EXPECT_THROW(stream->Read(bytes.data(), 1), FileDataCorruptException);
}

}  // namespace Quorvel::Testing
