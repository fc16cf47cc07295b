#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/Handles.h"
#include "support/Agent.h"
#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

namespace {

// Uses a mutex by commands: "acquire MILLISECONDS", "release", "close", "open". Argument: the
// mutex's name.
QUORVEL_AGENT(MutexUser) {
    MutexHandle mutex(arguments[0]);
    auto other = std::make_unique<MutexHandle>(nullptr);
    for (std::string command = AgentReceive(); !command.empty(); command = AgentReceive()) {
        if (command.starts_with("acquire ")) {
            const auto timeout = static_cast<std::uint32_t>(std::stoul(command.substr(8)));
            AgentSend(
                std::to_string(other->IsOpen() ? other->Acquire(timeout) : mutex.Acquire(timeout)));
        } else if (command == "release") {
            other->IsOpen() ? other->Release() : mutex.Release();
            AgentSend("released");
        } else if (command == "close") {
            mutex.Close();
            other->Close();
            AgentSend("closed");
        } else if (command == "open") {
            other = std::make_unique<MutexHandle>(arguments[0]);
            AgentSend(other->IsOpen() ? "open" : "refused");
        }
    }
    return 0;
}

// Increments an integer in shared memory under a mutex, reading and writing it separately.
// Arguments: MUTEX MEMORY TIMES.
QUORVEL_AGENT(Adder) {
    const MutexHandle mutex(arguments[0]);
    MemoryHandle memory;
    auto* const sum = memory.Open(arguments[1])
                          ? reinterpret_cast<volatile std::uint64_t*>(memory.Map(8))
                          : nullptr;
    AgentSend(sum ? "ready" : "refused");
    AgentReceive();
    for (int times = std::stoi(arguments[2]); times > 0; --times) {
        mutex.Acquire(kForever);
        const std::uint64_t before = *sum;
        std::this_thread::yield();
        *sum = before + 1;
        mutex.Release();
    }
    return 0;
}

class NamedMutex : public ::testing::Test {
protected:
    void TearDown() override {
        mutex_.Close();
        SweepUp(name_);
    }

    const std::string name_ = UniqueName();
    MutexHandle mutex_{name_};
};

}  // namespace

TEST_F(NamedMutex, HasNoOwnerAtFirst) {
    ChildProcess child("MutexUser", {name_});
    EXPECT_EQ(child.Ask("acquire 0"), "0");
}

TEST_F(NamedMutex, IsSharedByAllProcessesThatOpenTheName) {
    ChildProcess child("MutexUser", {name_});
    ASSERT_EQ(child.Ask("acquire 0"), "0");
    EXPECT_EQ(mutex_.Acquire(0), kTimedOut);
    child.Ask("release");
    EXPECT_EQ(mutex_.Acquire(0), kAcquired);
    EXPECT_EQ(child.Ask("acquire 0"), "258");
    mutex_.Release();
}

TEST_F(NamedMutex, ExcludesOtherThreadsOfItsOwnersProcess) {
    ASSERT_EQ(mutex_.Acquire(0), kAcquired);
    EXPECT_EQ(OnAnotherThread([&] { return mutex_.Acquire(0); }), kTimedOut);
    mutex_.Release();
    EXPECT_EQ(OnAnotherThread([&] {
                  const std::uint32_t result = mutex_.Acquire(0);
                  mutex_.Release();
                  return result;
              }),
              kAcquired);
}

TEST_F(NamedMutex, OfAnotherNameIsAnotherMutex) {
    ChildProcess child("MutexUser", {name_ + "x"});
    ASSERT_EQ(child.Ask("acquire 0"), "0");
    EXPECT_EQ(mutex_.Acquire(0), kAcquired);
    mutex_.Release();
    child.Wait();
}

TEST_F(NamedMutex, OfANameInAnotherCaseIsAnotherMutex) {
    const MutexHandle lower(name_ + "x");
    const MutexHandle upper(name_ + "X");
    ASSERT_EQ(lower.Acquire(0), kAcquired);
    EXPECT_EQ(OnAnotherThread([&] {
                  const std::uint32_t result = upper.Acquire(0);
                  upper.Release();
                  return result;
              }),
              kAcquired);
    lower.Release();
}

TEST_F(NamedMutex, IsHeldUntilEachAcquisitionIsReleased) {
    ChildProcess child("MutexUser", {name_});
    for (int depth = 0; depth < 3; ++depth) {
        ASSERT_EQ(mutex_.Acquire(0), kAcquired);
    }
    mutex_.Release();
    mutex_.Release();
    EXPECT_EQ(child.Ask("acquire 0"), "258");
    mutex_.Release();
    EXPECT_EQ(child.Ask("acquire 0"), "0");
}

