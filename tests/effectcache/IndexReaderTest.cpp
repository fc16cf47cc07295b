#include "effectcache/IndexReader.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <new>
#include <string>
#include <vector>

#include "effectcache/AllocationFault.h"
#include "effectcache/IndexEntries.h"
#include "effectcache/StoredCache.h"
#include "package/MemoryStream.h"

namespace Quorvel::Testing {

namespace {

using Table = EffectTable<IndexEntry>;

Bytes EntryOf(const std::string& name, std::uint64_t streamId = 0, std::uint32_t effectSize = 1) {
    const auto length = static_cast<std::uint32_t>(name.size());
    return ByteList().Append(Record{streamId, length, effectSize}.Get()).Append(ByteArray(name));
}

Bytes EntriesOf(const std::vector<std::string>& names) {
    ByteList bytes;
    for (std::size_t number = 0; number < names.size(); ++number) {
        bytes.Append(EntryOf(names[number], number));
    }
    return bytes;
}

// Reads an entry per name and checks that the entries are correct and in the table.
void ExpectRead(const std::vector<std::string>& names, MemoryStream& stream, Table& table) {
    IndexReader reader(stream, table, names.size());
    std::vector<const IndexEntry*> entries;
    for (const std::string& name : names) {
        entries.push_back(reader.ReadNext());
        ASSERT_NE(entries.back(), nullptr) << name;
    }
    for (std::size_t number = 0; number < names.size(); ++number) {
        ASSERT_EQ(NameOf(*entries[number]), names[number]) << number;
        ASSERT_EQ(StreamIdOf(entries[number]), number);
    }
    table.Settle();
    ASSERT_EQ(table.Entries().size(), names.size());
    for (const IndexEntry* const entry : entries) {
        ASSERT_EQ(table.Find(entry->Key(), entry->Key().Hash()), entry);
    }
}

std::vector<std::string> ManyNames(std::size_t count) {
    std::vector<std::string> names;
    for (std::size_t number = 0; number < count; ++number) {
        names.push_back(std::string(number % 311, 'n') + std::to_string(number));
    }
    return names;
}

TEST(IndexReader, ReadsEntriesAcrossTheBlocksOfTheTable) {
    const std::vector<std::string> names = ManyNames(3000);
    MemoryStream stream(EntriesOf(names));
    Table table;
    ExpectRead(names, stream, table);
    EXPECT_EQ(stream.GetPosition(), stream.GetSize());
    EXPECT_EQ(table.HeldBytes(), stream.GetSize());
}

TEST(IndexReader, ReadsTheLongestNamesBetweenShortOnes) {
    std::vector<std::string> names = ManyNames(60);
    for (std::size_t number = 0; number < names.size(); number += 3) {
        names[number] += std::string(kLongestName - names[number].size() - number * 700, 'l');
    }
    names[30] = std::string(kLongestName, 'x');
    MemoryStream stream(EntriesOf(names));
    Table table;
    ExpectRead(names, stream, table);
}

// The bytes after the last entry may lie in pages that need not be read.
TEST(IndexReader, ReadsNothingPastTheLastEntry) {
    for (const std::size_t count : {1U, 2U, 50U, 2000U}) {
        const std::vector<std::string> names = ManyNames(count);
        const Bytes entries = EntriesOf(names);
        MemoryStream stream(ByteList().Append(entries).Append(Bytes(100000, 0xEE)));
        Table table;
        ExpectRead(names, stream, table);
        EXPECT_EQ(stream.GetPosition(), entries.size()) << count;
    }
}

TEST(IndexReader, ReadsIntoARecycledTable) {
    Table table;
    for (std::size_t round = 0; round < 3; ++round) {
        const std::vector<std::string> names = ManyNames(1000 + 400 * round);
        MemoryStream stream(EntriesOf(names));
        ExpectRead(names, stream, table);
        table.Recycle();
    }
}

TEST(IndexReader, RefusesAnEntryThatEndsEarly) {
    const Bytes whole = EntriesOf({"first", "second"});
    for (std::size_t size = EntryOf("first").size(); size < whole.size(); ++size) {
        MemoryStream stream(
            Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
        Table table;
        IndexReader reader(stream, table, 2);
        ASSERT_NE(reader.ReadNext(), nullptr);
        ASSERT_EQ(reader.ReadNext(), nullptr) << size;
        table.Settle();
        ASSERT_EQ(table.Entries().size(), 1u);
    }
}

TEST(IndexReader, RefusesValuesOutOfRange) {
    const auto isRead = [](const Bytes& bytes) {
        MemoryStream stream(bytes);
        Table table;
        return IndexReader(stream, table, 1).ReadNext() != nullptr;
    };
    EXPECT_TRUE(isRead(EntryOf("x", 0, 1)));
    EXPECT_TRUE(isRead(EntryOf("x", 0, kLargestEffect)));
    EXPECT_TRUE(isRead(EntryOf(std::string(kLongestName, 'x'))));
    EXPECT_FALSE(isRead(EntryOf("x", 0, 0)));
    EXPECT_FALSE(isRead(EntryOf("x", 0, kLargestEffect + 1)));
    EXPECT_FALSE(isRead(EntryOf("")));
    EXPECT_FALSE(isRead(EntryOf(std::string(kLongestName + 1, 'x'))));
    const Bytes record = Record{0, 1, 1}.Get();
    EXPECT_FALSE(isRead(ByteList().Append(record).Append(ByteArray("xy"))));
    EXPECT_FALSE(isRead(ByteList().Append(record).Append(ByteArray(""))));
}

TEST(IndexReader, ThrowsWithoutMemoryAndLosesNothing) {
    const std::vector<std::string> names = ManyNames(3000);
    const Bytes bytes = EntriesOf(names);
    for (std::uint64_t skipped = 0;; ++skipped) {
        MemoryStream stream(bytes);
        Table table;
        IndexReader reader(stream, table, names.size());
        std::size_t read = 0;
        bool hasThrown = false;
        const AllocationFault fault(skipped);
        try {
            while (read < names.size() && reader.ReadNext()) {
                ++read;
            }
        } catch (const std::bad_alloc&) {
            hasThrown = true;
        }
        if (!fault.HasFailed()) {
            EXPECT_EQ(read, names.size());
            break;
        }
        ASSERT_TRUE(hasThrown) << skipped;
        table.Settle();
        ASSERT_EQ(table.Size(), read) << skipped;
    }
}

}  // namespace

}  // namespace Quorvel::Testing
