#include "platform/posix/SystemFault.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "platform/Handles.h"
#include "platform/posix/ForeignUser.h"
#include "platform/posix/NamedObject.h"
#include "platform/posix/NamedObjectPath.h"
#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"

// Named objects while the system refuses one call after another.
namespace Quorvel::Testing {

using Platform::NamedObject;

namespace {

constexpr std::uint64_t kMemoryBytes = 4096;

struct RefusedCall {
    SystemCall call;
    int skipped;
};

// The calls that open the folder and lock its gate.
const std::vector<RefusedCall> kCallsToTheGate = {
    {SystemCall::MakeFolder, 0}, {SystemCall::Open, 0},   {SystemCall::Status, 0},
    {SystemCall::OpenAt, 0},     {SystemCall::Status, 1}, {SystemCall::Lock, 0}};

// The calls that create an object while the gate is locked.
const std::vector<RefusedCall> kCallsToMakeAnObject = {{SystemCall::OpenAt, 1},
                                                       {SystemCall::OpenAt, 2},
                                                       {SystemCall::Allocate, 0},
                                                       {SystemCall::Lock, 1},
                                                       {SystemCall::Status, 2}};

std::vector<RefusedCall> operator+(std::vector<RefusedCall> first,
                                   const std::vector<RefusedCall>& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// The number of this process's shared mappings that have no file.
int CountUnnamedMappings() {
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);) {
        count += line.find("/dev/zero (deleted)") != std::string::npos ? 1 : 0;
    }
    return count;
}

class SystemFaultTest : public ::testing::Test {
protected:
    void TearDown() override { SweepUp(name_); }

    // Starts a process that holds a block and has written into it.
    std::unique_ptr<ChildProcess> StartHolderOfBlock() const {
        auto holder = StartObjectUser();
        EXPECT_EQ(holder->Ask("memory " + name_), "0");
        EXPECT_EQ(holder->Ask("write 7"), "written");
        return holder;
    }

    const std::string name_ = UniqueName();
};
using NamedMemoryUnderFaults = SystemFaultTest;
using NamedMutexUnderFaults = SystemFaultTest;

}  // namespace

TEST_F(NamedMemoryUnderFaults, IsNotCreatedAndReportsTheCallsError) {
    for (const RefusedCall& refused : kCallsToTheGate + kCallsToMakeAnObject) {
        SCOPED_TRACE(testing::Message()
                     << "call " << static_cast<int>(refused.call) << " after " << refused.skipped);
        MemoryHandle block;
        {
            const SystemFault fault(refused.call, EIO, refused.skipped);
            errno = 0;
            ASSERT_FALSE(block.Create(name_, kMemoryBytes));
            ASSERT_EQ(errno, EIO);
            ASSERT_TRUE(fault.IsSpent());
        }
        // No block is left, and the next one starts with zeros.
        ASSERT_FALSE(block.Open(name_));
        ASSERT_EQ(errno, ENOENT);
        ASSERT_TRUE(block.Create(name_, kMemoryBytes));
        unsigned char* const view = block.Map(kMemoryBytes);
        ASSERT_NE(view, nullptr);
        ASSERT_EQ(view[0], 0);
        view[0] = 1;
    }
}

TEST_F(NamedMemoryUnderFaults, IsNotOpenedAndKeepsItsBytes) {
    const auto holder = StartHolderOfBlock();
    const std::vector<RefusedCall> calls = {{SystemCall::OpenAt, 1},
                                            {SystemCall::Status, 2},
                                            {SystemCall::Lock, 1},
                                            {SystemCall::Lock, 2},
                                            {SystemCall::Status, 3}};
    for (const RefusedCall& refused : kCallsToTheGate + calls) {
        SCOPED_TRACE(testing::Message()
                     << "call " << static_cast<int>(refused.call) << " after " << refused.skipped);
        MemoryHandle block;
        {
            const SystemFault fault(refused.call, EIO, refused.skipped);
            ASSERT_FALSE(block.Open(name_));
            ASSERT_EQ(errno, EIO);
            ASSERT_TRUE(fault.IsSpent());
        }
        ASSERT_TRUE(block.Open(name_));
        ASSERT_EQ(block.Map(kMemoryBytes)[0], 7);
    }
}

