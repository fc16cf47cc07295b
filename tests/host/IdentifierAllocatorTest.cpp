#include "corvaneutility/IdentifierAllocator.h"

#include <gtest/gtest.h>

#include <iterator>
#include <random>
#include <set>

namespace {

using Corvane::IdentifierAllocator;

constexpr std::uint64_t kHighest = 0xFFFFFF;
constexpr std::uint64_t kNone = ~std::uint64_t{0};

// The identifiers that an allocator lists as allocated.
std::set<std::uint64_t> ContentOf(const IdentifierAllocator& allocator) {
    std::set<std::uint64_t> content;
    for (std::uint64_t index = 0; index < allocator.GetNumberOfAllocatedIdentifiers(); ++index) {
        content.insert(content.end(), allocator.GetAllocatedIdentifier(index));
    }
    return content;
}

TEST(IdentifierAllocator, HasNothingAllocatedAtFirst) {
    const IdentifierAllocator allocator;
    EXPECT_EQ(allocator.GetNumberOfAllocatedIdentifiers(), 0U);
    EXPECT_EQ(allocator.GetAllocatedIdentifier(0), kNone);
    EXPECT_FALSE(allocator.IsAllocated(0));
}

TEST(IdentifierAllocator, AllocatesTheLowestFreeIdentifierFirst) {
    IdentifierAllocator allocator;
    for (std::uint64_t expected = 0; expected < 1000; ++expected) {
        ASSERT_EQ(allocator.Allocate(), expected);
    }
    EXPECT_TRUE(allocator.Free(700));
    EXPECT_TRUE(allocator.Free(3));
    EXPECT_TRUE(allocator.Free(64));
    EXPECT_EQ(allocator.Allocate(), 3U);
    EXPECT_EQ(allocator.Allocate(), 64U);
    EXPECT_EQ(allocator.Allocate(), 700U);
    EXPECT_EQ(allocator.Allocate(), 1000U);
}

TEST(IdentifierAllocator, SkipsMarkedIdentifiers) {
    IdentifierAllocator allocator;
    EXPECT_TRUE(allocator.MarkAllocated(0));
    EXPECT_TRUE(allocator.MarkAllocated(2));
    EXPECT_EQ(allocator.Allocate(), 1U);
    EXPECT_EQ(allocator.Allocate(), 3U);
}

TEST(IdentifierAllocator, RefusesToMarkAnIdentifierTwice) {
    IdentifierAllocator allocator;
    EXPECT_TRUE(allocator.MarkAllocated(500));
    EXPECT_FALSE(allocator.MarkAllocated(500));
    EXPECT_EQ(allocator.Allocate(), 0U);
    EXPECT_FALSE(allocator.MarkAllocated(0));
    EXPECT_EQ(allocator.GetNumberOfAllocatedIdentifiers(), 2U);
}

TEST(IdentifierAllocator, RefusesToMarkAnIdentifierAboveTheHighest) {
    IdentifierAllocator allocator;
    EXPECT_TRUE(allocator.MarkAllocated(kHighest));
    EXPECT_FALSE(allocator.MarkAllocated(kHighest + 1));
    EXPECT_FALSE(allocator.MarkAllocated(kNone));
    EXPECT_TRUE(allocator.IsAllocated(kHighest));
    EXPECT_EQ(allocator.GetNumberOfAllocatedIdentifiers(), 1U);
    EXPECT_EQ(allocator.GetAllocatedIdentifier(0), kHighest);
    EXPECT_EQ(allocator.Allocate(), 0U);
}

TEST(IdentifierAllocator, RefusesToFreeAFreeIdentifier) {
    IdentifierAllocator allocator;
    EXPECT_FALSE(allocator.Free(0));
    EXPECT_FALSE(allocator.Free(kNone));
    allocator.Allocate();
    EXPECT_TRUE(allocator.Free(0));
    EXPECT_FALSE(allocator.Free(0));
    EXPECT_EQ(allocator.GetNumberOfAllocatedIdentifiers(), 0U);
}

TEST(IdentifierAllocator, KnowsWhichIdentifiersAreAllocated) {
    IdentifierAllocator allocator;
    allocator.MarkAllocated(63);
    allocator.MarkAllocated(64);
    EXPECT_FALSE(allocator.IsAllocated(62));
    EXPECT_TRUE(allocator.IsAllocated(63));
    EXPECT_TRUE(allocator.IsAllocated(64));
    EXPECT_FALSE(allocator.IsAllocated(65));
    EXPECT_FALSE(allocator.IsAllocated(1'000'000));
    EXPECT_FALSE(allocator.IsAllocated(kNone));
}

TEST(IdentifierAllocator, ListsAllocatedIdentifiersInAscendingOrder) {
    IdentifierAllocator allocator;
    for (const std::uint64_t identifier : {9000U, 5U, 127U, 128U, 4096U, 63U}) {
        ASSERT_TRUE(allocator.MarkAllocated(identifier));
    }
    std::uint64_t index = 0;
    for (const std::uint64_t expected : {5U, 63U, 127U, 128U, 4096U, 9000U}) {
        EXPECT_EQ(allocator.GetAllocatedIdentifier(index++), expected);
    }
    EXPECT_EQ(allocator.GetAllocatedIdentifier(index), kNone);
    EXPECT_EQ(allocator.GetAllocatedIdentifier(kNone), kNone);
}

TEST(IdentifierAllocator, FreesEverythingWhenCleared) {
    IdentifierAllocator allocator;
    for (int times = 0; times < 200; ++times) {
        allocator.Allocate();
    }
    allocator.Clear();
    EXPECT_EQ(allocator.GetNumberOfAllocatedIdentifiers(), 0U);
    EXPECT_FALSE(allocator.IsAllocated(100));
    EXPECT_EQ(allocator.GetAllocatedIdentifier(0), kNone);
    EXPECT_EQ(allocator.Allocate(), 0U);
}

TEST(IdentifierAllocator, ExchangesItsContentWithAnother) {
    IdentifierAllocator first;
    IdentifierAllocator second;
    first.MarkAllocated(7);
    second.MarkAllocated(8000);
    second.MarkAllocated(9);
    first.Swap(second);
    EXPECT_EQ(ContentOf(first), (std::set<std::uint64_t>{9, 8000}));
    EXPECT_EQ(ContentOf(second), (std::set<std::uint64_t>{7}));
    first.Swap(first);
    EXPECT_EQ(ContentOf(first), (std::set<std::uint64_t>{9, 8000}));
}

TEST(IdentifierAllocator, AgreesWithAnOrderedSetAfterRandomOperations) {
    constexpr std::uint64_t kRange = 3000;
    std::mt19937 random(20);
    IdentifierAllocator allocator;
    std::set<std::uint64_t> expected;
    std::uint64_t lowestFree = 0;
    for (int step = 0; step < 20'000; ++step) {
        const std::uint64_t identifier = random() % kRange;
        switch (random() % 4) {
            case 0:
                for (lowestFree = 0; expected.contains(lowestFree); ++lowestFree) {}
                ASSERT_EQ(allocator.Allocate(), lowestFree);
                expected.insert(lowestFree);
                break;
            case 1:
                ASSERT_EQ(allocator.MarkAllocated(identifier), expected.insert(identifier).second);
                break;
            default:
                ASSERT_EQ(allocator.Free(identifier), expected.erase(identifier) == 1);
        }
        ASSERT_EQ(allocator.GetNumberOfAllocatedIdentifiers(), expected.size());
        ASSERT_EQ(allocator.IsAllocated(identifier), expected.contains(identifier));
        if (step % 500 == 0) { ASSERT_EQ(ContentOf(allocator), expected); }
    }
}

TEST(IdentifierAllocator, AllocatesEveryIdentifierUpToTheHighestAndThenNone) {
    IdentifierAllocator allocator;
    std::uint64_t outOfOrder = 0;
    for (std::uint64_t expected = 0; expected <= kHighest; ++expected) {
        outOfOrder += allocator.Allocate() == expected ? 0 : 1;
    }
    EXPECT_EQ(outOfOrder, 0U);
    EXPECT_EQ(allocator.Allocate(), kNone);
    EXPECT_EQ(allocator.Allocate(), kNone);
    EXPECT_EQ(allocator.GetNumberOfAllocatedIdentifiers(), kHighest + 1);
    EXPECT_EQ(allocator.GetAllocatedIdentifier(kHighest), kHighest);
    EXPECT_TRUE(allocator.Free(123'456));
    EXPECT_EQ(allocator.GetAllocatedIdentifier(123'456), 123'457U);
    EXPECT_EQ(allocator.Allocate(), 123'456U);
    EXPECT_EQ(allocator.Allocate(), kNone);
}

}  // namespace
