#include "quorvel/MultiProcessTimeStamp.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <type_traits>

#include "multiprocess/Block.h"
#include "multiprocess/MutexUser.h"
#include "platform/Clock.h"
#include "platform/Process.h"
#include "quorvel/AutoMutex.h"
#include "quorvel/Exceptions.h"
#include "support/Agent.h"
#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

namespace {

constexpr std::size_t kLastSeenOffset = 40;

// Uses a time stamp by commands: "update", "changed", "lock" (never unlocks). Argument: the stamp's
// name.
QUORVEL_AGENT(TimeStampUser) {
    MultiProcessTimeStamp stamp;
    stamp.Initialize(arguments[0].c_str());
    AgentSend("ready");
    for (std::string command = AgentReceive(); !command.empty(); command = AgentReceive()) {
        if (command == "update") {
            stamp.UpdateTimeStamp();
            AgentSend("updated");
        } else if (command == "changed") {
            AgentSend(stamp.IsChanged() ? "yes" : "no");
        } else if (command == "lock") {
            AgentSend(stamp.Lock(kWaitForever) ? "locked" : "abandoned");
        }
    }
    return 0;
}

class MultiProcessTimeStampTest : public ::testing::Test {
protected:
    // The bytes that processes share.
    std::string SharedBytes() const {
        Block block;
        block.Initialize(name_, sizeof(TimeStampRecord));
        return {static_cast<const char*>(block.passed), sizeof(TimeStampRecord)};
    }
    TimeStampRecord SharedRecord() const {
        return FieldAt<TimeStampRecord>(SharedBytes().data(), 0);
    }

    std::unique_ptr<ChildProcess> StartUser() const {
        auto user =
            std::make_unique<ChildProcess>("TimeStampUser", std::vector<std::string>{name_});
        EXPECT_EQ(user->Receive(), "ready");
        return user;
    }

    const std::string name_ = UniqueName();
    MultiProcessTimeStamp stamp_;
};

}  // namespace

TEST(TimeStampRecord, IsSecondsCounterRandomAndProcess) {
    EXPECT_EQ(sizeof(TimeStampRecord), 24U);
    EXPECT_EQ(offsetof(TimeStampRecord, seconds), 0U);
    EXPECT_EQ(offsetof(TimeStampRecord, counter), 8U);
    EXPECT_EQ(offsetof(TimeStampRecord, random), 16U);
    EXPECT_EQ(offsetof(TimeStampRecord, process), 20U);
    EXPECT_TRUE((std::is_same_v<decltype(TimeStampRecord::seconds), std::int64_t>));
    EXPECT_TRUE((std::is_same_v<decltype(TimeStampRecord::counter), std::int64_t>));
    EXPECT_TRUE((std::is_same_v<decltype(TimeStampRecord::random), std::uint32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(TimeStampRecord::process), std::uint32_t>));
}

TEST_F(MultiProcessTimeStampTest, StoresEachFieldAtItsOffsetInTheBlock) {
    std::srand(99);
    const auto random = static_cast<std::uint32_t>(std::rand());
    const std::int64_t earliestSecond = std::time(nullptr);
    const std::int64_t earliestCount = Platform::PerformanceCounter();
    std::srand(99);
    ASSERT_TRUE(stamp_.Initialize(name_.c_str()));
    const std::int64_t latestCount = Platform::PerformanceCounter();
    const std::int64_t latestSecond = std::time(nullptr);

    const std::string bytes = SharedBytes();
    EXPECT_GE(FieldAt<std::int64_t>(bytes.data(), 0), earliestSecond);
    EXPECT_LE(FieldAt<std::int64_t>(bytes.data(), 0), latestSecond);
    EXPECT_GE(FieldAt<std::int64_t>(bytes.data(), 8), earliestCount);
    EXPECT_LE(FieldAt<std::int64_t>(bytes.data(), 8), latestCount);
    EXPECT_EQ(FieldAt<std::uint32_t>(bytes.data(), 16), random);
    EXPECT_EQ(FieldAt<std::uint32_t>(bytes.data(), 20), Platform::CurrentProcessId());
}

TEST_F(MultiProcessTimeStampTest, IsNotChangedWhenNew) {
    ASSERT_TRUE(stamp_.Initialize(name_.c_str()));
    EXPECT_NE(SharedBytes(), std::string(sizeof(TimeStampRecord), '\0'));
    EXPECT_FALSE(stamp_.IsChanged());
}

