#pragma once

#include <cstdint>
#include <cstdio>

namespace Quorvel {

// Owns an open file of the standard I/O library, or none. The file has no buffer: every transfer
// goes to the system at once.
class StdioFile {
public:
    StdioFile() = default;
    StdioFile(const StdioFile&) = delete;
    StdioFile& operator=(const StdioFile&) = delete;
    ~StdioFile() { Close(); }

    // Closes the open file, if any, and opens path. Returns 0, or the runtime's error number
    // (EIO when it gave none).
    [[nodiscard]] int Open(const char* path, const char* mode);

    // The same with Platform::CreateNewFile and Platform::OpenPlainFile.
    [[nodiscard]] int Create(const char* path);
    [[nodiscard]] int OpenPlain(const char* path);

    // Closes the file, if it is open. Returns 0, or the runtime's error number: bytes that were
    // written may be lost. The file is closed even then.
    int Close();

    // The open file; null when there is none.
    std::FILE* Get() const { return file_; }

    // Gives the file away without closing it.
    std::FILE* Detach();

private:
    int Adopt(std::FILE* file);

    std::FILE* file_ = nullptr;
};

// Length of a file in bytes; leaves the file position at the end. Throws InvalidParameterException
// for a null file, FileIOException.
std::uint64_t GetFileSize(std::FILE* file);

// Lengthens a file with zeros until it is newSize bytes long; a longer one stays as it is. Returns
// true. Throws FileIOException, InvalidParameterException for a null file.
bool GrowFile(std::FILE* file, std::uint64_t newSize);

}  // namespace Quorvel
