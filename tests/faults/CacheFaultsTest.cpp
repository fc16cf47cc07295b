// Two objects use one effect cache, from opening to release. Each of their file system calls and
// allocations fails in turn. Whichever call fails, only a constructor that runs out of memory
// throws; every lock is free again at once; a search that finds an effect returns its own bytes,
// and all of them; and the file holds the state before or after one of the saves. The file is empty
// only if an object that opened it could not read it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "effectcache/CacheClient.h"
#include "effectcache/PlatformStubs.h"
#include "faults/Failures.h"
#include "faults/Memory.h"
#include "format/EffectCacheWriter.h"
#include "format/TestData.h"
#include "quorvel/EffectCacheSystem.h"
#include "quorvel/Exceptions.h"
#include "quorvel/MutexObject.h"
#include "support/TemporaryDirectory.h"
#include "torture/EffectBytes.h"

namespace Quorvel::Testing {

namespace {

// The size of most effects: with the length prefix, a page and a tail. If the cache mistakes one
// for another, only the bytes reveal it.
constexpr std::size_t kEffectSize = 8700;
constexpr std::size_t kSmallSize = 300;

const std::string kNames = "abcdegx";
const std::string kPermanent = "a";
const std::string kSmall = "cx";

// The versions of the effects by name.
using State = std::map<char, std::uint64_t>;

Bytes EffectOf(char name, std::uint64_t version) {
    return Torture::MakeEffect({name}, version,
                               kSmall.find(name) == std::string::npos ? kEffectSize : kSmallSize);
}

const State& OldState() {
    static const State state = {{'a', 1}, {'b', 1}, {'c', 1}, {'d', 1}};
    return state;
}

State With(State state, const State& more) {
    for (const auto& [name, version] : more) {
        state[name] = version;
    }
    return state;
}

// The file of the old state.
const Bytes& OldFile() {
    static const Bytes file = [] {
        std::vector<Format::NewEffect> effects;
        for (const auto& [name, version] : OldState()) {
            const bool isPermanent = kPermanent.find(name) != std::string::npos;
            effects.push_back({{name}, EffectOf(name, version), isPermanent, {}});
        }
        return Format::WriteEffectCache(effects);
    }();
    return file;
}

// True if another thread can acquire the mutex at once.
bool IsFree(const std::string& name) {
    std::uint32_t result = kWaitTimedOut;
    std::thread other([&] {
        MutexObject mutex(name.c_str());
        result = mutex.Acquire(0);
        if (result == kWaitAcquired) { mutex.Release(); }
    });
    other.join();
    return result == kWaitAcquired;
}

using Cache = Util::RefPtr<EffectCacheSystem>;

class CacheScript {
public:
    CacheScript(const TemporaryDirectory& directory, const Failure& failure, std::uint64_t skipped)
        : directory_(directory),
          text_(ToCStr(directory.Path().string())),
          failure_(failure),
          armed_(std::in_place, failure, skipped) {}

    // Two objects take turns saving and see each other's saves.
    void Share();

    // The cache no longer fits on the volume.
    void Trim();

    // A process died in a save.
    void Recover();

    // Ends the failures. True if there were any.
    bool Disarm();

    // Opens the file again. It must hold one of the possible states and be usable.
    void ExpectFile();

private:
    // True if a call failed in the operation.
    template <typename Operation>
    bool Call(const Operation& operation);

    void Open(Cache& cache);
    State Add(Cache& cache, const State& effects);
    void Save(Cache& cache, const State& pending);
    void Close(Cache& cache, const State& pending = {});
    State SearchAll(const Cache& cache, const State& pending = {});
    void AllowSaved(const State& pending);
    bool IsAllowed(const State& found, const State& pending) const;
    bool IsTrimmedFrom(const State& found, const State& state) const;

