#include "quorvel/FilePackage.h"

#include <cerrno>
#include <filesystem>

#include "package/PackageTest.h"
#include "support/StdioFaults.h"

namespace Quorvel::Testing {

namespace {

using Format::Bytes;

class FilePackageTest : public ::testing::Test {
protected:
    Util::RefPtr<IDataStreamSet> Create(const std::string& path) const {
        return Format::CreatePackage(path);
    }
    Util::RefPtr<IDataStreamSet> Open(const std::string& path) const {
        return Format::OpenPackage(path);
    }

    // Writes a package with a long head file, a page and a tail, and returns its bytes.
    Bytes WritePackage() {
        const auto package = Create(path_);
        EXPECT_TRUE(package);
        streams_[0] = Format::Pattern(10000, 1);
        headerData_ = Format::Pattern(20000, 2);
        EXPECT_EQ(Format::AddStream(*package, streams_[0]), 0U);
        Format::SetHeaderData(*package, headerData_);
        EXPECT_TRUE(package->Commit());
        return Format::ReadWholeFile(path_);
    }

    TemporaryDirectory directory_;
    std::string path_ = directory_.File("package");
    std::map<std::uint64_t, Bytes> streams_;
    Bytes headerData_;
};

// ---- CreateFilePackage --------------------------------------------------------------------------

TEST_F(FilePackageTest, CreateMakesAnEmptyPackageOfOnePage) {
    const auto package = Create(path_);
    ASSERT_TRUE(package);
    EXPECT_EQ(package->GetNumberOfDataStreams(), 0U);
    EXPECT_EQ(package->GetHeaderDataSize(), 0U);
    EXPECT_EQ(package->GetTotalDataSize(), 0U);
    EXPECT_EQ(Format::ReadWholeFile(path_).size(), 8192U);
    Format::ExpectFile(path_, {}, {});
}

TEST_F(FilePackageTest, CreateOnAPackageInUseStartsOver) {
    const Util::RefPtr<PagedFilePackage> package(new PagedFilePackage({path_.c_str(), 64, 8}));
    package->Create();
    package->CreateDataStream(20000);
    Format::SetHeaderData(*package, {1, 2, 3});
    ASSERT_TRUE(package->Commit());
    ASSERT_TRUE(package->Load());
    package->CreateDataStream(20000);

    package->Create();
    EXPECT_FALSE(package->HasChanges());
    EXPECT_EQ(package->GetNumberOfDataStreams(), 0U);
    EXPECT_EQ(package->GetTotalDataSize(), 0U);
    EXPECT_EQ(package->GetHeaderDataSize(), 0U);
    // A package that was loaded with this limit may have only one block.
    std::map<std::uint64_t, Bytes> streams;
    for (int stream = 0; stream < 3; ++stream) {
        const Bytes content = Format::Pattern(8191 + 8192 * 7, 1);
        streams[Format::AddStream(*package, content)] = content;
    }
    for (int stream = 0; stream < 5; ++stream) {
        const Bytes content = Format::Pattern(8191, 2);
        streams[Format::AddStream(*package, content)] = content;
    }
    ASSERT_TRUE(package->Commit());
    EXPECT_EQ(Format::ReadPackage(Format::ReadWholeFile(path_)).streams[0].firstPage, 11U);
    Format::ExpectFile(path_, streams, {});
}

TEST_F(FilePackageTest, FailedCreateIsCommittedByTheReleaseIfPossible) {
    {
        const StdioFault fault(StdioCall::Write, EIO, 1, 1);
        EXPECT_FALSE(Create(path_));
        EXPECT_EQ(fault.Failures(), 1U);
    }
    EXPECT_TRUE(Open(path_));
}

TEST_F(FilePackageTest, CreateCommits) {
    const auto package = Create(path_);
    ASSERT_TRUE(package);
    EXPECT_FALSE(static_cast<PagedFilePackage&>(*package).HasChanges());
    EXPECT_TRUE(Open(path_));
}

TEST_F(FilePackageTest, CreateOverAPackageMakesItEmptyWithoutShorteningTheFile) {
    const Bytes before = WritePackage();
    const auto package = Create(path_);
    ASSERT_TRUE(package);
    EXPECT_EQ(package->GetNumberOfDataStreams(), 0U);
    EXPECT_EQ(package->GetHeaderDataSize(), 0U);

    const Bytes after = Format::ReadWholeFile(path_);
    EXPECT_EQ(after.size(), before.size());
    EXPECT_TRUE(std::equal(after.begin() + 8192, after.end(), before.begin() + 8192));
    EXPECT_EQ(Bytes(after.begin(), after.begin() + 32),
              Bytes({1, 0, 0, 0, 0, 0, 0, 0, 48, 0, 0, 0, 0, 0, 0, 0,  //
                     0, 0, 0, 0, 0, 0, 0, 0, 80, 0, 0, 0, 0, 0, 0, 0}));
    Format::ExpectFile(path_, {}, {});
}

TEST_F(FilePackageTest, CreateOverAPackageAllocatesFromTheFirstPage) {
    WritePackage();
    const auto package = Create(path_);
    ASSERT_TRUE(package);
    const Bytes content = Format::Pattern(3 * 8192 + 100, 9);
    EXPECT_EQ(Format::AddStream(*package, content), 0U);
    EXPECT_TRUE(package->Commit());
    EXPECT_EQ(Format::ReadPackage(Format::ReadWholeFile(path_)).streams[0].firstPage, 11U);
    Format::ExpectFile(path_, {{0, content}}, {});
}

TEST_F(FilePackageTest, CreateOverAnyOtherFileKeepsItsLengthToo) {
    for (const std::size_t size : {1U, 5000U, 8191U, 8192U, 30000U}) {
        Format::WriteWholeFile(path_, Bytes(size, 0xFF));
        ASSERT_TRUE(Create(path_));
        EXPECT_EQ(Format::ReadWholeFile(path_).size(), std::max<std::size_t>(size, 8192));
        Format::ExpectFile(path_, {}, {});
    }
}

TEST_F(FilePackageTest, CreateReturnsNullIfTheFolderIsMissing) {
    EXPECT_FALSE(Create(directory_.File("no/package")));
    EXPECT_FALSE(std::filesystem::exists(directory_.Path() / "no"));
}

TEST_F(FilePackageTest, CreateReturnsNullIfThePathCannotBeWritten) {
    EXPECT_FALSE(Create(directory_.Path().string()));
    EXPECT_FALSE(Create(""));
}

TEST_F(FilePackageTest, CreateReturnsNullWithoutAPath) {
    EXPECT_FALSE(CreateFilePackage({nullptr, 64, 100}));
}

TEST_F(FilePackageTest, CreateReturnsNullIfAnyTransferFails) {
    for (const StdioCall call :
         {StdioCall::Seek, StdioCall::Tell, StdioCall::Read, StdioCall::Write}) {
        std::uint64_t failures = 1;
        for (std::uint64_t skipped = 0; failures > 0; ++skipped) {
            std::filesystem::remove(path_);
            const StdioFault fault(call, EIO, skipped);
            const auto package = Create(path_);
            failures = fault.Failures();
            EXPECT_EQ(static_cast<bool>(package), failures == 0);
        }
    }
}

TEST_F(FilePackageTest, CreateTreatsACapacityOfZeroAsOne) {
    const auto package = Format::CreatePackage(path_, {0, 100});
    ASSERT_TRUE(package);
    const Bytes content = Format::Pattern(20000, 3);
    Format::SetHeaderData(*package, content);
    EXPECT_EQ(Format::AddStream(*package, content), 0U);
    EXPECT_TRUE(Format::ReadStream(*package, 0) == content);
    EXPECT_TRUE(package->Commit());
    Format::ExpectFile(path_, {{0, content}}, content);
    EXPECT_TRUE(Format::OpenPackage(path_, {0, 100}));
}

// ---- OpenFilePackage ----------------------------------------------------------------------------

TEST_F(FilePackageTest, OpenOfAMissingFileReturnsNullAndLeavesAnEmptyFile) {
    EXPECT_FALSE(Open(path_));
    ASSERT_TRUE(std::filesystem::exists(path_));
    EXPECT_EQ(std::filesystem::file_size(path_), 0U);
}

TEST_F(FilePackageTest, OpenOfANewPackageHasNoStreams) {
    ASSERT_TRUE(Create(path_));
    const auto package = Open(path_);
    ASSERT_TRUE(package);
    EXPECT_EQ(package->GetNumberOfDataStreams(), 0U);
    EXPECT_EQ(package->GetHeaderDataSize(), 0U);
}

TEST_F(FilePackageTest, OpenReadsWhatWasCommitted) {
    WritePackage();
    const auto package = Open(path_);
    ASSERT_TRUE(package);
    Format::ExpectStreams(*package, streams_);
    EXPECT_TRUE(Format::GetHeaderData(*package) == headerData_);
}

TEST_F(FilePackageTest, OpenAndReleaseLeaveTheFileUnchanged) {
    const Bytes file = WritePackage();
    ASSERT_TRUE(Open(path_));
    EXPECT_TRUE(Format::ReadWholeFile(path_) == file);
}

TEST_F(FilePackageTest, OpenedPackageCanBeChanged) {
    WritePackage();
    const auto package = Open(path_);
    ASSERT_TRUE(package);
    streams_[1] = Format::Pattern(9000, 4);
    EXPECT_EQ(Format::AddStream(*package, streams_[1]), 1U);
    EXPECT_TRUE(package->Commit());
    Format::ExpectFile(path_, streams_, headerData_);
}

TEST_F(FilePackageTest, OpenOfAFileTruncatedInItsHeadFileReturnsNull) {
    Bytes file = WritePackage();
    const std::uint64_t lastPage = Format::ReadPackage(file).headPages.back().number;
    const std::size_t needed = Format::PageOffset(lastPage) + 8192;
    for (const std::size_t size :
         {std::size_t{0}, std::size_t{1}, std::size_t{31}, std::size_t{32}, std::size_t{4096},
          std::size_t{8191}, std::size_t{8192}, needed - 8192, needed - 4096, needed - 1}) {
        file.resize(size);
        Format::WriteWholeFile(path_, file);
        EXPECT_FALSE(Open(path_)) << size;
        EXPECT_EQ(std::filesystem::file_size(path_), size);
        file = WritePackage();
    }
    file.resize(needed);
    Format::WriteWholeFile(path_, file);
    EXPECT_TRUE(Open(path_));
}

TEST_F(FilePackageTest, OpenOfAnOverwrittenFileReturnsNull) {
    const Bytes file = WritePackage();
    for (const Bytes& other :
         {Bytes(file.size(), 0), Bytes(file.size(), 0xFF), Format::Pattern(file.size(), 6)}) {
        Format::WriteWholeFile(path_, other);
        EXPECT_FALSE(Open(path_));
        EXPECT_TRUE(Format::ReadWholeFile(path_) == other);
    }
}

TEST_F(FilePackageTest, OpenOfAFileWithAnyHeadPageOverwrittenReturnsNull) {
    const Bytes file = WritePackage();
    const Format::PackageImage image = Format::ReadPackage(file);
    ASSERT_EQ(image.headPages.size(), 3U);
    for (const Format::HeadPage& page : image.headPages) {
        Bytes other = file;
        std::fill_n(other.begin() + static_cast<std::ptrdiff_t>(Format::PageOffset(page.number)),
                    8192, std::uint8_t{0});
        Format::WriteWholeFile(path_, other);
        EXPECT_FALSE(Open(path_)) << page.number;
    }
}

TEST_F(FilePackageTest, OpenReturnsNullWithoutAFolderOrFile) {
    EXPECT_FALSE(Open(directory_.File("no/package")));
    EXPECT_FALSE(Open(directory_.Path().string()));
    EXPECT_FALSE(Open(""));
    EXPECT_FALSE(OpenFilePackage({nullptr, 64, 100}));
}

TEST_F(FilePackageTest, OpenReturnsNullIfAnyTransferFailsAndLeavesTheFileUnchanged) {
    const Bytes file = WritePackage();
    for (const StdioCall call : {StdioCall::Seek, StdioCall::Tell, StdioCall::Read}) {
        std::uint64_t failures = 1;
        for (std::uint64_t skipped = 0; failures > 0; ++skipped) {
            const StdioFault fault(call, EIO, skipped);
            auto package = Open(path_);
            failures = fault.Failures();
            EXPECT_EQ(static_cast<bool>(package), failures == 0);
        }
    }
    EXPECT_TRUE(Format::ReadWholeFile(path_) == file);
    EXPECT_TRUE(Open(path_));
}

TEST_F(FilePackageTest, OpenAppliesTheConfiguredStreamLimit) {
    WritePackage();
    EXPECT_FALSE(Format::OpenPackage(path_, {64, 0}));
    EXPECT_TRUE(Format::OpenPackage(path_, {64, 1}));
}

}  // namespace

}  // namespace Quorvel::Testing
