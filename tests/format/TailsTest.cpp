#include <gtest/gtest.h>

#include <map>

#include "format/LibraryPackage.h"
#include "format/PackageCheck.h"
#include "format/TestData.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Format {
namespace {

// Streams of the library whose tails share a block.
class Tails : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(package_); }

    std::uint64_t Add(std::size_t size) {
        const Bytes content = Pattern(size, size + 17);
        const std::uint64_t id = AddStream(*package_, content);
        streams_[id] = content;
        return id;
    }

    void Delete(std::uint64_t id) {
        ASSERT_TRUE(package_->DeleteDataStream(id));
        streams_.erase(id);
    }

    // Commits, checks the package and its file, and returns the parsed file.
    PackageImage Commit() {
        package_->GetHeaderData();
        EXPECT_TRUE(package_->Commit());
        ExpectStreams(*package_, streams_);
        ExpectFile(path_, streams_, {});
        return ReadPackage(ReadWholeFile(path_));
    }

    Testing::TemporaryDirectory directory_;
    std::string path_ = directory_.File("package");
    Util::RefPtr<IDataStreamSet> package_ = CreatePackage(path_);
    std::map<std::uint64_t, Bytes> streams_;
};

TEST_F(Tails, OfADeletedStreamLetLaterTailsMoveUp) {
    const std::uint64_t first = Add(3000);
    const std::uint64_t second = Add(5000);
    const std::uint64_t third = Add(kPageSize + 70);

    Delete(first);
    const PackageImage image = Commit();

    ASSERT_EQ(image.blocks.size(), 1u);
    EXPECT_EQ(image.blocks[0].streams, (std::vector<std::uint64_t>{second, third}));
    EXPECT_EQ(image.fragments[0].offset, 0u);
    EXPECT_EQ(image.fragments[1].offset, 5000u);
    EXPECT_EQ(image.blocks[0].freeBytes, kTailBlockSize - 5070);
}

TEST_F(Tails, OfADeletedStreamInTheMiddleLeaveEarlierTailsInPlace) {
    const std::uint64_t first = Add(8000);
    const std::uint64_t second = Add(8001);
    const std::uint64_t third = Add(8002);
    const std::uint64_t fourth = Add(8003);

    Delete(second);
    const PackageImage image = Commit();

    EXPECT_EQ(image.blocks[0].streams, (std::vector<std::uint64_t>{first, third, fourth}));
    EXPECT_EQ(image.fragments[1].offset, 8000u);
    EXPECT_EQ(image.fragments[2].offset, 16002u);
}

TEST_F(Tails, MoveUnderAnOpenStream) {
    const std::uint64_t first = Add(8000);
    const std::uint64_t second = Add(5000);
    const Util::RefPtr<IDataStream> open = package_->OpenDataStream(second);
    ASSERT_TRUE(open->Seek(kSeekFromStart, 4000));
    std::uint8_t byte = 0;
    ASSERT_EQ(open->Read(&byte, 1), 1u);

    Delete(first);

    Bytes rest(999);
    EXPECT_EQ(open->Read(rest.data(), rest.size()), 999u);
    EXPECT_TRUE(std::equal(rest.begin(), rest.end(), streams_[second].begin() + 4001));
    Commit();
}

TEST_F(Tails, FillABlockToTheLastByte) {
    for (int i = 0; i < 8; ++i) {
        Add(8191);
    }
    Add(8);
    PackageImage image = Commit();
    ASSERT_EQ(image.blocks.size(), 1u);
    EXPECT_EQ(image.blocks[0].freeBytes, 0u);

    Add(1);
    image = Commit();
    ASSERT_EQ(image.blocks.size(), 2u);
    EXPECT_EQ(image.blocks[1].freeBytes, kTailBlockSize - 1);
}

TEST_F(Tails, OfNineStreamsOf7500BytesNeedASecondBlock) {
    for (int i = 0; i < 9; ++i) {
        Add(7500);
    }
    const PackageImage image = Commit();
    ASSERT_EQ(image.blocks.size(), 2u);
    EXPECT_EQ(image.blocks[0].freeBytes, kTailBlockSize - 8 * 7500);
    EXPECT_EQ(image.blocks[1].streams.size(), 1u);
}

TEST_F(Tails, EndExactlyAtThePageEndsOfTheirBlock) {
    for (int i = 0; i < 8; ++i) {
        Add(8100);
        Add(92);
    }
    const PackageImage image = Commit();
    ASSERT_EQ(image.blocks.size(), 1u);
    EXPECT_EQ(image.blocks[0].freeBytes, 0u);
    for (const Fragment& fragment : image.fragments) {
        EXPECT_EQ(fragment.offset / kPageSize, (fragment.offset + fragment.length - 1) / kPageSize);
    }
}

TEST_F(Tails, CrossEveryPageEndOfTheirBlock) {
    for (int i = 0; i < 16; ++i) {
        Add(4000);
    }
    PackageImage image = Commit();
    std::size_t crossing = 0;
    for (const Fragment& fragment : image.fragments) {
        crossing +=
            fragment.offset / kPageSize != (fragment.offset + fragment.length - 1) / kPageSize;
    }
    EXPECT_EQ(crossing, 7u);

    while (!streams_.empty()) {
        Delete(streams_.begin()->first);
        image = Commit();
    }
    ASSERT_EQ(image.blocks.size(), 1u);
    EXPECT_EQ(image.blocks[0].freeBytes, kTailBlockSize);
}

TEST_F(Tails, ThatFitNowhereElseGoIntoTheFirstBlockWithRoom) {
    for (int i = 0; i < 17; ++i) {
        Add(8000);
    }
    Delete(3);
    Delete(12);
    const std::uint64_t added = Add(7000);
    const PackageImage image = Commit();
    EXPECT_EQ(image.blocks[0].streams.back(), added);
}

class StreamOfSize : public Tails, public testing::WithParamInterface<std::size_t> {};

TEST_P(StreamOfSize, TakesWholePagesAndATailAndReadsBackWhole) {
    Add(100);
    const std::uint64_t id = Add(GetParam());
    Add(200);

    const PackageImage image = Commit();

    const StreamRecord& stream = image.streams[1];
    EXPECT_EQ(stream.id, id);
    EXPECT_EQ(stream.size, GetParam());
    EXPECT_EQ(stream.pageCount, GetParam() / kPageSize);
    EXPECT_EQ(image.fragments.size(), GetParam() % kPageSize == 0 ? 2u : 3u);
    package_.Reset();
    package_ = OpenPackage(path_);
    ASSERT_TRUE(package_);
    ExpectStreams(*package_, streams_);
}

INSTANTIATE_TEST_SUITE_P(Boundary, StreamOfSize, testing::ValuesIn(BoundarySizes()),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace Quorvel::Format
