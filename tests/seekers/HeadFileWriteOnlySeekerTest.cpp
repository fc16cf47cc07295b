#include "seekers/HeadFileWriteOnlySeeker.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "pagestore/PagedFileStream.h"
#include "quorvel/Exceptions.h"
#include "seekers/HeadFileFixture.h"
#include "support/StdioFaults.h"

namespace Quorvel::Testing {

namespace {

class HeadFileWriteOnlySeekerTest : public HeadFileFixture {
protected:
    HeadFileWriteOnlySeekerTest() { SetFile(file_); }

    // A head file in pages 10, 14 and 12.
    void CreateThreePages(std::uint64_t byteSize) {
        const Numbers pages = {10, 14, 12};
        const Numbers nextPages = {14, 12, 0};
        ASSERT_TRUE(seeker_->CreateHeadFile(pages.data(), nextPages.data(), 3, byteSize));
    }

    Bytes HeaderOf(std::uint64_t page) { return Slice(File(), FileOffset(page), 16); }
    Bytes UntouchedHeaderOf(std::uint64_t page) const { return Slice(file_, FileOffset(page), 16); }

    const Bytes file_ = PatternBytes(8 * kPageSize);
    const Util::RefPtr<HeadFileWriteOnlySeeker> seeker_{new HeadFileWriteOnlySeeker(&cache_)};
};

}  // namespace

TEST_F(HeadFileWriteOnlySeekerTest, WritesTheHeadersUpToTheRequestedPage) {
    CreateThreePages(kFirst + kLater + 5);
    seeker_->LoadPageInfo(2);
    EXPECT_EQ(HeaderOf(14), (Bytes{
                                12, 0, 0, 0, 0, 0, 0, 0,       // the next page
                                0x00, 0x20, 0, 0, 0, 0, 0, 0,  // end of the data
                            }));
    EXPECT_EQ(HeaderOf(12), (Bytes{
                                0, 0, 0, 0, 0, 0, 0, 0,   // the last
                                21, 0, 0, 0, 0, 0, 0, 0,  // end of the data
                            }));
    EXPECT_EQ(seeker_->pageRanges[1].start, 16u);
    EXPECT_EQ(seeker_->pageRanges[1].end, 8192u);
    EXPECT_EQ(seeker_->pageRanges[2].start, 16u);
    EXPECT_EQ(seeker_->pageRanges[2].end, 21u);
}

TEST_F(HeadFileWriteOnlySeekerTest, WritesALinkWithItsLowestByteFirst) {
    const Numbers pages = {10, 11};
    const Numbers nextPages = {11, 0xABCDE};
    ASSERT_TRUE(seeker_->CreateHeadFile(pages.data(), nextPages.data(), 2, kFirst + kLater));
    seeker_->LoadPageInfo(1);
    EXPECT_EQ(HeaderOf(11), (Bytes{
                                0xDE, 0xBC, 0x0A, 0, 0, 0, 0, 0,  //
                                0x00, 0x20, 0, 0, 0, 0, 0, 0,     //
                            }));
}

TEST_F(HeadFileWriteOnlySeekerTest, APageThatIsNeverReachedGetsNoHeader) {
    CreateThreePages(kFirst + kLater + 5);
    EXPECT_EQ(HeaderOf(14), UntouchedHeaderOf(14));
    seeker_->LoadPageInfo(0);
    EXPECT_EQ(HeaderOf(14), UntouchedHeaderOf(14));
    seeker_->LoadPageInfo(1);
    EXPECT_NE(HeaderOf(14), UntouchedHeaderOf(14));
    EXPECT_EQ(HeaderOf(12), UntouchedHeaderOf(12));
}

TEST_F(HeadFileWriteOnlySeekerTest, ChangesNothingAfterTheHeaders) {
    CreateThreePages(kFirst + kLater + 5);
    seeker_->LoadPageInfo(2);
    const Bytes after = File();
    for (const std::uint64_t page : Numbers{14, 12}) {
        const std::uint64_t data = FileOffset(page) + 16;
        EXPECT_EQ(Slice(after, data, 8176), Slice(file_, data, 8176));
    }
    for (const std::uint64_t page : Numbers{11, 13, 15}) {
        EXPECT_EQ(Slice(after, FileOffset(page), 8192), Slice(file_, FileOffset(page), 8192));
    }
}

TEST_F(HeadFileWriteOnlySeekerTest, WritesAHeaderOnlyOnFirstUse) {
    CreateThreePages(kFirst + kLater + 5);
    seeker_->LoadPageInfo(1);
    SetWord(14, 0, 99);
    const StdioCounts before = CountStdioCalls();
    seeker_->LoadPageInfo(0);
    seeker_->LoadPageInfo(1);
    EXPECT_EQ(CountStdioCalls().reads, before.reads);
    seeker_->LoadPageInfo(2);
    EXPECT_EQ(HeaderOf(14).front(), 99);
}

TEST_F(HeadFileWriteOnlySeekerTest, APositionWritesTheHeadersUpToItsPage) {
    CreateThreePages(kFirst + kLater + 5);
    EXPECT_EQ(PlaceOf(*seeker_, kFirst), (Place{true, 1, 16}));
    EXPECT_EQ(HeaderOf(14).front(), 12);
    EXPECT_EQ(HeaderOf(12), UntouchedHeaderOf(12));
    EXPECT_EQ(Moved(*seeker_, {1, 16}, kLater), (Place{true, 2, 16}));
    EXPECT_EQ(HeaderOf(12).front(), 0);
}

TEST_F(HeadFileWriteOnlySeekerTest, WritingTheWholeFileWritesEveryHeader) {
    CreateThreePages(kFirst + kLater + 5);
    const Bytes content = PatternBytes(kFirst + kLater + 5, 3);
    {
        const Util::RefPtr<IDataStream> stream(new PagedFileStream(&cache_, seeker_));
        ASSERT_EQ(stream->Write(content.data(), content.size()), content.size());
    }
    const Bytes after = File();
    EXPECT_EQ(Slice(after, 32, kFirst), Slice(content, 0, kFirst));
    EXPECT_EQ(Slice(after, FileOffset(14) + 16, kLater), Slice(content, kFirst, kLater));
    EXPECT_EQ(Slice(after, FileOffset(12) + 16, 5), Slice(content, kFirst + kLater, 5));
    EXPECT_EQ(after[FileOffset(14)], 12);
    EXPECT_EQ(after[FileOffset(12)], 0);
    EXPECT_EQ(after[FileOffset(12) + 8], 21);
}

TEST_F(HeadFileWriteOnlySeekerTest, GrowsTheFileToCoverThePage) {
    SetFile({});
    CreateThreePages(kFirst + kLater + 5);
    EXPECT_EQ(std::filesystem::file_size(path_), 8192u);
    seeker_->LoadPageInfo(1);
    EXPECT_EQ(std::filesystem::file_size(path_), 5u * 8192u);
}

TEST_F(HeadFileWriteOnlySeekerTest, DoesNotCheckTheChain) {
    const Numbers pages = {10, 11, 11};
    const Numbers nextPages = {5, 11, 10};
    ASSERT_TRUE(seeker_->CreateHeadFile(pages.data(), nextPages.data(), 3, kFirst + kLater + 5));
    seeker_->LoadPageInfo(2);
    EXPECT_EQ(HeaderOf(11).front(), 10);
}

TEST_F(HeadFileWriteOnlySeekerTest, ReleasesThePagesItWrites) {
    CreateThreePages(kFirst + kLater + 5);
    seeker_->LoadPageInfo(2);
    EXPECT_TRUE(NothingIsPinned());
}

TEST_F(HeadFileWriteOnlySeekerTest, WithoutAPageFromTheCacheThrowsCorrupt) {
    CreateThreePages(kFirst + kLater + 5);
    ASSERT_NE(cache_.GetPageForRead(11), nullptr);
    EXPECT_THROW(seeker_->LoadPageInfo(1), FileDataCorruptException);
    cache_.ReleasePageForRead(11);
    seeker_->LoadPageInfo(1);
    EXPECT_EQ(HeaderOf(14).front(), 12);
}

TEST_F(HeadFileWriteOnlySeekerTest, AHeaderWrittenBeforeAFailureIsNotWrittenAgain) {
    const Numbers pages = {10, 11, 9};  // the last is not a page number
    const Numbers nextPages = {11, 9, 0};
    ASSERT_TRUE(seeker_->CreateHeadFile(pages.data(), nextPages.data(), 3, kFirst + kLater + 5));
    EXPECT_THROW(seeker_->LoadPageInfo(2), FileDataCorruptException);
    const StdioCounts before = CountStdioCalls();
    cache_.DiscardAll();
    seeker_->LoadPageInfo(1);
    EXPECT_EQ(CountStdioCalls().reads, before.reads);
}

TEST_F(HeadFileWriteOnlySeekerTest, AnInvalidPageNumberThrowsCorrupt) {
    const Numbers pages = {10, 9};
    const Numbers nextPages = {9, 0};
    ASSERT_TRUE(seeker_->CreateHeadFile(pages.data(), nextPages.data(), 2, kFirst + 1));
    EXPECT_THROW(seeker_->LoadPageInfo(1), FileDataCorruptException);
}

TEST_F(HeadFileWriteOnlySeekerTest, PassesOnTheErrorsOfTheCache) {
    CreateThreePages(kFirst + kLater + 5);
    const StdioFault fault(StdioCall::Write, ENOSPC);
    EXPECT_EQ(FileErrorOf([&] { seeker_->LoadPageInfo(1); }), ENOSPC);
}

}  // namespace Quorvel::Testing
