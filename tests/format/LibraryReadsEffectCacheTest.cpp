#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "format/EffectCacheWriter.h"
#include "format/LibraryCache.h"
#include "format/TestData.h"

namespace Quorvel::Format {
namespace {

struct NamedCacheLayout {
    std::string name;
    EffectCacheLayout layout;
};

void PrintTo(const NamedCacheLayout& named, std::ostream* out) {
    *out << named.name;
}

std::vector<NamedCacheLayout> CacheLayouts() {
    std::vector<NamedCacheLayout> all;
    for (const NamedLayout& named : AllLayouts()) {
        if (named.layout.tails != TailPlacement::kBlockEach) {
            all.push_back({named.name, {}});
            all.back().layout.package = named.layout;
        }
    }
    const auto add = [&](const char* name) -> EffectCacheLayout& {
        all.push_back({name, {}});
        return all.back().layout;
    };
    add("ShuffledIndex").shuffleIndex = true;
    add("ShuffledStreamIds").shuffleStreams = true;
    add("OtherBlocksInTheHeaderData").moreBlocks = true;
    add("LongerHeader").headerPayload = 40;
    return all;
}

CachedEffects AsCached(const std::vector<NewEffect>& effects) {
    CachedEffects cached;
    for (const NewEffect& effect : effects) {
        cached[effect.name] = {effect.data, effect.permanent};
    }
    return cached;
}

// Cache files that the library did not write.
class LibraryReadsEffectCache : public testing::TestWithParam<NamedCacheLayout> {
protected:
    std::vector<NewEffect> effects_ = ManyEffects(1000);
    Testing::TemporaryDirectory directory_;
};

TEST_P(LibraryReadsEffectCache, OfAThousandEffects) {
    WriteWholeFile(CacheFile(directory_), WriteEffectCache(effects_, GetParam().layout));

    LibraryCache cache(directory_);

    EXPECT_TRUE(cache->IsEnabled());
    EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 1000u);
    for (const NewEffect& effect : effects_) {
        EXPECT_TRUE(cache.Search(effect.name) == effect.data) << effect.name;
    }
}

TEST_P(LibraryReadsEffectCache, AndKeepsItSoundWhenItAddsEffects) {
    WriteWholeFile(CacheFile(directory_), WriteEffectCache(effects_, GetParam().layout));
    CachedEffects expected = AsCached(effects_);
    {
        LibraryCache cache(directory_);
        for (std::size_t i = 0; i < effects_.size(); i += 9) {
            const CachedEffect replacement = {Pattern(1 + i * 5, i), i % 2 == 0};
            cache.Add(effects_[i].name, replacement);
            expected[effects_[i].name] = replacement;
        }
        cache.Add("new", {Pattern(8184, 1), false});
        expected["new"] = {Pattern(8184, 1), false};
    }
    ExpectCacheFile(CacheFile(directory_), expected);
}

INSTANTIATE_TEST_SUITE_P(All, LibraryReadsEffectCache, testing::ValuesIn(CacheLayouts()),
                         [](const auto& instance) { return instance.param.name; });

// A file that no writer should leave, but in which no page and no byte of a block has two owners.
struct Oddity {
    std::string name;
    Bytes (*encode)(PackageImage& image);
};

void PrintTo(const Oddity& oddity, std::ostream* out) {
    *out << oddity.name;
}

std::uint64_t AddPage(PackageImage& image, std::uint64_t link) {
    image.links.push_back(link);
    return kFirstPage + image.links.size() - 1;
}

// Adds a page that lies in the file.
std::uint64_t AddPageInFile(PackageImage& image, std::uint64_t link) {
    image.file.resize(image.file.size() + kPageSize);
    return AddPage(image, link);
}

std::uint64_t& LastBlockLink(PackageImage& image) {
    return image.links.at(image.blocks[0].pages[kTailBlockPages - 1] - kFirstPage);
}

class OddEffectCache : public testing::TestWithParam<Oddity> {};

TEST_P(OddEffectCache, HasAllItsEffectsBeforeAndAfterASave) {
    std::vector<NewEffect> effects = ManyEffects(8);
    PackageImage image = LayOutEffectCache(effects, {});
    ASSERT_EQ(image.headPages.size(), 1u);
    const Testing::TemporaryDirectory directory;
    WriteWholeFile(CacheFile(directory), GetParam().encode(image));
    for (int round = 0; round < 3; ++round) {
        LibraryCache cache(directory);
        EXPECT_TRUE(cache->IsEnabled());
        EXPECT_EQ(cache->GetNumberOfEffectsInFile(), effects.size());
        for (const NewEffect& effect : effects) {
            EXPECT_TRUE(cache.Search(effect.name) == effect.data) << effect.name;
        }
        effects[0].data = Pattern(9000, static_cast<std::uint64_t>(round));  // replaces the old one
        effects.push_back({"new" + std::to_string(round), Pattern(9500, 7), false, {}});
        cache.Add(effects.front().name, {effects.front().data, false});
        cache.Add(effects.back().name, {effects.back().data, false});
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, OddEffectCache,
    testing::ValuesIn(std::vector<Oddity>{
        {"LeakedPage",
         [](PackageImage& image) {
             AddPageInFile(image, kChainEnd);
             return EncodePackage(image);
         }},
        {"LeakedChain",
         [](PackageImage& image) {
             const std::uint64_t last = AddPageInFile(image, kChainEnd);
             AddPageInFile(image, last);
             return EncodePackage(image);
         }},
        {"LeakedPagePastTheEndOfTheFile",
         [](PackageImage& image) {
             AddPage(image, kChainEnd);
             return EncodePackage(image);
         }},
        {"UnusedSecondHeadPage",
         [](PackageImage& image) {
             const std::uint64_t second = AddPageInFile(image, kChainEnd);
             image.links[0] = second;
             Bytes file = EncodePackage(image);
             StoreInteger(file, 0, 8, 2);           // pages
             StoreInteger(file, 16, 8, second);     // next page
             StoreInteger(file, 24, 8, kPageSize);  // data end
             StoreInteger(file, PageOffset(second) + 8, 8, kHeadPageHeader + 1);
             return file;
         }},
        {"BlockWhoseChainGoesOn",
         [](PackageImage& image) {
             LastBlockLink(image) = AddPageInFile(image, kChainEnd);
             return EncodePackage(image);
         }},
        {"StreamWhoseChainGoesOn",
         [](PackageImage& image) {
             const std::uint64_t page = AddPageInFile(image, kChainEnd);
             const auto stream =
                 std::find_if(image.streams.begin(), image.streams.end(),
                              [](const StreamRecord& one) { return one.pageCount == 1; });
             image.links.at(stream->firstPage - kFirstPage) = page;
             return EncodePackage(image);
         }},
        {"GapInABlock",
         [](PackageImage& image) {
             TailBlock& block = image.blocks[0];
             const auto first =
                 image.file.begin() + static_cast<std::ptrdiff_t>(PageOffset(block.pages.front()));
             const auto end = first + static_cast<std::ptrdiff_t>(kTailBlockSize);
             constexpr std::uint64_t kGap = 100;
             std::copy_backward(first, end - kGap, end);
             for (Fragment& fragment : image.fragments) {
                 fragment.offset += kGap;
             }
             block.freeBytes -= kGap;
             return EncodePackage(image);
         }},
        {"GapAfterTheTailsOfABlock",
         [](PackageImage& image) {
             image.blocks[0].freeBytes -= 100;
             return EncodePackage(image);
         }},
        {"ListInAnotherOrder",
         [](PackageImage& image) {
             std::vector<std::uint64_t>& list = image.blocks[0].streams;
             std::reverse(list.begin(), list.end());
             for (Fragment& fragment : image.fragments) {
                 fragment.index = list.size() - 1 - fragment.index;
             }
             return EncodePackage(image);
         }},
        {"HeadFileThatStatesASizeOfZero",
         [](PackageImage& image) {
             Bytes file = EncodePackage(image);
             StoreInteger(file, 8, 8, 0);
             return file;
         }},
    }),
    [](const auto& instance) { return instance.param.name; });

class DamagedEffectCache : public testing::Test {
protected:
    // Opens a cache over a file and expects a new, empty cache in its place.
    void ExpectNewCache(const Bytes& file) {
        WriteWholeFile(CacheFile(directory_), file);
        LibraryCache cache(directory_);
        EXPECT_TRUE(cache->IsEnabled());
        EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 0u);
        ExpectCacheFile(CacheFile(directory_), {});
    }

    // The file of a cache with another header.
    static Bytes WithHeader(const CacheHeader& header, std::uint32_t payload) {
        PackageImage image = LayOutEffectCache({{"name", {1, 2, 3}}}, {});
        image.headerData = EncodeHeaderBlock(header, payload);
        return EncodePackage(image);
    }

    Testing::TemporaryDirectory directory_;
};

TEST_F(DamagedEffectCache, OfAnotherVersionIsReplaced) {
    CacheHeader header;
    header.version = 8;
    header.effectCount = 1;
    header.indexStream = 0;
    ExpectNewCache(WithHeader(header, kCacheHeaderSize));
}

TEST_F(DamagedEffectCache, WithAHeaderOf27BytesIsReplaced) {
    CacheHeader header;
    header.effectCount = 1;
    header.indexStream = 0;
    ExpectNewCache(WithHeader(header, 27));
}

TEST_F(DamagedEffectCache, WithFewerRecordsThanItsHeaderCountsIsReplaced) {
    CacheHeader header;
    header.effectCount = 2;
    header.indexStream = 0;
    ExpectNewCache(WithHeader(header, kCacheHeaderSize));
}

TEST_F(DamagedEffectCache, WithoutItsIndexStreamIsReplaced) {
    CacheHeader header;
    header.indexStream = kNoStream;
    ExpectNewCache(WithHeader(header, kCacheHeaderSize));
}

TEST_F(DamagedEffectCache, WithARecordOutOfRangeIsReplaced) {
    IndexEntry entry{"name", {}};
    entry.record.streamId = 1;
    entry.record.nameLength = 4;
    for (const std::uint32_t size : {0u, 1048577u}) {
        entry.record.size = size;
        CacheHeader header;
        header.effectCount = 1;
        header.indexStream = 0;
        ExpectNewCache(WritePackage({{0, EncodeIndex({entry})}, {1, EncodeEffect({1})}},
                                    EncodeHeaderBlock(header)));
    }
}

TEST_F(DamagedEffectCache, WithoutACacheBlockIsReplaced) {
    ExpectNewCache(WritePackage({{0, {1}}}, Pattern(100, 1)));
}

TEST_F(DamagedEffectCache, ThatIsNotAPackageIsReplaced) {
    ExpectNewCache({});
    ExpectNewCache(Pattern(50000, 1));
}

TEST_F(DamagedEffectCache, FindsAllEffectsButThoseWhoseStreamsAreDamaged) {
    std::vector<IndexEntry> index;
    std::map<std::uint64_t, Bytes> streams;
    for (std::uint64_t id = 1; id <= 4; ++id) {
        EffectRecord record;
        record.streamId = id;
        record.nameLength = 1;
        record.size = 100;
        index.push_back({std::string(1, static_cast<char>('a' + id)), record});
        streams[id] = EncodeEffect(Pattern(100, id));
    }
    StoreInteger(streams[2], 0, 8, 99);  // not the record's length
    streams[3].push_back(0);             // one byte more than the length says
    streams.erase(4);
    streams[0] = EncodeIndex(index);
    CacheHeader header;
    header.effectCount = 4;
    header.indexStream = 0;
    WriteWholeFile(CacheFile(directory_), WritePackage(streams, EncodeHeaderBlock(header)));

    LibraryCache cache(directory_);

    EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 3u);  // not the one without a stream
    EXPECT_TRUE(cache.Search("b") == Pattern(100, 1));
    EXPECT_FALSE(cache.Search("c"));
    EXPECT_FALSE(cache.Search("d"));
    EXPECT_FALSE(cache.Search("e"));
    EXPECT_TRUE(cache->IsEnabled());
}

TEST_F(DamagedEffectCache, WithADuplicateNameUsesTheLaterRecord) {
    std::vector<IndexEntry> index;
    std::map<std::uint64_t, Bytes> streams;
    for (const std::uint64_t id : {1u, 2u}) {
        EffectRecord record;
        record.streamId = id;
        record.nameLength = 4;
        record.size = 10;
        index.push_back({"name", record});
        streams[id] = EncodeEffect(Pattern(10, id));
    }
    streams[0] = EncodeIndex(index);
    CacheHeader header;
    header.effectCount = 2;
    header.indexStream = 0;
    WriteWholeFile(CacheFile(directory_), WritePackage(streams, EncodeHeaderBlock(header)));

    LibraryCache cache(directory_);

    EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 1u);
    EXPECT_TRUE(cache.Search("name") == Pattern(10, 2));
}

}  // namespace
}  // namespace Quorvel::Format
