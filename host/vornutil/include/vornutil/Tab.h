#pragma once

#include <cassert>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

/// A growable array with a count. Its storage is on the heap that both sides of the DLL boundary
/// share.
///
/// It is copied and assigned like any value.
///
/// **Threads.** Any number of threads may read one array. A thread that changes it must be the only
/// one that uses it.
///
/// @tparam T  Must be movable without throwing.
template <typename T>
class Tab {
public:
    /// An empty array.
    Tab() = default;

    /// @cond
    // Delegates, so that the destructor runs when an element can't be copied.
    Tab(const Tab& other) : Tab() {
        Reserve(other.count_);
        std::uninitialized_copy_n(other.items_, other.count_, items_);
        count_ = other.count_;
    }
    Tab(Tab&& other) noexcept { Swap(other); }
    ~Tab() {
        std::destroy_n(items_, count_);
        std::free(items_);
    }

    Tab& operator=(Tab other) noexcept {
        Swap(other);
        return *this;
    }
    /// @endcond

    /// @return The number of elements.
    int Count() const { return count_; }

    /// Changes the number of elements. New elements of a trivial type are not initialised; others
    /// are value-initialised.
    ///
    /// @param count  Not negative.
    /// @throws std::bad_alloc, with the array unchanged
    void SetCount(int count) {
        if (count < count_) {
            std::destroy_n(items_ + count, count_ - count);
        } else if (count > count_) {
            Reserve(count);
            if constexpr (!std::is_trivial_v<T>) {
                std::uninitialized_value_construct_n(items_ + count_, count - count_);
            }
        }
        count_ = count;
    }

    /// @param index  0 to Count() - 1.
    /// @return The element.
    T& operator[](int index) {
        assert(index >= 0 && index < count_);
        return items_[index];
    }
    /// @cond
    const T& operator[](int index) const {
        assert(index >= 0 && index < count_);
        return items_[index];
    }

    /// @endcond

    /// @param index  0 to Count().
    /// @return The address of the element. Addr(0) of an empty array may be null and must not be
    ///         read. Valid until the number of elements grows.
    T* Addr(int index) { return items_ + index; }

    /// @cond
    const T* Addr(int index) const { return items_ + index; }
    /// @endcond

private:
    void Swap(Tab& other) noexcept {
        std::swap(items_, other.items_);
        std::swap(count_, other.count_);
        std::swap(capacity_, other.capacity_);
    }

    void Reserve(int capacity) {
        static_assert(std::is_nothrow_move_constructible_v<T>);
        if (capacity <= capacity_) { return; }
        T* items = static_cast<T*>(std::malloc(static_cast<std::size_t>(capacity) * sizeof(T)));
        if (!items) { throw std::bad_alloc(); }
        std::uninitialized_move(items_, items_ + count_, items);
        std::destroy_n(items_, count_);
        std::free(items_);
        items_ = items;
        capacity_ = capacity;
    }

    T* items_ = nullptr;
    int count_ = 0;
    int capacity_ = 0;
};
