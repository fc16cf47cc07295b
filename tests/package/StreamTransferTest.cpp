#include "package/StreamTransfer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "package/MemoryStream.h"

namespace Quorvel::Testing {

namespace {

using Format::Bytes;

Bytes Pattern(std::size_t size) {
    Bytes bytes(size);
    for (std::size_t index = 0; index < size; ++index) {
        bytes[index] = static_cast<std::uint8_t>(index * 7 + index / 251);
    }
    return bytes;
}

TEST(StateReader, ReadsConsecutiveRecords) {
    MemoryStream stream({1, 0, 0, 0, 2, 0, 3});
    StateReader reader(stream);
    EXPECT_EQ(reader.Read<std::uint32_t>(), 1u);
    EXPECT_EQ(reader.Read<std::uint16_t>(), 2u);
    EXPECT_EQ(reader.Read<std::uint8_t>(), 3u);
    EXPECT_THROW(reader.Read<std::uint8_t>(), FileIOException);
}

TEST(StateReader, ReadsNothingPastTheExpectedBytes) {
    MemoryStream stream(Pattern(100));
    StateReader reader(stream);
    reader.Read<std::uint64_t>();
    EXPECT_EQ(stream.GetPosition(), 8u);
    reader.Expect(20);
    reader.Read<std::uint32_t>();
    EXPECT_EQ(stream.GetPosition(), 28u);
    reader.Read<std::uint64_t>();
    reader.Read<std::uint64_t>();
    EXPECT_EQ(stream.GetPosition(), 28u);
    reader.Read<std::uint8_t>();
    EXPECT_EQ(stream.GetPosition(), 29u);
}

TEST(StateReader, ExpectingTooMuchFailsOnlyAtTheEndOfTheStream) {
    MemoryStream stream(Pattern(10));
    StateReader reader(stream);
    reader.Expect(1000000);
    reader.Read<std::uint64_t>();
    reader.Read<std::uint16_t>();
    std::uint8_t byte;
    EXPECT_FALSE(reader.TryRead(&byte, 1));
}

TEST(StateReader, ReadsMoreThanItsBufferHolds) {
    const Bytes bytes = Pattern(3 * kTransferBufferSize + 5);
    MemoryStream stream(bytes);
    StateReader reader(stream);
    reader.Expect(bytes.size());
    Bytes read(1, reader.Read<std::uint8_t>());
    EXPECT_TRUE(reader.ReadItems(read, bytes.size() - 1));
    EXPECT_EQ(read, bytes);
}

TEST(StateReader, ReadsItemsWhateverSizeTheStreamStates) {
    MemoryStream stream(Pattern(24), 8);
    StateReader reader(stream);
    reader.Read<std::uint64_t>();
    std::vector<std::uint64_t> items;
    EXPECT_TRUE(reader.ReadItems(items, 2));
    EXPECT_EQ(items.size(), 2u);
    EXPECT_FALSE(reader.ReadItems(items, 1));
}

TEST(StateReader, AllocatesNoItemsThatTheStreamDoesNotHold) {
    for (const std::uint64_t count :
         {std::uint64_t{3}, std::uint64_t{1} << 36, ~std::uint64_t{0}}) {
        MemoryStream stream(Pattern(16));
        StateReader reader(stream);
        std::vector<std::uint64_t> items;
        EXPECT_FALSE(reader.ReadItems(items, count));
        EXPECT_LE(items.capacity() * sizeof items[0], 2 * kTransferBufferSize);
    }
}

TEST(StateWriter, WritesEverythingInOrder) {
    const Bytes bytes = Pattern(4 * kTransferBufferSize);
    MemoryStream stream(Bytes(bytes.size()));
    StateWriter writer(stream);
    std::size_t written = 0;
    for (const std::size_t size :
         {std::size_t{1}, std::size_t{0}, kTransferBufferSize - 1, std::size_t{3},
          kTransferBufferSize, std::size_t{10}, kTransferBufferSize + 7}) {
        writer.Write(bytes.data() + written, size);
        written += size;
    }
    writer.Write<std::uint8_t>(bytes[written++]);
    writer.Flush();
    writer.Flush();
    EXPECT_EQ(stream.GetPosition(), written);
    EXPECT_EQ(Bytes(stream.Content().begin(),
                    stream.Content().begin() + static_cast<std::ptrdiff_t>(written)),
              Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(written)));
}

TEST(StateWriter, WritesToTheStreamInLargePieces) {
    MemoryStream stream(Bytes(3 * kTransferBufferSize));
    StateWriter writer(stream);
    for (std::size_t index = 0; index < kTransferBufferSize / 8; ++index) {
        writer.Write<std::uint64_t>(index);
    }
    EXPECT_EQ(stream.GetPosition(), 0u);
    writer.Write<std::uint8_t>(1);
    EXPECT_EQ(stream.GetPosition(), kTransferBufferSize);
}

TEST(StateWriter, ThrowsWhenTheStreamIsFull) {
    MemoryStream stream(Bytes(10));
    StateWriter writer(stream);
    writer.Write<std::uint64_t>(1);
    writer.Write<std::uint64_t>(2);
    EXPECT_THROW(writer.Flush(), FileIOException);
    const Bytes large(kTransferBufferSize + 1);
    EXPECT_THROW(StateWriter(stream).Write(large.data(), large.size()), FileIOException);
}

}  // namespace

}  // namespace Quorvel::Testing
