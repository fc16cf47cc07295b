#include "platform/Process.h"

#include <gtest/gtest.h>

#include <string>

#include "support/Agent.h"
#include "support/ChildProcess.h"

namespace Quorvel::Testing {

namespace {

QUORVEL_AGENT(ProcessIdTeller) {
    AgentSend(std::to_string(Platform::CurrentProcessId()));
    AgentReceive();
    return 0;
}

}  // namespace

TEST(CurrentProcessId, IsTheSystemsIdOfTheProcess) {
    ChildProcess child("ProcessIdTeller");
    EXPECT_EQ(child.Receive(), std::to_string(child.Id()));
}

TEST(CurrentProcessId, DiffersBetweenProcesses) {
    ChildProcess first("ProcessIdTeller");
    ChildProcess second("ProcessIdTeller");
    const std::string firstId = first.Receive();
    const std::string secondId = second.Receive();
    const std::string ownId = std::to_string(Platform::CurrentProcessId());
    EXPECT_NE(firstId, secondId);
    EXPECT_NE(ownId, firstId);
    EXPECT_NE(ownId, secondId);
    EXPECT_EQ(ownId, std::to_string(Platform::CurrentProcessId()));
}

}  // namespace Quorvel::Testing
