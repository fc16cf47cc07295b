#pragma once

#include <cstdio>
#include <cstdlib>

namespace Quorvel::Fuzz {

// Ends the program when something that must hold does not: libFuzzer then keeps the input that led
// here, and the stack says where.
inline void Require(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "REQUIRED: %s\n", what);
        std::abort();
    }
}

}  // namespace Quorvel::Fuzz
