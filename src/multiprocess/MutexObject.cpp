#include "quorvel/MutexObject.h"

#include "platform/NamedMutex.h"
#include "platform/SystemError.h"
#include "quorvel/Exceptions.h"

namespace Quorvel {

namespace {

// The system's invalid-handle value.
void* const kInvalidHandle = reinterpret_cast<void*>(~std::uintptr_t{0});

void* RequireHandle(void* handle) {
    if (!handle) { throw Win32APICallFailedException(Platform::LastSystemError()); }
    return handle;
}

}  // namespace

MutexObject::MutexObject() noexcept : handle_(nullptr) {}

MutexObject::MutexObject(const char* name)
    : handle_(RequireHandle(Platform::OpenNamedMutex(name))) {}

MutexObject::MutexObject(const wchar_t* name)
    : handle_(RequireHandle(Platform::OpenNamedMutex(name))) {}

MutexObject::~MutexObject() {
    if (handle_) {
        Platform::CloseNamedMutex(handle_);
        handle_ = nullptr;
    }
}

std::uint32_t MutexObject::Acquire(std::uint32_t timeout) {
    if (!handle_ || handle_ == kInvalidHandle) { return kWaitAbandoned; }
    return Platform::AcquireNamedMutex(handle_, timeout);
}

void MutexObject::Release() {
    if (handle_ && handle_ != kInvalidHandle) { Platform::ReleaseNamedMutex(handle_); }
}

}  // namespace Quorvel
