#include <cerrno>

#include "package/FullPackage.h"
#include "package/PackageTest.h"
#include "support/StdioFaults.h"

namespace Quorvel::Testing {

namespace {

using Format::Bytes;
using Format::PackageImage;
using ::testing::IsEmpty;

using Words = std::vector<std::uint64_t>;

using CreateDataStreamTest = PackageTest;

Words Ids(IDataStreamSet& package) {
    Words ids;
    for (std::uint64_t index = 0; index < package.GetNumberOfDataStreams(); ++index) {
        ids.push_back(package.GetDataStreamId(index));
    }
    return ids;
}

// Id, size and number of whole pages of a record.
Words Numbers(const Format::StreamRecord& record) {
    return {record.id, record.size, record.pageCount};
}

}  // namespace

// ---- Pages and tails ----------------------------------------------------------------------------

TEST_F(CreateDataStreamTest, OfNoBytesTakesNoPageAndNoTail) {
    const Bytes empty = File();
    EXPECT_EQ(Add(0), 0U);
    CommitAndExpectFile();
    const PackageImage image = Image();
    ASSERT_EQ(image.streams.size(), 1U);
    EXPECT_EQ(Numbers(image.streams[0]), Words({0, 0, 0}));
    EXPECT_EQ(image.streams[0].firstPage, 0U);
    EXPECT_THAT(image.blocks, IsEmpty());
    EXPECT_THAT(image.fragments, IsEmpty());
    EXPECT_EQ(image.file.size(), empty.size());
}

TEST_F(CreateDataStreamTest, OfOnePageTakesAPageAndNoTail) {
    Add(8192);
    CommitAndExpectFile();
    const PackageImage image = Image();
    EXPECT_EQ(Numbers(image.streams[0]), Words({0, 8192, 1}));
    EXPECT_EQ(image.streams[0].firstPage, 11U);
    EXPECT_THAT(image.fragments, IsEmpty());
}

TEST_F(CreateDataStreamTest, OfAByteMoreTakesAPageAndATailOfOneByte) {
    Add(8193);
    CommitAndExpectFile();
    const PackageImage image = Image();
    EXPECT_EQ(Numbers(image.streams[0]), Words({0, 8193, 1}));
    ASSERT_EQ(image.fragments.size(), 1U);
    EXPECT_EQ(image.fragments[0].length, 1U);
    EXPECT_EQ(image.blocks[0].freeBytes, 65535U);
}

TEST_F(CreateDataStreamTest, OfLessThanAPageTakesOnlyATail) {
    Add(8191);
    CommitAndExpectFile();
    const PackageImage image = Image();
    EXPECT_EQ(Numbers(image.streams[0]), Words({0, 8191, 0}));
    EXPECT_EQ(image.streams[0].firstPage, 0U);
    EXPECT_EQ(image.fragments[0].length, 8191U);
}

TEST_F(CreateDataStreamTest, ChainsItsWholePages) {
    Add(4 * 8192);
    CommitAndExpectFile();
    const PackageImage image = Image();
    EXPECT_EQ(image.streams[0].firstPage, 11U);
    EXPECT_EQ(image.links, Words({0, 12, 13, 14, 0}));
}

TEST_F(CreateDataStreamTest, NineTailsOf7500BytesFillABlockWithEightAndOpenAnother) {
    for (int count = 0; count < 9; ++count) {
        Add(7500);
    }
    CommitAndExpectFile();
    const PackageImage image = Image();
    ASSERT_EQ(image.blocks.size(), 2U);
    EXPECT_EQ(image.blocks[0].streams, Words({0, 1, 2, 3, 4, 5, 6, 7}));
    EXPECT_EQ(image.blocks[0].freeBytes, 5536U);
    EXPECT_EQ(image.blocks[1].streams, Words({8}));
    EXPECT_EQ(image.blocks[1].freeBytes, 58036U);
    EXPECT_EQ(image.fragments[8].offset, 0U);
}

TEST_F(CreateDataStreamTest, PutsATailIntoTheFirstBlockThatHasRoom) {
    for (int count = 0; count < 9; ++count) {
        Add(7500);
    }
    const std::uint64_t small = Add(5536);
    Add(1);
    CommitAndExpectFile();
    const PackageImage image = Image();
    EXPECT_EQ(image.fragments[small].blockId, 0U);
    EXPECT_EQ(image.blocks[0].freeBytes, 0U);
    EXPECT_EQ(image.fragments[small + 1].blockId, 1U);
}

TEST_F(CreateDataStreamTest, OfEverySizeAroundABoundaryHoldsItsBytes) {
    for (const std::size_t size : Format::BoundarySizes()) {
        Add(size);
    }
    ExpectPackage();
    CommitAndExpectFile();
    package_.Reset();
    package_ = NewPackage();
    ASSERT_TRUE(package_->Load());
    ExpectPackage();
}

TEST_F(CreateDataStreamTest, ManyTimesKeepsEveryStreamApart) {
    for (std::size_t count = 0; count < 600; ++count) {
        Add(1 + count * 37 % 9000);
    }
    for (std::uint64_t id = 0; id < 600; id += 3) {
        Delete(id);
    }
    for (std::size_t count = 0; count < 100; ++count) {
        Add(8000 + count * 5);
    }
    ExpectPackage();
    CommitAndExpectFile();
}

// ---- Ids and counts -----------------------------------------------------------------------------

TEST_F(CreateDataStreamTest, AllocatesTheLowestFreeIdFirst) {
    for (std::uint64_t id = 0; id < 5; ++id) {
        EXPECT_EQ(package_->CreateDataStream(10), id);
    }
    EXPECT_TRUE(package_->DeleteDataStream(3));
    EXPECT_TRUE(package_->DeleteDataStream(1));
    EXPECT_EQ(package_->CreateDataStream(10), 1U);
    EXPECT_EQ(package_->CreateDataStream(10), 3U);
    EXPECT_EQ(package_->CreateDataStream(10), 5U);
}

TEST_F(CreateDataStreamTest, ListsStreamsInAscendingOrderOfTheirIds) {
    EXPECT_EQ(package_->GetDataStreamId(0), kInvalidStreamId);
    for (int count = 0; count < 5; ++count) {
        Add(10);
    }
    Delete(2);
    Delete(0);
    EXPECT_EQ(Ids(*package_), Words({1, 3, 4}));
    EXPECT_EQ(package_->GetDataStreamId(3), kInvalidStreamId);
    EXPECT_EQ(package_->GetDataStreamId(kInvalidStreamId), kInvalidStreamId);
    Add(10);
    EXPECT_EQ(Ids(*package_), Words({0, 1, 3, 4}));
}

TEST_F(CreateDataStreamTest, CountsTheBytesOfAllStreams) {
    EXPECT_EQ(package_->GetTotalDataSize(), 0U);
    Add(0);
    const std::uint64_t middle = Add(8193);
    Add(100);
    EXPECT_EQ(package_->GetTotalDataSize(), 8293U);
    Delete(middle);
    EXPECT_EQ(package_->GetTotalDataSize(), 100U);
}

TEST_F(CreateDataStreamTest, IsAChange) {
    package_->CreateDataStream(0);
    EXPECT_TRUE(package_->HasChanges());
}

// ---- Limits -------------------------------------------------------------------------------------

class StreamLimitTest : public PackageTest {
protected:
    StreamLimitTest() : PackageTest({64, 3}) {}
};

TEST_F(StreamLimitTest, BoundsTheNumberOfStreams) {
    for (std::uint64_t id = 0; id < 3; ++id) {
        EXPECT_EQ(Add(10), id);
    }
    EXPECT_EQ(package_->CreateDataStream(10), kInvalidStreamId);
    EXPECT_EQ(package_->GetNumberOfDataStreams(), 3U);
    Delete(1);
    EXPECT_EQ(Add(20), 1U);
    EXPECT_EQ(package_->CreateDataStream(0), kInvalidStreamId);
    CommitAndExpectFile();
}

TEST_F(StreamLimitTest, RefusesWithoutAChange) {
    for (int count = 0; count < 3; ++count) {
        Add(10);
    }
    ASSERT_TRUE(package_->Commit());
    EXPECT_EQ(package_->CreateDataStream(8192), kInvalidStreamId);
    EXPECT_FALSE(package_->HasChanges());
}

TEST_F(StreamLimitTest, BoundsALoadedPackageToo) {
    Add(10);
    Add(10);
    package_.Reset();
    package_ = NewPackage();
    ASSERT_TRUE(package_->Load());
    EXPECT_EQ(Add(10), 2U);
    EXPECT_EQ(package_->CreateDataStream(10), kInvalidStreamId);
    ExpectPackage();
}

TEST(StreamLimit, OfZeroAllowsNoStream) {
    const TemporaryDirectory directory;
    const auto package = Format::CreatePackage(directory.File("package"), {64, 0});
    ASSERT_TRUE(package);
    EXPECT_EQ(package->CreateDataStream(0), kInvalidStreamId);
}

// A new package allows far more tail blocks than streams; only loading applies the limit.
TEST(StreamLimit, BoundsTheTailBlocksOfALoadedPackageToAnEighth) {
    const TemporaryDirectory directory;
    const std::string path = directory.File("package");
    auto package = Format::CreatePackage(path, {64, 9});
    ASSERT_TRUE(package);
    for (std::uint64_t id = 0; id < 9; ++id) {
        EXPECT_EQ(Format::AddStream(*package, Bytes(8191, 'x')), id);
    }
    EXPECT_TRUE(package->Commit());
    EXPECT_EQ(Format::ReadPackage(Format::ReadWholeFile(path)).blocks.size(), 2U);
    package.Reset();
    EXPECT_FALSE(Format::OpenPackage(path, {64, 15}));
    package = Format::OpenPackage(path, {64, 16});
    ASSERT_TRUE(package);
    EXPECT_EQ(package->GetNumberOfDataStreams(), 9U);
}

TEST_F(CreateDataStreamTest, RefusesTooManyWholePages) {
    const std::size_t fileSize = File().size();
    for (const std::uint64_t size : {std::uint64_t{0xFFFF7} << 13, ~std::uint64_t{0}}) {
        EXPECT_THROW(package_->CreateDataStream(size), OutOfMemoryException);
    }
    EXPECT_EQ(File().size(), fileSize);
    EXPECT_EQ(package_->GetNumberOfDataStreams(), 0U);
    EXPECT_EQ(Add(8192), 0U);
    CommitAndExpectFile();
    EXPECT_EQ(Image().streams[0].firstPage, 11U);
}

// ---- Failures -----------------------------------------------------------------------------------

// A package with three free pages.
class FullPackageTest : public PackageTest {
protected:
    static constexpr std::uint64_t kFreePages = 3;

