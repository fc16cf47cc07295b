#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <ostream>
#include <streambuf>
#include <thread>

#include "format/PackageWriter.h"
#include "quorvel/EffectCacheSystem.h"
#include "tool/ToolTest.h"
#include "tools/quorvel/Cache.h"
#include "vornutil/RefPtr.h"
#include "vornutil/Tab.h"

namespace Quorvel::Tool {
namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

// An output that another thread reads line by line while it is written.
class LiveOutput : public std::streambuf {
public:
    // Waits for the next line.
    std::string Line() {
        std::unique_lock lock(mutex_);
        wake_.wait(lock, [&] { return text_.find('\n', done_) != std::string::npos; });
        const std::size_t end = text_.find('\n', done_);
        const std::string line = text_.substr(done_, end - done_);
        done_ = end + 1;
        return line;
    }

protected:
    int_type overflow(int_type byte) override {
        const char c = traits_type::to_char_type(byte);
        xsputn(&c, 1);
        return byte;
    }

    std::streamsize xsputn(const char* text, std::streamsize size) override {
        const std::lock_guard lock(mutex_);
        text_.append(text, static_cast<std::size_t>(size));
        wake_.notify_one();
        return size;
    }

private:
    std::mutex mutex_;
    std::condition_variable wake_;
    std::string text_;
    std::size_t done_ = 0;
};

// The command in a thread of its own.
class WatchTest : public ToolTest {
protected:
    void Watch(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"quorvel", "watch", "--interval", "0.01"});
        thread_ = std::thread([this, arguments] {
            std::vector<const char*> argv;
            for (const std::string& argument : arguments) {
                argv.push_back(argument.c_str());
            }
            std::istringstream in;
            std::ostream out(&output_);
            exitCode_ = RunProgram(static_cast<int>(argv.size()), argv.data(),
                                   {in, out, errors_, false, isTerminal_});
        });
    }

    std::string Line() { return output_.Line(); }
    Json JsonLine() { return Json::parse(Line()); }

    // Waits until the command has ended.
    int ExitCode() {
        thread_.join();
        EXPECT_EQ(errors_.str(), "");
        return exitCode_;
    }

    void Put(const std::string& name, const std::string& bytes) {
        EXPECT_EQ(Run({"put", cache_, name, "-"}, bytes), kDone) << err_;
    }

    bool isTerminal_ = false;

private:
    LiveOutput output_;
    std::ostringstream errors_;
    int exitCode_ = -1;
    std::thread thread_;
};

TEST_F(WatchTest, PrintsALineForEachChange) {
    MakeCache(ThreeEffects());
    Watch({cache_, "--count", "4"});
    EXPECT_THAT(Line(), EndsWith("  3 effects, 9.8 KiB: watching"));
    Put("new", "1234");
    EXPECT_THAT(Line(), EndsWith("  4 effects, 9.8 KiB: 1 added"));
    Put("a", "longer than before");
    EXPECT_THAT(Line(), EndsWith("  4 effects, 9.8 KiB: 1 replaced"));
    EXPECT_EQ(Run({"remove", cache_, "a", "bb"}), kDone);
    EXPECT_THAT(Line(), EndsWith("  2 effects, 9.8 KiB: 2 removed"));
    EXPECT_EQ(ExitCode(), kDone);
}

TEST_F(WatchTest, PrintsAJsonObjectForEachChange) {
    MakeCache(ThreeEffects());
    Watch({cache_, "--json", "--count", "3"});
    Json line = JsonLine();
    EXPECT_EQ(line["effects"], 3);
    EXPECT_EQ(line["bytes"], 10003);
    EXPECT_EQ(line["fileSize"], FileBytes().size());
    EXPECT_EQ(line["savesInLastMinute"], 0);
    EXPECT_EQ(line["added"], Json::array());
    EXPECT_EQ(Run({"remove", cache_, "--match", "tab*"}), kDone);
    line = JsonLine();
    EXPECT_EQ(line["removed"], Json::parse(R"(["tab\\x09here\\\\\\xFF"])"));
    Put("b", "12");
    line = JsonLine();
    EXPECT_EQ(line["effects"], 3);
    EXPECT_EQ(line["bytes"], 5);
    EXPECT_EQ(line["savesInLastMinute"], 2);
    EXPECT_EQ(line["added"], Json::parse(R"(["b"])"));
    EXPECT_EQ(line["replaced"], Json::array());
    EXPECT_EQ(line["removed"], Json::array());
    EXPECT_EQ(ExitCode(), kDone);
}

TEST_F(WatchTest, SaysThatOnlyTheIndexWasWritten) {
    MakeCache(ThreeEffects());
    Watch({cache_, "--count", "2"});
    Line();
    EXPECT_EQ(Run({"set", cache_, "a", "--permanent"}), kDone);
    EXPECT_THAT(Line(), EndsWith("3 effects, 9.8 KiB: the same effects"));
    EXPECT_EQ(ExitCode(), kDone);
}

TEST_F(WatchTest, CompactingReplacesNoEffect) {
    Format::EffectCacheLayout layout;
    layout.shuffleStreams = true;
    Format::WriteWholeFile(CacheFile(), Format::WriteEffectCache(ThreeEffects(), layout));
    Watch({cache_, "--count", "2"});
    Line();
    EXPECT_EQ(Run({"compact", cache_}), kDone);
    EXPECT_THAT(Line(), EndsWith("3 effects, 9.8 KiB: the same effects"));
    EXPECT_EQ(ExitCode(), kDone);
}

