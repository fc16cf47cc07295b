#include "support/TracedProcess.h"

#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <map>
#include <system_error>

#include "support/AgentCommandLine.h"

namespace Quorvel::Benchmarks {

namespace {

// Higher than any process id.
constexpr std::uint64_t kMarkBase = 0x7FFF0000;
constexpr int kCallStop = SIGTRAP | 0x80;
constexpr int kCannotStart = 126;

[[noreturn]] void Refuse(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

pid_t StartStopped(const std::vector<std::string>& words) {
    std::vector<char*> argv;
    for (const std::string& word : words) {
        argv.push_back(const_cast<char*>(word.c_str()));
    }
    argv.push_back(nullptr);
    const pid_t child = ::fork();
    if (child < 0) { Refuse("fork"); }
    if (child == 0) {
        if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0) {
            ::raise(SIGSTOP);
            ::execv("/proc/self/exe", argv.data());
        }
        ::_exit(kCannotStart);
    }
    int status = 0;
    if (::waitpid(child, &status, 0) != child || !WIFSTOPPED(status)) {
        errno = EPERM;
        Refuse("ptrace");
    }
    constexpr long kOptions =
        PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL;
    if (::ptrace(PTRACE_SETOPTIONS, child, nullptr, reinterpret_cast<void*>(kOptions)) != 0) {
        Refuse("ptrace");
    }
    return child;
}

// Keeps the current call of each thread of the traced process.
class CallReader {
public:
    CallReader(const std::function<void(const SystemCall&)>& onCall,
               const std::function<void(std::uint16_t)>& onMark)
        : onCall_(onCall), onMark_(onMark) {}

    void Stopped(pid_t thread) {
        __ptrace_syscall_info info{};
        if (::ptrace(PTRACE_GET_SYSCALL_INFO, thread, reinterpret_cast<void*>(sizeof info), &info) <
            0) {
            return;
        }
        SystemCall& call = calls_[thread];
        call.thread = thread;
        if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
            call.number = static_cast<long>(info.entry.nr);
            for (int index = 0; index < 6; ++index) {
                call.arguments[index] = info.entry.args[index];
            }
        } else if (info.op == PTRACE_SYSCALL_INFO_EXIT) {
            call.result = info.exit.rval;
            const std::uint64_t mark = call.arguments[0] - kMarkBase;
            if (call.number == SYS_getpgid && mark <= 0xFFFF) {
                onMark_(static_cast<std::uint16_t>(mark));
            } else {
                onCall_(call);
            }
        }
    }

private:
    std::map<pid_t, SystemCall> calls_;
    const std::function<void(const SystemCall&)>& onCall_;
    const std::function<void(std::uint16_t)>& onMark_;
};

}  // namespace

void Mark(std::uint16_t number) {
    ::syscall(SYS_getpgid, kMarkBase + number);
}

int Trace(const std::string& agent, const std::vector<std::string>& arguments,
          const std::function<void(const SystemCall&)>& onCall,
          const std::function<void(std::uint16_t)>& onMark) {
    std::vector<std::string> words{"agent", std::string(Testing::kAgentOption) + agent};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const pid_t child = StartStopped(words);
    CallReader reader(onCall, onMark);
    ::ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
    for (;;) {
        int status = 0;
        const pid_t thread = ::waitpid(-1, &status, __WALL);
        if (thread < 0) { Refuse("waitpid"); }
        if (WIFSTOPPED(status)) {
            long signal = 0;
            if (WSTOPSIG(status) == kCallStop) {
                reader.Stopped(thread);
            } else if (WSTOPSIG(status) != SIGTRAP && WSTOPSIG(status) != SIGSTOP) {
                signal = WSTOPSIG(status);
            }
            ::ptrace(PTRACE_SYSCALL, thread, nullptr, reinterpret_cast<void*>(signal));
        } else if (thread == child) {
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
    }
}

}  // namespace Quorvel::Benchmarks
