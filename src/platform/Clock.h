#pragma once

#include <cstdint>

namespace Quorvel::Platform {

// A counter of high resolution that never goes back; its unit is the system's own.
std::int64_t PerformanceCounter() noexcept;

// Local time of day and date.
struct LocalTime {
    std::uint16_t year;
    std::uint16_t month;  // 1 to 12
    std::uint16_t day;    // 1 to 31
    std::uint16_t hour;
    std::uint16_t minute;
    std::uint16_t second;
    std::uint32_t milliseconds;
};

LocalTime CurrentLocalTime() noexcept;

}  // namespace Quorvel::Platform
