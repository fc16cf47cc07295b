#pragma once

#include <cstdint>

namespace Quorvel {

// How to create or open a package. The caller sets all three fields; the record and the string are
// copied, so neither need outlive the call they are passed to.
struct PagedFilePackageConfig {
    // Path of the package file, NUL-terminated.
    const char* fileName;

    // Most pages of 8192 bytes that the package keeps in memory; 0 is taken as 1. An open stream
    // keeps up to two pages pinned, and deleting a stream needs two more.
    std::uint64_t pageCacheCapacity;

    // Upper bound on the number of streams, and on the values of stream ids, that the package
    // accepts; above 0xFFFFFF there are no ids. Best a multiple of 8: of the streams whose size is no
    // multiple of 8192, a package that is opened takes no more than fit an eighth of this, rounded
    // down (at least 1), blocks of 64 KiB, and a package that has outgrown that can be opened with a
    // higher limit only.
    std::uint64_t streamLimit;
};

}  // namespace Quorvel
