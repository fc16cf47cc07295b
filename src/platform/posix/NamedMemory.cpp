#include "platform/NamedMemory.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <new>
#include <utility>

#include "platform/Assert.h"
#include "platform/posix/NamedObject.h"

namespace Quorvel::Platform {

namespace {

constexpr char kKind[] = "memory";

struct NamedMemory {
    std::unique_ptr<NamedObject> object;
    std::size_t mappedBytes = 0;
};

void* Open(const char* name, NamedObject::IfAbsent ifAbsent, std::size_t bytes) noexcept {
    try {
        auto memory = std::make_unique<NamedMemory>();
        memory->object = NamedObject::Open(kKind, name, ifAbsent, bytes);
        return memory->object ? memory.release() : nullptr;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return nullptr;
    }
}

std::size_t RoundUpToPages(std::size_t bytes) {
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    return (bytes + page - 1) / page * page;
}

}  // namespace

void* OpenNamedMemory(const char* name) noexcept {
    return Open(name, NamedObject::IfAbsent::Fail, 0);
}

void* CreateNamedMemory(const char* name, std::uint64_t bytes) noexcept {
    const auto size = static_cast<std::uint32_t>(bytes);
    if (size == 0) {
        errno = EINVAL;
        return nullptr;
    }
    return Open(name, NamedObject::IfAbsent::Create, size);
}

void* MapNamedMemory(void* handle, std::uint64_t bytes) noexcept {
    auto* const memory = static_cast<NamedMemory*>(handle);
    QUORVEL_ASSERT(memory->mappedBytes == 0);
    if (bytes == 0) { bytes = memory->object->Size(); }
    if (bytes > RoundUpToPages(memory->object->Size())) {
        errno = EACCES;
        return nullptr;
    }
    void* view =
        ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, memory->object->Descriptor(), 0);
    if (view == MAP_FAILED) { return nullptr; }
    memory->mappedBytes = bytes;
    return view;
}

void UnmapNamedMemory(void* handle, void* view) noexcept {
    auto* const memory = static_cast<NamedMemory*>(handle);
    QUORVEL_ASSERT(memory->mappedBytes != 0);
    ::munmap(view, std::exchange(memory->mappedBytes, 0));
}

void CloseNamedMemory(void* handle) noexcept {
    delete static_cast<NamedMemory*>(handle);
}

}  // namespace Quorvel::Platform
