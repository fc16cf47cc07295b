#include <cerrno>
#include <vector>

#include "package/PackageTest.h"
#include "support/StdioFaults.h"

namespace Quorvel::Testing {

namespace {

using Format::Bytes;
using Format::PackageImage;

using OpenDataStreamTest = PackageTest;

// The link of one of stream 0's whole pages.
std::uint64_t& LinkOf(PackageImage& image, int index) {
    std::uint64_t page = image.streams[0].firstPage;
    for (; index > 0; --index) {
        page = image.Link(page);
    }
    return image.links.at(page - Format::kFirstPage);
}

// The link of one of the first block's pages.
std::uint64_t& BlockLink(PackageImage& image, std::size_t slot) {
    return image.links.at(image.blocks[0].pages[slot] - Format::kFirstPage);
}

// Takes all bytes from stream 0's tail.
void EmptyTail(PackageImage& image) {
    image.streams[0].size -= image.fragments[0].length;
    image.fragments[0].length = 0;
}

}  // namespace

TEST_F(OpenDataStreamTest, StartsAtTheStart) {
    const std::uint64_t id = Add(10000);
    const auto stream = package_->OpenDataStream(id);
    ASSERT_TRUE(stream);
    EXPECT_EQ(stream->GetPosition(), 0U);
    EXPECT_EQ(stream->GetSize(), 10000U);
}

TEST_F(OpenDataStreamTest, OfAnUnknownIdReturnsNull) {
    EXPECT_FALSE(package_->OpenDataStream(0));
    EXPECT_FALSE(package_->OpenDataStream(kInvalidStreamId));
    Add(10);
    EXPECT_FALSE(package_->OpenDataStream(1));
}

TEST_F(OpenDataStreamTest, TwiceReturnsTheSameStreamAtItsPosition) {
    const std::uint64_t id = Add(10000);
    const auto stream = package_->OpenDataStream(id);
    ASSERT_TRUE(stream->Seek(kSeekFromStart, 9000));
    const auto again = package_->OpenDataStream(id);
    EXPECT_EQ(again.Get(), stream.Get());
    EXPECT_EQ(again->GetPosition(), 9000U);
}

TEST_F(OpenDataStreamTest, StaysOpenUntilTheLastReferenceIsReleased) {
    const std::uint64_t id = Add(10000);
    auto stream = package_->OpenDataStream(id);
    auto again = package_->OpenDataStream(id);
    stream.Reset();
    EXPECT_FALSE(package_->DeleteDataStream(id));
    EXPECT_FALSE(package_->Load());
    ASSERT_TRUE(again->Seek(kSeekFromStart, 9000));
    again.Reset();
    EXPECT_EQ(package_->OpenDataStream(id)->GetPosition(), 0U);
    EXPECT_TRUE(package_->Load());
}

TEST_F(OpenDataStreamTest, OfAnEmptyStreamIsRefused) {
    const std::uint64_t id = Add(0);
    EXPECT_THROW(package_->OpenDataStream(id), FileDataCorruptException);
    EXPECT_TRUE(package_->DeleteDataStream(id));
}

TEST_F(OpenDataStreamTest, KeepsStreamsApart) {
    const std::uint64_t first = Add(10000);
    const std::uint64_t second = Add(10000);
    const auto one = package_->OpenDataStream(first);
    const auto other = package_->OpenDataStream(second);
    EXPECT_NE(one.Get(), other.Get());
    Bytes firstRead(10000);
    Bytes secondRead(10000);
    for (std::size_t position = 0; position < 10000; position += 625) {
        EXPECT_EQ(one->Read(firstRead.data() + position, 625), 625U);
        EXPECT_EQ(other->Read(secondRead.data() + position, 625), 625U);
    }
    EXPECT_TRUE(firstRead == streams_[first]);
    EXPECT_TRUE(secondRead == streams_[second]);
}

TEST_F(OpenDataStreamTest, NeverMakesAStreamLonger) {
    const std::uint64_t id = Add(8200);
    const std::uint64_t neighbour = Add(100);
    const auto stream = package_->OpenDataStream(id);
    const Bytes content = Format::Pattern(9000, 99);
    EXPECT_EQ(stream->Write(content.data(), content.size()), 8200U);
    EXPECT_EQ(stream->GetPosition(), 8200U);
    EXPECT_EQ(stream->Write(content.data(), 1), 0U);
    EXPECT_FALSE(stream->Seek(kSeekFromEnd, 1));
    streams_[id] = Bytes(content.begin(), content.begin() + 8200);
    EXPECT_TRUE(Format::ReadStream(*package_, neighbour) == streams_[neighbour]);
    ExpectPackage();
}

class DamagedStream : public PackageTest, public ::testing::WithParamInterface<Damage> {
protected:
    // Stream 0 has three whole pages and a tail that crosses a page boundary of its block.
    DamagedStream() {
        Add(3 * 8192 + 7000);
        Add(5000);
        Delete(0);
        Add(3 * 8192 + 7000);
    }
};

class UnopenableStream : public DamagedStream {};

TEST_P(UnopenableStream, IsRefused) {
    Edit(GetParam().apply);
    EXPECT_THROW(package_->OpenDataStream(0), FileDataCorruptException);
    EXPECT_FALSE(package_->HasChanges());
    EXPECT_TRUE(package_->Load());  // it is not open
}

INSTANTIATE_TEST_SUITE_P(
    Damage, UnopenableStream,
    ::testing::ValuesIn(std::vector<Damage>{
        {"TailInFreeBytes", [](PackageImage& image) { image.blocks[0].freeBytes = 65536; }},
        {"SizeUnlikePagesPlusTail", [](PackageImage& image) { image.streams[0].size += 1; }},
        {"ChainThatEndsEarly", [](PackageImage& image) { LinkOf(image, 1) = Format::kChainEnd; }},
        {"ChainThatReturnsToItsStart",
         [](PackageImage& image) { LinkOf(image, 1) = image.streams[0].firstPage; }},
        {"PageThatFollowsItself",
         [](PackageImage& image) { LinkOf(image, 0) = image.streams[0].firstPage; }},
        {"FreeFirstPage", [](PackageImage& image) { LinkOf(image, 0) = Format::kFreePage; }},
        {"FreeLastPage", [](PackageImage& image) { LinkOf(image, 2) = Format::kFreePage; }},
        {"TailInAFreePage", [](PackageImage& image) { BlockLink(image, 0) = Format::kFreePage; }},
        {"TailThatEndsInAFreePage",
         [](PackageImage& image) { BlockLink(image, 1) = Format::kFreePage; }},
        {"TailThatCrossesToAPageThatDoesNotFollow",
         [](PackageImage& image) { BlockLink(image, 0) = Format::kChainEnd; }},
    }),
    [](const auto& test) { return test.param.name; });

class OpenableStream : public DamagedStream {};

TEST_P(OpenableStream, HasAllItsBytes) {
    Edit(GetParam().apply);
    Bytes expected = streams_[0];
    expected.resize(package_->OpenDataStream(0)->GetSize());
    EXPECT_TRUE(Format::ReadStream(*package_, 0) == expected);
}

INSTANTIATE_TEST_SUITE_P(Oddity, OpenableStream,
                         ::testing::ValuesIn(std::vector<Damage>{
                             {"ChainLongerThanItsRecordSays",
                              [](PackageImage& image) {
                                  EmptyTail(image);
                                  image.streams[0].pageCount -= 1;
                                  image.streams[0].size -= 8192;
                              }},
                             {"TailOfNoBytesInAFreePage",
                              [](PackageImage& image) {
                                  EmptyTail(image);
                                  BlockLink(image, 0) = Format::kFreePage;
                              }},
                             {"TailOfNoBytesInPagesThatAreNoChain",
                              [](PackageImage& image) {
                                  EmptyTail(image);
                                  BlockLink(image, 0) = Format::kChainEnd;
                              }},
                         }),
                         [](const auto& test) { return test.param.name; });

TEST_F(OpenDataStreamTest, PassesOnFileErrorsWhenAStreamIsRead) {
    Add(8192);
    package_.Reset();
    package_ = NewPackage();
    ASSERT_TRUE(package_->Load());
    const auto stream = package_->OpenDataStream(0);
    Bytes content(8192);
    {
        const StdioFault fault(StdioCall::Read, EIO);
        EXPECT_EQ(FileErrorOf([&] { stream->Read(content.data(), content.size()); }), EIO);
    }
    EXPECT_EQ(stream->Read(content.data(), content.size()), 8192U);
    EXPECT_TRUE(content == streams_[0]);
}

// ---- A package released before its streams ------------------------------------------------------

TEST_F(OpenDataStreamTest, LeavesAnEmptyStreamIfThePackageIsReleasedFirst) {
    const std::uint64_t id = Add(10000);
    const auto stream = package_->OpenDataStream(id);
    std::uint8_t byte = 7;
    ASSERT_EQ(stream->Write(&byte, 1), 1U);
    streams_[id][0] = byte;
    package_.Reset();

    EXPECT_EQ(stream->GetSize(), 0U);
    EXPECT_EQ(stream->GetPosition(), 0U);
    EXPECT_FALSE(stream->Seek(kSeekFromStart, 0));
    EXPECT_FALSE(stream->Seek(kSeekFromCurrent, 1));
    EXPECT_FALSE(stream->Seek(kSeekFromEnd, 0));
    EXPECT_EQ(stream->Read(&byte, 1), 0U);
    EXPECT_EQ(stream->Write(&byte, 1), 0U);
    Format::ExpectFile(path_, streams_, headerData_);
}

TEST_F(OpenDataStreamTest, LeavesEveryStreamEmptyEvenIfTheLastCommitFails) {
    std::vector<Util::RefPtr<IDataStream>> streams;
    for (int count = 0; count < 5; ++count) {
        streams.push_back(package_->OpenDataStream(Add(9000)));
    }
    {
        const StdioFault fault(StdioCall::Write, ENOSPC);
        package_.Reset();
        EXPECT_GT(fault.Failures(), 0U);
    }
    for (const auto& stream : streams) {
        std::uint8_t byte = 0;
        EXPECT_EQ(stream->Read(&byte, 1), 0U);
        EXPECT_EQ(stream->GetSize(), 0U);
    }
}

// ---- Pinned pages -------------------------------------------------------------------------------

class TwoPagesTest : public PackageTest {
protected:
    TwoPagesTest() : PackageTest({2, 100}) {}
};

TEST_F(TwoPagesTest, ReadsNothingIfAllCachedPagesArePinned) {
    const std::uint64_t first = Add(8192);
    const std::uint64_t second = Add(8192);
    const std::uint64_t third = Add(8192);
    auto one = package_->OpenDataStream(first);
    const auto other = package_->OpenDataStream(second);
    const auto last = package_->OpenDataStream(third);
    std::uint8_t byte = 0;
    EXPECT_EQ(one->Read(&byte, 1), 1U);
    EXPECT_EQ(other->Read(&byte, 1), 1U);
    EXPECT_EQ(last->Read(&byte, 1), 0U);
    one.Reset();
    EXPECT_EQ(last->Read(&byte, 1), 1U);
    EXPECT_EQ(byte, streams_[third][0]);
}

}  // namespace Quorvel::Testing
