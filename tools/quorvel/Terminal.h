#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

// Everything that depends on the system: the terminal, Ctrl-C, other processes, and temporary
// files.
namespace Quorvel::Tool {

// True if standard output, or standard error, is a terminal.
bool IsOutputTerminal();
bool IsErrorTerminal();

// The columns and lines of the terminal if standard output is one; otherwise 80 and 24.
struct TerminalSize {
    std::size_t columns = 80;
    std::size_t lines = 24;
};
TerminalSize OutputSize();

// Makes the standard streams transfer bytes as they are, and terminals obey ANSI sequences. Lets
// writes to a closed pipe fail instead of ending the program.
void PrepareStandardStreams();

// From then on, StopIfAsked notices Ctrl-C and other requests to end the program, and they make a
// read that waits for a terminal or a pipe fail. A second request ends the program at once.
void CatchStopRequests();
bool IsStopRequested();

// Runs work in a process of its own, and returns its exit code. A process that is killed while it
// holds a cache's lock leaves the lock to the host that takes it next, for good. If this process is
// killed, the other one is only asked to stop, as by Ctrl-C, and releases the lock; `mend` runs in
// this process if the other one is killed, and should take and release the lock. REQUIRES: one
// thread, and no open cache. On Windows, runs the work in this process.
int RunApart(const std::function<int()>& work, const std::function<void()>& mend);

// A process that has a file open.
struct Holder {
    std::uint32_t process;
    std::string name;
};

// The processes that have a file open, as far as this user may see them. False if the system can't
// tell.
bool FindHolders(const std::string& path, std::vector<Holder>& holders);

// Why this thread's user can't make files in a folder, as an errno value; 0 if the user can, and on
// Windows, where the system decides when the file is made.
int FolderError(const std::string& folder);

// A new file in a folder, for reading and writing, that the system removes when it is closed or the
// process ends. Null on failure, with the reason in errno.
std::FILE* CreateTemporaryFile(const std::string& folder);

}  // namespace Quorvel::Tool
