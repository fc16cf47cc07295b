#include "package/SparseTable.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>
#include <utility>
#include <vector>

namespace Quorvel {

namespace {

using Table = SparseTable<std::uint64_t>;

std::vector<std::uint64_t> Records(const Table& table) {
    std::vector<std::uint64_t> records;
    table.ForEach([&records](std::uint64_t record) { records.push_back(record); });
    return records;
}

TEST(SparseTable, HoldsNothingAtFirst) {
    const Table table;
    EXPECT_EQ(table.Find(0), nullptr);
    EXPECT_EQ(table.Find(~std::uint64_t{0}), nullptr);
    EXPECT_EQ(table.Count(), 0u);
    EXPECT_TRUE(Records(table).empty());
}

TEST(SparseTable, FindsWhatWasPut) {
    Table table;
    table.Put(17, 170);
    table.Put(15, 150);
    ASSERT_NE(table.Find(17), nullptr);
    EXPECT_EQ(*table.Find(17), 170u);
    EXPECT_EQ(*table.Find(15), 150u);
    EXPECT_EQ(table.Find(16), nullptr);
    EXPECT_EQ(table.Find(14), nullptr);
    EXPECT_EQ(table.Find(32), nullptr);
    EXPECT_EQ(table.Count(), 2u);
}

TEST(SparseTable, ReplacesARecordWithoutCountingItTwice) {
    Table table;
    table.Put(3, 1);
    table.Put(3, 2);
    EXPECT_EQ(*table.Find(3), 2u);
    EXPECT_EQ(table.Count(), 1u);
}

TEST(SparseTable, VisitsRecordsInIdOrder) {
    Table table;
    for (const std::uint64_t id : {900u, 0u, 15u, 16u, 4u}) {
        table.Put(id, id + 1);
    }
    EXPECT_EQ(Records(table), (std::vector<std::uint64_t>{1, 5, 16, 17, 901}));
}

TEST(SparseTable, RecordsKeepTheirAddresses) {
    Table table;
    table.Put(1, 10);
    const std::uint64_t* const record = table.Find(1);
    for (std::uint64_t id = 2; id < 2000; ++id) {
        table.Put(id, id);
    }
    EXPECT_EQ(table.Find(1), record);
}

TEST(SparseTable, ForgetsWhatIsErased) {
    Table table;
    table.Put(5, 1);
    table.Put(6, 2);
    table.Erase(5);
    EXPECT_EQ(table.Find(5), nullptr);
    EXPECT_EQ(*table.Find(6), 2u);
    EXPECT_EQ(table.Count(), 1u);
    table.Clear();
    EXPECT_EQ(table.Find(6), nullptr);
    EXPECT_EQ(table.Count(), 0u);
}

TEST(SparseTable, CanBeSwapped) {
    Table one;
    Table other;
    one.Put(7, 70);
    std::swap(one, other);
    EXPECT_EQ(one.Count(), 0u);
    EXPECT_EQ(one.Find(7), nullptr);
    EXPECT_EQ(other.Count(), 1u);
    EXPECT_EQ(*other.Find(7), 70u);
}

TEST(SparseTable, AgreesWithAMap) {
    std::minstd_rand random(5);
    Table table;
    std::map<std::uint64_t, std::uint64_t> expected;
    for (std::uint64_t step = 0; step < 5000; ++step) {
        const std::uint64_t id = random() % 300;
        if (random() % 3 != 0) {
            table.Put(id, step);
            expected[id] = step;
        } else if (expected.erase(id) != 0) {
            table.Erase(id);
        }
    }
    std::vector<std::uint64_t> records;
    for (const auto& [id, record] : expected) {
        records.push_back(record);
        EXPECT_EQ(*std::as_const(table).Find(id), record);
    }
    EXPECT_EQ(Records(table), records);
    EXPECT_EQ(table.Count(), expected.size());
}

}  // namespace

}  // namespace Quorvel
