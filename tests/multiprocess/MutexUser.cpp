#include "multiprocess/MutexUser.h"

#include "support/Agent.h"

namespace Quorvel::Testing {

namespace {

QUORVEL_AGENT(MutexObjectUser) {
    MutexObject mutex(arguments[0].c_str());
    AgentSend("ready");
    for (std::string command = AgentReceive(); !command.empty(); command = AgentReceive()) {
        if (command == "release") {
            mutex.Release();
            AgentSend("released");
        } else {
            AgentSend(
                std::to_string(mutex.Acquire(static_cast<std::uint32_t>(std::stoul(command)))));
        }
    }
    return 0;
}

}  // namespace

MutexUser::MutexUser(const std::string& name) : process_("MutexObjectUser", {name}) {
    process_.Receive();
}

std::uint32_t MutexUser::Acquire(std::uint32_t timeout) {
    return static_cast<std::uint32_t>(std::stoul(process_.Ask(std::to_string(timeout))));
}

void MutexUser::Release() {
    process_.Ask("release");
}

bool MutexUser::FindsItFree() {
    const bool free = Acquire() == kWaitAcquired;
    if (free) { Release(); }
    return free;
}

}  // namespace Quorvel::Testing
