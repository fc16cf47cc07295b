#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <random>

#include "format/Bytes.h"
#include "fuzz/Require.h"

namespace Quorvel::Fuzz {

constexpr std::size_t kLongestPattern = 1 << 17;

// Bytes that differ from place to place and from seed to seed. Fast to make.
inline Format::Bytes PatternOf(std::size_t size, std::uint8_t seed) {
    constexpr std::size_t kStep = 61;
    static const Format::Bytes table = [] {
        std::mt19937 random(1);
        Format::Bytes bytes(kLongestPattern + 256 * kStep);
        std::generate(bytes.begin(), bytes.end(),
                      [&] { return static_cast<std::uint8_t>(random()); });
        return bytes;
    }();
    Require(size <= kLongestPattern, "a pattern is not too long");
    const auto from = table.begin() + static_cast<std::ptrdiff_t>(seed * kStep);
    return Format::Bytes(from, from + static_cast<std::ptrdiff_t>(size));
}

}  // namespace Quorvel::Fuzz
