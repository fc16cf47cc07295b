#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

/// An 8-bit string with a length. It may hold any byte, NUL included; data() always ends in a NUL
/// that the length does not count.
///
/// It crosses the DLL boundary, so it contains no standard library string, which differs between
/// compilers; its bytes are on the heap that both sides share. An operation that runs out of memory
/// throws std::bad_alloc and leaves the string unchanged.
///
/// It is copied, assigned, joined (+, +=) and compared (==, !=) like any value.
///
/// **Threads.** Any number of threads may read one string. A thread that changes it must be the
/// only one that uses it.
class CStr {
public:
    /// An empty string.
    CStr() = default;

    /// Copies a text.
    ///
    /// @param text  Ends in a NUL; null makes an empty string.
    CStr(const char* text) { Append(text, text ? std::strlen(text) : 0); }

    /// Copies bytes.
    ///
    /// @param bytes   Any values; may be null if there are none.
    /// @param length  Their number.
    CStr(const char* bytes, std::size_t length) { Append(bytes, length); }

    /// @cond
    CStr(const CStr& other) : CStr(other.bytes_, other.length_) {}
    CStr(CStr&& other) noexcept { Swap(other); }
    ~CStr() { std::free(bytes_); }

    CStr& operator=(CStr other) noexcept {
        Swap(other);
        return *this;
    }
    /// @endcond

    /// @return The bytes, and a NUL after them. Never null. Valid until the string is changed.
    const char* data() const { return bytes_ ? bytes_ : ""; }

    /// @return The number of bytes.
    std::size_t Length() const { return length_; }

    /// @cond
    char& operator[](std::size_t index) { return bytes_[index]; }
    char operator[](std::size_t index) const { return data()[index]; }

    CStr& operator+=(const CStr& tail) {
        Append(tail.bytes_, tail.length_);
        return *this;
    }

    friend CStr operator+(CStr head, const CStr& tail) { return head += tail; }
    friend bool operator==(const CStr& left, const CStr& right) {
        return left.length_ == right.length_ &&
               std::memcmp(left.data(), right.data(), left.length_) == 0;
    }
    friend bool operator!=(const CStr& left, const CStr& right) { return !(left == right); }
    /// @endcond

private:
    void Swap(CStr& other) noexcept {
        std::swap(bytes_, other.bytes_);
        std::swap(length_, other.length_);
    }

    // The bytes may be this string's own.
    void Append(const char* bytes, std::size_t length) {
        if (length == 0) { return; }
        char* const joined = static_cast<char*>(std::malloc(length_ + length + 1));
        if (!joined) { throw std::bad_alloc(); }
        std::memcpy(joined, data(), length_);
        std::memcpy(joined + length_, bytes, length);
        length_ += length;
        joined[length_] = '\0';
        std::free(std::exchange(bytes_, joined));
    }

    char* bytes_ = nullptr;  // null when empty
    std::size_t length_ = 0;
};
