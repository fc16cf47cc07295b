#pragma once

namespace Quorvel::Platform {

// Begins to bring memory that will be read soon into the processor's caches. A hint: any address
// may be given.
inline void Prefetch([[maybe_unused]] const void* address) noexcept {
#if defined(__GNUC__)
    __builtin_prefetch(address);
#endif
}

}  // namespace Quorvel::Platform
