#pragma once

#include <cstdint>

#include "faults/DamagedFile.h"

namespace Quorvel::Faults {

// Examines `count` effect caches with the random damage of a seed.
Findings ExamineMutations(std::uint64_t seed, std::uint64_t count);

}  // namespace Quorvel::Faults
