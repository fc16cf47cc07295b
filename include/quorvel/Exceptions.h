#pragma once

#include <cstdint>
#include <exception>

#include "quorvel/Export.h"

namespace Quorvel {

/// @defgroup errors Errors
/// The five errors that the library throws. Callers tell them apart by class; what() returns the
/// standard library's default text.
/// @{

/// The package file could not be opened, read or written, or a stream transferred fewer bytes than
/// requested.
class QUORVEL_ERROR FileIOException : public std::exception {
public:
    FileIOException() = default;  ///< Without an error code.
    /// @param code  The value of #errorCode.
    explicit FileIOException(std::uint32_t code) : errorCode(code) {}
    FileIOException(const FileIOException&) = default;  ///< A copy.

    /// The C runtime's error number of the failed call; 0 when no call failed, for example after a
    /// short transfer.
    std::uint32_t errorCode = 0;
};

/// The contents of a package file are inconsistent.
class QUORVEL_ERROR FileDataCorruptException : public std::exception {
public:
    FileDataCorruptException() = default;                                 ///< An error.
    FileDataCorruptException(const FileDataCorruptException&) = default;  ///< A copy.
};

/// An argument or a stored field is out of range.
class QUORVEL_ERROR InvalidParameterException : public std::exception {
public:
    InvalidParameterException() = default;                                  ///< An error.
    InvalidParameterException(const InvalidParameterException&) = default;  ///< A copy.
};

/// There is no memory for pages or for a shared block's mutex, or the package has no page number
/// left.
class QUORVEL_ERROR OutOfMemoryException : public std::exception {
public:
    OutOfMemoryException() = default;                             ///< An error.
    OutOfMemoryException(const OutOfMemoryException&) = default;  ///< A copy.
};

/// An operating system call failed while a named mutex or a shared block was opened or created, or
/// the previous holder of the block's mutex ended without releasing it.
class QUORVEL_ERROR Win32APICallFailedException : public std::exception {
public:
    /// @param code  The value of #errorCode.
    explicit Win32APICallFailedException(std::uint32_t code) : errorCode(code) {}
    Win32APICallFailedException(const Win32APICallFailedException&) = default;  ///< A copy.

    /// The system's error code of the failed call; unspecified when no call failed.
    std::uint32_t errorCode;
};

/// @}

}  // namespace Quorvel
