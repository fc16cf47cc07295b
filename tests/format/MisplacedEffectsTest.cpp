#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "format/EffectCacheWriter.h"
#include "format/LibraryCache.h"
#include "format/LibraryPackage.h"
#include "format/TestData.h"

namespace Quorvel::Format {
namespace {

constexpr std::size_t kSize = 100;
constexpr std::size_t kLongSize = 9000;

// Two effects of each size, so that an effect in the wrong place has the expected length.
class MisplacedEffects : public testing::Test {
protected:
    // Writes a cache file after editing its records or the entries of its index.
    void WriteFile(const std::function<void(PackageImage&)>& edit) {
        PackageImage image = LayOutEffectCache(effects_, {});
        edit(image);
        WriteWholeFile(CacheFile(directory_), EncodePackage(image));
    }
    void WriteFileWithIndex(const std::function<void(std::vector<IndexEntry>&)>& edit) {
        WriteFile([&](PackageImage& image) {
            const CacheHeader header = ReadCacheHeader(image.headerData);
            const StreamReader reader(image);
            std::vector<IndexEntry> entries = ReadIndex(reader, header);
            edit(entries);
            std::map<std::uint64_t, Bytes> streams;
            for (const StreamRecord& stream : image.streams) {
                streams[stream.id] = reader.Read(stream.id);
            }
            streams[header.indexStream] = EncodeIndex(entries);
            image = LayOutPackage(streams, image.headerData, {});
        });
    }

    // Fails the test if an effect is found with wrong bytes, now or after new effects have been
    // saved.
    void ExpectNoWrongBytes() {
        CachedEffects effects;
        for (const NewEffect& effect : effects_) {
            effects[effect.name] = {effect.data, false};
        }
        for (int round = 0; round < 2; ++round) {
            LibraryCache cache(directory_);
            EXPECT_TRUE(cache->IsEnabled());
            Expect(cache, effects);
            for (const std::size_t size : {kSize, kLongSize}) {
                const std::string name = "new" + std::to_string(size) + std::to_string(round);
                effects[name] = {Pattern(size, 50 + size + static_cast<std::size_t>(round)), false};
                cache.Add(name, effects[name]);
            }
            cache->ForceSaveToFile();
            Expect(cache, effects);
        }
    }

    Testing::TemporaryDirectory directory_;
    std::vector<NewEffect> effects_ = {{"a", Pattern(kSize, 1)},
                                       {"b", Pattern(kSize, 2)},
                                       {"c", Pattern(kLongSize, 3)},
                                       {"d", Pattern(kLongSize, 4)}};

private:
    static void Expect(LibraryCache& cache, const CachedEffects& effects) {
        for (const auto& [name, effect] : effects) {
            const std::optional<Bytes> found = cache.Search(name);
            EXPECT_TRUE(!found || *found == effect.data) << name;
        }
    }
};

StreamRecord& RecordOf(PackageImage& image, std::uint64_t id) {
    return *std::find_if(image.streams.begin(), image.streams.end(),
                         [id](const StreamRecord& stream) { return stream.id == id; });
}

Fragment& FragmentOf(PackageImage& image, std::uint64_t id) {
    return *std::find_if(image.fragments.begin(), image.fragments.end(),
                         [id](const Fragment& fragment) { return fragment.streamId == id; });
}

// The effects "a" to "d" have the streams 1 to 4.

TEST_F(MisplacedEffects, InOneStreamAreNotMixedUp) {
    WriteFileWithIndex([](std::vector<IndexEntry>& entries) { entries[1].record.streamId = 1; });
    ExpectNoWrongBytes();
}

TEST_F(MisplacedEffects, WithoutAStreamDoNotGetALaterStreamsBytes) {
    for (const std::uint64_t stream : {1u, 3u}) {
        WriteFile([](PackageImage&) {});
        ASSERT_TRUE(OpenPackage(CacheFile(directory_))->DeleteDataStream(stream));
        ExpectNoWrongBytes();
        EXPECT_TRUE(LibraryCache(directory_).Search("b"));
    }
    WriteFileWithIndex([](std::vector<IndexEntry>& entries) {
        entries[0].record.streamId = 5;  // the id that the next stream gets
        entries[2].record.streamId = 6;
    });
    ExpectNoWrongBytes();
}

TEST_F(MisplacedEffects, WithTailsInOnePlaceAreNotMixedUp) {
    WriteFile(
        [](PackageImage& image) { FragmentOf(image, 1).offset = FragmentOf(image, 2).offset; });
    ExpectNoWrongBytes();
}

TEST_F(MisplacedEffects, WithStreamsInOnePageAreNotMixedUp) {
    WriteFile(
        [](PackageImage& image) { RecordOf(image, 3).firstPage = RecordOf(image, 4).firstPage; });
    ExpectNoWrongBytes();
}

TEST_F(MisplacedEffects, WithAUsedPageMarkedFreeDoNotGetLaterBytes) {
    WriteFile([](PackageImage& image) {
        image.links[RecordOf(image, 3).firstPage - kFirstPage] = kFreePage;
    });
    ExpectNoWrongBytes();
    WriteFile([](PackageImage& image) {
        image.links[image.blocks[0].pages[7] - kFirstPage] = kFreePage;
    });
    ExpectNoWrongBytes();
}

TEST_F(MisplacedEffects, WithTooManyFreeBytesInABlockDoNotGetLaterBytes) {
    WriteFile([](PackageImage& image) { image.blocks[0].freeBytes += kSize; });
    ExpectNoWrongBytes();
}

// The tails fill the block's first page, and new ones go to the second.
TEST_F(MisplacedEffects, WithATailBlockFarPastTheEndDoNotMakeTheFileGrow) {
    effects_.push_back({"e", Pattern(7000, 5)});
    WriteFile([](PackageImage& image) { image.blocks[0].pages[1] = 4000; });
    const std::size_t size = ReadWholeFile(CacheFile(directory_)).size();
    ExpectNoWrongBytes();
    // A save may reserve some pages.
    EXPECT_LE(ReadWholeFile(CacheFile(directory_)).size(), size + 100 * kPageSize);
}

// A page that was cut off is refused at first, and must not be read as zeros once the file grows.
TEST_F(MisplacedEffects, InACutFileAreNotReadAsZeros) {
    EffectCacheLayout layout;
    layout.package.pageOrder = PageOrder::kDescending;  // puts the effects' whole pages last
    const Bytes file = WriteEffectCache(effects_, layout);
    for (const std::size_t cut : {1u, 100u, 8192u, 10000u, 16384u}) {
        WriteWholeFile(CacheFile(directory_),
                       Bytes(file.begin(), file.end() - static_cast<std::ptrdiff_t>(cut)));
        ExpectNoWrongBytes();
    }
}

}  // namespace
}  // namespace Quorvel::Format
