#include <csignal>
#include <iostream>

#include "support/Agent.h"
#include "support/ChildProcess.h"
#include "tool/ToolTest.h"
#include "tools/quorvel/Terminal.h"

// On Windows, Ctrl-C goes to all processes of a console and can't be sent to one.
namespace Quorvel::Tool {
namespace {

using Testing::ChildProcess;

QUORVEL_AGENT(WatchCache) {
    CatchStopRequests();
    const char* const argv[] = {"quorvel", "watch", arguments[0].c_str(), "--interval", "3600"};
    return RunProgram(5, argv, {std::cin, std::cout, std::cerr});
}

class WatchStopTest : public ToolTest {};

TEST_F(WatchStopTest, CtrlCEndsItWithoutAnError) {
    MakeCache(ThreeEffects());
    for (const int signal : {SIGINT, SIGTERM}) {
        ChildProcess watch("WatchCache", {cache_});
        EXPECT_THAT(watch.Receive(), testing::EndsWith("watching"));
        ASSERT_EQ(::kill(static_cast<pid_t>(watch.Id()), signal), 0);
        EXPECT_EQ(watch.Wait(), kDone);
    }
}

}  // namespace
}  // namespace Quorvel::Tool
