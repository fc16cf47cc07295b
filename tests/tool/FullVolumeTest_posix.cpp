#include <cerrno>
#include <filesystem>

#include "support/SmallVolume.h"
#include "tool/ToolTest.h"

// Commands on volumes that are full or nearly so. On Windows, only administrators can make small
// volumes.
namespace Quorvel::Tool {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

constexpr std::uint64_t kMebibyte = 1 << 20;

class FullVolumeTest : public ToolTest {
protected:
    void SetUp() override {
        if (volume_.Error() == EPERM) { GTEST_SKIP() << "only root can mount a volume"; }
        ASSERT_EQ(volume_.Error(), 0);
        Format::WriteWholeFile(full_ + "/vornFxoCache.dat",
                               Format::WriteEffectCache(Effects("old", 30)));
        MakeCache(Effects("new", 30));
        ASSERT_EQ(Run({"export", cache_, File("a.tar")}), kDone);
        Format::WriteWholeFile(File("effect"), Format::Bytes(300000, 1));
    }

    // Effects of 100,000 bytes.
    static std::vector<Format::NewEffect> Effects(const std::string& name, std::size_t count) {
        std::vector<Format::NewEffect> effects;
        for (std::size_t i = 0; i < count; ++i) {
            effects.push_back({name + std::to_string(i),
                               Format::Bytes(100000, static_cast<std::uint8_t>(i)),
                               false,
                               {2020, 1, 1, 0, 0, static_cast<std::uint16_t>(i), 0}});
        }
        return effects;
    }

    // Leaves that number of bytes free.
    void Fill(std::uint64_t left) const {
        fs::remove(full_ + "/filler");
        Format::WriteWholeFile(full_ + "/filler", Format::Bytes(fs::space(full_).available - left));
        ASSERT_EQ(fs::space(full_).available, left);
    }

    Format::Bytes FullFile() const { return Format::ReadWholeFile(full_ + "/vornFxoCache.dat"); }

    const Testing::SmallVolume volume_{16};
    const std::string full_ = volume_.Path();
};

TEST_F(FullVolumeTest, ACommandThatFindsNoRoomChangesNothing) {
    Fill(0);
    const Format::Bytes before = FullFile();
    for (const std::vector<std::string>& command :
         std::vector<std::vector<std::string>>{{"remove", full_, "old1"},
                                               {"set", full_, "old1", "--permanent"},
                                               {"prune", full_, "--max-effects", "3"},
                                               {"compact", full_}}) {
        EXPECT_EQ(Run(command), kFailed) << command[0];
        EXPECT_THAT(err_, HasSubstr("nothing was changed: the volume is full; make room on it"));
        EXPECT_EQ(FullFile(), before) << command[0];
    }
    for (const std::vector<std::string>& command : std::vector<std::vector<std::string>>{
             {"put", full_, "x", File("effect")}, {"salvage", CacheFile(), full_}}) {
        EXPECT_EQ(Run(command), kFailed) << command[0];
        EXPECT_EQ(FullFile(), before) << command[0];
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(full_), fs::directory_iterator()), 2);
}

TEST_F(FullVolumeTest, ReadingNeedsNoRoom) {
    Fill(0);
    for (const char* const command : {"info", "list", "check", "map"}) {
        EXPECT_EQ(Run({command, full_}), kDone) << command << err_;
    }
}

TEST_F(FullVolumeTest, ClearMakesRoom) {
    Fill(0);
    EXPECT_EQ(Run({"clear", full_, "--yes"}), kDone) << err_;
    EXPECT_GT(fs::space(full_).available, 2 * kMebibyte);
    EXPECT_EQ(RunJson({"list", full_}).size(), 0U);
    EXPECT_EQ(Run({"put", full_, "x", File("effect")}), kDone) << err_;
    EXPECT_EQ(Run({"get", full_, "x"}), kDone);
    EXPECT_EQ(out_.size(), 300000U);
}

TEST_F(FullVolumeTest, EffectsThatComeInLeaveRoomForTheJournal) {
    const Format::Bytes old = FullFile();
    std::vector<Format::NewEffect> newer = Effects("old", 30);
    for (Format::NewEffect& effect : newer) {
        effect.time.year += 1;
        effect.data[0] ^= 1;
    }
    Format::WriteWholeFile(File("newer.dat"), Format::WriteEffectCache(newer));
    for (std::uint64_t left = kMebibyte; left < 12 * kMebibyte; left += kMebibyte / 2) {
        for (const std::string& source : {cache_, File("newer.dat")}) {
            Format::WriteWholeFile(full_ + "/vornFxoCache.dat", old);
            Fill(left);
            EXPECT_NE(Run({"merge", full_, source}), kFailed) << source << left << err_;
            EXPECT_EQ(Run({"check", full_}), kDone) << left;
            EXPECT_GE(RunJson({"list", full_}).size(), 30U);
        }
        Format::WriteWholeFile(full_ + "/vornFxoCache.dat", old);
        Fill(left);
        EXPECT_EQ(Run({"put", full_, "x", File("effect")}), kDone) << left << err_;
        EXPECT_EQ(RunJson({"list", full_}).size(), 31U);
        EXPECT_EQ(Run({"get", full_, "x"}), kDone) << left;
    }
}

TEST_F(FullVolumeTest, ADryRunForANewCacheKnowsHowMuchFits) {
    const std::string empty = full_ + "/empty";
    fs::create_directory(empty);
    Fill(2 * kMebibyte);
    const Json dry = RunJson({"import", empty, File("a.tar"), "--dry-run"}, kNo);
    const Json real = RunJson({"import", empty, File("a.tar")}, kNo);
    EXPECT_GT(dry["leftOut"], 0);
    EXPECT_LE(real["added"].size(), dry["added"].size() + 1);
    EXPECT_GE(real["added"].size() + 1, dry["added"].size());
}

}  // namespace
}  // namespace Quorvel::Tool
