#include "tools/Tools.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "format/EffectCacheWriter.h"
#include "format/PackageWriter.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Tools {
namespace {

using namespace Quorvel::Format;

class Tool : public testing::Test {
protected:
    using Function = int (*)(int, const char* const*, std::ostream&, std::ostream&);

    int Run(Function tool, const std::vector<std::string>& arguments) {
        std::vector<const char*> argv = {"tool"};
        for (const std::string& argument : arguments) {
            argv.push_back(argument.c_str());
        }
        out_.str("");
        err_.str("");
        return tool(static_cast<int>(argv.size()), argv.data(), out_, err_);
    }

    int RunOnFile(Function tool, const Bytes& file) {
        WriteWholeFile(path_, file);
        return Run(tool, {path_});
    }

    static std::vector<NewEffect> TwoEffects() {
        return {{"tab\tback\\slash", {1, 2, 3}, true, {2024, 2, 29, 23, 59, 58, 999}},
                {"a", {1}, false, {1999, 12, 31, 1, 2, 3, 4}}};
    }

    Testing::TemporaryDirectory directory_;
    std::string path_ = directory_.File("file");
    std::ostringstream out_;
    std::ostringstream err_;
};

TEST_F(Tool, CheckSummarisesASoundPackageInOneLine) {
    EXPECT_EQ(RunOnFile(CheckTool, WritePackage({{0, Bytes(8200)}, {1, Bytes(1)}}, {})), kDone);
    EXPECT_EQ(out_.str(),
              path_ +
                  ": package, 2 streams of 8201 bytes, 10 pages (0 free), 1 tail block, "
                  "0 problems\n");
    EXPECT_EQ(err_.str(), "");
}

TEST_F(Tool, CheckSummarisesASoundEffectCacheInOneLine) {
    EXPECT_EQ(RunOnFile(CheckTool, WriteEffectCache(TwoEffects())), kDone);
    EXPECT_THAT(out_.str(), testing::HasSubstr(": effect cache, 3 streams of "));
    EXPECT_THAT(out_.str(), testing::HasSubstr(" 0 problems\n"));
}

TEST_F(Tool, CheckPrintsEachProblemOnItsOwnLine) {
    PackageImage image = LayOutPackage({}, {}, {});
    image.links = {0, 0, 5};
    EXPECT_EQ(RunOnFile(CheckTool, EncodePackage(image)), kDamaged);
    EXPECT_EQ(out_.str(), path_ +
                              ": package, 0 streams of 0 bytes, 3 pages (0 free), 0 tail blocks, 3 "
                              "problems\n"
                              "page 12 has the link 5\n"
                              "page 11 is in use, but belongs to nothing\n"
                              "page 12 is in use, but belongs to nothing\n");
}

TEST_F(Tool, CheckFindsProblemsInTheEffectCache) {
    CacheHeader header;
    header.version = 6;
    EXPECT_EQ(RunOnFile(CheckTool, WritePackage({}, EncodeHeaderBlock(header))), kDamaged);
    EXPECT_THAT(out_.str(),
                testing::HasSubstr("\nno intact effect cache: the cache's version is 6\n"));
}

TEST_F(Tool, CheckCallsAFileWithoutAPackageDamaged) {
    EXPECT_EQ(RunOnFile(CheckTool, Bytes(5)), kDamaged);
    EXPECT_EQ(out_.str(), path_ + ": no intact package, 1 problem\nthe file has no first page\n");
}

TEST_F(Tool, ListPrintsTheEffectsInKeyOrder) {
    EXPECT_EQ(RunOnFile(ListTool, WriteEffectCache(TwoEffects())), kDone);
    EXPECT_EQ(out_.str(),
              "a\t1\t0\t1999-12-31T01:02:03.004\n"
              "tab\\x09back\\\\slash\t3\t1\t2024-02-29T23:59:58.999\n");
}

TEST_F(Tool, ListPrintsNothingForAnEmptyCache) {
    EXPECT_EQ(RunOnFile(ListTool, WriteEffectCache({})), kDone);
    EXPECT_EQ(out_.str(), "");
}

TEST_F(Tool, ListFailsOnAPackageThatIsNotAnEffectCache) {
    EXPECT_EQ(RunOnFile(ListTool, WritePackage({}, {})), kFailed);
    EXPECT_EQ(out_.str(), "");
    EXPECT_EQ(err_.str(), "quorvel-list: " + path_ + ": the header data has no cache block\n");
}

TEST_F(Tool, FailsIfTheFileCannotBeRead) {
    for (const Function tool : {CheckTool, ListTool}) {
        EXPECT_EQ(Run(tool, {directory_.File("missing")}), kFailed);
        EXPECT_EQ(out_.str(), "");
        EXPECT_THAT(err_.str(), testing::HasSubstr("can't read"));
    }
}

TEST_F(Tool, TreatsAnArgumentThatBeginsWithASlashAsAFile) {
    for (const Function tool : {CheckTool, ListTool}) {
        EXPECT_EQ(Run(tool, {"/missing"}), kFailed);
        EXPECT_THAT(err_.str(), testing::HasSubstr("can't read /missing"));
    }
}

TEST_F(Tool, FailsWithoutAFileAndWithTwoFiles) {
    for (const Function tool : {CheckTool, ListTool}) {
        EXPECT_EQ(Run(tool, {}), kFailed);
        EXPECT_EQ(Run(tool, {"one", "two"}), kFailed);
        EXPECT_EQ(out_.str(), "");
        EXPECT_NE(err_.str(), "");
    }
}

TEST_F(Tool, PrintsHelpOnRequest) {
    for (const Function tool : {CheckTool, ListTool}) {
        EXPECT_EQ(Run(tool, {"--help"}), kDone);
        EXPECT_THAT(out_.str(), testing::HasSubstr("Exit code: 0"));
    }
}

TEST_F(Tool, FailsIfItsOutputCannotBeWritten) {
    WriteWholeFile(path_, WriteEffectCache(TwoEffects()));
    const char* const argv[] = {"tool", path_.c_str()};
    for (const Function tool : {CheckTool, ListTool}) {
        std::ostream closed(nullptr);
        EXPECT_EQ(tool(2, argv, closed, err_), kFailed);
    }
}

}  // namespace
}  // namespace Quorvel::Tools
