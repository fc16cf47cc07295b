#include <algorithm>
#include <filesystem>

#include "tool/ToolTest.h"

namespace Quorvel::Tool {
namespace {

using testing::HasSubstr;

class DiffTest : public ToolTest {
protected:
    std::string Make(const std::string& name, const std::vector<Format::NewEffect>& effects) const {
        Format::WriteWholeFile(File(name), Format::WriteEffectCache(effects));
        return File(name);
    }
};

TEST_F(DiffTest, PrintsNothingForEqualCaches) {
    MakeCache(ThreeEffects());
    Format::EffectCacheLayout layout;
    layout.shuffleStreams = true;
    layout.package.pageOrder = Format::PageOrder::kDescending;
    Format::WriteWholeFile(File("b.dat"), Format::WriteEffectCache(ThreeEffects(), layout));
    EXPECT_EQ(Run({"diff", cache_, File("b.dat"), "--time"}), kDone);
    EXPECT_EQ(Run({"diff", cache_, cache_}), kDone);
    EXPECT_EQ(out_ + err_, "");
    EXPECT_EQ(RunJson({"diff", cache_, cache_}),
              Json::parse(R"({"onlyA": [], "onlyB": [], "different": []})"));
}

TEST_F(DiffTest, SaysThatNothingMatches) {
    MakeCache(ThreeEffects());
    const std::string b = Make("b.dat", {{"only in b", {1}}});
    EXPECT_EQ(Run({"diff", cache_, b, "--match", "nothing"}), kNo);
    EXPECT_EQ(out_, "");
    EXPECT_THAT(err_, HasSubstr("no effect matches \"nothing\""));
    EXPECT_EQ(Run({"diff", cache_, b, "--match", "only*"}), kNo);
    EXPECT_EQ(out_, "> only in b\n");
}

TEST_F(DiffTest, NamesWhatIsDifferent) {
    const Format::EntryTime early = {2001, 1, 1, 0, 0, 0, 0};
    const Format::EntryTime late = {2001, 1, 1, 0, 0, 0, 1};
    const std::string a = Make("a.dat", {{"bytes", {1, 2}, false, early},
                                         {"flag", {1}, false, early},
                                         {"mine\n", {1}, false, early},
                                         {"same", {1}, true, early},
                                         {"size", {1}, false, early},
                                         {"time", {1}, false, early}});
    const std::string b = Make("b.dat", {{"bytes", {1, 3}, false, late},
                                         {"flag", {1}, true, early},
                                         {"same", {1}, true, early},
                                         {"size", {1, 1}, false, early},
                                         {"time", {1}, false, late},
                                         {"yours", {1}, false, early}});
    EXPECT_EQ(Run({"diff", a, b}), kNo);
    EXPECT_EQ(out_, "< mine\\x0A\n> yours\n! flag\n! size\n! bytes\n");
    EXPECT_EQ(err_, "");
    EXPECT_EQ(Run({"diff", b, a, "--time"}), kNo);
    EXPECT_EQ(out_, "< yours\n> mine\\x0A\n! flag\n! size\n! time\n! bytes\n");
    EXPECT_EQ(Run({"diff", a, b, "--time", "--json"}), kNo);
    EXPECT_EQ(Json::parse(out_), Json::parse(R"({"onlyA": ["mine\\x0A"], "onlyB": ["yours"],
                              "different": [{"name": "flag", "in": ["permanent"]},
                                            {"name": "size", "in": ["bytes"]},
                                            {"name": "time", "in": ["time"]},
                                            {"name": "bytes", "in": ["bytes", "time"]}]})"));
    EXPECT_EQ(Run({"diff", a, b, "--match", "s*e"}), kNo);
    EXPECT_EQ(out_, "! size\n");
    EXPECT_EQ(Run({"diff", a, b, "--match", "same"}), kDone);
}

TEST_F(DiffTest, ADamagedEffectDiffersFromAnyOther) {
    MakeCache(ThreeEffects());
    Format::Bytes file = FileBytes();
    const std::uint8_t length[] = {2, 0, 0, 0, 0, 0, 0, 0, 2, 2};
    const auto found = std::search(file.begin(), file.end(), std::begin(length), std::end(length));
    ASSERT_NE(found, file.end());
    *found = 3;
    Format::WriteWholeFile(File("b.dat"), file);
    EXPECT_EQ(Run({"diff", cache_, File("b.dat")}), kNo);
    EXPECT_EQ(out_, "! bb\n");
    EXPECT_THAT(err_, HasSubstr("b.dat: \"bb\" is damaged: "));
    EXPECT_EQ(Run({"diff", File("b.dat"), File("b.dat")}), kNo);
}

}  // namespace
}  // namespace Quorvel::Tool
