#include "platform/PlainFile.h"

#include <fcntl.h>
#include <io.h>
#include <windows.h>
#include <cerrno>
#include <cstdint>

namespace Quorvel::Platform {

namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

int LastErrorNumber() {
    switch (::GetLastError()) {
        case ERROR_FILE_NOT_FOUND:
        case ERROR_PATH_NOT_FOUND:
            return ENOENT;
        case ERROR_FILE_EXISTS:
        case ERROR_ALREADY_EXISTS:
            return EEXIST;
        case ERROR_DISK_FULL:
        case ERROR_HANDLE_DISK_FULL:
            return ENOSPC;
        case ERROR_TOO_MANY_OPEN_FILES:
            return EMFILE;
        default:
            return EACCES;
    }
}

// Closes the file and returns null, with that error.
std::FILE* Refuse(HANDLE handle, int error) {
    ::CloseHandle(handle);
    errno = error;
    return nullptr;
}

std::FILE* Wrap(HANDLE handle, int flags, const char* mode) {
    const int descriptor = ::_open_osfhandle(reinterpret_cast<std::intptr_t>(handle), flags);
    if (descriptor < 0) { return Refuse(handle, errno); }
    std::FILE* const file = ::_fdopen(descriptor, mode);
    if (!file) {
        const int error = errno;
        ::_close(descriptor);
        errno = error;
    }
    return file;
}

}  // namespace

std::FILE* CreateNewFile(const char* path) noexcept {
    const HANDLE handle = ::CreateFileA(path, GENERIC_WRITE, kShareAll, nullptr, CREATE_NEW,
                                        FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        errno = LastErrorNumber();
        return nullptr;
    }
    std::FILE* const file = Wrap(handle, _O_WRONLY | _O_BINARY, "wb");
    if (!file) { ::DeleteFileA(path); }
    return file;
}

std::FILE* OpenPlainFile(const char* path) noexcept {
    const HANDLE handle =
        ::CreateFileA(path, GENERIC_READ, kShareAll, nullptr, OPEN_EXISTING,
                      FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        errno = LastErrorNumber();
        return nullptr;
    }
    constexpr DWORD kNotPlain = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
    BY_HANDLE_FILE_INFORMATION information;
    if (::GetFileType(handle) != FILE_TYPE_DISK) { return Refuse(handle, ELOOP); }
    if (!::GetFileInformationByHandle(handle, &information)) {
        return Refuse(handle, LastErrorNumber());
    }
    if ((information.dwFileAttributes & kNotPlain) != 0) { return Refuse(handle, ELOOP); }
    return Wrap(handle, _O_RDONLY | _O_BINARY, "rb");
}

}  // namespace Quorvel::Platform
