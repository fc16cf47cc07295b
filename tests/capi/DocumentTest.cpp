// The program in docs/c.md, compiled as C99 with its main() renamed.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "support/TemporaryDirectory.h"

extern "C" int DocumentedProgram(int argc, char** argv);

namespace Quorvel::Testing {

namespace {

// Runs the program with one argument and returns its exit code and what it printed.
std::pair<int, std::string> RunProgram(std::string argument) {
    char name[] = "effects";
    char* arguments[] = {name, argument.data(), nullptr};
    ::testing::internal::CaptureStdout();
    const int exitCode = DocumentedProgram(2, arguments);
    std::fflush(stdout);
    return {exitCode, ::testing::internal::GetCapturedStdout()};
}

}  // namespace

TEST(CDocument, ProgramCompilesOnceAndFindsAfterwards) {
    const TemporaryDirectory directory;
    const std::string path = directory.Path().string();
    EXPECT_EQ(RunProgram(path), std::pair(0, std::string("compiled\n")));
    EXPECT_EQ(RunProgram(path), std::pair(0, std::string("found 4 bytes\n")));
}

TEST(CDocument, ProgramReportsADirectoryThatIsMissing) {
    const TemporaryDirectory directory;
    const auto [exitCode, output] = RunProgram(directory.File("missing"));
    EXPECT_EQ(exitCode, 1);
    EXPECT_NE(output.find("the cache can't be used: its directory is missing"), std::string::npos)
        << output;
}

}  // namespace Quorvel::Testing
