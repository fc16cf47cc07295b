#include "quorvel/MultiProcessMemory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "multiprocess/Block.h"
#include "multiprocess/MutexUser.h"
#include "platform/NamedMemory.h"
#include "quorvel/Exceptions.h"
#include "support/Agent.h"
#include "support/ChildProcess.h"
#include "support/HeapFault.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

using ::testing::ElementsAre;

namespace {

constexpr std::uint64_t kBytes = 4096;

// Opens a block, sends the name of the hook that was called and the first byte, and waits until it
// may end. Argument: the block's name.
QUORVEL_AGENT(BlockUser) {
    Block block;
    block.Initialize(arguments[0], kBytes);
    AgentSend(block.calls.at(0));
    AgentSend(std::to_string(*static_cast<unsigned char*>(block.passed)));
    AgentReceive();
    return 0;
}

unsigned char& FirstByte(Block& block) {
    return *static_cast<unsigned char*>(block.passed);
}

class MultiProcessMemoryTest : public ::testing::Test {
protected:
    // True if another process finds the block's mutex free.
    bool MutexIsFree() { return MutexUser(MutexName()).FindsItFree(); }
    std::string MutexName() const { return name_ + "_mutex"; }

    // Ends a thread that holds the block's mutex. Another object must have the mutex open.
    void AbandonMutex() {
        MutexObject mutex(MutexName().c_str());
        AbandonOnAnotherThread(mutex);
    }

    const std::string name_ = UniqueName();
};

}  // namespace

TEST_F(MultiProcessMemoryTest, ReportsANewBlockToTheFirstObject) {
    Block block;
    EXPECT_TRUE(block.Initialize(name_, kBytes));
    EXPECT_THAT(block.calls, ElementsAre("created"));
    EXPECT_NE(block.passed, nullptr);
}

TEST_F(MultiProcessMemoryTest, ReportsAnExistingBlockToAnotherObjectOfTheProcess) {
    Block first;
    Block second;
    first.whenCalled = [](void* block) { *static_cast<unsigned char*>(block) = 42; };
    first.Initialize(name_, kBytes);
    EXPECT_TRUE(second.Initialize(name_, kBytes));
    EXPECT_THAT(second.calls, ElementsAre("attached"));
    EXPECT_EQ(FirstByte(second), 42);
}

TEST_F(MultiProcessMemoryTest, ReportsAnExistingBlockToAnotherProcess) {
    Block first;
    first.whenCalled = [](void* block) { *static_cast<unsigned char*>(block) = 42; };
    first.Initialize(name_, kBytes);
    ChildProcess child("BlockUser", {name_});
    EXPECT_EQ(child.Receive(), "attached");
    EXPECT_EQ(child.Receive(), "42");
}

TEST_F(MultiProcessMemoryTest, AttachesToTheBlockOfAnotherProcess) {
    ChildProcess child("BlockUser", {name_});
    ASSERT_EQ(child.Receive(), "created");
    Block block;
    block.Initialize(name_, kBytes);
    EXPECT_THAT(block.calls, ElementsAre("attached"));
    child.Wait();
}

TEST_F(MultiProcessMemoryTest, IsAllZerosWhenNew) {
    Block block;
    block.Initialize(name_, kBytes);
    const auto* const bytes = static_cast<const unsigned char*>(block.passed);
    EXPECT_THAT(std::vector<unsigned char>(bytes, bytes + kBytes), ::testing::Each(0));
}

TEST_F(MultiProcessMemoryTest, CallsTheHooksUnderItsMutex) {
    Block first;
    Block second;
    std::vector<std::uint32_t> results;
    const auto tryMutex = [&](void*) {
        MutexObject mutex(MutexName().c_str());
        results.push_back(OnAnotherThread([&] { return mutex.Acquire(0); }));
    };
    first.whenCalled = tryMutex;
    second.whenCalled = tryMutex;
    first.Initialize(name_, kBytes);
    second.Initialize(name_, kBytes);
    EXPECT_THAT(results, ElementsAre(kWaitTimedOut, kWaitTimedOut));
    EXPECT_TRUE(MutexIsFree());
}

