#include "format/SalvageReader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <ostream>
#include <stdexcept>
#include <string>

#include "format/EffectCacheWriter.h"
#include "format/TestData.h"

namespace Quorvel::Format {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

using Reasons = std::map<std::string, std::string>;

struct Found {
    std::map<std::string, Bytes> whole;
    Reasons lost;
    std::vector<std::string> damage;
    bool hasWholeIndex = false;
};

Found Salvage(const FileSource& file) {
    const SalvageReader reader(file);
    Found found;
    found.damage = reader.Damage();
    found.hasWholeIndex = reader.HasWholeIndex();
    reader.ForEach(
        [&](const IndexEntry& entry, const Bytes& data) {
            EXPECT_TRUE(found.whole.emplace(entry.name, data).second) << entry.name;
        },
        [&](const IndexEntry& entry, const std::string& reason) {
            found.lost[entry.name] = reason;
        });
    return found;
}

Found Salvage(const Bytes& file) {
    return Salvage(MemorySource(file));
}

// The index is stream 0 and has only a tail. "a" is stream 1 and has only a tail, "bb" is stream 2
// and has a page and a tail, "ccc" is stream 3 and has only a page, "dddd" is stream 4 and has two
// pages and a tail. The tails lie in the one tail block in the order of the streams; that of "dddd"
// crosses from its first page to the second. The head file has three pages.
const std::vector<NewEffect>& FourEffects() {
    static const std::vector<NewEffect> effects = {{"a", Pattern(3, 1)},
                                                   {"bb", Pattern(9000, 2), true},
                                                   {"ccc", Pattern(8184, 3)},
                                                   {"dddd", Pattern(24376, 4)}};
    return effects;
}

PackageImage SoundImage() {
    EffectCacheLayout layout;
    layout.package.freePagesAtEnd = 2200;
    return LayOutEffectCache(FourEffects(), layout);
}

struct Damage {
    std::string name;
    Reasons lost;
    bool isIndexWhole = true;
    std::function<void(PackageImage&)> toTables = {};
    std::function<void(Bytes&, const PackageImage&)> toBytes = {};
};

void PrintTo(const Damage& damage, std::ostream* out) {
    *out << damage.name;
}

class SalvageDamage : public testing::TestWithParam<Damage> {};

TEST_P(SalvageDamage, CostsOnlyWhatItMakesDoubtful) {
    PackageImage image = SoundImage();
    if (GetParam().toTables) { GetParam().toTables(image); }
    Bytes file = EncodePackage(image);
    if (GetParam().toBytes) { GetParam().toBytes(file, image); }

    const Found found = Salvage(file);

    EXPECT_EQ(found.lost, GetParam().lost);
    EXPECT_EQ(found.hasWholeIndex, GetParam().isIndexWhole);
    for (const auto& [name, data] : found.whole) {
        const auto effect =
            std::find_if(FourEffects().begin(), FourEffects().end(),
                         [&, &key = name](const auto& one) { return one.name == key; });
        ASSERT_NE(effect, FourEffects().end()) << name;
        EXPECT_TRUE(data == effect->data) << name;
    }
    if (GetParam().isIndexWhole) {
        EXPECT_EQ(found.whole.size() + found.lost.size(), FourEffects().size());
    }
}

constexpr const char* kNoRecord = "its stream has no valid record in the directory";
constexpr const char* kBrokenChain = "its chain of pages is broken";
constexpr const char* kBrokenTail = "its tail is missing or damaged";
constexpr const char* kClaimedTwice = "something else claims a page or a byte of it";

std::uint64_t& Link(PackageImage& image, std::uint64_t page) {
    return image.links[static_cast<std::size_t>(page - kFirstPage)];
}

Damage AtOffset(const std::string& name, const Reasons& lost, std::size_t offset, std::size_t width,
                std::uint64_t value) {
    return {name, lost, true, {}, [=](Bytes& file, const PackageImage&) {
                StoreInteger(file, offset, width, value);
            }};
}

std::vector<Damage> HeadFileDamages() {
    return {
        {"None", {}},
        AtOffset("InterruptedSave", {}, 0, 8, 0),
        AtOffset("TooManyHeadPages", {}, 0, 8, ~0ull),
        AtOffset("ByteSizeTooHigh", {}, 8, 8, ~0ull),
        AtOffset("DataEndTooLow", {}, 24, 8, 33),
        AtOffset("NextPageMissing", {}, 16, 8, 0),
        AtOffset("NextPageOutOfRange", {}, 16, 8, ~0ull),
        {"HeadPageOfZeros",
         {},
         true,
         {},
         [](Bytes& file, const PackageImage& image) {
             // This page holds only links of free pages.
             const auto page =
                 file.begin() + static_cast<std::ptrdiff_t>(PageOffset(image.headPages[1].number));
             std::fill(page, page + kPageSize, std::uint8_t{0});
         }},
        {"HeaderDataSizeTooLow",
         {},
         true,
         {},
         [](Bytes& file, const PackageImage& image) {
             const std::size_t end =
                 PageOffset(image.headPages[2].number) + EncodeState(image).size() - 8160 - 8176;
             StoreInteger(file, end + kHeadPageHeader - 48, 8, 3);
         }},
        {"HeaderDataSizeTooHigh",
         {},
         true,
         {},
         [](Bytes& file, const PackageImage& image) {
             const std::size_t end =
                 PageOffset(image.headPages[2].number) + EncodeState(image).size() - 8160 - 8176;
             StoreInteger(file, end + kHeadPageHeader - 48, 8, ~0ull);
         }},
    };
}

std::vector<Damage> TableDamages() {
    return {
        {"ChainEndsEarly",
         {{"dddd", kBrokenChain}},
         true,
         [](PackageImage& image) { Link(image, image.streams[4].firstPage) = kChainEnd; }},
        {"ChainIsTooLong",
         {{"ccc", kBrokenChain}, {"dddd", kClaimedTwice}},
         true,
         [](PackageImage& image) {
             Link(image, image.streams[3].firstPage) = image.streams[4].firstPage;
         }},
        {"ChainHasAFreePage",
         {{"ccc", kBrokenChain}},
         true,
         [](PackageImage& image) { Link(image, image.streams[3].firstPage) = kFreePage; }},
        {"ChainOfOnePageIsACircle",
         {{"ccc", kClaimedTwice}},
         true,
         [](PackageImage& image) {
             Link(image, image.streams[3].firstPage) = image.streams[3].firstPage;
         }},
        {"TwoChainsShareAPage",
         {{"bb", kClaimedTwice}, {"ccc", kClaimedTwice}},
         true,
         [](PackageImage& image) { image.streams[3].firstPage = image.streams[2].firstPage; }},
        {"ChainBeginsInTheMiddleOfAnother",
         {{"ccc", kClaimedTwice}, {"dddd", kClaimedTwice}},
         true,
         [](PackageImage& image) {
             image.streams[3].firstPage = image.Link(image.streams[4].firstPage);
         }},
        {"APageThatBelongsToNothingLeadsIntoAChain",
         {{"ccc", kBrokenChain}},
         true,
         [](PackageImage& image) { image.links.back() = image.streams[3].firstPage; }},
        {"ChainIsInTheHeadFile",
         {{"ccc", kBrokenChain}},
         true,
         [](PackageImage& image) { image.streams[3].firstPage = image.headPages[2].number; }},
        {"ChainIsInATailBlock",
         {{"ccc", kBrokenChain}},
         true,
         [](PackageImage& image) { image.streams[3].firstPage = image.blocks[0].pages[7]; }},
        {"StreamHasAnotherSize",
         {{"a", "its stream has another size"}},
         true,
         [](PackageImage& image) { ++image.streams[1].size; }},
        {"StreamRecordIsNotValid",
         {{"dddd", kNoRecord}},
         true,
         [](PackageImage& image) { image.streams[4].pageCount = 1; }},
        {"StreamIdAppearsTwice",
         {{"bb", kNoRecord}, {"ccc", kNoRecord}},
         true,
         [](PackageImage& image) { image.streams[3].id = 2; }},
        {"StreamTakesTheIdOfADamagedRecord",
         {{"bb", kNoRecord}, {"ccc", kNoRecord}},
         true,
         [](PackageImage& image) {
             image.streams[2].size = 1;
             image.streams[3].id = 2;
             image.streams[3].size = 9008;
         }},
        {"StreamIsMissing",
         {{"ccc", kNoRecord}},
         true,
         [](PackageImage& image) { image.streams[3].id = 77; }},
        {"FragmentOverlapsTheNext",
         {{"a", kClaimedTwice}, {"bb", kClaimedTwice}},
         true,
         [](PackageImage& image) { ++image.fragments[1].offset; }},
        {"FragmentSpansSeveral",
         {{"a", kClaimedTwice}, {"bb", kClaimedTwice}, {"dddd", kClaimedTwice}},
         true,
         [](PackageImage& image) { image.fragments[1].length = 8000; }},
        {"FragmentHasAnotherIndex",
         {{"bb", kBrokenTail}},
         true,
         [](PackageImage& image) { ++image.fragments[2].index; }},
        {"FragmentIsNotListed",
         {{"bb", kBrokenTail}},
         true,
         [](PackageImage& image) { image.blocks[0].streams[2] = 99; }},
        {"FragmentBelongsToAnotherStream",
         {{"bb", kBrokenTail}, {"ccc", kBrokenTail}},
         true,
         [](PackageImage& image) { image.fragments[2].streamId = 3; }},
        {"FragmentLiesInAnotherBlock",
         {{"bb", kBrokenTail}},
         true,
         [](PackageImage& image) { image.fragments[2].blockId = 1; }},
        {"StreamHasTwoFragments",
         {{"a", kBrokenTail}, {"bb", kBrokenTail}},
         true,
         [](PackageImage& image) { image.fragments[2].streamId = 1; }},
        {"FragmentReachesIntoTheFreeBytes",
         {{"dddd", kBrokenTail}},
         true,
         [](PackageImage& image) { ++image.blocks[0].freeBytes; }},
        {"SecondPageOfABlockIsAnother",
         {{"dddd", kBrokenTail}},
         true,
         [](PackageImage& image) {
             image.links.back() = kChainEnd;
             image.blocks[0].pages[1] = kFirstPage + image.links.size() - 1;
         }},
        {"FirstPageOfABlockIsAnother",
         {},
         false,
         [](PackageImage& image) {
             image.links.back() = kChainEnd;
             image.blocks[0].pages[0] = kFirstPage + image.links.size() - 1;
         }},
        {"PageOfABlockIsFree",
         {{"dddd", kBrokenTail}},
         true,
         [](PackageImage& image) { Link(image, image.blocks[0].pages[1]) = kFreePage; }},
        {"TwoBlocksShareAPage",
         {{"dddd", kClaimedTwice}},
         true,
         [](PackageImage& image) {
             image.blocks.push_back(image.blocks[0]);
             image.blocks[1].id = 1;
             image.blocks[1].streams.clear();
             for (const std::size_t slot : {0U, 2U, 3U, 4U, 5U, 6U, 7U}) {
                 image.blocks[1].pages[slot] = 0xFFFFF;
             }
         }},
    };
}

// Damage to the index, which lies at the start of the tail block. Its records begin at 0, 53, 107
// and 162.
Damage InIndex(const std::string& name, const Reasons& lost, bool isIndexWhole, std::size_t offset,
               std::size_t width, std::uint64_t value) {
    return {name, lost, isIndexWhole, {}, [=](Bytes& file, const PackageImage& image) {
                StoreInteger(file, PageOffset(image.blocks[0].pages[0]) + offset, width, value);
            }};
}

std::vector<Damage> IndexDamages() {
    constexpr const char* kTwoStreams = "another record of the index names its stream";
    return {
        InIndex("FirstRecordHasAnotherNameLength", {}, false, 8, 4, 2),
        InIndex("NameLengthsDiffer", {}, false, 53 + 44, 8, 3),
        InIndex("NameIsLongerThanTheIndex", {}, false, 107 + 8, 4, 60000),
        InIndex("LastRecordIsNotValid", {}, false, 162 + 12, 4, 0),
        InIndex("EffectHasAnotherSize", {{"bb", "its stream has another size"}}, true, 53 + 12, 4,
                9001),
        InIndex("TwoRecordsNameOneStream", {{"bb", kTwoStreams}, {"ccc", kTwoStreams}}, true, 53, 8,
                3),
        InIndex("ARecordNamesTheIndex", {{"bb", kTwoStreams}}, true, 53, 8, 0),
        InIndex("ARecordNamesAMissingStream", {{"bb", kNoRecord}}, true, 53, 8, 4711),
        {"BytesDoNotBeginWithTheSize",
         {{"ccc", "its bytes don't begin with its size"}},
         true,
         {},
         [](Bytes& file, const PackageImage& image) {
             StoreInteger(file, PageOffset(image.streams[3].firstPage), 8, 8185);
         }},
        {"AnotherEffectCount",
         {},
         false,
         {},
         [](Bytes& file, const PackageImage& image) {
             const std::size_t size = EncodeState(image).size() - 8160 - 8176;
             StoreInteger(file, PageOffset(image.headPages[2].number) + kHeadPageHeader + size - 24,
                          8, 0);
         }},
    };
}

std::string DamageName(const testing::TestParamInfo<Damage>& instance) {
    return instance.param.name;
}

INSTANTIATE_TEST_SUITE_P(HeadFile, SalvageDamage, testing::ValuesIn(HeadFileDamages()), DamageName);
INSTANTIATE_TEST_SUITE_P(Tables, SalvageDamage, testing::ValuesIn(TableDamages()), DamageName);
INSTANTIATE_TEST_SUITE_P(Index, SalvageDamage, testing::ValuesIn(IndexDamages()), DamageName);

TEST(SalvageReader, TakesTheRecordsBehindDamageInTheIndex) {
    PackageImage image = SoundImage();
    Bytes file = EncodePackage(image);
    StoreInteger(file, PageOffset(image.blocks[0].pages[0]) + 53 + 44, 8, 0);
    const Found found = Salvage(file);
    EXPECT_EQ(found.whole.size(), 3U);
    EXPECT_EQ(found.whole.count("bb"), 0U);
    EXPECT_THAT(found.damage, ElementsAre("bytes of the index that belong to no valid record: 54",
                                          "the cache's header states 4 effects, the index has 3"));
}

TEST(SalvageReader, TrustsNoneOfTwoRecordsWithOneName) {
    std::vector<IndexEntry> entries;
    std::map<std::uint64_t, Bytes> streams;
    for (std::uint64_t id = 1; id <= 3; ++id) {
        EffectRecord record;
        record.streamId = id;
        record.nameLength = 4;
        record.size = 100;
        entries.push_back({id < 3 ? "same" : "else", record});
        streams[id] = EncodeEffect(Pattern(100, id));
    }
    streams[0] = EncodeIndex(entries);
    CacheHeader header;
    header.effectCount = 3;
    header.indexStream = 0;
    const Found found = Salvage(WritePackage(streams, EncodeHeaderBlock(header)));
    EXPECT_THAT(found.lost, ElementsAre(Pair("same", "another record of the index has its name")));
    EXPECT_EQ(found.whole.size(), 1U);
}

TEST(SalvageReader, TakesEveryEffectOfASoundCache) {
    for (const NamedLayout& named : AllLayouts()) {
        EffectCacheLayout layout;
        layout.package = named.layout;
        layout.shuffleIndex = true;
        layout.shuffleStreams = true;
        layout.moreBlocks = true;
        layout.headerPayload = 40;
        const Found found = Salvage(WriteEffectCache(ManyEffects(200), layout));
        EXPECT_EQ(found.whole.size(), 200U) << named.name;
        EXPECT_THAT(found.damage, IsEmpty()) << named.name;
        EXPECT_TRUE(found.hasWholeIndex) << named.name;
    }
}

TEST(SalvageReader, TakesNothingFromAnEmptyCache) {
    const Found found = Salvage(WriteEffectCache({}));
    EXPECT_TRUE(found.whole.empty());
    EXPECT_TRUE(found.hasWholeIndex);
    EXPECT_THAT(found.damage, IsEmpty());
}

TEST(SalvageReader, SaysThatAnotherVersionIsDamage) {
    const Bytes sound = WriteEffectCache(FourEffects());
    Bytes file = sound;
    const Bytes version = EncodeHeaderBlock({}, kCacheHeaderSize);
    const auto at = std::search(file.begin(), file.end(), version.begin(), version.begin() + 16);
    ASSERT_NE(at, file.end());
    StoreInteger(file, static_cast<std::size_t>(at - file.begin()) + 12, 4, 8);
    const Found found = Salvage(file);
    EXPECT_THAT(found.damage, ElementsAre("the cache's version is 8"));
    EXPECT_EQ(found.whole.size(), 4U);
}

TEST(SalvageReader, TakesNothingFromAFileThatHoldsNoCache) {
    const struct {
        const char* name;
        Bytes file;
        const char* damage;
    } rows[] = {
        {"Empty", {}, "the file has no first page"},
        {"LessThanAPage", Bytes(8191), "the file has no first page"},
        {"Zeros", Bytes(100000), "a save was interrupted"},
        {"Text", Bytes(100000, 'x'), "the link table can't be read to its end"},
        {"Package", WritePackage({{0, {1}}}, {}), "the header data has no cache block"},
    };
    for (const auto& row : rows) {
        const Found found = Salvage(row.file);
        EXPECT_TRUE(found.whole.empty() && found.lost.empty()) << row.name;
        EXPECT_FALSE(found.hasWholeIndex) << row.name;
        ASSERT_FALSE(found.damage.empty()) << row.name;
        EXPECT_THAT(found.damage.front(), HasSubstr(row.damage)) << row.name;
    }
}

// Each count in the state is set to more than there is.
TEST(SalvageReader, StopsAtACountThatIsTooHigh) {
    const PackageImage image = LayOutEffectCache(FourEffects(), {});
    const std::size_t links = 8 * image.links.size();
    const std::size_t directory = links + 8;
    const std::size_t blocks = directory + 8 + 32 * image.streams.size();
    const std::size_t fragments = blocks + 8 + 88 + 8 * image.blocks[0].streams.size();
    const struct {
        const char* table;
        std::size_t offset;
    } rows[] = {
        {"link table", 0},
        {"stream directory", directory},
        {"table of tail blocks", blocks},
        {"table of tail blocks", blocks + 8 + 80},
        {"table of fragments", fragments},
    };
    for (const auto& row : rows) {
        for (const std::uint64_t count : {~0ull, 1ull << 61, 0x7FFFFFFFull, 65536ull, 65535ull}) {
            Bytes file = EncodePackage(image);
            StoreInteger(file, kFirstHeadPageHeader + row.offset, 8, count);
            const Found found = Salvage(file);
            EXPECT_TRUE(found.whole.empty()) << row.table << count;
            EXPECT_THAT(found.damage, testing::Contains(HasSubstr(row.table))) << count;
        }
    }
}

TEST(SalvageReader, LeavesOutWhatATruncatedFileLacks) {
    const PackageImage image = LayOutEffectCache(FourEffects(), {});
    Bytes file = EncodePackage(image);
    // The pages of the tail block are the last ones, and only the first two are in use.
    ASSERT_EQ(PageOffset(image.blocks[0].pages[7]) + kPageSize, file.size());
    file.resize(PageOffset(image.blocks[0].pages[2]));
    EXPECT_EQ(Salvage(file).whole.size(), 4U);
    file.resize(file.size() - 1);
    EXPECT_THAT(Salvage(file).lost,
                ElementsAre(Pair("dddd", "it reaches past the end of the file")));
}

// A file with pages that can't be read.
class BadSectors final : public FileSource {
public:
    BadSectors(const Bytes& bytes, std::uint64_t badPage) : memory_(bytes), badPage_(badPage) {}
    std::uint64_t Size() const override { return memory_.Size(); }
    void Read(std::uint64_t offset, std::uint8_t* to, std::uint64_t size) const override {
        if (offset / kPageSize + kFirstPage == badPage_) { throw std::runtime_error("bad sector"); }
        memory_.Read(offset, to, size);
    }

private:
    const MemorySource memory_;
    const std::uint64_t badPage_;
};

TEST(SalvageReader, LeavesOutWhatCannotBeRead) {
    const PackageImage image = SoundImage();
    const Bytes file = EncodePackage(image);
    EXPECT_THAT(Salvage(BadSectors(file, image.streams[3].firstPage)).lost,
                ElementsAre(Pair("ccc", "the system can't read it")));
    EXPECT_EQ(Salvage(BadSectors(file, image.headPages[1].number)).whole.size(), 4U);
    EXPECT_THROW(Salvage(BadSectors(file, kFirstPage)), std::runtime_error);
}

}  // namespace
}  // namespace Quorvel::Format