TEST_F(MultiProcessTimeStampTest, IsNotChangedAfterAttaching) {
    const auto user = StartUser();
    user->Ask("update");
    const std::string bytes = SharedBytes();
    ASSERT_TRUE(stamp_.Initialize(name_.c_str()));
    EXPECT_EQ(SharedBytes(), bytes);
    EXPECT_FALSE(stamp_.IsChanged());
}

TEST_F(MultiProcessTimeStampTest, AdoptsTheRecordThatItAttachesTo) {
    const auto user = StartUser();
    ASSERT_TRUE(stamp_.Initialize(name_.c_str()));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&stamp_) + kLastSeenOffset,
                          sizeof(TimeStampRecord)),
              SharedBytes());
}

TEST_F(MultiProcessTimeStampTest, ReportsAnUpdateByAnotherProcessOnce) {
    ASSERT_TRUE(stamp_.Initialize(name_.c_str()));
    const auto user = StartUser();
    user->Ask("update");
    EXPECT_TRUE(stamp_.IsChanged());
    EXPECT_FALSE(stamp_.IsChanged());
    EXPECT_EQ(user->Ask("changed"), "no");
}

TEST_F(MultiProcessTimeStampTest, ReportsItsUpdateOnceToEveryOtherProcessAndNotToItself) {
    const auto first = StartUser();
    const auto second = StartUser();
    ASSERT_TRUE(stamp_.Initialize(name_.c_str()));
    stamp_.UpdateTimeStamp();
    EXPECT_FALSE(stamp_.IsChanged());
    EXPECT_EQ(first->Ask("changed"), "yes");
    EXPECT_EQ(first->Ask("changed"), "no");
    EXPECT_EQ(second->Ask("changed"), "yes");
    EXPECT_EQ(second->Ask("changed"), "no");
}

TEST_F(MultiProcessTimeStampTest, ReportsItsUpdateToAnotherObjectOfItsProcess) {
    MultiProcessTimeStamp other;
    stamp_.Initialize(name_.c_str());
    other.Initialize(name_.c_str());
    stamp_.UpdateTimeStamp();
    EXPECT_TRUE(other.IsChanged());
    EXPECT_FALSE(other.IsChanged());
    EXPECT_FALSE(stamp_.IsChanged());
}

TEST_F(MultiProcessTimeStampTest, ReportsSeveralUpdatesAsOne) {
    stamp_.Initialize(name_.c_str());
    const auto user = StartUser();
    for (int updates = 0; updates < 5; ++updates) {
        user->Ask("update");
    }
    EXPECT_TRUE(stamp_.IsChanged());
    EXPECT_FALSE(stamp_.IsChanged());
    user->Ask("update");
    EXPECT_TRUE(stamp_.IsChanged());
}

TEST_F(MultiProcessTimeStampTest, ForgetsAChangeThatItsOwnUpdateOverwrites) {
    stamp_.Initialize(name_.c_str());
    const auto user = StartUser();
    user->Ask("update");
    stamp_.UpdateTimeStamp();
    EXPECT_FALSE(stamp_.IsChanged());
    EXPECT_EQ(user->Ask("changed"), "yes");
}

TEST_F(MultiProcessTimeStampTest, NamesTheProcessThatWroteIt) {
    stamp_.Initialize(name_.c_str());
    const auto user = StartUser();
    EXPECT_EQ(SharedRecord().process, Platform::CurrentProcessId());
    user->Ask("update");
    EXPECT_EQ(SharedRecord().process, user->Id());
    stamp_.UpdateTimeStamp();
    EXPECT_EQ(SharedRecord().process, Platform::CurrentProcessId());
}

TEST_F(MultiProcessTimeStampTest, WritesANewRecordWithEachUpdate) {
    constexpr int kUpdates = 1000;
    stamp_.Initialize(name_.c_str());
    std::set<std::string> records;
    for (int updates = 0; updates < kUpdates; ++updates) {
        stamp_.UpdateTimeStamp();
        records.insert(SharedBytes());
    }
    EXPECT_EQ(records.size(), std::size_t{kUpdates});
}

TEST_F(MultiProcessTimeStampTest, NoticesADifferenceInAnyOfItsBytes) {
    stamp_.Initialize(name_.c_str());
    Block block;
    block.Initialize(name_, sizeof(TimeStampRecord));
    for (std::size_t index = 0; index < sizeof(TimeStampRecord); ++index) {
        static_cast<unsigned char*>(block.passed)[index] ^= 1;
        EXPECT_TRUE(stamp_.IsChanged()) << index;
        EXPECT_FALSE(stamp_.IsChanged()) << index;
    }
}

