#include "vornutil/VornHeapOperators.h"

#include <gtest/gtest.h>

#include <memory>
#include <new>

#include "support/HeapFault.h"

namespace {

using Quorvel::Testing::HeapFault;

struct Hosted : VornHeapOperators {
    explicit Hosted(int initialValue = 0) : value(initialValue) {}

    int value;
    char more[100] = {};
};

TEST(VornHeapOperators, AddNothingToAnObject) {
    struct Plain {
        int value;
        char more[100];
    };
    EXPECT_EQ(sizeof(Hosted), sizeof(Plain));
}

TEST(VornHeapOperators, ThrowWhenTheHeapIsExhausted) {
    const HeapFault fault;
    EXPECT_THROW(static_cast<void>(std::unique_ptr<Hosted>(new Hosted)), std::bad_alloc);
    EXPECT_EQ(fault.Failures(), 1U);
}

TEST(VornHeapOperators, ReturnNullFromNothrowNew) {
    std::unique_ptr<Hosted> object;
    {
        const HeapFault fault;
        object.reset(new (std::nothrow) Hosted);
        EXPECT_EQ(fault.Failures(), 1U);
    }
    EXPECT_FALSE(object);
    object.reset(new (std::nothrow) Hosted(3));
    ASSERT_TRUE(object);
    EXPECT_EQ(object->value, 3);
}

TEST(VornHeapOperators, SupportPlacementNew) {
    alignas(Hosted) unsigned char place[sizeof(Hosted)];
    auto* const object = new (place) Hosted(9);
    EXPECT_EQ(static_cast<void*>(object), static_cast<void*>(place));
    EXPECT_EQ(object->value, 9);
    object->~Hosted();
}

}  // namespace
