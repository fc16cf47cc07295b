#include "platform/Directory.h"

#include <windows.h>

#include <cstdio>

#include "platform/Path.h"

namespace Quorvel::Platform {

namespace {

bool IsSeparator(char byte) {
    return byte == '\\' || byte == '/';
}

// False for paths of the current directory or drive.
bool IsAbsolute(const std::string& path) {
    if (path.size() < 3) { return false; }
    return (IsSeparator(path[0]) && IsSeparator(path[1])) ||
           (path[1] == ':' && IsSeparator(path[2]));
}

bool IsDirectory(DWORD attributes) {
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

// The numbers of the path's volume and file, in digits. Empty if they can't be found out.
std::string Identify(const char* path) {
    constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    const HANDLE handle = ::CreateFileA(path, 0, kShareAll, nullptr, OPEN_EXISTING,
                                        FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (handle == INVALID_HANDLE_VALUE) { return {}; }
    BY_HANDLE_FILE_INFORMATION information{};
    const BOOL success = ::GetFileInformationByHandle(handle, &information);
    ::CloseHandle(handle);
    if (!success) { return {}; }
    char identity[40];
    std::snprintf(identity, sizeof identity, "%lu_%lu_%lu", information.dwVolumeSerialNumber,
                  information.nFileIndexHigh, information.nFileIndexLow);
    return identity;
}

}  // namespace

Directory FindDirectory(const char* path, const char* /*file*/) {
    Directory found;
    found.spelling = WithSeparator(path);
    char full[MAX_PATH];
    const DWORD length = ::GetFullPathNameA(path, sizeof full, full, nullptr);
    if (length == 0 || length >= sizeof full || !IsDirectory(::GetFileAttributesA(full))) {
        return found;
    }
    found.path = WithSeparator(full);
    if (!IsAbsolute(found.spelling)) { found.spelling = found.path; }
    found.access = Directory::Access::Granted;
    found.identity = Identify(full);
    return found;
}

}  // namespace Quorvel::Platform
