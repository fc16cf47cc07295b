// The README's programs, each with its main() renamed.
#include <gtest/gtest.h>
#include <quorvel/Quorvel.h>

#include <cstdio>
#include <string>

#include "support/TemporaryDirectory.h"

#define main EffectCacheProgram
#include "effect_cache.cpp"
#undef main

#define main PackageProgram
#include "package.cpp"
#undef main

namespace Quorvel::Testing {

namespace {

// Runs a program with one argument and returns what it printed.
std::string OutputOf(int (*program)(int, char**), std::string argument) {
    char name[] = "program";
    char* arguments[] = {name, argument.data(), nullptr};
    ::testing::internal::CaptureStdout();
    const int exitCode = program(2, arguments);
    std::fflush(stdout);
    const std::string output = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(exitCode, 0) << output;
    return output;
}

TEST(Readme, EffectCacheProgramCompilesOnceAndFindsAfterwards) {
    const TemporaryDirectory directory;
    EXPECT_EQ(OutputOf(EffectCacheProgram, directory.Path().string()), "compiled\n");
    EXPECT_EQ(OutputOf(EffectCacheProgram, directory.Path().string()), "found 4 bytes\n");
}

TEST(Readme, PackageProgramReadsBackWhatItWrote) {
    const TemporaryDirectory directory;
    EXPECT_EQ(OutputOf(PackageProgram, directory.File("notes.pkg")), "kept between runs\n");
}

}  // namespace

}  // namespace Quorvel::Testing
