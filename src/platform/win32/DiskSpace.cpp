#include "platform/DiskSpace.h"

#include <windows.h>

namespace Quorvel::Platform {

bool GetFreeDiskSpace(const char* directory, std::uint64_t& bytes) noexcept {
    ULARGE_INTEGER available;
    if (!::GetDiskFreeSpaceExA(directory, &available, nullptr, nullptr)) { return false; }
    bytes = available.QuadPart;
    return true;
}

}  // namespace Quorvel::Platform
