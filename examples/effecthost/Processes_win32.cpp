#include <windows.h>

#include <fmt/format.h>

#include "Failure.h"
#include "Processes.h"

namespace EffectHost {

namespace {

constexpr DWORD kLongestPath = 32768;

struct CloseKernelHandle {
    void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using Handle = std::unique_ptr<void, CloseKernelHandle>;

[[noreturn]] void ThrowStartFailure(const std::string& program) {
    throw Failure(ExitCode::ProcessFailed,
                  fmt::format("can't start {} (error {})", program, GetLastError()));
}

// Quotes a word so that the child's start-up code takes it apart again: backslashes are doubled
// where they stand before a quote, and nowhere else.
std::string Quote(const std::string& word) {
    std::string quoted = "\"";
    std::size_t backslashes = 0;
    for (const char c : word) {
        if (c == '"') {
            quoted.append(backslashes + 1, '\\');
        }
        backslashes = c == '\\' ? backslashes + 1 : 0;
        quoted += c;
    }
    return quoted.append(backslashes, '\\') + '"';
}

}  // namespace

struct ChildProcess::State {
    Handle process;
    Handle output;

    ~State() {
        output.reset();
        Wait();
    }

    int Wait() {
        DWORD exitCode = 0;
        if (!process || WaitForSingleObject(process.get(), INFINITE) != WAIT_OBJECT_0 ||
            !GetExitCodeProcess(process.get(), &exitCode)) {
            return -1;
        }
        return static_cast<int>(exitCode);
    }
};

ChildProcess::ChildProcess(const std::filesystem::path& program,
                           const std::vector<std::string>& arguments, Errors errors)
    : state_(std::make_unique<State>()) {
    SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    HANDLE readEnd = nullptr;
    HANDLE writeEnd = nullptr;
    if (!CreatePipe(&readEnd, &writeEnd, &inheritable, 0)) {
        ThrowStartFailure(program.string());
    }
    state_->output.reset(readEnd);
    const Handle input(writeEnd);
    SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);

    std::string commandLine = Quote(program.string());
    for (const std::string& argument : arguments) {
        commandLine += ' ' + Quote(argument);
    }
    STARTUPINFOA startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = writeEnd;
    startup.hStdError = errors == Errors::Captured ? writeEnd : GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION process{};
    if (!CreateProcessA(program.string().c_str(), commandLine.data(), nullptr, nullptr, TRUE, 0,
                        nullptr, nullptr, &startup, &process)) {
        ThrowStartFailure(program.string());
    }
    CloseHandle(process.hThread);
    state_->process.reset(process.hProcess);
}

ChildProcess::ChildProcess(ChildProcess&&) noexcept = default;
ChildProcess& ChildProcess::operator=(ChildProcess&&) noexcept = default;
ChildProcess::~ChildProcess() = default;

std::string ChildProcess::ReadOutput() {
    std::string text;
    char buffer[4096];
    DWORD count = 0;
    while (ReadFile(state_->output.get(), buffer, sizeof(buffer), &count, nullptr) && count > 0) {
        text.append(buffer, count);
    }
    return text;
}

int ChildProcess::Wait() {
    return state_->Wait();
}

std::filesystem::path ExecutablePath() {
    std::wstring path(kLongestPath, L'\0');
    path.resize(GetModuleFileNameW(nullptr, path.data(), kLongestPath));
    return path;
}

bool StandardOutputIsTerminal() {
    DWORD mode = 0;
    return GetConsoleMode(GetStdHandle(STD_OUTPUT_HANDLE), &mode) != 0;
}

}  // namespace EffectHost