TEST_F(NamedMemoryUnderFaults, LeavesNoUnfilledFileBehind) {
    const SystemFault fault(SystemCall::Allocate, ENOSPC);
    EXPECT_FALSE(MemoryHandle().Create(name_, kMemoryBytes));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_FALSE(std::filesystem::exists(PathOf("memory", name_)));
}

TEST_F(NamedMemoryUnderFaults, RetriesInterruptedCalls) {
    for (const RefusedCall& interrupted : std::vector<RefusedCall>{
             {SystemCall::Lock, 0}, {SystemCall::Lock, 1}, {SystemCall::Allocate, 0}}) {
        const SystemFault fault(interrupted.call, EINTR, interrupted.skipped, 3);
        MemoryHandle block;
        EXPECT_TRUE(block.Create(name_, kMemoryBytes));
        EXPECT_TRUE(fault.IsSpent());
        EXPECT_NE(block.Map(kMemoryBytes), nullptr);
    }
}

TEST_F(NamedMemoryUnderFaults, IsNotMappedAndStaysOpen) {
    MemoryHandle block;
    ASSERT_TRUE(block.Create(name_, kMemoryBytes));
    {
        const SystemFault fault(SystemCall::Map, ENOMEM);
        EXPECT_EQ(block.Map(kMemoryBytes), nullptr);
        EXPECT_EQ(errno, ENOMEM);
    }
    EXPECT_NE(block.Map(kMemoryBytes), nullptr);
}

// Without the gate a closed block leaves its file behind, which must not count as a block any more.
TEST_F(NamedMemoryUnderFaults, ThatIsClosedLeavesNoBytesForTheNext) {
    for (const RefusedCall& refused : kCallsToTheGate) {
        MemoryHandle block;
        ASSERT_TRUE(block.Create(name_, kMemoryBytes));
        block.Map(kMemoryBytes)[0] = 1;
        {
            const SystemFault fault(refused.call, EIO, refused.skipped);
            block.Close();
            ASSERT_TRUE(fault.IsSpent());
        }
        EXPECT_FALSE(block.Open(name_));
        ASSERT_TRUE(block.Create(name_, kMemoryBytes));
        EXPECT_EQ(block.Map(kMemoryBytes)[0], 0);
    }
}

TEST_F(NamedMutexUnderFaults, IsNotCreatedAndReportsTheCallsError) {
    const std::vector<RefusedCall> calls = {{SystemCall::Map, 0}, {SystemCall::InitialiseMutex, 0}};
    const std::wstring wide(name_.begin(), name_.end());
    for (const RefusedCall& refused : kCallsToTheGate + kCallsToMakeAnObject + calls) {
        SCOPED_TRACE(testing::Message()
                     << "call " << static_cast<int>(refused.call) << " after " << refused.skipped);
        for (const bool isWide : {false, true}) {
            {
                const SystemFault fault(refused.call, EIO, refused.skipped);
                errno = 0;
                const MutexHandle mutex(isWide ? Platform::OpenNamedMutex(wide.c_str())
                                               : Platform::OpenNamedMutex(name_.c_str()));
                ASSERT_FALSE(mutex.IsOpen());
                ASSERT_EQ(errno, EIO);
                ASSERT_TRUE(fault.IsSpent());
            }
            const MutexHandle mutex(name_);
            ASSERT_TRUE(mutex.IsOpen());
            ASSERT_EQ(mutex.Acquire(0), kAcquired);
            mutex.Release();
        }
    }
}

TEST_F(NamedMutexUnderFaults, LeavesNoFileWithoutAMutexBehind) {
    for (const SystemCall call : {SystemCall::Map, SystemCall::InitialiseMutex}) {
        const SystemFault fault(call, ENOMEM);
        EXPECT_FALSE(MutexHandle(name_).IsOpen());
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_FALSE(std::filesystem::exists(PathOf("mutex", name_)));
    }
}

TEST_F(NamedMutexUnderFaults, OfAnotherProcessStaysItsOwnIfItCannotBeMapped) {
    const auto holder = StartObjectUser();
    ASSERT_EQ(holder->Ask("mutex " + name_), "0");
    ASSERT_EQ(holder->Ask("acquire"), "0");
    {
        const SystemFault fault(SystemCall::Map, ENOMEM);
        EXPECT_FALSE(MutexHandle(name_).IsOpen());
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_TRUE(fault.IsSpent());
    }
    const MutexHandle mutex(name_);
    ASSERT_TRUE(mutex.IsOpen());
    EXPECT_EQ(mutex.Acquire(0), kTimedOut);
}

