#pragma once

#include <string_view>

namespace Quorvel::Testing {

// The first argument of a program that a ChildProcess starts is this option followed by the agent's
// name; the other arguments are the agent's own.
constexpr std::string_view kAgentOption = "--agent=";

// Exit code of a program that has no agent with the requested name.
constexpr int kNoSuchAgent = 120;

}  // namespace Quorvel::Testing
