#include "format/PackageWriter.h"
#include "quorvel/EffectCacheSystem.h"
#include "tool/ToolTest.h"
#include "tools/quorvel/Text.h"
#include "vornutil/RefPtr.h"

namespace Quorvel::Tool {
namespace {

class InfoTest : public ToolTest {};

TEST_F(InfoTest, CountsEffectsAndPages) {
    MakeCache(ThreeEffects());
    const Json info = RunJson({"info", cache_});
    EXPECT_EQ(info["kind"], "effect cache");
    EXPECT_EQ(info["effects"]["count"], 3);
    EXPECT_EQ(info["effects"]["bytes"], 10003);
    EXPECT_EQ(info["effects"]["permanent"], 1);
    EXPECT_EQ(info["effects"]["permanentBytes"], 2);
    EXPECT_EQ(info["effects"]["sizes"]["below 1 KiB"], 2);
    EXPECT_EQ(info["effects"]["sizes"]["4 to 16 KiB"], 1);
    EXPECT_EQ(info["effects"]["lastUsed"]["older"], 3);
    EXPECT_EQ(info["streams"]["count"], 4);
    EXPECT_EQ(info["pages"]["effects"], 1);  // of the large effect; the rest are tails
    EXPECT_EQ(info["pages"]["tails"], 8);
    EXPECT_EQ(info["limits"]["effects"], 65534);
}

TEST_F(InfoTest, GroupsEffectsByTheirTimesOfUse) {
    constexpr std::uint64_t kHour = 3600;
    constexpr std::uint64_t kDay = 24 * kHour;
    MakeCache({{"future", {1}, false, {65535, 65535, 65535, 0, 0, 0, 0}},
               {"now", {1}, false, Now()},
               {"today", {1}, false, TimeBefore(3 * kHour)},
               {"this week", {1}, false, TimeBefore(3 * kDay)},
               {"this month", {1}, false, TimeBefore(20 * kDay)},
               {"this year", {1}, false, TimeBefore(200 * kDay)},
               {"earlier", {1}, false, TimeBefore(400 * kDay)},
               {"never", {1}, false, {}}});
    EXPECT_EQ(RunJson({"info", cache_})["effects"]["lastUsed"],
              Json::parse(R"({"last hour": 2, "last day": 1, "last week": 1, "last 30 days": 1,
                              "last year": 1, "older": 2})"));
}

TEST_F(InfoTest, CountsEachPageOfTheFileOnce) {
    Format::EffectCacheLayout layout;
    layout.package.freePages = 5;
    Format::Bytes file = Format::WriteEffectCache(ThreeEffects(), layout);
    file.resize(file.size() + 100 * Format::kPageSize + 1);
    Format::WriteWholeFile(CacheFile(), file);
    const Json pages = RunJson({"info", cache_})["pages"];
    EXPECT_EQ(pages["free"], 5);
    EXPECT_EQ(pages["dead"], 101);
    std::uint64_t sum = 0;
    for (const auto& [use, count] : pages.items()) {
        sum += use == "file" ? 0 : count.get<std::uint64_t>();
    }
    EXPECT_EQ(pages["file"], sum);
    EXPECT_EQ(pages["file"], file.size() / Format::kPageSize + 1);
}

TEST_F(InfoTest, CountsPagesThatBelongToNothing) {
    Format::PackageImage image = Format::LayOutPackage({{7, Format::Bytes(20000)}}, {}, {});
    image.links.push_back(Format::kChainEnd);
    image.file.resize(image.file.size() + Format::kPageSize);
    Format::WriteWholeFile(File("package"), Format::EncodePackage(image));
    const Json info = RunJson({"info", File("package")});
    EXPECT_EQ(info["kind"], "package");
    EXPECT_EQ(info["pages"]["unowned"], 1);
    EXPECT_EQ(info["pages"]["effects"], 2);
    EXPECT_FALSE(info.contains("effects"));
}

TEST_F(InfoTest, PrintsAReport) {
    MakeCache(ThreeEffects());
    EXPECT_EQ(Run({"info", cache_}), kDone);
    EXPECT_THAT(out_, testing::HasSubstr("effects        3 of 9.8 KiB, 1 of 2 bytes permanent\n"));
    EXPECT_THAT(out_, testing::HasSubstr("older                  3  ####"));
    EXPECT_EQ(err_, "");
}

TEST_F(InfoTest, WorksWhileAHostHasTheCacheOpen) {
    const Util::RefPtr<EffectCacheSystem> host(new EffectCacheSystem(cache_.c_str()));
    const unsigned char code[] = {1, 2, 3};
    host->CacheCompiledEffect("a", code, sizeof code, false);
    host->ForceSaveToFile();
    EXPECT_EQ(RunJson({"info", cache_})["effects"]["count"], 1);
}

}  // namespace
}  // namespace Quorvel::Tool
