#pragma once

#include <cstdint>

namespace Quorvel::Platform {

// The system's error code of the calling thread's last failed call in this folder: GetLastError on
// Windows, errno elsewhere.
std::uint32_t LastSystemError() noexcept;

}  // namespace Quorvel::Platform
