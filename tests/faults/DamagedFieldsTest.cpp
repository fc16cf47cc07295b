#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

#include "faults/DamagedFile.h"
#include "faults/Figures.h"
#include "faults/FormatFields.h"
#include "format/EffectCacheImage.h"
#include "format/TestData.h"

namespace Quorvel::Faults {

namespace {

using Format::Bytes;

std::uint64_t AllOnes(std::size_t width) {
    return ~std::uint64_t{0} >> (64 - 8 * width);
}

// The values to set a field to at a place.
std::set<std::uint64_t> ValuesFor(const Field& field, const Place& place,
                                  const std::vector<Place>& places, const Bytes& file) {
    const std::uint64_t value = Format::LoadInteger(file, place.offset, place.width);
    std::set<std::uint64_t> values = {0,
                                      1,
                                      field.limit - 1,
                                      field.limit,
                                      field.limit + 1,
                                      value - 1,
                                      value + 1,
                                      value ^ 0x80,
                                      0x7FFFFFFF,
                                      0x80000000,
                                      0xFFFFFF,
                                      std::uint64_t{1} << 63,
                                      ~std::uint64_t{0} - 7,
                                      ~std::uint64_t{0}};
    // The values that the field has in other places, near and far.
    const std::size_t here = static_cast<std::size_t>(&place - places.data());
    for (const std::size_t other : {here + 1, here + 2, here + places.size() / 2}) {
        const Place& there = places[other % places.size()];
        values.insert(Format::LoadInteger(file, there.offset, there.width));
    }
    std::set<std::uint64_t> fitting;
    for (const std::uint64_t one : values) {
        if ((one & AllOnes(place.width)) != value) { fitting.insert(one & AllOnes(place.width)); }
    }
    return fitting;
}

// Fields with many more places than this are damaged in only some of them.
constexpr std::size_t kMostPlaces = 5;

std::string NameOf(const Field& field, std::size_t place, std::uint64_t value) {
    return RowOf(field) + " [" + std::to_string(place) + "] = " + std::to_string(value);
}

}  // namespace

TEST(FormatFields, AreThoseOfTheDocument) {
    std::vector<std::string> fields;
    for (const Field& field : Fields()) {
        fields.push_back(RowOf(field));
    }
    EXPECT_EQ(fields, DocumentedFields());
}

TEST(FormatFields, HaveTheirPlacesInTheFile) {
    const FileMap map(SampleCache());
    EXPECT_EQ(Format::Joined(Format::CheckEffectCache(map.Image())), "");
    for (const Field& field : Fields()) {
        for (const Place& place : field.places(map)) {
            ASSERT_LE(place.offset + place.width, map.Image().file.size()) << RowOf(field);
        }
    }
    const auto valueOf = [&](const char* row) {
        const auto field = std::find_if(Fields().begin(), Fields().end(),
                                        [=](const Field& one) { return RowOf(one) == row; });
        const Place place = field->places(map).back();
        return Format::LoadInteger(map.Image().file, place.offset, place.width);
    };
    EXPECT_EQ(valueOf("1: data end"), map.Image().headPages.back().dataEnd);
    EXPECT_EQ(valueOf("2: N, number of links"), map.Image().links.size());
    EXPECT_EQ(valueOf("4: id"), map.Image().streams.back().id);
    EXPECT_EQ(valueOf("6: list"), map.Image().blocks.back().streams.back());
    EXPECT_EQ(valueOf("7: length"), map.Image().fragments.back().length);
    EXPECT_EQ(valueOf("8: L, size of the header data"), 40U);
    EXPECT_EQ(valueOf("9: tag"), Format::kCacheHeaderTag);
    EXPECT_EQ(valueOf("10: effect count"), map.Entries().size());
    EXPECT_EQ(valueOf("11: data stream"), map.Entries().back().stream);
    EXPECT_EQ(valueOf("12: year"), 2024U);
    EXPECT_EQ(valueOf("13: effect size, the same as in the record"), map.Entries().back().size);
}

class DamagedFields : public ::testing::TestWithParam<Table> {};

TEST_P(DamagedFields, CostOnlyWhatTheyDescribeOrTheWholeCache) {
    Examiner examiner(SampleCache());
    std::uint64_t values = 0;
    for (const Field& field : Fields()) {
        if (field.table != GetParam()) { continue; }
        const std::vector<Place> places = field.places(examiner.Map());
        const std::size_t step = std::max<std::size_t>(places.size() / kMostPlaces, 1);
        for (std::size_t index = 0; index < places.size(); index += step) {
            for (const std::uint64_t value :
                 ValuesFor(field, places[index], places, examiner.Sound())) {
                if (++values % QUORVEL_FILE_STRIDE != 0) { continue; }
                Bytes damaged = examiner.Sound();
                Format::StoreInteger(damaged, places[index].offset, places[index].width, value);
                examiner.Examine(damaged, NameOf(field, index, value));
            }
        }
    }
    EXPECT_NE(examiner.Result().files, 0U);
    Testing::FiguresOfThisProgram().damagedFiles += examiner.Result().files;
    EXPECT_TRUE(examiner.Result().IsGood()) << examiner.Result();
}

INSTANTIATE_TEST_SUITE_P(
    Table, DamagedFields,
    ::testing::Values(Table::FirstHeadPage, Table::LaterHeadPage, Table::LinkTable,
                      Table::StreamDirectory, Table::StreamRecord, Table::TailBlocks,
                      Table::BlockRecord, Table::FragmentRecord, Table::HeaderData,
                      Table::HeaderBlock, Table::CacheHeader, Table::IndexRecord, Table::EntryTime,
                      Table::DataStream),
    [](const auto& test) { return std::to_string(static_cast<int>(test.param)); });

}  // namespace Quorvel::Faults
