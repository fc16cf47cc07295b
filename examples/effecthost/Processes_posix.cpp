#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "Failure.h"
#include "Processes.h"

namespace EffectHost {

namespace {

[[noreturn]] void ThrowStartFailure(const std::string& program, int error) {
    throw Failure(ExitCode::ProcessFailed,
                  fmt::format("can't start {}: {}", program, std::strerror(error)));
}

class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int number) : number_(number) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    ~Descriptor() { Close(); }

    int Get() const { return number_; }
    void Close() {
        if (number_ != -1) { close(std::exchange(number_, -1)); }
    }

private:
    int number_ = -1;
};

class FileActions {
public:
    FileActions() { posix_spawn_file_actions_init(&actions_); }
    FileActions(const FileActions&) = delete;
    FileActions& operator=(const FileActions&) = delete;
    ~FileActions() { posix_spawn_file_actions_destroy(&actions_); }

    void Redirect(int from, int to) { posix_spawn_file_actions_adddup2(&actions_, to, from); }
    const posix_spawn_file_actions_t* Get() const { return &actions_; }

private:
    posix_spawn_file_actions_t actions_;
};

// Creates a pipe that children do not inherit unless redirected to it. Returns an error number
// or 0.
int MakePipe(Descriptor& readEnd, Descriptor& writeEnd) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) { return errno; }
    readEnd = Descriptor(ends[0]);
    writeEnd = Descriptor(ends[1]);
    return 0;
}

int Spawn(pid_t& process, const FileActions& actions, std::string program,
          std::vector<std::string> arguments) {
    std::vector<char*> words{program.data()};
    for (std::string& argument : arguments) {
        words.push_back(argument.data());
    }
    words.push_back(nullptr);
    return posix_spawn(&process, program.c_str(), actions.Get(), nullptr, words.data(), environ);
}

}  // namespace

struct ChildProcess::State {
    pid_t process = -1;
    bool isRunning = false;
    int exitCode = -1;
    Descriptor input;   // what the child reads
    Descriptor output;  // what the child writes
};

ChildProcess::ChildProcess(const std::filesystem::path& program,
                           const std::vector<std::string>& arguments, Errors errors)
    : state_(std::make_unique<State>()) {
    Descriptor childInput;
    Descriptor childOutput;
    int error = MakePipe(childInput, state_->input);
    if (error == 0) { error = MakePipe(state_->output, childOutput); }
    if (error == 0) {
        FileActions actions;
        actions.Redirect(STDIN_FILENO, childInput.Get());
        actions.Redirect(STDOUT_FILENO, childOutput.Get());
        if (errors == Errors::Captured) { actions.Redirect(STDERR_FILENO, childOutput.Get()); }
        error = Spawn(state_->process, actions, program.string(), arguments);
    }
    if (error != 0) { ThrowStartFailure(program.string(), error); }
    state_->isRunning = true;
}

ChildProcess::ChildProcess(ChildProcess&&) noexcept = default;

ChildProcess::~ChildProcess() {
    if (state_) { StopAndWait(); }
}

unsigned long ChildProcess::Id() const {
    return static_cast<unsigned long>(state_->process);
}

std::size_t ChildProcess::Read(char* buffer, std::size_t size) {
    ssize_t count;
    do {
        count = read(state_->output.Get(), buffer, size);
    } while (count < 0 && errno == EINTR);
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}

void ChildProcess::RequestStop() {
    state_->input.Close();
}

// For a process killed by a signal, the exit code is the negative signal number.
int ChildProcess::Wait() {
    if (!std::exchange(state_->isRunning, false)) { return state_->exitCode; }
    int status = 0;
    pid_t ended;
    do {
        ended = waitpid(state_->process, &status, 0);
    } while (ended == -1 && errno == EINTR);
    if (ended == state_->process) {
        state_->exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    return state_->exitCode;
}

std::string DescribeEnd(int exitCode) {
    if (exitCode >= 0) { return fmt::format("ended with exit code {}", exitCode); }
    return fmt::format("was killed by signal {} ({})", -exitCode, strsignal(-exitCode));
}

std::filesystem::path ExecutablePath() {
    return std::filesystem::read_symlink("/proc/self/exe");
}

}  // namespace EffectHost
