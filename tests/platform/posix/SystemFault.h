#pragma once

namespace Quorvel::Testing {

// The calls of the system and of the C library that create named objects.
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

// While it exists, makes calls of one kind fail in the thread that created it. A failing call does
// nothing and returns the error as the real function does, in errno or as the result. Works only in
// programs that are linked with --wrap. Only one may exist at a time.
class SystemFault {
public:
    // Lets the first `skipped` calls through; the next `failures` calls fail.
    SystemFault(SystemCall call, int error, int skipped = 0, int failures = 1);
    SystemFault(const SystemFault&) = delete;
    SystemFault& operator=(const SystemFault&) = delete;
    ~SystemFault();

    // True if all the failures have happened.
    bool IsSpent() const;
};

}  // namespace Quorvel::Testing
