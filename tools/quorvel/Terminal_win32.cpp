#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "tools/quorvel/Terminal.h"

namespace Quorvel::Tool {
namespace {

volatile std::sig_atomic_t isStopRequested = 0;

extern "C" void RequestStop(int signal) {
    isStopRequested = 1;
    std::signal(signal, SIG_DFL);
}

// Unlike _isatty, false for NUL.
bool IsTerminal(DWORD id) {
    DWORD mode = 0;
    return ::GetConsoleMode(::GetStdHandle(id), &mode) != 0;
}

// Lasts until the program ends, since the console outlives it.
void MakeConsoleUtf8() {
    static const UINT previous = ::GetConsoleOutputCP();
    if (::SetConsoleOutputCP(CP_UTF8) != 0) {
        std::atexit([] { ::SetConsoleOutputCP(previous); });
    }
}

}  // namespace

bool IsOutputTerminal() {
    return IsTerminal(STD_OUTPUT_HANDLE);
}

bool IsErrorTerminal() {
    return IsTerminal(STD_ERROR_HANDLE);
}

TerminalSize OutputSize() {
    CONSOLE_SCREEN_BUFFER_INFO info;
    if (::GetConsoleScreenBufferInfo(::GetStdHandle(STD_OUTPUT_HANDLE), &info) == 0) { return {}; }
    const auto columns = info.srWindow.Right - info.srWindow.Left + 1;
    const auto lines = info.srWindow.Bottom - info.srWindow.Top + 1;
    if (columns < 2 || lines < 2) { return {}; }
    return {static_cast<std::size_t>(columns), static_cast<std::size_t>(lines)};
}

void PrepareStandardStreams() {
    for (const DWORD id : {STD_OUTPUT_HANDLE, STD_ERROR_HANDLE}) {
        const HANDLE console = ::GetStdHandle(id);
        DWORD mode = 0;
        if (::GetConsoleMode(console, &mode) == 0) { continue; }
        ::SetConsoleMode(console, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
    }
    if (IsOutputTerminal() || IsErrorTerminal()) { MakeConsoleUtf8(); }
    for (std::FILE* const stream : {stdin, stdout, stderr}) {
        ::_setmode(::_fileno(stream), _O_BINARY);
    }
}

void CatchStopRequests() {
    std::signal(SIGINT, RequestStop);
    std::signal(SIGTERM, RequestStop);
}

bool IsStopRequested() {
    return isStopRequested != 0;
}

int RunApart(const std::function<int()>& work, const std::function<void()>& /*mend*/) {
    return work();
}

// There is no documented way that works without administrator's rights.
bool FindHolders(const std::string& /*path*/, std::vector<Holder>& /*holders*/) {
    return false;
}

int FolderError(const std::string& /*folder*/) {
    return 0;
}

std::FILE* CreateTemporaryFile(const std::string& folder) {
    char path[MAX_PATH];
    if (::GetTempFileNameA(folder.c_str(), "qvl", 0, path) == 0) {
        errno = EACCES;
        return nullptr;
    }
    std::FILE* const file = std::fopen(path, "w+bTD");
    if (!file) { ::DeleteFileA(path); }
    return file;
}

}  // namespace Quorvel::Tool
