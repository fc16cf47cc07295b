// The objects that processes share, as a client uses them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvel/Quorvel.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

namespace {

using ::testing::ElementsAre;

// A client's own block: a counter that starts at 100.
class Counter : public MultiProcessMemory {
public:
    explicit Counter(const std::string& name) { Initialize(name.c_str(), sizeof(int)); }

    int Increment() {
        int* const value = static_cast<int*>(Lock(kWaitForever));
        const int incremented = ++*value;
        Unlock();
        return incremented;
    }

    std::vector<std::string> calls;

protected:
    void OnMemoryCreated(void* block) override {
        calls.emplace_back("created");
        *static_cast<int*>(block) = 100;
    }
    void OnMemoryAttached(void* block) override {
        calls.emplace_back("attached at " + std::to_string(*static_cast<int*>(block)));
    }
};

}  // namespace

TEST(SharedObjectsUse, MultiProcessMemoryCallsTheHooksOfADerivedClass) {
    const std::string name = UniqueName();
    Counter first(name);
    EXPECT_THAT(first.calls, ElementsAre("created"));
    EXPECT_EQ(first.Increment(), 101);
    Counter second(name);
    EXPECT_THAT(second.calls, ElementsAre("attached at 101"));
    EXPECT_EQ(second.Increment(), 102);
    EXPECT_EQ(first.Increment(), 103);
    EXPECT_THAT(first.calls, ElementsAre("created"));
}

TEST(SharedObjectsUse, ATimeStampReportsAnothersUpdate) {
    const std::string name = UniqueName();
    MultiProcessTimeStamp one;
    MultiProcessTimeStamp other;
    EXPECT_TRUE(one.Initialize(name.c_str()));
    EXPECT_TRUE(other.Initialize(name.c_str()));
    EXPECT_FALSE(other.IsChanged());
    one.UpdateTimeStamp();
    EXPECT_FALSE(one.IsChanged());
    EXPECT_TRUE(other.IsChanged());
    EXPECT_FALSE(other.IsChanged());
}

TEST(SharedObjectsUse, AnAutoMutexHoldsAMutexForAScope) {
    const std::string name = UniqueName();
    MutexObject mutex(name.c_str());
    MutexObject same(std::wstring(name.begin(), name.end()).c_str());
    {
        const AutoMutex guard(mutex, kWaitForever);
        EXPECT_EQ(guard.WaitResult(), kWaitAcquired);
        EXPECT_EQ(same.Acquire(0), kWaitAcquired);  // the same thread may acquire it again
        same.Release();
    }
    EXPECT_EQ(same.Acquire(0), kWaitAcquired);
    same.Release();
    EXPECT_EQ(MutexObject().Acquire(kWaitForever), kWaitAbandoned);
}

}  // namespace Quorvel::Testing
