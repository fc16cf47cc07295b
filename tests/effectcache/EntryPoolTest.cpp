#include "effectcache/EntryPool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
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

TEST(EntryPool, MovesWithItsPieces) {
    EntryPool left;
    std::byte* const piece = left.Allocate(8);
    *piece = std::byte{7};
    EntryPool right = std::move(left);
    EXPECT_EQ(right.Size(), 8u);
    EXPECT_EQ(*piece, std::byte{7});
    EXPECT_EQ(right.Allocate(8), piece + 8);
}

}  // namespace

}  // namespace Quorvel
