#pragma once

#include <cstddef>
#include <utility>

namespace Util {

/// Holds one reference to an object that counts its references, or nothing.
///
/// A copy holds a reference of its own. It is assigned, compared (==, !=) and tested like a
/// pointer.
///
/// **Threads.** The count of an ARefObject is atomic, so threads may hold references to one object
/// and release them in any order. A thread that changes a RefPtr must be the only one that uses
/// that RefPtr. What the object's own functions allow, its class says.
///
/// @tparam T  Has AddRef() and Release(), as IRefObject.
template <typename T>
class RefPtr {
public:
    /// Holds nothing.
    RefPtr() = default;

    /// @cond
    RefPtr(std::nullptr_t) {}
    /// @endcond

    /// Adds a reference.
    ///
    /// @param object  Was made with new, or is held by another RefPtr; may be null.
    RefPtr(T* object) : object_(object) {
        if (object_) { object_->AddRef(); }
    }

    /// @cond
    RefPtr(const RefPtr& other) : RefPtr(other.object_) {}
    RefPtr(RefPtr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    template <typename U>
    RefPtr(const RefPtr<U>& other) : RefPtr(other.Get()) {}
    ~RefPtr() { Reset(); }

    RefPtr& operator=(RefPtr other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }
    /// @endcond

    /// @return The object, or null. The reference stays with this RefPtr.
    T* Get() const { return object_; }

    /// @cond
    T* operator->() const { return object_; }
    T& operator*() const { return *object_; }
    explicit operator bool() const { return object_ != nullptr; }
    /// @endcond

    /// Releases the reference. The pointer is cleared first, so that a destructor that reaches it
    /// again finds it empty.
    void Reset() {
        if (T* object = std::exchange(object_, nullptr)) { object->Release(); }
    }

private:
    T* object_ = nullptr;
};

/// @cond
template <typename T, typename U>
bool operator==(const RefPtr<T>& left, const RefPtr<U>& right) {
    return left.Get() == right.Get();
}

template <typename T, typename U>
bool operator!=(const RefPtr<T>& left, const RefPtr<U>& right) {
    return left.Get() != right.Get();
}
/// @endcond

}  // namespace Util
