// Packages as a client of the shared library uses them.
#include <gtest/gtest.h>
#include <quorvel/Quorvel.h>

#include <cstring>
#include <string>

#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

namespace {

class PackageUse : public ::testing::Test {
protected:
    PagedFilePackageConfig Config() const { return {path_.c_str(), 64, 1000}; }

    static std::uint64_t AddStream(IDataStreamSet& package, const std::string& text) {
        const std::uint64_t id = package.CreateDataStream(text.size());
        EXPECT_EQ(package.OpenDataStream(id)->Write(text.data(), text.size()), text.size());
        return id;
    }

    static std::string ReadStream(IDataStreamSet& package, std::uint64_t id) {
        const Util::RefPtr<IDataStream> stream = package.OpenDataStream(id);
        std::string text(static_cast<std::size_t>(stream->GetSize()), '\0');
        EXPECT_EQ(stream->Read(text.data(), text.size()), text.size());
        return text;
    }

    TemporaryDirectory directory_;
    std::string path_ = directory_.File("package");
};

}  // namespace

TEST_F(PackageUse, WritesCommitsAndReadsBack) {
    Util::RefPtr<IDataStreamSet> package = CreateFilePackage(Config());
    ASSERT_TRUE(package);
    const std::uint64_t first = AddStream(*package, "kept between runs");
    const std::uint64_t second = AddStream(*package, std::string(100000, 'x'));
    EXPECT_TRUE(package->SetHeaderDataSize(4));
    std::memcpy(package->GetHeaderData(), "head", 4);
    EXPECT_TRUE(package->Commit());
    package.Reset();

    package = OpenFilePackage(Config());
    ASSERT_TRUE(package);
    EXPECT_EQ(package->GetNumberOfDataStreams(), 2U);
    EXPECT_EQ(package->GetDataStreamId(0), first);
    EXPECT_EQ(package->GetDataStreamId(1), second);
    EXPECT_EQ(package->GetTotalDataSize(), 100017U);
    EXPECT_EQ(ReadStream(*package, first), "kept between runs");
    EXPECT_EQ(ReadStream(*package, second), std::string(100000, 'x'));
    const IDataStreamSet& reader = *package;
    ASSERT_EQ(package->GetHeaderDataSize(), 4U);
    EXPECT_EQ(std::memcmp(reader.GetHeaderData(), "head", 4), 0);
}

TEST_F(PackageUse, CommitsWhenTheLastReferenceIsReleased) {
    Util::RefPtr<IDataStreamSet> package = CreateFilePackage(Config());
    ASSERT_TRUE(package);
    Util::RefPtr<IDataStreamSet> second = package;
    const std::uint64_t id = AddStream(*package, "text");
    package.Reset();
    EXPECT_EQ(OpenFilePackage(Config())->GetNumberOfDataStreams(), 0U);
    second.Reset();
    EXPECT_EQ(ReadStream(*OpenFilePackage(Config()), id), "text");
}

TEST_F(PackageUse, SeesAnothersCommitAfterALoad) {
    const Util::RefPtr<IDataStreamSet> writer = CreateFilePackage(Config());
    ASSERT_TRUE(writer);
    const Util::RefPtr<IDataStreamSet> reader = OpenFilePackage(Config());
    ASSERT_TRUE(reader);
    const std::uint64_t id = AddStream(*writer, "text");
    EXPECT_TRUE(writer->Commit());
    EXPECT_FALSE(reader->OpenDataStream(id));
    EXPECT_TRUE(reader->Load());
    EXPECT_EQ(ReadStream(*reader, id), "text");
    EXPECT_TRUE(reader->DeleteDataStream(id));
    EXPECT_FALSE(reader->OpenDataStream(id));
}

TEST_F(PackageUse, ReportsFailureWithANullReference) {
    EXPECT_FALSE(OpenFilePackage(Config()));
    path_ = directory_.File("no/package");
    EXPECT_FALSE(CreateFilePackage(Config()));
    EXPECT_FALSE(CreateFilePackage({nullptr, 64, 1000}));
    EXPECT_FALSE(OpenFilePackage({nullptr, 64, 1000}));
}

TEST_F(PackageUse, LeavesStreamsThatOutliveItEmpty) {
    Util::RefPtr<IDataStreamSet> package = CreateFilePackage(Config());
    ASSERT_TRUE(package);
    const Util::RefPtr<IDataStream> stream =
        package->OpenDataStream(AddStream(*package, std::string(10000, 'x')));
    char letter = 0;
    EXPECT_EQ(stream->Read(&letter, 1), 1U);
    package.Reset();
    EXPECT_EQ(stream->Read(&letter, 1), 0U);
    EXPECT_EQ(stream->Write(&letter, 1), 0U);
    EXPECT_EQ(stream->GetSize(), 0U);
    EXPECT_FALSE(stream->Seek(kSeekFromStart, 0));
}

}  // namespace Quorvel::Testing
