#include "tool/ToolTest.h"

// A build without Redis support.
namespace Quorvel::Tool {
namespace {

using ShareAbsentTest = ToolTest;

TEST_F(ShareAbsentTest, CommandsThatNeedRedisSayWhatToDoInstead) {
    for (const std::string command : {"push", "pull", "sync", "agent"}) {
        EXPECT_EQ(Run({command, cache_, "redis://host", "--every", "3", "--json"}), kFailed);
        EXPECT_EQ(out_, "");
        EXPECT_EQ(err_, "quorvel: \"" + command +
                            "\" needs Redis support, which this build of quorvel does not have; "
                            "use a build for Linux, or pass effects on with \"quorvel export\" and "
                            "\"quorvel import\"\n");
    }
}

}  // namespace
}  // namespace Quorvel::Tool
