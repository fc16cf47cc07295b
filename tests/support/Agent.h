#pragma once

#include <string>
#include <vector>

namespace Quorvel::Testing {

// A function of the test program that a ChildProcess runs. It is found by name and talks to the
// test through standard input and output.
//
//     QUORVEL_AGENT(HoldMutex) {
//         MutexObject mutex(arguments[0].c_str());
//         AgentSend(std::to_string(mutex.Acquire(kWaitForever)));
//         AgentReceive();
//         return 0;
//     }
using AgentFunction = int (*)(const std::vector<std::string>& arguments);

// Sends the test a line, without buffering.
void AgentSend(const std::string& line);

// Waits for the test's next line; empty if the test has closed the pipe.
std::string AgentReceive();

// Registers a function under a name; returns true.
bool RegisterAgent(const char* name, AgentFunction function);

// Runs the agent that the command line names and sets the exit code; false if it names none.
bool RunRequestedAgent(int argc, char** argv, int& exitCode);

// NOLINTNEXTLINE(bugprone-macro-parentheses)
#define QUORVEL_AGENT(name)                                                               \
    static int name(const std::vector<std::string>& arguments);                           \
    static const bool name##Registered = ::Quorvel::Testing::RegisterAgent(#name, &name); \
    static int name([[maybe_unused]] const std::vector<std::string>& arguments)

}  // namespace Quorvel::Testing