    FullPackageTest() {
        package_.Reset();
        Format::WriteWholeFile(path_, FullPackage(kFreePages));
        package_ = NewPackage();
    }

    void SetUp() override { ASSERT_TRUE(package_->Load()); }

    // Takes the free pages, and checks that there are no others.
    void ExpectFreePages() {
        EXPECT_EQ(package_->GetNumberOfDataStreams(), 0U);
        EXPECT_EQ(Add(kFreePages * 8192), 0U);
        EXPECT_THROW(package_->CreateDataStream(8192), OutOfMemoryException);
        ExpectPackage();
        package_->Discard();
    }
};

TEST_F(FullPackageTest, FreesItsPagesIfThereAreTooFewForAStream) {
    EXPECT_THROW(package_->CreateDataStream((kFreePages + 1) * 8192), OutOfMemoryException);
    ExpectFreePages();
}

TEST_F(FullPackageTest, FreesItsPagesIfThereAreTooFewForATailBlock) {
    EXPECT_THROW(package_->CreateDataStream(8193), OutOfMemoryException);
    ExpectFreePages();
}

TEST_F(CreateDataStreamTest, ChangesNothingIfTheFileCannotGrow) {
    for (const StdioCall call : {StdioCall::Seek, StdioCall::Tell, StdioCall::Write}) {
        std::uint64_t failures = 1;
        for (std::uint64_t skipped = 0; failures > 0; ++skipped) {
            ASSERT_LT(skipped, 100U);
            StartOver();
            Add(8192);
            {
                const StdioFault fault(call, ENOSPC, skipped, 1);
                try {
                    package_->CreateDataStream(3 * 8192 + 1);  // and eight pages for its tail
                } catch (const FileIOException& exception) {
                    EXPECT_EQ(exception.errorCode, static_cast<std::uint32_t>(ENOSPC));
                    EXPECT_EQ(fault.Failures(), 1U);
                }
                failures = fault.Failures();
            }
            EXPECT_EQ(package_->GetNumberOfDataStreams(), failures > 0 ? 1U : 2U);
            EXPECT_TRUE(package_->DeleteDataStream(1));
            ExpectPackage();
            Add(3 * 8192 + 1);
            CommitAndExpectFile();
            EXPECT_EQ(File().size(), (1 + 1 + 3 + 8) * 8192U);
        }
    }
}

TEST_F(CreateDataStreamTest, ReusesThePagesThatAFailureFreed) {
    {
        const StdioFault fault(StdioCall::Write, ENOSPC, 2, 1);
        EXPECT_EQ(FileErrorOf([&] { package_->CreateDataStream(4 * 8192); }), ENOSPC);
    }
    EXPECT_EQ(Add(4 * 8192), 0U);
    CommitAndExpectFile();
    EXPECT_EQ(File().size(), 5 * 8192U);
}

// A block whose record counts the bytes of a tail as free.
TEST_F(CreateDataStreamTest, KeepsTheIdOfAStreamWhoseTailOverlapsAnother) {
    Add(100);
    Edit([](PackageImage& image) { image.blocks[0].freeBytes = 65536; });
    EXPECT_THROW(package_->CreateDataStream(2 * 8192 + 50), FileDataCorruptException);
    EXPECT_EQ(package_->GetNumberOfDataStreams(), 2U);
    EXPECT_THROW(package_->OpenDataStream(1), FileDataCorruptException);
    EXPECT_EQ(package_->CreateDataStream(2 * 8192), 2U);
    EXPECT_TRUE(package_->DeleteDataStream(1));
    EXPECT_EQ(package_->CreateDataStream(2 * 8192), 1U);
    EXPECT_TRUE(package_->Commit());
}

// A leftover tail belongs to an id that is free.
TEST_F(CreateDataStreamTest, FailsOnceWhereATailHasNoStream) {
    Add(100);
    Add(100);
    Edit([](PackageImage& image) {
        std::erase_if(image.streams, [](const auto& stream) { return stream.id == 0; });
    });
    EXPECT_THROW(package_->CreateDataStream(50), FileDataCorruptException);
    EXPECT_EQ(package_->CreateDataStream(50), 2U);
}

TEST_F(CreateDataStreamTest, ThatFailsCountsAsAChange) {
    ASSERT_TRUE(package_->Commit());
    {
        const StdioFault fault(StdioCall::Write, ENOSPC);
        EXPECT_EQ(FileErrorOf([&] { package_->CreateDataStream(4 * 8192); }), ENOSPC);
    }
    EXPECT_TRUE(package_->HasChanges());
}

}  // namespace Quorvel::Testing