TEST_F(NamedMutex, CountsAcquisitionsThroughAllHandlesTogether) {
    ChildProcess child("MutexUser", {name_});
    const MutexHandle second(name_);
    ASSERT_EQ(mutex_.Acquire(0), kAcquired);
    ASSERT_EQ(second.Acquire(0), kAcquired);
    second.Release();
    EXPECT_EQ(child.Ask("acquire 0"), "258");
    second.Release();
    EXPECT_EQ(child.Ask("acquire 0"), "0");
}

TEST_F(NamedMutex, WaitTimesOutNoEarlierThanRequested) {
    ChildProcess child("MutexUser", {name_});
    ASSERT_EQ(child.Ask("acquire 0"), "0");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(mutex_.Acquire(60), kTimedOut);
    // Some systems count in ticks of up to 16 ms.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(40));
}

TEST_F(NamedMutex, WaitOfAlmostASecondTakesAlmostASecond) {
    ChildProcess child("MutexUser", {name_});
    ASSERT_EQ(child.Ask("acquire 0"), "0");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(mutex_.Acquire(999), kTimedOut);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(950));
}

TEST_F(NamedMutex, WaitOfSecondsAndMillisecondsEndsWhenTheMutexIsReleased) {
    std::atomic<bool> released{false};
    ASSERT_EQ(mutex_.Acquire(0), kAcquired);
    std::future<bool> waiter = std::async(std::launch::async, [&] {
        const bool acquired = mutex_.Acquire(599'999) == kAcquired;
        const bool afterRelease = released;
        mutex_.Release();
        return acquired && afterRelease;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    released = true;
    mutex_.Release();
    EXPECT_TRUE(waiter.get());
}

TEST_F(NamedMutex, WaitForeverEndsWhenTheMutexIsReleased) {
    std::atomic<bool> released{false};
    ASSERT_EQ(mutex_.Acquire(kForever), kAcquired);
    std::future<bool> waiter = std::async(std::launch::async, [&] {
        const bool acquired = mutex_.Acquire(kForever) == kAcquired;
        const bool afterRelease = released;
        mutex_.Release();
        return acquired && afterRelease;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    released = true;
    mutex_.Release();
    EXPECT_TRUE(waiter.get());
}

TEST_F(NamedMutex, OfAKilledProcessIsAcquiredAsAbandoned) {
    ChildProcess child("MutexUser", {name_});
    ASSERT_EQ(child.Ask("acquire 0"), "0");
    child.Kill();
    EXPECT_EQ(mutex_.Acquire(0), kAbandoned);
    mutex_.Release();
}

TEST_F(NamedMutex, OfAProcessThatExitedIsAcquiredAsAbandoned) {
    ChildProcess child("MutexUser", {name_});
    ASSERT_EQ(child.Ask("acquire 0"), "0");
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(mutex_.Acquire(0), kAbandoned);
    mutex_.Release();
}

TEST_F(NamedMutex, OfAThreadThatEndedIsAcquiredAsAbandoned) {
    ASSERT_EQ(OnAnotherThread([&] { return mutex_.Acquire(0); }), kAcquired);
    EXPECT_EQ(mutex_.Acquire(0), kAbandoned);
    mutex_.Release();
}

TEST_F(NamedMutex, EndsAWaitAsAbandonedWhenTheOwnerIsKilled) {
    ChildProcess child("MutexUser", {name_});
    ASSERT_EQ(child.Ask("acquire 0"), "0");
    std::future<std::uint32_t> waiter = std::async(std::launch::async, [&] {
        const std::uint32_t result = mutex_.Acquire(kForever);
        mutex_.Release();
        return result;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    child.Kill();
    EXPECT_EQ(waiter.get(), kAbandoned);
}

TEST_F(NamedMutex, BelongsToTheThreadThatAcquiredItAsAbandoned) {
    ChildProcess first("MutexUser", {name_});
    ChildProcess second("MutexUser", {name_});
    ASSERT_EQ(first.Ask("acquire 0"), "0");
    first.Kill();
    ASSERT_EQ(mutex_.Acquire(0), kAbandoned);
    EXPECT_EQ(second.Ask("acquire 0"), "258");
    mutex_.Release();
    EXPECT_EQ(second.Ask("acquire 0"), "0");
}

TEST_F(NamedMutex, ForgetsTheAcquisitionsOfADeadOwner) {
    ChildProcess first("MutexUser", {name_});
    ChildProcess second("MutexUser", {name_});
    first.Ask("acquire 0");
    first.Ask("acquire 0");
    ASSERT_EQ(first.Ask("acquire 0"), "0");
    first.Kill();
    ASSERT_EQ(mutex_.Acquire(0), kAbandoned);
    mutex_.Release();
    EXPECT_EQ(second.Ask("acquire 0"), "0");
}

TEST_F(NamedMutex, IsReportedAbandonedOnce) {
    ChildProcess child("MutexUser", {name_});
    ASSERT_EQ(child.Ask("acquire 0"), "0");
    child.Kill();
    ASSERT_EQ(mutex_.Acquire(0), kAbandoned);
    EXPECT_EQ(mutex_.Acquire(0), kAcquired);
    mutex_.Release();
    mutex_.Release();
    EXPECT_EQ(mutex_.Acquire(0), kAcquired);
    mutex_.Release();
}

TEST_F(NamedMutex, IsAbandonedAgainWhenItsNextOwnerIsKilled) {
    ChildProcess first("MutexUser", {name_});
    ChildProcess second("MutexUser", {name_});
    ASSERT_EQ(first.Ask("acquire 0"), "0");
    first.Kill();
    ASSERT_EQ(second.Ask("acquire 0"), "128");
    second.Kill();
    EXPECT_EQ(mutex_.Acquire(0), kAbandoned);
    mutex_.Release();
}

TEST_F(NamedMutex, IsTheSameForAWideName) {
    const std::wstring wideName(name_.begin(), name_.end());
    const MutexHandle wide(Platform::OpenNamedMutex(wideName.c_str()));
    ASSERT_TRUE(wide.IsOpen());
    ChildProcess child("MutexUser", {name_});
    ASSERT_EQ(child.Ask("acquire 0"), "0");
    EXPECT_EQ(wide.Acquire(0), kTimedOut);
    child.Ask("release");
    EXPECT_EQ(wide.Acquire(0), kAcquired);
    wide.Release();
}

TEST(UnnamedMutex, IsAnotherMutexForEachHandle) {
    const char* const noName = nullptr;
    const MutexHandle first(Platform::OpenNamedMutex(noName));
    const MutexHandle second(Platform::OpenNamedMutex(noName));
    ASSERT_TRUE(first.IsOpen());
    ASSERT_TRUE(second.IsOpen());
    ASSERT_EQ(first.Acquire(0), kAcquired);
    EXPECT_EQ(OnAnotherThread([&] { return first.Acquire(0); }), kTimedOut);
    EXPECT_EQ(OnAnotherThread([&] {
                  const std::uint32_t result = second.Acquire(0);
                  second.Release();
                  return result;
              }),
              kAcquired);
    first.Release();
}

TEST(UnnamedMutex, IsRecursiveAndReportsADeadOwner) {
    const wchar_t* const noName = nullptr;
    const MutexHandle mutex(Platform::OpenNamedMutex(noName));
    ASSERT_EQ(mutex.Acquire(0), kAcquired);
    ASSERT_EQ(mutex.Acquire(0), kAcquired);
    mutex.Release();
    EXPECT_EQ(OnAnotherThread([&] { return mutex.Acquire(0); }), kTimedOut);
    mutex.Release();
    ASSERT_EQ(OnAnotherThread([&] { return mutex.Acquire(0); }), kAcquired);
    EXPECT_EQ(mutex.Acquire(0), kAbandoned);
    mutex.Release();
}

TEST_F(NamedMutex, CannotBeReleasedByAnotherThread) {
    ASSERT_EQ(mutex_.Acquire(0), kAcquired);
    EXPECT_EQ(OnAnotherThread([&] {
                  mutex_.Release();
                  return mutex_.Acquire(0);
              }),
              kTimedOut);
    mutex_.Release();
    EXPECT_EQ(OnAnotherThread([&] {
                  const std::uint32_t result = mutex_.Acquire(0);
                  mutex_.Release();
                  return result;
              }),
              kAcquired);
}

TEST_F(NamedMutex, CannotBeReleasedByAnotherProcess) {
    ChildProcess child("MutexUser", {name_});
    ASSERT_EQ(mutex_.Acquire(0), kAcquired);
    child.Ask("release");
    EXPECT_EQ(child.Ask("acquire 0"), "258");
    mutex_.Release();
}

TEST_F(NamedMutex, DoesNotCountRefusedReleases) {
    ChildProcess child("MutexUser", {name_});
    mutex_.Release();
    mutex_.Release();
    ASSERT_EQ(mutex_.Acquire(0), kAcquired);
    EXPECT_EQ(child.Ask("acquire 0"), "258");
    mutex_.Release();
    EXPECT_EQ(child.Ask("acquire 0"), "0");
}

TEST_F(NamedMutex, StaysAbandonedWhenAThreadThatNeverOwnedItReleasesIt) {
    ASSERT_EQ(OnAnotherThread([&] { return mutex_.Acquire(0); }), kAcquired);
    OnAnotherThread([&] { return mutex_.Release(), 0; });
    mutex_.Release();
    EXPECT_EQ(mutex_.Acquire(0), kAbandoned);
    mutex_.Release();
}

TEST_F(NamedMutex, ClosedThroughOneHandleStaysOwnedThroughAnother) {
    ChildProcess child("MutexUser", {name_});
    MutexHandle second(name_);
    ASSERT_EQ(second.Acquire(0), kAcquired);
    second.Close();
    EXPECT_EQ(child.Ask("acquire 0"), "258");
    mutex_.Release();
    EXPECT_EQ(child.Ask("acquire 0"), "0");
}

TEST_F(NamedMutex, ClosedByItsOwnerStaysOwnedWhileAnotherProcessHasItOpen) {
    ChildProcess child("MutexUser", {name_});
    ASSERT_EQ(child.Ask("acquire 0"), "0");
    child.Ask("close");
    EXPECT_EQ(mutex_.Acquire(0), kTimedOut);
    ASSERT_EQ(child.Ask("open"), "open");
    child.Ask("release");
    EXPECT_EQ(mutex_.Acquire(0), kAcquired);
    mutex_.Release();
}

TEST_F(NamedMutex, ClosedByItsOwnerIsAbandonedWhenThatProcessEnds) {
    ChildProcess child("MutexUser", {name_});
    ASSERT_EQ(child.Ask("acquire 0"), "0");
    child.Ask("close");
    child.Wait();
    EXPECT_EQ(mutex_.Acquire(0), kAbandoned);
    mutex_.Release();
}

TEST_F(NamedMutex, ClosedByItsOwnerIsStillOwnedWhenReopened) {
    ChildProcess child("MutexUser", {name_});
    child.Ask("release");  // returns once the child has opened it
    ASSERT_EQ(mutex_.Acquire(0), kAcquired);
    mutex_.Close();
    const MutexHandle again(name_);
    EXPECT_EQ(OnAnotherThread([&] { return again.Acquire(0); }), kTimedOut);
    EXPECT_EQ(again.Acquire(0), kAcquired);
    again.Release();
    EXPECT_EQ(child.Ask("acquire 0"), "258");
    again.Release();
    EXPECT_EQ(child.Ask("acquire 0"), "0");
}

TEST_F(NamedMutex, ClosedByItsOwnerVanishesWithTheLastOtherHandle) {
    ChildProcess child("MutexUser", {name_});
    child.Ask("release");  // returns once the child has opened it
    ASSERT_EQ(mutex_.Acquire(0), kAcquired);
    mutex_.Close();
    child.Ask("close");
    ChildProcess next("MutexUser", {name_});
    EXPECT_EQ(next.Ask("acquire 0"), "0");
    next.Ask("release");
    const MutexHandle again(name_);
    EXPECT_EQ(next.Ask("acquire 0"), "0");
}

// The mutexes that a thread owns form a list. Removing one must not lose the others.
TEST_F(NamedMutex, ClosedByItsOwnerDoesNotLoseTheOwnersOtherMutex) {
    const MutexHandle kept(UniqueName());
    OnAnotherThread([&] {
        const std::uint32_t first = kept.Acquire(0);
        const std::uint32_t second = mutex_.Acquire(0);
        mutex_.Acquire(0);
        mutex_.Close();
        return first + second;
    });
    EXPECT_EQ(kept.Acquire(0), kAbandoned);
    kept.Release();
}

TEST_F(NamedMutex, ClosedByAnotherThreadDoesNotLoseTheOwnersOtherMutex) {
    const MutexHandle kept(UniqueName());
    std::promise<void> owned;
    std::promise<void> end;
    std::thread owner([&] {
        kept.Acquire(0);
        mutex_.Acquire(0);
        owned.set_value();
        end.get_future().wait();
    });
    owned.get_future().wait();
    mutex_.Close();
    end.set_value();
    owner.join();
    EXPECT_EQ(kept.Acquire(0), kAbandoned);
    kept.Release();
}

// A mutex that is closed while a thread owns it is kept for that thread. It must not affect others.
TEST_F(NamedMutex, IsNewEvenIfOthersWereClosedWhileOwned) {
    MutexHandle unnamed(Platform::OpenNamedMutex(static_cast<const char*>(nullptr)));
    MutexHandle other(UniqueName());
    std::promise<void> owned;
    std::promise<void> end;
    std::thread owner([&] {
        unnamed.Acquire(0);
        other.Acquire(0);
        owned.set_value();
        end.get_future().wait();
    });
    owned.get_future().wait();
    unnamed.Close();
    other.Close();
    const MutexHandle next(UniqueName());
    EXPECT_EQ(next.Acquire(0), kAcquired);
    next.Release();
    end.set_value();
    owner.join();
}

TEST_F(NamedMutex, OpenedAndClosedByManyThreadsAtOnceStaysOneMutex) {
    std::atomic<int> inside{0};
    std::atomic<bool> wasShared{false};
    std::vector<std::thread> threads;
    for (int count = 0; count < 4; ++count) {
        threads.emplace_back([&] {
            for (int round = 0; round < 300; ++round) {
                const MutexHandle mutex(name_);
                mutex.Acquire(kForever);
                wasShared = wasShared || ++inside != 1;
                --inside;
                mutex.Release();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_FALSE(wasShared);
}

TEST_F(NamedMutex, VanishesWithItsLastHandleEvenIfItsOwnerHoldsIt) {
    ChildProcess child("MutexUser", {name_});
    child.Ask("close");
    ASSERT_EQ(mutex_.Acquire(0), kAcquired);
    ASSERT_EQ(mutex_.Acquire(0), kAcquired);
    mutex_.Close();
    ASSERT_EQ(child.Ask("open"), "open");
    EXPECT_EQ(child.Ask("acquire 0"), "0");
}

TEST_F(NamedMutex, VanishesWithItsLastHandleEvenIfAnotherThreadHoldsIt) {
    std::promise<void> owned;
    std::promise<void> end;
    std::thread owner([&] {
        mutex_.Acquire(0);
        owned.set_value();
        end.get_future().wait();
    });
    owned.get_future().wait();
    mutex_.Close();
    {
        const MutexHandle next(name_);
        EXPECT_EQ(next.Acquire(0), kAcquired);
        next.Release();
    }
    end.set_value();
    owner.join();
}

TEST_F(NamedMutex, VanishesWithItsLastHandleEvenIfItIsAbandoned) {
    ASSERT_EQ(OnAnotherThread([&] { return mutex_.Acquire(0); }), kAcquired);
    mutex_.Close();
    const MutexHandle next(name_);
    EXPECT_EQ(next.Acquire(0), kAcquired);
    next.Release();
}

TEST_F(NamedMutex, VanishesWhenItsLastHolderIsKilled) {
    {
        ChildProcess child("MutexUser", {name_});
        ASSERT_EQ(child.Ask("acquire 0"), "0");
        mutex_.Close();
        child.Kill();
    }
    const MutexHandle next(name_);
    EXPECT_EQ(next.Acquire(0), kAcquired);
    next.Release();
}

TEST_F(NamedMutex, AdmitsOneThreadOfAllProcessesAtATime) {
    constexpr int kProcesses = 3;
    constexpr int kTimes = 400;
    const std::string memoryName = name_ + "_sum";
    MemoryHandle memory;
    ASSERT_TRUE(memory.Create(memoryName, 8));
    auto* const sum = reinterpret_cast<volatile std::uint64_t*>(memory.Map(8));
    ASSERT_NE(sum, nullptr);

    std::vector<std::unique_ptr<ChildProcess>> children;
    for (int index = 0; index < kProcesses; ++index) {
        children.push_back(std::make_unique<ChildProcess>(
            "Adder", std::vector<std::string>{name_, memoryName, std::to_string(kTimes)}));
        ASSERT_EQ(children.back()->Receive(), "ready");
    }
    for (const auto& child : children) {
        child->Send("go");
    }
    const auto add = [&] {
        for (int times = 0; times < kTimes; ++times) {
            mutex_.Acquire(kForever);
            const std::uint64_t before = *sum;
            std::this_thread::yield();
            *sum = before + 1;
            mutex_.Release();
        }
    };
    std::thread neighbour(add);
    add();
    neighbour.join();
    for (const auto& child : children) {
        EXPECT_EQ(child->Wait(), 0);
    }
    EXPECT_EQ(*sum, std::uint64_t{kProcesses + 2} * kTimes);
}

}  // namespace Quorvel::Testing
