#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <regex>
#include <sstream>

#include "support/StdioFaults.h"
#include "tool/TarFile.h"
#include "tool/ToolTest.h"
#include "tools/quorvel/Checksum.h"

// export and import.
namespace Quorvel::Tool {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;

class ArchiveTest : public ToolTest {
protected:
    ArchiveTest() { fs::create_directory(other_); }

    // Names of every kind, impossible times, and the smallest and largest effects.
    static std::vector<Format::NewEffect> OddEffects() {
        std::vector<std::string> names = {"..",
                                          "../../etc/passwd",
                                          "/etc/passwd",
                                          "a/b",
                                          "a_b",
                                          "a\\b",
                                          "C:\\x",
                                          "\xC3\xA4",
                                          "\\x41",
                                          std::string(65536, 'x'),
                                          "\r\n",
                                          std::string("nul\0inside", 10),
                                          "manifest.jsonl"};
        for (int byte = 0; byte < 256; ++byte) {
            names.push_back(std::string(1, static_cast<char>(byte)));
        }
        names.push_back(std::string(65536, '\xFF'));
        std::vector<Format::NewEffect> effects;
        for (std::size_t i = 0; i < names.size(); ++i) {
            effects.push_back({names[i],
                               Format::Bytes(1 + i * 31, static_cast<std::uint8_t>(i)),
                               i % 3 == 0,
                               {static_cast<std::uint16_t>(i * 300), 2, 30, 4, 5, 6,
                                static_cast<std::uint32_t>(i)}});
        }
        effects[0].time = {};
        effects[1].time = {65535, 65535, 65535, 65535, 65535, 65535, 4294967295};
        effects[2].data = Format::Bytes(1 << 20, 7);
        return effects;
    }

    // The contents of a cache, wherever they lie in the file.
    static std::string Content(const std::string& directory) {
        std::ostringstream content;
        const Format::Bytes file = Format::ReadWholeFile(directory + "/vornFxoCache.dat");
        EXPECT_THAT(Format::CheckEffectCache(file), testing::IsEmpty());
        for (const auto& [name, effect] :
             Format::ReadEffectCache(Format::ReadPackage(file, Format::kCacheStreamLimit))) {
            const Format::EntryTime& time = effect.record.time;
            content << name << '\n'
                    << effect.record.permanent << ' ' << time.year << ' ' << time.month << ' '
                    << time.day << ' ' << time.hour << ' ' << time.minute << ' ' << time.second
                    << ' ' << time.millisecond << '\n'
                    << effect.data.size() << ' '
                    << ChecksumOf(effect.data.data(), effect.data.size()).Text() << '\n';
        }
        return content.str();
    }

    static std::string ReadText(const std::string& path) {
        const Format::Bytes bytes = Format::ReadWholeFile(path);
        return {bytes.begin(), bytes.end()};
    }

    // An archive of three effects: their files, and the manifest.
    std::vector<TarMember> ThreeMembers() {
        MakeCache(ThreeEffects());
        EXPECT_EQ(Run({"export", cache_, "-"}), kDone) << err_;
        return Unpack(out_);
    }

    // Expects that the archive is refused for this reason, and that nothing is changed.
    void ExpectRefused(const std::string& archive, const std::string& why) {
        MakeCache(ThreeEffects());
        const Format::Bytes before = FileBytes();
        EXPECT_EQ(Run({"import", cache_, "-"}, archive), kNo) << why;
        EXPECT_THAT(err_, HasSubstr("standard input: no intact archive of \"quorvel export\": "));
        EXPECT_THAT(err_, HasSubstr(why));
        EXPECT_THAT(err_, HasSubstr("nothing was changed"));
        EXPECT_EQ(out_, "");
        EXPECT_EQ(FileBytes(), before);
        EXPECT_EQ(Run({"import", other_, "-"}, archive), kNo);
        EXPECT_TRUE(fs::is_empty(other_));
    }

    // The same for an archive whose manifest was changed.
    void ExpectManifestRefused(const std::function<void(std::string&)>& change,
                               const std::string& why) {
        std::vector<TarMember> members = ThreeMembers();
        change(members.back().data);
        ExpectRefused(Pack(members), why);
    }

