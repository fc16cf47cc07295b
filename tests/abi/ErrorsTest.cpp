// The five exceptions that the library throws, caught by their classes in a client.
#include <direct.h>
#include <io.h>
#include <quorvel/Quorvel.h>
#include <windows.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "Check.h"

namespace Quorvel::Abi {

namespace {

// Returns what the operation throws; fails unless it throws this class.
template <typename Exception, typename Operation>
Exception Caught(const Operation& operation) {
    try {
        operation();
    } catch (const Exception& exception) {
        const std::exception& base = exception;
        EXPECT(std::strcmp(base.what(), std::exception().what()) == 0);
        return exception;
    }
    Fail(__FILE__, __LINE__, "something was thrown");
}

// Writes a package without streams in which every possible page is in use. Filling one through the
// library would take 8 GiB.
void WriteFullPackage(const std::string& path) {
    constexpr std::uint64_t kPages = 0xFFFF6;
    constexpr std::uint64_t kPageSize = 8192;
    // The number of links and the links; no streams, tail blocks, fragments or header data.
    std::vector<std::uint64_t> state(1 + kPages + 4, 0);
    state[0] = kPages;
    const std::uint64_t stateSize = 8 * state.size();
    const std::uint64_t headPages = 1 + (stateSize - 8160 + 8175) / 8176;
    for (std::uint64_t index = 0; index + 1 < headPages; ++index) {
        state[1 + index] = index + 11;
    }

    std::FILE* const file = std::fopen(path.c_str(), "wb");
    EXPECT(file);
    std::uint64_t written = 0;
    for (std::uint64_t index = 0; index < headPages; ++index) {
        std::vector<std::uint64_t> page;
        if (index == 0) { page = {headPages, stateSize}; }
        page.push_back(index + 1 < headPages ? index + 11 : 0);
        const std::size_t headerSize = page.size() + 1;
        const std::size_t words =
            std::min(kPageSize / 8 - headerSize, static_cast<std::size_t>(state.size() - written));
        page.push_back(8 * (headerSize + words));
        page.insert(page.end(), state.data() + written, state.data() + written + words);
        page.resize(kPageSize / 8);
        written += words;
        EXPECT(std::fwrite(page.data(), kPageSize, 1, file) == 1);
    }
    EXPECT(std::fclose(file) == 0);
}

// A block with a public Initialize.
class Block : public MultiProcessMemory {
public:
    using MultiProcessMemory::Initialize;
};

}  // namespace

ABI_TEST(Errors, IncludeFileIOExceptionWithoutACodeForAShortRead) {
    const std::string path = TemporaryFile("short");
    const auto package = CreateFilePackage({path.c_str(), 1, 1000});
    EXPECT(package);
    const std::uint64_t id = package->CreateDataStream(2 * 8192);
    EXPECT(package->Commit());
    const auto stream = package->OpenDataStream(id);
    std::FILE* const file = std::fopen(path.c_str(), "r+b");
    EXPECT(file && ::_chsize(::_fileno(file), 8192) == 0);
    std::fclose(file);
    static char buffer[8192];
    EXPECT(Caught<FileIOException>([&] { stream->Read(buffer, sizeof buffer); }).errorCode == 0);
}

// Commit reopens the file by the path it was given.
ABI_TEST(Errors, IncludeFileIOExceptionWithTheSystemsErrorCode) {
    char folder[MAX_PATH];
    EXPECT(::_getcwd(folder, sizeof folder));
    EXPECT(::_chdir(NewTemporaryFolder().c_str()) == 0);
    auto package = CreateFilePackage({"package", 64, 1000});
    EXPECT(package);
    package->CreateDataStream(5);
    EXPECT(::_chdir(NewTemporaryFolder().c_str()) == 0);
    EXPECT(::_mkdir("package") == 0);
    EXPECT(Caught<FileIOException>([&] { package->Commit(); }).errorCode == EACCES);
    package.Reset();  // commits again, and must fail again
    EXPECT(::_chdir(folder) == 0);
}

ABI_TEST(Errors, IncludeFileDataCorruptException) {
    const std::string path = TemporaryFile("empty-stream");
    const auto package = CreateFilePackage({path.c_str(), 64, 1000});
    EXPECT(package);
    const std::uint64_t id = package->CreateDataStream(0);
    Caught<FileDataCorruptException>([&] { package->OpenDataStream(id); });
}

ABI_TEST(Errors, IncludeInvalidParameterException) {
    // One page: the head page's header, one link, a stream without bytes whose first page is one
    // that the package does not have, no tail blocks, fragments or header data.
    std::vector<std::uint64_t> page = {1, 80, 0, 112, 1, 0, 1, 0, 0, 900, 0, 0, 0, 0};
    page.resize(1024);
    const std::string path = TemporaryFile("unknown-page");
    std::FILE* const file = std::fopen(path.c_str(), "wb");
    EXPECT(file && std::fwrite(page.data(), 8192, 1, file) == 1);
    EXPECT(std::fclose(file) == 0);
    const auto package = OpenFilePackage({path.c_str(), 64, 1000});
    EXPECT(package);
    Caught<InvalidParameterException>([&] { package->DeleteDataStream(0); });
}

ABI_TEST(Errors, IncludeOutOfMemoryException) {
    const std::string path = TemporaryFile("full");
    WriteFullPackage(path);
    const auto package = OpenFilePackage({path.c_str(), 64, 1000});
    EXPECT(package);
    Caught<OutOfMemoryException>([&] { package->CreateDataStream(8192); });
    EXPECT(package->GetNumberOfDataStreams() == 0);
}

ABI_TEST(Errors, IncludeWin32APICallFailedExceptionWithTheSystemsCode) {
    Block block;
    const auto error =
        Caught<Win32APICallFailedException>([&] { block.Initialize("quorvel-abi-no-size", 0); });
    EXPECT(error.errorCode == ERROR_INVALID_PARAMETER);
}

ABI_TEST(Errors, AreCaughtAsStdException) {
    const std::string path = TemporaryFile("standard");
    const auto package = CreateFilePackage({path.c_str(), 64, 1000});
    EXPECT(package);
    const char* caughtAs = "nothing";
    try {
        package->CreateDataStream(~std::uint64_t{0});
    } catch (const FileIOException&) { caughtAs = "another class"; } catch (const std::exception&) {
        caughtAs = "the base";
    }
    EXPECT(std::strcmp(caughtAs, "the base") == 0);
}

ABI_TEST(Errors, OfCreatingAndOpeningAreNullReferences) {
    const std::string path = NewTemporaryFolder() + "\\missing\\package";
    EXPECT(!CreateFilePackage({path.c_str(), 64, 1000}));
    EXPECT(!OpenFilePackage({path.c_str(), 64, 1000}));
}

}  // namespace Quorvel::Abi
