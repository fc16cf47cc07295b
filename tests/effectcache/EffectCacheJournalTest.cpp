#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "effectcache/CacheClient.h"
#include "effectcache/EqualSizes.h"
#include "effectcache/PlatformStubs.h"
#include "effectcache/StoredCache.h"
#include "pagestore/PageGeometry.h"
#include "quorvel/MultiProcessTimeStamp.h"
#include "support/ChildProcess.h"
#include "support/StdioFaults.h"

// What happens to the caches of one directory when a save fails, can't be undone or has no journal.
namespace Quorvel::Testing {

namespace {

constexpr std::uint64_t kStatedPages = 0xFFFF6;  // as many as a file may have
constexpr std::uint64_t kPlenty = std::uint64_t{1} << 40;

class EffectCacheJournal : public ::testing::Test {
protected:
    EffectCacheJournal() {
        WriteOldCache(path_);
        oldFile_ = ReadWholeFile(path_);
        stamp_.Initialize((SharedObjectName(directory_) + "_timestamp").c_str());
    }

    bool HasJournal() const { return std::filesystem::exists(std::filesystem::path(journalPath_)); }

    // Gives the journal's name to a folder, so that no journal can be made.
    void PreventJournals() const { std::filesystem::create_directories(journalPath_ + "/folder"); }
    void AllowJournals() const { std::filesystem::remove_all(journalPath_); }

    // True if the file has its old bytes. It may have become longer.
    bool HasOldBytes() const {
        const Bytes file = ReadWholeFile(path_);
        return file.size() >= oldFile_.size() &&
               std::equal(oldFile_.begin(), oldFile_.end(), file.begin());
    }

    // Lets another process, an agent of EffectCacheProcessesTest.cpp, acquire the file mutex; calls
    // `leave`, which leaves the files as the process would; then kills it.
    template <typename Leave>
    void DieWithTheMutex(const Leave& leave) const {
        ChildProcess holder("MutexHolder", {SharedObjectName(directory_) + "_mutex"});
        ASSERT_EQ(holder.Receive(), "0");
        leave();
        holder.Kill();
    }

