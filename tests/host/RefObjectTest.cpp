#include "vornutil/RefObject.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

// Counts destructions.
class Mortal : public Util::ARefObject {
public:
    explicit Mortal(int& deaths) : deaths_(deaths) {}
    ~Mortal() override { ++deaths_; }

private:
    int& deaths_;
};

// Outlives its last reference.
class Immortal : public Util::ARefObject {
public:
    int deletions = 0;

    using Util::ARefObject::DeleteThis;

protected:
    void DeleteThis() override { ++deletions; }
};

TEST(ARefObject, HasNoReferencesAtFirst) {
    Immortal object;
    EXPECT_EQ(object.AddRef(), 1U);
    EXPECT_EQ(object.Release(), 0U);
}

TEST(ARefObject, ReturnsTheNewCount) {
    Immortal object;
    EXPECT_EQ(object.AddRef(), 1U);
    EXPECT_EQ(object.AddRef(), 2U);
    EXPECT_EQ(object.AddRef(), 3U);
    EXPECT_EQ(object.Release(), 2U);
    EXPECT_EQ(object.Release(), 1U);
    EXPECT_EQ(object.deletions, 0);
    EXPECT_EQ(object.Release(), 0U);
    EXPECT_EQ(object.deletions, 1);
}

TEST(ARefObject, DeletesItselfWithItsLastReference) {
    int deaths = 0;
    auto* const object = new Mortal(deaths);
    object->AddRef();
    object->AddRef();
    object->Release();
    EXPECT_EQ(deaths, 0);
    object->Release();
    EXPECT_EQ(deaths, 1);
}

TEST(ARefObject, CountsTheReferencesOfAllThreads) {
    constexpr int kThreads = 4;
    int deaths = 0;
    auto* const object = new Mortal(deaths);
    object->AddRef();
    std::vector<std::thread> threads;
    for (int index = 0; index < kThreads; ++index) {
        threads.emplace_back([object] {
            for (int times = 0; times < 10'000; ++times) {
                object->AddRef();
                object->Release();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(deaths, 0);
    EXPECT_EQ(object->AddRef(), 2U);
    object->Release();
    object->Release();
    EXPECT_EQ(deaths, 1);
}

TEST(ARefObject, CannotBeCopied) {
    EXPECT_FALSE(std::is_copy_constructible_v<Immortal>);
    EXPECT_FALSE(std::is_copy_assignable_v<Immortal>);
    EXPECT_TRUE(std::has_virtual_destructor_v<Util::IRefObject>);
    EXPECT_TRUE((std::is_base_of_v<VornHeapOperators, Util::ARefObject>));
}

// A pointer to a virtual function holds the function's place in the virtual table, which grows by
// the size of a pointer from one function to the next.
template <typename Function>
std::ptrdiff_t PlaceOf(Function function) {
    std::ptrdiff_t place;
    std::memcpy(&place, &function, sizeof place);
    return place;
}

TEST(ARefObject, HasItsThreeOperationsInARowAfterTheDestructor) {
    constexpr auto kSlot = static_cast<std::ptrdiff_t>(sizeof(void*));
    class WithOneMore : public Immortal {
    public:
        virtual void OneMore() {}
        void (WithOneMore::*Deleter())() { return &WithOneMore::DeleteThis; }
    };
    const std::ptrdiff_t addRef = PlaceOf(&WithOneMore::AddRef);
    EXPECT_EQ(PlaceOf(&WithOneMore::Release), addRef + kSlot);
    EXPECT_EQ(PlaceOf(WithOneMore().Deleter()), addRef + 2 * kSlot);
    EXPECT_EQ(PlaceOf(&WithOneMore::OneMore), addRef + 3 * kSlot);
}

}  // namespace
