#include "vornutil/Tab.h"

#include <gtest/gtest.h>

#include <new>
#include <string>
#include <utility>

#include "support/HeapFault.h"

namespace {

using Quorvel::Testing::HeapFault;

Tab<int> Numbers(int count) {
    Tab<int> tab;
    tab.SetCount(count);
    for (int index = 0; index < count; ++index) {
        tab[index] = index * index;
    }
    return tab;
}

void ExpectNumbers(const Tab<int>& tab, int count) {
    ASSERT_EQ(tab.Count(), count);
    for (int index = 0; index < count; ++index) {
        EXPECT_EQ(tab[index], index * index) << index;
    }
}

// Counts the living objects; copying throws after copiesLeft copies.
struct Counted {
    Counted() { ++living; }
    Counted(const Counted& other) : value(other.value) {
        if (copiesLeft-- == 0) { throw std::bad_alloc(); }
        ++living;
    }
    Counted(Counted&& other) noexcept : value(other.value) { ++living; }
    Counted& operator=(const Counted&) = default;
    ~Counted() { --living; }

    int value = 0;
    static inline int living = 0;
    static inline int copiesLeft = -1;
};

TEST(Tab, IsEmptyAtFirst) {
    const Tab<int> tab;
    EXPECT_EQ(tab.Count(), 0);
}

TEST(Tab, KeepsItsElementsWhenItGrowsAndShrinks) {
    Tab<int> tab = Numbers(10);
    tab.SetCount(1000);
    tab.SetCount(5);
    ExpectNumbers(tab, 5);
    tab.SetCount(0);
    EXPECT_EQ(tab.Count(), 0);
}

TEST(Tab, DoesNotInitialiseNewElementsOfATrivialType) {
    Tab<int> tab = Numbers(10);
    tab.SetCount(0);
    tab.SetCount(10);
    ExpectNumbers(tab, 10);
}

TEST(Tab, ConstructsNewElementsOfOtherTypesAndDestroysOldOnes) {
    {
        Tab<Counted> tab;
        tab.SetCount(3);
        EXPECT_EQ(Counted::living, 3);
        tab[1].value = 7;
        tab.SetCount(100);
        EXPECT_EQ(Counted::living, 100);
        EXPECT_EQ(tab[1].value, 7);
        tab.SetCount(2);
        EXPECT_EQ(Counted::living, 2);
        EXPECT_EQ(tab[1].value, 7);
    }
    EXPECT_EQ(Counted::living, 0);
}

TEST(Tab, HoldsItsElementsAtConsecutiveAddresses) {
    Tab<int> tab = Numbers(4);
    const Tab<int>& constant = tab;
    *tab.Addr(2) = 99;
    EXPECT_EQ(tab[2], 99);
    EXPECT_EQ(tab.Addr(3), tab.Addr(0) + 3);
    EXPECT_EQ(constant.Addr(0), tab.Addr(0));
}

TEST(Tab, CopiesItsElements) {
    Tab<int> tab = Numbers(4);
    Tab<int> copy(tab);
    tab[0] = 99;
    ExpectNumbers(copy, 4);
    Tab<int> assigned = Numbers(2);
    assigned = copy;
    copy[0] = 98;
    ExpectNumbers(assigned, 4);
}

TEST(Tab, MovesItsElements) {
    Tab<int> tab = Numbers(4);
    const int* const address = tab.Addr(0);
    Tab<int> moved(std::move(tab));
    EXPECT_EQ(moved.Addr(0), address);
    Tab<int> assigned = Numbers(2);
    assigned = std::move(moved);
    EXPECT_EQ(assigned.Addr(0), address);
    ExpectNumbers(assigned, 4);
}

TEST(Tab, SurvivesAssignmentToItself) {
    Tab<int> tab = Numbers(4);
    const Tab<int>& same = tab;
    tab = same;
    ExpectNumbers(tab, 4);
}

TEST(Tab, HoldsElementsThatOwnMemory) {
    Tab<std::string> tab;
    tab.SetCount(2);
    tab[1] = std::string(100, 'x');
    tab.SetCount(50);
    const Tab<std::string> copy(tab);
    tab[1] = "changed";
    EXPECT_EQ(copy[1], std::string(100, 'x'));
    EXPECT_EQ(copy[0], "");
}

TEST(Tab, IsUnchangedWhenThereIsNoMemoryToGrow) {
    Tab<int> tab = Numbers(10);
    {
        const HeapFault fault;
        EXPECT_THROW(tab.SetCount(1000), std::bad_alloc);
    }
    ExpectNumbers(tab, 10);
    tab.SetCount(1000);
    EXPECT_EQ(tab.Count(), 1000);
}

TEST(Tab, LeavesNothingBehindWhenAnElementCannotBeCopied) {
    {
        Tab<Counted> tab;
        tab.SetCount(5);
        Counted::copiesLeft = 3;
        EXPECT_THROW(Tab<Counted>{tab}, std::bad_alloc);
        Counted::copiesLeft = -1;
        EXPECT_EQ(Counted::living, 5);
    }
    EXPECT_EQ(Counted::living, 0);
}

}  // namespace
