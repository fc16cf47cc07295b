#include "Status.h"

#include <cstdio>

#include "quorvel/Version.h"

namespace Quorvel::C {

namespace {

// Callers often ignore errors, so the text is put together only on request.
struct LastError {
    quorvel_status status;
    std::uint32_t systemError;
    const char* detail;
    char text[200];
};
thread_local constinit LastError lastError{};

}  // namespace

quorvel_status Fail(quorvel_status status, const char* detail, std::uint32_t systemError) noexcept {
    lastError.status = status;
    lastError.detail = detail;
    lastError.systemError = systemError;
    return status;
}

}  // namespace Quorvel::C

using Quorvel::C::lastError;

const char* quorvel_status_text(quorvel_status status) {
    switch (status) {
        case QUORVEL_OK:
            return "success";
        case QUORVEL_ERROR_ARGUMENT:
            return "invalid argument";
        case QUORVEL_ERROR_OUT_OF_MEMORY:
            return "out of memory, or the file can hold no more pages";
        case QUORVEL_ERROR_NOT_FOUND:
            return "not found";
        case QUORVEL_ERROR_BUFFER_TOO_SMALL:
            return "the buffer is too small";
        case QUORVEL_ERROR_STOPPED:
            return "stopped by the caller's function";
        case QUORVEL_ERROR_UNUSABLE:
            return "the cache can't be used";
        case QUORVEL_ERROR_IO:
            return "a file can't be opened, read or written";
        case QUORVEL_ERROR_DAMAGED:
            return "the file does not hold an intact package";
        case QUORVEL_ERROR_LIMIT:
            return "the package has as many streams as its limit allows";
        case QUORVEL_ERROR_BUSY:
            return "a stream is open";
        case QUORVEL_ERROR_SYSTEM:
            return "the system refused an object that processes share";
        case QUORVEL_ERROR_INTERNAL:
            return "internal error";
    }
    return "unknown status";
}

const char* quorvel_last_error(void) {
    if (lastError.status == QUORVEL_OK) { return ""; }
    const char* const text = quorvel_status_text(lastError.status);
    if (lastError.detail) {
        std::snprintf(lastError.text, sizeof lastError.text, "%s: %s", text, lastError.detail);
    } else if (lastError.systemError != 0) {
        std::snprintf(lastError.text, sizeof lastError.text, "%s (error %u)", text,
                      static_cast<unsigned>(lastError.systemError));
    } else {
        return text;
    }
    return lastError.text;
}

uint32_t quorvel_last_system_error(void) {
    return lastError.systemError;
}

const char* quorvel_version(void) {
    return QUORVEL_VERSION;
}
