#include <filesystem>
#include <ostream>
#include <thread>

#include "effectcache/SharedCache.h"
#include "format/PackageWriter.h"
#include "pagestore/RollbackJournal.h"
#include "quorvel/Version.h"
#include "tool/InterruptedSave.h"
#include "tool/ToolTest.h"
#include "tools/quorvel/Cache.h"

namespace Quorvel::Tool {
namespace {

using testing::HasSubstr;
using Arguments = std::vector<std::string>;

class BadInputTest : public ToolTest {
protected:
    // Commands that read a cache, and commands that change one.
    static std::vector<Arguments> Readers(const std::string& cache) {
        return {{"info", cache},
                {"list", cache},
                {"get", cache, "a"},
                {"export", cache, "-"},
                {"diff", cache, cache},
                {"map", cache},
                {"watch", cache, "--count", "1"}};
    }
    static std::vector<Arguments> Changers(const std::string& cache) {
        return {{"remove", cache, "a"},
                {"set", cache, "a", "--permanent"},
                {"prune", cache, "--max-effects", "1"},
                {"compact", cache}};
    }
    static std::vector<Arguments> All(const std::string& cache) {
        std::vector<Arguments> all = Readers(cache);
        for (Arguments& arguments : Changers(cache)) {
            all.push_back(std::move(arguments));
        }
        return all;
    }

