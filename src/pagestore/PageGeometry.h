#pragma once

#include <bit>
#include <cstdint>

// How a package file is divided: into pages of 8192 bytes, numbered from 10. Page n lies at file
// offset (n - 10) * 8192; its page index is n - 10.
namespace Quorvel {

constexpr std::uint64_t kPageSize = 8192;
constexpr unsigned kPageShift = 13;
static_assert(kPageSize == std::uint64_t{1} << kPageShift);

// The file's first page, where the head file begins; also the smallest valid page number.
constexpr std::uint64_t kHeadPageNumber = 10;

// Page numbers are valid below this.
constexpr std::uint64_t kPageNumberLimit = 0x100000;

// Most pages that one logical file, and so the whole package, may have.
constexpr std::uint64_t kPageCountLimit = kPageNumberLimit - kHeadPageNumber;
static_assert(kPageCountLimit == 0xFFFF6);

constexpr bool IsValidPageNumber(std::uint64_t page) {
    return page >= kHeadPageNumber && page < kPageNumberLimit;
}

// Every number in the file is little-endian and is read and written by value.
static_assert(std::endian::native == std::endian::little);

}  // namespace Quorvel
