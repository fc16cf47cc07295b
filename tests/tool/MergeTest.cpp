#include <algorithm>
#include <filesystem>
#include <optional>
#include <random>
#include <thread>

#include "pagestore/RollbackJournal.h"
#include "platform/DiskSpace.h"
#include "tool/ToolTest.h"

// The free bytes of the volume, if a test sets them.
static std::optional<std::uint64_t> freeSpace;

extern "C" {

bool REAL_FREE_DISK_SPACE(const char* directory, std::uint64_t& bytes) noexcept;

bool WRAP_FREE_DISK_SPACE(const char* directory, std::uint64_t& bytes) noexcept {
    if (!freeSpace) { return REAL_FREE_DISK_SPACE(directory, bytes); }
    bytes = *freeSpace;
    return true;
}

}  // extern "C"

namespace Quorvel::Tool {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Effects = std::vector<Format::NewEffect>;

class MergeTest : public ToolTest {
protected:
    ~MergeTest() override { freeSpace.reset(); }

    static std::vector<std::string> Names(const Json& list) {
        return list.get<std::vector<std::string>>();
    }
};

TEST_F(MergeTest, TheEffectUsedLastStaysWithItsFlag) {
    const std::string a = MakeIn("a", EffectsOfA());
    const std::string b = MakeIn("b", EffectsOfB());
    EXPECT_EQ(Run({"merge", a, b}), kDone);
    EXPECT_EQ(out_, "");
    EXPECT_EQ(err_, "added 1 effect, replaced 1; the cache's own stayed: 2\n");
    EXPECT_THAT(EffectsIn(a),
                ElementsAre("1 2002 0 b", "2 2003 0 a", "3 2002 1 a", "4 2002 0 a", "5 2002 1 b"));
    EXPECT_EQ(EffectsIn(b).size(), 4U);
}

TEST_F(MergeTest, OneSideMayBePreferred) {
    const Effects mine = {{"1", {'a'}, true, Year(2001)}, {"2", {'a'}, false, Year(2003)}};
    const Effects yours = {{"1", {'b'}, false, Year(2002)},
                           {"2", {'b'}, true, Year(2002)},
                           {"3", {'b'}, true, Year(2002)}};
    const std::string b = MakeIn("b", yours);
    EXPECT_EQ(Run({"merge", MakeIn("a", mine), b, "--prefer", "dest"}), kDone);
    EXPECT_THAT(EffectsIn(File("a")), ElementsAre("1 2001 1 a", "2 2003 0 a", "3 2002 1 b"));
    EXPECT_EQ(Run({"merge", MakeIn("a", mine), b, "--prefer", "source"}), kDone);
    EXPECT_THAT(EffectsIn(File("a")), ElementsAre("1 2002 0 b", "2 2002 1 b", "3 2002 1 b"));
}

TEST_F(MergeTest, OfSeveralSourcesTheEffectUsedLastStays) {
    const std::string a = MakeIn("a", {{"1", {'a'}, false, Year(2001)}});
    const std::string b = MakeIn("b", {{"1", {'b'}, false, Year(2003)}, {"2", {'b'}}});
    const std::string c = MakeIn("c", {{"1", {'c'}, false, Year(2002)}, {"2", {'c'}}});
    for (const char* prefer : {"source", "dest"}) {
        fs::create_directory(File(prefer));
        EXPECT_EQ(Run({"merge", File(prefer), c, b, a, "--prefer", prefer}), kDone);
        EXPECT_THAT(EffectsIn(File(prefer)), ElementsAre("1 2003 0 b", "2 2024 0 c"));
    }
}

TEST_F(MergeTest, TwoHalvesMakeTheWhole) {
    std::mt19937 random(1);
    Effects all;
    for (unsigned i = 0; i < 600; ++i) {
        all.push_back({"effect " + std::to_string(random()),
                       Format::Bytes(1 + random() % 20000, static_cast<std::uint8_t>(i)),
                       random() % 4 == 0, Year(1990 + i % 30)});
    }
    Effects first(all.begin(), all.begin() + 350);
    Effects second(all.begin() + 250, all.end());
    const std::string whole = MakeIn("whole", all);
    const std::string a = MakeIn("a", first);
    const std::string b = MakeIn("b", second);
    fs::create_directory(File("c"));
    EXPECT_EQ(Run({"merge", File("c"), a, b}), kDone);
    EXPECT_EQ(Run({"merge", a, b}), kDone);
    for (const std::string& merged : {a, File("c")}) {
        EXPECT_EQ(Run({"diff", "--time", merged, whole}), kDone) << out_;
        EXPECT_THAT(Format::CheckEffectCache(Format::ReadWholeFile(merged + "/vornFxoCache.dat")),
                    IsEmpty());
    }
    EXPECT_EQ(Run({"merge", a, b}), kDone);
    EXPECT_EQ(err_, "added 0 effects, replaced 0; the cache's own stayed: 350\n");
}

TEST_F(MergeTest, PackageFilesCanBeMerged) {
    const std::string a = MakeIn("a", ThreeEffects());
    fs::copy(a + "/vornFxoCache.dat", File("copy.dat"));
    EXPECT_EQ(Run({"merge", MakeIn("b", {}), File("copy.dat")}), kDone);
    EXPECT_EQ(EffectsIn(File("b")), EffectsIn(a));
    Format::WriteWholeFile(File("empty.dat"), Format::WriteEffectCache({}));
    EXPECT_EQ(Run({"merge", File("empty.dat"), a}), kDone);
    EXPECT_EQ(Run({"diff", File("empty.dat"), a, "--time"}), kDone);
}

TEST_F(MergeTest, ADryRunSaysWhatWouldHappen) {
    const std::string a = MakeIn("a", {{"a", {7}, false, Year(1999)}});
    const std::string b = MakeIn("b", ThreeEffects());
    const std::vector<std::string> before = EffectsIn(a);
    EXPECT_EQ(Run({"merge", a, b, "--dry-run", "--match", "?*[ab]"}), kDone);
    EXPECT_EQ(out_, "+ bb\n");
    EXPECT_EQ(Run({"merge", a, b, "--dry-run"}), kDone);
    EXPECT_EQ(out_, "+ bb\n+ tab\\x09here\\\\\\xFF\n! a\n");
    EXPECT_EQ(err_, "would have added 2 effects, replaced 1\n");
    EXPECT_EQ(RunJson({"merge", a, b, "--dry-run"}),
              Json::parse(R"({"dryRun": true, "added": ["bb", "tab\\x09here\\\\\\xFF"],
                              "replaced": ["a"], "evicted": [], "kept": 0, "leftOut": 0,
                              "damaged": 0})"));
    EXPECT_EQ(EffectsIn(a), before);
    fs::create_directory(File("empty"));
    EXPECT_EQ(Run({"merge", File("empty"), b, "--dry-run"}), kDone);
    EXPECT_TRUE(fs::is_empty(File("empty")));
    EXPECT_EQ(RunJson({"merge", a, b})["dryRun"], false);
    EXPECT_EQ(EffectsIn(a), EffectsIn(b));
}

TEST_F(MergeTest, APatternThatMatchesNothingIsANo) {
    EXPECT_EQ(Run({"merge", MakeIn("a", {}), MakeIn("b", ThreeEffects()), "--match", "none"}), kNo);
    EXPECT_THAT(err_, HasSubstr("no effect matches \"none\""));
}

TEST_F(MergeTest, ACacheIsNotMergedWithItself) {
    const std::string a = MakeIn("a", ThreeEffects());
    fs::create_hard_link(a + "/vornFxoCache.dat", File("link.dat"));
    for (const std::string& spelling :
         {a, a + "/", File("a/../a"), a + "/vornFxoCache.dat", File("link.dat")}) {
        EXPECT_EQ(Run({"merge", a, MakeIn("b", {}), spelling}), kUsage) << spelling;
        EXPECT_THAT(err_, HasSubstr(" are the same cache"));
    }
}

TEST_F(MergeTest, ASourceThatCannotBeReadLeavesTheDestinationAsItIs) {
    const std::string a = MakeIn("a", ThreeEffects());
    const std::string b = MakeIn("b", {{"new", {1}}});
    const std::vector<std::string> before = EffectsIn(a);
    fs::create_directory(File("empty"));
    Format::WriteWholeFile(File("broken.dat"), Format::Bytes(9000, 1));
    const struct {
        std::string source;
        const char* why;
    } rows[] = {{File("missing"), "missing: no such file or directory"},
                {File("empty"), "there is no vornFxoCache.dat in the directory"},
                {File("broken.dat"), "broken.dat: damaged, or no package: "}};
    for (const auto& row : rows) {
        EXPECT_EQ(Run({"merge", a, b, row.source}), kNo);
        EXPECT_THAT(err_, HasSubstr(row.why));
        EXPECT_EQ(EffectsIn(a), before);
    }
    EXPECT_EQ(Run({"merge", a}), kUsage);
    EXPECT_EQ(Run({"merge", File("broken.dat"), b}), kNo);
    EXPECT_THAT(err_, HasSubstr("broken.dat: no cache that can be changed"));
}

TEST_F(MergeTest, DamagedEffectsAreLeftOutAndCounted) {
    const std::string a = MakeIn("a", {{"x", {1}}});
    const std::string b = MakeIn("b", ThreeEffects());
    Format::Bytes file = Format::ReadWholeFile(b + "/vornFxoCache.dat");
    const std::uint8_t length[] = {2, 0, 0, 0, 0, 0, 0, 0, 2, 2};
    const auto found = std::search(file.begin(), file.end(), std::begin(length), std::end(length));
    ASSERT_NE(found, file.end());
    *found = 3;
    Format::WriteWholeFile(b + "/vornFxoCache.dat", file);
    EXPECT_EQ(Run({"merge", a, b}), kNo);
    EXPECT_THAT(err_, HasSubstr("\"bb\" is damaged: "));
    EXPECT_THAT(err_, HasSubstr("added 2 effects, replaced 0; left out as damaged: 1\n"));
    EXPECT_EQ(EffectsIn(a).size(), 3U);
}

// ---- Limits -------------------------------------------------------------------------------------

TEST_F(MergeTest, WithinTheNumberOfEffectsPermanentOnesAndThoseUsedLastStay) {
    Effects many;
    for (unsigned i = 0; i < 65532; ++i) {
        many.push_back({"effect " + std::to_string(i), {1}, false, Year(2002)});
    }
    many.push_back({"oldest, permanent", {1}, true, Year(1990)});
    many.push_back({"oldest", {1}, false, Year(2001)});
    const std::string a = MakeIn("a", many);
    const std::string b = MakeIn("b", {{"new", {2}, false, Year(2003)},
                                       {"old", {2}, false, Year(2000)},
                                       {"old, permanent", {2}, true, Year(2000)}});
    const Json report = RunJson({"merge", a, b}, kNo);
    EXPECT_THAT(Names(report["added"]), ElementsAre("new", "old, permanent"));
    EXPECT_THAT(Names(report["replaced"]), IsEmpty());
    // Of effects used at the same time the last ones in the index go.
    EXPECT_THAT(Names(report["evicted"]), ElementsAre("oldest", "effect 65531"));
    EXPECT_EQ(report["leftOut"], 1);
    EXPECT_EQ(RunJson({"info", a})["effects"]["count"], 65534);
}

// The bytes set aside for the journal and spare pages of a small cache, and for each effect that is
// replaced.
constexpr std::uint64_t kReserved = 2 * 13 * RollbackJournal::kBytesPerPage;
constexpr std::uint64_t kReservedForBlock = 8 * RollbackJournal::kBytesPerPage;

TEST_F(MergeTest, OnAFullVolumePermanentOnesAndThoseUsedLastComeIn) {
    // Each effect takes 100 bytes: 39 of its own and 61 more.
    const Effects mine = {{"p", Format::Bytes(39, 'a'), false, Year(1990)}};
    Effects yours = {{"q", Format::Bytes(39, 'b'), true, Year(1991)}};
    for (char c = '0'; c <= '4'; ++c) {
        yours.push_back({std::string(1, c), Format::Bytes(39, 'b'), false,
                         Year(2000 + static_cast<unsigned>(c))});
    }
    // An eighth of the free space stays free.
    const struct {
        std::uint64_t free;
        std::vector<std::string> added;
    } rows[] = {{0, {}},
                {113, {}},
                {114, {"q"}},
                {343, {"3", "4", "q"}},
                {100000, {"0", "1", "2", "3", "4", "q"}}};
    for (const auto& row : rows) {
        const std::string a = MakeIn("a", mine);
        const std::string b = MakeIn("b", yours);
        freeSpace = kReserved + row.free;
        const Json report = RunJson({"merge", a, b}, row.added.size() == 6 ? kDone : kNo);
        freeSpace.reset();
        EXPECT_EQ(report["added"], Json(row.added)) << row.free;
        EXPECT_EQ(report["leftOut"], 6 - row.added.size());
        EXPECT_EQ(report["evicted"], Json::array());
        EXPECT_EQ(EffectsIn(a).size(), 1 + row.added.size());
    }
}

TEST_F(MergeTest, AnOwnEffectStaysIfItsNewerVersionDoesNotFit) {
    for (const bool isPermanent : {false, true}) {
        const std::string b = MakeIn("b", {{"a", Format::Bytes(900), false, Year(2020)}});
        for (const std::uint64_t free : {1000U, 2000U}) {
            const std::string a = MakeIn("a", {{"a", Format::Bytes(100), isPermanent, Year(1990)}});
            freeSpace = kReserved + kReservedForBlock + free;
            const Json report = RunJson({"merge", a, b}, free == 1000 ? kNo : kDone);
            freeSpace.reset();
            EXPECT_EQ(report["evicted"], Json::array());
            EXPECT_EQ(report["leftOut"], free == 1000 ? 1 : 0);
            EXPECT_THAT(EffectsIn(a), testing::ElementsAre(
                                          testing::StartsWith(free == 1000 ? "a 1990" : "a 2020")));
        }
    }
}

// ---- Locks --------------------------------------------------------------------------------------

TEST_F(MergeTest, MergesInBothDirectionsDoNotWaitForEachOther) {
    Effects mine;
    Effects yours;
    for (unsigned i = 0; i < 200; ++i) {
        mine.push_back({"a" + std::to_string(i), Format::Bytes(2000, 1)});
        yours.push_back({"b" + std::to_string(i), Format::Bytes(2000, 2)});
    }
    const std::string a = MakeIn("a", mine);
    const std::string b = MakeIn("b", yours);
    const auto merge = [](const std::string& dest, const std::string& source) {
        const char* const argv[] = {"quorvel", "merge", dest.c_str(), source.c_str()};
        std::istringstream in;
        std::ostringstream out;
        std::ostringstream err;
        for (int i = 0; i < 20; ++i) {
            EXPECT_EQ(RunProgram(4, argv, {in, out, err}), kDone) << err.str();
        }
    };
    std::thread other([&] { merge(a, b); });
    merge(b, a);
    other.join();
    EXPECT_EQ(Run({"diff", a, b, "--time"}), kDone);
    EXPECT_EQ(EffectsIn(a).size(), 400U);
}

}  // namespace
}  // namespace Quorvel::Tool
