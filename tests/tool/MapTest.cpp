#include <algorithm>
#include <cctype>
#include <filesystem>
#include <map>
#include <regex>

#include "format/PackageWriter.h"
#include "tool/ToolTest.h"

namespace Quorvel::Tool {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class MapTest : public ToolTest {
protected:
    // A package without effects, whose streams have the ids 3 and 5.
    void MakePackage() const {
        const std::map<std::uint64_t, Format::Bytes> streams = {{3, Format::Bytes(20000, 1)},
                                                                {5, Format::Bytes(10, 2)}};
        Format::WriteWholeFile(package_, Format::WritePackage(streams, {}));
    }

    // Overwrites the index of the cache's file, so that it can't be read.
    void DamageIndex() const {
        Format::Bytes bytes = FileBytes();
        const Format::PackageImage image = Format::ReadPackage(bytes);
        const std::uint64_t index = Format::ReadCacheHeader(image.headerData).indexStream;
        for (const std::uint64_t page : Format::StreamReader(image).Pages(index)) {
            std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(Format::PageOffset(page)),
                        Format::kPageSize, std::uint8_t{0xFF});
        }
        Format::WriteWholeFile(CacheFile(), bytes);
    }

    // The data in the report that was printed.
    Json Data() const {
        const std::string start = "<script id=\"data\" type=\"application/json\">";
        const std::size_t from = out_.find(start) + start.size();
        return Json::parse(out_.substr(from, out_.find("</script>", from) - from));
    }

    // The pages of each kind in the data's runs, as "info --json" gives them.
    static Json CountPages(const Json& data) {
        const std::vector<std::string> kinds = {"head", "index",   "effects", "tails",
                                                "free", "unowned", "dead"};
        Json pages = {{"file", 0}};
        for (const std::string& kind : kinds) {
            pages[kind] = 0;
        }
        for (std::size_t i = 0; i < data["runs"].size(); i += 3) {
            Json& count = pages[kinds.at(data["runs"][i])];
            count = count.get<int>() + data["runs"][i + 2].get<int>();
            pages["file"] = pages["file"].get<int>() + data["runs"][i + 2].get<int>();
        }
        return pages;
    }

    const std::string package_ = File("package");
};

TEST_F(MapTest, ShowsTheFiguresOfInfo) {
    MakeCache(ThreeEffects());
    ASSERT_EQ(Run({"map", cache_}), kDone) << err_;
    const Json facts = Data()["facts"];
    const Json info = RunJson({"info", cache_});
    for (const char* key :
         {"path", "kind", "fileSize", "effects", "streams", "pages", "tailBlocks"}) {
        EXPECT_EQ(facts[key], info[key]) << key;
    }
}

TEST_F(MapTest, ShowsAsManyPagesOfEachKindAsInfoCounts) {
    Format::EffectCacheLayout layout;
    layout.package.pageOrder = Format::PageOrder::kShuffled;
    layout.package.freePages = 7;
    std::vector<Format::NewEffect> effects;
    for (int i = 0; i < 100; ++i) {
        effects.push_back({"effect " + std::to_string(i), Format::Bytes(std::size_t(1 + 700 * i))});
    }
    Format::Bytes bytes = Format::WriteEffectCache(effects, layout);
    bytes.resize(bytes.size() + 3 * Format::kPageSize);  // dead pages
    Format::WriteWholeFile(CacheFile(), bytes);
    const Json pages = RunJson({"info", cache_})["pages"];
    ASSERT_GE(pages["free"], 7);
    ASSERT_EQ(pages["dead"], 3);
    ASSERT_EQ(Run({"map", cache_}), kDone);
    EXPECT_EQ(CountPages(Data()), pages);
}

TEST_F(MapTest, NamesTheOwnersOfPagesAndTails) {
    MakeCache(ThreeEffects());
    ASSERT_EQ(Run({"map", cache_}), kDone);
    const Json data = Data();
    EXPECT_EQ(data["names"], Json::parse(R"(["a", "bb", "tab\\x09here\\\\\\xFF"])"));
    EXPECT_EQ(data["permanent"], Json::parse("[0, 1, 0]"));
    EXPECT_EQ(data["times"][1], "2002-02-03T04:05:06.007");
    // The three effects are followed by the index, the only other stream. All tails lie in one
    // block.
    EXPECT_EQ(data["index"], 3);
    EXPECT_EQ(data["tails"], Json::parse("[1, 1, 1, 1]"));
    EXPECT_EQ(data["blocks"].size(), 1U);
    std::map<int, int> pagesOfEffects;
    for (std::size_t i = 0; i < data["runs"].size(); i += 3) {
        if (data["runs"][i] == 2) {
            pagesOfEffects[data["runs"][i + 1]] += data["runs"][i + 2].get<int>();
        }
    }
    EXPECT_EQ(pagesOfEffects, (std::map<int, int>{{2, 1}}));
}

TEST_F(MapTest, NoNameEndsTheScript) {
    const std::string name = "</script><script>alert(1)</script><!--\"'\\\n\xFF";
    MakeCache({{name, {1}}});
    ASSERT_EQ(Run({"map", cache_}), kDone);
    EXPECT_THAT(out_, Not(HasSubstr("alert(1)</script>")));
    EXPECT_THAT(out_, Not(HasSubstr("<!--")));
    EXPECT_EQ(Data()["names"][0], "</script><script>alert(1)</script><!--\"'\\\\\\x0A\\xFF");
}

