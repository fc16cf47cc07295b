#pragma once

#include <cstddef>
#include <string>

// An 8-bit string with a length. It may hold any byte, NUL included; data() always ends in a NUL
// that the length does not count.
class CStr {
public:
    CStr() = default;
    CStr(const char* text) : text_(text ? text : "") {}
    CStr(const char* bytes, std::size_t length) : text_(bytes, length) {}

    const char* data() const { return text_.c_str(); }
    std::size_t Length() const { return text_.size(); }

    char& operator[](std::size_t index) { return text_[index]; }
    char operator[](std::size_t index) const { return text_[index]; }

    CStr& operator+=(const CStr& tail) {
        text_ += tail.text_;
        return *this;
    }

    friend CStr operator+(CStr head, const CStr& tail) { return head += tail; }
    friend bool operator==(const CStr& left, const CStr& right) {
        return left.text_ == right.text_;
    }
    friend bool operator!=(const CStr& left, const CStr& right) {
        return left.text_ != right.text_;
    }

private:
    std::string text_;
};
