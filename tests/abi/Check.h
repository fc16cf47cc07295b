#pragma once

#include <string>

// Tests for programs without iostreams, which GoogleTest needs. They print GoogleTest's result
// lines, so that they can be counted.
//
//     ABI_TEST(Package, IsCreated) {
//         EXPECT(CreateFilePackage(config));
//     }
namespace Quorvel::Abi {

using TestFunction = void (*)();

// Adds a test to the program; returns true.
bool RegisterTest(const char* name, TestFunction function);

// Fails and ends the running test.
[[noreturn]] void Fail(const char* file, int line, const char* condition);

// The path of a file in this program's temporary folder, which is removed when the program ends.
std::string TemporaryFile(const char* name);

// Creates a new folder there and returns its path.
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
