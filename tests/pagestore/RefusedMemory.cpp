#include "pagestore/RefusedMemory.h"

#include <cstddef>
#include <new>

namespace {

thread_local constinit bool refused = false;

}  // namespace

namespace Quorvel::Testing {

RefusedMemory::RefusedMemory() {
    refused = true;
}

RefusedMemory::~RefusedMemory() {
    refused = false;
}

}  // namespace Quorvel::Testing

// Does the same as the standard library's own, except for the refusal.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    if (refused) { return nullptr; }
    try {
        return ::operator new(size);
    } catch (const std::bad_alloc&) { return nullptr; }
}
