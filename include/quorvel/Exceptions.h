#pragma once

#include <cstdint>
#include <exception>

#include "quorvel/Export.h"

// The five errors that the library throws. The class is the whole message: what() returns the
// standard library's default text, and callers tell failures apart by the class they catch.
namespace Quorvel {

// The package file could not be opened, read or written, or a stream moved fewer bytes than asked.
class QUORVEL_ERROR FileIOException : public std::exception {
public:
    FileIOException() = default;
    explicit FileIOException(std::uint32_t code) : errorCode(code) {}
    FileIOException(const FileIOException&) = default;

    // The runtime library's error number of the failed call; 0 when no call failed, as for a short
    // transfer.
    std::uint32_t errorCode = 0;
};

// What a package file holds is inconsistent.
class QUORVEL_ERROR FileDataCorruptException : public std::exception {
public:
    FileDataCorruptException() = default;
    FileDataCorruptException(const FileDataCorruptException&) = default;
};

// An argument, or a stored field, lies outside its range.
class QUORVEL_ERROR InvalidParameterException : public std::exception {
public:
    InvalidParameterException() = default;
    InvalidParameterException(const InvalidParameterException&) = default;
};

// Memory for pages or for a shared block's mutex ran out, or the package has no page number left.
class QUORVEL_ERROR OutOfMemoryException : public std::exception {
public:
    OutOfMemoryException() = default;
    OutOfMemoryException(const OutOfMemoryException&) = default;
};

// A call of the operating system failed while a named mutex or a shared block was made, or the last
// holder of the block's mutex had ended without releasing it.
class QUORVEL_ERROR Win32APICallFailedException : public std::exception {
public:
    explicit Win32APICallFailedException(std::uint32_t code) : errorCode(code) {}
    Win32APICallFailedException(const Win32APICallFailedException&) = default;

    // The system's error code of the failed call; without one, whatever the code was.
    std::uint32_t errorCode;
};

}  // namespace Quorvel
