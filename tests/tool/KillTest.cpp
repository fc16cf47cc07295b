#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <thread>

#include "support/Agent.h"
#include "support/ChildProcess.h"
#include "tool/ToolTest.h"

namespace Quorvel::Tool {
namespace {

using Clock = std::chrono::steady_clock;
using Testing::ChildProcess;

// Runs the program, and tells the test when it begins.
QUORVEL_AGENT(RunCommand) {
    std::vector<const char*> argv = {"quorvel"};
    for (const std::string& argument : arguments) {
        argv.push_back(argument.c_str());
    }
    std::stringstream streams;
    Testing::AgentSend("begins");
    return RunProgram(static_cast<int>(argv.size()), argv.data(), {streams, streams, streams});
}

// Each command is killed QUORVEL_TOOL_KILLS times, at moments spread over its run.
class KillTest : public ToolTest {
protected:
    static int Kills() {
        const char* const kills = std::getenv("QUORVEL_TOOL_KILLS");
        return kills ? std::atoi(kills) : 6;
    }

    static std::vector<Format::NewEffect> Effects(std::size_t first, std::size_t count) {
        std::vector<Format::NewEffect> effects;
        for (std::size_t i = first; i < first + count; ++i) {
            effects.push_back({"effect " + std::to_string(i),
                               Format::Bytes(100 + i * 7919 % 12000, static_cast<std::uint8_t>(i)),
                               i % 10 == 0,
                               {2020, 1, 1, 0, 0, static_cast<std::uint16_t>(i % 60), 0}});
        }
        return effects;
    }

    // What the cache holds: its list, and the bytes of every effect.
    std::string Content() {
        EXPECT_EQ(Run({"list", cache_, "--long"}), kDone) << err_;
        const Format::Bytes file = FileBytes();
        EXPECT_THAT(Format::CheckEffectCache(file), testing::IsEmpty());
        for (const auto& [name, effect] :
             Format::ReadEffectCache(Format::ReadPackage(file, Format::kCacheStreamLimit))) {
            out_.append(effect.data.begin(), effect.data.end());
        }
        return out_;
    }

    void ExpectOldOrNew(const Format::Bytes& file, const std::vector<std::string>& command) {
        Format::WriteWholeFile(CacheFile(), file);
        const std::string old = Content();
        Clock::duration duration{};
        {
            ChildProcess child("RunCommand", command);
            child.Receive();
            const Clock::time_point begin = Clock::now();
            ASSERT_EQ(child.Wait(), kDone);
            duration = Clock::now() - begin;
        }
        const std::string done = Content();
        int killed = 0;
        for (int i = 0; i < Kills(); ++i) {
            Format::WriteWholeFile(CacheFile(), file);
            ChildProcess child("RunCommand", command);
            child.Receive();
            std::this_thread::sleep_for(duration * i / Kills());
            child.Kill();
            killed += child.Wait() == -1 ? 1 : 0;
            const std::string content = Content();
            EXPECT_TRUE(content == old || content == done) << command[0] << " killed at " << i;
            EXPECT_FALSE(std::filesystem::exists(CacheFile() + "-journal"));
        }
        EXPECT_GT(killed, 0) << command[0];
    }
};

TEST_F(KillTest, LeavesTheOldCacheOrTheNewOne) {
    Format::EffectCacheLayout layout;
    layout.package.freePages = 2000;
    layout.package.pageOrder = Format::PageOrder::kShuffled;
    const Format::Bytes file = Format::WriteEffectCache(Effects(0, 1500), layout);
    ExpectOldOrNew(file, {"compact", cache_});
    ExpectOldOrNew(file, {"prune", cache_, "--max-effects", "700"});
    ExpectOldOrNew(file, {"remove", cache_, "--match", "*[1-6]"});
    ExpectOldOrNew(file, {"clear", cache_, "--yes"});
    Format::WriteWholeFile(File("other.dat"), Format::WriteEffectCache(Effects(1000, 1500)));
    ASSERT_EQ(Run({"export", File("other.dat"), File("other.tar")}), kDone);
    ExpectOldOrNew(file, {"merge", cache_, File("other.dat"), "--prefer", "source"});
    ExpectOldOrNew(file, {"import", cache_, File("other.tar"), "--prefer", "source"});
}

}  // namespace
}  // namespace Quorvel::Tool