    const TemporaryDirectory directory_;
    const std::string path_ = CacheFilePath(directory_);
    const std::string journalPath_ = path_ + "-journal";
    Bytes oldFile_;
    MultiProcessTimeStamp stamp_;
};

// The number of times that an operation opened the file.
template <typename Operation>
std::uint64_t Opens(const Operation& operation) {
    const std::uint64_t before = CountStdioCalls().opens;
    operation();
    return CountStdioCalls().opens - before;
}

}  // namespace

// ---- Saves that fail ----------------------------------------------------------------------------

TEST_F(EffectCacheJournal, FailedSaveIsNotNoticedByOthers) {
    int undone = 0;
    bool hasFailed = true;
    for (std::uint64_t writes = 0; hasFailed; ++writes) {
        SCOPED_TRACE(writes);
        WriteWholeFile(path_, oldFile_);
        CacheClient other(directory_);
        EXPECT_EQ(StateOf(other), State::Old);
        CacheClient cache(directory_);
        AddNew(cache);
        EXPECT_FALSE(stamp_.IsChanged());
        {
            const StdioFault fault(StdioCall::Write, ENOSPC, writes, 1);
            cache->ForceSaveToFile();
            hasFailed = fault.Failures() != 0;
        }
        EXPECT_FALSE(HasJournal());
        // The write that failed may have been the first of the spare pages.
        EXPECT_EQ(stamp_.IsChanged(), cache->IsEnabled());
        if (cache->IsEnabled()) { continue; }
        ++undone;
        EXPECT_TRUE(HasOldBytes());
        EXPECT_EQ(Opens([&] { EXPECT_EQ(StateOf(other), State::Old); }), 0u);
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(undone, 10);
}

TEST_F(EffectCacheJournal, SaveThatCannotBeUndoneIsUndoneByAnotherCache) {
    int leftToOthers = 0;
    bool hasFailed = true;
    for (std::uint64_t writes = 0; hasFailed; writes += 3) {
        SCOPED_TRACE(writes);
        WriteWholeFile(path_, oldFile_);
        CacheClient other(directory_);
        EXPECT_EQ(StateOf(other), State::Old);
        CacheClient cache(directory_);
        AddNew(cache);
        EXPECT_FALSE(stamp_.IsChanged());
        {
            const StdioFault fault(StdioCall::Write, EIO, writes);
            cache->ForceSaveToFile();
            hasFailed = fault.Failures() != 0;
        }
        if (!hasFailed) { break; }
        EXPECT_FALSE(cache->IsEnabled());
        EXPECT_EQ(stamp_.IsChanged(), HasJournal());
        leftToOthers += HasJournal() ? 1 : 0;
        EXPECT_EQ(StateOf(other), State::Old);
        EXPECT_TRUE(HasOldBytes());
        EXPECT_FALSE(HasJournal());
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(leftToOthers, 3);
}

TEST_F(EffectCacheJournal, SaveWithoutAJournalFailsAndChangesNothing) {
    CacheClient other(directory_);
    CacheClient cache(directory_);
    AddNew(cache);
    PreventJournals();
    cache->ForceSaveToFile();
    EXPECT_FALSE(cache->IsEnabled());
    EXPECT_FALSE(stamp_.IsChanged());
    EXPECT_TRUE(HasOldBytes());
    EXPECT_EQ(Opens([&] { EXPECT_EQ(StateOf(other), State::Old); }), 0u);
    AllowJournals();
    AddNew(other);
    other->ForceSaveToFile();
    EXPECT_EQ(StateOf(other), State::New);
}

// ---- A volume without room ----------------------------------------------------------------------

TEST_F(EffectCacheJournal, SaveWithoutRoomNeedsNoJournalOnAFullVolume) {
    std::vector<int> errors = {ENOSPC};
#ifdef EDQUOT
    errors.push_back(EDQUOT);
#endif
    for (const int error : errors) {
        CacheClient cache(directory_);
        AddNew(cache);
        {
            const FreeSpaceStub space(0);
            const StdioFault fault(StdioCall::Write, error);
            cache->ForceSaveToFile();
            EXPECT_GT(fault.Failures(), 0u);
        }
        EXPECT_TRUE(cache->IsEnabled());
        EXPECT_EQ(cache.InMemory(), 0u);
        EXPECT_FALSE(stamp_.IsChanged());
        EXPECT_TRUE(ReadWholeFile(path_) == oldFile_);
        EXPECT_EQ(StateOf(cache), State::Old);
    }
    CacheClient cache(directory_);
    AddNew(cache);
    cache->ForceSaveToFile();
    EXPECT_EQ(StateOf(cache), State::New);
}

TEST_F(EffectCacheJournal, SaveWithoutRoomFailsForAnyOtherReason) {
    const auto saveWithoutRoom = [&] {
        CacheClient cache(directory_);
        AddNew(cache);
        const FreeSpaceStub space(0);
        cache->ForceSaveToFile();
        EXPECT_FALSE(cache->IsEnabled());
        EXPECT_GT(cache.InMemory(), 0u);
        EXPECT_FALSE(stamp_.IsChanged());
        EXPECT_TRUE(ReadWholeFile(path_) == oldFile_);
    };
    PreventJournals();
    saveWithoutRoom();
    AllowJournals();
    const StdioFault fault(StdioCall::Write, EIO);
    saveWithoutRoom();
}

TEST_F(EffectCacheJournal, TrimWithoutAJournalIsPutOff) {
    const std::uint64_t total = StoredCache(path_).TotalDataSize();
    const FreeSpaceStub space(total - kEqualSize);
    PreventJournals();
    {
        CacheClient cache(directory_);
        EXPECT_TRUE(cache->IsEnabled());
        EXPECT_EQ(StateOf(cache), State::Old);
    }
    EXPECT_FALSE(stamp_.IsChanged());
    EXPECT_TRUE(ReadWholeFile(path_) == oldFile_);
    AllowJournals();
    CacheClient cache(directory_);
    EXPECT_EQ(cache.InFile(), OldContents().size() - 1);
    EXPECT_TRUE(stamp_.IsChanged());
    EXPECT_FALSE(HasJournal());
}

TEST_F(EffectCacheJournal, TrimWithoutAJournalIsPutOffWhenTheFileIsReadAgain) {
    FreeSpaceStub space(kPlenty);
    CacheClient cache(directory_);
    stamp_.UpdateTimeStamp();
    space.Set(1);
    PreventJournals();
    EXPECT_EQ(StateOf(cache), State::Old);
    EXPECT_TRUE(cache->IsEnabled());
    EXPECT_FALSE(stamp_.IsChanged());
    AllowJournals();
    stamp_.UpdateTimeStamp();
    EXPECT_EQ(StateOf(cache), State::Empty);
}

TEST_F(EffectCacheJournal, SparePagesAreLeftOutWhenTheyTakeAQuarterOfTheRoom) {
    // 64 and what the new effects, the index and the head file need.
    constexpr std::uint64_t kLeastSparePages = 64 + 5;
    FreeSpaceStub space(kPlenty);
    const auto pagesAdded = [&](std::uint64_t freeBytes) {
        WriteWholeFile(path_, oldFile_);
        CacheClient cache(directory_);
        AddNew(cache);
        space.Set(freeBytes);
        cache->ForceSaveToFile();
        EXPECT_EQ(StateOf(cache), State::New);
        space.Set(kPlenty);
        return (std::filesystem::file_size(path_) - oldFile_.size()) / 8192;
    };
    EXPECT_GE(pagesAdded(kPlenty), kLeastSparePages);
    EXPECT_LT(pagesAdded(4 * kLeastSparePages * 8192), 20u);
}

// ---- What a journal costs -----------------------------------------------------------------------

namespace {

// The number of pages that an operation puts into the journal. All writes whose size is not that of
// a page are pieces of the journal.
template <typename Operation>
std::uint64_t JournalPages(const Operation& operation) {
    StdioTrace trace;
    operation();
    std::uint64_t bytes = 0;
    for (const StdioTransfer& transfer : trace.Take()) {
        const bool isPage = transfer.size == kPageSize;
        if (transfer.kind == StdioTransfer::Kind::Write && !isPage) { bytes += transfer.size; }
    }
    return bytes / kPageSize;
}

}  // namespace

TEST_F(EffectCacheJournal, SavesKeepFewPagesAndLetTheFileGrowLittle) {
    std::filesystem::remove(path_);
    CacheClient cache(directory_);
    std::uint64_t bytes = 0;
    int next = 0;
    const auto add = [&](int first, int count) {
        for (int i = first; i < first + count; ++i) {
            const std::string name = "effect " + std::to_string(i);
            const std::size_t size = 500 + static_cast<std::size_t>(i) * 7919 % 5000;
            cache.Add(name, EffectBytes(name + std::to_string(next++), size));
            bytes += size;
        }
        cache->ForceSaveToFile();
    };
    for (int i = 0; i < 8000; i += 500) {
        add(i, 500);
    }
    EXPECT_LT(std::filesystem::file_size(path_), bytes + bytes / 5);
    const std::uint64_t added = JournalPages([&] { add(8000, 600); });
    EXPECT_GT(added, 0u);
    EXPECT_LT(added, 80u);
    // A tail block has eight pages, half of which change if a tail in the middle is removed.
    EXPECT_LT(JournalPages([&] { add(0, 300); }), 300u * 5);
    EXPECT_LT(std::filesystem::file_size(path_), bytes + bytes / 5);
}

// A head file may state more pages than it has. Such pages are neither read nor written.
TEST_F(EffectCacheJournal, StatedPagesOfTheHeadFileTakeNoRoom) {
    Bytes file = oldFile_;
    ASSERT_EQ(NumberAt(file, 0, 8), 1U);
    const ByteList head = ByteList()
                              .U64(kStatedPages)
                              .U64(NumberAt(file, 8, 8))
                              .U64(11)     // the next page, which nothing reads
                              .U64(8192);  // where the data in this page ends
    std::copy(head.Get().begin(), head.Get().end(), file.begin());
    WriteWholeFile(path_, file);
    const FreeSpaceStub space(std::uint64_t{1} << 30);
    CacheClient cache(directory_);
    ASSERT_EQ(StateOf(cache), State::Old);
    AddNew(cache);
    cache->ForceSaveToFile();
    EXPECT_EQ(StateOf(cache), State::New);
}

// ---- Recoveries that fail -----------------------------------------------------------------------

TEST_F(EffectCacheJournal, RecoveryThatFailsMakesTheCacheInertAndKeepsTheJournal) {
    LeaveUnfinishedSave(path_);
    const Bytes unfinished = ReadWholeFile(path_);
    for (const StdioCall call :
         {StdioCall::Open, StdioCall::Seek, StdioCall::Tell, StdioCall::Read, StdioCall::Write}) {
        for (const std::uint64_t failures : {std::uint64_t{1}, StdioFault::kEveryLaterCall}) {
            SCOPED_TRACE(testing::Message() << static_cast<int>(call) << ", " << failures);
            {
                const StdioFault fault(call, EIO, 0, failures);
                CacheClient cache(directory_);
                EXPECT_FALSE(cache->IsEnabled());
                EXPECT_GT(fault.Failures(), 0u);
            }
            EXPECT_TRUE(HasJournal());
            EXPECT_TRUE(stamp_.IsChanged());
            EXPECT_TRUE(ReadWholeFile(path_) == unfinished);
        }
    }
    CacheClient cache(directory_);
    EXPECT_EQ(StateOf(cache), State::Old);
    EXPECT_FALSE(HasJournal());
    EXPECT_FALSE(stamp_.IsChanged());
}

TEST_F(EffectCacheJournal, RecoveryThatFailsWhenTheFileIsReadAgainIsLeftToTheNextCache) {
    CacheClient one(directory_);
    CacheClient other(directory_);
    LeaveUnfinishedSave(path_);
    stamp_.UpdateTimeStamp();
    {
        const StdioFault fault(StdioCall::Write, EIO);
        EXPECT_EQ(FindAll(one), Contents());
    }
    EXPECT_FALSE(one->IsEnabled());
    EXPECT_TRUE(HasJournal());
    EXPECT_TRUE(stamp_.IsChanged());
    EXPECT_EQ(StateOf(other), State::Old);
    EXPECT_FALSE(HasJournal());
}

// ---- Processes that die -------------------------------------------------------------------------

// The process that makes the file anew knows nothing of journals.
TEST_F(EffectCacheJournal, JournalOfAFileThatWasMadeAnewIsRemoved) {
    LeaveUnfinishedSave(path_);
    const Bytes bytes = EffectBytes("only", 100);
    WriteCache(path_, {{"only", bytes}});
    ASSERT_TRUE(HasJournal());
    CacheClient cache(directory_);
    EXPECT_FALSE(HasJournal());
    EXPECT_EQ(FindAll(cache), Contents());
    EXPECT_EQ(cache.Find("only"), bytes);
}

// The thread inherits the mutex and keeps it, so only its first wait reports the death.
TEST_F(EffectCacheJournal, HeirWithNothingToSaveUndoesTheSaveOfTheDead) {
    CacheClient heir(directory_);
    CacheClient other(directory_);
    DieWithTheMutex([&] { LeaveUnfinishedSave(path_); });
    heir->ForceSaveToFile();
    EXPECT_FALSE(HasJournal());
    EXPECT_EQ(StateOf(heir), State::Old);
    EXPECT_EQ(StateOf(other), State::Old);
}

TEST_F(EffectCacheJournal, HeirThatClosesUndoesTheSaveOfTheDead) {
    CacheClient heir(directory_);
    CacheClient other(directory_);
    DieWithTheMutex([&] { LeaveUnfinishedSave(path_); });
    heir.Close();
    EXPECT_FALSE(HasJournal());
    EXPECT_EQ(StateOf(other), State::Old);
}

// The process died after its save, but before it wrote a stamp. Only the heir's wait is abandoned.
TEST_F(EffectCacheJournal, HeirTellsOthersOfTheSaveOfTheDead) {
    CacheClient heir(directory_);
    CacheClient other(directory_);
    EXPECT_EQ(StateOf(other), State::Old);
    DieWithTheMutex([&] {
        std::vector<StoredEffect> effects;
        for (const auto& [name, bytes] : NewContents()) {
            effects.push_back({name, bytes});
        }
        WriteCache(path_, effects);
    });
    EXPECT_EQ(StateOf(heir), State::New);
    EXPECT_EQ(StateOf(other), State::New);
}

}  // namespace Quorvel::Testing