    const std::string other_ = File("other");
};

void Replace(std::string& text, const std::string& from, const std::string& to) {
    ASSERT_NE(text.find(from), std::string::npos) << from;
    text.replace(text.find(from), from.size(), to);
}

TEST_F(ArchiveTest, EverythingSurvivesARoundTrip) {
    MakeCache(OddEffects());
    for (const char* name : {"a.tar", "a.tar.gz", "a.tgz", "a.tar.zst", "a.tzst"}) {
        ASSERT_EQ(Run({"export", cache_, File(name)}), kDone) << err_;
        EXPECT_EQ(out_, "");
        EXPECT_THAT(err_, HasSubstr("exported 270 effects, "));
        ASSERT_EQ(Run({"import", other_, File(name)}), kDone) << err_;
        EXPECT_EQ(err_, "added 270 effects, replaced 0\n");
        EXPECT_EQ(Content(other_), Content(cache_));
        EXPECT_EQ(Run({"diff", cache_, other_, "--time"}), kDone);
        EXPECT_EQ(out_, "");
        fs::remove(other_ + "/vornFxoCache.dat");
    }
    EXPECT_LT(fs::file_size(File("a.tar.gz")), fs::file_size(File("a.tar")) / 2);
    EXPECT_EQ(ReadText(File("a.tgz")), ReadText(File("a.tar.gz")));
    EXPECT_LT(fs::file_size(File("a.tar.zst")), fs::file_size(File("a.tar")) / 2);
}

TEST_F(ArchiveTest, AnArchiveMayGoThroughPipes) {
    MakeCache(OddEffects());
    ASSERT_EQ(Run({"export", cache_, "-"}), kDone);
    ASSERT_EQ(Run({"import", other_, "-"}, std::string(out_)), kDone);
    EXPECT_EQ(Content(other_), Content(cache_));
    fs::remove(other_ + "/vornFxoCache.dat");
    ASSERT_EQ(Run({"export", cache_, File("a.tar.zst")}), kDone);
    ASSERT_EQ(Run({"import", other_, "-"}, ReadText(File("a.tar.zst"))), kDone);
    EXPECT_EQ(Content(other_), Content(cache_));
}

TEST_F(ArchiveTest, AnArchiveHoldsOrdinaryFilesInAFolderOfItsOwn) {
    MakeCache(OddEffects());
    ASSERT_EQ(Run({"export", cache_, "-"}), kDone);
    const std::vector<TarMember> members = Unpack(out_);
    ASSERT_EQ(members.size(), 271U);
    const std::regex name("effects/[0-9]{6}-[-_.a-zA-Z0-9]+");
    EXPECT_EQ(members.back().path, "manifest.jsonl");
    for (std::size_t i = 0; i + 1 < members.size(); ++i) {
        EXPECT_TRUE(std::regex_match(members[i].path, name)) << members[i].path;
        EXPECT_LT(members[i].path.size(), 100U);
    }
}

TEST_F(ArchiveTest, TheManifestDescribesEachFile) {
    const std::vector<TarMember> members = ThreeMembers();
    EXPECT_THAT(members[2].path, "effects/000003-tab_here__");
    EXPECT_EQ(members[1].data, "\x02\x02");
    std::vector<Json> lines;
    std::istringstream text(members.back().data);
    for (std::string line; std::getline(text, line);) {
        lines.push_back(Json::parse(line));
    }
    ASSERT_EQ(lines.size(), 5U);
    EXPECT_EQ(lines[0], Json::parse(R"({"format": "quorvel effects", "version": 1})"));
    EXPECT_EQ(lines[3]["name"], "tab\\x09here\\\\\\xFF");
    EXPECT_EQ(lines[2].dump(),
              R"({"member":"effects/000002-bb","name":"bb","size":2,"permanent":true,)"
              R"("time":"2002-02-03T04:05:06.007","xxh128":")" +
                  ChecksumOf("\x02\x02", 2).Text() + "\"}");
    EXPECT_EQ(lines[4]["effects"], 3);
}

// Examples that the author of the algorithm published.
TEST_F(ArchiveTest, ChecksumsAreThoseOfXxh128sum) {
    EXPECT_EQ(ChecksumOf("", 0).Text(), "99aa06d3014798d86001c324468d497f");
    ChecksumBuilder builder;
    builder.Add("ab", 2);
    builder.Add("c", 1);
    EXPECT_EQ(builder.Get(), ChecksumOf("abc", 3));
    EXPECT_EQ(builder.Get().Text(), "06b05ab6733a618578af5f94892f3950");
}

