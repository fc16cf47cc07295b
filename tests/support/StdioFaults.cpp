#include "support/StdioFaults.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cassert>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <utility>

// NOLINTBEGIN(bugprone-reserved-identifier): the linker dictates these names.

// The linker redirects fopen to __wrap_fopen, and __real_fopen to the runtime library.
extern "C" {
std::FILE* __real_fopen(const char* path, const char* mode);
extern std::FILE* (*__real___imp__fdopen)(int descriptor, const char* mode);
std::FILE* __real_fdopen(int descriptor, const char* mode);
int __real_fclose(std::FILE* file);
int __real_fseek(std::FILE* file, long offset, int origin);
long __real_ftell(std::FILE* file);
std::size_t __real_fread(void* buffer, std::size_t size, std::size_t count, std::FILE* file);
std::size_t __real_fwrite(const void* buffer, std::size_t size, std::size_t count, std::FILE* file);
int __real_remove(const char* path);
}

#ifdef QUORVEL_FDOPEN_IS_IMPORTED
#define REAL_FDOPEN __real___imp__fdopen
#else
#define REAL_FDOPEN __real_fdopen
#endif

namespace Quorvel::Testing {

namespace {

using Counter = std::atomic<std::uint64_t>;

constexpr std::size_t kCallKinds = 7;

// Zero-initialised, so usable before any constructor of the program calls a stdio function.
std::array<Counter, kCallKinds> callCounts;
Counter bytesRead;
Counter bytesWritten;
Counter openFiles;

// The only fault that can be armed. The constructor of StdioFault sets `armed` last.
struct Fault {
    std::atomic<bool> armed;
    std::atomic<StdioCall> call;
    std::atomic<int> error;
    Counter first;  // the first call that fails
    Counter end;    // one past the last call that fails
    Counter bytesMoved;
    Counter calls;
    Counter failures;
};
Fault fault;

// Records the transfers of this thread; null if they are not recorded.
thread_local std::vector<StdioTransfer>* trace = nullptr;

// File offset of the next transfer; 0 if nothing is recorded.
std::uint64_t OffsetForTrace(std::FILE* file) {
    return trace ? static_cast<std::uint64_t>(__real_ftell(file)) : 0;
}
// Records a complete transfer.
void Record(StdioTransfer::Kind kind, std::uint64_t offset, std::uint64_t size) {
    if (trace) { trace->push_back({kind, offset, size}); }
}

Counter& CountOf(StdioCall call) {
    return callCounts[static_cast<std::size_t>(call)];
}

// Counts a call and decides whether it fails.
bool CountAndFail(StdioCall call) {
    ++CountOf(call);
    if (!fault.armed || fault.call != call) { return false; }
    const std::uint64_t number = fault.calls++;
    if (number < fault.first || number >= fault.end) { return false; }
    ++fault.failures;
    return true;
}

// Calls a function that opens a file, unless the call is to fail.
template <typename Open>
std::FILE* OpenUnlessFailing(const Open& open) {
    if (CountAndFail(StdioCall::Open)) {
        errno = fault.error;
        return nullptr;
    }
    std::FILE* const file = open();
    openFiles += file ? 1 : 0;
    return file;
}

bool IsStandardStream(const std::FILE* file) {
    return file == stdin || file == stdout || file == stderr;
}

// The bytes that a failing transfer of count items of this size still moves.
std::size_t BytesOfFailedTransfer(std::size_t size, std::size_t count) {
    return static_cast<std::size_t>(std::min<std::uint64_t>(fault.bytesMoved, size * count));
}

}  // namespace

StdioFault::StdioFault(StdioCall call, int error, std::uint64_t skipped, std::uint64_t failures,
                       std::uint64_t bytesMoved) {
    assert(!fault.armed);
    fault.call = call;
    fault.error = error;
    fault.first = skipped;
    fault.end = failures > kEveryLaterCall - skipped ? kEveryLaterCall : skipped + failures;
    fault.bytesMoved = bytesMoved;
    fault.calls = 0;
    fault.failures = 0;
    fault.armed = true;
}

StdioFault::~StdioFault() {
    fault.armed = false;
}

std::uint64_t StdioFault::Calls() const {
    return fault.calls;
}

std::uint64_t StdioFault::Failures() const {
    return fault.failures;
}

StdioTrace::StdioTrace() {
    assert(!trace);
    trace = &transfers_;
}

StdioTrace::~StdioTrace() {
    trace = nullptr;
}

std::vector<StdioTransfer> StdioTrace::Take() {
    return std::exchange(transfers_, {});
}

StdioCounts CountStdioCalls() {
    StdioCounts counts;
    counts.opens = CountOf(StdioCall::Open);
    counts.closes = CountOf(StdioCall::Close);
    counts.seeks = CountOf(StdioCall::Seek);
    counts.tells = CountOf(StdioCall::Tell);
    counts.reads = CountOf(StdioCall::Read);
    counts.writes = CountOf(StdioCall::Write);
    counts.bytesRead = bytesRead;
    counts.bytesWritten = bytesWritten;
    counts.openFiles = openFiles;
    return counts;
}

}  // namespace Quorvel::Testing

