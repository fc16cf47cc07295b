#pragma once

#include <cstdint>

namespace Quorvel {

/// @ingroup packages
/// How to create or open a package. The caller sets all three fields. The record and the string are
/// copied, so neither has to outlive the call.
struct PagedFilePackageConfig {
    /// Path of the package file, NUL-terminated, in the spelling of fopen.
    const char* fileName;

    /// Maximum number of 8192-byte pages that the package keeps in memory; 0 counts as 1. An open
    /// stream pins up to two pages, and deleting a stream needs two more.
    std::uint64_t pageCacheCapacity;

    /// Upper bound on the number of streams and on stream ids, which never exceed 0xFFFFFF.
    /// Preferably a multiple of 8: the last partial pages of all streams share blocks of 64 KiB,
    /// and a package with more blocks than an eighth of this (rounded down, at least 1) can only be
    /// opened with a higher limit.
    std::uint64_t streamLimit;
};

}  // namespace Quorvel
