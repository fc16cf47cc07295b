#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <ostream>
#include <string>

#include "format/EffectCacheImage.h"
#include "format/EffectCacheWriter.h"
#include "format/TestData.h"

namespace Quorvel::Format {
namespace {

// The parts of a sound cache of the three effects "b", "c" and "aa".
struct CacheParts {
    CacheHeader header;
    std::vector<IndexEntry> index;
    std::map<std::uint64_t, Bytes> streams;  // all but the index, which is stream 0
    Bytes indexTail;                         // extra bytes after the index
    std::uint32_t headerPayload = kCacheHeaderSize;
};

CacheParts SoundCache() {
    CacheParts parts;
    parts.header.effectCount = 3;
    parts.header.indexStream = 0;
    std::uint64_t id = 1;
    for (const std::string name : {"b", "c", "aa"}) {
        EffectRecord record;
        record.streamId = id;
        record.nameLength = static_cast<std::uint32_t>(name.size());
        record.size = static_cast<std::uint32_t>(100 * id);
        parts.streams[id] = EncodeEffect(Pattern(record.size, id));
        parts.index.push_back({name, record});
        ++id;
    }
    return parts;
}

Bytes Assemble(const CacheParts& parts) {
    std::map<std::uint64_t, Bytes> streams = parts.streams;
    streams[0] = EncodeIndex(parts.index);
    Append(streams[0], parts.indexTail);
    return WritePackage(streams, EncodeHeaderBlock(parts.header, parts.headerPayload));
}

struct CacheDamage {
    std::string name;
    std::string reportedAs;  // part of the checker's line
    std::function<void(CacheParts&)> plant;
};

void PrintTo(const CacheDamage& damage, std::ostream* out) {
    *out << damage.name;
}

class EffectCacheCheckDamage : public testing::TestWithParam<CacheDamage> {};

TEST_P(EffectCacheCheckDamage, IsReported) {
    CacheParts parts = SoundCache();
    GetParam().plant(parts);

    EXPECT_THAT(CheckEffectCache(Assemble(parts)),
                testing::Contains(testing::HasSubstr(GetParam().reportedAs)));
}

const CacheDamage kDamages[] = {
    {"HeaderTooShort", "the cache's header ends early",
     [](CacheParts& parts) { parts.headerPayload = 27; }},
    {"OtherVersion", "the cache's version is 8",
     [](CacheParts& parts) { parts.header.version = 8; }},
    {"TooManyEffects", "the cache has 8388609 effects",
     [](CacheParts& parts) { parts.header.effectCount = kEffectCountLimit + 1; }},
    {"CountAboveTheIndex", "the index stream ends early",
     [](CacheParts& parts) { parts.header.effectCount = 4; }},
    {"CountBelowTheIndex", "the index stream has 160 bytes instead of 106",
     [](CacheParts& parts) { parts.header.effectCount = 2; }},
    {"NoIndexStream", "is missing",
     [](CacheParts& parts) { parts.header.indexStream = kNoStream; }},
    {"IndexLongerThanItsRecords", "the index stream has 161 bytes instead of 160",
     [](CacheParts& parts) { parts.indexTail = {0}; }},
    {"RecordsOutOfOrder", "the names of records 0 and 1 are not in order",
     [](CacheParts& parts) { std::swap(parts.index[0], parts.index[1]); }},
    {"LongerNameFirst", "the names of records 1 and 2 are not in order",
     [](CacheParts& parts) { std::swap(parts.index[1], parts.index[2]); }},
    {"DuplicateName", "the names of records 0 and 1 are not in order",
     [](CacheParts& parts) { parts.index[1].name = "b"; }},
    {"NoName", "record 0's name length is 0",
     [](CacheParts& parts) { parts.index[0].record.nameLength = 0; }},
    {"NameTooLong", "record 0's name length is 65537",
     [](CacheParts& parts) { parts.index[0].record.nameLength = kNameLengthLimit + 1; }},
    {"NameOfAnotherLength", "record 0's name has 1 bytes",
     [](CacheParts& parts) { parts.index[0].record.nameLength = 2; }},
    {"EffectWithoutBytes", "record 0's effect size is 0",
     [](CacheParts& parts) { parts.index[0].record.size = 0; }},
    {"EffectTooLarge", "record 0's effect size is 1048577",
     [](CacheParts& parts) { parts.index[0].record.size = kEffectSizeLimit + 1; }},
    {"PermanentFlagIs2", "effect \"c\" has the permanent flag 2",
     [](CacheParts& parts) { parts.index[1].record.permanent = 2; }},
    {"DataStreamMissing", "effect \"c\" of 200 bytes can't be read: stream 9 is missing",
     [](CacheParts& parts) { parts.index[1].record.streamId = 9; }},
    {"DataStreamOfAnotherSize", "effect \"c\" of 199 bytes can't be read",
     [](CacheParts& parts) { parts.index[1].record.size = 199; }},
    {"LengthPrefixOfAnotherSize", "the data stream of 208 bytes states a length of 199",
     [](CacheParts& parts) { StoreInteger(parts.streams[2], 0, 8, 199); }},
    {"DataStreamTooShortForItsPrefix", "the data stream ends early",
     [](CacheParts& parts) { parts.streams[2].resize(7); }},
    {"DataStreamSharedByTwoEffects", "effect \"c\" shares stream 1",
     [](CacheParts& parts) { parts.index[1].record.streamId = 1; }},
    {"DataStreamIsTheIndex", "effect \"c\" shares stream 0",
     [](CacheParts& parts) { parts.index[1].record.streamId = 0; }},
    {"OrphanedStream", "stream 4 belongs to no effect",
     [](CacheParts& parts) { parts.streams[4] = Pattern(9, 4); }},
};

INSTANTIATE_TEST_SUITE_P(All, EffectCacheCheckDamage, testing::ValuesIn(kDamages),
                         [](const auto& instance) { return instance.param.name; });

TEST(EffectCacheCheck, ASoundCacheHasNoProblems) {
    EXPECT_EQ(Joined(CheckEffectCache(Assemble(SoundCache()))), "");
}

TEST(EffectCacheCheck, APackageWithoutACacheBlockIsNotACache) {
    EXPECT_EQ(Joined(CheckEffectCache(WritePackage({}, {}))),
              "no intact effect cache: the header data has no cache block\n");
}

TEST(EffectCacheCheck, AFileThatIsNotAPackageIsNotACache) {
    EXPECT_EQ(Joined(CheckEffectCache(Bytes(100))),
              "no intact package: the file has no first page\n");
}

TEST(EffectCacheCheck, ProblemsOfThePackageAreProblemsOfTheCache) {
    PackageImage image = LayOutEffectCache(ManyEffects(3), {});
    image.links.push_back(kChainEnd);
    EXPECT_THAT(CheckEffectCache(EncodePackage(image)),
                testing::Contains(testing::HasSubstr("belongs to nothing")));
}

TEST(EffectCacheCheck, AnEmptyCacheHasAnIndexOfOneByte) {
    const Bytes file = WriteEffectCache({});
    EXPECT_EQ(Joined(CheckEffectCache(file)), "");
    EXPECT_TRUE(ReadEffectCache(ReadPackage(file)).empty());
}

TEST(EffectCacheWriter, WhatItWritesReadsBackWhole) {
    EffectCacheLayout layout;
    layout.shuffleIndex = true;
    layout.shuffleStreams = true;
    layout.moreBlocks = true;
    layout.headerPayload = 40;
    const std::vector<NewEffect> effects = ManyEffects(200);

    const Effects read = ReadEffectCache(ReadPackage(WriteEffectCache(effects, layout)));

    ASSERT_EQ(read.size(), effects.size());
    for (const NewEffect& effect : effects) {
        const auto found = read.find(effect.name);
        ASSERT_NE(found, read.end());
        EXPECT_TRUE(found->second.data == effect.data);
        EXPECT_EQ(found->second.record.permanent, effect.permanent ? 1u : 0u);
        EXPECT_EQ(found->second.record.time.millisecond, effect.time.millisecond);
    }
}

TEST(EffectCacheWriter, AnIndexInKeyOrderIsSound) {
    EffectCacheLayout layout;
    layout.shuffleStreams = true;
    layout.moreBlocks = true;
    layout.headerPayload = 40;
    EXPECT_EQ(Joined(CheckEffectCache(WriteEffectCache(ManyEffects(200), layout))), "");
}

}  // namespace
}  // namespace Quorvel::Format
