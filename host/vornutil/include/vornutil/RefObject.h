#pragma once

#include <atomic>
#include <cstdint>

#include "vornutil/VornHeapOperators.h"

namespace Util {

/// An object that counts its references.
///
/// Virtual slots: destructor, AddRef, Release, DeleteThis.
class IRefObject : public VornHeapOperators {
public:
    virtual ~IRefObject() = default;

    /// Adds a reference.
    ///
    /// @return The new count.
    virtual std::uint32_t AddRef() = 0;

    /// Releases a reference. At zero the object deletes itself through DeleteThis() and must not be
    /// used again.
    ///
    /// @return The new count.
    virtual std::uint32_t Release() = 0;

protected:
    /// Called once, when the last reference has been released.
    virtual void DeleteThis() = 0;
};

/// Implements the count. A new object has no references; the first RefPtr that holds it adds one.
///
/// **Threads.** The count is atomic: any thread may call AddRef() and Release() at any time. The
/// thread that releases the last reference deletes the object.
class ARefObject : public IRefObject {
public:
    ARefObject() = default;
    ARefObject(const ARefObject&) = delete;
    ARefObject& operator=(const ARefObject&) = delete;
    ~ARefObject() override = default;

    std::uint32_t AddRef() override {
        return references_.fetch_add(1, std::memory_order_relaxed) + 1;
    }

    std::uint32_t Release() override {
        const std::uint32_t left = references_.fetch_sub(1, std::memory_order_acq_rel) - 1;
        if (left == 0) { DeleteThis(); }
        return left;
    }

protected:
    void DeleteThis() override { delete this; }

private:
    std::atomic<std::uint32_t> references_{0};
};

}  // namespace Util
