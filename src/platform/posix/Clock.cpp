#include "platform/Clock.h"

#include <ctime>

namespace Quorvel::Platform {

std::int64_t PerformanceCounter() noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

LocalTime CurrentLocalTime() noexcept {
    // The local time is converted once per second, because the conversion takes longer than
    // everything else here.
    struct Converted {
        std::time_t second = -1;
        std::tm local{};
    };
    static thread_local Converted converted;
    auto& [second, local] = converted;
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_sec != second) {
        ::tzset();  // localtime_r does not notice a change of the time zone
        ::localtime_r(&now.tv_sec, &local);
        second = now.tv_sec;
    }
    return {static_cast<std::uint16_t>(local.tm_year + 1900),
            static_cast<std::uint16_t>(local.tm_mon + 1),
            static_cast<std::uint16_t>(local.tm_mday),
            static_cast<std::uint16_t>(local.tm_hour),
            static_cast<std::uint16_t>(local.tm_min),
            static_cast<std::uint16_t>(local.tm_sec),
            static_cast<std::uint32_t>(now.tv_nsec / 1'000'000)};
}

}  // namespace Quorvel::Platform
