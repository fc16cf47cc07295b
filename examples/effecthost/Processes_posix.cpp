#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Failure.h"
#include "Processes.h"

namespace EffectHost {

namespace {

[[noreturn]] void ThrowStartFailure(const std::string& program, int error) {
    throw Failure(ExitCode::ProcessFailed,
                  fmt::format("can't start {}: {}", program, std::strerror(error)));
}

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

}  // namespace

struct ChildProcess::State {
    pid_t process = -1;
    int output = -1;
    int exitCode = -1;

    ~State() {
        close(output);
        Wait();
    }

    void Wait() {
        int status = 0;
        if (process == -1 || waitpid(process, &status, 0) != process) {
            return;
        }
        process = -1;
        exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
};

ChildProcess::ChildProcess(const std::filesystem::path& program,
                           const std::vector<std::string>& arguments, Errors errors)
    : state_(std::make_unique<State>()) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        ThrowStartFailure(program.string(), errno);
    }
    state_->output = ends[0];

    FileActions actions;
    actions.Redirect(STDOUT_FILENO, ends[1]);
    if (errors == Errors::Captured) {
        actions.Redirect(STDERR_FILENO, ends[1]);
    }
    std::string name = program.string();
    std::vector<std::string> words = arguments;
    std::vector<char*> pointers{name.data()};
    for (std::string& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    const int error = posix_spawn(&state_->process, name.c_str(), actions.Get(), nullptr,
                                  pointers.data(), environ);
    close(ends[1]);
    if (error != 0) {
        state_->process = -1;
        ThrowStartFailure(name, error);
    }
}

ChildProcess::ChildProcess(ChildProcess&&) noexcept = default;
ChildProcess& ChildProcess::operator=(ChildProcess&&) noexcept = default;
ChildProcess::~ChildProcess() = default;

std::string ChildProcess::ReadOutput() {
    std::string text;
    char buffer[4096];
    for (;;) {
        const ssize_t count = read(state_->output, buffer, sizeof(buffer));
        if (count > 0) {
            text.append(buffer, static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            return text;
        }
    }
}

int ChildProcess::Wait() {
    state_->Wait();
    return state_->exitCode;
}

std::filesystem::path ExecutablePath() {
    return std::filesystem::read_symlink("/proc/self/exe");
}

bool StandardOutputIsTerminal() {
    return isatty(STDOUT_FILENO) == 1;
}

}  // namespace EffectHost