    const TemporaryDirectory& directory_;
    const CStr text_;
    const Failure failure_;
    std::optional<ArmedFailure> armed_;
    // True if an object may create the file anew. A save that fails to open its journal and then to
    // open the file for another attempt does so as well.
    const bool mayEmptyFile_ = !failure_.isMemory && failure_.call == StdioCall::Open &&
                               failure_.failures != StdioFault::kEveryLaterCall;
    bool hasFailed_ = false;
    bool mayBeTrimmed_ = false;
    std::set<State> states_ = {OldState()};  // the states that the file may be in
};

template <typename Operation>
bool CacheScript::Call(const Operation& operation) {
    const std::uint64_t before = armed_ ? armed_->Failures() : 0;
    {
        const LibraryCall call;
        EXPECT_NO_THROW(operation());
    }
    const bool failed = armed_ && armed_->Failures() != before;
    hasFailed_ = hasFailed_ || failed;
    if (failed && mayEmptyFile_) { states_.insert(State()); }
    if (!armed_ || failed) {
        const std::string name = SharedObjectName(directory_);
        EXPECT_TRUE(IsFree(name + "_mutex"));
        EXPECT_TRUE(IsFree(name + "_timestamp_mutex"));
    }
    return failed;
}

void CacheScript::Open(Cache& cache) {
    const bool failed = Call([&] {
        try {
            cache = new EffectCacheSystem(text_);
        } catch (const std::bad_alloc&) {
            EXPECT_TRUE(failure_.isMemory);
        } catch (const OutOfMemoryException&) {
            EXPECT_TRUE(failure_.isMemory);
        } catch (const Win32APICallFailedException&) { EXPECT_TRUE(failure_.isMemory); }
    });
    EXPECT_TRUE(hasFailed_ || (cache && cache->IsEnabled()));
    // An object that can't read the file replaces it with a new one.
    if (failed && failure_.MayHideFile()) { states_.insert(State()); }
}

// Queues effects and returns those that were queued: not all of them if memory runs out.
State CacheScript::Add(Cache& cache, const State& effects) {
    State queued;
    if (!cache) { return queued; }
    for (const auto& [name, version] : effects) {
        const CStr key(&name, 1);
        const Bytes bytes = EffectOf(name, version);
        Call([&] { cache->CacheCompiledEffect(key, bytes.data(), bytes.size(), false); });
        if (cache->GetNumberOfEffectsInMemory() > queued.size()) { queued[name] = version; }
    }
    EXPECT_TRUE(hasFailed_ || queued == effects);
    return queued;
}

void CacheScript::AllowSaved(const State& pending) {
    std::set<State> states;
    for (const State& state : states_) {
        states.insert(With(state, pending));
    }
    if (hasFailed_) { states.insert(states_.begin(), states_.end()); }
    states_ = states;
}

void CacheScript::Save(Cache& cache, const State& pending) {
    if (cache) {
        Call([&] { cache->ForceSaveToFile(); });
        AllowSaved(pending);
    }
}

void CacheScript::Close(Cache& cache, const State& pending) {
    if (cache) {
        Call([&] { cache.Reset(); });
        AllowSaved(pending);
    }
}

State CacheScript::SearchAll(const Cache& cache, const State& pending) {
    State found;
    if (!cache) { return found; }
    Tab<unsigned char> data;
    for (const char name : kNames) {
        const CStr key(&name, 1);
        bool isFound = false;
        Call([&] { isFound = cache->SearchCachedEffects(key, data); });
        if (isFound) {
            const auto count = static_cast<std::size_t>(data.Count());
            EXPECT_EQ(Torture::CheckEffect({name}, {data.Addr(0), count}, found[name]),
                      Torture::Verdict::Intact)
                << name;
        }
    }
    EXPECT_TRUE(IsAllowed(found, pending));
    return found;
}

bool CacheScript::IsAllowed(const State& found, const State& pending) const {
    return std::any_of(states_.begin(), states_.end(), [&](const State& state) {
        const State whole = With(state, pending);
        return found == whole || (mayBeTrimmed_ && IsTrimmedFrom(found, whole)) ||
               (hasFailed_ &&
                std::includes(whole.begin(), whole.end(), found.begin(), found.end()));
    });
}

bool CacheScript::IsTrimmedFrom(const State& found, const State& state) const {
    return std::includes(state.begin(), state.end(), found.begin(), found.end()) &&
           std::all_of(state.begin(), state.end(), [&](const auto& effect) {
               return kPermanent.find(effect.first) == std::string::npos ||
                      found.count(effect.first) != 0;
           });
}

void CacheScript::Share() {
    Cache first;
    Cache second;
    Open(first);
    Open(second);
    SearchAll(second);
    Save(first, Add(first, {{'b', 2}, {'e', 2}}));
    SearchAll(second);
    Close(second, Add(second, {{'b', 3}, {'c', 3}, {'g', 3}}));
    SearchAll(first);
    const State pending = Add(first, {{'d', 4}});
    SearchAll(first, pending);
    Close(first, pending);
}

void CacheScript::Trim() {
    FreeSpaceStub space(2 * kEffectSize);
    space.ForgetQueries();
    mayBeTrimmed_ = true;
    Cache cache;
    Open(cache);
    EXPECT_TRUE(hasFailed_ || cache->GetNumberOfEffectsInFile() == 1);  // the permanent one
    SearchAll(cache);
    space.Set(4 * kEffectSize);
    Close(cache, Add(cache, {{'e', 2}, {'x', 2}}));
}

void CacheScript::Recover() {
    Cache first;
    Cache second;
    Open(first);
    SearchAll(first);
    Open(second);
    SearchAll(second);
    Save(second, Add(second, {{'b', 5}, {'g', 5}}));
    SearchAll(first);
}

bool CacheScript::Disarm() {
    const bool failed = armed_->HasFailed();
    armed_.reset();
    return failed;
}

void CacheScript::ExpectFile() {
    const State more = {{'x', 9}};
    State found;
    {
        Cache fresh;
        Open(fresh);
        ASSERT_TRUE(fresh && fresh->IsEnabled());
        found = SearchAll(fresh);
        EXPECT_TRUE(std::any_of(states_.begin(), states_.end(), [&](const State& state) {
            return found == state || (mayBeTrimmed_ && IsTrimmedFrom(found, state));
        }));
        EXPECT_FALSE(std::filesystem::exists(CacheFilePath(directory_) + "-journal"));
        EXPECT_TRUE(mayEmptyFile_ || fresh->GetNumberOfEffectsInFile() == found.size());
        EXPECT_EQ(Add(fresh, more), more);
        Save(fresh, more);
    }
    Cache again;
    Open(again);
    EXPECT_EQ(SearchAll(again), With(found, more));
    if (!mayEmptyFile_) {
        const auto problems =
            Format::CheckEffectCache(Format::ReadWholeFile(CacheFilePath(directory_)));
        EXPECT_EQ(Format::Joined(problems), "");
    }
}

// What a process left when it died in a save of the old state: a marked file and its journal.
struct CrashImage {
    Bytes file;
    Bytes journal;
};

const CrashImage& UnfinishedSave() {
    static const CrashImage image = [] {
        const TemporaryDirectory directory;
        const std::string path = CacheFilePath(directory);
        std::uint64_t writes = 0;
        do {
            WriteWholeFile(path, OldFile());
            const Cache cache(new EffectCacheSystem(ToCStr(directory.Path().string())));
            for (const char name : kNames) {
                const Bytes bytes = EffectOf(name, 7);
                cache->CacheCompiledEffect(CStr(&name, 1), bytes.data(), bytes.size(), false);
            }
            // From this write on, neither the save nor its rollback can write.
            const StdioFault fault(StdioCall::Write, EIO, writes++);
            cache->ForceSaveToFile();
        } while (Format::LoadInteger(Format::ReadWholeFile(path), 0, 8) != 0);
        return CrashImage{Format::ReadWholeFile(path), Format::ReadWholeFile(path + "-journal")};
    }();
    return image;
}

class CacheFaults : public ::testing::TestWithParam<Failure> {
protected:
    void ForEach(const CrashImage& image, void (CacheScript::*run)()) {
        const TemporaryDirectory directory;
        const std::uint64_t openFiles = CountStdioCalls().openFiles;
        ForEachCall(GetParam(), [&](std::uint64_t skipped) {
            const std::string path = CacheFilePath(directory);
            WriteWholeFile(path, image.file);
            std::filesystem::remove(path + "-journal");
            if (!image.journal.empty()) { WriteWholeFile(path + "-journal", image.journal); }
            CacheScript script(directory, GetParam(), skipped);
            (script.*run)();
            const bool failed = script.Disarm();
            script.ExpectFile();
            EXPECT_EQ(CountStdioCalls().openFiles, openFiles);
            return failed;
        });
    }
};

}  // namespace

TEST_P(CacheFaults, LeaveTheStateOfASave) {
    ForEach({OldFile(), {}}, &CacheScript::Share);
}

TEST_P(CacheFaults, LeaveWholeEffectsAfterATrim) {
    ForEach({OldFile(), {}}, &CacheScript::Trim);
}

TEST_P(CacheFaults, LeaveTheStateBeforeAnUnfinishedSave) {
    ForEach(UnfinishedSave(), &CacheScript::Recover);
}

INSTANTIATE_TEST_SUITE_P(Call, CacheFaults, ::testing::ValuesIn(AllFailures()),
                         [](const auto& test) { return NameOf(test.param); });

}  // namespace Quorvel::Testing
