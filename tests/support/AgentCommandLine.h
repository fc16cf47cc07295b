#pragma once

#include <string_view>

namespace Quorvel::Testing {

// What a ChildProcess and the program it starts agree on: the first argument is this option with
// the agent's name behind it, the others are the agent's own.
constexpr std::string_view kAgentOption = "--agent=";

// Exit code of a program that was asked for an agent it does not have.
constexpr int kNoSuchAgent = 120;

}  // namespace Quorvel::Testing
