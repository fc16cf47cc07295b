#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string_view>

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

    // Never 0.
    std::uint32_t Hash() const {
        const std::uint64_t hash =
            std::hash<std::string_view>()({reinterpret_cast<const char*>(bytes), length});
        const auto folded = static_cast<std::uint32_t>(hash ^ hash >> 32);
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
};

}  // namespace Quorvel
