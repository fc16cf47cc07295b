#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "platform/Clock.h"
#include "support/Agent.h"
#include "support/ChildProcess.h"

namespace Quorvel::Testing {

namespace {

constexpr int kMinutesOfDay = 24 * 60;

// Tells the minute of the day in each time zone of its arguments.
QUORVEL_AGENT(ZoneClock) {
    for (const std::string& zone : arguments) {
        ::setenv("TZ", zone.c_str(), 1);
        ::tzset();
        const Platform::LocalTime time = Platform::CurrentLocalTime();
        AgentSend(std::to_string(time.hour * 60 + time.minute));
    }
    return 0;
}

}  // namespace

TEST(CurrentLocalTimeOnPosix, IsTheTimeOfTheTimeZone) {
    ChildProcess child("ZoneClock", {"UTC0", "EAST-5:30", "WEST11"});
    const int universal = std::stoi(child.Receive());
    const int east = std::stoi(child.Receive());
    const int west = std::stoi(child.Receive());
    // A minute may end between two of the readings.
    EXPECT_LE((east - universal - 330 + kMinutesOfDay) % kMinutesOfDay, 1);
    EXPECT_LE((west - universal + 660 + kMinutesOfDay) % kMinutesOfDay, 1);
}

}  // namespace Quorvel::Testing
