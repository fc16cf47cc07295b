#pragma once

#include <cstdint>

namespace Quorvel::Platform {

// Sets bytes to the free space that the caller may use on the volume of a directory. Returns false,
// with bytes unchanged, when the system call fails.
[[nodiscard]] bool GetFreeDiskSpace(const char* directory, std::uint64_t& bytes) noexcept;

}  // namespace Quorvel::Platform