    void ExpectAll(const std::vector<Arguments>& commands, int exitCode,
                   const std::string& message) {
        for (const Arguments& arguments : commands) {
            EXPECT_EQ(Run(arguments), exitCode) << arguments[0];
            EXPECT_EQ(out_, "") << arguments[0];
            EXPECT_THAT(err_, HasSubstr(message)) << arguments[0];
        }
    }
};

TEST_F(BadInputTest, AMissingDirectoryIsNamed) {
    ExpectAll(All(File("missing")), kNo, File("missing") + ": no such file or directory");
    EXPECT_EQ(Run({"put", File("missing"), "a", "-"}, "x"), kNo);
    EXPECT_FALSE(std::filesystem::exists(File("missing")));
}

TEST_F(BadInputTest, ADirectoryInThePlaceOfTheFileIsRefused) {
    std::filesystem::create_directory(CacheFile());
    EXPECT_EQ(Run({"info", cache_}), kFailed);
    EXPECT_THAT(err_, HasSubstr("it is not a file"));
}

TEST_F(BadInputTest, ADirectoryWithoutACacheStaysEmpty) {
    ExpectAll(All(cache_), kNo, cache_ + ": there is no ");
    EXPECT_TRUE(std::filesystem::is_empty(cache_));
}

TEST_F(BadInputTest, AFileThatIsNoPackageIsLeftAsItIs) {
    for (const Format::Bytes& content :
         {Format::Bytes(), Format::Bytes(5), Format::Bytes(30000, 7)}) {
        Format::WriteWholeFile(CacheFile(), content);
        ExpectAll(All(cache_), kNo, CacheFile());
        EXPECT_EQ(Run({"put", cache_, "a", "-"}, "x"), kNo);
        EXPECT_EQ(FileBytes(), content);
    }
    EXPECT_EQ(Run({"list", cache_}), kNo);
    EXPECT_THAT(err_, HasSubstr("\"quorvel check\" says more, \"quorvel salvage\" saves"));
}

TEST_F(BadInputTest, APackageWithoutEffectsIsNoCache) {
    const Format::Bytes package = Format::WritePackage({{1, {1, 2}}}, {});
    Format::WriteWholeFile(CacheFile(), package);
    EXPECT_EQ(Run({"info", cache_}), kDone);
    EXPECT_EQ(Run({"list", cache_}), kNo);
    EXPECT_THAT(err_, HasSubstr("a package without an effect cache"));
    ExpectAll(Changers(cache_), kNo, CacheFile());
    EXPECT_EQ(FileBytes(), package);
}

TEST_F(BadInputTest, WrongArgumentsAreRefused) {
    for (const Arguments& arguments :
         {Arguments{}, Arguments{"unknown"}, Arguments{"list"}, Arguments{"list", cache_, "more"},
          Arguments{"list", cache_, "--sort", "colour"}, Arguments{"list", cache_, "--limit", "-1"},
          Arguments{"get", cache_}, Arguments{"info", cache_, "--timeout", "never"}}) {
        EXPECT_EQ(Run(arguments), kUsage);
        EXPECT_EQ(out_, "");
        EXPECT_NE(err_, "");
    }
}

TEST_F(BadInputTest, HelpAndVersionArePrinted) {
    EXPECT_EQ(Run({"--help"}), kDone);
    EXPECT_THAT(out_, HasSubstr("Exit codes: 0 done"));
    EXPECT_EQ(Run({"prune", "--help"}), kDone);
    EXPECT_THAT(out_, HasSubstr("--max-effects"));
    EXPECT_EQ(Run({"--version"}), kDone);
    EXPECT_EQ(out_, "quorvel " QUORVEL_VERSION "\n");
}

TEST_F(BadInputTest, OutputThatCannotBeWrittenIsAFailure) {
    MakeCache(ThreeEffects());
    for (const Arguments& arguments : Readers(cache_)) {
        std::vector<const char*> argv = {"quorvel"};
        for (const std::string& argument : arguments) {
            argv.push_back(argument.c_str());
        }
        std::istringstream in;
        std::ostream closed(nullptr);
        std::ostringstream err;
        EXPECT_EQ(RunProgram(static_cast<int>(argv.size()), argv.data(), {in, closed, err}),
                  kFailed);
        EXPECT_THAT(err.str(), HasSubstr("the output can't be written"));
    }
}

TEST_F(BadInputTest, ALockThatIsHeldIsWaitedForAndThenGivenUp) {
    MakeCache(ThreeEffects());
    SharedCache shared(cache_.c_str());
    ASSERT_EQ(shared.Mutex().Acquire(0), kWaitAcquired);
    std::vector<Arguments> commands = All(cache_);
    for (Arguments& arguments : commands) {
        arguments.insert(arguments.end(), {"--timeout", "0"});
    }
    // The mutex belongs to the thread that has acquired it.
    std::thread([&] {
        ExpectAll(commands, kFailed, "another process has held the cache's lock for 0 seconds");
        EXPECT_EQ(Run({"list", cache_, "--offline"}), kDone);
    }).join();
    shared.Mutex().Release();
    EXPECT_EQ(Run({"list", cache_, "--timeout", "0"}), kDone);
}

TEST_F(BadInputTest, ALockWhoseHolderDiedIsGivenBack) {
    MakeCache(ThreeEffects());
    SharedCache shared(cache_.c_str());
    std::thread([&] { EXPECT_EQ(shared.Mutex().Acquire(0), kWaitAcquired); }).join();
    EXPECT_EQ(Run({"list", cache_}), kDone);
    std::thread([&] {
        EXPECT_EQ(shared.Mutex().Acquire(0), kWaitAcquired);
        shared.Mutex().Release();
    }).join();
    EXPECT_TRUE(shared.Stamp().IsChanged());
}

// A process that dies after its save, but before its stamp, announces nothing.
TEST_F(BadInputTest, ADeadHolderOfTheLockCountsAsAChange) {
    MakeCache(ThreeEffects());
    std::istringstream in;
    std::ostringstream out;
    const Session session{in, out, out};
    Cache cache(session, cache_);
    SharedCache shared(cache_.c_str());
    { const Cache::Lock lock(cache); }
    EXPECT_FALSE(cache.HasChanged());
    std::thread([&] { EXPECT_EQ(shared.Mutex().Acquire(0), kWaitAcquired); }).join();
    { const Cache::Lock lock(cache); }
    EXPECT_TRUE(cache.HasChanged());
    EXPECT_FALSE(cache.HasChanged());
}

TEST_F(BadInputTest, AnInterruptedSaveIsUndoneFirstButNotOffline) {
    MakeCache(ThreeEffects());
    const Format::Bytes old = FileBytes();
    {
        RollbackJournal journal(CacheFile().c_str(), old.size(), {true});
        journal.KeepPage(Format::kFirstPage, old.data());
        EXPECT_TRUE(journal.PrepareWrite(Format::kFirstPage));
        journal.BeginOverwriting();
        Format::Bytes marked = old;
        Format::StoreInteger(marked, 0, 8, 0);
        Format::StoreInteger(marked, 8, 8, journal.Mark().nonce);
        Format::WriteWholeFile(CacheFile(), marked);
    }
    EXPECT_EQ(Run({"list", cache_, "--offline"}), kNo);
    EXPECT_THAT(err_, HasSubstr("a save was interrupted; without --offline, it is undone first"));
    EXPECT_NE(FileBytes(), old);
    EXPECT_EQ(Run({"list", cache_}), kDone);
    EXPECT_EQ(FileBytes(), old);
    EXPECT_FALSE(std::filesystem::exists(CacheFile() + "-journal"));
}

TEST_F(BadInputTest, OnlyAChangeUndoesAnInterruptedOneOfAFileThatIsNotShared) {
    MakeCache(ThreeEffects());
    const std::string copy = File("copy.dat");
    std::filesystem::copy(CacheFile(), copy);
    InterruptSave(copy, 12);
    const Format::Bytes interrupted = Format::ReadWholeFile(copy);
    EXPECT_EQ(Run({"list", copy}), kNo);
    EXPECT_THAT(err_, HasSubstr("a change is running or was interrupted"));
    EXPECT_EQ(Format::ReadWholeFile(copy), interrupted);
    EXPECT_EQ(Run({"remove", copy, "a"}), kDone) << err_;
    EXPECT_EQ(RunJson({"list", copy}).size(), 2U);
}

TEST_F(BadInputTest, UnknownCommandsAndNegativeNumbersAreNamed) {
    EXPECT_EQ(Run({"lists", cache_}), kUsage);
    EXPECT_THAT(err_, HasSubstr("there is no command \"lists\""));
    MakeCache({});
    for (const Arguments& arguments :
         {Arguments{"list", cache_, "-n", "-1"}, Arguments{"prune", cache_, "--max-effects", "-1"},
          Arguments{"check", cache_, "--max-problems", "-1"}}) {
        EXPECT_EQ(Run(arguments), kUsage) << arguments[0];
        EXPECT_THAT(err_, HasSubstr("a number below 0")) << arguments[0];
    }
}

TEST_F(BadInputTest, OfflineCommandsMakeNoSharedObjectAndWriteNothing) {
    MakeCache(ThreeEffects());
    const auto before = std::filesystem::last_write_time(CacheFile());
    for (Arguments arguments : Readers(cache_)) {
        arguments.push_back("--offline");
        EXPECT_EQ(Run(arguments), kDone);
    }
    EXPECT_EQ(std::filesystem::last_write_time(CacheFile()), before);
    EXPECT_EQ(Run({"remove", cache_, "a", "--offline"}), kUsage);
}

}  // namespace
}  // namespace Quorvel::Tool