TEST_F(ArchiveTest, TheSameCacheMakesTheSameArchive) {
    MakeCache(ThreeEffects());
    for (const char* name : {"a.tar", "a.tar.gz", "a.tar.zst"}) {
        ASSERT_EQ(Run({"export", cache_, File(name)}), kDone);
        const std::string first = ReadText(File(name));
        ASSERT_EQ(Run({"export", cache_, File(name)}), kDone);
        EXPECT_EQ(ReadText(File(name)), first);
    }
}

TEST_F(ArchiveTest, APatternChoosesEffects) {
    MakeCache(ThreeEffects());
    const Json report = RunJson({"export", cache_, File("a.tar"), "--match", "b*"});
    EXPECT_EQ(
        report,
        (Json{
            {"archive", File("a.tar")}, {"effects", 1}, {"bytes", 2}, {"damaged", Json::array()}}));
    ASSERT_EQ(Run({"export", cache_, File("all.tar")}), kDone);
    ASSERT_EQ(Run({"import", other_, File("all.tar"), "--match", "b*"}), kDone);
    EXPECT_EQ(err_, "added 1 effect, replaced 0\n");
    EXPECT_EQ(Run({"list", other_}), kDone);
    EXPECT_EQ(out_, "bb\n");
    EXPECT_EQ(Run({"export", cache_, File("none.tar"), "--match", "none"}), kNo);
    EXPECT_THAT(err_, HasSubstr("no effect matches \"none\""));
    EXPECT_FALSE(fs::exists(File("none.tar")));
    EXPECT_EQ(Run({"import", other_, File("all.tar"), "--match", "none"}), kNo);
    EXPECT_THAT(err_, HasSubstr("no effect matches \"none\""));
}

TEST_F(ArchiveTest, AnEmptyCacheMakesAnArchiveWithoutEffects) {
    MakeCache({});
    EXPECT_EQ(Run({"export", cache_, File("a.tar")}), kDone);
    EXPECT_EQ(Run({"import", other_, File("a.tar")}), kDone);
    EXPECT_EQ(Content(other_), "");
}

TEST_F(ArchiveTest, DamagedEffectsAreLeftOutAndNamed) {
    Format::PackageImage image = Format::LayOutEffectCache(ThreeEffects(), {});
    // The bytes of the effect "bb" begin with their length.
    const std::uint8_t length[] = {2, 0, 0, 0, 0, 0, 0, 0, 2, 2};
    Format::Bytes file = Format::EncodePackage(image);
    const auto found = std::search(file.begin(), file.end(), std::begin(length), std::end(length));
    ASSERT_NE(found, file.end());
    *found = 3;
    Format::WriteWholeFile(CacheFile(), file);
    EXPECT_EQ(Run({"export", cache_, File("a.tar"), "--json"}), kNo);
    EXPECT_THAT(err_, HasSubstr("\"bb\" is damaged: "));
    EXPECT_EQ(Json::parse(out_)["effects"], 2);
    EXPECT_EQ(Json::parse(out_)["damaged"], Json::parse(R"(["bb"])"));
    EXPECT_EQ(Run({"import", other_, File("a.tar")}), kDone);
    EXPECT_EQ(err_, "added 2 effects, replaced 0\n");
}

