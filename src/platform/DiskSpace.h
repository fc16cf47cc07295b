#pragma once

#include <cstdint>

namespace Quorvel::Platform {

// Sets bytes to what the caller may still write on the volume that holds a directory. False, with
// bytes untouched, when the system does not say.
bool GetFreeDiskSpace(const char* directory, std::uint64_t& bytes) noexcept;

}  // namespace Quorvel::Platform
