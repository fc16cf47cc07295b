#include "quorvel/AutoMutex.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <type_traits>

#include "multiprocess/MutexUser.h"
#include "quorvel/MutexObject.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

namespace {

class AutoMutexTest : public ::testing::Test {
protected:
    const std::string name_ = UniqueName();
    MutexObject mutex_{name_.c_str()};
    MutexUser other_{name_};
};

}  // namespace

TEST_F(AutoMutexTest, HoldsTheMutexForItsScope) {
    {
        const AutoMutex guard(mutex_, kWaitForever);
        EXPECT_EQ(guard.WaitResult(), kWaitAcquired);
        EXPECT_EQ(other_.Acquire(), kWaitTimedOut);
    }
    EXPECT_TRUE(other_.FindsItFree());
}

TEST_F(AutoMutexTest, NestedGuardsBothSucceedAndReleaseInReverseOrder) {
    {
        const AutoMutex outer(mutex_, kWaitForever);
        {
            const AutoMutex inner(mutex_, kWaitForever);
            EXPECT_EQ(outer.WaitResult(), kWaitAcquired);
            EXPECT_EQ(inner.WaitResult(), kWaitAcquired);
        }
        EXPECT_FALSE(other_.FindsItFree());
    }
    EXPECT_TRUE(other_.FindsItFree());
}

TEST_F(AutoMutexTest, GuardWhoseWaitEndsAbandonedLeavesTheMutexOwned) {
    AbandonOnAnotherThread(mutex_);
    {
        const AutoMutex guard(mutex_, kWaitForever);
        EXPECT_EQ(guard.WaitResult(), kWaitAbandoned);
    }
    EXPECT_EQ(other_.Acquire(), kWaitTimedOut);
    mutex_.Release();
    EXPECT_TRUE(other_.FindsItFree());
}

TEST_F(AutoMutexTest, GuardInsideAnAbandonedOneReleasesOnlyItsOwnAcquisition) {
    AbandonOnAnotherThread(mutex_);
    {
        const AutoMutex outer(mutex_, kWaitForever);
        const AutoMutex inner(mutex_, kWaitForever);
        EXPECT_EQ(outer.WaitResult(), kWaitAbandoned);
        EXPECT_EQ(inner.WaitResult(), kWaitAcquired);
    }
    EXPECT_FALSE(other_.FindsItFree());
    mutex_.Release();
    EXPECT_TRUE(other_.FindsItFree());
}

TEST_F(AutoMutexTest, GuardWhoseWaitTimesOutTakesNothingFromTheOwner) {
    ASSERT_EQ(other_.Acquire(), kWaitAcquired);
    {
        const AutoMutex guard(mutex_, 0);
        EXPECT_EQ(guard.WaitResult(), kWaitTimedOut);
    }
    EXPECT_EQ(mutex_.Acquire(0), kWaitTimedOut);
}

// A guard calls Release even if its wait timed out. The call does something only if the thread has
// acquired the mutex in the meantime.
TEST_F(AutoMutexTest, GuardWhoseWaitTimesOutReleasesAtItsEnd) {
    ASSERT_EQ(other_.Acquire(), kWaitAcquired);
    {
        const AutoMutex guard(mutex_, 0);
        ASSERT_EQ(guard.WaitResult(), kWaitTimedOut);
        other_.Release();
        ASSERT_EQ(mutex_.Acquire(0), kWaitAcquired);
    }
    EXPECT_TRUE(other_.FindsItFree());
}

TEST(AutoMutex, GuardWithoutAMutexReleasesNothing) {
    MutexObject none;
    {
        const AutoMutex guard(none, kWaitForever);
        EXPECT_EQ(guard.WaitResult(), kWaitAbandoned);
    }
    EXPECT_EQ(none.Acquire(kWaitForever), kWaitAbandoned);
}

TEST_F(AutoMutexTest, HoldsThePointerToTheMutexAndTheWaitResult) {
    static_assert(sizeof(AutoMutex) == 2 * sizeof(void*));
    ASSERT_EQ(other_.Acquire(), kWaitAcquired);
    const AutoMutex guard(mutex_, 0);
    const MutexObject* mutex;
    std::uint32_t result;
    std::memcpy(&mutex, &guard, sizeof mutex);
    std::memcpy(&result, reinterpret_cast<const char*>(&guard) + sizeof mutex, sizeof result);
    EXPECT_EQ(mutex, &mutex_);
    EXPECT_EQ(result, kWaitTimedOut);
}

TEST(AutoMutex, CannotBeCopiedOrMoved) {
    EXPECT_FALSE(std::is_copy_constructible_v<AutoMutex>);
    EXPECT_FALSE(std::is_move_constructible_v<AutoMutex>);
    EXPECT_FALSE(std::is_copy_assignable_v<AutoMutex>);
}

}  // namespace Quorvel::Testing
