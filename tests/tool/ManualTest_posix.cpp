#include <cstdlib>

#include "tool/ToolTest.h"

// Runs bash.
namespace Quorvel::Tool {
namespace {

class BashTest : public ToolTest {};

TEST_F(BashTest, CompletesCommandsOptionsChoicesAndFiles) {
    EXPECT_EQ(Run({"generate", "bash"}), kDone);
    Format::WriteWholeFile(File("completion"), {out_.begin(), out_.end()});
    const auto complete = [&](const std::string& words, int count) {
        const std::string command = "bash -c '. " + File("completion") + "; COMP_WORDS=(" + words +
                                    "); COMP_CWORD=" + std::to_string(count) +
                                    "; _quorvel; echo \"${COMPREPLY[*]}\"' > " + File("answer");
        EXPECT_EQ(std::system(command.c_str()), 0);
        const Format::Bytes answer = Format::ReadWholeFile(File("answer"));
        return std::string(answer.begin(), answer.end());
    };
    EXPECT_EQ(complete("quorvel inf", 1), "info\n");
    EXPECT_EQ(complete("quorvel list --sort t", 3), "time\n");
    EXPECT_EQ(complete("quorvel prune --older", 2), "--older-than\n");
    EXPECT_EQ(complete("quorvel info " + File("compl"), 2), File("completion") + "\n");
}

}  // namespace
}  // namespace Quorvel::Tool
