#include <dirent.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <memory>

#include "tools/quorvel/Terminal.h"

namespace Quorvel::Tool {
namespace {

volatile std::sig_atomic_t isStopRequested = 0;

extern "C" void RequestStop(int /*signal*/) {
    isStopRequested = 1;
}

// Not with SA_RESTART: a waiting read ends.
void CatchSignals(int flags) {
    struct sigaction action = {};
    action.sa_handler = RequestStop;
    action.sa_flags = flags;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

using Directory = std::unique_ptr<DIR, int (*)(DIR*)>;

bool HasOpen(const std::string& descriptors, const struct stat& file) {
    const Directory directory(::opendir(descriptors.c_str()), ::closedir);
    if (!directory) { return false; }
    while (const dirent* const entry = ::readdir(directory.get())) {
        struct stat opened;
        if (::stat((descriptors + "/" + entry->d_name).c_str(), &opened) == 0 &&
            opened.st_dev == file.st_dev && opened.st_ino == file.st_ino) {
            return true;
        }
    }
    return false;
}

}  // namespace

bool IsOutputTerminal() {
    return ::isatty(STDOUT_FILENO) != 0;
}

bool IsErrorTerminal() {
    return ::isatty(STDERR_FILENO) != 0;
}

TerminalSize OutputSize() {
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col < 2 || size.ws_row < 2) {
        return {};
    }
    return {size.ws_col, size.ws_row};
}

void PrepareStandardStreams() {
    // If a standard stream is closed, the next file to be opened would get its number and receive
    // messages. The null device takes the number instead; reads and writes fail as before.
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(stream, F_GETFD) != -1) { continue; }
        ::open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
    std::signal(SIGPIPE, SIG_IGN);
}

void CatchStopRequests() {
    CatchSignals(static_cast<int>(SA_RESETHAND));
}

bool IsStopRequested() {
    return isStopRequested != 0;
}

int RunApart(const std::function<int()>& work, const std::function<void()>& mend) {
    const pid_t parent = ::getpid();
    const pid_t child = ::fork();
    if (child < 0) { return work(); }
    if (child == 0) {
        // However often it is asked, it stops in order.
        CatchSignals(0);
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (::getppid() != parent) { RequestStop(SIGTERM); }
        ::_exit(work());
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
        if (IsStopRequested()) { ::kill(child, SIGTERM); }
    }
    if (WIFEXITED(status)) { return WEXITSTATUS(status); }
    mend();
    return -1;
}

bool FindHolders(const std::string& path, std::vector<Holder>& holders) {
    struct stat file;
    const Directory processes(::opendir("/proc"), ::closedir);
    if (!processes || ::stat(path.c_str(), &file) != 0) { return false; }
    while (const dirent* const entry = ::readdir(processes.get())) {
        const std::string id = entry->d_name;
        Holder holder{};
        const auto end = std::from_chars(id.data(), id.data() + id.size(), holder.process).ptr;
        if (end != id.data() + id.size() ||
            holder.process == static_cast<std::uint32_t>(getpid()) ||
            !HasOpen("/proc/" + id + "/fd", file)) {
            continue;
        }
        std::ifstream comm("/proc/" + id + "/comm");
        std::getline(comm, holder.name);
        holders.push_back(holder);
    }
    std::sort(holders.begin(), holders.end(),
              [](const auto& left, const auto& right) { return left.process < right.process; });
    return true;
}

int FolderError(const std::string& folder) {
    return ::faccessat(AT_FDCWD, folder.c_str(), W_OK | X_OK, AT_EACCESS) == 0 ? 0 : errno;
}

std::FILE* CreateTemporaryFile(const std::string& folder) {
    std::string path = folder + "/quorvel-XXXXXX";
    const int descriptor = ::mkstemp(path.data());
    if (descriptor < 0) { return nullptr; }
    ::unlink(path.c_str());
    std::FILE* const file = ::fdopen(descriptor, "w+b");
    if (!file) { ::close(descriptor); }
    return file;
}

}  // namespace Quorvel::Tool
