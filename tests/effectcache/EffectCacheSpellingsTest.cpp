#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "effectcache/CacheClient.h"
#include "platform/Directory.h"
#include "platform/NamedMemory.h"
#include "platform/Path.h"
#include "support/Agent.h"
#include "support/ChildProcess.h"
#include "support/WorkingDirectory.h"

// One directory has one cache, however a process spells its path and wherever it is.
namespace Quorvel::Testing {

namespace {

std::string EffectName(const std::string& prefix, int number) {
    return prefix + '-' + std::to_string(number);
}

// The bytes say which effect they belong to.
Bytes BytesOf(const std::string& name) {
    return EffectBytes(name + '.', 100 + name.size() * 20);
}

// Adds effects to a cache when told to, saving several times. Arguments: the directory, a prefix of
// the names, and the number of effects. Sends "ready", and "done" or what went wrong.
QUORVEL_AGENT(CacheFiller) {
    CacheClient cache(arguments[0]);
    AgentSend(cache->IsEnabled() ? "ready" : "inert");
    AgentReceive();
    const int count = std::stoi(arguments[2]);
    for (int number = 0; number < count; ++number) {
        const std::string name = EffectName(arguments[1], number);
        cache.Add(name, BytesOf(name));
        if (number % 300 == 299) { cache->ForceSaveToFile(); }
    }
    cache->ForceSaveToFile();
    AgentSend(cache->IsEnabled() ? "done" : "inert");
    AgentReceive();
    return 0;
}

// True if a block of memory has the name of the stamp of the file.
bool HasStampOf(const std::string& file) {
    void* const memory = Platform::OpenNamedMemory((SharedObjectName(file) + "_timestamp").c_str());
    if (memory) { Platform::CloseNamedMemory(memory); }
    return memory != nullptr;
}

class EffectCacheSpellings : public ::testing::Test {
public:
    // A path of the directory with a redundant step.
    std::string Detour() const { return (path.parent_path() / "." / path.filename()).string(); }

    // The path of the file in a directory with this spelling.
    static std::string FileIn(const std::string& directory) {
        return directory + Platform::kPathSeparator + "vornFxoCache.dat";
    }

    // Fills the cache with one process for each spelling, all at the same time, and then searches
    // for the effects.
    void FillThrough(const std::vector<std::string>& spellings, int effects) const {
        std::vector<std::unique_ptr<ChildProcess>> fillers;
        for (std::size_t index = 0; index < spellings.size(); ++index) {
            fillers.push_back(std::make_unique<ChildProcess>(
                "CacheFiller", std::vector<std::string>{spellings[index], std::to_string(index),
                                                        std::to_string(effects)}));
        }
        for (const auto& filler : fillers) {
            EXPECT_EQ(filler->Receive(), "ready");
        }
        for (const auto& filler : fillers) {
            filler->Send("fill");
        }
        for (const auto& filler : fillers) {
            EXPECT_EQ(filler->Receive(), "done");
        }
        CacheClient cache(directory);
        int found = 0;
        int wrong = 0;
        for (std::size_t index = 0; index < spellings.size(); ++index) {
            for (int number = 0; number < effects; ++number) {
                const std::string name = EffectName(std::to_string(index), number);
                const auto bytes = cache.Find(name);
                found += bytes ? 1 : 0;
                wrong += bytes && *bytes != BytesOf(name) ? 1 : 0;
            }
        }
        EXPECT_EQ(found, static_cast<int>(spellings.size()) * effects);
        EXPECT_EQ(wrong, 0);
    }

    // Without a common stamp, neither cache would notice the other's saves.
    void ExpectShared(const std::string& spelling) const {
        CacheClient plain(path.string());
        CacheClient other(spelling);
        ASSERT_TRUE(other->IsEnabled()) << spelling;
        EXPECT_EQ(other->GetCacheFilePath(), ToCStr(spelling));
        plain.Add(spelling + 'a', BytesOf("a"));
        plain->ForceSaveToFile();
        EXPECT_EQ(other.Find(spelling + 'a'), BytesOf("a")) << spelling;
        other.Add(spelling + 'b', BytesOf("b"));
        other->ForceSaveToFile();
        EXPECT_EQ(plain.Find(spelling + 'b'), BytesOf("b")) << spelling;
    }