TEST_F(ArchiveTest, TheEffectUsedLastStays) {
    MakeCache({{"old here", {1}, true, {2001, 1, 1, 0, 0, 0, 0}},
               {"old there", {1}, true, {2003, 1, 1, 0, 0, 0, 0}},
               {"same", {1}, true, {2002, 1, 1, 0, 0, 0, 0}}});
    ASSERT_EQ(Run({"export", cache_, File("mine.tar")}), kDone);
    const std::string mine = Content(cache_);
    const Format::Bytes file = FileBytes();
    MakeCache({{"old here", {2}, false, {2002, 1, 1, 0, 0, 0, 0}},
               {"old there", {2}, false, {2002, 1, 1, 0, 0, 0, 0}},
               {"same", {2}, false, {2002, 1, 1, 0, 0, 0, 0}}});
    ASSERT_EQ(Run({"export", cache_, File("yours.tar")}), kDone);
    const std::string yours = Content(cache_);

    Format::WriteWholeFile(CacheFile(), file);
    Json report = RunJson({"import", cache_, File("yours.tar")});
    EXPECT_EQ(report["replaced"], Json::parse(R"(["old here"])"));
    EXPECT_EQ(report["kept"], 2);
    EXPECT_EQ(Run({"list", cache_, "--long"}), kDone);
    EXPECT_EQ(out_,
              "2002-01-01T00:00:00.000\t1\tpermanent\tsame\n"
              "2002-01-01T00:00:00.000\t1\tevictable\told here\n"
              "2003-01-01T00:00:00.000\t1\tpermanent\told there\n");

    Format::WriteWholeFile(CacheFile(), file);
    EXPECT_EQ(Run({"import", cache_, File("yours.tar"), "--prefer", "dest"}), kDone);
    EXPECT_EQ(err_, "added 0 effects, replaced 0; the cache's own stayed: 3\n");
    EXPECT_EQ(Content(cache_), mine);
    EXPECT_EQ(Run({"import", cache_, File("yours.tar"), "--prefer", "source"}), kDone);
    EXPECT_EQ(Content(cache_), yours);
    EXPECT_EQ(Run({"import", cache_, File("yours.tar"), "--prefer", "neither"}), kUsage);
}

TEST_F(ArchiveTest, ADryRunSaysWhatWouldHappen) {
    MakeCache(ThreeEffects());
    ASSERT_EQ(Run({"export", cache_, File("a.tar")}), kDone);
    EXPECT_EQ(Run({"import", other_, File("a.tar"), "--dry-run"}), kDone);
    EXPECT_EQ(out_, "+ a\n+ bb\n+ tab\\x09here\\\\\\xFF\n");
    EXPECT_EQ(err_, "would have added 3 effects, replaced 0\n");
    EXPECT_TRUE(fs::is_empty(other_));
    MakeCache({{"a", {2}, false, {1999, 1, 1, 0, 0, 0, 0}}});
    const Format::Bytes before = FileBytes();
    EXPECT_EQ(Run({"import", cache_, File("a.tar"), "--dry-run", "--match", "?"}), kDone);
    EXPECT_EQ(out_, "! a\n");
    const Json report = RunJson({"import", cache_, File("a.tar"), "--dry-run"});
    EXPECT_EQ(report, Json::parse(R"({"dryRun": true, "added": ["bb", "tab\\x09here\\\\\\xFF"],
                                      "replaced": ["a"], "evicted": [], "kept": 0, "leftOut": 0,
                                      "damaged": 0})"));
    EXPECT_EQ(FileBytes(), before);
}

// ---- Refusals -----------------------------------------------------------------------------------

TEST_F(ArchiveTest, FilesThatDoNotBelongThereAreRefused) {
    using Kind = TarMember::Kind;
    const struct {
        TarMember member;
        const char* why;
    } rows[] = {
        {{"/effects/x", "x"}, "\"/effects/x\" lies outside of it"},
        {{"../x", "x"}, "\"../x\" lies outside of it"},
        {{"effects/../../x", "x"}, "\"effects/../../x\" lies outside of it"},
        {{"effects/..", "x"}, "\"effects/..\" lies outside of it"},
        {{"..\\x", "x"}, "x\" lies outside of it"},  // on Windows, Pack turns it into ../x
        {{"C:x", "x"}, "\"C:x\" lies outside of it"},
        {{"effects/x", "", Kind::SymbolicLink}, "\"effects/x\" is not a file"},
        {{"effects/x", "", Kind::HardLink}, "\"effects/x\" is not a file"},
        {{"effects/x", "", Kind::Device}, "\"effects/x\" is not a file"},
        {{"effects/x", ""}, "\"effects/x\" has 0 bytes; an effect has 1 byte to 1 MiB"},
        {{"effects/x", std::string((1 << 20) + 1, 'x')}, "\"effects/x\" has 1048577 bytes"},
        {{"effects/x", "x"}, "\"effects/x\" is not in the manifest"},
        {{"effects/000002-bb", "x"}, "\"effects/000002-bb\" appears twice"},
        {{std::string(256, 'x'), "x"}, "a name that is too long"},
    };
    for (const auto& row : rows) {
        std::vector<TarMember> members = ThreeMembers();
        members.insert(members.begin() + 3, row.member);
        ExpectRefused(Pack(members), row.why);
    }
}

