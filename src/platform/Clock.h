#pragma once

#include <cstdint>

namespace Quorvel::Platform {

// A high-resolution counter that never goes backwards. Its unit depends on the system.
std::int64_t PerformanceCounter() noexcept;

// Local date and time of day.
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
