#include "pagestore/StdioFile.h"

#include <cerrno>
#include <utility>

#include "pagestore/PageGeometry.h"
#include "platform/Assert.h"
#include "platform/PlainFile.h"
#include "quorvel/Exceptions.h"

namespace Quorvel {

namespace {

[[noreturn]] void ThrowLastError() {
    throw FileIOException(static_cast<std::uint32_t>(errno));
}

}  // namespace

int StdioFile::Open(const char* path, const char* mode) {
    Close();
    errno = 0;
    return Adopt(std::fopen(path, mode));
}

int StdioFile::Create(const char* path) {
    Close();
    errno = 0;
    return Adopt(Platform::CreateNewFile(path));
}

int StdioFile::OpenPlain(const char* path) {
    Close();
    errno = 0;
    return Adopt(Platform::OpenPlainFile(path));
}

int StdioFile::Adopt(std::FILE* file) {
    file_ = file;
    if (!file_) { return errno != 0 ? errno : EIO; }
    std::setvbuf(file_, nullptr, _IONBF, 0);
    return 0;
}

int StdioFile::Close() {
    return file_ && std::fclose(std::exchange(file_, nullptr)) != 0 ? errno : 0;
}

std::FILE* StdioFile::Detach() {
    return std::exchange(file_, nullptr);
}

std::uint64_t GetFileSize(std::FILE* file) {
    if (!file) { throw InvalidParameterException(); }
    if (std::fseek(file, 0, SEEK_END) != 0) { ThrowLastError(); }
    const long size = std::ftell(file);
    if (size < 0) { ThrowLastError(); }
    return static_cast<std::uint64_t>(size);
}

bool GrowFile(std::FILE* file, std::uint64_t newSize) {
    static const char zeros[kPageSize] = {};
    std::uint64_t position = GetFileSize(file);
    if (newSize < position) { return true; }
    if (std::fseek(file, static_cast<long>(position), SEEK_SET) != 0) { ThrowLastError(); }
    while (position + kPageSize < newSize) {
        if (std::fwrite(zeros, kPageSize, 1, file) != 1) { ThrowLastError(); }
        position += kPageSize;
    }
    QUORVEL_ASSERT(newSize <= position + kPageSize);
    if (position < newSize && std::fwrite(zeros, newSize - position, 1, file) != 1) {
        ThrowLastError();
    }
    return true;
}

}  // namespace Quorvel
