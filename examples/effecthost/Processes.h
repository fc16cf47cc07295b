#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace EffectHost {

// The file of the running program.
std::filesystem::path ExecutablePath();

// Whether somebody watches standard output.
bool StandardOutputIsTerminal();

// Another process, whose standard output comes to us. Its standard error goes where ours goes, or
// to us as well.
class ChildProcess {
public:
    enum class Errors { Inherited, Captured };

    // Starts a program. Throws Failure(ProcessFailed).
    ChildProcess(const std::filesystem::path& program, const std::vector<std::string>& arguments,
                 Errors errors = Errors::Inherited);
    ChildProcess(ChildProcess&&) noexcept;
    ChildProcess& operator=(ChildProcess&&) noexcept;

    // Waits for the process.
    ~ChildProcess();

    // Everything that the process prints until it ends.
    std::string ReadOutput();

    // Waits until the process has ended and returns its exit code; -1 when it was killed.
    int Wait();

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace EffectHost
