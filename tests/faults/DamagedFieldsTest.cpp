#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "faults/DamagedFile.h"
#include "faults/Figures.h"
#include "faults/FormatFields.h"
#include "format/EffectCacheImage.h"
#include "format/TestData.h"

namespace Quorvel::Faults {

using Format::Bytes;

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
    std::uint64_t files = 0;
    ForEachDamagedField(examiner.Map(), GetParam(),
                        [&](const Bytes& damaged, const std::string& name) {
                            if (++files % QUORVEL_FILE_STRIDE == 0) {
                                examiner.Examine(damaged, name);
                            }
                        });
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
