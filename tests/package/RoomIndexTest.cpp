#include "package/RoomIndex.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <random>
#include <vector>

namespace Quorvel {

namespace {

std::optional<std::uint64_t> FirstWith(const std::vector<std::uint32_t>& rooms,
                                       std::uint64_t bytes) {
    for (std::uint64_t block = 0; block < rooms.size(); ++block) {
        if (rooms[block] >= bytes) { return block; }
    }
    return std::nullopt;
}

TEST(RoomIndex, HasNoRoomWithoutBlocks) {
    EXPECT_EQ(RoomIndex().FirstWith(1), std::nullopt);
}

TEST(RoomIndex, FindsTheLowestBlockWithEnough) {
    RoomIndex rooms;
    rooms.Set(0, 10);
    rooms.Set(1, 30);
    rooms.Set(2, 20);
    EXPECT_EQ(rooms.FirstWith(1), 0u);
    EXPECT_EQ(rooms.FirstWith(10), 0u);
    EXPECT_EQ(rooms.FirstWith(11), 1u);
    EXPECT_EQ(rooms.FirstWith(30), 1u);
    EXPECT_EQ(rooms.FirstWith(31), std::nullopt);
}

TEST(RoomIndex, ForgetsRoomThatIsTaken) {
    RoomIndex rooms;
    rooms.Set(3, 65536);
    rooms.Set(40, 65536);
    rooms.Set(3, 100);
    EXPECT_EQ(rooms.FirstWith(101), 40u);
    rooms.Set(40, 0);
    EXPECT_EQ(rooms.FirstWith(101), std::nullopt);
    EXPECT_EQ(rooms.FirstWith(100), 3u);
}

TEST(RoomIndex, BlocksThatWereNeverSetHaveNoRoom) {
    RoomIndex rooms;
    rooms.Set(1000, 1);
    EXPECT_EQ(rooms.FirstWith(1), 1000u);
}

TEST(RoomIndex, IsEmptyOnceCleared) {
    RoomIndex rooms;
    rooms.Set(5, 7);
    rooms.Clear();
    EXPECT_EQ(rooms.FirstWith(1), std::nullopt);
    rooms.Set(2, 1);
    EXPECT_EQ(rooms.FirstWith(1), 2u);
}

TEST(RoomIndex, AgreesWithALinearSearch) {
    std::minstd_rand random(3);
    RoomIndex index;
    std::vector<std::uint32_t> rooms;
    for (std::uint64_t step = 0; step < 3000; ++step) {
        const std::uint64_t block = random() % (1 + step / 4);
        const auto room = static_cast<std::uint32_t>(random() % 65537);
        if (block >= rooms.size()) { rooms.resize(block + 1); }
        rooms[block] = room;
        index.Set(block, room);
        const std::uint64_t wanted = 1 + random() % 65537;
        ASSERT_EQ(index.FirstWith(wanted), FirstWith(rooms, wanted)) << step;
    }
}

}  // namespace

}  // namespace Quorvel
