#include "platform/Assert.h"

#include <gtest/gtest.h>

// Not under Wine: processes that abort leave its server unable to start others.
namespace Quorvel::Testing {

namespace {

bool TakesTheBranch(bool isBroken) {
    if (QUORVEL_NEVER(isBroken)) { return true; }
    return false;
}

TEST(AssertDeathTest, AFailedAssertionSaysWhatAndWhereAndEndsTheProcess) {
    const int pages = 3;
    QUORVEL_ASSERT(pages == 3);
    EXPECT_DEATH(QUORVEL_ASSERT(pages == 4), "AssertTest.cpp:.*: assertion failed: pages == 4");
}

TEST(AssertDeathTest, ABranchThatCannotBeTakenEndsTheProcess) {
    EXPECT_FALSE(TakesTheBranch(false));
    EXPECT_DEATH(TakesTheBranch(true), "assertion failed: never: isBroken");
}

}  // namespace

}  // namespace Quorvel::Testing
