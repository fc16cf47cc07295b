#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace EffectHost {

// Path of the running program.
std::filesystem::path ExecutablePath();

// A child process whose standard output this process reads. Closing its standard input asks it to
// stop. Its standard error is inherited, or captured with its output.
class ChildProcess {
public:
    enum class Errors { Inherited, Captured };

    // Starts a program. Throws Failure(ProcessFailed).
    ChildProcess(const std::filesystem::path& program, const std::vector<std::string>& arguments,
                 Errors errors = Errors::Inherited);
    ChildProcess(ChildProcess&&) noexcept;
    ChildProcess& operator=(ChildProcess&&) = delete;

    // Asks the process to stop and waits for it.
    ~ChildProcess();

    // The system's id of the process.
    unsigned long Id() const;

    // The next line that the process prints, without its line end; nothing after the last one.
    std::optional<std::string> ReadLine();

    // Everything that the process prints from now until it ends.
    std::string ReadOutput();

    // Closes the standard input of the process, which may treat that as a request to stop.
    void RequestStop();

    // Waits until the process has ended and returns its exit code; negative when it was killed.
    int Wait();

private:
    struct State;

    void StopAndWait();

    // Waits for bytes and returns the number read; 0 when there are no more.
    std::size_t Read(char* buffer, std::size_t size);

    std::unique_ptr<State> state_;
    std::string unread_;  // what was read after the line that ReadLine returned
};

// Describes how a process with this exit code ended: "ended with exit code 5", "was killed by
// signal 9 (Killed)".
std::string DescribeEnd(int exitCode);

}  // namespace EffectHost
