#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "support/AgentCommandLine.h"
#include "support/ChildProcess.h"

namespace Quorvel::Testing {

namespace {

// Owns a descriptor.
class Descriptor {
public:
    Descriptor() = default;
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { Close(); }

    int Get() const { return descriptor_; }
    void Set(int descriptor) {
        Close();
        descriptor_ = descriptor;
    }
    void Close() {
        if (descriptor_ >= 0) { ::close(std::exchange(descriptor_, -1)); }
    }

private:
    int descriptor_ = -1;
};

[[noreturn]] void Refuse(int error, const char* what) {
    throw std::system_error(error, std::generic_category(), what);
}

void MakePipe(Descriptor& reader, Descriptor& writer) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) { Refuse(errno, "pipe"); }
    reader.Set(ends[0]);
    writer.Set(ends[1]);
}

// Settings for posix_spawn: the pipes, and the default action for SIGPIPE, which the test ignores.
class SpawnSettings {
public:
    SpawnSettings(int input, int output) {
        ::posix_spawn_file_actions_init(&actions_);
        ::posix_spawn_file_actions_adddup2(&actions_, input, STDIN_FILENO);
        ::posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO);
        ::posix_spawnattr_init(&attributes_);
        sigset_t signals;
        ::sigemptyset(&signals);
        ::sigaddset(&signals, SIGPIPE);
        ::posix_spawnattr_setsigdefault(&attributes_, &signals);
        ::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF);
    }
    SpawnSettings(const SpawnSettings&) = delete;
    SpawnSettings& operator=(const SpawnSettings&) = delete;
    ~SpawnSettings() {
        ::posix_spawnattr_destroy(&attributes_);
        ::posix_spawn_file_actions_destroy(&actions_);
    }

    const posix_spawn_file_actions_t* Actions() const { return &actions_; }
    const posix_spawnattr_t* Attributes() const { return &attributes_; }

private:
    posix_spawn_file_actions_t actions_;
    posix_spawnattr_t attributes_;
};

}  // namespace

struct ChildProcess::State {
    pid_t process = -1;
    bool running = false;
    int exitCode = -1;
    Descriptor input;   // what the child reads
    Descriptor output;  // what the child writes
    std::string received;

    void Reap(int options = 0) {
        if (!running) { return; }
        int status = 0;
        pid_t ended;
        while ((ended = ::waitpid(process, &status, options)) < 0 && errno == EINTR) {}
        if (ended != 0) {
            running = false;
            exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
    }
};

ChildProcess::ChildProcess(const std::string& agent, const std::vector<std::string>& arguments)
    : state_(std::make_unique<State>()) {
    ::signal(SIGPIPE, SIG_IGN);
    Descriptor childInput;
    Descriptor childOutput;
    MakePipe(childInput, state_->input);
    MakePipe(state_->output, childOutput);

    std::vector<std::string> words{"agent", std::string(kAgentOption) + agent};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);

    const SpawnSettings settings(childInput.Get(), childOutput.Get());
    // The link's target, since under valgrind the link itself would start valgrind without a
    // program.
    const std::string program = std::filesystem::read_symlink("/proc/self/exe").string();
    const int error = ::posix_spawn(&state_->process, program.c_str(), settings.Actions(),
                                    settings.Attributes(), argv.data(), environ);
    if (error != 0) { Refuse(error, "posix_spawn"); }
    state_->running = true;
}

ChildProcess::~ChildProcess() {
    Kill();
}

std::uint32_t ChildProcess::Id() const {
    return static_cast<std::uint32_t>(state_->process);
}

bool ChildProcess::Send(const std::string& line) {
    const std::string text = line + '\n';
    std::size_t sent = 0;
    while (sent < text.size()) {
        const ssize_t moved = ::write(state_->input.Get(), text.data() + sent, text.size() - sent);
        if (moved < 0 && errno != EINTR) { return false; }
        sent += moved < 0 ? 0 : static_cast<std::size_t>(moved);
    }
    return true;
}

std::string ChildProcess::Receive() {
    std::string& received = state_->received;
    std::size_t end;
    while ((end = received.find('\n')) == std::string::npos) {
        char buffer[4096];
        const ssize_t moved = ::read(state_->output.Get(), buffer, sizeof buffer);
        if (moved < 0 && errno == EINTR) { continue; }
        if (moved <= 0) { return std::exchange(received, {}); }
        received.append(buffer, static_cast<std::size_t>(moved));
    }
    std::string line = received.substr(0, end);
    received.erase(0, end + 1);
    return line;
}

void ChildProcess::Kill() {
    if (state_->running) { ::kill(state_->process, SIGKILL); }
    state_->Reap();
}

bool ChildProcess::HasEnded() {
    state_->Reap(WNOHANG);
    return !state_->running;
}

int ChildProcess::Wait() {
    state_->input.Close();
    state_->Reap();
    return state_->exitCode;
}

}  // namespace Quorvel::Testing
