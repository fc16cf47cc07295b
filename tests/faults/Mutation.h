#pragma once

#include <cstdint>

#include "faults/DamagedFile.h"

namespace Quorvel::Faults {

// Examines `count` effect caches with random damage in one to four places: bits, bytes, numbers of
// the head file, fields of the format, whole pages, the length of the file. The same seed makes the
// same files.
Findings ExamineMutations(std::uint64_t seed, std::uint64_t count);

}  // namespace Quorvel::Faults
