#include "effectcache/IndexEntry.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "effectcache/StoredCache.h"

namespace Quorvel::Testing {

namespace {

Bytes EntryOf(const std::string& name, std::uint64_t streamId = 0, std::uint32_t effectSize = 1) {
    const auto length = static_cast<std::uint32_t>(name.size());
    return ByteList().Append(Record{streamId, length, effectSize}.Get()).Append(ByteArray(name));
}

std::size_t SizeIn(const Bytes& bytes) {
    return IndexEntry::SizeIn(std::as_bytes(std::span(bytes)));
}

bool IsEntry(const Bytes& bytes) {
    return SizeIn(bytes) != 0;
}

TEST(IndexEntry, TellsItsSizeFromItsFixedPart) {
    const Bytes entry = EntryOf("name");
    for (std::size_t size = 0; size <= entry.size(); ++size) {
        const Bytes begun(entry.begin(), entry.begin() + static_cast<int>(size));
        EXPECT_EQ(SizeIn(begun), size < sizeof(IndexEntry) ? sizeof(IndexEntry) : entry.size());
    }
    EXPECT_EQ(SizeIn(ByteList().Append(entry).Append(EntryOf("another"))), entry.size());
}

TEST(IndexEntry, OutOfRangeIsRefused) {
    EXPECT_TRUE(IsEntry(EntryOf("x", 0, 1)));
    EXPECT_TRUE(IsEntry(EntryOf("x", 0, kLargestEffect)));
    EXPECT_TRUE(IsEntry(EntryOf(std::string(kLongestName, 'x'))));
    EXPECT_FALSE(IsEntry(EntryOf("x", 0, 0)));
    EXPECT_FALSE(IsEntry(EntryOf("x", 0, kLargestEffect + 1)));
    EXPECT_FALSE(IsEntry(EntryOf("")));
    EXPECT_FALSE(IsEntry(EntryOf(std::string(kLongestName + 1, 'x'))));
    const Bytes record = Record{0, 1, 1}.Get();
    EXPECT_FALSE(IsEntry(ByteList().Append(record).Append(ByteArray("xy"))));
    EXPECT_FALSE(IsEntry(ByteList().Append(record).Append(ByteArray(""))));
}

}  // namespace

}  // namespace Quorvel::Testing
