#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Quorvel {

// wyhash32 with seed 0: a public-domain hash of eight bytes a step. Hashes are not stored, so they
// need not be the same on all platforms.
inline std::uint32_t WyHash32(const unsigned char* bytes, std::size_t length) {
    const auto read = [](const unsigned char* from) {
        std::uint32_t number;
        std::memcpy(&number, from, sizeof number);
        return number;
    };
    std::uint32_t left = 0;
    auto right = static_cast<std::uint32_t>(length);
    const auto mix = [&] {
        const std::uint64_t product = std::uint64_t{left ^ 0x53C5CA59} * (right ^ 0x74743C1B);
        left = static_cast<std::uint32_t>(product);
        right = static_cast<std::uint32_t>(product >> 32);
    };
    mix();
    for (; length > 8; length -= 8, bytes += 8) {
        left ^= read(bytes);
        right ^= read(bytes + 4);
        mix();
    }
    if (length >= 4) {
        left ^= read(bytes);
        right ^= read(bytes + length - 4);
    } else if (length > 0) {
        left ^= std::uint32_t{bytes[0]} << 16 | std::uint32_t{bytes[length >> 1]} << 8 |
                bytes[length - 1];
    }
    mix();
    mix();
    return left ^ right;
}

}  // namespace Quorvel
