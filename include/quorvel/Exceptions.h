#pragma once

#include <cstdint>
#include <exception>

#include "quorvel/Export.h"

// The five errors that the library throws. Callers tell them apart by class; what() returns the
// standard library's default text.
namespace Quorvel {

// The package file could not be opened, read or written, or a stream transferred fewer bytes than
// requested.
class QUORVEL_ERROR FileIOException : public std::exception {
public:
    FileIOException() = default;
    explicit FileIOException(std::uint32_t code) : errorCode(code) {}
    FileIOException(const FileIOException&) = default;

    // The C runtime's error number of the failed call; 0 when no call failed, for example after a
    // short transfer.
    std::uint32_t errorCode = 0;
};

// The contents of a package file are inconsistent.
class QUORVEL_ERROR FileDataCorruptException : public std::exception {
public:
    FileDataCorruptException() = default;
    FileDataCorruptException(const FileDataCorruptException&) = default;
};

// An argument or a stored field is out of range.
class QUORVEL_ERROR InvalidParameterException : public std::exception {
public:
    InvalidParameterException() = default;
    InvalidParameterException(const InvalidParameterException&) = default;
};

// There is no memory for pages or for a shared block's mutex, or the package has no page number
// left.
class QUORVEL_ERROR OutOfMemoryException : public std::exception {
public:
    OutOfMemoryException() = default;
    OutOfMemoryException(const OutOfMemoryException&) = default;
};

// An operating system call failed while a named mutex or a shared block was opened or created, or
// the previous holder of the block's mutex ended without releasing it.
class QUORVEL_ERROR Win32APICallFailedException : public std::exception {
public:
    explicit Win32APICallFailedException(std::uint32_t code) : errorCode(code) {}
    Win32APICallFailedException(const Win32APICallFailedException&) = default;

    // The system's error code of the failed call; unspecified when no call failed.
    std::uint32_t errorCode;
};

}  // namespace Quorvel
