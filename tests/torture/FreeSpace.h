#pragma once

#include <atomic>
#include <cstdint>

namespace Quorvel::Torture {

// From now on the library in this process finds this number of free bytes on every volume, or the
// real number while bytes is kRealRoom.
void ReportFreeSpace(const std::atomic<std::uint64_t>& bytes);

}  // namespace Quorvel::Torture
