#include "support/HeapFault.h"

#include <cstddef>

// NOLINTBEGIN(bugprone-reserved-identifier): the linker dictates these names.

// The linker redirects malloc to __wrap_malloc, and __real_malloc to the runtime library.
extern "C" void* __real_malloc(std::size_t size);

namespace Quorvel::Testing {

namespace {

struct Fault {
    bool armed;
    std::uint64_t skipped;
    std::uint64_t failures;
};
thread_local constinit Fault fault{};

}  // namespace

HeapFault::HeapFault(std::uint64_t skipped) {
    fault = {true, skipped, 0};
}

HeapFault::~HeapFault() {
    fault.armed = false;
}

std::uint64_t HeapFault::Failures() const {
    return fault.failures;
}

}  // namespace Quorvel::Testing

extern "C" void* __wrap_malloc(std::size_t size) {
    using Quorvel::Testing::fault;
    if (!fault.armed) { return __real_malloc(size); }
    if (fault.skipped > 0) {
        --fault.skipped;
        return __real_malloc(size);
    }
    ++fault.failures;
    return nullptr;
}

// NOLINTEND(bugprone-reserved-identifier)
