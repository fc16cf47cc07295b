#include "tool/ToolTest.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {
namespace {

class PruneTest : public ToolTest {
protected:
    void SetUp() override {
        MakeCache({{"new", {1}, false, TimeBefore(60)},
                   {"old", {1}, false, {2010, 1, 1, 0, 0, 0, 0}},
                   {"older", {1}, false, {2009, 1, 1, 0, 0, 0, 0}},
                   {"oldest", {1}, true, {2000, 1, 1, 0, 0, 0, 0}},
                   {"large", Format::Bytes(100000), false, TimeBefore(120)}});
    }

    std::string Rest() {
        EXPECT_EQ(Run({"list", cache_, "--sort", "time"}), kDone);
        return out_;
    }
};

TEST_F(PruneTest, RemovesWhatWasNotUsedForLong) {
    EXPECT_EQ(Run({"prune", cache_, "--older-than", "2w"}), kDone);
    EXPECT_EQ(err_, "removed: 2 effects\n");
    EXPECT_EQ(Rest(), "oldest\nlarge\nnew\n");
    EXPECT_THAT(Format::CheckEffectCache(FileBytes()), testing::IsEmpty());
}

TEST_F(PruneTest, RemovesTheLeastRecentlyUsedUntilTheNumberFits) {
    EXPECT_EQ(Run({"prune", cache_, "--max-effects", "3"}), kDone);
    EXPECT_EQ(Rest(), "oldest\nlarge\nnew\n");
}

TEST_F(PruneTest, RemovesTheLeastRecentlyUsedUntilTheSizeFits) {
    EXPECT_EQ(Run({"prune", cache_, "--max-size", "1KiB"}), kDone);
    EXPECT_EQ(Rest(), "oldest\nnew\n");
}

TEST_F(PruneTest, RemovesOnlyWhatMatches) {
    EXPECT_EQ(Run({"prune", cache_, "--older-than", "1d", "--match", "*er"}), kDone);
    EXPECT_EQ(Rest(), "oldest\nold\nlarge\nnew\n");
    EXPECT_EQ(Run({"prune", cache_, "--match", "o*"}), kDone);
    EXPECT_EQ(Rest(), "oldest\nlarge\nnew\n");
}

TEST_F(PruneTest, SaysThatTheRestIsPermanentOrDoesNotMatch) {
    EXPECT_EQ(Run({"prune", cache_, "--max-effects", "0"}), kNo);
    EXPECT_THAT(err_, testing::HasSubstr("the rest exceeds the limits"));
    EXPECT_EQ(Rest(), "oldest\n");
    EXPECT_EQ(Run({"prune", cache_, "--max-effects", "0", "--match", "old*"}), kNo);
    EXPECT_EQ(Rest(), "oldest\n");
}

TEST_F(PruneTest, SaysThatNothingMatches) {
    EXPECT_EQ(Run({"prune", cache_, "--older-than", "1d", "--match", "nothing"}), kNo);
    EXPECT_THAT(err_, testing::HasSubstr("no effect matches \"nothing\""));
}

TEST_F(PruneTest, RefusesToGuessWhatMayGo) {
    const Format::Bytes before = FileBytes();
    EXPECT_EQ(Run({"prune", cache_}), kUsage);
    EXPECT_EQ(Run({"prune", cache_, "--older-than", "soon"}), kUsage);
    EXPECT_EQ(Run({"prune", cache_, "--max-size", "-1"}), kUsage);
    EXPECT_EQ(Run({"prune", cache_, "--older-than", "", "--match", "o*"}), kUsage);
    EXPECT_EQ(Run({"prune", cache_, "--max-size", ""}), kUsage);
    EXPECT_EQ(Run({"prune", cache_, "--max-effects", "some"}), kUsage);
    EXPECT_EQ(Run({"prune", cache_, "--max-effects", "-1"}), kUsage);
    EXPECT_EQ(FileBytes(), before);
}

}  // namespace
}  // namespace Quorvel::Tool
