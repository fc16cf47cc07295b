#include "quorvel/MultiProcessTimeStamp.h"

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "platform/Clock.h"
#include "platform/Process.h"
#include "quorvel/MutexObject.h"

namespace Quorvel {

namespace {

TimeStampRecord NewRecord() {
    TimeStampRecord record;
    record.seconds = std::time(nullptr);
    record.counter = Platform::PerformanceCounter();
    record.random = static_cast<std::uint32_t>(std::rand());
    record.process = Platform::CurrentProcessId();
    return record;
}

// Holds the lock of a shared block. A holder that was killed leaves the lock abandoned: the first
// call of Lock then acquires it but returns null. A second call acquires it again and returns the
// block. The block needs no repair, since a half-written stamp is as good a token as a whole one.
class LockedBlock {
public:
    explicit LockedBlock(MultiProcessMemory& memory)
        : memory_(memory), block_(memory.Lock(kWaitForever)), wasAbandoned_(!block_) {
        if (wasAbandoned_) { block_ = memory_.Lock(kWaitForever); }
    }
    LockedBlock(const LockedBlock&) = delete;
    LockedBlock& operator=(const LockedBlock&) = delete;
    ~LockedBlock() {
        memory_.Unlock();
        if (wasAbandoned_) { memory_.Unlock(); }
    }

    void* Get() const { return block_; }

private:
    MultiProcessMemory& memory_;
    void* block_;
    bool wasAbandoned_;
};

}  // namespace

MultiProcessTimeStamp::MultiProcessTimeStamp() noexcept : lastSeen_{} {}

MultiProcessTimeStamp::~MultiProcessTimeStamp() = default;

bool MultiProcessTimeStamp::Initialize(const char* name) {
    return MultiProcessMemory::Initialize(name, sizeof(TimeStampRecord));
}

void MultiProcessTimeStamp::UpdateTimeStamp() {
    lastSeen_ = NewRecord();
    const LockedBlock block(*this);
    if (block.Get()) { std::memcpy(block.Get(), &lastSeen_, sizeof lastSeen_); }
}

bool MultiProcessTimeStamp::IsChanged() {
    const LockedBlock block(*this);
    if (!block.Get() || std::memcmp(block.Get(), &lastSeen_, sizeof lastSeen_) == 0) {
        return false;
    }
    std::memcpy(&lastSeen_, block.Get(), sizeof lastSeen_);
    return true;
}

void MultiProcessTimeStamp::OnMemoryCreated(void* block) {
    lastSeen_ = NewRecord();
    std::memcpy(block, &lastSeen_, sizeof lastSeen_);
}

void MultiProcessTimeStamp::OnMemoryAttached(void* block) {
    std::memcpy(&lastSeen_, block, sizeof lastSeen_);
}

}  // namespace Quorvel
