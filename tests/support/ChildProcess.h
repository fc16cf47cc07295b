#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Quorvel::Testing {

// A separate process: the same test program, started again to run one agent (Agent.h). Its standard
// input and output are pipes to this process; it shares this process's standard error.
class ChildProcess {
public:
    // Starts an agent. Throws std::runtime_error if the system refuses.
    ChildProcess(const std::string& agent, const std::vector<std::string>& arguments = {});
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Kills the process if it still runs, and waits for it.
    ~ChildProcess();

    // The system's id of the process.
    std::uint32_t Id() const;

    // Sends a line; false if the process no longer reads.
    bool Send(const std::string& line);

    // Waits for the process's next line and returns it without its line break; empty at the end of
    // its output.
    std::string Receive();

    // Sends a line and waits for the answer.
    std::string Ask(const std::string& line) {
        Send(line);
        return Receive();
    }

    // Kills the process as kill -9 and TerminateProcess do, and waits for it.
    void Kill();

    // True if the process has ended.
    bool HasEnded();

    // Closes the process's input, waits until it ends, and returns its exit code; -1 if it was
    // killed.
    int Wait();

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace Quorvel::Testing
