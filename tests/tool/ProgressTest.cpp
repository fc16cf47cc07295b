#include "tools/quorvel/Progress.h"

#include <chrono>
#include <thread>

#include "tool/ToolTest.h"

namespace Quorvel::Tool {
namespace {

// What is shown of work that takes longer than half a second.
std::string Shown(bool isTerminal, bool isQuiet, bool isJson) {
    std::istringstream in;
    std::ostringstream out;
    std::ostringstream err;
    Session session{in, out, err};
    session.isErrTerminal = isTerminal;
    session.quiet = isQuiet;
    session.json = isJson;
    {
        Progress progress(session, "working", 4);
        progress.Add();
        EXPECT_EQ(err.str(), "");
        std::this_thread::sleep_for(std::chrono::milliseconds(550));
        progress.Add();
        session.Warn("a message");
    }
    EXPECT_EQ(out.str(), "");
    return err.str();
}

TEST(ProgressTest, IsShownOnATerminalAndRemovedAtTheEnd) {
    EXPECT_EQ(Shown(true, false, false), "\rworking [" + std::string(20, '#') +
                                             std::string(20, '.') +
                                             "]  50 %\r\x1B[Ka message\n\r\x1B[K");
}

TEST(ProgressTest, IsNotShownElsewhere) {
    EXPECT_EQ(Shown(false, false, false), "a message\n");
    EXPECT_EQ(Shown(true, true, false), "\r\x1B[Ka message\n");
    EXPECT_EQ(Shown(true, false, true), "\r\x1B[Ka message\n");
}

}  // namespace
}  // namespace Quorvel::Tool
