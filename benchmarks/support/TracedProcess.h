#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Quorvel::Benchmarks {

// A system call that has returned. Arguments that the call does not have are unspecified.
struct SystemCall {
    int thread;  // the system's number for it
    long number;
    std::uint64_t arguments[6];
    std::int64_t result;
};

// What a traced program calls to tell the one that traces it where it is: a system call that
// fails and does nothing, with a number from 0 to 65535.
void Mark(std::uint16_t number);

// Runs an agent (tests/support/Agent.h) of this same program in a process of its own, and reports
// every system call of all its threads, and every mark, in the order in which they return. Works
// wherever ptrace does, which needs no privileges and no tool. Returns the exit code, -1 for a
// death by a signal. Throws std::system_error when the system does not allow it.
int Trace(const std::string& agent, const std::vector<std::string>& arguments,
          const std::function<void(const SystemCall&)>& onCall,
          const std::function<void(std::uint16_t)>& onMark);

}  // namespace Quorvel::Benchmarks
