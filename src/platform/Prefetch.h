#pragma once

#include <cstddef>
#include <cstdint>

namespace Quorvel::Platform {

// Begins to bring memory that will be read soon into the processor's caches. A hint: any address
// may be given.
inline void Prefetch([[maybe_unused]] const void* address) noexcept {
#if defined(__GNUC__)
    __builtin_prefetch(address);
#endif
}

inline void Prefetch(const void* address, std::size_t size) noexcept {
    constexpr std::uintptr_t kCacheLine = 64;
    const auto begin = reinterpret_cast<std::uintptr_t>(address);
    for (std::uintptr_t offset = 0; offset < size; offset += kCacheLine) {
        Prefetch(reinterpret_cast<const void*>(begin + offset));
    }
}

}  // namespace Quorvel::Platform
