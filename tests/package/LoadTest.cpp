#include <cerrno>
#include <filesystem>
#include <memory>

#include "package/PackageTest.h"
#include "support/StdioFaults.h"
#include "support/WorkingDirectory.h"

namespace Quorvel::Testing {

namespace {

using Format::Bytes;

using LoadTest = PackageTest;

}  // namespace

TEST_F(LoadTest, ReadsWhatAnotherPackageHasCommitted) {
    const auto other = NewPackage();
    ASSERT_TRUE(other->Load());
    Add(10000);
    SetHeaderData({1, 2, 3});
    CommitAndExpectFile();
    ASSERT_TRUE(other->Load());
    Format::ExpectStreams(*other, streams_);
    EXPECT_TRUE(Format::GetHeaderData(*other) == headerData_);
    EXPECT_FALSE(other->HasChanges());
}

TEST_F(LoadTest, ReadsCachedStreamsAgain) {
    const std::uint64_t id = Add(10000);
    CommitAndExpectFile();
    ExpectPackage();
    const auto other = NewPackage();
    ASSERT_TRUE(other->Load());
    streams_[id] = Format::Pattern(10000, 77);
    EXPECT_EQ(other->OpenDataStream(id)->Write(streams_[id].data(), 10000), 10000U);
    other->SetHeaderDataSize(0);
    ASSERT_TRUE(other->Commit());
    ASSERT_TRUE(package_->Load());
    ExpectPackage();
}

TEST_F(LoadTest, IsRefusedWhileAStreamIsOpen) {
    const std::uint64_t id = Add(10000);
    CommitAndExpectFile();
    auto stream = package_->OpenDataStream(id);
    SetHeaderData({1, 2, 3});
    EXPECT_FALSE(package_->Load());
    EXPECT_TRUE(package_->HasChanges());
    ExpectPackage();
    stream.Reset();
    CommitAndExpectFile();
    EXPECT_TRUE(package_->Load());
}

TEST_F(LoadTest, ChangesNothingWhenTheFileIsDamaged) {
    Add(10000);
    CommitAndExpectFile();
    Add(20000);
    SetHeaderData({1, 2, 3});
    Bytes file = File();
    std::fill_n(file.begin(), 32, std::uint8_t{0});
    Format::WriteWholeFile(path_, file);

    EXPECT_FALSE(package_->Load());
    EXPECT_TRUE(package_->HasChanges());
    EXPECT_TRUE(File() == file);
    ExpectPackage();
    CommitAndExpectFile();
}

TEST_F(LoadTest, ChangesNothingWhenAnyTransferFails) {
    Add(10000);
    SetHeaderData(Format::Pattern(20000, 3));
    CommitAndExpectFile();
    const Bytes file = File();
    for (const StdioCall call :
         {StdioCall::Seek, StdioCall::Tell, StdioCall::Read, StdioCall::Write}) {
        std::uint64_t failures = 1;
        for (std::uint64_t skipped = 0; failures > 0; ++skipped) {
            {
                const StdioFault fault(call, EIO, skipped, 1);
                const bool loaded = package_->Load();
                failures = fault.Failures();
                // Only the replaced package may write, so a failed write does not matter.
                EXPECT_EQ(loaded, failures == 0 || call == StdioCall::Write);
            }
            EXPECT_FALSE(package_->HasChanges());
            ExpectPackage();
        }
    }
    EXPECT_TRUE(File() == file);
}

TEST_F(LoadTest, FailsIfTheFileCannotBeOpened) {
    SetHeaderData({1, 2, 3});
    const StdioFault fault(StdioCall::Open, EMFILE);
    EXPECT_FALSE(package_->Load());
    ExpectPackage();
}

TEST_F(LoadTest, WritesChangesOverTheFileAfterItHasReadIt) {
    const auto other = NewPackage();
    ASSERT_TRUE(other->Load());
    Format::SetHeaderData(*other, {'m', 'i', 'n', 'e'});
    SetHeaderData({'t', 'h', 'e', 'i', 'r', 's'});
    CommitAndExpectFile();

    ASSERT_TRUE(other->Load());
    EXPECT_TRUE(Format::GetHeaderData(*other) == headerData_);
    EXPECT_FALSE(other->HasChanges());
    Format::ExpectFile(path_, {}, {'m', 'i', 'n', 'e'});
}

TEST_F(LoadTest, WritesNothingNewWhenThereWereNoChanges) {
    const auto other = NewPackage();
    ASSERT_TRUE(other->Load());
    SetHeaderData({'t', 'h', 'e', 'i', 'r', 's'});
    Add(10000);
    CommitAndExpectFile();
    const Bytes file = File();
    ASSERT_TRUE(other->Load());
    EXPECT_TRUE(File() == file);
}

TEST_F(LoadTest, DoesNotBringBackAbandonedChanges) {
    SetHeaderData({1, 2, 3});
    CommitAndExpectFile();
    Format::SetHeaderData(*package_, {4, 5, 6});
    package_->CreateDataStream(100);
    package_->Discard();
    EXPECT_FALSE(package_->HasChanges());
    ASSERT_TRUE(package_->Load());
    ExpectPackage();
    package_.Reset();
    Format::ExpectFile(path_, streams_, headerData_);
}

TEST_F(LoadTest, FollowsADiscardWithoutAFile) {
    Add(100);
    CommitAndExpectFile();
    package_.Reset();
    package_ = NewPackage();
    package_->Discard();
    EXPECT_EQ(package_->State(), FileState::Closed);
    ASSERT_TRUE(package_->Load());
    ExpectPackage();
}

TEST_F(LoadTest, CanBeRepeated) {
    for (std::size_t turn = 0; turn < 5; ++turn) {
        Add(5000 + turn);
        SetHeaderData(Format::Pattern(turn * 5000, turn));
        CommitAndExpectFile();
        ASSERT_TRUE(package_->Load());
        ASSERT_TRUE(package_->Load());
        ExpectPackage();
    }
}

TEST_F(LoadTest, ContinuesFromTheCommittedState) {
    for (std::size_t size : {100U, 8192U, 8193U, 70000U}) {
        Add(size);
    }
    Delete(1);
    CommitAndExpectFile();
    ASSERT_TRUE(package_->Load());
    EXPECT_EQ(Add(8191), 1U);
    EXPECT_EQ(Add(10), 4U);
    Delete(0);
    ExpectPackage();
    CommitAndExpectFile();
}

// The list of a block and the header data lie in the pages, past the size that the first page
// states.
TEST_F(LoadTest, ReadsWhatThePagesHoldWhateverTheSizeOfTheHeadFileSays) {
    for (const std::size_t headerSize : {5U, 20000U}) {
        Add(10000);
        SetHeaderData(Format::Pattern(headerSize, 1));
        CommitAndExpectFile();
        const Bytes file = File();
        const std::uint64_t size = Image().stateSize;
        for (const std::uint64_t stated :
             {std::uint64_t{0}, std::uint64_t{8}, size - 1, size + 1}) {
            Bytes edited = file;
            Format::StoreInteger(edited, 8, 8, stated);
            Format::WriteWholeFile(path_, edited);
            ASSERT_TRUE(package_->Load()) << stated;
            ExpectPackage();
        }
    }
}

// The path is used whenever the file is opened: by Load, and at the end of Commit.
void ExpectToOutliveItsPath(const std::string& path) {
    auto text = std::make_unique<std::string>(path);
    PagedFilePackageConfig config = {text->c_str(), 16, 100};
    const auto package = CreateFilePackage(config);
    text->assign(text->size(), '?');
    text.reset();
    config = {nullptr, 0, 0};
    ASSERT_TRUE(package);
    for (std::uint64_t id = 0; id < 3; ++id) {
        EXPECT_EQ(Format::AddStream(*package, Bytes(10000, 'x')), id);
        EXPECT_TRUE(package->Commit());
        EXPECT_TRUE(package->Load());
        EXPECT_EQ(package->GetNumberOfDataStreams(), id + 1);
    }
    EXPECT_EQ(Format::ReadPackage(Format::ReadWholeFile(path)).streams.size(), 3U);
}

TEST_F(LoadTest, UsesACopyOfThePath) {
    ExpectToOutliveItsPath(directory_.File("a file whose name is too long to stand in a string"));
}

TEST_F(LoadTest, UsesACopyOfAShortPath) {
    const WorkingDirectory working(directory_.Path());
    ExpectToOutliveItsPath("p");
}

}  // namespace Quorvel::Testing
