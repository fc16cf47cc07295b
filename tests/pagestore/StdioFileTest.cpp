#include "pagestore/StdioFile.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <utility>

#include "pagestore/Fakes.h"
#include "quorvel/Exceptions.h"
#include "support/StdioFaults.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

namespace {

class StdioFileTest : public ::testing::Test {
protected:
    ~StdioFileTest() override {
        if (opened_) { std::fclose(opened_); }
    }

    // A file of the given bytes, open for update until the test ends.
    std::FILE* OpenFile(const Bytes& content) {
        WriteFile(path_, content);
        StdioFile file;
        EXPECT_EQ(file.Open(path_.c_str(), "r+b"), 0);
        return opened_ = file.Detach();
    }

    static std::uint64_t ClosesSince(const StdioCounts& before) {
        return CountStdioCalls().closes - before.closes;
    }

    TemporaryDirectory directory_;
    const std::string path_ = directory_.File("file");
    std::FILE* opened_ = nullptr;
};

using GetFileSizeTest = StdioFileTest;
using GrowFileTest = StdioFileTest;

}  // namespace

TEST_F(StdioFileTest, OpenReturnsZeroOrTheErrorNumber) {
    StdioFile file;
    EXPECT_EQ(file.Open(path_.c_str(), "r+b"), ENOENT);
    EXPECT_EQ(file.Detach(), nullptr);
    EXPECT_EQ(file.Open(path_.c_str(), "w+b"), 0);
    EXPECT_EQ(file.Open(path_.c_str(), "r+b"), 0);
    const StdioFault fault(StdioCall::Open, EACCES);
    EXPECT_EQ(file.Open(path_.c_str(), "r+b"), EACCES);
}

TEST_F(StdioFileTest, AFailureWithoutAnErrorNumberIsStillAFailure) {
    StdioFile file;
    const StdioFault fault(StdioCall::Open, 0);
    EXPECT_NE(file.Open(path_.c_str(), "w+b"), 0);
}

TEST_F(StdioFileTest, OpenClosesTheEarlierFileEvenIfItFails) {
    StdioFile file;
    ASSERT_EQ(file.Open(path_.c_str(), "w+b"), 0);
    StdioCounts before = CountStdioCalls();
    ASSERT_EQ(file.Open(path_.c_str(), "r+b"), 0);
    EXPECT_EQ(ClosesSince(before), 1u);
    before = CountStdioCalls();
    EXPECT_EQ(file.Open(directory_.File("missing").c_str(), "r+b"), ENOENT);
    EXPECT_EQ(ClosesSince(before), 1u);
    EXPECT_EQ(file.Detach(), nullptr);
}

TEST_F(StdioFileTest, CloseClosesOnce) {
    StdioFile file;
    ASSERT_EQ(file.Open(path_.c_str(), "w+b"), 0);
    const StdioCounts before = CountStdioCalls();
    file.Close();
    file.Close();
    EXPECT_EQ(ClosesSince(before), 1u);
    EXPECT_EQ(file.Detach(), nullptr);
}

TEST_F(StdioFileTest, TheDestructorClosesOnlyAnOpenFile) {
    const StdioCounts before = CountStdioCalls();
    {
        StdioFile open;
        ASSERT_EQ(open.Open(path_.c_str(), "w+b"), 0);
        const StdioFile closed;
    }
    EXPECT_EQ(ClosesSince(before), 1u);
}

TEST_F(StdioFileTest, DetachReturnsTheFileOpen) {
    const StdioCounts before = CountStdioCalls();
    {
        StdioFile file;
        ASSERT_EQ(file.Open(path_.c_str(), "w+b"), 0);
        opened_ = file.Detach();
        EXPECT_EQ(file.Detach(), nullptr);
    }
    EXPECT_EQ(ClosesSince(before), 0u);
    ASSERT_NE(opened_, nullptr);
    EXPECT_EQ(std::fwrite("abc", 3, 1, opened_), 1u);
}

TEST_F(StdioFileTest, GetReturnsTheFileAndKeepsIt) {
    StdioFile file;
    EXPECT_EQ(file.Get(), nullptr);
    ASSERT_EQ(file.Open(path_.c_str(), "w+b"), 0);
    EXPECT_NE(file.Get(), nullptr);
    EXPECT_EQ(file.Get(), file.Get());
    file.Close();
    EXPECT_EQ(file.Get(), nullptr);
}

TEST_F(StdioFileTest, WritesReachTheFileAtOnce) {
    std::FILE* const file = OpenFile({});
    ASSERT_EQ(std::fwrite("abc", 3, 1, file), 1u);
    EXPECT_EQ(ReadFile(path_), (Bytes{'a', 'b', 'c'}));
}

// ---- The size of a file -------------------------------------------------------------------------

TEST_F(GetFileSizeTest, IsTheNumberOfBytes) {
    EXPECT_EQ(GetFileSize(OpenFile(Bytes(12345))), 12345u);
}

