#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(_MSC_VER) && !defined(__clang__)
#include <intrin.h>
#endif

namespace Quorvel {

// wyhash, final version 4, with its default secret and seed 0: a public-domain hash that takes
// short strings at more than eight bytes a cycle. Hashes are not stored, so they need not be
// portable.
class WyHash {
public:
    static std::uint64_t Of(const unsigned char* bytes, std::size_t length) {
        std::uint64_t seed = Mix(kSecret[0], kSecret[1]);
        std::uint64_t first = 0;
        std::uint64_t second = 0;
        if (length > 16) {
            const unsigned char* next = bytes;
            const unsigned char* const end = bytes + length;
            if (length >= 48) {
                std::uint64_t lanes[2] = {seed, seed};
                for (; end - next >= 48; next += 48) {
                    seed = Mix(Read8(next) ^ kSecret[1], Read8(next + 8) ^ seed);
                    lanes[0] = Mix(Read8(next + 16) ^ kSecret[2], Read8(next + 24) ^ lanes[0]);
                    lanes[1] = Mix(Read8(next + 32) ^ kSecret[3], Read8(next + 40) ^ lanes[1]);
                }
                seed ^= lanes[0] ^ lanes[1];
            }
            for (; end - next > 16; next += 16) {
                seed = Mix(Read8(next) ^ kSecret[1], Read8(next + 8) ^ seed);
            }
            first = Read8(end - 16);
            second = Read8(end - 8);
        } else if (length >= 4) {
            const std::size_t middle = length >> 3 << 2;
            first = Read4(bytes) << 32 | Read4(bytes + middle);
            second = Read4(bytes + length - 4) << 32 | Read4(bytes + length - 4 - middle);
        } else if (length > 0) {
            first = std::uint64_t{bytes[0]} << 16 | std::uint64_t{bytes[length >> 1]} << 8 |
                    bytes[length - 1];
        }
        const Product product = Multiply(first ^ kSecret[1], second ^ seed);
        return Mix(product.low ^ kSecret[0] ^ length, product.high ^ kSecret[1]);
    }

private:
    static constexpr std::uint64_t kSecret[4] = {0x2D358DCCAA6C78A5, 0x8BB84B93962EACC9,
                                                 0x4B33A62ED433D4A3, 0x4D5A2DA51DE1AA47};

    struct Product {
        std::uint64_t low;
        std::uint64_t high;
    };

    static Product Multiply(std::uint64_t left, std::uint64_t right) {
#if defined(_MSC_VER) && !defined(__clang__)
        Product product;
        product.low = _umul128(left, right, &product.high);
        return product;
#else
        __extension__ using Wide = unsigned __int128;
        const Wide product = static_cast<Wide>(left) * right;
        return {static_cast<std::uint64_t>(product), static_cast<std::uint64_t>(product >> 64)};
#endif
    }

    static std::uint64_t Mix(std::uint64_t left, std::uint64_t right) {
        const Product product = Multiply(left, right);
        return product.low ^ product.high;
    }

    static std::uint64_t Read8(const unsigned char* bytes) {
        std::uint64_t number;
        std::memcpy(&number, bytes, sizeof number);
        return number;
    }

    static std::uint64_t Read4(const unsigned char* bytes) {
        std::uint32_t number;
        std::memcpy(&number, bytes, sizeof number);
        return number;
    }
};

}  // namespace Quorvel
