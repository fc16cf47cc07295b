#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>

/// Allocates objects of every derived class on the host's heap. Memory allocated on one side of the
/// DLL boundary may be freed on the other, since both sides use this heap.
///
/// It has the usual forms of new and delete for single objects.
///
/// **Threads.** Any thread may allocate and free at any time.
class VornHeapOperators {
public:
    /// @cond
    static void* operator new(std::size_t size) {
        if (void* memory = std::malloc(size)) { return memory; }
        throw std::bad_alloc();
    }
    static void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
        return std::malloc(size);
    }
    static void* operator new(std::size_t, void* place) noexcept { return place; }

    static void operator delete(void* memory) noexcept { std::free(memory); }
    static void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
    static void operator delete(void*, void*) noexcept {}
    /// @endcond
};