TEST_F(MultiProcessTimeStampTest, StartsAnewAfterAllObjectsHaveClosed) {
    {
        MultiProcessTimeStamp earlier;
        earlier.Initialize(name_.c_str());
    }
    StartUser()->Wait();
    stamp_.Initialize(name_.c_str());
    EXPECT_EQ(SharedRecord().process, Platform::CurrentProcessId());
    EXPECT_FALSE(stamp_.IsChanged());
}

TEST_F(MultiProcessTimeStampTest, IsNotChangedAfterItOpensAnotherName) {
    const auto user = StartUser();
    stamp_.Initialize((name_ + "_other").c_str());
    stamp_.UpdateTimeStamp();
    stamp_.Initialize(name_.c_str());
    EXPECT_FALSE(stamp_.IsChanged());
    user->Ask("update");
    EXPECT_TRUE(stamp_.IsChanged());
}

TEST(MultiProcessTimeStamp, DoesNothingBeforeItIsInitialised) {
    MultiProcessTimeStamp stamp;
    stamp.UpdateTimeStamp();
    EXPECT_FALSE(stamp.IsChanged());
    EXPECT_EQ(stamp.Lock(0), nullptr);
}

TEST(MultiProcessTimeStamp, HasSeenZerosAtFirst) {
    static_assert(sizeof(MultiProcessTimeStamp) == kLastSeenOffset + sizeof(TimeStampRecord));
    const MultiProcessTimeStamp stamp;
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&stamp) + kLastSeenOffset,
                          sizeof(TimeStampRecord)),
              std::string(sizeof(TimeStampRecord), '\0'));
}

TEST_F(MultiProcessTimeStampTest, LeavesItsLockFree) {
    stamp_.Initialize(name_.c_str());
    MutexUser other(name_ + "_mutex");
    stamp_.UpdateTimeStamp();
    EXPECT_TRUE(other.FindsItFree());
    stamp_.IsChanged();
    EXPECT_TRUE(other.FindsItFree());
}

// The record is made before the lock is acquired.
TEST_F(MultiProcessTimeStampTest, WaitsForItsLockWithTheRecordThatItHasMade) {
    stamp_.Initialize(name_.c_str());
    MultiProcessTimeStamp other;
    other.Initialize(name_.c_str());
    MutexUser holder(name_ + "_mutex");
    for (const bool updates : {true, false}) {
        ASSERT_EQ(holder.Acquire(), kWaitAcquired);
        auto waiting = std::async(std::launch::async, [&] {
            updates ? stamp_.UpdateTimeStamp() : static_cast<void>(other.IsChanged());
        });
        EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
        const std::int64_t released = Platform::PerformanceCounter();
        holder.Release();
        waiting.get();
        EXPECT_LT(SharedRecord().counter, released);
    }
}

TEST_F(MultiProcessTimeStampTest, ThrowsIfItsMutexIsAbandoned) {
    MutexObject mutex((name_ + "_mutex").c_str());
    AbandonOnAnotherThread(mutex);
    EXPECT_THROW(stamp_.Initialize(name_.c_str()), Win32APICallFailedException);
}

TEST_F(MultiProcessTimeStampTest, IsNotChangedByAProcessKilledWithTheLock) {
    stamp_.Initialize(name_.c_str());
    const auto user = StartUser();
    ASSERT_EQ(user->Ask("lock"), "locked");
    user->Kill();
    EXPECT_FALSE(stamp_.IsChanged());
    EXPECT_TRUE(MutexUser(name_ + "_mutex").FindsItFree());
}

TEST_F(MultiProcessTimeStampTest, ReportsTheUpdateOfAProcessKilledWithTheLock) {
    stamp_.Initialize(name_.c_str());
    const auto user = StartUser();
    user->Ask("update");
    ASSERT_EQ(user->Ask("lock"), "locked");
    user->Kill();
    EXPECT_TRUE(stamp_.IsChanged());
    EXPECT_FALSE(stamp_.IsChanged());
}

TEST_F(MultiProcessTimeStampTest, CanBeUpdatedAfterAProcessWasKilledWithTheLock) {
    stamp_.Initialize(name_.c_str());
    const auto killed = StartUser();
    const auto survivor = StartUser();
    ASSERT_EQ(killed->Ask("lock"), "locked");
    killed->Kill();
    stamp_.UpdateTimeStamp();
    EXPECT_EQ(SharedRecord().process, Platform::CurrentProcessId());
    EXPECT_FALSE(stamp_.IsChanged());
    EXPECT_EQ(survivor->Ask("changed"), "yes");
    survivor->Ask("update");
    EXPECT_TRUE(stamp_.IsChanged());
}

}  // namespace Quorvel::Testing