TEST_F(MapTest, ReportNeedsNoOtherFile) {
    MakeCache(ThreeEffects());
    ASSERT_EQ(Run({"map", cache_}), kDone);
    EXPECT_THAT(out_, StartsWith("<!doctype html>"));
    for (const char* reference : {"http:", "https:", "src=", "url(", "@import", "fetch("}) {
        EXPECT_THAT(out_, Not(HasSubstr(reference)));
    }
    EXPECT_THAT(out_, HasSubstr("default-src 'none'"));
    EXPECT_FALSE(std::regex_search(out_, std::regex("@[a-z]+@"))) << "a part is missing";
}

TEST_F(MapTest, ShowsStreamsOfAPackageWithoutEffects) {
    MakePackage();
    ASSERT_EQ(Run({"map", package_}), kDone) << err_;
    const Json data = Data();
    EXPECT_EQ(data["facts"]["kind"], "package");
    EXPECT_EQ(data["names"], Json::array());
    EXPECT_EQ(data["streams"], Json::parse("[3, 5]"));
    EXPECT_EQ(data["sizes"], Json::parse("[20000, 10]"));
    EXPECT_EQ(CountPages(data), RunJson({"info", package_})["pages"]);
}

TEST_F(MapTest, ShowsAnEmptyCache) {
    MakeCache({});
    ASSERT_EQ(Run({"map", cache_}), kDone) << err_;
    EXPECT_EQ(Data()["names"], Json::array());
    EXPECT_EQ(Run({"map", cache_, "--svg"}), kDone);
}

TEST_F(MapTest, ShowsStreamsIfOnlyTheIndexIsDamaged) {
    MakeCache(ThreeEffects());
    DamageIndex();
    EXPECT_EQ(Run({"map", cache_}), kNo);
    EXPECT_THAT(err_, HasSubstr("damaged: "));
    EXPECT_THAT(err_, HasSubstr("the report shows streams instead of effects"));
    const Json data = Data();
    EXPECT_NE(data["facts"]["damage"], "");
    EXPECT_EQ(data["facts"]["kind"], "package");
    EXPECT_EQ(data["streams"].size(), 4U);
    EXPECT_EQ(CountPages(data)["file"], FileBytes().size() / Format::kPageSize);
}

TEST_F(MapTest, RefusesAFileWhoseStateIsDamaged) {
    Format::WriteWholeFile(CacheFile(), Format::Bytes(20000, 0xFF));
    EXPECT_EQ(Run({"map", cache_, "-o", File("report.html")}), kNo);
    EXPECT_THAT(err_, HasSubstr("damaged, or no package: "));
    EXPECT_EQ(out_, "");
    EXPECT_FALSE(std::filesystem::exists(File("report.html")));
}

TEST_F(MapTest, WritesAFileOrStandardOutput) {
    MakeCache(ThreeEffects());
    ASSERT_EQ(Run({"map", cache_, "--svg"}), kDone);
    const std::string picture = out_;
    EXPECT_EQ(Run({"map", cache_, "--svg", "-o", "-"}), kDone);
    EXPECT_EQ(out_, picture);
    EXPECT_EQ(Run({"map", cache_, "--svg", "-o", File("picture.svg")}), kDone);
    EXPECT_EQ(out_ + err_, "");
    const Format::Bytes file = Format::ReadWholeFile(File("picture.svg"));
    EXPECT_EQ(std::string(file.begin(), file.end()), picture);
}

TEST_F(MapTest, SaysThatAFileCannotBeWritten) {
    MakeCache(ThreeEffects());
    EXPECT_EQ(Run({"map", cache_, "-o", File("missing/report.html")}), kFailed);
    EXPECT_THAT(err_, HasSubstr("report.html: the output can't be written: "));
}

TEST_F(MapTest, DoesNotReplaceTheCacheByTheReport) {
    MakeCache(ThreeEffects());
    const Format::Bytes before = FileBytes();
    EXPECT_EQ(Run({"map", cache_, "-o", CacheFile()}), kUsage);
    EXPECT_THAT(err_, HasSubstr("the output would replace the cache"));
    EXPECT_EQ(FileBytes(), before);
}

TEST_F(MapTest, DrawsAllPagesInThePictureAlone) {
    MakeCache(ThreeEffects());
    const Json pages = RunJson({"info", cache_})["pages"];
    ASSERT_EQ(Run({"map", cache_, "--svg"}), kDone);
    EXPECT_THAT(out_, StartsWith("<svg xmlns="));
    Json drawn;
    const std::regex path("<path class=\"([a-z]+)\" d=\"([^\"]+)\"/>");
    for (std::sregex_iterator i(out_.begin(), out_.end(), path), end; i != end; ++i) {
        const std::string strokes = (*i)[2];
        int count = 0;
        const std::regex length("h([0-9]+)");
        for (std::sregex_iterator k(strokes.begin(), strokes.end(), length); k != end; ++k) {
            count += std::stoi((*k)[1]);
        }
        drawn[(*i)[1]] = count;
    }
    for (const auto& [kind, count] : pages.items()) {
        if (kind != "file") { EXPECT_EQ(drawn.value(kind, 0), count) << kind; }
    }
}

TEST_F(MapTest, DrawsAdjacentPagesOfOneKindAsOneStroke) {
    MakeCache({{"a", Format::Bytes(20 * 8192)}, {"b", Format::Bytes(20 * 8192)}});
    ASSERT_EQ(Run({"map", cache_, "--svg"}), kDone);
    const std::regex stroke("class=\"effects\" d=\"M[0-9]+ 0h40\"");
    EXPECT_TRUE(std::regex_search(out_, stroke)) << out_;
}

}  // namespace
}  // namespace Quorvel::Tool
