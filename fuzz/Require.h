#pragma once

#include <cstdio>
#include <cstdlib>

namespace Quorvel::Fuzz {

// Aborts the program if a condition does not hold. libFuzzer then keeps the input, and the stack
// trace shows the place.
inline void Require(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "REQUIRED: %s\n", what);
        std::abort();
    }
}

}  // namespace Quorvel::Fuzz