TEST_F(ArchiveTest, FoldersAreIgnored) {
    std::vector<TarMember> members = ThreeMembers();
    members.insert(members.begin(), {"effects", "", TarMember::Kind::Directory});
    EXPECT_EQ(Run({"import", other_, "-"}, Pack(members)), kDone) << err_;
    EXPECT_EQ(RunJson({"list", other_}).size(), 3U);
}

TEST_F(ArchiveTest, MissingDamagedAndMisplacedFilesAreRefused) {
    const std::vector<TarMember> members = ThreeMembers();
    for (std::size_t i = 0; i < 3; ++i) {
        std::vector<TarMember> fewer = members;
        fewer.erase(fewer.begin() + static_cast<std::ptrdiff_t>(i));
        ExpectRefused(Pack(fewer), "its file is not in the archive");
        std::vector<TarMember> changed = members;
        changed[i].data[0] = 'x';
        ExpectRefused(Pack(changed), "\"" + members[i].path + "\" is damaged");
        changed[i].data = members[i].data + "x";
        ExpectRefused(Pack(changed), "\"" + members[i].path + "\" is damaged");
    }
    ExpectRefused(Pack({members[0], members[1], members[2]}), "it has no complete manifest");
    ExpectRefused(Pack({members[0], members[1], members[3], members[2]}),
                  "line 4 of its manifest: its file is not in the archive");
    ExpectRefused(Pack({members[0], members[1], members[2], members[3], members[3]}),
                  "\"manifest.jsonl\" comes after the manifest");
}

TEST_F(ArchiveTest, WrongManifestsAreRefused) {
    const struct {
        const char* from;
        std::string to;
        const char* why;
    } rows[] = {
        {"quorvel effects", "something else", "line 1 of its manifest: another format"},
        {"\"version\":1", "\"version\":2", "line 1 of its manifest: it is of another version"},
        {"\"version\":1", "\"verse\":1", "line 1 of its manifest: it is not what"},
        {"{\"format\"", "[\"format\"", "line 1 of its manifest: it is not what"},
        {"{\"member\":\"effects/000001-a\"", "\n{\"member\":\"effects/000001-a\"",
         "line 2 of its manifest: it is not what"},
        {"\"name\":\"a\"", "\"name\":7", "line 2 of its manifest: it is not what"},
        {"\"name\":\"a\",", "", "line 2 of its manifest: it is not what"},
        {"\"name\":\"a\"", "\"name\":\"\"", "line 2 of its manifest: the name has 0 bytes"},
        {"\"name\":\"a\"", "\"name\":\"" + std::string(65537, 'a') + "\"",
         "line 2 of its manifest: the name has 65537 bytes"},
        {"\"name\":\"a\"", "\"name\":\"" + std::string(400000, 'a') + "\"",
         "line 2 of its manifest: it is too long"},
        {"\"name\":\"a\"", "\"name\":\"\\\\x41\"", "\" is not an escaped name"},
        {"\"name\":\"a\"", "\"name\":\"a\\\\\"", "\" is not an escaped name"},
        {"\"name\":\"a\"", "\"name\":\"bb\"", "line 3 of its manifest: the names are not in order"},
        {"\"size\":1,", "\"size\":2,", "\"effects/000001-a\" is damaged"},
        {"\"size\":1,", "\"size\":\"1\",", "\"effects/000001-a\" is damaged"},
        {"effects/000001-a", "effects/000002-bb", "\"effects/000002-bb\" is damaged"},
        {"\"permanent\":false", "\"permanent\":0", "line 2 of its manifest: it is not what"},
        {"\"permanent\":false", "\"permanent\":true", "the lines before it are damaged"},
        {"2001-02-03", "2001-02-04", "the lines before it are damaged"},
        {"2001-02-03", "2001-2-3", "is not a time"},
        {"2001-02-03", "70001-02-03", "is not a time"},
        {"{\"effects\":3", "{\"effects\":2", "the lines before it are damaged"},
    };
    for (const auto& row : rows) {
        ExpectManifestRefused([&](std::string& text) { Replace(text, row.from, row.to); }, row.why);
    }
    ExpectManifestRefused([](std::string& text) { text.clear(); }, "its manifest is cut short");
    ExpectManifestRefused([](std::string& text) { text.pop_back(); }, "its manifest is cut short");
    ExpectManifestRefused([](std::string& text) { text.resize(text.rfind("{\"effects\"")); },
                          "its manifest is cut short");
    ExpectManifestRefused([](std::string& text) { text += "{}\n"; },
                          "line 6 of its manifest: it comes after the last one");
    ExpectManifestRefused([](std::string& text) { text += "x"; }, "its manifest is cut short");
}

