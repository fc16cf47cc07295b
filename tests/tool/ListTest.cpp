#include "tool/ToolTest.h"

namespace Quorvel::Tool {
namespace {

class ListTest : public ToolTest {};

TEST_F(ListTest, PrintsEscapedNamesInTheOrderOfTheIndex) {
    MakeCache(ThreeEffects());
    EXPECT_EQ(Run({"list", cache_}), kDone);
    EXPECT_EQ(out_, "a\nbb\ntab\\x09here\\\\\\xFF\n");
    EXPECT_EQ(err_, "");
}

TEST_F(ListTest, SortsReversesLimitsAndMatches) {
    MakeCache(ThreeEffects());
    EXPECT_EQ(Run({"list", cache_, "--sort", "size", "--reverse", "--limit", "2"}), kDone);
    EXPECT_EQ(out_, "tab\\x09here\\\\\\xFF\nbb\n");
    EXPECT_EQ(Run({"list", cache_, "--sort", "time", "-n", "1"}), kDone);
    EXPECT_EQ(out_, "a\n");
    EXPECT_EQ(Run({"list", cache_, "--match", "b*"}), kDone);
    EXPECT_EQ(out_, "bb\n");
}

TEST_F(ListTest, PrintsDetailsOnRequest) {
    MakeCache(ThreeEffects());
    EXPECT_EQ(Run({"list", cache_, "--long", "--match", "[ab]*"}), kDone);
    EXPECT_EQ(out_,
              "2001-02-03T04:05:06.007\t1\tevictable\ta\n"
              "2002-02-03T04:05:06.007\t2\tpermanent\tbb\n");
}

TEST_F(ListTest, EndsNamesInNullBytesOnRequest) {
    MakeCache(ThreeEffects());
    EXPECT_EQ(Run({"list", cache_, "-0"}), kDone);
    EXPECT_EQ(out_, std::string("a\0bb\0tab\there\\\xFF\0", 16));
}

TEST_F(ListTest, PrintsJson) {
    MakeCache(ThreeEffects());
    const Json list = RunJson({"list", cache_, "--match", "bb"});
    EXPECT_EQ(list, Json::parse(R"([{"name": "bb", "size": 2, "permanent": true,
                                     "time": "2002-02-03T04:05:06.007"}])"));
}

TEST_F(ListTest, SaysThatNothingMatches) {
    MakeCache(ThreeEffects());
    EXPECT_EQ(Run({"list", cache_, "--match", "nothing"}), kNo);
    EXPECT_EQ(out_, "");
    EXPECT_THAT(err_, testing::HasSubstr("no effect matches \"nothing\""));
}

TEST_F(ListTest, SaysThatNothingMatchesEvenQuietly) {
    MakeCache(ThreeEffects());
    EXPECT_EQ(Run({"list", cache_, "--match", "nothing", "--quiet"}), kNo);
    EXPECT_NE(err_, "");
}

TEST_F(ListTest, PrintsNothingForAnEmptyCache) {
    MakeCache({});
    EXPECT_EQ(Run({"list", cache_}), kDone);
    EXPECT_EQ(out_ + err_, "");
}

}  // namespace
}  // namespace Quorvel::Tool
