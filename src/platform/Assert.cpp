#include "platform/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Quorvel::Platform {

// not reached in tests: only a bug comes here
void AssertionFailed(const char* condition, const char* file, int line) noexcept {
    std::fprintf(stderr, "%s:%d: assertion failed: %s\n", file, line, condition);
    std::abort();
}

}  // namespace Quorvel::Platform
