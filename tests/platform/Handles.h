#pragma once

#include <cstdint>
#include <future>
#include <string>
#include <utility>

#include "platform/NamedMemory.h"
#include "platform/NamedMutex.h"

namespace Quorvel::Testing {

constexpr std::uint32_t kAcquired = 0;
constexpr std::uint32_t kAbandoned = 128;
constexpr std::uint32_t kTimedOut = 258;
constexpr std::uint32_t kForever = 0xFFFFFFFF;

// A handle of a named mutex, closed on destruction.
class MutexHandle {
public:
    explicit MutexHandle(void* handle) : handle_(handle) {}
    explicit MutexHandle(const std::string& name)
        : MutexHandle(Platform::OpenNamedMutex(name.c_str())) {}
    MutexHandle(const MutexHandle&) = delete;
    MutexHandle& operator=(const MutexHandle&) = delete;
    ~MutexHandle() { Close(); }

    bool IsOpen() const { return handle_ != nullptr; }
    std::uint32_t Acquire(std::uint32_t timeout) const {
        return Platform::AcquireNamedMutex(handle_, timeout);
    }
    void Release() const { Platform::ReleaseNamedMutex(handle_); }
    void Close() {
        if (handle_) { Platform::CloseNamedMutex(std::exchange(handle_, nullptr)); }
    }

private:
    void* handle_;
};

// A handle of a named memory block and its view, both closed on destruction.
class MemoryHandle {
public:
    MemoryHandle() = default;
    MemoryHandle(const MemoryHandle&) = delete;
    MemoryHandle& operator=(const MemoryHandle&) = delete;
    ~MemoryHandle() { Close(); }

    bool Open(const std::string& name) {
        Close();
        handle_ = Platform::OpenNamedMemory(name.c_str());
        return handle_ != nullptr;
    }
    bool Create(const std::string& name, std::uint64_t bytes) {
        Close();
        handle_ = Platform::CreateNamedMemory(name.c_str(), bytes);
        return handle_ != nullptr;
    }
    // Null if the block is smaller.
    unsigned char* Map(std::uint64_t bytes) {
        view_ = Platform::MapNamedMemory(handle_, bytes);
        return static_cast<unsigned char*>(view_);
    }
    void Close() {
        if (view_) { Platform::UnmapNamedMemory(handle_, std::exchange(view_, nullptr)); }
        if (handle_) { Platform::CloseNamedMemory(std::exchange(handle_, nullptr)); }
    }

private:
    void* handle_ = nullptr;
    void* view_ = nullptr;
};

// Where objects are files, removes those that killed holders of a name may have left behind, by
// opening the objects.
inline void SweepUp(const std::string& name) {
    MutexHandle{name};
    MemoryHandle().Open(name);
}

// Runs a function on a new thread, waits for the thread's end, and returns the function's result.
template <typename Function>
auto OnAnotherThread(const Function& function) {
    return std::async(std::launch::async, function).get();
}

}  // namespace Quorvel::Testing