TEST_F(NamedMutexUnderFaults, WithoutANameIsNotCreatedAndReportsTheCallsError) {
    for (const SystemCall call : {SystemCall::Map, SystemCall::InitialiseMutex}) {
        const SystemFault fault(call, ENOMEM);
        errno = 0;
        EXPECT_EQ(Platform::OpenNamedMutex(static_cast<const char*>(nullptr)), nullptr);
        EXPECT_EQ(errno, ENOMEM);
    }
    const SystemFault fault(SystemCall::Map, ENOMEM);
    EXPECT_EQ(Platform::OpenNamedMutex(static_cast<const wchar_t*>(nullptr)), nullptr);
}

TEST_F(NamedMutexUnderFaults, ReportsAFailedWait) {
    constexpr std::uint32_t kFailed = 0xFFFFFFFF;
    const MutexHandle mutex(name_);
    {
        const SystemFault fault(SystemCall::TryMutex, EAGAIN);
        EXPECT_EQ(mutex.Acquire(0), kFailed);
    }
    // The mutex has no owner.
    EXPECT_EQ(OnAnotherThread([&] {
                  const std::uint32_t result = mutex.Acquire(0);
                  mutex.Release();
                  return result;
              }),
              kAcquired);
}

// The process can't tell whether others have the mutex open. None have, so the next one is new.
TEST_F(NamedMutexUnderFaults, ThatItsOwnerClosesVanishesEvenWithoutTheGate) {
    for (const RefusedCall& refused : kCallsToTheGate) {
        MutexHandle mutex(name_);
        ASSERT_EQ(mutex.Acquire(0), kAcquired);
        {
            const SystemFault fault(refused.call, EIO, refused.skipped);
            mutex.Close();
            ASSERT_TRUE(fault.IsSpent());
        }
        const MutexHandle next(name_);
        EXPECT_EQ(OnAnotherThread([&] {
                      const std::uint32_t result = next.Acquire(0);
                      next.Release();
                      return result;
                  }),
                  kAcquired);
    }
}

TEST_F(NamedMutexUnderFaults, WithoutANameVanishesWithItsOwnersHandle) {
    const int before = CountUnnamedMappings();
    MutexHandle mutex(Platform::OpenNamedMutex(static_cast<const char*>(nullptr)));
    ASSERT_EQ(mutex.Acquire(0), kAcquired);
    ASSERT_EQ(mutex.Acquire(0), kAcquired);
    EXPECT_EQ(CountUnnamedMappings(), before + 1);
    mutex.Close();
    EXPECT_EQ(CountUnnamedMappings(), before);
}

TEST_F(NamedMemoryUnderFaults, IsNotOpenedOnceOthersMayAccessIt) {
    for (const int mode : {0640, 0602}) {
        MemoryHandle block;
        ASSERT_TRUE(block.Create(name_, kMemoryBytes));
        ASSERT_EQ(::chmod(PathOf("memory", name_).c_str(), static_cast<mode_t>(mode)), 0);
        EXPECT_FALSE(MemoryHandle().Open(name_));
        EXPECT_EQ(errno, EACCES);
    }
}

TEST_F(NamedMemoryUnderFaults, IsNotOpenedOnceItBelongsToAnotherUser) {
    MemoryHandle block;
    ASSERT_TRUE(block.Create(name_, kMemoryBytes));
    const std::filesystem::path path = PathOf("memory", name_);
    ASSERT_EQ(::chown(path.c_str(), 0x40000000, static_cast<gid_t>(-1)), 0)
        << "run the tests as root";
    EXPECT_FALSE(MemoryHandle().Open(name_));
    EXPECT_EQ(errno, EACCES);
}

TEST_F(NamedMemoryUnderFaults, IsNotOpenedUnlessItIsARegularFile) {
    const MutexHandle maker(name_);
    const std::filesystem::path path = PathOf("memory", name_);
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    EXPECT_FALSE(MemoryHandle().Open(name_));
    EXPECT_EQ(errno, EACCES);
    EXPECT_TRUE(std::filesystem::remove(path));
}

}  // namespace Quorvel::Testing
