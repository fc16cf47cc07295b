#include "platform/DiskSpace.h"

#include <sys/statvfs.h>

namespace Quorvel::Platform {

bool GetFreeDiskSpace(const char* directory, std::uint64_t& bytes) noexcept {
    struct statvfs volume {};
    if (::statvfs(directory, &volume) != 0) { return false; }
    bytes = static_cast<std::uint64_t>(volume.f_bavail) * volume.f_frsize;
    return true;
}

}  // namespace Quorvel::Platform
