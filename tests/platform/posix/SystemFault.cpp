#include "platform/posix/SystemFault.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>

namespace Quorvel::Testing {

namespace {

struct Fault {
    bool armed;
    SystemCall call;
    int error;
    int skipped;
    int failures;
};
thread_local constinit Fault injectedFault{};

bool Fails(SystemCall call) {
    if (!injectedFault.armed || injectedFault.call != call || injectedFault.failures == 0) {
        return false;
    }
    if (injectedFault.skipped > 0) {
        --injectedFault.skipped;
        return false;
    }
    --injectedFault.failures;
    errno = injectedFault.error;
    return true;
}

// For functions whose result is the error.
int ErrorOr(SystemCall call) {
    const int before = errno;
    if (Fails(call)) {
        errno = before;
        return injectedFault.error;
    }
    return 0;
}

}  // namespace

SystemFault::SystemFault(SystemCall call, int error, int skipped, int failures) {
    injectedFault = {true, call, error, skipped, failures};
}

SystemFault::~SystemFault() {
    injectedFault.armed = false;
}

bool SystemFault::IsSpent() const {
    return injectedFault.failures == 0;
}

}  // namespace Quorvel::Testing

using Quorvel::Testing::ErrorOr;
using Quorvel::Testing::Fails;
using Quorvel::Testing::SystemCall;

// NOLINTBEGIN(bugprone-reserved-identifier): the linker dictates these names.

// The linker sends every call of f to __wrap_f; __real_f is the system's f.
extern "C" {

int __real_mkdir(const char* path, mode_t mode);
int __real_open(const char* path, int flags, ...);
int __real_openat(int folder, const char* path, int flags, ...);
int __real_fstat(int descriptor, struct stat* status);
int __real_flock(int descriptor, int operation);
int __real_posix_fallocate(int descriptor, off_t offset, off_t size);
void* __real_mmap(void* address, size_t size, int access, int flags, int descriptor, off_t offset);
int __real_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int __real_pthread_mutex_trylock(pthread_mutex_t* mutex);

int __wrap_mkdir(const char* path, mode_t mode) {
    return Fails(SystemCall::MakeFolder) ? -1 : __real_mkdir(path, mode);
}

// The mode is undefined if the caller passed none, but then the system does not read it.
int __wrap_open(const char* path, int flags, mode_t mode) {
    return Fails(SystemCall::Open) ? -1 : __real_open(path, flags, mode);
}

int __wrap_openat(int folder, const char* path, int flags, mode_t mode) {
    return Fails(SystemCall::OpenAt) ? -1 : __real_openat(folder, path, flags, mode);
}

int __wrap_fstat(int descriptor, struct stat* status) {
    return Fails(SystemCall::Status) ? -1 : __real_fstat(descriptor, status);
}

int __wrap_flock(int descriptor, int operation) {
    return Fails(SystemCall::Lock) ? -1 : __real_flock(descriptor, operation);
}

int __wrap_posix_fallocate(int descriptor, off_t offset, off_t size) {
    const int error = ErrorOr(SystemCall::Allocate);
    return error != 0 ? error : __real_posix_fallocate(descriptor, offset, size);
}

void* __wrap_mmap(void* address, size_t size, int access, int flags, int descriptor, off_t offset) {
    return Fails(SystemCall::Map) ? MAP_FAILED
                                  : __real_mmap(address, size, access, flags, descriptor, offset);
}

int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
    const int error = ErrorOr(SystemCall::InitialiseMutex);
    return error != 0 ? error : __real_pthread_mutex_init(mutex, attributes);
}

int __wrap_pthread_mutex_trylock(pthread_mutex_t* mutex) {
    const int error = ErrorOr(SystemCall::TryMutex);
    return error != 0 ? error : __real_pthread_mutex_trylock(mutex);
}

}  // extern "C"

// NOLINTEND(bugprone-reserved-identifier)
