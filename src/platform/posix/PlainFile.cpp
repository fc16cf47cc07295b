#include "platform/PlainFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/Impersonation.h"

namespace Quorvel::Platform {

namespace {

bool IsOwnFile(const struct stat& status) {
    return S_ISREG(status.st_mode) && status.st_uid == CurrentUser();
}

// Closes the file and returns null, with that error.
std::FILE* Refuse(int descriptor, int error) {
    ::close(descriptor);
    errno = error;
    return nullptr;
}

std::FILE* Wrap(int descriptor, const char* mode) {
    std::FILE* const file = ::fdopen(descriptor, mode);
    return file ? file : Refuse(descriptor, errno);
}

}  // namespace

std::FILE* CreateNewFile(const char* path) noexcept {
    constexpr mode_t kReadWrite = S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;
    const int descriptor = ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kReadWrite);
    if (descriptor < 0) { return nullptr; }
    std::FILE* const file = Wrap(descriptor, "wb");
    if (!file) { ::unlink(path); }
    return file;
}

std::FILE* OpenPlainFile(const char* path) noexcept {
    // Without O_NONBLOCK, opening a FIFO would wait for a writer.
    const int descriptor = ::open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    struct stat status;
    if (descriptor < 0) {
        const int error = errno;
        const bool isOthers = error == EACCES && ::lstat(path, &status) == 0 && !IsOwnFile(status);
        errno = isOthers || error == ENXIO ? ELOOP : error;  // ENXIO: a socket
        return nullptr;
    }
    if (::fstat(descriptor, &status) != 0) { return Refuse(descriptor, errno); }
    if (!IsOwnFile(status)) { return Refuse(descriptor, ELOOP); }
    return Wrap(descriptor, "rb");
}

}  // namespace Quorvel::Platform
