#include "platform/Clock.h"

#include <windows.h>

namespace Quorvel::Platform {

std::int64_t PerformanceCounter() noexcept {
    LARGE_INTEGER counter;
    ::QueryPerformanceCounter(&counter);
    return counter.QuadPart;
}

LocalTime CurrentLocalTime() noexcept {
    SYSTEMTIME now;
    ::GetLocalTime(&now);
    return {now.wYear,   now.wMonth,  now.wDay,         now.wHour,
            now.wMinute, now.wSecond, now.wMilliseconds};
}

}  // namespace Quorvel::Platform
