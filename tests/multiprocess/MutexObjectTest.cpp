#include "quorvel/MutexObject.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <type_traits>

#include "multiprocess/MutexUser.h"
#include "quorvel/AutoMutex.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

namespace {

std::uintptr_t HandleOf(const MutexObject& mutex) {
    std::uintptr_t handle;
    std::memcpy(&handle, static_cast<const void*>(&mutex), sizeof handle);
    return handle;
}

void SetHandle(MutexObject& mutex, std::uintptr_t handle) {
    std::memcpy(static_cast<void*>(&mutex), &handle, sizeof handle);
}

class NamedMutexObject : public ::testing::Test {
protected:
    const std::string name_ = UniqueName();
    MutexObject mutex_{name_.c_str()};
};

}  // namespace

TEST(MutexObject, HoldsOneHandle) {
    static_assert(sizeof(MutexObject) == sizeof(void*));
    const MutexObject none;
    const MutexObject mutex(UniqueName().c_str());
    EXPECT_EQ(HandleOf(none), 0U);
    EXPECT_NE(HandleOf(mutex), 0U);
}

TEST(MutexObject, CannotBeCopiedOrMoved) {
    EXPECT_FALSE(std::is_copy_constructible_v<MutexObject>);
    EXPECT_FALSE(std::is_move_constructible_v<MutexObject>);
    EXPECT_FALSE(std::is_copy_assignable_v<MutexObject>);
    EXPECT_FALSE(std::is_move_assignable_v<MutexObject>);
}

TEST(MutexObject, TakesItsMemoryFromTheHostsHeap) {
    EXPECT_TRUE((std::is_base_of_v<VornHeapOperators, MutexObject>));
}

TEST(MutexObject, WaitResultsAreTheSystems) {
    EXPECT_EQ(kWaitAcquired, 0U);
    EXPECT_EQ(kWaitAbandoned, 128U);
    EXPECT_EQ(kWaitTimedOut, 258U);
    EXPECT_EQ(kWaitForever, 0xFFFFFFFFU);
}

TEST(MutexObject, WithoutAMutexReturnsAbandonedWithoutWaiting) {
    MutexObject none;
    EXPECT_EQ(none.Acquire(0), kWaitAbandoned);
    EXPECT_EQ(none.Acquire(kWaitForever), kWaitAbandoned);
    none.Release();
    EXPECT_EQ(HandleOf(none), 0U);
}

TEST(MutexObject, WithTheInvalidHandleReturnsAbandonedWithoutWaiting) {
    MutexObject invalid;
    SetHandle(invalid, ~std::uintptr_t{0});
    EXPECT_EQ(invalid.Acquire(0), kWaitAbandoned);
    EXPECT_EQ(invalid.Acquire(kWaitForever), kWaitAbandoned);
    invalid.Release();
    EXPECT_EQ(HandleOf(invalid), ~std::uintptr_t{0});
}

TEST_F(NamedMutexObject, IsNotOwnedAtFirst) {
    EXPECT_TRUE(MutexUser(name_).FindsItFree());
}

TEST_F(NamedMutexObject, SerialisesProcesses) {
    MutexUser other(name_);
    ASSERT_EQ(mutex_.Acquire(kWaitForever), kWaitAcquired);
    EXPECT_EQ(other.Acquire(), kWaitTimedOut);
    mutex_.Release();
    EXPECT_EQ(other.Acquire(), kWaitAcquired);
    EXPECT_EQ(mutex_.Acquire(0), kWaitTimedOut);
    EXPECT_EQ(mutex_.Acquire(20), kWaitTimedOut);
    other.Release();
    EXPECT_EQ(mutex_.Acquire(kWaitForever), kWaitAcquired);
    mutex_.Release();
}

TEST_F(NamedMutexObject, IsTheSameUnderItsWideName) {
    const std::wstring wideName(name_.begin(), name_.end());
    MutexObject wide(wideName.c_str());
    MutexUser other(name_);
    ASSERT_EQ(wide.Acquire(0), kWaitAcquired);
    EXPECT_EQ(other.Acquire(), kWaitTimedOut);
    wide.Release();
    EXPECT_TRUE(other.FindsItFree());
}

TEST(MutexObject, WithANullNameIsNotShared) {
    MutexObject first(static_cast<const char*>(nullptr));
    MutexObject second(static_cast<const wchar_t*>(nullptr));
    ASSERT_EQ(first.Acquire(0), kWaitAcquired);
    EXPECT_EQ(OnAnotherThread([&] { return first.Acquire(0); }), kWaitTimedOut);
    EXPECT_EQ(OnAnotherThread([&] {
                  const AutoMutex guard(second, 0);
                  return guard.WaitResult();
              }),
              kWaitAcquired);
    first.Release();
}

TEST_F(NamedMutexObject, IsRecursive) {
    MutexUser other(name_);
    ASSERT_EQ(mutex_.Acquire(kWaitForever), kWaitAcquired);
    ASSERT_EQ(mutex_.Acquire(kWaitForever), kWaitAcquired);
    mutex_.Release();
    EXPECT_FALSE(other.FindsItFree());
    mutex_.Release();
    EXPECT_TRUE(other.FindsItFree());
}

TEST_F(NamedMutexObject, IsAbandonedByAKilledProcess) {
    MutexUser other(name_);
    ASSERT_EQ(other.Acquire(), kWaitAcquired);
    other.Kill();
    EXPECT_EQ(mutex_.Acquire(kWaitForever), kWaitAbandoned);
    mutex_.Release();
    EXPECT_EQ(mutex_.Acquire(kWaitForever), kWaitAcquired);
    mutex_.Release();
}

TEST_F(NamedMutexObject, IsAbandonedByAThreadThatEnded) {
    AbandonOnAnotherThread(mutex_);
    EXPECT_EQ(mutex_.Acquire(kWaitForever), kWaitAbandoned);
    mutex_.Release();
}

TEST_F(NamedMutexObject, IgnoresAReleaseByAThreadThatDoesNotOwnIt) {
    MutexUser other(name_);
    mutex_.Release();
    ASSERT_EQ(other.Acquire(), kWaitAcquired);
    mutex_.Release();
    EXPECT_EQ(mutex_.Acquire(0), kWaitTimedOut);
}

TEST_F(NamedMutexObject, LivesAsLongAsAnObjectHasItOpen) {
    auto second = std::make_unique<MutexObject>(name_.c_str());
    AbandonOnAnotherThread(*second);
    second.reset();
    EXPECT_EQ(mutex_.Acquire(0), kWaitAbandoned);
    mutex_.Release();
}

TEST(MutexObject, ClosesItsMutexWhenDestroyed) {
    const std::string name = UniqueName();
    {
        MutexObject mutex(name.c_str());
        AbandonOnAnotherThread(mutex);
    }
    MutexObject next(name.c_str());
    EXPECT_EQ(next.Acquire(0), kWaitAcquired);
    next.Release();
}

}  // namespace Quorvel::Testing
