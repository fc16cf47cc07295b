#pragma once

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <new>
#include <stdexcept>

#include "quorvel.h"
#include "quorvel/Exceptions.h"

namespace Quorvel::C {

// Stores an error of this thread and returns its status. The detail is a string constant or null.
quorvel_status Fail(quorvel_status status, const char* detail = nullptr,
                    std::uint32_t systemError = 0) noexcept;

// Thrown by Require.
struct InvalidArgument {
    const char* requirement;
};

// The requirement is a string constant.
inline void Require(bool holds, const char* requirement) {
    if (!holds) { throw InvalidArgument{requirement}; }
}

// Runs the body of a function and turns what it throws into a status.
template <typename Operation>
quorvel_status Run(const Operation& operation) noexcept {
    try {
        return operation();
    } catch (const InvalidArgument& error) {
        return Fail(QUORVEL_ERROR_ARGUMENT, error.requirement);
    } catch (const FileIOException& error) {
        if (error.errorCode == ENOMEM) { return Fail(QUORVEL_ERROR_OUT_OF_MEMORY); }
        return Fail(QUORVEL_ERROR_IO, nullptr, error.errorCode);
    } catch (const FileDataCorruptException&) {
        return Fail(QUORVEL_ERROR_DAMAGED);
    } catch (const InvalidParameterException&) {
        return Fail(QUORVEL_ERROR_DAMAGED, "a field is out of range");
    } catch (const Win32APICallFailedException& error) {
        return Fail(QUORVEL_ERROR_SYSTEM, nullptr, error.errorCode);
    } catch (const OutOfMemoryException&) {
        return Fail(QUORVEL_ERROR_OUT_OF_MEMORY);
    } catch (const std::bad_alloc&) {
        return Fail(QUORVEL_ERROR_OUT_OF_MEMORY);
    } catch (const std::length_error&) { return Fail(QUORVEL_ERROR_OUT_OF_MEMORY); } catch (...) {
        return Fail(QUORVEL_ERROR_INTERNAL);
    }
}

// Copies bytes into a caller's buffer, as quorvel_cache_find describes.
inline quorvel_status CopyOut(const void* bytes, std::size_t count, void* buffer,
                              std::size_t capacity, std::size_t* size) {
    *size = count;
    if (count > capacity) { return Fail(QUORVEL_ERROR_BUFFER_TOO_SMALL); }
    if (count > 0) { std::memcpy(buffer, bytes, count); }
    return QUORVEL_OK;
}

}  // namespace Quorvel::C
