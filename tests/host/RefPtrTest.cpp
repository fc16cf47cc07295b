#include "vornutil/RefPtr.h"

#include <gtest/gtest.h>

#include <utility>

#include "vornutil/RefObject.h"

namespace {

using Util::RefPtr;

struct Object : Util::ARefObject {
    explicit Object(int initialValue = 0) : value(initialValue) { ++living; }
    ~Object() override { --living; }

    std::uint32_t References() {
        AddRef();
        return Release();
    }

    int value;
    static inline int living = 0;
};

struct Derived : Object {};

// Resets the reference to itself in its destructor.
struct Returning : Util::ARefObject {
    ~Returning() override {
        wasEmpty = !*home;
        home->Reset();
    }

    RefPtr<Returning>* home = nullptr;
    static inline bool wasEmpty = false;
};

class RefPtrTest : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(Object::living, 0); }
};

TEST_F(RefPtrTest, IsEmptyAtFirst) {
    const RefPtr<Object> none;
    const RefPtr<Object> null = nullptr;
    const RefPtr<Object> nullObject(static_cast<Object*>(nullptr));
    EXPECT_FALSE(none);
    EXPECT_FALSE(null);
    EXPECT_FALSE(nullObject);
    EXPECT_EQ(none.Get(), nullptr);
}

TEST_F(RefPtrTest, HoldsAReferenceForItsLifetime) {
    {
        const RefPtr<Object> pointer(new Object(5));
        EXPECT_TRUE(pointer);
        EXPECT_EQ(pointer->References(), 1U);
        EXPECT_EQ(pointer->value, 5);
        EXPECT_EQ((*pointer).value, 5);
        EXPECT_EQ(Object::living, 1);
    }
    EXPECT_EQ(Object::living, 0);
}

TEST_F(RefPtrTest, SharesItsObjectWithACopy) {
    RefPtr<Object> pointer(new Object);
    const RefPtr<Object> copy(pointer);
    EXPECT_EQ(pointer->References(), 2U);
    pointer.Reset();
    EXPECT_FALSE(pointer);
    EXPECT_EQ(copy->References(), 1U);
}

TEST_F(RefPtrTest, PassesOnItsReferenceWhenMoved) {
    RefPtr<Object> pointer(new Object);
    const RefPtr<Object> moved(std::move(pointer));
    EXPECT_EQ(moved->References(), 1U);
    RefPtr<Object> assigned(new Object);
    assigned = RefPtr<Object>(moved);
    EXPECT_EQ(Object::living, 1);
    EXPECT_EQ(moved->References(), 2U);
}

TEST_F(RefPtrTest, ReleasesItsObjectWhenAssigned) {
    const RefPtr<Object> first(new Object(1));
    RefPtr<Object> pointer(new Object(2));
    pointer = first;
    EXPECT_EQ(Object::living, 1);
    EXPECT_EQ(pointer->value, 1);
    pointer = nullptr;
    EXPECT_FALSE(pointer);
    EXPECT_EQ(first->References(), 1U);
}

TEST_F(RefPtrTest, SurvivesAssignmentToItself) {
    RefPtr<Object> pointer(new Object(3));
    const RefPtr<Object>& same = pointer;
    pointer = same;
    EXPECT_EQ(pointer->References(), 1U);
    EXPECT_EQ(pointer->value, 3);
}

TEST_F(RefPtrTest, TakesAReferenceToADerivedClass) {
    const RefPtr<Derived> derived(new Derived);
    const RefPtr<Object> base(derived);
    EXPECT_EQ(base->References(), 2U);
    EXPECT_TRUE(base == derived);
}

TEST_F(RefPtrTest, IsEqualToAnotherReferenceToItsObject) {
    const RefPtr<Object> first(new Object);
    const RefPtr<Object> same(first);
    const RefPtr<Object> second(new Object);
    EXPECT_TRUE(first == same);
    EXPECT_FALSE(first != same);
    EXPECT_FALSE(first == second);
    EXPECT_TRUE(first != second);
}

TEST(RefPtr, IsEmptyBeforeItsObjectIsDestroyed) {
    RefPtr<Returning> pointer(new Returning);
    pointer->home = &pointer;
    pointer.Reset();
    EXPECT_TRUE(Returning::wasEmpty);
}

}  // namespace
