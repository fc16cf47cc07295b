#include "support/Agent.h"

#include <iostream>
#include <map>
#include <string_view>

#include "support/AgentCommandLine.h"

namespace Quorvel::Testing {

namespace {

std::map<std::string, AgentFunction, std::less<>>& Agents() {
    static std::map<std::string, AgentFunction, std::less<>> agents;
    return agents;
}

}  // namespace

void AgentSend(const std::string& line) {
    std::cout << line << '\n' << std::flush;
}

std::string AgentReceive() {
    std::string line;
    std::getline(std::cin, line);
    if (!line.empty() && line.back() == '\r') { line.pop_back(); }
    return line;
}

bool RegisterAgent(const char* name, AgentFunction function) {
    Agents()[name] = function;
    return true;
}

bool RunRequestedAgent(int argc, char** argv, int& exitCode) {
    if (argc < 2 || !std::string_view(argv[1]).starts_with(kAgentOption)) { return false; }
    const std::string_view name = std::string_view(argv[1]).substr(kAgentOption.size());
    const auto agent = Agents().find(name);
    if (agent == Agents().end()) {
        std::cerr << "no agent is named " << name << '\n';
        exitCode = kNoSuchAgent;
        return true;
    }
    exitCode = agent->second({argv + 2, argv + argc});
    return true;
}

}  // namespace Quorvel::Testing
