#include "tool/ToolTest.h"

namespace Quorvel::Tool {
namespace {

using testing::HasSubstr;

class ManualTest : public ToolTest {
protected:
    // The names of the commands, from the program's help.
    std::vector<std::string> Commands() {
        EXPECT_EQ(Run({"--help"}), kDone);
        std::vector<std::string> commands;
        std::istringstream lines(out_.substr(out_.find("Subcommands:")));
        std::string line;
        std::getline(lines, line);
        while (std::getline(lines, line) && line.starts_with("  ")) {
            commands.push_back(line.substr(2, line.find(' ', 2) - 2));
        }
        return commands;
    }

    std::string Generate(const std::string& kind) {
        EXPECT_EQ(Run({"generate", kind}), kDone);
        return out_;
    }
};

TEST_F(ManualTest, NamesEveryCommand) {
    const std::vector<std::string> commands = Commands();
    EXPECT_GE(commands.size(), 9U);
    for (const char* kind : {"man", "bash", "zsh", "fish"}) {
        const std::string text = Generate(kind);
        for (const std::string& command : commands) {
            EXPECT_THAT(text, HasSubstr(command)) << kind;
        }
        EXPECT_THAT(text, Not(HasSubstr("generate"))) << kind;
    }
}

TEST_F(ManualTest, SaysWhatOptionsMeanAndWhatIsTakenIfTheyAreLeftOut) {
    const std::string page = Generate("man");
    EXPECT_THAT(page, HasSubstr("\\fBquorvel prune\\fR [\\fIOPTION\\fR]... \\fICACHE\\fR"));
    EXPECT_THAT(
        page, HasSubstr("\\fB\\-\\-older\\-than\\fR \\fIOLDER\\-THAN\\fR\nremove effects not used "
                        "for this long"));
    EXPECT_THAT(page, HasSubstr("\\fB\\-\\-sort\\fR \\fIname|size|time\\fR\n"));
    EXPECT_THAT(page, HasSubstr("seconds to wait for the cache's lock (10 if left out)"));
}

TEST_F(ManualTest, OffersTheChoicesOfAnOption) {
    EXPECT_THAT(Generate("bash"), HasSubstr("--sort) words='name size time' ;;"));
    EXPECT_THAT(Generate("zsh"), HasSubstr(":value:(name size time)'"));
    EXPECT_THAT(Generate("fish"), HasSubstr(" -l sort -x -a 'name size time' "));
}

}  // namespace
}  // namespace Quorvel::Tool