TEST_F(WatchTest, TellsSearchesFromReplacements) {
    MakeCache(ThreeEffects());
    Watch({cache_, "--json", "--count", "2"});
    JsonLine();
    {
        const Util::RefPtr<EffectCacheSystem> host(new EffectCacheSystem(cache_.c_str()));
        Tab<unsigned char> found;
        EXPECT_TRUE(host->SearchCachedEffects("a", found));
        const unsigned char code[] = {1, 2, 3};
        host->CacheCompiledEffect("bb", code, sizeof code, false);
    }
    const Json line = JsonLine();
    EXPECT_EQ(line["used"], Json::parse(R"(["a"])"));
    EXPECT_EQ(line["replaced"], Json::parse(R"(["bb"])"));
    EXPECT_EQ(ExitCode(), kDone);
}

TEST_F(WatchTest, GoesOnIfTheFileVanishesOrIsDamaged) {
    MakeCache(ThreeEffects());
    Watch({cache_, "--json", "--count", "5"});
    JsonLine();
    std::filesystem::remove(CacheFile());
    EXPECT_THAT(JsonLine()["problem"], HasSubstr("there is no vornFxoCache.dat"));
    Format::WriteWholeFile(CacheFile(), Format::Bytes(100, 1));
    EXPECT_THAT(JsonLine()["problem"], HasSubstr("damaged"));
    std::filesystem::remove(CacheFile());
    EXPECT_THAT(JsonLine()["problem"], HasSubstr("there is no vornFxoCache.dat"));
    Put("a", "1");
    const Json line = JsonLine();
    EXPECT_FALSE(line.contains("problem"));
    EXPECT_EQ(line["removed"].size(), 2U);
    EXPECT_EQ(line["added"], Json::array());
    EXPECT_EQ(ExitCode(), kDone);
}

TEST_F(WatchTest, NoticesThatACopyChanges) {
    const std::string copy = File("copy");
    Format::WriteWholeFile(copy, Format::WriteEffectCache({{"a", {1}}}));
    Watch({copy, "--offline", "--count", "2"});
    EXPECT_THAT(Line(), EndsWith("1 effect, 1 byte: watching"));
    // The new file takes the old one's place at once.
    const Format::Bytes bytes = Format::WriteEffectCache({{"a", {1}}, {"b", Format::Bytes(90000)}});
    Format::WriteWholeFile(File("new"), bytes);
    std::filesystem::rename(File("new"), copy);
    EXPECT_THAT(Line(), EndsWith(": 1 added"));
    EXPECT_EQ(ExitCode(), kDone);
}

TEST_F(WatchTest, RefusesAPackageWithoutEffects) {
    Format::WriteWholeFile(CacheFile(), Format::WritePackage({{1, {1}}}, {}));
    EXPECT_EQ(Run({"watch", cache_}), kNo);
    EXPECT_THAT(err_, HasSubstr("a package without an effect cache"));
    EXPECT_EQ(out_, "");
}

TEST_F(WatchTest, RefusesBadArguments) {
    MakeCache({});
    EXPECT_EQ(Run({"watch", cache_, "--interval", "0"}), kUsage);
    EXPECT_EQ(Run({"watch", cache_, "--count", "0"}), kUsage);
    EXPECT_EQ(Run({"watch"}), kUsage);
}

TEST_F(WatchTest, RedrawsAViewInATerminal) {
    MakeCache(ThreeEffects());
    isTerminal_ = true;
    Watch({cache_, "--count", "2"});
    EXPECT_THAT(Line(), AllOf(StartsWith("\r\x1B[J"), HasSubstr(cache_.substr(0, 20))));
    EXPECT_EQ(Line(), "");
    EXPECT_EQ(Line(), "effects  3 of 65534");
    EXPECT_THAT(Line(), StartsWith("bytes    9.8 KiB in a file of "));
    EXPECT_EQ(Line(), "saves    0 in the last minute");
    EXPECT_EQ(Line(), "");
    EXPECT_THAT(Line(), EndsWith("  watching"));
    EXPECT_THAT(Line(), StartsWith("\x1B[7A\r\x1B[J"));
    Put("new", "1234");
    EXPECT_EQ(ExitCode(), kDone);
}

// Runs a function in another thread, since a thread may acquire again a lock that it holds.
template <typename Function>
void InAnotherThread(const Function& function) {
    std::thread(function).join();
}

TEST_F(WatchTest, LooksForChangesWithoutTheLock) {
    MakeCache(ThreeEffects());
    std::istringstream in;
    std::ostringstream out;
    Session session{in, out, out};
    Cache holder(session, cache_);
    Cache watcher(session, cache_);
    const Cache::Lock lock(holder);
    InAnotherThread([&] { EXPECT_FALSE(watcher.HasChanged()); });
    holder.TellOthers();
    InAnotherThread([&] {
        EXPECT_TRUE(watcher.HasChanged());
        EXPECT_FALSE(watcher.HasChanged());
    });
}

}  // namespace
}  // namespace Quorvel::Tool
