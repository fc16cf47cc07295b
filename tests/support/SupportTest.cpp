#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "support/Agent.h"
#include "support/ChildProcess.h"
#include "support/StdioFaults.h"
#include "support/TemporaryDirectory.h"

// Tests of the helpers that other tests rely on.
namespace Quorvel::Testing {

namespace {

// Sends its arguments, then every line it receives; its exit code is the number of these lines.
QUORVEL_AGENT(Echo) {
    for (const std::string& argument : arguments) {
        AgentSend(argument);
    }
    int lines = 0;
    for (std::string line = AgentReceive(); !line.empty(); line = AgentReceive()) {
        AgentSend(line);
        ++lines;
    }
    return lines;
}

class StdioFaultTest : public ::testing::Test {
protected:
    std::FILE* Open(const char* mode) { return std::fopen(path_.c_str(), mode); }

    const TemporaryDirectory directory_;
    const std::string path_ = directory_.File("file");
};

}  // namespace

TEST(ChildProcess, PassesArgumentsUnchanged) {
    const std::vector<std::string> arguments{"two words", "\"quoted\"", "a\\",    "\\\"",
                                             "a\\\\b",    "C:\\x y\\",  "%41$x*?"};
    ChildProcess child("Echo", arguments);
    for (const std::string& argument : arguments) {
        EXPECT_EQ(child.Receive(), argument);
    }
}

TEST(ChildProcess, CarriesLinesBothWaysAndReturnsTheExitCode) {
    ChildProcess child("Echo");
    EXPECT_EQ(child.Ask("first"), "first");
    EXPECT_TRUE(child.Send("second"));
    EXPECT_TRUE(child.Send(std::string(3000, 'x')));
    EXPECT_EQ(child.Receive(), "second");
    EXPECT_EQ(child.Receive(), std::string(3000, 'x'));
    EXPECT_EQ(child.Wait(), 3);
    EXPECT_EQ(child.Wait(), 3);
}

TEST(ChildProcess, EndsWhenKilled) {
    ChildProcess child("Echo");
    ASSERT_EQ(child.Ask("line"), "line");
    child.Kill();
    EXPECT_EQ(child.Receive(), "");
    EXPECT_FALSE(child.Send("line"));
    EXPECT_EQ(child.Wait(), -1);
}

TEST(ChildProcess, DoesNotKeepPipesOfAnotherProcessOpen) {
    ChildProcess first("Echo");
    ASSERT_EQ(first.Ask("line"), "line");
    ChildProcess second("Echo");
    ASSERT_EQ(second.Ask("line"), "line");
    EXPECT_EQ(first.Wait(), 1);
    EXPECT_EQ(second.Wait(), 1);
}

TEST(TemporaryDirectory, IsNewAndVanishesWithItsContent) {
    std::filesystem::path path;
    {
        const TemporaryDirectory directory;
        const TemporaryDirectory other;
        path = directory.Path();
        EXPECT_NE(path, other.Path());
        EXPECT_TRUE(std::filesystem::is_empty(path));
        std::fclose(std::fopen(directory.File("file").c_str(), "w"));
        EXPECT_TRUE(std::filesystem::exists(path / "file"));
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(StdioFaultTest, FailsCallsOfItsKindAfterTheSkippedOnes) {
    const StdioFault fault(StdioCall::Open, EACCES, 1, 2);
    std::FILE* const first = Open("wb");
    ASSERT_NE(first, nullptr);
    errno = 0;
    EXPECT_EQ(Open("rb"), nullptr);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(Open("rb"), nullptr);
    std::FILE* const second = Open("rb");
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(fault.Calls(), 4U);
    EXPECT_EQ(fault.Failures(), 2U);
    std::fclose(first);
    std::fclose(second);
}

TEST_F(StdioFaultTest, EndsWithItsScope) {
    {
        const StdioFault fault(StdioCall::Open, EACCES);
        EXPECT_EQ(Open("wb"), nullptr);
    }
    std::FILE* const file = Open("wb");
    ASSERT_NE(file, nullptr);
    std::fclose(file);
}

TEST_F(StdioFaultTest, FailsEachKindAsTheRealFunctionDoes) {
    std::FILE* const file = Open("w+b");
    ASSERT_NE(file, nullptr);
    char byte = 'x';
    {
        const StdioFault fault(StdioCall::Write, ENOSPC);
        errno = 0;
        EXPECT_EQ(std::fwrite(&byte, 1, 1, file), 0U);
        EXPECT_EQ(errno, ENOSPC);
    }
    {
        const StdioFault fault(StdioCall::Seek, EIO);
        EXPECT_EQ(std::fseek(file, 0, SEEK_SET), -1);
        EXPECT_EQ(errno, EIO);
    }
    {
        const StdioFault fault(StdioCall::Tell, EBADF);
        EXPECT_EQ(std::ftell(file), -1);
        EXPECT_EQ(errno, EBADF);
    }
    std::fwrite("real", 1, 4, file);
    std::rewind(file);
    {
        const StdioFault fault(StdioCall::Read, EIO);
        errno = 0;
        EXPECT_EQ(std::fread(&byte, 1, 1, file), 0U);
        EXPECT_EQ(errno, EIO);
        EXPECT_EQ(byte, 'x');
    }
    {
        const StdioFault fault(StdioCall::Close, EIO);
        errno = 0;
        EXPECT_EQ(std::fclose(file), EOF);
        EXPECT_EQ(errno, EIO);
    }
    // The file was closed nevertheless: its bytes were written, and it can be removed.
    EXPECT_EQ(std::filesystem::file_size(path_), 4U);
    EXPECT_TRUE(std::filesystem::remove(path_));
}

TEST_F(StdioFaultTest, MovesTheBytesOfAShortTransfer) {
    std::FILE* const file = Open("w+b");
    ASSERT_NE(file, nullptr);
    {
        const StdioFault fault(StdioCall::Write, ENOSPC, 0, 1, 3);
        EXPECT_EQ(std::fwrite("abcdef", 1, 6, file), 3U);
        EXPECT_EQ(errno, ENOSPC);
    }
    {
        const StdioFault fault(StdioCall::Write, ENOSPC, 0, 1, 3);
        EXPECT_EQ(std::fwrite("ghijkl", 6, 1, file), 0U);
    }
    std::rewind(file);
    char bytes[7] = {};
    {
        const StdioFault fault(StdioCall::Read, EIO, 0, 1, 5);
        EXPECT_EQ(std::fread(bytes, 1, 6, file), 5U);
    }
    EXPECT_STREQ(bytes, "abcgh");
    EXPECT_EQ(std::fread(bytes, 1, 6, file), 1U);
    std::fclose(file);
}

TEST_F(StdioFaultTest, LeavesTheStandardStreamsAlone) {
    const StdioCounts before = CountStdioCalls();
    const StdioFault fault(StdioCall::Write, EIO);
    EXPECT_EQ(std::fwrite("", 1, 0, stdout), 0U);
    EXPECT_EQ(std::fwrite("\n", 1, 1, stdout), 1U);
    EXPECT_EQ(fault.Calls(), 0U);
    EXPECT_EQ(CountStdioCalls().writes, before.writes);
}

TEST_F(StdioFaultTest, CountsCallsAndBytes) {
    const StdioCounts before = CountStdioCalls();
    std::FILE* const file = Open("w+b");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(CountStdioCalls().openFiles - before.openFiles, 1U);
    char bytes[100] = {};
    std::fwrite(bytes, 10, 10, file);
    std::fseek(file, 40, SEEK_SET);
    EXPECT_EQ(std::ftell(file), 40);
    EXPECT_EQ(std::fread(bytes, 1, 100, file), 60U);
    std::fclose(file);
    const StdioCounts after = CountStdioCalls();
    EXPECT_EQ(after.opens - before.opens, 1U);
    EXPECT_EQ(after.closes - before.closes, 1U);
    EXPECT_EQ(after.seeks - before.seeks, 1U);
    EXPECT_EQ(after.tells - before.tells, 1U);
    EXPECT_EQ(after.reads - before.reads, 1U);
    EXPECT_EQ(after.writes - before.writes, 1U);
    EXPECT_EQ(after.bytesRead - before.bytesRead, 60U);
    EXPECT_EQ(after.bytesWritten - before.bytesWritten, 100U);
    EXPECT_EQ(after.openFiles, before.openFiles);
}

}  // namespace Quorvel::Testing
