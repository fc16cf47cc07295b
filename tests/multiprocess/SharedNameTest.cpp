#include "multiprocess/SharedName.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "multiprocess/Block.h"
#include "multiprocess/MutexUser.h"
#include "support/Agent.h"
#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

namespace {

// Proposes a name and sends the one in force. Arguments: the block, the name.
QUORVEL_AGENT(NameUser) {
    SharedName name;
    AgentSend(name.Agree(arguments[0], arguments[1]));
    AgentReceive();
    return 0;
}

class SharedNameTest : public ::testing::Test {
protected:
    const std::string block_ = UniqueName();
};

}  // namespace

TEST_F(SharedNameTest, IsTheFirstProposal) {
    SharedName first;
    SharedName second;
    EXPECT_EQ(first.Agree(block_, "one"), "one");
    EXPECT_EQ(second.Agree(block_, "another"), "one");
}

TEST_F(SharedNameTest, IsSharedWithOtherProcesses) {
    ChildProcess other("NameUser", {block_, "one"});
    ASSERT_EQ(other.Receive(), "one");
    SharedName name;
    EXPECT_EQ(name.Agree(block_, "another"), "one");
}

TEST_F(SharedNameTest, OutlivesItsProposer) {
    auto first =
        std::make_unique<ChildProcess>("NameUser", std::vector<std::string>{block_, "one"});
    ASSERT_EQ(first->Receive(), "one");
    SharedName second;
    second.Agree(block_, "two");
    first.reset();
    SharedName third;
    EXPECT_EQ(third.Agree(block_, "three"), "one");
}

TEST_F(SharedNameTest, EndsWithItsLastHolder) {
    auto first = std::make_unique<SharedName>();
    first->Agree(block_, "one");
    first.reset();
    SharedName second;
    EXPECT_EQ(second.Agree(block_, "two"), "two");
}

TEST_F(SharedNameTest, IsCutAt4095Bytes) {
    SharedName first;
    SharedName second;
    const std::string longest(4095, 'n');
    EXPECT_EQ(first.Agree(block_, longest + "more"), longest);
    EXPECT_EQ(second.Agree(block_, "short"), longest);
}

TEST_F(SharedNameTest, IsReadNoFurtherThanItsBlock) {
    Block block;
    block.whenCalled = [](void* bytes) { std::memset(bytes, 'x', 4096); };
    block.Initialize(block_, 4096);
    SharedName name;
    EXPECT_EQ(name.Agree(block_, "own"), std::string(4095, 'x'));
}

// A killed process leaves the mutex abandoned.
TEST_F(SharedNameTest, IsAgreedAfterADeathUnderItsMutex) {
    SharedName first;
    first.Agree(block_, "one");
    MutexUser killed(block_ + "_mutex");
    ASSERT_EQ(killed.Acquire(), kWaitAcquired);
    killed.Kill();
    SharedName second;
    EXPECT_EQ(second.Agree(block_, "two"), "one");
    EXPECT_TRUE(MutexUser(block_ + "_mutex").FindsItFree());
}

}  // namespace Quorvel::Testing
