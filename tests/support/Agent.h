#pragma once

#include <string>
#include <vector>

namespace Quorvel::Testing {

// What a ChildProcess runs: a function of the test program, found by name, that talks to the test
// through standard input and output.
//
//     QUORVEL_AGENT(HoldMutex) {
//         MutexObject mutex(arguments[0].c_str());
//         AgentSend(std::to_string(mutex.Acquire(kWaitForever)));
//         AgentReceive();
//         return 0;
//     }
using AgentFunction = int (*)(const std::vector<std::string>& arguments);

// Sends the test a line at once.
void AgentSend(const std::string& line);

// Waits for the test's next line; empty when the test has closed the pipe.
std::string AgentReceive();

// Makes a function known by name; returns true.
bool RegisterAgent(const char* name, AgentFunction function);

// Runs the agent that the command line asks for and returns true with its exit code; false when it
// asks for none.
bool RunRequestedAgent(int argc, char** argv, int& exitCode);

// NOLINTNEXTLINE(bugprone-macro-parentheses)
#define QUORVEL_AGENT(name)                                                               \
    static int name(const std::vector<std::string>& arguments);                           \
    static const bool name##Registered = ::Quorvel::Testing::RegisterAgent(#name, &name); \
    static int name([[maybe_unused]] const std::vector<std::string>& arguments)

}  // namespace Quorvel::Testing
