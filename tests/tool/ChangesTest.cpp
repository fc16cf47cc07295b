#include <cerrno>
#include <cstdint>
#include <filesystem>

#include "effectcache/SharedCache.h"
#include "quorvel/EffectCacheSystem.h"
#include "support/StdioFaults.h"
#include "tool/ToolTest.h"
#include "vornutil/RefPtr.h"
#include "vornutil/Tab.h"

// get, put, remove and set.
namespace Quorvel::Tool {
namespace {

class ChangesTest : public ToolTest {
protected:
    // "name size flag" of each effect.
    std::vector<std::string> Effects() {
        std::vector<std::string> effects;
        for (const Json& effect : RunJson({"list", cache_})) {
            effects.push_back(effect["name"].get<std::string>() + " " + effect["size"].dump() +
                              (effect["permanent"].get<bool>() ? " permanent" : ""));
        }
        return effects;
    }

    void ExpectSound() const {
        const std::vector<std::string> problems = Format::CheckEffectCache(FileBytes());
        EXPECT_THAT(problems, testing::IsEmpty());
        EXPECT_FALSE(std::filesystem::exists(CacheFile() + "-journal"));
    }

    const std::string odd_ = "tab\there\\\xFF";
};

using testing::ElementsAre;
using testing::HasSubstr;

TEST_F(ChangesTest, GetWritesTheBytesToStandardOutputOrAFile) {
    MakeCache(ThreeEffects());
    EXPECT_EQ(Run({"get", cache_, odd_}), kDone);
    EXPECT_EQ(out_, std::string(10000, '\x03'));
    EXPECT_EQ(Run({"get", cache_, "bb", "-o", File("out")}), kDone);
    EXPECT_EQ(out_, "");
    EXPECT_EQ(Format::ReadWholeFile(File("out")), (Format::Bytes{2, 2}));
}

TEST_F(ChangesTest, GetSaysThatThereIsNoSuchEffect) {
    MakeCache(ThreeEffects());
    EXPECT_EQ(Run({"get", cache_, "nothing\n"}), kNo);
    EXPECT_EQ(out_, "");
    EXPECT_THAT(err_, HasSubstr("no effect is called \"nothing\\x0A\""));
}

TEST_F(ChangesTest, GetSaysThatAnEffectIsDamaged) {
    MakeCacheWithDamagedEffect();
    EXPECT_EQ(Run({"get", cache_, "a"}), kNo);
    EXPECT_THAT(err_, HasSubstr("\"a\" is damaged"));
}

TEST_F(ChangesTest, PutMakesACacheInADirectoryThatHasNone) {
    Format::WriteWholeFile(File("in"), {7, 8, 9});
    EXPECT_EQ(Run({"put", cache_, "new", File("in")}), kDone);
    EXPECT_EQ(err_, "stored 3 bytes as \"new\"\n");
    EXPECT_THAT(Effects(), ElementsAre("new 3"));
    ExpectSound();
}

TEST_F(ChangesTest, PutReplacesAndKeepsTheOthers) {
    MakeCache(ThreeEffects());
    EXPECT_EQ(Run({"put", cache_, odd_, "-", "--permanent"}, "four"), kDone);
    EXPECT_THAT(Effects(),
                ElementsAre("a 1", "bb 2 permanent", "tab\\x09here\\\\\\xFF 4 permanent"));
    EXPECT_EQ(Run({"get", cache_, odd_}), kDone);
    EXPECT_EQ(out_, "four");
    EXPECT_EQ(RunJson({"list", cache_, "--match", "a"})[0]["time"], "2001-02-03T04:05:06.007");
    ExpectSound();
}

TEST_F(ChangesTest, PutRefusesWhatNoCacheHolds) {
    MakeCache(ThreeEffects());
    const Format::Bytes before = FileBytes();
    EXPECT_EQ(Run({"put", cache_, "a", "-"}, ""), kFailed);
    EXPECT_THAT(err_, HasSubstr("empty; an effect has 1 byte to 1 MiB"));
    EXPECT_EQ(Run({"put", cache_, "a", "-"}, std::string((1 << 20) + 1, 'x')), kFailed);
    EXPECT_EQ(Run({"put", cache_, "", "-"}, "x"), kUsage);
    EXPECT_EQ(Run({"put", cache_, std::string(65537, 'n'), "-"}, "x"), kUsage);
    EXPECT_EQ(Run({"put", cache_, "a", File("missing")}), kNo);
    EXPECT_THAT(err_, HasSubstr("missing: can't be read: No such file"));
    EXPECT_EQ(FileBytes(), before);
    EXPECT_EQ(Run({"put", cache_, std::string(65536, 'n'), "-"}, std::string(1 << 20, 'x')), kDone);
}

TEST_F(ChangesTest, RemoveRemovesByNameAndByPattern) {
    MakeCache(ThreeEffects());
    EXPECT_EQ(Run({"remove", cache_, "a", odd_, "a"}), kDone);
    EXPECT_THAT(Effects(), ElementsAre("bb 2 permanent"));
    EXPECT_EQ(Run({"remove", cache_, "--match", "b*"}), kDone);
    EXPECT_EQ(err_, "removed: 1 effect\n");
    EXPECT_THAT(Effects(), ElementsAre());
    ExpectSound();
}

TEST_F(ChangesTest, PutKeepsAPermanentEffectPermanent) {
    MakeCache(ThreeEffects());
    EXPECT_EQ(Run({"put", cache_, "bb", "-"}, "new"), kDone);
    EXPECT_EQ(Run({"put", cache_, "a", "-"}, "new"), kDone);
    const Json effects = RunJson({"list", cache_});
    EXPECT_EQ(effects[0]["permanent"], false);
    EXPECT_EQ(effects[1]["permanent"], true);
}

TEST_F(ChangesTest, NamesAreTakenAsListPrintsThem) {
    MakeCache(ThreeEffects());
    const std::string odd = R"(tab\x09here\\\xFF)";
    ASSERT_EQ(RunJson({"list", cache_})[2]["name"], odd);
    EXPECT_EQ(Run({"get", cache_, odd}), kNo);
    EXPECT_EQ(Run({"get", cache_, odd, "--escaped"}), kDone);
    EXPECT_EQ(out_.size(), 10000U);
    EXPECT_EQ(Run({"put", cache_, odd, "-", "-e"}, "new"), kDone);
    EXPECT_EQ(Run({"set", cache_, odd, "--permanent", "-e"}), kDone);
    EXPECT_EQ(RunJson({"list", cache_}).size(), 3U);
    EXPECT_EQ(Run({"remove", cache_, odd, "-e"}), kDone);
    EXPECT_EQ(RunJson({"list", cache_}).size(), 2U);
    for (const char* const command : {"get", "remove"}) {
        EXPECT_EQ(Run({command, cache_, "\\x0", "-e"}), kUsage);
        EXPECT_THAT(err_, HasSubstr("\"\\x0\" is not an escaped name"));
    }
}

TEST_F(ChangesTest, RemoveRemovesAllOrNothing) {
    MakeCache(ThreeEffects());
    const Format::Bytes before = FileBytes();
    EXPECT_EQ(Run({"remove", cache_, "a", "nothing"}), kNo);
    EXPECT_THAT(err_, HasSubstr("no effect is called \"nothing\"; nothing was changed"));
    EXPECT_EQ(Run({"remove", cache_, "--match", "nothing*"}), kNo);
    EXPECT_EQ(FileBytes(), before);
}

TEST_F(ChangesTest, RemoveWantsNamesOrAPattern) {
    MakeCache(ThreeEffects());
    EXPECT_EQ(Run({"remove", cache_}), kUsage);
    EXPECT_EQ(Run({"remove", cache_, "a", "--match", "*"}), kUsage);
    EXPECT_EQ(Run({"remove", File("elsewhere")}), kUsage);
}

TEST_F(ChangesTest, ADryRunChangesNothing) {
    MakeCache(ThreeEffects());
    const Format::Bytes before = FileBytes();
    EXPECT_EQ(Run({"remove", cache_, "--match", "*", "--dry-run"}), kDone);
    EXPECT_EQ(out_, "a\nbb\ntab\\x09here\\\\\\xFF\n");
    EXPECT_EQ(err_, "would have removed: 3 effects\n");
    const Json report = RunJson({"set", cache_, "a", "bb", "--permanent", "--dry-run"});
    EXPECT_EQ(report,
              Json::parse(R"({"dryRun": true, "done": "made permanent", "effects": ["a"]})"));
    EXPECT_EQ(Run({"prune", cache_, "--older-than", "1d", "--dry-run"}), kDone);
    EXPECT_EQ(FileBytes(), before);
}

TEST_F(ChangesTest, HostsAreToldOnlyOfChanges) {
    MakeCache(ThreeEffects());
    SharedCache host(cache_.c_str());
    host.Stamp().IsChanged();
    for (const std::vector<std::string>& command :
         std::vector<std::vector<std::string>>{{"set", cache_, "a", "--permanent", "--dry-run"},
                                               {"set", cache_, "a", "--evictable"},
                                               {"prune", cache_, "--max-effects", "3"},
                                               {"merge", cache_, cache_ + "/../x", "--dry-run"}}) {
        Run(command);
        EXPECT_FALSE(host.Stamp().IsChanged()) << command[0];
    }
    for (const std::vector<std::string>& command :
         std::vector<std::vector<std::string>>{{"set", cache_, "a", "--permanent"},
                                               {"put", cache_, "x", CacheFile()},
                                               {"remove", cache_, "a"},
                                               {"compact", cache_},
                                               {"clear", cache_, "--yes"}}) {
        EXPECT_EQ(Run(command), kDone) << err_;
        EXPECT_TRUE(host.Stamp().IsChanged()) << command[0];
    }
}

TEST_F(ChangesTest, SetChangesOnlyTheFlag) {
    MakeCache(ThreeEffects());
    EXPECT_EQ(Run({"set", cache_, "--match", "*", "--permanent"}), kDone);
    EXPECT_EQ(err_, "made permanent: 2 effects\n");
    const Json list = RunJson({"list", cache_});
    for (const Json& effect : list) {
        EXPECT_TRUE(effect["permanent"]);
    }
    EXPECT_EQ(list[0]["time"], "2001-02-03T04:05:06.007");
    EXPECT_EQ(Run({"set", cache_, "bb", "--evictable"}), kDone);
    EXPECT_FALSE(RunJson({"list", cache_, "--match", "bb"})[0]["permanent"]);
    ExpectSound();
}

TEST_F(ChangesTest, SetThatChangesNothingLeavesTheFile) {
    MakeCache(ThreeEffects());
    const Format::Bytes before = FileBytes();
    EXPECT_EQ(Run({"set", cache_, "bb", "--permanent"}), kDone);
    EXPECT_EQ(err_, "made permanent: 0 effects\n");
    EXPECT_EQ(FileBytes(), before);
    EXPECT_EQ(Run({"set", cache_, "bb"}), kUsage);
    EXPECT_EQ(Run({"set", cache_, "bb", "--permanent", "--evictable"}), kUsage);
}

TEST_F(ChangesTest, AHostThatHasTheCacheOpenSeesThem) {
    const Util::RefPtr<EffectCacheSystem> host(new EffectCacheSystem(cache_.c_str()));
    EXPECT_EQ(Run({"put", cache_, "x", "-"}, "first"), kDone);
    Tab<unsigned char> code;
    ASSERT_TRUE(host->SearchCachedEffects("x", code));
    EXPECT_EQ(code.Count(), 5);
    EXPECT_EQ(Run({"remove", cache_, "x"}), kDone);
    EXPECT_FALSE(host->SearchCachedEffects("x", code));
    EXPECT_TRUE(host->IsEnabled());
}

TEST_F(ChangesTest, AFileOfAnyNameCanBeChangedWithoutALock) {
    const std::string copy = File("copy.bin");
    Format::WriteWholeFile(copy, Format::WriteEffectCache(ThreeEffects()));
    EXPECT_EQ(Run({"remove", copy, "a"}), kDone);
    EXPECT_EQ(Run({"list", copy, "--offline"}), kDone);
    EXPECT_EQ(out_, "bb\ntab\\x09here\\\\\\xFF\n");
}

TEST_F(ChangesTest, ANameInBracketsIsOneName) {
    MakeCache({{"a", {1}}, {"b", {2}}, {"[a,b]", {3}}});
    EXPECT_EQ(Run({"remove", cache_, "[a,b]"}), kDone);
    EXPECT_THAT(Effects(), ElementsAre("a 1", "b 1"));
}

TEST_F(ChangesTest, ANameThatIsGivenTwiceCountsOnce) {
    MakeCache(ThreeEffects());
    EXPECT_EQ(RunJson({"remove", cache_, "a", "a"})["effects"], Json::parse(R"(["a"])"));
    EXPECT_EQ(Effects().size(), 2U);
}

TEST_F(ChangesTest, PutReadsNoMoreThanAnEffectMayHave) {
    EXPECT_EQ(Run({"put", cache_, "a", "-"}, std::string(5 << 20, 'x')), kFailed);
    EXPECT_THAT(err_, HasSubstr("too large; an effect has 1 byte to 1 MiB"));
    EXPECT_EQ(Run({"put", cache_, "a", File("missing")}), kNo);
    EXPECT_THAT(err_, HasSubstr("missing: can't be read: No such file"));
    EXPECT_FALSE(std::filesystem::exists(CacheFile()));
}

TEST_F(ChangesTest, OutputNeverReplacesTheCache) {
    MakeCache(ThreeEffects());
    const Format::Bytes before = FileBytes();
    EXPECT_EQ(Run({"get", cache_, "a", "-o", CacheFile()}), kUsage);
    EXPECT_THAT(err_, HasSubstr("would replace the cache"));
    EXPECT_EQ(Run({"map", cache_, "-o", CacheFile()}), kUsage);
    EXPECT_EQ(FileBytes(), before);
}

TEST_F(ChangesTest, AFailedPutLeavesNoNewCache) {
    Format::WriteWholeFile(File("in"), Format::Bytes(100000, 1));
    std::uint64_t writes = 0;
    {
        const Testing::StdioFault none(Testing::StdioCall::Write, 0, ~std::uint64_t{0});
        ASSERT_EQ(Run({"put", cache_, "a", File("in")}), kDone);
        writes = none.Calls();
    }
    for (std::uint64_t i = 0; i < writes; ++i) {
        std::filesystem::remove(CacheFile());
        int exitCode = kDone;
        {
            const Testing::StdioFault full(Testing::StdioCall::Write, ENOSPC, i);
            exitCode = Run({"put", cache_, "a", File("in")});
        }
        EXPECT_EQ(std::filesystem::exists(CacheFile()), exitCode == kDone) << i;
        EXPECT_EQ(Run({"put", cache_, "a", File("in")}), kDone) << err_;
    }
}

}  // namespace
}  // namespace Quorvel::Tool
