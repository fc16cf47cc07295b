#pragma once

namespace Quorvel::Testing {

// The calls of the system and of the C library through which named objects are made.
enum class SystemCall {
    MakeFolder,       // mkdir
    Open,             // open
    OpenAt,           // openat
    Status,           // fstat
    Lock,             // flock
    Allocate,         // posix_fallocate
    Map,              // mmap
    InitialiseMutex,  // pthread_mutex_init
    TryMutex,         // pthread_mutex_trylock
};

// Makes calls of one kind fail in the thread that made this object while it lives, as the system's
// do: with a result that says so, and the error in errno or in the result itself. A call that fails
// does nothing. Only programs whose calls go through the linker's --wrap see it, and only one may
// live at a time.
class SystemFault {
public:
    // Lets the first `skipped` calls through and fails the next `failures`.
    SystemFault(SystemCall call, int error, int skipped = 0, int failures = 1);
    SystemFault(const SystemFault&) = delete;
    SystemFault& operator=(const SystemFault&) = delete;
    ~SystemFault();

    // Whether all the failures have happened.
    bool IsSpent() const;
};

}  // namespace Quorvel::Testing
