#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <cerrno>
#include <csignal>
#include <cstdio>

#include "tools/quorvel/Terminal.h"

namespace Quorvel::Tool {
namespace {

volatile std::sig_atomic_t isStopRequested = 0;

extern "C" void RequestStop(int signal) {
    isStopRequested = 1;
    std::signal(signal, SIG_DFL);
}

}  // namespace

bool IsOutputTerminal() {
    return ::_isatty(::_fileno(stdout)) != 0;
}

bool IsErrorTerminal() {
    return ::_isatty(::_fileno(stderr)) != 0;
}

void PrepareStandardStreams() {
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

// There is no documented way that works without administrator's rights.
bool FindHolders(const std::string& /*path*/, std::vector<Holder>& /*holders*/) {
    return false;
}

std::FILE* CreateTemporaryFile(const std::string& folder) {
    char path[MAX_PATH];
    if (::GetTempFileNameA(folder.c_str(), "qvl", 0, path) == 0) {
        errno = EACCES;
        return nullptr;
    }
    return std::fopen(path, "w+bTD");
}

}  // namespace Quorvel::Tool
