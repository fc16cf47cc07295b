#include "platform/Clock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

namespace Quorvel::Testing {

namespace {

bool IsSecond(const Platform::LocalTime& time, std::time_t second) {
    const std::tm expected = *std::localtime(&second);
    return time.year == expected.tm_year + 1900 && time.month == expected.tm_mon + 1 &&
           time.day == expected.tm_mday && time.hour == expected.tm_hour &&
           time.minute == expected.tm_min && time.second == expected.tm_sec;
}

}  // namespace

TEST(PerformanceCounter, NeverGoesBack) {
    std::int64_t previous = Platform::PerformanceCounter();
    for (int times = 0; times < 100'000; ++times) {
        const std::int64_t next = Platform::PerformanceCounter();
        ASSERT_GE(next, previous);
        previous = next;
    }
}

TEST(PerformanceCounter, AdvancesAcrossTheEndOfASecond) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(1100);
    std::int64_t previous = Platform::PerformanceCounter();
    while (std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const std::int64_t next = Platform::PerformanceCounter();
        ASSERT_GT(next, previous);
        previous = next;
    }
}

TEST(PerformanceCounter, Advances) {
    const std::int64_t start = Platform::PerformanceCounter();
    std::int64_t now;
    do {
        now = Platform::PerformanceCounter();
    } while (now == start);
    EXPECT_GT(now, start);
}

TEST(CurrentLocalTime, AgreesWithTheRuntimeLibrary) {
    // The two clocks may differ by a tick.
    const std::time_t before = std::time(nullptr) - 1;
    const Platform::LocalTime time = Platform::CurrentLocalTime();
    const std::time_t after = std::time(nullptr) + 1;
    bool found = false;
    for (std::time_t second = before; second <= after; ++second) {
        found = found || IsSecond(time, second);
    }
    EXPECT_TRUE(found) << time.year << '-' << time.month << '-' << time.day << ' ' << time.hour
                       << ':' << time.minute << ':' << time.second;
}

TEST(CurrentLocalTime, AdvancesFromSecondToSecond) {
    const Platform::LocalTime before = Platform::CurrentLocalTime();
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    const Platform::LocalTime after = Platform::CurrentLocalTime();
    EXPECT_NE(before.second, after.second);
}

TEST(CurrentLocalTime, CountsMillisecondsWithinTheSecond) {
    bool aboveZero = false;
    for (int times = 0; times < 1'000'000 && !aboveZero; ++times) {
        const std::uint32_t milliseconds = Platform::CurrentLocalTime().milliseconds;
        ASSERT_LT(milliseconds, 1000U);
        aboveZero = milliseconds > 0;
    }
    EXPECT_TRUE(aboveZero);
}

}  // namespace Quorvel::Testing
