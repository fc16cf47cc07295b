#include "effectcache/PlatformStubs.h"

#include <cassert>

#include "platform/DiskSpace.h"

namespace Quorvel::Testing {

namespace {

FreeSpaceStub* freeSpace = nullptr;
ClockStub* stoppedClock = nullptr;
NamedMutexFault* mutexFault = nullptr;

template <typename Stub>
void PutInFront(Stub*& place, Stub* stub) {
    assert(!place);
    place = stub;
}

}  // namespace

FreeSpaceStub::FreeSpaceStub(std::uint64_t bytes) : bytes_(bytes) {
    PutInFront(freeSpace, this);
}

FreeSpaceStub::~FreeSpaceStub() {
    freeSpace = nullptr;
}

bool FreeSpaceStub::Answer(const char* directory, std::uint64_t& bytes) {
    if (keepsQueries_) { queries_.emplace_back(directory); }
    if (hook_) { hook_(); }
    if (fails_) { return false; }
    bytes = bytes_;
    return true;
}

ClockStub::ClockStub(const Platform::LocalTime& time) : time_(time) {
    PutInFront(stoppedClock, this);
}

ClockStub::~ClockStub() {
    stoppedClock = nullptr;
}

NamedMutexFault::NamedMutexFault(int skipped, int failures)
    : skipped_(skipped), failures_(failures) {
    PutInFront(mutexFault, this);
}

NamedMutexFault::~NamedMutexFault() {
    mutexFault = nullptr;
}

}  // namespace Quorvel::Testing

using namespace Quorvel;
using namespace Quorvel::Testing;

// The linker makes each call of the library go to the WRAP function here. A REAL function is the
// platform's own.
extern "C" {

bool REAL_FREE_DISK_SPACE(const char* directory, std::uint64_t& bytes) noexcept;
Platform::LocalTime REAL_CURRENT_LOCAL_TIME() noexcept;
void* REAL_OPEN_NAMED_MUTEX(const char* name) noexcept;

bool WRAP_FREE_DISK_SPACE(const char* directory, std::uint64_t& bytes) noexcept {
    return freeSpace ? freeSpace->Answer(directory, bytes) : REAL_FREE_DISK_SPACE(directory, bytes);
}

Platform::LocalTime WRAP_CURRENT_LOCAL_TIME() noexcept {
    return stoppedClock ? stoppedClock->Time() : REAL_CURRENT_LOCAL_TIME();
}

void* WRAP_OPEN_NAMED_MUTEX(const char* name) noexcept {
    return mutexFault && mutexFault->Fails() ? nullptr : REAL_OPEN_NAMED_MUTEX(name);
}

}  // extern "C"
