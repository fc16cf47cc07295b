#include "package/AllocationWatch.h"

#include <algorithm>
#include <cstdlib>
#include <new>

namespace Quorvel::Testing {

namespace {

thread_local constinit bool watching = false;
thread_local constinit std::size_t largest = 0;

}  // namespace

AllocationWatch::AllocationWatch() {
    largest = 0;
    watching = true;
}

AllocationWatch::~AllocationWatch() {
    watching = false;
}

std::size_t AllocationWatch::Largest() const {
    return largest;
}

}  // namespace Quorvel::Testing

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    using namespace Quorvel::Testing;
    if (watching) { largest = std::max(largest, size); }
    return std::malloc(std::max<std::size_t>(size, 1));
}

void* operator new(std::size_t size) {
    if (void* const memory = operator new(size, std::nothrow)) { return memory; }
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
