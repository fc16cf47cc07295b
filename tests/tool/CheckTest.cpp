#include <filesystem>

#include "examples/effecthost/CachedEffect.h"
#include "format/PackageWriter.h"
#include "tool/InterruptedSave.h"
#include "tool/ToolTest.h"

namespace Quorvel::Tool {
namespace {

using namespace Quorvel::Format;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

class CheckTest : public ToolTest {
protected:
    int CheckFile(const Bytes& file, std::vector<std::string> arguments = {}) {
        WriteWholeFile(file_, file);
        arguments.insert(arguments.begin(), {"check", file_});
        return Run(arguments);
    }

    // A package with five problems: pages 12 to 16 belong to nothing.
    static Bytes FiveProblems() {
        PackageImage image = LayOutPackage({}, {}, {});
        image.links = {0, 1, 0, 0, 0, 0, 0};
        return EncodePackage(image);
    }

    const std::string file_ = File("file");
};

TEST_F(CheckTest, SummarisesASoundPackageInOneLine) {
    EXPECT_EQ(CheckFile(WritePackage({{0, Bytes(8200)}, {1, Bytes(1)}}, {})), kDone);
    EXPECT_EQ(out_, file_ +
                        ": package, 2 streams of 8201 bytes, 10 pages (0 free, 0 unowned, 0 dead), "
                        "1 tail block, 0 problems\n");
}

TEST_F(CheckTest, SummarisesASoundEffectCacheInOneLine) {
    MakeCache(ThreeEffects());
    EXPECT_EQ(Run({"check", cache_}), kDone);
    EXPECT_THAT(out_, HasSubstr(": effect cache, 4 streams of "));
    EXPECT_THAT(out_, testing::EndsWith(" 0 problems\n"));
}

TEST_F(CheckTest, CountsThePagesOfTheFileByTheirUse) {
    PackageLayout layout;
    layout.freePages = 2;
    layout.freePagesAtEnd = 50;  // past the end
    PackageImage image = LayOutPackage({{0, Bytes(8192)}}, {}, layout);
    Bytes file = EncodePackage(image);
    file.resize(file.size() + 50 * Format::kPageSize + 3 * Format::kPageSize);
    EXPECT_EQ(CheckFile(file), kDone);
    EXPECT_THAT(out_, HasSubstr(", 57 pages (52 free, 0 unowned, 3 dead), "));
    EXPECT_EQ(CheckFile(FiveProblems()), kNo);
    EXPECT_THAT(out_, HasSubstr(", 1 page (0 free, 0 unowned, 0 dead), "));
    file = FiveProblems();
    file.resize(3 * Format::kPageSize);
    EXPECT_EQ(CheckFile(file), kNo);
    EXPECT_THAT(out_, HasSubstr(", 3 pages (1 free, 1 unowned, 0 dead), "));
}

TEST_F(CheckTest, SaysWhatItCannotSee) {
    MakeCache(ThreeEffects());
    EXPECT_EQ(Run({"check", cache_}), kDone);
    EXPECT_THAT(err_, HasSubstr("contents of streams have no checksum"));
    EXPECT_EQ(Run({"check", cache_, "--quiet"}), kDone);
    EXPECT_EQ(err_, "");
    EXPECT_EQ(CheckFile(FiveProblems()), kNo);
    EXPECT_THAT(err_, HasSubstr("contents of streams have no checksum"));
}

TEST_F(CheckTest, PrintsEachProblemOnItsOwnLine) {
    PackageImage image = LayOutPackage({}, {}, {});
    image.links = {0, 0, 5};
    EXPECT_EQ(CheckFile(EncodePackage(image)), kNo);
    EXPECT_THAT(out_, testing::EndsWith(" 0 tail blocks, 3 problems\n"
                                        "page 12 has the link 5\n"
                                        "page 11 is in use, but belongs to nothing\n"
                                        "page 12 is in use, but belongs to nothing\n"));
}

TEST_F(CheckTest, PrintsOnlySoManyProblemsButCountsAll) {
    EXPECT_EQ(CheckFile(FiveProblems(), {"--max-problems", "2"}), kNo);
    EXPECT_THAT(out_, testing::EndsWith(" 5 problems\n"
                                        "page 12 is in use, but belongs to nothing\n"
                                        "page 13 is in use, but belongs to nothing\n"
                                        "and 3 more; --max-problems shows more\n"));
}

TEST_F(CheckTest, FindsProblemsInTheEffectCache) {
    CacheHeader header;
    header.version = 6;
    EXPECT_EQ(CheckFile(WritePackage({}, EncodeHeaderBlock(header))), kNo);
    EXPECT_THAT(out_, HasSubstr("\nno intact effect cache: the cache's version is 6\n"));
}

TEST_F(CheckTest, EscapesTheNamesOfEffects) {
    const PackageImage image = LayOutEffectCache(ThreeEffects(), {});
    Bytes file = EncodePackage(image);
    StoreInteger(file, PageOffset(image.streams[3].firstPage), 8, 1);
    EXPECT_EQ(CheckFile(file), kNo);
    EXPECT_THAT(out_, HasSubstr("\neffect \"tab\\x09here\\\\\\xFF\" of 10000 bytes can't be read"));
}

TEST_F(CheckTest, CallsAFileWithoutAPackageDamaged) {
    EXPECT_EQ(CheckFile(Bytes(5)), kNo);
    EXPECT_EQ(out_, file_ + ": no intact package, 1 problem\nthe file has no first page\n");
}

TEST_F(CheckTest, ReadsNoMoreOfAnEffectThanAnEffectMayHave) {
    const PackageImage image = LayOutEffectCache(ThreeEffects(), {});
    Bytes file = EncodePackage(image);
    std::map<std::uint64_t, Bytes> streams = ReadAllStreams(image);
    streams[1] = Bytes(kEffectSizeLimit + 9);
    EXPECT_EQ(CheckFile(WritePackage(streams, image.headerData)), kNo);
    EXPECT_THAT(out_, HasSubstr("can't be read: the data stream has 1048585 bytes\n"));
}

TEST_F(CheckTest, ChecksSeveralCachesAndGoesOnAfterOneThatItCannot) {
    MakeCache(ThreeEffects());
    WriteWholeFile(file_, Bytes(5));
    EXPECT_EQ(Run({"check", file_, File("missing"), cache_}), kNo);
    EXPECT_THAT(out_, HasSubstr(file_ + ": no intact package"));
    EXPECT_THAT(out_, HasSubstr(": effect cache, "));
    EXPECT_THAT(err_, HasSubstr(File("missing") + ": no such file or directory"));

    EXPECT_EQ(Run({"check", file_, File("missing"), cache_, "--json"}), kNo);
    const Json json = Json::parse(out_);
    ASSERT_EQ(json.size(), 3U);
    EXPECT_EQ(json[0]["kind"], "no intact package");
    EXPECT_EQ(json[0]["problems"], Json({"the file has no first page"}));
    EXPECT_EQ(json[1]["path"], File("missing"));
    EXPECT_THAT(json[1]["error"].get<std::string>(), HasSubstr("no such file or directory"));
    EXPECT_EQ(json[2]["problemCount"], 0);
}

TEST_F(CheckTest, PrintsJson) {
    WriteWholeFile(file_, FiveProblems());
    EXPECT_EQ(Run({"check", file_, "--json", "--max-problems", "1"}), kNo);
    EXPECT_EQ(Json::parse(out_),
              Json::parse(R"([{
        "path": )" + Json(file_).dump() +
                          R"(, "kind": "package", "streams": {"count": 0, "bytes": 0},
        "pages": {"file": 1, "free": 0, "unowned": 0, "dead": 0}, "tailBlocks": 0,
        "contentsChecked": false, "problemCount": 5,
        "problems": ["page 12 is in use, but belongs to nothing"], "notes": []}])"));
    EXPECT_EQ(err_, "");
}

