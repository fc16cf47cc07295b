#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "platform/Clock.h"
#include "support/Agent.h"
#include "support/ChildProcess.h"

namespace Quorvel::Testing {

namespace {

constexpr int kMinutesOfDay = 24 * 60;

// Reads the time once, then sets a time zone and sends the minute of the day in it.
QUORVEL_AGENT(ZoneClock) {
    Platform::CurrentLocalTime();
    ::setenv("TZ", arguments[0].c_str(), 1);
    std::this_thread::sleep_for(
        std::chrono::milliseconds(1010));  // the zone is cached for a second
    const Platform::LocalTime time = Platform::CurrentLocalTime();
    AgentSend(std::to_string(time.hour * 60 + time.minute));
    return 0;
}

int MinuteIn(const std::string& zone) {
    return std::stoi(ChildProcess("ZoneClock", {zone}).Receive());
}

}  // namespace

TEST(CurrentLocalTimeOnPosix, FollowsTheTimeZone) {
    const int universal = MinuteIn("UTC0");
    const int east = MinuteIn("EAST-5:30");
    const int west = MinuteIn("WEST11");
    // A minute may end between two of the readings.
    EXPECT_LE((east - universal - 330 + kMinutesOfDay) % kMinutesOfDay, 1);
    EXPECT_LE((west - universal + 660 + kMinutesOfDay) % kMinutesOfDay, 1);
}

}  // namespace Quorvel::Testing
