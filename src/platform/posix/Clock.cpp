#include "platform/Clock.h"

#include <ctime>

namespace Quorvel::Platform {

std::int64_t PerformanceCounter() noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

LocalTime CurrentLocalTime() noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    std::tm local{};
    ::localtime_r(&now.tv_sec, &local);
    return {static_cast<std::uint16_t>(local.tm_year + 1900),
            static_cast<std::uint16_t>(local.tm_mon + 1),
            static_cast<std::uint16_t>(local.tm_mday),
            static_cast<std::uint16_t>(local.tm_hour),
            static_cast<std::uint16_t>(local.tm_min),
            static_cast<std::uint16_t>(local.tm_sec),
            static_cast<std::uint32_t>(now.tv_nsec / 1'000'000)};
}

}  // namespace Quorvel::Platform
