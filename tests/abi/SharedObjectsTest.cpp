// The objects that processes share, used and derived from by a client.
#include <quorvel/Quorvel.h>

#include <cstring>

#include "Check.h"
#include "Slots.h"

namespace Quorvel::Abi {

namespace {

class Counter : public MultiProcessMemory {
public:
    bool Open(const char* name) { return Initialize(name, sizeof(int)); }

    int created = 0;
    int attached = 0;

protected:
    void OnMemoryCreated(void* block) override {
        ++created;
        *static_cast<int*>(block) = 40;
    }
    void OnMemoryAttached(void* block) override {
        ++attached;
        *static_cast<int*>(block) += 2;
    }
};

constexpr std::size_t kOnMemoryCreated = 1;
constexpr std::size_t kOnMemoryAttached = 2;

}  // namespace

ABI_TEST(SharedMemory, CallsTheHooksOfAHostsClass) {
    Counter first;
    EXPECT(first.Open("quorvel-abi-block"));
    EXPECT(first.created == 1 && first.attached == 0);
    Counter second;
    EXPECT(second.Open("quorvel-abi-block"));
    EXPECT(second.created == 0 && second.attached == 1);
    const int* const block = static_cast<const int*>(first.Lock(kWaitForever));
    EXPECT(block && *block == 42);
    first.Unlock();
}

ABI_TEST(SharedMemory, HasItsHooksInSlotsOneAndTwo) {
    const Counter counter;
    int block = 0;
    CallSlot<void>(&counter, kOnMemoryCreated, static_cast<void*>(&block));
    EXPECT(counter.created == 1 && block == 40);
    CallSlot<void>(&counter, kOnMemoryAttached, static_cast<void*>(&block));
    EXPECT(counter.attached == 1 && block == 42);
}

ABI_TEST(SharedMemory, IsDestroyedThroughSlotZero) {
    auto* const counter = new Counter;
    EXPECT(counter->Open("quorvel-abi-short-lived"));
    CallSlot<void*>(counter, kDestructor, 1U);
    Counter again;
    EXPECT(again.Open("quorvel-abi-short-lived"));
    EXPECT(again.created == 1);
}

ABI_TEST(SharedMemory, HoldsMutexSizeMappingAndViewInThisOrder) {
    Counter counter;
    const auto field = [&](std::size_t offset) {
        return FieldAt<std::uint64_t>(static_cast<const MultiProcessMemory*>(&counter), offset);
    };
    for (const std::size_t offset : {8, 16, 24, 32}) {
        EXPECT(field(offset) == 0);
    }
    EXPECT(counter.Open("quorvel-abi-fields"));
    EXPECT(field(8) != 0);
    EXPECT(field(16) == 0 && counter.GetBytes() == 0);
    EXPECT(field(24) != 0);
    const void* const view = counter.Lock(kWaitForever);
    EXPECT(FieldAt<const void*>(&counter, 32) == view);
    const auto* const mutex = FieldAt<const void*>(&counter, 8);
    EXPECT(FieldAt<std::uint64_t>(mutex, 0) != 0);
    counter.Unlock();
}

ABI_TEST(Mutex, HoldsItsHandle) {
    MutexObject none;
    EXPECT(FieldAt<std::uint64_t>(&none, 0) == 0);
    EXPECT(none.Acquire(0) == kWaitAbandoned);
    MutexObject narrow("quorvel-abi-mutex");
    MutexObject wide(L"quorvel-abi-mutex");
    EXPECT(FieldAt<std::uint64_t>(&narrow, 0) != 0);
    EXPECT(narrow.Acquire(kWaitForever) == kWaitAcquired);
    EXPECT(wide.Acquire(0) == kWaitAcquired);
    wide.Release();
    narrow.Release();
}

ABI_TEST(Mutex, GuardHoldsItsAddressAndTheWaitResult) {
    MutexObject mutex(static_cast<const char*>(nullptr));
    const AutoMutex guard(mutex, kWaitForever);
    EXPECT(FieldAt<const void*>(&guard, 0) == &mutex);
    EXPECT(FieldAt<std::uint32_t>(&guard, 8) == kWaitAcquired);
    EXPECT(guard.WaitResult() == kWaitAcquired);
    MutexObject none;
    const AutoMutex nothing(none, kWaitForever);
    EXPECT(FieldAt<std::uint32_t>(&nothing, 8) == kWaitAbandoned);
}

ABI_TEST(TimeStamp, ReportsOthersChanges) {
    MultiProcessTimeStamp mine;
    MultiProcessTimeStamp other;
    EXPECT(mine.Initialize("quorvel-abi-stamp"));
    EXPECT(other.Initialize("quorvel-abi-stamp"));
    EXPECT(!mine.IsChanged());
    other.UpdateTimeStamp();
    EXPECT(!other.IsChanged());
    EXPECT(mine.IsChanged());
    EXPECT(!mine.IsChanged());
}

ABI_TEST(TimeStamp, HoldsTheLastStampAfterTheFieldsOfItsBase) {
    MultiProcessTimeStamp stamp;
    EXPECT(stamp.Initialize("quorvel-abi-last"));
    const void* const block = stamp.Lock(kWaitForever);
    EXPECT(std::memcmp(reinterpret_cast<const char*>(&stamp) + 40, block, 24) == 0);
    stamp.Unlock();
}

ABI_TEST(VertexNormals, AreOnWithoutAReference) {
    const VertexNormalsControl control;
    EXPECT(FieldAt<bool>(&control, 0));
    EXPECT(FieldAt<const void*>(&control, 8) == nullptr);
}

}  // namespace Quorvel::Abi
