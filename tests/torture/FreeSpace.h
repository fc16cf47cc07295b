#pragma once

#include <atomic>
#include <cstdint>

namespace Quorvel::Torture {

// From now on the library of this process is told that every volume has so many free bytes, as long
// as that is not kRealRoom.
void ReportFreeSpace(const std::atomic<std::uint64_t>& bytes);

}  // namespace Quorvel::Torture
