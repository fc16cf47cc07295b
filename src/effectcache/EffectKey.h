#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "effectcache/WyHash.h"
#include "vornutil/CStr.h"

namespace Quorvel {

// The bytes of an effect's name, not owned.
//
// A shorter key sorts before a longer one; keys of equal length sort by unsigned bytes. The listing
// and the records in the file are in this order.
struct EffectKey {
    EffectKey(const unsigned char* name, std::size_t size) : bytes(name), length(size) {}
    explicit EffectKey(const CStr& name)
        : bytes(reinterpret_cast<const unsigned char*>(name.data())), length(name.Length()) {}

    // Never 0.
    std::uint32_t Hash() const { return WyHash32(bytes, length) | 0x80000000; }

    friend bool operator==(const EffectKey& left, const EffectKey& right) {
        return left.length == right.length &&
               (left.length == 0 || std::memcmp(left.bytes, right.bytes, left.length) == 0);
    }
    friend bool operator<(const EffectKey& left, const EffectKey& right) {
        if (left.length != right.length) { return left.length < right.length; }
        return left.length != 0 && std::memcmp(left.bytes, right.bytes, left.length) < 0;
    }

    const unsigned char* bytes;
    std::size_t length;
};

}  // namespace Quorvel
