#include <chrono>
#include <csignal>
#include <fstream>
#include <iostream>
#include <thread>

#include "effectcache/SharedCache.h"
#include "support/Agent.h"
#include "support/ChildProcess.h"
#include "tool/ToolTest.h"
#include "tools/quorvel/Terminal.h"

// Ctrl-C. On Windows it goes to all processes of a console and can't be sent to one.
namespace Quorvel::Tool {
namespace {

using Testing::ChildProcess;
using testing::HasSubstr;

// Runs the program. Tells the test when it begins, and sends it the program's messages.
QUORVEL_AGENT(RunTool) {
    CatchStopRequests();
    Testing::AgentSend("begins");
    std::vector<const char*> argv = {"quorvel"};
    for (const std::string& argument : arguments) {
        argv.push_back(argument.c_str());
    }
    return RunProgram(static_cast<int>(argv.size()), argv.data(), {std::cin, std::cout, std::cout});
}

class StopTest : public ToolTest {
protected:
    static void Stop(const ChildProcess& process, int signal) {
        ASSERT_EQ(::kill(static_cast<pid_t>(process.Id()), signal), 0);
    }

    // Returns once the process is waiting for input.
    static void AwaitRead(const ChildProcess& process) {
        const std::string path = "/proc/" + std::to_string(process.Id()) + "/syscall";
        for (std::string number, descriptor; descriptor != "0x0";) {
            std::this_thread::yield();
            std::ifstream(path) >> number >> descriptor;
        }
    }
};

TEST_F(StopTest, WatchEndsWithoutAnError) {
    MakeCache(ThreeEffects());
    for (const int signal : {SIGINT, SIGTERM}) {
        ChildProcess watch("RunTool", {"watch", cache_, "--interval", "3600"});
        EXPECT_EQ(watch.Receive(), "begins");
        EXPECT_THAT(watch.Receive(), testing::EndsWith("watching"));
        Stop(watch, signal);
        EXPECT_EQ(watch.Wait(), kDone);
    }
}

TEST_F(StopTest, ACommandThatWaitsForInputChangesNothing) {
    MakeCache(ThreeEffects());
    const Format::Bytes before = FileBytes();
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"clear", cache_}, {"put", cache_, "new", "-"}, {"import", cache_, "-"}}) {
        ChildProcess command("RunTool", arguments);
        EXPECT_EQ(command.Receive(), "begins");
        // Half of the input has arrived, except for clear, which expects a one-line answer.
        if (arguments[0] != "clear") { ASSERT_TRUE(command.Send("the beginning")); }
        AwaitRead(command);
        Stop(command, SIGINT);
        EXPECT_THAT(command.Receive(), HasSubstr("quorvel: stopped")) << arguments[0];
        EXPECT_EQ(command.Wait(), kFailed) << arguments[0];
        EXPECT_EQ(FileBytes(), before) << arguments[0];
    }
}

TEST_F(StopTest, AStoppedChangeIsUndone) {
    std::vector<Format::NewEffect> effects;
    for (int i = 0; i < 2000; ++i) {
        effects.push_back({"effect " + std::to_string(i), Format::Bytes(4000, 1)});
    }
    MakeCache(effects);
    const Format::Bytes before = FileBytes();
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"compact", cache_}, {"prune", cache_, "--max-effects", "10"}}) {
        int stopped = 0;
        for (int delay = 0; delay < 40; delay += 2) {
            Format::WriteWholeFile(CacheFile(), before);
            ChildProcess command("RunTool", arguments);
            EXPECT_EQ(command.Receive(), "begins");
            std::this_thread::sleep_for(std::chrono::milliseconds(delay));
            Stop(command, SIGINT);
            const int result = command.Wait();
            if (result == kDone) { break; }
            EXPECT_EQ(result, kFailed);
            ++stopped;
            EXPECT_EQ(RunJson({"list", cache_}).size(), 2000U);
        }
        EXPECT_GT(stopped, 0) << arguments[0];
    }
}

TEST_F(StopTest, NoCommandWaitsOnForTheLock) {
    MakeCache(ThreeEffects());
    SharedCache held(CStr(cache_.c_str()));
    ASSERT_EQ(held.Mutex().Acquire(0), kWaitAcquired);
    ChildProcess list("RunTool", {"list", cache_, "--timeout", "3600"});
    EXPECT_EQ(list.Receive(), "begins");
    Stop(list, SIGTERM);
    EXPECT_EQ(list.Wait(), kFailed);
    held.Mutex().Release();
}

}  // namespace
}  // namespace Quorvel::Tool