using namespace Quorvel::Testing;

extern "C" {

std::FILE* __wrap_fopen(const char* path, const char* mode) {
    return OpenUnlessFailing([&] { return __real_fopen(path, mode); });
}

std::FILE* __wrap_fdopen(int descriptor, const char* mode) {
    return OpenUnlessFailing([&] { return REAL_FDOPEN(descriptor, mode); });
}

#ifdef QUORVEL_FDOPEN_IS_IMPORTED
std::FILE* (*__wrap___imp__fdopen)(int descriptor, const char* mode) = &__wrap_fdopen;
#endif

int __wrap_remove(const char* path) {
    if (CountAndFail(StdioCall::Remove)) {
        errno = fault.error;
        return -1;
    }
    return __real_remove(path);
}

int __wrap_fclose(std::FILE* file) {
    const bool fails = !IsStandardStream(file) && CountAndFail(StdioCall::Close);
    openFiles -= IsStandardStream(file) ? 0 : 1;
    const int result = __real_fclose(file);
    if (fails) {
        errno = fault.error;
        return EOF;
    }
    return result;
}

int __wrap_fseek(std::FILE* file, long offset, int origin) {
    if (!IsStandardStream(file) && CountAndFail(StdioCall::Seek)) {
        errno = fault.error;
        return -1;
    }
    return __real_fseek(file, offset, origin);
}

long __wrap_ftell(std::FILE* file) {
    if (!IsStandardStream(file) && CountAndFail(StdioCall::Tell)) {
        errno = fault.error;
        return -1;
    }
    return __real_ftell(file);
}

std::size_t __wrap_fread(void* buffer, std::size_t size, std::size_t count, std::FILE* file) {
    if (IsStandardStream(file)) { return __real_fread(buffer, size, count, file); }
    if (CountAndFail(StdioCall::Read)) {
        const std::size_t bytes = BytesOfFailedTransfer(size, count);
        const std::size_t moved = bytes > 0 ? __real_fread(buffer, 1, bytes, file) : 0;
        bytesRead += moved;
        errno = fault.error;
        return moved > 0 ? moved / size : 0;
    }
    const std::uint64_t offset = OffsetForTrace(file);
    const std::size_t items = __real_fread(buffer, size, count, file);
    bytesRead += items * size;
    if (items == count) { Record(StdioTransfer::Kind::Read, offset, items * size); }
    return items;
}

std::size_t __wrap_fwrite(const void* buffer, std::size_t size, std::size_t count,
                          std::FILE* file) {
    if (IsStandardStream(file)) { return __real_fwrite(buffer, size, count, file); }
    if (CountAndFail(StdioCall::Write)) {
        const std::size_t bytes = BytesOfFailedTransfer(size, count);
        const std::size_t moved = bytes > 0 ? __real_fwrite(buffer, 1, bytes, file) : 0;
        bytesWritten += moved;
        errno = fault.error;
        return moved > 0 ? moved / size : 0;
    }
    const std::uint64_t offset = OffsetForTrace(file);
    const std::size_t items = __real_fwrite(buffer, size, count, file);
    bytesWritten += items * size;
    if (items == count) { Record(StdioTransfer::Kind::Write, offset, items * size); }
    return items;
}

}  // extern "C"

// NOLINTEND(bugprone-reserved-identifier)
