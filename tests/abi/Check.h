#pragma once

#include <string>

// Tests for a program without iostreams, which GoogleTest needs: each prints the lines that
// GoogleTest would print, which is how they are counted.
//
//     ABI_TEST(Package, IsCreated) {
//         EXPECT(CreateFilePackage(config));
//     }
namespace Quorvel::Abi {

using TestFunction = void (*)();

// Adds a test to the program; returns true.
bool RegisterTest(const char* name, TestFunction function);

// Ends the running test as failed.
[[noreturn]] void Fail(const char* file, int line, const char* condition);

// The name of a file in this program's own temporary folder, which goes with the program.
std::string TemporaryFile(const char* name);

// Makes a new folder there and returns its name.
std::string NewTemporaryFolder();

}  // namespace Quorvel::Abi

// NOLINTBEGIN(bugprone-macro-parentheses)
#define ABI_TEST(subject, holds)                                            \
    static void subject##holds();                                           \
    static const bool subject##holds##Registered =                          \
        ::Quorvel::Abi::RegisterTest(#subject "." #holds, &subject##holds); \
    static void subject##holds()

#define EXPECT(condition) \
    ((condition) ? void() : ::Quorvel::Abi::Fail(__FILE__, __LINE__, #condition))
// NOLINTEND(bugprone-macro-parentheses)
