#pragma once

#include <cstddef>
#include <utility>

namespace Util {

// Holds one reference to an intrusively counted object, or nothing.
template <typename T>
class RefPtr {
public:
    RefPtr() = default;
    RefPtr(std::nullptr_t) {}
    RefPtr(T* object) : object_(object) {
        if (object_) { object_->AddRef(); }
    }
    RefPtr(const RefPtr& other) : RefPtr(other.object_) {}
    RefPtr(RefPtr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    template <typename U>
    RefPtr(const RefPtr<U>& other) : RefPtr(other.Get()) {}
    ~RefPtr() { Reset(); }

    RefPtr& operator=(RefPtr other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }

    T* Get() const { return object_; }
    T* operator->() const { return object_; }
    T& operator*() const { return *object_; }
    explicit operator bool() const { return object_ != nullptr; }

    // Releases the reference. The pointer is cleared first, so that a destructor that reaches it
    // again finds it empty.
    void Reset() {
        if (T* object = std::exchange(object_, nullptr)) { object->Release(); }
    }

private:
    T* object_ = nullptr;
};

template <typename T, typename U>
bool operator==(const RefPtr<T>& left, const RefPtr<U>& right) {
    return left.Get() == right.Get();
}

template <typename T, typename U>
bool operator!=(const RefPtr<T>& left, const RefPtr<U>& right) {
    return left.Get() != right.Get();
}

}  // namespace Util