TEST_F(MultiProcessMemoryTest, WaitsForItsMutexBeforeItOpensTheBlock) {
    MutexObject mutex(MutexName().c_str());
    ASSERT_EQ(mutex.Acquire(0), kWaitAcquired);
    std::atomic<bool> released{false};
    Block block;
    std::thread other([&] {
        block.whenCalled = [&](void*) { EXPECT_TRUE(released); };
        block.Initialize(name_, kBytes);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    released = true;
    mutex.Release();
    other.join();
    EXPECT_THAT(block.calls, ElementsAre("created"));
}

TEST_F(MultiProcessMemoryTest, HoldsTheCallersBytesAndNothingBeforeThem) {
    Block block;
    block.Initialize(name_, kBytes);
    FirstByte(block) = 99;
    void* const handle = Platform::OpenNamedMemory(name_.c_str());
    ASSERT_NE(handle, nullptr);
    void* const view = Platform::MapNamedMemory(handle, kBytes);
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(*static_cast<const unsigned char*>(view), 99);
    Platform::UnmapNamedMemory(handle, view);
    Platform::CloseNamedMemory(handle);
}

TEST_F(MultiProcessMemoryTest, AlwaysReportsASizeOfZero) {
    Block block;
    EXPECT_EQ(block.GetBytes(), 0U);
    block.Initialize(name_, kBytes);
    EXPECT_EQ(block.GetBytes(), 0U);
}

TEST_F(MultiProcessMemoryTest, CreatesABlockWithTheLow32BitsOfTheSize) {
    constexpr std::uint64_t kHighPart = std::uint64_t{1} << 32;
    Block block;
    EXPECT_THROW(block.Initialize(name_, kHighPart + kBytes), Win32APICallFailedException);
    EXPECT_TRUE(block.calls.empty());
}

TEST_F(MultiProcessMemoryTest, ReturnsTheBlockWhenLocked) {
    Block block;
    block.Initialize(name_, kBytes);
    EXPECT_EQ(block.Lock(kWaitForever), block.passed);
    block.Unlock();
}

TEST_F(MultiProcessMemoryTest, ExcludesOthersWhileLocked) {
    Block block;
    block.Initialize(name_, kBytes);
    MutexUser other(MutexName());
    block.Lock(kWaitForever);
    block.Lock(kWaitForever);
    EXPECT_FALSE(other.FindsItFree());
    block.Unlock();
    EXPECT_FALSE(other.FindsItFree());
    block.Unlock();
    EXPECT_TRUE(other.FindsItFree());
}

TEST(MultiProcessMemory, LockReturnsNullWithoutABlock) {
    Block block;
    EXPECT_EQ(block.Lock(0), nullptr);
    EXPECT_EQ(block.Lock(kWaitForever), nullptr);
    block.Unlock();
    EXPECT_EQ(block.Lock(kWaitForever), nullptr);
}

TEST_F(MultiProcessMemoryTest, LockReturnsTheBlockEvenIfTheWaitTimedOut) {
    Block block;
    block.Initialize(name_, kBytes);
    MutexUser other(MutexName());
    ASSERT_EQ(other.Acquire(), kWaitAcquired);
    EXPECT_EQ(block.Lock(0), block.passed);
    block.Unlock();
    EXPECT_EQ(block.Lock(10), block.passed);
    other.Release();
}

TEST_F(MultiProcessMemoryTest, LockReturnsNullIfTheLastHolderEndedWithoutUnlocking) {
    Block block;
    block.Initialize(name_, kBytes);
    AbandonMutex();
    EXPECT_EQ(block.Lock(kWaitForever), nullptr);
}

TEST_F(MultiProcessMemoryTest, IsHeldByTheThreadThatFoundItAbandonedUntilItUnlocks) {
    Block block;
    block.Initialize(name_, kBytes);
    MutexUser other(MutexName());
    AbandonMutex();
    ASSERT_EQ(block.Lock(kWaitForever), nullptr);
    EXPECT_FALSE(other.FindsItFree());
    block.Unlock();
    EXPECT_TRUE(other.FindsItFree());
    EXPECT_EQ(block.Lock(kWaitForever), block.passed);
    block.Unlock();
}

TEST_F(MultiProcessMemoryTest, ClosesItsBlockWhenDestroyed) {
    {
        Block block;
        block.Initialize(name_, kBytes);
        FirstByte(block) = 1;
    }
    Block next;
    next.Initialize(name_, kBytes);
    EXPECT_THAT(next.calls, ElementsAre("created"));
    EXPECT_EQ(FirstByte(next), 0);
}

TEST_F(MultiProcessMemoryTest, ClosesItsMutexWhenDestroyed) {
    {
        Block block;
        block.Initialize(name_, kBytes);
        AbandonMutex();
    }
    EXPECT_TRUE(MutexIsFree());
}

TEST_F(MultiProcessMemoryTest, KeepsTheBlockAliveForOthersWhenDestroyed) {
    auto first = std::make_unique<Block>();
    Block second;
    first->Initialize(name_, kBytes);
    second.Initialize(name_, kBytes);
    FirstByte(*first) = 7;
    first.reset();
    EXPECT_EQ(FirstByte(second), 7);
    Block third;
    third.Initialize(name_, kBytes);
    EXPECT_THAT(third.calls, ElementsAre("attached"));
}

TEST_F(MultiProcessMemoryTest, ClosesItsBlockAndMutexWhenItOpensAnotherName) {
    Block block;
    block.Initialize(name_, kBytes);
    FirstByte(block) = 1;
    AbandonMutex();
    EXPECT_TRUE(block.Initialize(name_ + "_other", kBytes));
    EXPECT_THAT(block.calls, ElementsAre("created", "created"));
    EXPECT_TRUE(MutexIsFree());
    Block next;
    next.Initialize(name_, kBytes);
    EXPECT_THAT(next.calls, ElementsAre("created"));
    EXPECT_EQ(FirstByte(next), 0);
}

TEST_F(MultiProcessMemoryTest, ClosesItsBlockBeforeItReopensTheSameName) {
    Block block;
    block.Initialize(name_, kBytes);
    FirstByte(block) = 1;
    EXPECT_TRUE(block.Initialize(name_, kBytes));
    EXPECT_THAT(block.calls, ElementsAre("created", "created"));
    EXPECT_EQ(FirstByte(block), 0);
}

TEST_F(MultiProcessMemoryTest, ClosesItsMutexBeforeItReopensTheSameName) {
    Block block;
    block.Initialize(name_, kBytes);
    ASSERT_NE(block.Lock(0), nullptr);
    EXPECT_TRUE(block.Initialize(name_, kBytes));
    EXPECT_TRUE(MutexIsFree());
}

TEST_F(MultiProcessMemoryTest, AttachesToAWholeBlockForASizeOfZero) {
    Block made;
    Block block;
    made.Initialize(name_, kBytes);
    FirstByte(made) = 3;
    EXPECT_TRUE(block.Initialize(name_, 0));
    EXPECT_THAT(block.calls, ElementsAre("attached"));
    EXPECT_EQ(FirstByte(block), 3);
}

TEST_F(MultiProcessMemoryTest, ThrowsForABlockOfNoBytes) {
    Block block;
    EXPECT_THROW(block.Initialize(name_, 0), Win32APICallFailedException);
    EXPECT_TRUE(block.calls.empty());
}

TEST_F(MultiProcessMemoryTest, ThrowsWhenTheBlockIsSmallerThanRequested) {
    Block small;
    Block large;
    small.Initialize(name_, kBytes);
    EXPECT_THROW(large.Initialize(name_, 64 * kBytes), Win32APICallFailedException);
    EXPECT_TRUE(large.calls.empty());
}

TEST_F(MultiProcessMemoryTest, AttachesToABlockThatIsLargerThanRequested) {
    Block large;
    Block small;
    large.Initialize(name_, 64 * kBytes);
    FirstByte(large) = 3;
    EXPECT_TRUE(small.Initialize(name_, 24));
    EXPECT_THAT(small.calls, ElementsAre("attached"));
    EXPECT_EQ(FirstByte(small), 3);
}

TEST_F(MultiProcessMemoryTest, ThrowsWhenItsMutexIsAbandoned) {
    MutexObject keptOpen(MutexName().c_str());
    AbandonMutex();
    Block block;
    EXPECT_THROW(block.Initialize(name_, kBytes), Win32APICallFailedException);
    EXPECT_TRUE(block.calls.empty());
}

TEST_F(MultiProcessMemoryTest, ThrowsWhenItsMutexIsAbandonedByAKilledProcess) {
    MutexObject keptOpen(MutexName().c_str());
    MutexUser other(MutexName());
    ASSERT_EQ(other.Acquire(), kWaitAcquired);
    other.Kill();
    Block block;
    EXPECT_THROW(block.Initialize(name_, kBytes), Win32APICallFailedException);
    EXPECT_TRUE(block.calls.empty());
}

TEST_F(MultiProcessMemoryTest, HoldsTheMutexThatItFoundAbandonedUntilItIsUnlocked) {
    MutexUser other(MutexName());
    AbandonMutex();
    Block block;
    ASSERT_THROW(block.Initialize(name_, kBytes), Win32APICallFailedException);
    EXPECT_FALSE(other.FindsItFree());
    block.Unlock();
    EXPECT_TRUE(other.FindsItFree());
    EXPECT_TRUE(block.Initialize(name_, kBytes));
    EXPECT_THAT(block.calls, ElementsAre("created"));
}

TEST_F(MultiProcessMemoryTest, ReleasesItsMutexWhenItFails) {
    Block block;
    ASSERT_THROW(block.Initialize(name_, 0), Win32APICallFailedException);
    EXPECT_TRUE(MutexIsFree());
}

TEST_F(MultiProcessMemoryTest, KeepsWhatItHasOpenedWhenItFails) {
    Block existing;
    existing.Initialize(name_, kBytes);
    Block block;
    ASSERT_THROW(block.Initialize(name_, 64 * kBytes), Win32APICallFailedException);
    EXPECT_NE(FieldAt<std::uintptr_t>(&block, kMutexOffset), 0U);
    EXPECT_NE(FieldAt<std::uintptr_t>(&block, kMappingOffset), 0U);
    EXPECT_EQ(FieldAt<std::uintptr_t>(&block, kViewOffset), 0U);
    EXPECT_EQ(block.Lock(kWaitForever), nullptr);
    block.Unlock();
}

TEST_F(MultiProcessMemoryTest, CanOpenABlockAfterAFailure) {
    Block block;
    ASSERT_THROW(block.Initialize(name_, 0), Win32APICallFailedException);
    EXPECT_TRUE(block.Initialize(name_, kBytes));
    EXPECT_THAT(block.calls, ElementsAre("created"));
    EXPECT_EQ(block.Lock(kWaitForever), block.passed);
    block.Unlock();
}

TEST_F(MultiProcessMemoryTest, ThrowsWhenThereIsNoMemoryForItsMutex) {
    Block block;
    {
        const HeapFault fault;
        EXPECT_THROW(block.Initialize(name_, kBytes), OutOfMemoryException);
        EXPECT_EQ(fault.Failures(), 1U);
    }
    EXPECT_TRUE(block.calls.empty());
    EXPECT_EQ(block.Lock(0), nullptr);
    EXPECT_TRUE(block.Initialize(name_, kBytes));
}

TEST(MultiProcessMemory, DoesNothingInItsOwnHooks) {
    class Plain : public MultiProcessMemory {
    public:
        using MultiProcessMemory::Initialize;
    };
    const std::string name = UniqueName();
    Plain first;
    Plain second;
    EXPECT_TRUE(first.Initialize(name.c_str(), kBytes));
    EXPECT_TRUE(second.Initialize(name.c_str(), kBytes));
    EXPECT_EQ(*static_cast<unsigned char*>(second.Lock(0)), 0);
    second.Unlock();
}

TEST_F(MultiProcessMemoryTest, HoldsMutexSizeMappingAndViewAfterItsVirtualTable) {
    static_assert(sizeof(MultiProcessMemory) == 40);
    Block block;
    for (const std::size_t offset : {kMutexOffset, kBytesOffset, kMappingOffset, kViewOffset}) {
        EXPECT_EQ(FieldAt<std::uint64_t>(&block, offset), 0U) << offset;
    }
    block.Initialize(name_, kBytes);
    EXPECT_EQ(FieldAt<std::uint64_t>(&block, kBytesOffset), 0U);
    EXPECT_NE(FieldAt<void*>(&block, kMappingOffset), nullptr);
    EXPECT_EQ(FieldAt<void*>(&block, kViewOffset), block.passed);
    auto* const mutex = FieldAt<MutexObject*>(&block, kMutexOffset);
    ASSERT_EQ(mutex->Acquire(0), kWaitAcquired);
    EXPECT_FALSE(MutexIsFree());
    mutex->Release();
}

TEST(MultiProcessMemory, CannotBeCopied) {
    EXPECT_FALSE(std::is_copy_constructible_v<MultiProcessMemory>);
    EXPECT_FALSE(std::is_copy_assignable_v<MultiProcessMemory>);
    EXPECT_TRUE((std::is_base_of_v<VornHeapOperators, MultiProcessMemory>));
    EXPECT_TRUE(std::has_virtual_destructor_v<MultiProcessMemory>);
}

// What the processes of the test below share, in a block that the test keeps open.
namespace {

struct Referee {
    std::atomic<std::uint64_t> generation;  // what the last creator wrote into its block
    std::atomic<std::uint64_t> created;
    std::atomic<std::uint64_t> attached;
    std::atomic<std::uint64_t> violations;
};

// Opens and closes a block: NAME REFEREE ROUNDS SEED. No process may create it while another has it
// open, so it must keep what the last creator wrote into it.
QUORVEL_AGENT(BlockPlayer) {
    Block refereeBlock;
    refereeBlock.Initialize(arguments[1], sizeof(Referee));
    auto* const referee = static_cast<Referee*>(refereeBlock.passed);
    std::mt19937 random(static_cast<std::uint32_t>(std::stoul(arguments[3])));
    const auto check = [&](bool holds) { referee->violations += holds ? 0 : 1; };
    AgentSend("ready");
    AgentReceive();
    for (int rounds = std::stoi(arguments[2]); rounds > 0; --rounds) {
        for (auto pauses = random() % 8; pauses > 0; --pauses) {
            std::this_thread::yield();
        }
        Block block;
        block.whenCalled = [&](void* memory) {
            auto& generation = *static_cast<std::atomic<std::uint64_t>*>(memory);
            if (block.calls.back() == "created") {
                check(generation == 0);
                std::this_thread::yield();
                generation = (static_cast<std::uint64_t>(random()) << 32) | random();
                referee->generation = generation.load();
                ++referee->created;
            } else {
                ++referee->attached;
            }
        };
        block.Initialize(arguments[0], sizeof(std::uint64_t));
        const auto& generation = *static_cast<std::atomic<std::uint64_t>*>(block.passed);
        for (auto looks = random() % 3; looks > 0; --looks) {
            check(generation != 0 && generation == referee->generation);
            std::this_thread::yield();
        }
    }
    return 0;
}

}  // namespace

TEST_F(MultiProcessMemoryTest, IsCreatedByOneProcessAtATime) {
    constexpr int kPlayers = 3;
    constexpr std::uint64_t kRounds = 300;
    const std::string refereeName = name_ + "_referee";
    Block refereeBlock;
    refereeBlock.Initialize(refereeName, sizeof(Referee));
    const auto* const referee = static_cast<Referee*>(refereeBlock.passed);
    std::vector<std::unique_ptr<ChildProcess>> players;
    for (int index = 0; index < kPlayers; ++index) {
        players.push_back(std::make_unique<ChildProcess>(
            "BlockPlayer", std::vector<std::string>{name_, refereeName, std::to_string(kRounds),
                                                    std::to_string(index)}));
        ASSERT_EQ(players.back()->Receive(), "ready");
    }
    for (const auto& player : players) {
        player->Send("go");
    }
    for (const auto& player : players) {
        EXPECT_EQ(player->Wait(), 0);
    }
    EXPECT_EQ(referee->violations, 0U);
    EXPECT_GT(referee->created, 0U);
    EXPECT_EQ(referee->created + referee->attached, kPlayers * kRounds);
}

}  // namespace Quorvel::Testing
