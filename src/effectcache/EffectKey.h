#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "vornutil/CStr.h"

namespace Quorvel {

// The bytes of an effect's name, owned by somebody else.
//
// A shorter key sorts before a longer one, keys of equal length sort by unsigned bytes. It is the
// order of the listing and of the records in the file.
struct EffectKey {
    EffectKey(const unsigned char* name, std::size_t size) : bytes(name), length(size) {}
    explicit EffectKey(const CStr& name)
        : bytes(reinterpret_cast<const unsigned char*>(name.data())), length(name.Length()) {}

    // Never 0. Two lanes take eight bytes each at a time; the last step may take some of the bytes
    // that the one before it took.
    std::uint32_t Hash() const {
        std::uint64_t low = length * kFirstFactor;
        std::uint64_t high = kSecondFactor;
        const auto step = [&](const unsigned char* sixteen) {
            low = std::rotl(low + Word(sixteen) * kSecondFactor, 31) * kFirstFactor;
            high = std::rotl(high + Word(sixteen + 8) * kSecondFactor, 31) * kFirstFactor;
        };
        if (length < 16) {
            unsigned char padded[16] = {};
            std::copy_n(bytes, length, padded);
            step(padded);
        } else {
            for (std::size_t done = 0; done + 16 < length; done += 16) {
                step(bytes + done);
            }
            step(bytes + length - 16);
        }
        std::uint64_t hash = (low ^ std::rotl(high, 32)) * kFirstFactor;
        hash = (hash ^ hash >> 32) * kSecondFactor;
        const auto folded = static_cast<std::uint32_t>(hash >> 32);
        return folded != 0 ? folded : 1;
    }

    friend bool operator==(const EffectKey& left, const EffectKey& right) {
        return left.length == right.length &&
               (left.length == 0 || std::memcmp(left.bytes, right.bytes, left.length) == 0);
    }
    friend bool operator<(const EffectKey& left, const EffectKey& right) {
        if (left.length != right.length) {
            return left.length < right.length;
        }
        return left.length != 0 && std::memcmp(left.bytes, right.bytes, left.length) < 0;
    }

    const unsigned char* bytes;
    std::size_t length;

private:
    // Odd numbers with irregular bits.
    static constexpr std::uint64_t kFirstFactor = 0x9E3779B97F4A7C15;
    static constexpr std::uint64_t kSecondFactor = 0xC2B2AE3D27D4EB4F;

    static std::uint64_t Word(const unsigned char* eight) {
        std::uint64_t word;
        std::memcpy(&word, eight, sizeof word);
        return word;
    }
};

}  // namespace Quorvel
