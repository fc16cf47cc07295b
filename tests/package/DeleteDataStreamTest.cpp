#include <cerrno>
#include <filesystem>
#include <vector>

#include "package/PackageTest.h"
#include "support/StdioFaults.h"

namespace Quorvel::Testing {

namespace {

using Format::Bytes;
using Format::PackageImage;
using ::testing::IsEmpty;

using Words = std::vector<std::uint64_t>;

using DeleteDataStreamTest = PackageTest;

// Reads the bytes from the stream's position to its end.
Bytes Rest(IDataStream& stream) {
    Bytes bytes(static_cast<std::size_t>(stream.GetSize() - stream.GetPosition()));
    EXPECT_EQ(stream.Read(bytes.data(), bytes.size()), bytes.size());
    return bytes;
}

Bytes From(const Bytes& bytes, std::size_t position) {
    return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(position), bytes.end());
}

}  // namespace

TEST_F(DeleteDataStreamTest, OfAnOpenStreamIsRefusedAndChangesNothing) {
    const std::uint64_t id = Add(8193);
    ASSERT_TRUE(package_->Commit());
    auto stream = package_->OpenDataStream(id);
    EXPECT_FALSE(package_->DeleteDataStream(id));
    EXPECT_FALSE(package_->HasChanges());
    ExpectPackage();
    stream.Reset();
    EXPECT_TRUE(package_->DeleteDataStream(id));
    EXPECT_EQ(package_->GetNumberOfDataStreams(), 0U);
}

TEST_F(DeleteDataStreamTest, OfAnUnknownStreamSucceedsAndChangesNothing) {
    Add(100);
    ASSERT_TRUE(package_->Commit());
    EXPECT_TRUE(package_->DeleteDataStream(1));
    EXPECT_TRUE(package_->DeleteDataStream(kInvalidStreamId));
    EXPECT_FALSE(package_->HasChanges());
    ExpectPackage();
}

TEST_F(DeleteDataStreamTest, OfTheSameStreamTwiceSucceedsTwice) {
    const std::uint64_t id = Add(100);
    EXPECT_TRUE(package_->DeleteDataStream(id));
    EXPECT_TRUE(package_->DeleteDataStream(id));
}

TEST_F(DeleteDataStreamTest, IsAChange) {
    const std::uint64_t id = Add(0);
    ASSERT_TRUE(package_->Commit());
    EXPECT_TRUE(package_->DeleteDataStream(id));
    EXPECT_TRUE(package_->HasChanges());
}

TEST_F(DeleteDataStreamTest, ForgetsTheStream) {
    const std::uint64_t id = Add(100);
    Delete(id);
    EXPECT_FALSE(package_->OpenDataStream(id));
    EXPECT_EQ(package_->GetTotalDataSize(), 0U);
    CommitAndExpectFile();
    EXPECT_THAT(Image().fragments, IsEmpty());
}

TEST_F(DeleteDataStreamTest, FreesTheWholePagesForTheNextStream) {
    const std::uint64_t id = Add(5 * 8192);
    Add(8192);
    CommitAndExpectFile();
    const std::size_t size = File().size();
    Delete(id);
    CommitAndExpectFile();
    EXPECT_EQ(Image().links, Words({0, 1, 1, 1, 1, 1, 0}));
    Add(3 * 8192);
    Add(2 * 8192);
    CommitAndExpectFile();
    EXPECT_EQ(File().size(), size);
}

TEST_F(DeleteDataStreamTest, KeepsABlockThatBecameEmptyForTheNextTail) {
    Delete(Add(100));
    CommitAndExpectFile();
    ASSERT_EQ(Image().blocks.size(), 1U);
    EXPECT_EQ(Image().blocks[0].freeBytes, 65536U);
    EXPECT_THAT(Image().blocks[0].streams, IsEmpty());
    Add(200);
    CommitAndExpectFile();
    EXPECT_EQ(Image().blocks.size(), 1U);
    EXPECT_EQ(Image().fragments[0].offset, 0U);
}

TEST_F(DeleteDataStreamTest, OfTheFirstOfTwoTailsMovesTheOtherDown) {
    const std::uint64_t first = Add(3000);
    const std::uint64_t second = Add(2000);
    Delete(first);
    ExpectPackage();
    CommitAndExpectFile();
    const PackageImage image = Image();
    ASSERT_EQ(image.fragments.size(), 1U);
    EXPECT_EQ(image.fragments[0].streamId, second);
    EXPECT_EQ(image.fragments[0].offset, 0U);
    EXPECT_EQ(image.fragments[0].index, 0U);
    EXPECT_EQ(image.blocks[0].freeBytes, 63536U);
}

TEST_F(DeleteDataStreamTest, MovesTailsDownAcrossPageBoundariesOfTheirBlock) {
    for (const std::size_t size : {8000U, 500U, 7000U, 8191U, 1U, 8190U, 8189U, 8188U}) {
        Add(size);
    }
    for (const std::uint64_t id : {1U, 4U, 0U, 7U, 3U}) {
        Delete(id);
        ExpectPackage();
        CommitAndExpectFile();
    }
}

