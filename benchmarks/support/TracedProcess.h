#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Quorvel::Benchmarks {

// A system call that has returned. Arguments that the call does not have are unspecified.
struct SystemCall {
    int thread;  // the system's id of the thread
    long number;
    std::uint64_t arguments[6];
    std::int64_t result;
};

// Called by a traced program to mark its progress for the tracing program. Makes a system call that
// fails and does nothing, but carries a number from 0 to 65535.
void Mark(std::uint16_t number);

// Runs an agent (tests/support/Agent.h) of this program in a process of its own, and reports every
// system call of all its threads, and every mark, in the order in which they return. Uses ptrace,
// which needs no privileges and no tool. Returns the exit code, or -1 if a signal killed the
// process. Throws std::system_error when the system does not allow tracing.
int Trace(const std::string& agent, const std::vector<std::string>& arguments,
          const std::function<void(const SystemCall&)>& onCall,
          const std::function<void(std::uint16_t)>& onMark);

}  // namespace Quorvel::Benchmarks
