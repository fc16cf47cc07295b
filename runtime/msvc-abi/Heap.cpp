// The allocation functions. They use the C library's heap, which all images of a process share.
#include <malloc.h>

#include <cstdlib>
#include <new>

const std::nothrow_t std::nothrow{};

void* operator new(size_t size) {
    if (void* const memory = std::malloc(size != 0 ? size : 1)) { return memory; }
    throw std::bad_alloc();
}

void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return std::malloc(size != 0 ? size : 1);
}

void* operator new[](size_t size) {
    return ::operator new(size);
}

void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return ::operator new(size, std::nothrow);
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}

void operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}

void operator delete[](void* memory) noexcept {
    std::free(memory);
}

void operator delete[](void* memory, size_t) noexcept {
    std::free(memory);
}

void operator delete[](void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}

void* operator new(size_t size, std::align_val_t alignment) {
    if (void* const memory = ::operator new(size, alignment, std::nothrow)) { return memory; }
    throw std::bad_alloc();
}

void* operator new(size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return ::_aligned_malloc(size != 0 ? size : 1, static_cast<size_t>(alignment));
}

void operator delete(void* memory, std::align_val_t) noexcept {
    ::_aligned_free(memory);
}

void operator delete(void* memory, size_t, std::align_val_t) noexcept {
    ::_aligned_free(memory);
}
