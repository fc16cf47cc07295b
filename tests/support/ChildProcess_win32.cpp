#include <windows.h>

#include <system_error>
#include <utility>

#include "support/AgentCommandLine.h"
#include "support/ChildProcess.h"

namespace Quorvel::Testing {

namespace {

constexpr UINT kKilledExitCode = static_cast<UINT>(-1);
constexpr int kStartAttempts = 5;
constexpr DWORD kStartPauseMilliseconds = 200;

class Handle {
public:
    Handle() = default;
    explicit Handle(HANDLE handle) : handle_(handle) {}
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() { Close(); }

    HANDLE Get() const { return handle_; }
    void Set(HANDLE handle) {
        Close();
        handle_ = handle;
    }
    void Close() {
        if (handle_) { ::CloseHandle(std::exchange(handle_, nullptr)); }
    }

private:
    HANDLE handle_ = nullptr;
};

[[noreturn]] void Refuse(const char* what) {
    throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(), what);
}

void MakePipe(Handle& reader, Handle& writer) {
    HANDLE readEnd;
    HANDLE writeEnd;
    if (!::CreatePipe(&readEnd, &writeEnd, nullptr, 0)) { Refuse("CreatePipe"); }
    reader.Set(readEnd);
    writer.Set(writeEnd);
}

void MakeInheritable(const Handle& handle) {
    if (!::SetHandleInformation(handle.Get(), HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT)) {
        Refuse("SetHandleInformation");
    }
}

// An inheritable copy of this process's standard error; null if it has none.
HANDLE CopyStandardError() {
    HANDLE copy = nullptr;
    ::DuplicateHandle(::GetCurrentProcess(), ::GetStdHandle(STD_ERROR_HANDLE),
                      ::GetCurrentProcess(), &copy, 0, TRUE, DUPLICATE_SAME_ACCESS);
    return copy;
}

// Makes a child inherit only these handles.
class InheritedHandles {
public:
    explicit InheritedHandles(std::vector<HANDLE> handles) : handles_(std::move(handles)) {
        SIZE_T bytes = 0;
        ::InitializeProcThreadAttributeList(nullptr, 1, 0, &bytes);
        storage_.resize(bytes);
        if (!::InitializeProcThreadAttributeList(List(), 1, 0, &bytes)) {
            Refuse("InitializeProcThreadAttributeList");
        }
        if (!::UpdateProcThreadAttribute(List(), 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST,
                                         handles_.data(), handles_.size() * sizeof(HANDLE), nullptr,
                                         nullptr)) {
            Refuse("UpdateProcThreadAttribute");
        }
    }
    InheritedHandles(const InheritedHandles&) = delete;
    InheritedHandles& operator=(const InheritedHandles&) = delete;
    ~InheritedHandles() { ::DeleteProcThreadAttributeList(List()); }

    LPPROC_THREAD_ATTRIBUTE_LIST List() {
        return reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(storage_.data());
    }

private:
    std::vector<HANDLE> handles_;
    std::vector<char> storage_;
};

std::string ProgramPath() {
    std::string path(32768, '\0');
    path.resize(::GetModuleFileNameA(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return path;
}

// Quotes an argument for the child's runtime library: adds quotes around it, a backslash before
// each quote in it, and doubles backslashes before a quote.
std::string Quoted(const std::string& argument) {
    std::string quoted = "\"";
    std::size_t backslashes = 0;
    for (const char next : argument) {
        if (next == '"') { quoted.append(backslashes + 1, '\\'); }
        backslashes = next == '\\' ? backslashes + 1 : 0;
        quoted += next;
    }
    quoted.append(backslashes, '\\');
    return quoted + '"';
}

}  // namespace

struct ChildProcess::State {
    Handle process;
    Handle input;   // what the child reads
    Handle output;  // what the child writes
    std::string received;
};

ChildProcess::ChildProcess(const std::string& agent, const std::vector<std::string>& arguments)
    : state_(std::make_unique<State>()) {
    Handle childInput;
    Handle childOutput;
    MakePipe(childInput, state_->input);
    MakePipe(state_->output, childOutput);
    MakeInheritable(childInput);
    MakeInheritable(childOutput);
    const Handle childError(CopyStandardError());
    std::vector<HANDLE> inherited{childInput.Get(), childOutput.Get()};
    if (childError.Get()) { inherited.push_back(childError.Get()); }
    InheritedHandles attributes(std::move(inherited));

    const std::string program = ProgramPath();
    std::string commandLine = Quoted(program) + ' ' + Quoted(std::string(kAgentOption) + agent);
    for (const std::string& argument : arguments) {
        commandLine += ' ' + Quoted(argument);
    }

    STARTUPINFOEXA start{};
    start.StartupInfo.cb = sizeof start;
    start.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    start.StartupInfo.hStdInput = childInput.Get();
    start.StartupInfo.hStdOutput = childOutput.Get();
    start.StartupInfo.hStdError = childError.Get();
    start.lpAttributeList = attributes.List();
    PROCESS_INFORMATION process{};
    int attempts = 1;
    while (!::CreateProcessA(program.c_str(), commandLine.data(), nullptr, nullptr, TRUE,
                             EXTENDED_STARTUPINFO_PRESENT, nullptr, nullptr, &start.StartupInfo,
                             &process)) {
        // Wine on a loaded machine sometimes gives up with this error, and the next attempt works.
        if (::GetLastError() != ERROR_INTERNAL_ERROR || attempts == kStartAttempts) {
            Refuse("CreateProcess");
        }
        ::Sleep(kStartPauseMilliseconds);
        ++attempts;
    }
    ::CloseHandle(process.hThread);
    state_->process.Set(process.hProcess);
}

ChildProcess::~ChildProcess() {
    Kill();
}

std::uint32_t ChildProcess::Id() const {
    return ::GetProcessId(state_->process.Get());
}

bool ChildProcess::Send(const std::string& line) {
    const std::string text = line + '\n';
    std::size_t sent = 0;
    while (sent < text.size()) {
        DWORD moved = 0;
        if (!::WriteFile(state_->input.Get(), text.data() + sent,
                         static_cast<DWORD>(text.size() - sent), &moved, nullptr)) {
            return false;
        }
        sent += moved;
    }
    return true;
}

std::string ChildProcess::Receive() {
    std::string& received = state_->received;
    std::size_t end;
    while ((end = received.find('\n')) == std::string::npos) {
        char buffer[4096];
        DWORD moved = 0;
        if (!::ReadFile(state_->output.Get(), buffer, sizeof buffer, &moved, nullptr) ||
            moved == 0) {
            return std::exchange(received, {});
        }
        received.append(buffer, moved);
    }
    std::string line = received.substr(0, end);
    received.erase(0, end + 1);
    if (!line.empty() && line.back() == '\r') { line.pop_back(); }
    return line;
}

void ChildProcess::Kill() {
    ::TerminateProcess(state_->process.Get(), kKilledExitCode);
    ::WaitForSingleObject(state_->process.Get(), INFINITE);
}

bool ChildProcess::HasEnded() {
    return ::WaitForSingleObject(state_->process.Get(), 0) == WAIT_OBJECT_0;
}

int ChildProcess::Wait() {
    state_->input.Close();
    ::WaitForSingleObject(state_->process.Get(), INFINITE);
    DWORD exitCode = kKilledExitCode;
    ::GetExitCodeProcess(state_->process.Get(), &exitCode);
    return static_cast<int>(exitCode);
}

}  // namespace Quorvel::Testing
