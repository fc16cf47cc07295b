#include <windows.h>

#include <fmt/format.h>

#include "Failure.h"
#include "Paths.h"
#include "Processes.h"
#include "WideText.h"

namespace EffectHost {

namespace {

constexpr DWORD kLongestPath = 32768;

struct CloseKernelHandle {
    void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using Handle = std::unique_ptr<void, CloseKernelHandle>;

[[noreturn]] void ThrowStartFailure(const std::filesystem::path& program) {
    const DWORD error = GetLastError();
    throw Failure(ExitCode::ProcessFailed,
                  fmt::format("can't start {} (error {})", ToText(program), error));
}

bool MakePipe(Handle& readEnd, Handle& writeEnd) {
    HANDLE ends[2];
    if (!CreatePipe(&ends[0], &ends[1], nullptr, 0)) { return false; }
    readEnd.reset(ends[0]);
    writeEnd.reset(ends[1]);
    return true;
}

bool MakeInheritable(const Handle& handle) {
    return SetHandleInformation(handle.get(), HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT) != 0;
}

// Quotes a word for the child's start-up code: backslashes are doubled before a quote and nowhere
// else.
std::string Quote(const std::string& word) {
    std::string quoted = "\"";
    std::size_t backslashes = 0;
    for (const char c : word) {
        if (c == '"') { quoted.append(backslashes + 1, '\\'); }
        backslashes = c == '\\' ? backslashes + 1 : 0;
        quoted += c;
    }
    return quoted.append(backslashes, '\\') + '"';
}

std::wstring CommandLine(const std::filesystem::path& program,
                         const std::vector<std::string>& arguments) {
    std::string line = Quote(ToText(program));
    for (const std::string& argument : arguments) {
        line += ' ' + Quote(argument);
    }
    return ToWide(line, CP_UTF8);
}

}  // namespace

struct ChildProcess::State {
    Handle process;
    Handle input;   // what the child reads
    Handle output;  // what the child writes
};

ChildProcess::ChildProcess(const std::filesystem::path& program,
                           const std::vector<std::string>& arguments, Errors errors)
    : state_(std::make_unique<State>()) {
    Handle childInput;
    Handle childOutput;
    if (!MakePipe(childInput, state_->input) || !MakePipe(state_->output, childOutput) ||
        !MakeInheritable(childInput) || !MakeInheritable(childOutput)) {
        ThrowStartFailure(program);
    }
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = childInput.get();
    startup.hStdOutput = childOutput.get();
    startup.hStdError =
        errors == Errors::Captured ? childOutput.get() : GetStdHandle(STD_ERROR_HANDLE);
    std::wstring commandLine = CommandLine(program, arguments);
    PROCESS_INFORMATION process{};
    if (!CreateProcessW(program.c_str(), commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr,
                        nullptr, &startup, &process)) {
        ThrowStartFailure(program);
    }
    CloseHandle(process.hThread);
    state_->process.reset(process.hProcess);
}

ChildProcess::ChildProcess(ChildProcess&&) noexcept = default;

ChildProcess::~ChildProcess() {
    if (state_) { StopAndWait(); }
}

unsigned long ChildProcess::Id() const {
    return GetProcessId(state_->process.get());
}

std::size_t ChildProcess::Read(char* buffer, std::size_t size) {
    DWORD count = 0;
    const BOOL isRead =
        ReadFile(state_->output.get(), buffer, static_cast<DWORD>(size), &count, nullptr);
    return isRead ? count : 0;
}

void ChildProcess::RequestStop() {
    state_->input.reset();
}

int ChildProcess::Wait() {
    DWORD exitCode = 0;
    if (WaitForSingleObject(state_->process.get(), INFINITE) != WAIT_OBJECT_0 ||
        !GetExitCodeProcess(state_->process.get(), &exitCode)) {
        return -1;
    }
    return static_cast<int>(exitCode);
}

// Only crashed processes have negative codes.
std::string DescribeEnd(int exitCode) {
    if (exitCode >= 0) { return fmt::format("ended with exit code {}", exitCode); }
    return fmt::format("was killed (code {:#x})", static_cast<unsigned int>(exitCode));
}

std::filesystem::path ExecutablePath() {
    std::wstring path(kLongestPath, L'\0');
    path.resize(GetModuleFileNameW(nullptr, path.data(), kLongestPath));
    return path;
}

}  // namespace EffectHost