TEST_F(CheckTest, VerifiesTheChecksumsOfTheExampleHost) {
    std::vector<NewEffect> effects;
    for (const char* const name : {"one", "two"}) {
        effects.push_back({name, EffectHost::PackCachedEffect(name, {1, {1, 2, 3}})});
    }
    MakeCache(effects);
    EXPECT_EQ(Run({"check", cache_, "--effects-format", "effecthost"}), kDone);
    EXPECT_EQ(err_, "");
    effects[1].data[33] ^= 1;
    MakeCache(effects);
    EXPECT_EQ(Run({"check", cache_}), kDone);
    EXPECT_EQ(Run({"check", cache_, "--effects-format", "effecthost", "--json"}), kNo);
    const Json json = Json::parse(out_);
    EXPECT_EQ(json[0]["problems"], Json({"effect \"two\" has a wrong checksum"}));
    EXPECT_EQ(json[0]["contentsChecked"], true);
    EXPECT_EQ(Run({"check", cache_, "--effects-format", "other"}), kUsage);
}

TEST_F(CheckTest, SaysOfflineThatASaveWasInterrupted) {
    MakeCache(ThreeEffects());
    InterruptSave(CacheFile(), 12);
    const Bytes interrupted = FileBytes();
    EXPECT_EQ(Run({"check", "--offline", cache_}), kNo);
    EXPECT_THAT(out_, HasSubstr("note: a save was interrupted; without --offline, it is undone"));
    EXPECT_TRUE(FileBytes() == interrupted);
    EXPECT_EQ(Run({"check", cache_}), kDone);

    InterruptSave(CacheFile(), 12);
    std::filesystem::remove(CacheFile() + "-journal");
    EXPECT_EQ(Run({"check", cache_}), kNo);
    EXPECT_THAT(out_, HasSubstr("note: a save was interrupted, and the journal that could undo it "
                                "is missing"));
}

TEST_F(CheckTest, SaysWhenThereIsNothingToCheck) {
    EXPECT_EQ(Run({"check", cache_}), kNo);
    EXPECT_THAT(err_, HasSubstr("there is no vornFxoCache.dat in the directory"));
    // A path, although some programs begin options with a slash.
    EXPECT_EQ(Run({"check", "/missing"}), kNo);
    EXPECT_THAT(err_, HasSubstr("/missing: no such file or directory"));
    EXPECT_EQ(Run({"check"}), kUsage);
    EXPECT_EQ(out_, "");
}

}  // namespace
}  // namespace Quorvel::Tool
