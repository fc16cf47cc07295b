#include <filesystem>

#include "examples/effecthost/CachedEffect.h"
#include "format/PackageWriter.h"
#include "tool/InterruptedSave.h"
#include "tool/ToolTest.h"
#include "tools/quorvel/EffectsFormat.h"

namespace Quorvel::Tool {
namespace {

namespace fs = std::filesystem;
using namespace Quorvel::Format;
using testing::ElementsAre;
using testing::HasSubstr;

class SalvageTest : public ToolTest {
protected:
    SalvageTest() { fs::create_directory(destination_); }

    // What "list --long" prints for a cache of these effects.
    std::string ListOf(const std::vector<NewEffect>& effects) {
        const std::string file = File("expected");
        WriteWholeFile(file, WriteEffectCache(effects));
        EXPECT_EQ(Run({"list", "--long", file}), kDone);
        return out_;
    }

    std::string SavedList() {
        EXPECT_EQ(Run({"list", "--long", destination_}), kDone);
        return out_;
    }

    std::vector<std::string> SavedFiles() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(destination_)) {
            names.push_back(entry.path().filename().string());
        }
        return names;
    }

    // A cache that must be refused, because one page follows two others. The last effect owns it.
    Bytes RefusedCache() const {
        PackageImage image = LayOutEffectCache(ThreeEffects(), {});
        image.links.push_back(image.streams[3].firstPage);
        image.links.push_back(image.streams[3].firstPage);
        Bytes file = EncodePackage(image);
        EXPECT_THROW(ReadPackage(file), FormatError);
        return file;
    }

    const std::string file_ = File("file");
    const std::string destination_ = File("saved");
};

TEST_F(SalvageTest, SavesEverythingOfASoundCache) {
    MakeCache(ThreeEffects());
    const Bytes before = FileBytes();
    EXPECT_EQ(Run({"salvage", cache_, destination_}), kDone);
    EXPECT_EQ(out_, "");
    EXPECT_EQ(err_,
              "saved 3 effects of 9.8 KiB in " + destination_ + "\n" + kContentsUnchecked + "\n");
    EXPECT_TRUE(FileBytes() == before);
    EXPECT_EQ(SavedList(), ListOf(ThreeEffects()));
    const Format::Effects saved =
        ReadEffectCache(ReadPackage(ReadWholeFile(destination_ + "/vornFxoCache.dat")));
    for (const NewEffect& effect : ThreeEffects()) {
        EXPECT_TRUE(saved.at(effect.name).data == effect.data);
    }
    EXPECT_EQ(Run({"check", destination_}), kDone);
}

TEST_F(SalvageTest, LeavesOutWhatIsNotWholeAndSaysWhy) {
    WriteWholeFile(file_, RefusedCache());
    EXPECT_EQ(Run({"salvage", file_, destination_}), kNo);
    EXPECT_EQ(out_, "");
    EXPECT_EQ(err_, "saved 2 effects of 3 bytes in " + destination_ +
                        "\nleft out 1 effect: its chain of pages is broken\n" + kContentsUnchecked +
                        "\n");
    std::vector<NewEffect> rest = ThreeEffects();
    rest.pop_back();
    EXPECT_EQ(SavedList(), ListOf(rest));
}

TEST_F(SalvageTest, NamesWhatIsLeftOutOnRequest) {
    WriteWholeFile(file_, RefusedCache());
    EXPECT_EQ(Run({"salvage", "--verbose", file_, destination_}), kNo);
    EXPECT_EQ(out_, "tab\\x09here\\\\\\xFF: its chain of pages is broken\n");

    fs::remove(destination_ + "/vornFxoCache.dat");
    EXPECT_EQ(Run({"salvage", "--json", file_, destination_}), kNo);
    EXPECT_EQ(Json::parse(out_),
              Json::parse(R"({
        "file": )" + Json(file_).dump() +
                          R"(, "saveUndone": false, "damage": [], "indexComplete": true,
        "saved": 2, "savedBytes": 3, "contentsChecked": false,
        "leftOut": [{"name": "tab\\x09here\\\\\\xFF", "reason": "its chain of pages is broken"}]
        })"));
}

TEST_F(SalvageTest, UndoesAnInterruptedSaveInACopy) {
    MakeCache(ThreeEffects());
    const PackageImage image = ReadPackage(FileBytes());
    InterruptSave(CacheFile(), image.blocks[0].pages[0]);
    const Bytes interrupted = FileBytes();
    const Bytes journal = ReadWholeFile(CacheFile() + "-journal");
    EXPECT_EQ(Run({"salvage", CacheFile(), destination_}), kDone) << err_;
    EXPECT_THAT(err_, HasSubstr("undid the interrupted save, in a copy\n"));
    EXPECT_EQ(SavedList(), ListOf(ThreeEffects()));
    EXPECT_TRUE(FileBytes() == interrupted);
    EXPECT_TRUE(ReadWholeFile(CacheFile() + "-journal") == journal);
    EXPECT_THAT(SavedFiles(), ElementsAre("vornFxoCache.dat"));
}

