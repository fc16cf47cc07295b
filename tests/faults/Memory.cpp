#include "faults/Memory.h"

#include <malloc.h>

#include <algorithm>
#include <cassert>
#include <cstdlib>
#include <new>

// NOLINTBEGIN(bugprone-reserved-identifier): the linker defines these names.

// The linker redirects every call of malloc and free to __wrap_malloc and __wrap_free.
extern "C" void* __real_malloc(std::size_t size);
extern "C" void __real_free(void* memory);

namespace Quorvel::Testing {

namespace {

// Trivially constructed, so that an allocation may use them at any time.
thread_local constinit int depth = 0;

struct Fault {
    bool armed;
    std::uint64_t skipped;
    std::uint64_t failures;
    std::uint64_t failed;
};
thread_local constinit Fault fault{};

struct Watch {
    bool on;
    std::int64_t held;
    std::int64_t peak;
};
thread_local constinit Watch watch{};

bool Fails() {
    if (!fault.armed || depth == 0) { return false; }
    if (fault.skipped > 0) {
        --fault.skipped;
        return false;
    }
    if (fault.failed >= fault.failures) { return false; }
    ++fault.failed;
    return true;
}

void* Allocate(std::size_t size) {
    if (Fails()) { return nullptr; }
    void* const memory = __real_malloc(std::max<std::size_t>(size, 1));
    if (memory && watch.on && depth != 0) {
        watch.held += static_cast<std::int64_t>(QUORVEL_SIZE_OF_BLOCK(memory));
        watch.peak = std::max(watch.peak, watch.held);
    }
    return memory;
}

void Free(void* memory) {
    if (memory && watch.on && depth != 0) {
        watch.held -= static_cast<std::int64_t>(QUORVEL_SIZE_OF_BLOCK(memory));
    }
    __real_free(memory);
}

}  // namespace

LibraryCall::LibraryCall() {
    ++depth;
}

LibraryCall::~LibraryCall() {
    --depth;
}

MemoryFault::MemoryFault(std::uint64_t skipped, std::uint64_t failures) {
    assert(!fault.armed);
    fault = {true, skipped, failures, 0};
}

MemoryFault::~MemoryFault() {
    fault.armed = false;
}

std::uint64_t MemoryFault::Failures() const {
    return fault.failed;
}

MemoryWatch::MemoryWatch() {
    assert(!watch.on);
    watch = {true, 0, 0};
}

MemoryWatch::~MemoryWatch() {
    watch.on = false;
}

std::uint64_t MemoryWatch::Peak() const {
    return static_cast<std::uint64_t>(watch.peak);
}

}  // namespace Quorvel::Testing

extern "C" void* __wrap_malloc(std::size_t size) {
    return Quorvel::Testing::Allocate(size);
}

extern "C" void __wrap_free(void* memory) {
    Quorvel::Testing::Free(memory);
}

// NOLINTEND(bugprone-reserved-identifier)

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return Quorvel::Testing::Allocate(size);
}

void* operator new(std::size_t size) {
    if (void* const memory = Quorvel::Testing::Allocate(size)) { return memory; }
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
    Quorvel::Testing::Free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
    Quorvel::Testing::Free(memory);
}
void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept {
    Quorvel::Testing::Free(memory);
}
