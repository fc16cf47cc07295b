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

// Effects of two sizes, so that what stands in another's place has the length it ought to have.
class MisplacedEffects : public testing::Test {
protected:
    // Makes a file in which an edit has changed the records, or the entries of the index.
    void WriteFile(const std::function<void(PackageImage&)>& edit) {
        PackageImage image = LayOutEffectCache(effects_, {});
        edit(image);
        WriteWholeFile(CacheFile(directory_), EncodePackage(image));
    }
    void WriteFileWithIndex(const std::function<void(std::vector<IndexEntry>&)>& edit) {
        WriteFile([&](PackageImage& image) {
            const std::uint64_t index = ReadCacheHeader(image.headerData).indexStream;
            const StreamReader reader(image);
            std::vector<IndexEntry> entries = ReadIndex(reader.Read(index), effects_.size());
            edit(entries);
            std::map<std::uint64_t, Bytes> streams;
            for (const StreamRecord& stream : image.streams) {
                streams[stream.id] = reader.Read(stream.id);
            }
            streams[index] = EncodeIndex(entries);
            image = LayOutPackage(streams, image.headerData, {});
        });
    }

    // Fails the test when an effect is found with the bytes of another, now or after new effects
    // have been saved.
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

// The ids of the effects' streams are 1 to 4 in the order of their names.

TEST_F(MisplacedEffects, WithTwoEffectsInOneStreamServesNoneForTheOther) {
    WriteFileWithIndex([](std::vector<IndexEntry>& entries) { entries[1].record.streamId = 1; });
    ExpectNoWrongBytes();
}

TEST_F(MisplacedEffects, WithAnEffectWithoutAStreamServesNoLaterStreamForIt) {
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

TEST_F(MisplacedEffects, WithTwoTailsInOnePlaceServesNoneForTheOther) {
    WriteFile(
        [](PackageImage& image) { FragmentOf(image, 1).offset = FragmentOf(image, 2).offset; });
    ExpectNoWrongBytes();
}

TEST_F(MisplacedEffects, WithTwoStreamsInOnePageServesNoneForTheOther) {
    WriteFile(
        [](PackageImage& image) { RecordOf(image, 3).firstPage = RecordOf(image, 4).firstPage; });
    ExpectNoWrongBytes();
}

TEST_F(MisplacedEffects, WithAPageInUseThatIsCalledFreeServesNoLaterBytes) {
    WriteFile([](PackageImage& image) {
        image.links[RecordOf(image, 3).firstPage - kFirstPage] = kFreePage;
    });
    ExpectNoWrongBytes();
    WriteFile([](PackageImage& image) {
        image.links[image.blocks[0].pages[7] - kFirstPage] = kFreePage;
    });
    ExpectNoWrongBytes();
}

TEST_F(MisplacedEffects, WithMoreRoomInABlockThanThereIsServesNoLaterBytes) {
    WriteFile([](PackageImage& image) { image.blocks[0].freeBytes += kSize; });
    ExpectNoWrongBytes();
}

// The tails fill the block's first page, and new ones go to the second.
TEST_F(MisplacedEffects, WithATailBlockFarBehindTheFileDoNotMakeItGrow) {
    effects_.push_back({"e", Pattern(7000, 5)});
    WriteFile([](PackageImage& image) { image.blocks[0].pages[1] = 4000; });
    const std::size_t size = ReadWholeFile(CacheFile(directory_)).size();
    ExpectNoWrongBytes();
    EXPECT_LE(ReadWholeFile(CacheFile(directory_)).size(), size + 20 * kPageSize);
}

// What is cut off is refused at first, and must not be taken for zeros when the file grows again.
TEST_F(MisplacedEffects, InAFileThatIsCutServeNoZeros) {
    EffectCacheLayout layout;
    layout.package.pageOrder = PageOrder::kDescending;  // the effects' whole pages are the last
    const Bytes file = WriteEffectCache(effects_, layout);
    for (const std::size_t cut : {1u, 100u, 8192u, 10000u, 16384u}) {
        WriteWholeFile(CacheFile(directory_),
                       Bytes(file.begin(), file.end() - static_cast<std::ptrdiff_t>(cut)));
        ExpectNoWrongBytes();
    }
}

}  // namespace
}  // namespace Quorvel::Format