TEST_F(GetFileSizeTest, LeavesThePositionAtTheEnd) {
    std::FILE* const file = OpenFile(Bytes(300));
    std::rewind(file);
    GetFileSize(file);
    EXPECT_EQ(std::ftell(file), 300);
}

TEST_F(GetFileSizeTest, OfNoFileThrowsInvalidParameter) {
    EXPECT_THROW(GetFileSize(nullptr), InvalidParameterException);
}

TEST_F(GetFileSizeTest, ThrowsTheErrorNumberOfTheFailedCall) {
    std::FILE* const file = OpenFile(Bytes(300));
    for (const StdioCall call : {StdioCall::Seek, StdioCall::Tell}) {
        const StdioFault fault(call, ESPIPE);
        EXPECT_EQ(FileErrorOf([&] { GetFileSize(file); }), ESPIPE);
    }
}

// ---- Growing a file -----------------------------------------------------------------------------

TEST_F(GrowFileTest, AppendsZerosUpToTheNewSize) {
    for (const std::uint64_t newSize : Numbers{8192, 8193, 16384, 20000}) {
        std::FILE* const file = OpenFile(Bytes(100, 5));
        EXPECT_TRUE(GrowFile(file, newSize));
        Bytes expected(100, 5);
        expected.resize(newSize);
        EXPECT_EQ(ReadFile(path_), expected);
        std::fclose(std::exchange(opened_, nullptr));
    }
}

TEST_F(GrowFileTest, WritesWholePagesAndThenTheRest) {
    std::FILE* const file = OpenFile({});
    const auto writesTo = [&](std::uint64_t newSize) {
        const StdioCounts before = CountStdioCalls();
        GrowFile(file, newSize);
        return CountStdioCalls().writes - before.writes;
    };
    EXPECT_EQ(writesTo(8192), 1u);
    EXPECT_EQ(writesTo(3 * 8192), 2u);
    EXPECT_EQ(writesTo(4 * 8192 + 1), 2u);
    EXPECT_EQ(writesTo(5 * 8192), 1u);
}

TEST_F(GrowFileTest, ToItsOwnSizeOrASmallerOneWritesNothing) {
    const Bytes content = PatternBytes(9000);
    std::FILE* const file = OpenFile(content);
    const StdioCounts before = CountStdioCalls();
    for (const std::uint64_t newSize : Numbers{0, 1, 8192, 8999, 9000}) {
        EXPECT_TRUE(GrowFile(file, newSize));
    }
    EXPECT_EQ(CountStdioCalls().writes, before.writes);
    EXPECT_EQ(ReadFile(path_), content);
}

TEST_F(GrowFileTest, OfNoFileThrowsInvalidParameter) {
    EXPECT_THROW(GrowFile(nullptr, 8192), InvalidParameterException);
}

TEST_F(GrowFileTest, ThrowsTheErrorNumberIfTheEndCannotBeReached) {
    std::FILE* const file = OpenFile(Bytes(10));
    for (const std::uint64_t skipped : Numbers{0, 1}) {
        const StdioFault fault(StdioCall::Seek, EIO, skipped);
        EXPECT_EQ(FileErrorOf([&] { GrowFile(file, 8192); }), EIO);
    }
    EXPECT_EQ(std::filesystem::file_size(path_), 10u);
}

TEST_F(GrowFileTest, ThrowsTheErrorNumberIfAWholePageCannotBeWritten) {
    std::FILE* const file = OpenFile({});
    const StdioFault fault(StdioCall::Write, ENOSPC, 1);
    EXPECT_EQ(FileErrorOf([&] { GrowFile(file, 3 * 8192); }), ENOSPC);
    EXPECT_EQ(std::filesystem::file_size(path_), 8192u);
}

TEST_F(GrowFileTest, ThrowsTheErrorNumberIfTheLastPartCannotBeWritten) {
    std::FILE* const file = OpenFile({});
    const StdioFault fault(StdioCall::Write, EFBIG, 1);
    EXPECT_EQ(FileErrorOf([&] { GrowFile(file, 8192 + 100); }), EFBIG);
    EXPECT_EQ(std::filesystem::file_size(path_), 8192u);
}

TEST_F(GrowFileTest, ContinuesAfterAFailure) {
    std::FILE* const file = OpenFile(Bytes(100, 5));
    {
        const StdioFault fault(StdioCall::Write, ENOSPC, 1, 1, 700);
        EXPECT_EQ(FileErrorOf([&] { GrowFile(file, 3 * 8192); }), ENOSPC);
    }
    EXPECT_TRUE(GrowFile(file, 3 * 8192));
    Bytes expected(100, 5);
    expected.resize(3 * 8192);
    EXPECT_EQ(ReadFile(path_), expected);
}

}  // namespace Quorvel::Testing
