#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace EffectHost {

// FNV-1a with 64 bits: detects accidental changes, not deliberate ones. Takes its input in pieces.
class Checksum {
public:
    Checksum& Add(const void* bytes, std::size_t size) {
        const unsigned char* byte = static_cast<const unsigned char*>(bytes);
        for (std::size_t i = 0; i < size; ++i) {
            value_ = (value_ ^ byte[i]) * kPrime;
        }
        return *this;
    }
    Checksum& Add(std::string_view text) { return Add(text.data(), text.size()); }

    std::uint64_t Value() const { return value_; }

private:
    static constexpr std::uint64_t kOffsetBasis = 0xcbf29ce484222325;
    static constexpr std::uint64_t kPrime = 0x100000001b3;

    std::uint64_t value_ = kOffsetBasis;
};

}  // namespace EffectHost
