#include "effectcache/AllocationFault.h"

#include <cstdlib>
#include <new>

namespace Quorvel::Testing {

namespace {

enum class FaultState { Idle, Armed, Failed };

// Trivially constructed, so that an allocation may use them at any time.
thread_local FaultState faultState = FaultState::Idle;
thread_local std::uint64_t allocationsLeft = 0;

bool Fails() {
    if (faultState != FaultState::Armed || allocationsLeft-- != 0) { return false; }
    faultState = FaultState::Failed;
    return true;
}

void* Allocate(std::size_t size) {
    return Fails() ? nullptr : std::malloc(size != 0 ? size : 1);
}

}  // namespace

AllocationFault::AllocationFault(std::uint64_t skipped) {
    allocationsLeft = skipped;
    faultState = FaultState::Armed;
}

AllocationFault::~AllocationFault() {
    faultState = FaultState::Idle;
}

bool AllocationFault::HasFailed() const {
    return faultState == FaultState::Failed;
}

}  // namespace Quorvel::Testing

using Quorvel::Testing::Allocate;

void* operator new(std::size_t size) {
    if (void* const memory = Allocate(size)) { return memory; }
    throw std::bad_alloc();
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return Allocate(size);
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