TEST_F(ArchiveTest, WhatIsNoArchiveIsRefused) {
    ExpectRefused("", "");
    ExpectRefused("just text", "");
    ExpectRefused(std::string(5000, '\0'), "");
    ExpectRefused("\x1F\x8B\x08 and so on", "");
    ExpectRefused(Pack({{"readme.txt", "an archive of something else"}}),
                  "it has no complete manifest");
    MakeCache(ThreeEffects());
    const Format::Bytes file = FileBytes();
    ExpectRefused({file.begin(), file.end()}, "");
}

TEST_F(ArchiveTest, AnArchiveThatWasCutShortIsRefused) {
    MakeCache(ThreeEffects());
    for (const char* name : {"a.tar", "a.tar.gz", "a.tar.zst"}) {
        ASSERT_EQ(Run({"export", cache_, File(name)}), kDone);
        const std::string archive = ReadText(File(name));
        // The zeros after the last file don't matter.
        const std::size_t end = name == std::string("a.tar") ? archive.size() - 2048 : 0;
        for (std::size_t size = 0; size < std::max(end, archive.size() / 2); size += 101) {
            EXPECT_EQ(Run({"import", other_, "-"}, archive.substr(0, size)), kNo) << size;
        }
        EXPECT_TRUE(fs::is_empty(other_));
    }
}

TEST_F(ArchiveTest, DamageIsNoticedWhereverItIs) {
    MakeCache(ThreeEffects());
    const std::string content = Content(cache_);
    for (const char* name : {"a.tar", "a.tar.gz", "a.tar.zst"}) {
        ASSERT_EQ(Run({"export", cache_, File(name)}), kDone);
        const std::string archive = ReadText(File(name));
        std::mt19937 random(1);
        int refused = 0;
        for (int i = 0; i < 200; ++i) {
            std::string damaged = archive;
            damaged[random() % damaged.size()] ^= static_cast<char>(1 << random() % 8);
            const int result = Run({"import", other_, "-"}, damaged);
            ASSERT_TRUE(result == kNo || result == kDone) << err_;
            refused += result == kNo ? 1 : 0;
            // Padding may be anything.
            if (result == kDone) { EXPECT_EQ(Content(other_), content); }
            fs::remove(other_ + "/vornFxoCache.dat");
        }
        EXPECT_GT(refused, 100) << name;
    }
}

TEST_F(ArchiveTest, AnArchiveThatHoldsMoreThanACacheCanIsRefused) {
    std::vector<TarMember> members;
    for (int i = 0; i < 131071; ++i) {
        members.push_back({std::to_string(i), "x"});
    }
    EXPECT_EQ(Run({"import", other_, "-"}, Pack(members)), kNo);
    EXPECT_THAT(err_, HasSubstr("it holds more than a cache can"));
    EXPECT_TRUE(fs::is_empty(other_));
}

// ---- Files --------------------------------------------------------------------------------------

TEST_F(ArchiveTest, AnArchiveNeedsAKnownEnding) {
    MakeCache(ThreeEffects());
    for (const char* name : {"a", "a.zip", "a.tar.xz", "tar", "a.tar.gz.bak"}) {
        EXPECT_EQ(Run({"export", cache_, File(name)}), kUsage) << name;
        EXPECT_THAT(err_, HasSubstr("the name of an archive ends in .tar, .tar.gz or .tar.zst"));
        EXPECT_FALSE(fs::exists(File(name)));
    }
    EXPECT_EQ(Run({"export", cache_, "-", "--json"}), kUsage);
    EXPECT_EQ(out_, "");
}

