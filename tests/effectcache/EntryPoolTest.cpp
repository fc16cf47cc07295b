#include "effectcache/EntryPool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <span>
#include <utility>
#include <vector>

namespace Quorvel {

namespace {

TEST(EntryPool, HoldsNothingAtFirst) {
    EXPECT_EQ(EntryPool().Size(), 0u);
}

TEST(EntryPool, PiecesKeepWhatIsWrittenToThem) {
    std::minstd_rand random(3);
    EntryPool pool;
    std::vector<std::pair<std::byte*, std::size_t>> pieces;
    std::size_t total = 0;
    for (std::size_t number = 0; number < 3000; ++number) {
        const std::size_t size = random() % 100 == 0 ? random() % 200000 : 1 + random() % 300;
        std::byte* const piece = pool.Allocate(size);
        std::memset(piece, static_cast<int>(number % 251), size);
        pieces.emplace_back(piece, size);
        total += size;
    }
    EXPECT_EQ(pool.Size(), total);
    for (std::size_t number = 0; number < pieces.size(); ++number) {
        const auto [piece, size] = pieces[number];
        ASSERT_TRUE(std::all_of(piece, piece + size, [number](std::byte value) {
            return value == static_cast<std::byte>(number % 251);
        })) << number;
    }
}

TEST(EntryPool, PiecesOfMultiplesOfEightAreAligned) {
    EntryPool pool;
    for (std::size_t size = 8; size < 9000; size += 8) {
        ASSERT_EQ(reinterpret_cast<std::uintptr_t>(pool.Allocate(size)) % 8, 0u) << size;
    }
}

TEST(EntryPool, ConsecutiveSmallPiecesAreMostlyAdjacent) {
    EntryPool pool;
    int gaps = 0;
    const std::byte* end = pool.Allocate(100) + 100;
    for (int number = 1; number < 6000; ++number) {
        const std::byte* const piece = pool.Allocate(100);
        gaps += piece != end ? 1 : 0;
        end = piece + 100;
    }
    EXPECT_LT(gaps, 30);
}

// A large piece does not end the block from which small ones are taken.
TEST(EntryPool, LargePieceHasABlockOfItsOwn) {
    EntryPool pool;
    const std::byte* const first = pool.Allocate(10);
    pool.Allocate(1000000);
    EXPECT_EQ(pool.Allocate(10), first + 10);
}

TEST(EntryPool, ReusesItsBlocksAfterRecycle) {
    EntryPool pool;
    std::vector<const std::byte*> pieces;
    for (int number = 0; number < 3000; ++number) {
        pieces.push_back(pool.Allocate(100));
    }
    pool.Allocate(1000000);
    pool.Recycle();
    EXPECT_EQ(pool.Size(), 0u);
    for (const std::byte* const piece : pieces) {
        ASSERT_EQ(pool.Allocate(100), piece);
    }
    pool.Recycle();
    EXPECT_EQ(pool.Allocate(100), pieces[0]);
    pool.DropSpare();
    EXPECT_EQ(pool.Allocate(100), pieces[1]);
    EXPECT_EQ(pool.Size(), 200u);
}

std::byte* FillRoom(EntryPool& pool, std::size_t size, std::size_t kept, int value) {
    const std::span<std::byte> room = pool.Room(size, kept);
    EXPECT_GE(room.size(), size);
    std::memset(room.data() + kept, value, size - kept);
    return room.data();
}

TEST(EntryPool, PiecesAreTakenFromTheRoomInOrder) {
    EntryPool pool;
    const std::byte* const room = FillRoom(pool, 300, 0, 1);
    EXPECT_EQ(pool.Size(), 0u);
    EXPECT_EQ(pool.Allocate(100), room);
    EXPECT_EQ(pool.Allocate(200), room + 100);
    EXPECT_EQ(pool.Room(1, 0).data(), room + 300);
    EXPECT_EQ(pool.Size(), 300u);
}

TEST(EntryPool, RoomThatMovesKeepsItsFirstBytes) {
    EntryPool pool;
    for (std::size_t size = 100;; size += 1000) {
        std::byte* const room = FillRoom(pool, size, 0, 7);
        const std::size_t more = pool.Room(size, 0).size() + 1;
        const std::byte* const moved = FillRoom(pool, more, size, 8);
        ASSERT_NE(moved, room);
        ASSERT_TRUE(std::all_of(moved, moved + size,
                                [](std::byte value) { return value == std::byte{7}; }));
        ASSERT_EQ(pool.Allocate(more), moved);
        ASSERT_EQ(pool.Size(), more);
        if (size > 200000) {
            break;
        }
        pool.Recycle();
    }
    pool.Allocate(10);
    EXPECT_GE(pool.Room(1, 0).size(), 1u);
}

TEST(EntryPool, SwapExchangesPieces) {
    EntryPool left;
    EntryPool right;
    std::byte* const piece = left.Allocate(8);
    *piece = std::byte{7};
    right.Swap(left);
    EXPECT_EQ(left.Size(), 0u);
    EXPECT_EQ(right.Size(), 8u);
    left.Clear();
    EXPECT_EQ(*piece, std::byte{7});
    EXPECT_EQ(right.Allocate(8), piece + 8);
}

TEST(EntryPool, IsEmptyOnceCleared) {
    EntryPool pool;
    pool.Allocate(50);
    pool.Clear();
    EXPECT_EQ(pool.Size(), 0u);
    *pool.Allocate(1) = std::byte{1};
    EXPECT_EQ(pool.Size(), 1u);
}

}  // namespace

}  // namespace Quorvel
