#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <map>

#include "format/PageOwners.h"
#include "quorvel/EffectCacheSystem.h"
#include "tool/ToolTest.h"
#include "torture/EffectBytes.h"
#include "vornutil/RefPtr.h"
#include "vornutil/Tab.h"

// compact and clear.
namespace Quorvel::Tool {
namespace {

class CompactTest : public ToolTest {
protected:
    static std::vector<Format::NewEffect> Effects(std::size_t count) {
        std::vector<Format::NewEffect> effects;
        for (std::size_t i = 0; i < count; ++i) {
            effects.push_back({"effect " + std::to_string(i),
                               Format::Bytes(500 + 37 * i, static_cast<std::uint8_t>(i)),
                               i % 5 == 0,
                               {2020, 1, 1, 0, 0, 0, static_cast<std::uint32_t>(i)}});
        }
        return effects;
    }

    void ExpectOnlyTheCacheFile() const {
        for (const auto& entry : std::filesystem::directory_iterator(cache_)) {
            EXPECT_EQ(entry.path().filename(), "vornFxoCache.dat");
        }
        EXPECT_THAT(Format::CheckEffectCache(FileBytes()), testing::IsEmpty());
    }
};

TEST_F(CompactTest, KeepsEveryEffectWithItsFlagAndTime) {
    Format::EffectCacheLayout layout;
    layout.package.freePages = 300;
    layout.package.tails = Format::TailPlacement::kScattered;
    layout.package.pageOrder = Format::PageOrder::kShuffled;
    const std::vector<Format::NewEffect> effects = Effects(200);
    Format::WriteWholeFile(CacheFile(), Format::WriteEffectCache(effects, layout));
    const std::uint64_t before = FileBytes().size();
    const Json report = RunJson({"compact", cache_});
    EXPECT_EQ(report["effects"], 200);
    EXPECT_EQ(report["sizeBefore"], before);
    EXPECT_EQ(report["sizeAfter"], FileBytes().size());
    EXPECT_LT(FileBytes().size() + 300 * Format::kPageSize, before + Format::kTailBlockSize);
    const Format::Effects kept =
        Format::ReadEffectCache(Format::ReadPackage(FileBytes(), Format::kCacheStreamLimit));
    ASSERT_EQ(kept.size(), effects.size());
    for (const Format::NewEffect& effect : effects) {
        const Format::Effect& found = kept.at(effect.name);
        EXPECT_EQ(found.data, effect.data);
        EXPECT_EQ(found.record.permanent, effect.permanent ? 1U : 0U);
        EXPECT_EQ(found.record.time.millisecond, effect.time.millisecond);
    }
    ExpectOnlyTheCacheFile();
}

TEST_F(CompactTest, RemovesPagesPastTheEnd) {
    MakeCache(ThreeEffects());
    const std::size_t size = FileBytes().size();
    std::filesystem::resize_file(CacheFile(), size + 1000 * Format::kPageSize);
    EXPECT_EQ(Run({"compact", cache_}), kDone);
    EXPECT_LE(FileBytes().size(), size + 2 * Format::kPageSize);
    ExpectOnlyTheCacheFile();
}

TEST_F(CompactTest, KeepsOtherBlocksOfTheHeaderData) {
    Format::EffectCacheLayout layout;
    layout.moreBlocks = true;
    Format::WriteWholeFile(CacheFile(), Format::WriteEffectCache(ThreeEffects(), layout));
    const std::size_t size =
        Format::ReadPackage(FileBytes(), Format::kCacheStreamLimit).headerData.size();
    EXPECT_EQ(Run({"compact", cache_}), kDone);
    EXPECT_EQ(Format::ReadPackage(FileBytes(), Format::kCacheStreamLimit).headerData.size(), size);
    EXPECT_EQ(RunJson({"list", cache_}).size(), 3U);
}

TEST_F(CompactTest, AfterPruningToHalfAHostThatHasTheCacheOpenFindsTheRest) {
    constexpr std::size_t kCount = 2000;
    const Util::RefPtr<EffectCacheSystem> host(new EffectCacheSystem(cache_.c_str()));
    std::map<std::string, Format::Bytes> effects;
    for (std::size_t i = 0; i < kCount; ++i) {
        const std::string name = "effect " + std::to_string(i);
        const auto& [_, data] =
            *effects.emplace(name, Torture::MakeEffect(name, i, 100 + i * 7919 % 6000)).first;
        host->CacheCompiledEffect(name.c_str(), data.data(), data.size(), false);
    }
    host->ForceSaveToFile();
    const std::size_t before = FileBytes().size();
    const std::string half = std::to_string(kCount / 2);
    const Json pruned = RunJson({"prune", cache_, "--max-effects", half});
    EXPECT_EQ(Run({"compact", cache_}), kDone) << err_;
    EXPECT_LT(FileBytes().size(), before * 6 / 10);
    const std::uint64_t needed = RunJson({"info", cache_})["streams"]["bytes"];
    EXPECT_LE(FileBytes().size(), needed + needed / 20);

    ASSERT_EQ(pruned["effects"].size(), kCount / 2);
    for (const Json& name : pruned["effects"]) {
        effects.erase(name);
    }
    Tab<unsigned char> code;
    for (const Json& name : pruned["effects"]) {
        EXPECT_FALSE(host->SearchCachedEffects(name.get<std::string>().c_str(), code)) << name;
    }
    for (const auto& [name, data] : effects) {
        ASSERT_TRUE(host->SearchCachedEffects(name.c_str(), code)) << name;
        ASSERT_EQ(code.Count(), static_cast<int>(data.size())) << name;
        EXPECT_TRUE(std::equal(data.begin(), data.end(), code.Addr(0))) << name;
    }
    const unsigned char more[] = {1};
    host->CacheCompiledEffect("more", more, 1, false);
    host->ForceSaveToFile();
    EXPECT_TRUE(host->IsEnabled());
    EXPECT_EQ(RunJson({"list", cache_}).size(), kCount / 2 + 1);
}

TEST_F(CompactTest, LeavesADamagedFileAlone) {
    const Format::Bytes damaged(20000, 7);
    Format::WriteWholeFile(CacheFile(), damaged);
    EXPECT_EQ(Run({"compact", cache_}), kNo);
    EXPECT_THAT(err_,
                testing::HasSubstr("nothing was changed: the file is damaged or holds no effects"));
    EXPECT_EQ(FileBytes(), damaged);
    std::filesystem::remove(CacheFile());
    EXPECT_EQ(Run({"compact", cache_}), kNo);
    EXPECT_TRUE(std::filesystem::is_empty(cache_));
}

TEST_F(CompactTest, LeavesOutADamagedEffectAndSaysSo) {
    MakeCacheWithDamagedEffect();
    EXPECT_EQ(Run({"compact", cache_}), kNo);
    EXPECT_THAT(err_, testing::HasSubstr("left out 1 damaged effect that could not be read"));
    EXPECT_THAT(Format::CheckEffectCache(FileBytes()), testing::IsEmpty());
    EXPECT_EQ(RunJson({"list", cache_}).size(), 2U);
}

TEST_F(CompactTest, RemovesWhatADeadCompactionHasLeft) {
    MakeCache(ThreeEffects());
    Format::WriteWholeFile(CacheFile() + "-compact", Format::Bytes(50000, 1));
    EXPECT_EQ(Run({"compact", cache_}), kDone);
    ExpectOnlyTheCacheFile();
}

TEST_F(CompactTest, ClearAsksFirst) {
    MakeCache(ThreeEffects());
    const Format::Bytes before = FileBytes();
    for (const char* answer : {"", "\n", "n\n", "yesterday\n"}) {
        EXPECT_EQ(Run({"clear", cache_}, answer), kNo);
        EXPECT_THAT(err_, testing::HasSubstr("[y/N]"));
    }
    EXPECT_EQ(FileBytes(), before);
    for (const char* answer : {"y\n", "Y\n", "yes\n", "y\r\n", "y"}) {
        MakeCache(ThreeEffects());
        EXPECT_EQ(Run({"clear", cache_}, answer), kDone);
        EXPECT_EQ(RunJson({"info", cache_})["effects"]["count"], 0);
    }
    ExpectOnlyTheCacheFile();
}

TEST_F(CompactTest, ClearEmptiesADamagedFile) {
    for (const std::size_t size : {0U, 1U, 8191U, 8192U, 100000U, 1000000U}) {
        Format::WriteWholeFile(CacheFile(), Format::Bytes(size, 0xAA));
        EXPECT_EQ(Run({"clear", "--yes", cache_}), kDone) << err_;
        EXPECT_EQ(RunJson({"list", cache_}).size(), 0U);
        ExpectOnlyTheCacheFile();
    }
}

TEST_F(CompactTest, ClearLeavesAFileAloneThatIsNoCache) {
    const std::string file = File("notes.txt");
    const Format::Bytes other = Format::WritePackage({{1, {1}}}, {});
    for (const Format::Bytes& bytes : {Format::Bytes(20000, 'x'), other}) {
        Format::WriteWholeFile(file, bytes);
        EXPECT_EQ(Run({"clear", file, "--yes"}), kNo);
        EXPECT_THAT(err_, testing::HasSubstr("not recognisable as an effect cache"));
        EXPECT_EQ(Format::ReadWholeFile(file), bytes);
    }
    MakeCache(ThreeEffects());
    std::filesystem::copy(CacheFile(), File("copy.dat"));
    EXPECT_EQ(Run({"clear", File("copy.dat"), "--yes"}), kDone);
    EXPECT_EQ(RunJson({"list", File("copy.dat")}).size(), 0U);
}

}  // namespace
}  // namespace Quorvel::Tool
