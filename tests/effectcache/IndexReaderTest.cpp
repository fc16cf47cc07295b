#include "effectcache/IndexReader.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "effectcache/IndexEntries.h"
#include "effectcache/StoredCache.h"
#include "package/MemoryStream.h"

namespace Quorvel::Testing {

namespace {

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

// Memory for a whole stream. Reading past its end is noticed by AddressSanitizer.
std::unique_ptr<std::byte[]> MemoryFor(MemoryStream& stream) {
    return std::make_unique<std::byte[]>(stream.GetSize());
}

// Reads an entry per name and checks that the entries are correct and adjacent.
void ExpectRead(const std::vector<std::string>& names, MemoryStream& stream) {
    const auto memory = MemoryFor(stream);
    IndexReader reader(stream, memory.get(), names.size());
    const auto* next = reinterpret_cast<const unsigned char*>(memory.get());
    for (std::size_t number = 0; number < names.size(); ++number) {
        const IndexEntry* const entry = reader.ReadNext();
        ASSERT_NE(entry, nullptr) << number;
        ASSERT_EQ(entry->Bytes().data(), next);
        ASSERT_EQ(NameOf(*entry), names[number]) << number;
        ASSERT_EQ(StreamIdOf(entry), number);
        next += entry->Bytes().size();
    }
}

std::vector<std::string> ManyNames(std::size_t count) {
    std::vector<std::string> names;
    for (std::size_t number = 0; number < count; ++number) {
        names.push_back(std::string(number % 311, 'n') + std::to_string(number));
    }
    return names;
}

TEST(IndexReader, ReadsEntriesAcrossTheEndsOfPieces) {
    const std::vector<std::string> names = ManyNames(3000);
    MemoryStream stream(EntriesOf(names));
    ExpectRead(names, stream);
    EXPECT_EQ(stream.GetPosition(), stream.GetSize());
}

TEST(IndexReader, ReadsTheLongestNamesBetweenShortOnes) {
    std::vector<std::string> names = ManyNames(60);
    for (std::size_t number = 0; number < names.size(); number += 3) {
        names[number] += std::string(kLongestName - names[number].size() - number * 700, 'l');
    }
    names[30] = std::string(kLongestName, 'x');
    MemoryStream stream(EntriesOf(names));
    ExpectRead(names, stream);
}

// The bytes after the last entry may lie in pages that need not be read.
TEST(IndexReader, ReadsNothingPastTheLastEntry) {
    for (const std::size_t count : {1U, 2U, 50U, 2000U}) {
        const std::vector<std::string> names = ManyNames(count);
        const Bytes entries = EntriesOf(names);
        MemoryStream stream(ByteList().Append(entries).Append(Bytes(100000, 0xEE)));
        ExpectRead(names, stream);
        EXPECT_EQ(stream.GetPosition(), entries.size()) << count;
    }
}

TEST(IndexReader, RefusesAnEntryThatEndsEarly) {
    const Bytes whole = EntriesOf({"first", "second"});
    for (std::size_t size = EntryOf("first").size(); size < whole.size(); ++size) {
        MemoryStream stream(
            Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
        const auto memory = MemoryFor(stream);
        IndexReader reader(stream, memory.get(), 2);
        ASSERT_NE(reader.ReadNext(), nullptr);
        ASSERT_EQ(reader.ReadNext(), nullptr) << size;
    }
}

TEST(IndexReader, RefusesValuesOutOfRange) {
    const auto isRead = [](const Bytes& bytes) {
        MemoryStream stream(bytes);
        const auto memory = MemoryFor(stream);
        return IndexReader(stream, memory.get(), 1).ReadNext() != nullptr;
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

}  // namespace

}  // namespace Quorvel::Testing
