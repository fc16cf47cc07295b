#include "quorvel/MultiProcessMemory.h"

#include <new>
#include <string>

#include "platform/Assert.h"
#include "platform/NamedMemory.h"
#include "platform/SystemError.h"
#include "quorvel/AutoMutex.h"
#include "quorvel/Exceptions.h"

namespace Quorvel {

MultiProcessMemory::MultiProcessMemory() noexcept
    : mutex_(nullptr), bytes_(0), mapping_(nullptr), view_(nullptr) {}

MultiProcessMemory::~MultiProcessMemory() {
    Close();
}

void MultiProcessMemory::Close() noexcept {
    if (view_) {
        QUORVEL_ASSERT(mapping_ && mutex_);
        Platform::UnmapNamedMemory(mapping_, view_);
        view_ = nullptr;
    }
    if (mapping_) {
        Platform::CloseNamedMemory(mapping_);
        mapping_ = nullptr;
    }
    delete mutex_;
    mutex_ = nullptr;
    bytes_ = 0;
}

bool MultiProcessMemory::Initialize(const char* name, std::uint64_t bytes) {
    Close();
    try {
        mutex_ = new MutexObject((std::string(name) + "_mutex").c_str());
    } catch (const std::bad_alloc&) { throw OutOfMemoryException(); }
    const AutoMutex guard(*mutex_, kWaitForever);
    if (guard.WaitResult() == kWaitAbandoned) {
        throw Win32APICallFailedException(Platform::LastSystemError());
    }

    mapping_ = Platform::OpenNamedMemory(name);
    const bool created = !mapping_;
    if (created) { mapping_ = Platform::CreateNamedMemory(name, bytes); }
    if (!mapping_) { throw Win32APICallFailedException(Platform::LastSystemError()); }
    view_ = Platform::MapNamedMemory(mapping_, bytes);
    if (!view_) { throw Win32APICallFailedException(Platform::LastSystemError()); }
    if (created) {
        OnMemoryCreated(view_);
    } else {
        OnMemoryAttached(view_);
    }
    return true;
}

void* MultiProcessMemory::Lock(std::uint32_t timeout) {
    if (!mutex_ || mutex_->Acquire(timeout) == kWaitAbandoned) { return nullptr; }
    return view_;
}

void MultiProcessMemory::Unlock() {
    if (mutex_) { mutex_->Release(); }
}

std::uint64_t MultiProcessMemory::GetBytes() const {
    return bytes_;
}

void MultiProcessMemory::OnMemoryCreated(void* /*block*/) {}

void MultiProcessMemory::OnMemoryAttached(void* /*block*/) {}

}  // namespace Quorvel