TEST_F(DeleteDataStreamTest, LeavesTheBytesOfOtherBlocksAlone) {
    for (int count = 0; count < 17; ++count) {
        Add(7500);
    }
    for (const std::uint64_t id : {8U, 0U, 16U, 3U}) {
        Delete(id);
        ExpectPackage();
    }
    CommitAndExpectFile();
}

// ---- Open streams -------------------------------------------------------------------------------

// Before the deletion, the tail of 6000 bytes crosses a page boundary of its block; afterwards it
// lies within a page.
TEST_F(DeleteDataStreamTest, MovesATailWhileAStreamReadsIt) {
    for (const std::int32_t position : {0, 1, 8191, 8192, 8193, 8383, 8384, 8385, 14191, 14192}) {
        StartOver();
        const std::uint64_t first = Add(8000);
        const std::uint64_t second = Add(8192 + 6000);
        const auto stream = package_->OpenDataStream(second);
        ASSERT_TRUE(stream->Seek(kSeekFromStart, position));
        std::uint8_t byte = 0;
        stream->Read(&byte, 1);  // pins a page
        ASSERT_TRUE(stream->Seek(kSeekFromStart, position));

        Delete(first);
        EXPECT_EQ(stream->GetPosition(), static_cast<std::uint64_t>(position));
        EXPECT_TRUE(Rest(*stream) == From(streams_[second], static_cast<std::size_t>(position)))
            << position;
        ExpectPackage();
    }
}

TEST_F(DeleteDataStreamTest, MovesATailWhileAStreamWritesIt) {
    const std::uint64_t first = Add(8000);
    const std::uint64_t second = Add(5000);
    const std::uint64_t third = Add(700);
    const auto stream = package_->OpenDataStream(second);
    const Bytes half = Format::Pattern(2500, 98);
    ASSERT_EQ(stream->Write(half.data(), half.size()), half.size());
    Delete(first);
    ASSERT_EQ(stream->Write(half.data(), half.size()), half.size());
    streams_[second] = half;
    Format::Append(streams_[second], half);
    ExpectPackage();
    CommitAndExpectFile();
    EXPECT_EQ(Image().fragments[1].streamId, third);
    EXPECT_EQ(Image().fragments[1].offset, 5000U);
}

TEST_F(DeleteDataStreamTest, LeavesOpenStreamsOfOtherBlocksAlone) {
    for (int count = 0; count < 9; ++count) {
        Add(7500);
    }
    const auto stream = package_->OpenDataStream(8);
    ASSERT_TRUE(stream->Seek(kSeekFromStart, 100));
    Delete(0);
    EXPECT_EQ(stream->GetPosition(), 100U);
    EXPECT_TRUE(Rest(*stream) == From(streams_[8], 100));
}

// In a damaged file tails may overlap. Stream 1's tail then reaches into the free bytes.
TEST_F(DeleteDataStreamTest, LeavesAStreamWhoseTailIsLostEmptyAndNoLongerOpen) {
    Add(100);
    Add(100);
    Edit([](PackageImage& image) { image.fragments[1].offset = 50; });
    auto stream = package_->OpenDataStream(1);
    ASSERT_TRUE(stream);
    EXPECT_TRUE(package_->DeleteDataStream(0));
    EXPECT_EQ(stream->GetSize(), 0U);
    EXPECT_THROW(package_->OpenDataStream(1), FileDataCorruptException);
    EXPECT_TRUE(package_->DeleteDataStream(1));
    EXPECT_TRUE(package_->Commit());
    EXPECT_TRUE(package_->Load());
    EXPECT_EQ(Add(300), 0U);
    const auto other = package_->OpenDataStream(0);
    stream.Reset();
    EXPECT_EQ(package_->OpenDataStream(0).Get(), other.Get());
}

// ---- Failures -----------------------------------------------------------------------------------

// A fragment that reaches past its block. No package writes one.
TEST_F(DeleteDataStreamTest, ReturnsFalseAndLeavesATailThatCannotBeRemoved) {
    Add(8191);
    Edit([](PackageImage& image) { image.fragments[0].offset = 65000; });
    EXPECT_FALSE(package_->DeleteDataStream(0));
    EXPECT_EQ(package_->GetNumberOfDataStreams(), 0U);
    ASSERT_TRUE(package_->Commit());
    const PackageImage image = Image();
    EXPECT_THAT(image.streams, IsEmpty());
    ASSERT_EQ(image.fragments.size(), 1U);
    EXPECT_EQ(image.fragments[0].offset, 65000U);
    EXPECT_EQ(image.blocks[0].freeBytes, 65536U - 8191);
    EXPECT_EQ(image.blocks[0].streams, Words({0}));
}