    TemporaryDirectory directory;
    std::filesystem::path path = directory.Path();
};

TEST_F(EffectCacheSpellings, TwoProcessesWithTwoSpellingsLoseNothing) {
    FillThrough({path.string(), Detour()}, 6000);
}

TEST_F(EffectCacheSpellings, ProcessesThatOpenTheDirectoryFirstAtTheSameTimeAgree) {
    for (int round = 0; round < 5; ++round) {
        FillThrough({path.string(), Detour(), Detour() + Platform::kPathSeparator,
                     (path / "." / ".").string()},
                    50);
        std::filesystem::remove(CacheFilePath(directory));
    }
}

TEST_F(EffectCacheSpellings, AllSpellingsShareTheCache) {
    const std::string separator(1, Platform::kPathSeparator);
    std::filesystem::create_directory(path / "folder");
    const std::filesystem::path parent = path.parent_path();
    const std::string name = path.filename().string();
    const WorkingDirectory working(parent);
    for (const std::string& spelling :
         {path.string() + separator, path.string() + separator + separator, Detour(),
          (path / ".").string(), (path / "folder" / "..").string(), name, "." + separator + name,
          ".." + separator + parent.filename().string() + separator + name}) {
        ExpectShared(spelling);
    }
    const WorkingDirectory inside(path);
    for (const std::string& spelling :
         {std::string("."), "." + separator, "folder" + separator + ".."}) {
        ExpectShared(spelling);
    }
}

TEST_F(EffectCacheSpellings, PathsInAnotherCaseShareTheCacheIfTheyLeadToIt) {
    std::string upper = path.string();
    for (char& byte : upper) {
        byte = static_cast<char>(std::toupper(static_cast<unsigned char>(byte)));
    }
    if (!std::filesystem::exists(upper)) { GTEST_SKIP() << "this file system knows case"; }
    ExpectShared(upper);
    ExpectShared(path.generic_string());
}

TEST_F(EffectCacheSpellings, LinksToTheDirectoryShareTheCache) {
    const TemporaryDirectory elsewhere;
    const std::filesystem::path link = elsewhere.Path() / "link";
    std::error_code error;
    std::filesystem::create_directory_symlink(path, link, error);
    if (error || !std::filesystem::exists(link)) { GTEST_SKIP() << "this system makes no links"; }
    ExpectShared(link.string());
}

// ---- Names --------------------------------------------------------------------------------------

TEST_F(EffectCacheSpellings, FirstSpellingNamesTheObjects) {
    const CacheClient first(Detour());
    const CacheClient second(path.string());
    EXPECT_TRUE(HasStampOf(FileIn(Detour())));
    EXPECT_FALSE(HasStampOf(CacheFilePath(directory)));
}

TEST_F(EffectCacheSpellings, NamesStayInForceUntilTheLastCacheIsClosed) {
    auto first = std::make_unique<CacheClient>(Detour());
    auto second = std::make_unique<CacheClient>(path.string());
    first.reset();
    {
        const CacheClient third(path.string());
        EXPECT_TRUE(HasStampOf(FileIn(Detour())));
        EXPECT_FALSE(HasStampOf(CacheFilePath(directory)));
    }
    second.reset();
    const CacheClient fourth(path.string());
    EXPECT_FALSE(HasStampOf(FileIn(Detour())));
    EXPECT_TRUE(HasStampOf(CacheFilePath(directory)));
}

TEST_F(EffectCacheSpellings, RelativePathsGetTheNamesOfAbsoluteOnes) {
    const WorkingDirectory working(path);
    const CacheClient cache(".");
    EXPECT_TRUE(HasStampOf(CacheFilePath(directory)));
    EXPECT_EQ(cache->GetCacheFilePath(), CStr("."));
}

TEST_F(EffectCacheSpellings, EqualRelativePathsOfTwoFoldersGetTwoNames) {
    const TemporaryDirectory elsewhere;
    const WorkingDirectory working(path);
    const CacheClient cache(".");
    const WorkingDirectory there(elsewhere.Path());
    const CacheClient other(".");
    EXPECT_TRUE(HasStampOf(CacheFilePath(directory)));
    EXPECT_TRUE(HasStampOf(CacheFilePath(elsewhere)));
}

// ---- Directories that change --------------------------------------------------------------------

TEST_F(EffectCacheSpellings, HostThatChangesItsWorkingDirectoryKeepsItsCache) {
    const TemporaryDirectory elsewhere;
    const WorkingDirectory before(path);
    CacheClient cache(".");
    const WorkingDirectory after(elsewhere.Path());
    for (const std::string name : {"x", "y"}) {
        cache.Add(name, BytesOf(name));
        cache->ForceSaveToFile();
        CacheClient other(directory);
        EXPECT_EQ(other.Find(name), BytesOf(name));
        other.Add(name + name, BytesOf(name));
        other->ForceSaveToFile();
        EXPECT_EQ(cache.Find(name + name), BytesOf(name));
    }
    EXPECT_TRUE(std::filesystem::is_empty(elsewhere.Path()));
}

TEST_F(EffectCacheSpellings, CacheStaysInItsDirectoryWhenALinkToItChanges) {
    const TemporaryDirectory elsewhere;
    const std::filesystem::path link = elsewhere.Path() / "link";
    std::error_code error;
    std::filesystem::create_directory_symlink(path, link, error);
    if (error || Platform::kPathSeparator == '\\') { GTEST_SKIP() << "only on Linux"; }
    CacheClient cache(link.string());
    std::filesystem::remove(link);
    std::filesystem::create_directory_symlink(elsewhere.Path(), link);
    cache.Add("x", BytesOf("x"));
    cache->ForceSaveToFile();
    EXPECT_EQ(CacheClient(directory).Find("x"), BytesOf("x"));
    EXPECT_FALSE(std::filesystem::exists(elsewhere.File("vornFxoCache.dat")));
}

TEST_F(EffectCacheSpellings, DirectoryThatIsMadeAgainHasANewCache) {
    CacheClient former(directory);
    former.Add("x", BytesOf("x"));
    former->ForceSaveToFile();
    std::error_code error;
    std::filesystem::remove_all(path, error);
    if (error) { GTEST_SKIP() << "this system keeps directories of open files"; }
    std::filesystem::create_directory(path);
    CacheClient cache(directory);
    EXPECT_EQ(cache.Find("x"), std::nullopt);
    cache.Add("y", BytesOf("y"));
    cache->ForceSaveToFile();
    EXPECT_EQ(former.Find("y"), BytesOf("y"));
}

// ---- Processes that die -------------------------------------------------------------------------

TEST_F(EffectCacheSpellings, KilledHolderOfTheNamesMutexDoesNotStopOthers) {
    const std::string mutexName =
        "vornFxoCache_" + Platform::FindDirectory(path.string().c_str(), "").identity + "_mutex";
    CacheClient cache(directory);
    ChildProcess holder("MutexHolder", {mutexName});
    ASSERT_EQ(holder.Receive(), "0");
    holder.Kill();
    CacheClient other(Detour());
    other.Add("x", BytesOf("x"));
    other->ForceSaveToFile();
    EXPECT_EQ(cache.Find("x"), BytesOf("x"));
    ChildProcess next("MutexHolder", {mutexName});
    EXPECT_EQ(next.Receive(), "0");
}

}  // namespace

}  // namespace Quorvel::Testing
