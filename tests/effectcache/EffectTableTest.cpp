#include "effectcache/EffectTable.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <new>
#include <random>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "effectcache/AllocationFault.h"
#include "effectcache/IndexEntries.h"
#include "effectcache/IndexEntry.h"
#include "effectcache/PendingEffect.h"

namespace Quorvel {

namespace {

using Testing::AllocationFault;
using Testing::NameOf;
using Testing::StreamIdOf;
using Table = EffectTable<IndexEntry>;

EffectKey KeyOf(const std::string& name) {
    return {reinterpret_cast<const unsigned char*>(name.data()), name.size()};
}

EffectRecord RecordOf(const std::string& name, std::uint64_t streamId) {
    EffectRecord record = {};
    record.streamId = streamId;
    record.nameLength = static_cast<std::uint32_t>(name.size());
    return record;
}

void Put(Table& table, const std::string& name, std::uint64_t streamId) {
    table.Put(KeyOf(name), KeyOf(name).Hash(), RecordOf(name, streamId));
}

IndexEntry* Find(const Table& table, const std::string& name) {
    return table.Find(KeyOf(name), KeyOf(name).Hash());
}

std::vector<std::string> Names(Table& table) {
    std::vector<std::string> names;
    for (const IndexEntry* const entry : table.Entries()) {
        names.push_back(NameOf(*entry));
    }
    return names;
}

TEST(EffectTable, HoldsNothingAtFirst) {
    Table table;
    EXPECT_EQ(table.Size(), 0u);
    EXPECT_EQ(Find(table, "a"), nullptr);
    EXPECT_TRUE(table.Entries().empty());
}

TEST(EffectTable, FindsEntriesByName) {
    Table table;
    Put(table, "one", 1);
    Put(table, "two", 2);
    ASSERT_NE(Find(table, "two"), nullptr);
    EXPECT_EQ(StreamIdOf(Find(table, "two")), 2u);
    EXPECT_EQ(StreamIdOf(Find(table, "one")), 1u);
    EXPECT_EQ(Find(table, "three"), nullptr);
    EXPECT_EQ(table.Size(), 2u);
}

// Two names with the same hash.
std::pair<std::string, std::string> NamesOfOneHash() {
    std::map<std::uint32_t, std::string> names;
    for (int number = 0;; ++number) {
        const std::string name = std::to_string(number);
        const auto [other, isNew] = names.emplace(KeyOf(name).Hash(), name);
        if (!isNew) { return {other->second, name}; }
    }
}

TEST(EffectTable, DistinguishesNamesWithTheSameHash) {
    const auto [first, second] = NamesOfOneHash();
    Table table;
    Put(table, first, 1);
    EXPECT_EQ(Find(table, second), nullptr);
    Put(table, second, 2);
    EXPECT_EQ(table.Size(), 2u);
    EXPECT_EQ(StreamIdOf(Find(table, first)), 1u);
    EXPECT_EQ(StreamIdOf(Find(table, second)), 2u);
    table.Remove(Find(table, first));
    EXPECT_EQ(Find(table, first), nullptr);
    EXPECT_EQ(StreamIdOf(Find(table, second)), 2u);
}

TEST(EffectTable, ListsEntriesInKeyOrderOnceSettled) {
    Table table;
    for (const char* const name : {"bb", "a", "ccc", "b", "ab"}) {
        Put(table, name, 0);
    }
    EXPECT_EQ(Names(table), (std::vector<std::string>{"a", "b", "ab", "bb", "ccc"}));
    Put(table, "aa", 0);
    Put(table, "c", 0);
    Put(table, "dddd", 0);
    EXPECT_EQ(Names(table),
              (std::vector<std::string>{"a", "b", "c", "aa", "ab", "bb", "ccc", "dddd"}));
}

TEST(EffectTable, PutReplacesTheEntryWithThatName) {
    Table table;
    Put(table, "a", 1);
    Put(table, "b", 2);
    Put(table, "a", 3);
    EXPECT_EQ(table.Size(), 2u);
    EXPECT_EQ(StreamIdOf(Find(table, "a")), 3u);
    EXPECT_EQ(Names(table), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(StreamIdOf(table.Entries()[0]), 3u);
}

TEST(EffectTable, RemovedEntryIsGone) {
    Table table;
    Put(table, "a", 1);
    Put(table, "b", 2);
    table.Remove(Find(table, "a"));
    EXPECT_EQ(Find(table, "a"), nullptr);
    EXPECT_EQ(table.Size(), 1u);
    EXPECT_EQ(Names(table), (std::vector<std::string>{"b"}));
    Put(table, "a", 4);
    table.Remove(Find(table, "a"));
    Put(table, "a", 5);
    EXPECT_EQ(Names(table), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(StreamIdOf(Find(table, "a")), 5u);
}

TEST(EffectTable, EntriesKeepTheirAddresses) {
    Table table;
    Put(table, "stays", 1);
    const IndexEntry* const entry = Find(table, "stays");
    for (int index = 0; index < 1000; ++index) {
        Put(table, std::to_string(index), 0);
    }
    EXPECT_EQ(Find(table, "stays"), entry);
}

TEST(EffectTable, EntriesAddedInAnyOrderAreListedInKeyOrder) {
    std::minstd_rand random(5);
    Table table;
    std::set<std::pair<std::size_t, std::string>> expected;
    for (std::size_t round = 0; round < 60; ++round) {
        for (std::size_t added = random() % 90; added > 0; --added) {
            const std::string name = std::to_string(random() % 100000);
            Put(table, name, round);
            expected.emplace(name.size(), name);
        }
        ASSERT_EQ(table.Size(), expected.size());
        std::vector<std::string> names;
        for (const auto& [length, name] : expected) {
            names.push_back(name);
        }
        ASSERT_EQ(Names(table), names);
    }
}

TEST(EffectTable, AddingWithoutMemoryChangesNothing) {
    Table table;
    std::uint64_t added = 0;
    for (std::uint64_t id = 0; id < 2000; ++id) {
        const std::string name = std::to_string(id % 700);
        const std::uint64_t size = table.Size();
        const std::uint64_t bytes = table.TotalBytes();
        const AllocationFault fault(0);
        try {
            Put(table, name, id);
            ++added;
            ASSERT_FALSE(fault.HasFailed());
        } catch (const std::bad_alloc&) {
            ASSERT_EQ(table.Size(), size);
            ASSERT_EQ(table.TotalBytes(), bytes);
            Put(table, name, id);
        }
    }
    EXPECT_LT(added, 2000u);
    ASSERT_EQ(table.Size(), 700u);
    for (std::uint64_t id = 1300; id < 2000; ++id) {
        ASSERT_EQ(StreamIdOf(Find(table, std::to_string(id % 700))), id);
    }
}

TEST(EffectTable, RemovingWithoutMemoryChangesNothing) {
    Table table;
    for (std::uint64_t id = 0; id < 200; ++id) {
        Put(table, std::to_string(id), id);
    }
    bool hasThrown = false;
    for (std::uint64_t id = 0; id < 200; ++id) {
        const AllocationFault fault(0);
        try {
            table.Remove(Find(table, std::to_string(id)));
        } catch (const std::bad_alloc&) {
            hasThrown = true;
            ASSERT_EQ(table.Size(), 200u - id);
            table.Remove(Find(table, std::to_string(id)));
        }
    }
    EXPECT_TRUE(hasThrown);
    EXPECT_EQ(table.Size(), 0u);
    EXPECT_TRUE(table.Entries().empty());
}

TEST(EffectTable, ListingWithoutMemoryLosesNothing) {
    Table table;
    for (int round = 0; round < 3; ++round) {
        for (std::uint64_t id = 0; id < 100; ++id) {
            Put(table, std::to_string(id * 7 % 100 + 50 * static_cast<std::uint64_t>(round)), id);
        }
        table.Remove(Find(table, std::to_string(50 * round + 3)));
        if (round > 0) {  // the first list needs no memory
            const AllocationFault fault(0);
            EXPECT_THROW(table.Entries(), std::bad_alloc);
        }
        ASSERT_EQ(table.Entries().size(), table.Size());
    }
}

TEST(EffectTable, LastOfSeveralEntriesWithOneNameStays) {
    Table table;
    for (std::uint64_t id = 0; id < 40; ++id) {
        Put(table, id % 2 == 0 ? "even" : "odd", id);
    }
    EXPECT_EQ(Names(table), (std::vector<std::string>{"odd", "even"}));
    EXPECT_EQ(StreamIdOf(Find(table, "even")), 38u);
    EXPECT_EQ(StreamIdOf(Find(table, "odd")), 39u);
    EXPECT_EQ(table.Entries()[0], Find(table, "odd"));
    EXPECT_EQ(table.Entries()[1], Find(table, "even"));
}

TEST(EffectTable, CountsTheBytesOfItsEntries) {
    Table table;
    EXPECT_EQ(table.TotalBytes(), 0u);
    Put(table, "a", 1);
    Put(table, "bcd", 2);
    EXPECT_EQ(table.TotalBytes(), 53u + 55u);
    Put(table, "a", 3);
    EXPECT_EQ(table.TotalBytes(), 53u + 55u);
    table.Remove(Find(table, "bcd"));
    EXPECT_EQ(table.TotalBytes(), 53u);
    Put(table, "ab", 4);
    EXPECT_EQ(table.TotalBytes(), 53u + 54u);
    table.Clear();
    EXPECT_EQ(table.TotalBytes(), 0u);
    EXPECT_EQ(table.HeldBytes(), 0u);
}

// A cache that runs for years must not grow by the entries that it replaces.
TEST(EffectTable, PackReturnsTheMemoryOfReplacedEntries) {
    Table table;
    for (std::uint64_t round = 0; round < 50; ++round) {
        for (int name = 0; name < 500; ++name) {
            Put(table, "name " + std::to_string(name), 500 * round + static_cast<unsigned>(name));
        }
        table.Pack();
        ASSERT_LE(table.HeldBytes(), 2 * table.TotalBytes() + 0x10000);
        for (const IndexEntry* const entry : table.Entries()) {
            ASSERT_EQ(Find(table, NameOf(*entry)), entry);
            ASSERT_EQ("name " + std::to_string(StreamIdOf(entry) - 500 * round), NameOf(*entry));
        }
    }
    EXPECT_EQ(table.Entries().size(), 500u);
}

TEST(EffectTable, IsEmptyOnceCleared) {
    Table table;
    Put(table, "a", 1);
    table.Clear();
    EXPECT_EQ(table.Size(), 0u);
    EXPECT_EQ(Find(table, "a"), nullptr);
    EXPECT_TRUE(table.Entries().empty());
    Put(table, "b", 2);
    EXPECT_EQ(Names(table), (std::vector<std::string>{"b"}));
}

TEST(EffectTable, PackWithoutMemoryChangesNothing) {
    Table table;
    for (std::uint64_t id = 0; id < 3000; ++id) {
        Put(table, "name " + std::to_string(id % 10), id);
    }
    const std::vector<IndexEntry*> entries = table.Entries();
    const std::uint64_t held = table.HeldBytes();
    for (std::uint64_t granted = 0; granted < 2; ++granted) {
        const AllocationFault fault(granted);
        table.Pack();
        ASSERT_TRUE(fault.HasFailed());
    }
    EXPECT_EQ(table.HeldBytes(), held);
    EXPECT_EQ(table.Entries(), entries);
    EXPECT_EQ(Find(table, "name 7"), entries[7]);
    table.Pack();
    EXPECT_LT(table.HeldBytes(), held);
    EXPECT_EQ(StreamIdOf(Find(table, "name 7")), 2997u);
}

// Long enough for slots to collide, wrap around and grow.
TEST(EffectTable, AgreesWithAMap) {
    std::minstd_rand random(9);
    Table table;
    std::map<std::pair<std::size_t, std::string>, std::uint64_t> expected;
    for (std::uint64_t step = 0; step < 20000; ++step) {
        const std::string name = std::to_string(random() % 700);
        if (random() % 5 < 3) {
            Put(table, name, step);
            expected[{name.size(), name}] = step;
        } else {
            IndexEntry* const entry = Find(table, name);
            ASSERT_EQ(entry != nullptr, expected.erase({name.size(), name}) != 0) << step;
            if (entry) { table.Remove(entry); }
        }
        if (random() % 400 == 0) {
            table.Pack();
            ASSERT_EQ(table.Entries().size(), expected.size());
            auto next = expected.begin();
            for (const IndexEntry* const entry : table.Entries()) {
                ASSERT_EQ(NameOf(*entry), next->first.second);
                ASSERT_EQ(StreamIdOf(entry), next->second);
                ++next;
            }
        }
        ASSERT_EQ(table.Size(), expected.size());
    }
}

TEST(IndexEntry, HasTheBytesOfItsRecordAndName) {
    EffectRecord record = {0x0102030405060708, 2, 9, 1, {2024, 2, 29, 23, 59, 58, 987}, 0};
    Table table;
    const IndexEntry* const entry = table.Put(KeyOf("ab"), KeyOf("ab").Hash(), record);
    const auto bytes = entry->Bytes();
    EXPECT_EQ(std::vector<unsigned char>(bytes.begin(), bytes.end()),
              (std::vector<unsigned char>{8,    7,    6, 5, 4,  3, 2,  1,                  //
                                          2,    0,    0, 0, 9,  0, 0,  0, 1,   0,  0,  0,  //
                                          0xE8, 0x07, 2, 0, 29, 0, 23, 0, 59,  0,  58, 0,  //
                                          0xDB, 0x03, 0, 0,                                //
                                          0,    0,    0, 0, 0,  0, 0,  0,                  //
                                          2,    0,    0, 0, 0,  0, 0,  0, 'a', 'b'}));
}

TEST(PendingEffect, HoldsCopiesOfNameAndBytes) {
    std::string name = "name";
    std::vector<unsigned char> bytes = {1, 2, 3};
    EffectTable<PendingEffect> table;
    const std::uint32_t hash = KeyOf(name).Hash();
    const PendingEffect* const effect =
        table.Put(KeyOf(name), hash, std::span<const unsigned char>(bytes), true, 7U);
    name[0] = 'x';
    bytes[0] = 9;
    EXPECT_TRUE(effect->Key() == KeyOf("name"));
    EXPECT_EQ(std::vector<unsigned char>(effect->Compiled().begin(), effect->Compiled().end()),
              (std::vector<unsigned char>{1, 2, 3}));
    EXPECT_EQ(effect->hash, hash);
    EXPECT_EQ(effect->permanent, 1u);
    EXPECT_EQ(effect->order, 7U);
    EXPECT_EQ(effect->Bytes().size(), sizeof(PendingEffect) + 4 + 3);
}

}  // namespace

}  // namespace Quorvel