// The first attempt deletes the stream, but its bytes stay in the block.
TEST_F(DeleteDataStreamTest, ThrowsOnceForABlockWhoseChainIsBroken) {
    Add(8192 + 100);
    Add(200);
    Edit([](PackageImage& image) { image.links[image.blocks[0].pages[4] - 10] = 0; });
    const std::uint64_t page = Image().streams[0].firstPage;
    EXPECT_THROW(package_->DeleteDataStream(0), FileDataCorruptException);
    EXPECT_TRUE(package_->HasChanges());
    EXPECT_TRUE(package_->DeleteDataStream(0));
    streams_.erase(0);
    ExpectPackage();
    ASSERT_TRUE(package_->Commit());
    EXPECT_EQ(Image().Link(page), Format::kFreePage);
    EXPECT_EQ(Image().fragments.size(), 2U);
}

TEST_F(DeleteDataStreamTest, FreesAChainToItsEndEvenIfTheRecordCountsFewerPages) {
    Add(3 * 8192);
    Edit([](PackageImage& image) {
        image.streams[0].pageCount = 2;
        image.streams[0].size = 2 * 8192;
    });
    const std::uint64_t first = Image().streams[0].firstPage;
    streams_.clear();
    ASSERT_TRUE(package_->DeleteDataStream(0));
    ASSERT_TRUE(package_->Commit());
    const PackageImage image = Image();
    for (std::uint64_t page = first; page < first + 3; ++page) {
        EXPECT_EQ(image.Link(page), Format::kFreePage) << page;
    }
}

TEST_F(DeleteDataStreamTest, PassesOnFileErrors) {
    Add(100);
    package_.Reset();
    package_ = NewPackage();
    ASSERT_TRUE(package_->Load());
    const StdioFault fault(StdioCall::Read, EIO);
    EXPECT_EQ(FileErrorOf([&] { package_->DeleteDataStream(0); }), EIO);
}

// Packages whose file ends inside the tail block, under page caches that can pin all of the block,
// a part of it, or one page.
class CutBlockTest : public PackageTest, public ::testing::WithParamInterface<std::uint64_t> {
protected:
    CutBlockTest() : PackageTest({GetParam(), 100}) {}

    // Adds streams with tails of the given lengths and cuts the file inside a page of the block.
    // Tails in that page and after it are lost.
    void AddAndCut(const std::vector<std::size_t>& sizes, std::size_t slot) {
        for (const std::size_t size : sizes) {
            Add(size);
        }
        package_.Reset();
        const std::size_t end = Format::PageOffset(Image().blocks[0].pages[slot]) + 5000;
        std::filesystem::resize_file(path_, end);
        package_ = NewPackage();
        ASSERT_TRUE(package_->Load());
    }
};

// Deleting must move the bytes after the tail, and some of them are not in the file.
TEST_P(CutBlockTest, ThrowsOnceAndMovesNothing) {
    AddAndCut({3000, 2000, 8000, 8000, 8000}, 3);
    const std::size_t size = File().size();
    EXPECT_EQ(FileErrorOf([&] { package_->DeleteDataStream(0); }), 0);
    EXPECT_TRUE(package_->DeleteDataStream(0));
    EXPECT_EQ(package_->GetNumberOfDataStreams(), 4U);
    for (const std::uint64_t id : {1U, 2U}) {
        EXPECT_TRUE(Format::ReadStream(*package_, id) == streams_[id]) << id;
    }
    EXPECT_EQ(FileErrorOf([&] { Format::ReadStream(*package_, 4); }), 0);
    EXPECT_EQ(File().size(), size);
}

// The file grows to the end of the page that is written first, as for every write to a page.
TEST_P(CutBlockTest, DeletesATailInTheLastPageOfTheBlock) {
    AddAndCut({8191, 8191, 8191, 8191, 8191, 8191, 8191, 100, 6000, 70}, 7);
    const std::size_t size = File().size();
    EXPECT_TRUE(package_->DeleteDataStream(8));
    EXPECT_EQ(File().size(), size + 8192 - 5000);
    EXPECT_TRUE(Format::ReadStream(*package_, 6) == streams_[6]);
}

TEST_P(CutBlockTest, DeletesATailAfterWhichTheBlockEnds) {
    AddAndCut({8191, 8191, 8191, 8191, 8191, 8191, 8191, 8191, 8}, 6);
    const std::size_t size = File().size();
    EXPECT_TRUE(package_->DeleteDataStream(8));
    EXPECT_EQ(package_->GetNumberOfDataStreams(), 8U);
    EXPECT_EQ(File().size(), size);
}

INSTANTIATE_TEST_SUITE_P(PageCache, CutBlockTest, ::testing::Values(1, 2, 3, 40),
                         ::testing::PrintToStringParamName());

class OnePageTest : public PackageTest {
protected:
    OnePageTest() : PackageTest({1, 100}) {}
};

TEST_F(OnePageTest, CannotMoveATailFromOnePageToAnother) {
    Add(100);
    Add(100);
    EXPECT_THROW(package_->DeleteDataStream(0), FileDataCorruptException);
    // The stream is gone but its tail is not, so a stream that gets its id cannot have a tail.
    EXPECT_EQ(package_->GetNumberOfDataStreams(), 1U);
    EXPECT_THROW(package_->CreateDataStream(100), FileDataCorruptException);
    EXPECT_EQ(package_->CreateDataStream(100), 2U);
}

}  // namespace Quorvel::Testing
