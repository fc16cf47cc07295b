#include "Check.h"

#include <windows.h>

#include <cstdio>
#include <exception>
#include <vector>

namespace Quorvel::Abi {

namespace {

struct Test {
    const char* name;
    TestFunction function;
};

struct Failure {};

std::vector<Test>& Tests() {
    static std::vector<Test> tests;
    return tests;
}

const std::string& TemporaryFolder() {
    static const std::string folder = [] {
        char parent[MAX_PATH];
        ::GetTempPathA(sizeof parent, parent);
        char name[64];
        std::snprintf(name, sizeof name, "quorvel-abi-%lu\\", ::GetCurrentProcessId());
        const std::string path = std::string(parent) + name;
        ::CreateDirectoryA(path.c_str(), nullptr);
        return path;
    }();
    return folder;
}

void RemoveFolder(const std::string& folder) {
    WIN32_FIND_DATAA entry;
    const HANDLE search = ::FindFirstFileA((folder + "*").c_str(), &entry);
    if (search != INVALID_HANDLE_VALUE) {
        do {
            const std::string name = entry.cFileName;
            if (name == "." || name == "..") { continue; }
            if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
                RemoveFolder(folder + name + "\\");
            } else {
                ::DeleteFileA((folder + name).c_str());
            }
        } while (::FindNextFileA(search, &entry));
        ::FindClose(search);
    }
    ::RemoveDirectoryA(folder.c_str());
}

bool Passes(const Test& test) {
    try {
        test.function();
        return true;
    } catch (const Failure&) {
    } catch (const std::exception& error) { std::printf("uncaught exception: %s\n", error.what()); }
    return false;
}

int RunTests() {
    int failed = 0;
    for (const Test& test : Tests()) {
        std::printf("[ RUN      ] %s\n", test.name);
        std::fflush(stdout);
        const ULONGLONG start = ::GetTickCount64();
        const bool passed = Passes(test);
        const ULONGLONG took = ::GetTickCount64() - start;
        std::printf("%s %s (%llu ms)\n", passed ? "[       OK ]" : "[  FAILED  ]", test.name, took);
        failed += passed ? 0 : 1;
    }
    std::printf("%d tests, %d failed\n", static_cast<int>(Tests().size()), failed);
    return failed != 0 || Tests().empty() ? 1 : 0;
}

}  // namespace

bool RegisterTest(const char* name, TestFunction function) {
    Tests().push_back({name, function});
    return true;
}

void Fail(const char* file, int line, const char* condition) {
    std::printf("%s:%d: false: %s\n", file, line, condition);
    throw Failure();
}

std::string TemporaryFile(const char* name) {
    return TemporaryFolder() + name;
}

std::string NewTemporaryFolder() {
    static int count = 0;
    char name[32];
    std::snprintf(name, sizeof name, "folder%d", count++);
    const std::string folder = TemporaryFile(name);
    EXPECT(::CreateDirectoryA(folder.c_str(), nullptr));
    return folder;
}

}  // namespace Quorvel::Abi

// Accepts GoogleTest's options and ignores them.
int main(int /*argc*/, char** /*argv*/) {
    const int exitCode = Quorvel::Abi::RunTests();
    Quorvel::Abi::RemoveFolder(Quorvel::Abi::TemporaryFolder());
    return exitCode;
}
