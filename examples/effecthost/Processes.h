#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace EffectHost {

// The file of the running program.
std::filesystem::path ExecutablePath();

// Another process, whose standard output comes to us, and to which our end of its standard input
// tells that it should go on. Its standard error goes where ours goes, or to us as well.
class ChildProcess {
public:
    enum class Errors { Inherited, Captured };

    // Starts a program. Throws Failure(ProcessFailed).
    ChildProcess(const std::filesystem::path& program, const std::vector<std::string>& arguments,
                 Errors errors = Errors::Inherited);
    ChildProcess(ChildProcess&&) noexcept;
    ChildProcess& operator=(ChildProcess&&) = delete;

    // Asks the process to stop, and waits for it.
    ~ChildProcess();

    // The system's number for the process.
    unsigned long Id() const;

    // The next line that the process prints, without its line end; nothing when there are no more.
    std::optional<std::string> ReadLine();

    // Everything that the process still prints until it ends.
    std::string ReadOutput();

    // Closes the standard input of the process, which may take that for a request to stop.
    void RequestStop();

    // Waits until the process has ended and returns its exit code; a negative one when it was
    // killed.
    int Wait();

private:
    struct State;

    void StopAndWait();

    // Waits for bytes and returns how many came; none when there are no more.
    std::size_t Read(char* buffer, std::size_t size);

    std::unique_ptr<State> state_;
    std::string unread_;  // what came behind the line that ReadLine returned
};

// How a process has ended that returned this exit code: "ended with exit code 5", "was killed by
// signal 9 (Killed)".
std::string DescribeEnd(int exitCode);

}  // namespace EffectHost