TEST_F(ArchiveTest, AFailedExportLeavesTheOldArchiveAndNoPart) {
    std::ofstream(File("a.tar")) << "old";
    const auto expectOld = [&] {
        EXPECT_EQ(ReadText(File("a.tar")), "old");
        for (const auto& entry : fs::directory_iterator(cache_)) {
            EXPECT_THAT(entry.path().filename().string(),
                        testing::AnyOf("a.tar", "other", "vornFxoCache.dat"));
        }
    };
    EXPECT_EQ(Run({"export", cache_, File("a.tar")}), kNo);
    EXPECT_THAT(err_, HasSubstr("there is no vornFxoCache.dat in the directory"));
    expectOld();
    MakeCache(ThreeEffects());
    EXPECT_EQ(Run({"export", cache_, File("a.tar"), "--match", "none"}), kNo);
    expectOld();
    fs::create_directory(File("d.tar"));
    EXPECT_EQ(Run({"export", cache_, File("d.tar")}), kFailed);
    EXPECT_THAT(err_, HasSubstr("d.tar: a directory; name a file"));
    fs::remove(File("d.tar"));
    EXPECT_EQ(Run({"export", cache_, File("missing/a.tar")}), kFailed);
    EXPECT_THAT(err_, HasSubstr("missing/a.tar: the output can't be written: "));
    expectOld();
    EXPECT_EQ(Run({"export", cache_, File("a.tar")}), kDone);
    EXPECT_NE(ReadText(File("a.tar")), "old");
}

TEST_F(ArchiveTest, AClosedPipeIsAFailure) {
    MakeCache(ThreeEffects());
    std::istringstream in;
    std::ostream closed(nullptr);
    std::ostringstream err;
    const char* const argv[] = {"quorvel", "export", cache_.c_str(), "-"};
    EXPECT_EQ(RunProgram(4, argv, {in, closed, err}), kFailed);
    EXPECT_THAT(err.str(), HasSubstr("standard output: the output can't be written: "));
}

TEST_F(ArchiveTest, AnArchiveThatIsMissingOrADirectoryIsNamed) {
    EXPECT_EQ(Run({"import", cache_, File("missing.tar")}), kNo);
    EXPECT_THAT(err_, HasSubstr("missing.tar: the archive can't be read: "));
    EXPECT_EQ(Run({"import", cache_, other_}), kFailed);
    EXPECT_THAT(err_, HasSubstr("other: "));
    EXPECT_FALSE(fs::exists(CacheFile()));
    EXPECT_EQ(Run({"import", File("missing"), File("missing.tar")}), kNo);
    EXPECT_THAT(err_, HasSubstr("missing: no such file or directory"));
}

TEST_F(ArchiveTest, AnImportThatCannotWriteChangesNothing) {
    MakeCache(OddEffects());
    ASSERT_EQ(Run({"export", cache_, File("a.tar")}), kDone);
    MakeCache(ThreeEffects());
    const Format::Bytes before = FileBytes();
    const std::string old = Content(cache_);
    std::uint64_t writes = 0;
    {
        const Testing::StdioFault none(Testing::StdioCall::Write, 0, ~std::uint64_t{0});
        EXPECT_EQ(Run({"import", cache_, File("a.tar")}), kDone) << err_;
        writes = none.Calls();
    }
    const std::string done = Content(cache_);
    int failed = 0;
    for (std::uint64_t i = 0; i < 25; ++i) {
        Format::WriteWholeFile(CacheFile(), before);
        const Testing::StdioFault full(Testing::StdioCall::Write, ENOSPC, writes * i / 25, 1);
        // If there is no room for spare pages, a save does without them.
        const int result = Run({"import", cache_, File("a.tar")});
        EXPECT_EQ(full.Failures(), 1U);
        if (result == kDone) {
            EXPECT_TRUE(Content(cache_) == done) << i;
            continue;
        }
        ++failed;
        EXPECT_EQ(result, kFailed);
        EXPECT_THAT(err_, HasSubstr("nothing was changed"));
        EXPECT_TRUE(Content(cache_) == old) << i;
        EXPECT_FALSE(fs::exists(CacheFile() + "-journal"));
    }
    EXPECT_GT(failed, 10);
}

}  // namespace
}  // namespace Quorvel::Tool