TEST_F(SalvageTest, GoesOnIfTheJournalCannotBeRead) {
    MakeCache(ThreeEffects());
    const PackageImage image = ReadPackage(FileBytes());
    InterruptSave(CacheFile(), image.streams[3].firstPage);
    fs::remove(CacheFile() + "-journal");
    fs::create_directory(CacheFile() + "-journal");
    EXPECT_EQ(Run({"salvage", CacheFile(), destination_}), kNo);
    EXPECT_THAT(err_, HasSubstr("an interrupted save can't be undone: can't read "));
    EXPECT_THAT(err_, HasSubstr("saved 2 effects"));
    EXPECT_THAT(SavedFiles(), ElementsAre("vornFxoCache.dat"));
}

TEST_F(SalvageTest, TakesWhatAnInterruptedSaveHasLeft) {
    MakeCache(ThreeEffects());
    const PackageImage image = ReadPackage(FileBytes());
    InterruptSave(CacheFile(), image.streams[3].firstPage);
    // The journal of another save is of no use.
    Bytes journal = ReadWholeFile(CacheFile() + "-journal");
    journal[8] ^= 1;
    WriteWholeFile(CacheFile() + "-journal", journal);
    EXPECT_EQ(Run({"salvage", "--json", CacheFile(), destination_}), kNo);
    const Json json = Json::parse(out_);
    EXPECT_EQ(json["saveUndone"], false);
    EXPECT_EQ(json["damage"], Json({"a save was interrupted"}));
    EXPECT_EQ(json["saved"], 2);
    EXPECT_EQ(json["leftOut"][0]["reason"], "its bytes don't begin with its size");
    EXPECT_THAT(SavedFiles(), ElementsAre("vornFxoCache.dat"));
}

TEST_F(SalvageTest, LeavesOutEffectsWithAWrongChecksum) {
    std::vector<NewEffect> effects;
    for (const char* const name : {"one", "two"}) {
        effects.push_back({name, EffectHost::PackCachedEffect(name, {1, {1, 2, 3}})});
    }
    effects[1].data[33] ^= 1;
    MakeCache(effects);
    EXPECT_EQ(Run({"salvage", "--effects-format", "effecthost", cache_, destination_}), kNo);
    EXPECT_THAT(err_, HasSubstr("left out 1 effect: its checksum is wrong\n"));
    EXPECT_EQ(Run({"list", destination_}), kDone);
    EXPECT_EQ(out_, "one\n");
}

TEST_F(SalvageTest, SaysThatThereMayHaveBeenMore) {
    WriteWholeFile(file_, Bytes(10 * Format::kPageSize, 'x'));
    EXPECT_EQ(Run({"salvage", file_, destination_}), kNo);
    EXPECT_THAT(err_, HasSubstr(file_ + ": the link table can't be read to its end"));
    EXPECT_THAT(err_, HasSubstr("saved 0 effects"));
    EXPECT_THAT(err_, HasSubstr("there may have been more effects"));
    EXPECT_THAT(SavedFiles(), testing::IsEmpty());
}

TEST_F(SalvageTest, AddsNothingToACacheThatHasEffects) {
    MakeCache(ThreeEffects());
    EXPECT_EQ(Run({"put", destination_, "there", "-"}, "bytes"), kDone);
    const Bytes before = ReadWholeFile(destination_ + "/vornFxoCache.dat");
    EXPECT_EQ(Run({"salvage", cache_, destination_}), kFailed);
    EXPECT_THAT(err_, HasSubstr("holds 1 effect already; give a directory without a cache"));
    EXPECT_TRUE(ReadWholeFile(destination_ + "/vornFxoCache.dat") == before);

    EXPECT_EQ(Run({"remove", destination_, "there"}), kDone);
    EXPECT_EQ(Run({"salvage", cache_, destination_}), kDone);
    EXPECT_EQ(SavedList(), ListOf(ThreeEffects()));
}

TEST_F(SalvageTest, WritesNothingToTheFileItself) {
    MakeCache(ThreeEffects());
    InterruptSave(CacheFile(), 12);
    const Bytes before = FileBytes();
    for (const std::string& file : {cache_, CacheFile()}) {
        EXPECT_EQ(Run({"salvage", file, cache_}), kUsage);
        EXPECT_THAT(err_, HasSubstr("can't be its own destination"));
    }
    EXPECT_TRUE(FileBytes() == before);
    EXPECT_TRUE(fs::exists(CacheFile() + "-journal"));
}

TEST_F(SalvageTest, RefusesWhatIsMissing) {
    MakeCache(ThreeEffects());
    EXPECT_EQ(Run({"salvage", File("missing"), destination_}), kNo);
    EXPECT_THAT(err_, HasSubstr(File("missing") + ": no such file"));
    EXPECT_EQ(Run({"salvage", cache_, File("missing")}), kUsage);
    EXPECT_THAT(err_, HasSubstr(File("missing") + ": not a directory"));
    EXPECT_EQ(Run({"salvage", cache_, CacheFile()}), kUsage);
    EXPECT_EQ(Run({"salvage", cache_}), kUsage);
}

}  // namespace
}  // namespace Quorvel::Tool
