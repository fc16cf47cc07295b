#pragma once

#include <cstddef>

namespace Quorvel::Platform {

// Begins to bring memory that will be read soon into the processor's caches. A hint: any address
// may be given.
inline void Prefetch([[maybe_unused]] const void* address) noexcept {
#if defined(__GNUC__)
    __builtin_prefetch(address);
#endif
}

inline void Prefetch(const void* address, std::size_t size) noexcept {
    constexpr std::size_t kCacheLine = 64;
    for (std::size_t offset = 0; offset < size; offset += kCacheLine) {
        Prefetch(static_cast<const char*>(address) + offset);
    }
}

}  // namespace Quorvel::Platform
