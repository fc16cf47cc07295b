#include "effectcache/IndexEntry.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "effectcache/IndexEntries.h"
#include "effectcache/StoredCache.h"

namespace Quorvel::Testing {

namespace {

Bytes EntryOf(const std::string& name, std::uint64_t streamId = 0, std::uint32_t effectSize = 1) {
    const auto length = static_cast<std::uint32_t>(name.size());
    return ByteList().Append(Record{streamId, length, effectSize}.Get()).Append(ByteArray(name));
}

IndexEntry* EntryIn(Bytes& bytes) {
    return IndexEntry::In(std::as_writable_bytes(std::span(bytes)));
}

bool IsEntry(Bytes bytes) {
    return EntryIn(bytes) != nullptr;
}

TEST(IndexEntry, IsReadWhereItsBytesAre) {
    Bytes bytes = ByteList().Append(EntryOf("first", 7)).Append(EntryOf("second", 8));
    const IndexEntry* const first = EntryIn(bytes);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(NameOf(*first), "first");
    EXPECT_EQ(StreamIdOf(first), 7u);
    EXPECT_EQ(first->Bytes().data(), bytes.data());
    EXPECT_EQ(first->Bytes().size(), EntryOf("first").size());
    const std::span<std::byte> all = std::as_writable_bytes(std::span(bytes));
    const IndexEntry* const second = IndexEntry::In(all.subspan(first->Bytes().size()));
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(NameOf(*second), "second");
}

TEST(IndexEntry, ThatIsCutOffIsRefused) {
    const Bytes whole = EntryOf("name");
    EXPECT_TRUE(IsEntry(whole));
    for (std::size_t size = 0; size < whole.size(); ++size) {
        EXPECT_FALSE(IsEntry(Bytes(whole.begin(), whole.begin() + static_cast<int>(size)))) << size;
    }
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
