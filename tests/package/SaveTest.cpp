#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>

#include "package/PackageTest.h"
#include "pagestore/RollbackJournal.h"
#include "support/StdioFaults.h"

namespace Quorvel::Testing {

namespace {

using Format::Bytes;
using Streams = std::map<std::uint64_t, Bytes>;

// Saves a package while calls fail, and examines what a killed process would leave behind.
class SaveTest : public PackageTest {
protected:
    std::string JournalPath() const { return path_ + "-journal"; }

    bool HasJournal() const { return std::filesystem::exists(JournalPath()); }

    void MakeOldState() {
        StartOver();
        for (int stream = 0; stream < 30; ++stream) {
            Add(7500);
        }
        ASSERT_TRUE(package_->Commit());
        old_ = streams_;
        // Both states give the same ids to their streams, which have other contents.
        for (const std::uint64_t id : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U}) {
            streams_.erase(id);
        }
        for (std::size_t id = 0; id < 8; ++id) {
            streams_[id] = Format::Pattern(id * 8192 + 100, 1000 + id);
        }
        new_ = streams_;
    }

    // Saves the new state in place of the old one. False if a call fails.
    bool TrySave() {
        try {
            package_->BeginSave();
            for (std::uint64_t id = 0; id < 8; ++id) {
                package_->DeleteDataStream(id);
            }
            for (std::uint64_t id = 0; id < 8; ++id) {
                EXPECT_EQ(Format::AddStream(*package_, new_[id]), id);
            }
            return package_->Commit();
        } catch (const std::exception&) { return false; }
    }

    // Copies the files as they are now, which is what a killed process would leave.
    void TakeCrashImage() {
        Format::WriteWholeFile(crashPath_, Format::ReadWholeFile(path_));
        std::filesystem::remove(crashPath_ + "-journal");
        if (HasJournal()) {
            Format::WriteWholeFile(crashPath_ + "-journal", Format::ReadWholeFile(JournalPath()));
        }
    }

    // What the files hold, after a recovery: 'o' for the old state, 'n' for the new one.
    char StateOf(const std::string& path) const {
        const Util::RefPtr<PagedFilePackage> package(new PagedFilePackage(
            {path.c_str(), settings_.pageCacheCapacity, settings_.streamLimit}));
        if (!package->Load()) { return '?'; }
        if (!package->IsSound()) { return '!'; }
        for (const auto& [streams, name] : {std::pair(&old_, 'o'), std::pair(&new_, 'n')}) {
            bool isSame = package->GetNumberOfDataStreams() == streams->size();
            for (const auto& [id, bytes] : *streams) {
                isSame = isSame && Format::ReadStream(*package, id) == bytes;
            }
            if (isSame) { return name; }
        }
        return 'x';
    }

    char RecoveredCrashImage() const {
        RollbackJournal::Recover(crashPath_.c_str());
        EXPECT_FALSE(std::filesystem::exists(crashPath_ + "-journal"));
        return StateOf(crashPath_);
    }

    // Saves again and again, and dies one write later each time. The write that is cut short moves
    // `bytesMoved` bytes. Returns the number of saves.
    std::uint64_t ExpectSafeDeaths(const std::function<void()>& makeOldState,
                                   const std::function<bool()>& trySave, std::uint64_t bytesMoved) {
        std::uint64_t writesDone = 0;
        for (bool isCommitted = false; !isCommitted; ++writesDone) {
            makeOldState();
            {
                const StdioFault fault(StdioCall::Write, EIO, writesDone,
                                       StdioFault::kEveryLaterCall, bytesMoved);
                isCommitted = trySave();
            }
            TakeCrashImage();
            // Half of the last page is enough to complete the save.
            const char state = RecoveredCrashImage();
            EXPECT_TRUE(state == (isCommitted ? 'n' : 'o') || (bytesMoved != 0 && state == 'n'))
                << state << " after " << writesDone << " writes and " << bytesMoved << " bytes";
            if (HasFailure()) { break; }
        }
        return writesDone;
    }

    const std::string crashPath_ = path_ + ".crash";
    Streams old_;
    Streams new_;
};

TEST_F(SaveTest, LeavesTheFileUnchangedUntilAPageLeavesTheCache) {
    Add(10000);
    EXPECT_EQ(package_->State(), FileState::Changed);
    ASSERT_TRUE(package_->Commit());
    const Bytes old = File();
    package_->BeginSave();
    EXPECT_EQ(package_->State(), FileState::Saving);
    EXPECT_TRUE(package_->HasChanges());
    EXPECT_TRUE(File() == old);
    CommitAndExpectFile();
    EXPECT_EQ(package_->State(), FileState::Clean);
}

TEST_F(SaveTest, ThatHasWrittenAPageIsWhatMakesTheFileReadableAgain) {
    const std::uint64_t old = Add(10000);
    ASSERT_TRUE(package_->Commit());
    package_->BeginSave();
    Delete(old);
    Add(100 * 8192);  // more than the cache holds
    EXPECT_EQ(package_->State(), FileState::Overwriting);
    EXPECT_EQ(Format::LoadInteger(File(), 0, 8), 0U);
    EXPECT_TRUE(HasJournal());
    EXPECT_FALSE(NewPackage()->Load());
    CommitAndExpectFile();
}

TEST_F(SaveTest, RolledBackBeforeAnyPageIsWrittenDoesNotHappen) {
    Add(10000);
    ASSERT_TRUE(package_->Commit());
    const Bytes old = File();
    package_->BeginSave();
    package_->DeleteDataStream(0);
    package_->Rollback();
    EXPECT_EQ(package_->State(), FileState::Closed);
    EXPECT_TRUE(File() == old);
    EXPECT_FALSE(HasJournal());
    ASSERT_TRUE(package_->Load());
    ExpectPackage();
}

TEST_F(SaveTest, IsOverAfterACommit) {
    package_->BeginSave();
    ASSERT_TRUE(package_->Commit());
    Add(10000);
    EXPECT_TRUE(NewPackage()->Load());
    CommitAndExpectFile();
}

TEST_F(SaveTest, LeavesPagesAloneThatAreFree) {
    Add(10000);
    ASSERT_TRUE(package_->Commit());
    package_->BeginSave();
    package_->ReservePages(300);
    Add(200 * 8192);                          // more than the cache holds
    EXPECT_EQ(package_->JournalPages(), 1U);  // the head page
    CommitAndExpectFile();
}

// Pages that were freed first are used first.
TEST_F(SaveTest, KeepsFewPagesIfEnoughAreFree) {
    for (const std::uint64_t reserved : {0U, 150U}) {
        StartOver();
        const std::uint64_t old = Add(100 * 8192);
        ASSERT_TRUE(package_->Commit());
        package_->BeginSave();
        package_->ReservePages(reserved);
        Delete(old);
        Add(100 * 8192);
        if (reserved == 0) {
            EXPECT_GT(package_->JournalPages(), 90U);
        } else {
            EXPECT_LE(package_->JournalPages(), 2U);
        }
        CommitAndExpectFile();
    }
}

TEST_F(SaveTest, DoesWithoutSparePagesForWhichThereIsNoRoom) {
    const std::uint64_t old = Add(10000);
    ASSERT_TRUE(package_->Commit());
    for (const std::uint64_t writes : {0U, 7U}) {
        package_->BeginSave();
        {
            const StdioFault fault(StdioCall::Write, ENOSPC, writes);
            package_->ReservePages(300);
            EXPECT_GT(fault.Failures(), 0U);
        }
        EXPECT_EQ(package_->State(), FileState::Saving);
        Add(20000);
        CommitAndExpectFile();
    }
    Delete(old);
    CommitAndExpectFile();
}

TEST_F(SaveTest, ReservesOnlyThePagesThatAreMissing) {
    const std::uint64_t old = Add(100 * 8192);
    ASSERT_TRUE(package_->Commit());
    Delete(old);
    CommitAndExpectFile();
    const std::size_t size = File().size();
    package_->BeginSave();
    package_->ReservePages(80);
    EXPECT_EQ(File().size(), size);
    package_->ReservePages(150);
    EXPECT_GT(File().size(), size);
    EXPECT_LE(File().size(), size + 50 * 8192);
    CommitAndExpectFile();
}

// A process that dies leaves the files as its last write left them. A write in progress may have
// moved half of a page.
TEST_F(SaveTest, ThatDiesAfterAnyWriteIsUndoneOrComplete) {
    for (const std::uint64_t bytesMoved : {0U, 4096U}) {
        const auto makeOldState = [&] { MakeOldState(); };
        EXPECT_GT(ExpectSafeDeaths(
                      makeOldState, [&] { return TrySave(); }, bytesMoved),
                  40U);
    }
}

// The commit uses the head page last, so the other pages are written first.
TEST_F(SaveTest, ThatDiesWhileItWritesALargeHeadFileIsUndoneOrComplete) {
    const auto makeOldState = [&] {
        StartOver();
        SetHeaderData(Format::Pattern(70 * 8192, 1));
        for (int stream = 0; stream < 10; ++stream) {
            Add(7500);
        }
        ASSERT_TRUE(package_->Commit());
        old_ = streams_;
        streams_.erase(0);
        streams_.erase(1);
        new_ = streams_;
    };
    const auto trySave = [&] {
        try {
            package_->BeginSave();
            package_->DeleteDataStream(0);
            package_->DeleteDataStream(1);
            EXPECT_EQ(package_->State(), FileState::Saving);
            return package_->Commit();
        } catch (const std::exception&) { return false; }
    };
    EXPECT_GT(ExpectSafeDeaths(makeOldState, trySave, 0), 40U);
}

// The first commit may have failed to mark the head page, or to finish it. The second one must mark
// it before it writes other pages. The head file is larger than the cache, so the commit writes
// some of its pages before the head page.
TEST_F(SaveTest, WhoseSecondCommitDiesAfterAnyWriteIsUndoneOrComplete) {
    settings_.pageCacheCapacity = 4;
    for (const std::uint64_t bytesMoved : {0U, 4096U}) {
        bool isCommitted = false;
        std::uint64_t writesDone = 0;
        const auto tryCommit = [&] {
            try {
                return package_->Commit();
            } catch (const FileIOException&) { return false; }
        };
        const auto makeOldStateAndFailToCommit = [&] {
            StartOver();
            SetHeaderData(Format::Pattern(8 * 8192, 1));
            for (const std::size_t pages : {3U, 2U, 1U}) {
                Add(pages * 8192);
            }
            ASSERT_TRUE(package_->Commit());
            old_ = streams_;
            package_->BeginSave();
            Delete(0);
            EXPECT_EQ(package_->State(), FileState::Saving);
            new_ = streams_;
            const StdioFault fault(StdioCall::Write, EIO, writesDone, 1, bytesMoved);
            isCommitted = tryCommit();
        };
        for (; !isCommitted; ++writesDone) {
            SCOPED_TRACE(testing::Message() << writesDone << " writes of the first commit, then "
                                            << bytesMoved << " bytes");
            const auto saves = ExpectSafeDeaths(makeOldStateAndFailToCommit, tryCommit, bytesMoved);
            EXPECT_GT(saves, isCommitted ? 0U : 9U);
            ASSERT_FALSE(HasFailure());
        }
        EXPECT_GT(writesDone, 10U);
    }
}

// The same for a process that lives on and undoes the save.
TEST_F(SaveTest, ThatFailsAtAnyCallIsRolledBack) {
    for (const StdioCall call : {StdioCall::Open, StdioCall::Close, StdioCall::Seek,
                                 StdioCall::Tell, StdioCall::Read, StdioCall::Write}) {
        for (const std::uint64_t bytesMoved : {0U, 8U, 4096U}) {
            std::uint64_t callsDone = 0;
            for (bool hasFailed = true; hasFailed; ++callsDone) {
                MakeOldState();
                bool isCommitted = false;
                {
                    const StdioFault fault(call, ENOSPC, callsDone, StdioFault::kEveryLaterCall,
                                           bytesMoved);
                    isCommitted = TrySave();
                    hasFailed = fault.Failures() > 0;
                }
                if (!isCommitted) { package_->Rollback(); }
                EXPECT_FALSE(HasJournal());
                EXPECT_EQ(StateOf(path_), isCommitted ? 'n' : 'o')
                    << "call " << static_cast<int>(call) << " after " << callsDone;
            }
            if (call != StdioCall::Read && call != StdioCall::Write) { break; }
        }
    }
}

// Some file systems report only then that bytes which were written are lost.
TEST_F(SaveTest, ThatCannotCloseTheFileIsRolledBack) {
    MakeOldState();
    {
        const StdioFault fault(StdioCall::Close, ENOSPC, 0, 1);
        EXPECT_FALSE(TrySave());
        EXPECT_EQ(fault.Failures(), 1U);
    }
    package_->Rollback();
    EXPECT_FALSE(HasJournal());
    EXPECT_EQ(StateOf(path_), 'o');
}

// The commit reopens the file. If only its first attempt fails, the second one empties the file.
TEST_F(SaveTest, FailsIfTheFileIsMadeAnewMeanwhile) {
    std::uint64_t opensDone = 0;
    for (bool hasFailed = true; hasFailed; ++opensDone) {
        MakeOldState();
        const StdioFault fault(StdioCall::Open, EMFILE, opensDone, 1);
        const bool isCommitted = TrySave();
        hasFailed = fault.Failures() > 0;
        EXPECT_EQ(isCommitted, !hasFailed);
        if (!hasFailed) { break; }
        const bool isEmptied = File().empty();
        EXPECT_EQ(isEmptied, opensDone == 1);  // the first file is the journal
        if (isEmptied) {
            EXPECT_THROW(package_->Rollback(), FileIOException);
        } else {
            package_->Rollback();
            EXPECT_EQ(StateOf(path_), 'o');
        }
    }
    EXPECT_EQ(opensDone, 2U);
}

TEST_F(SaveTest, ThatCannotBeRolledBackIsUndoneByALaterRecovery) {
    std::uint64_t writesDone = 0;
    for (bool isUndone = false; !isUndone; ++writesDone) {
        MakeOldState();
        {
            const StdioFault fault(StdioCall::Write, EIO, 30);
            ASSERT_FALSE(TrySave());
        }
        {
            const StdioFault fault(StdioCall::Write, EIO, writesDone, StdioFault::kEveryLaterCall,
                                   4096);
            try {
                package_->Rollback();
                isUndone = true;
            } catch (const FileIOException& exception) {
                EXPECT_EQ(exception.errorCode, static_cast<std::uint32_t>(EIO));
            }
        }
        EXPECT_EQ(HasJournal(), !isUndone);
        RollbackJournal::Recover(path_.c_str());
        EXPECT_EQ(StateOf(path_), 'o') << "after " << writesDone << " writes";
    }
    EXPECT_GT(writesDone, 10U);
}

TEST_F(SaveTest, IsUndoneByARecoveryThatDiedAtAnyWrite) {
    std::uint64_t writesDone = 0;
    for (bool isUndone = false; !isUndone; ++writesDone) {
        MakeOldState();
        {
            const StdioFault fault(StdioCall::Write, EIO, 30);
            ASSERT_FALSE(TrySave());
        }
        TakeCrashImage();
        package_->Rollback();
        {
            const StdioFault fault(StdioCall::Write, EIO, writesDone, StdioFault::kEveryLaterCall,
                                   4096);
            try {
                RollbackJournal::Recover(crashPath_.c_str());
                isUndone = true;
            } catch (const FileIOException&) {}
        }
        EXPECT_EQ(RecoveredCrashImage(), 'o') << "after " << writesDone << " writes";
    }
    EXPECT_GT(writesDone, 10U);
}

// The journal's file can't be made, because a folder has its name.
TEST_F(SaveTest, WithoutAJournalChangesNothing) {
    MakeOldState();
    std::filesystem::create_directories(JournalPath() + "/folder");
    const Bytes old = File();
    EXPECT_FALSE(TrySave());
    EXPECT_EQ(package_->State(), FileState::Saving);
    package_->Rollback();
    const Bytes file = File();
    ASSERT_GE(file.size(), old.size());
    EXPECT_TRUE(std::equal(old.begin(), old.end(), file.begin()));
    EXPECT_EQ(StateOf(path_), 'o');
    EXPECT_TRUE(std::filesystem::is_directory(JournalPath()));
}

TEST_F(SaveTest, ReplacesWhateverHasTheNameOfTheJournal) {
    const std::string victim = path_ + ".victim";
    Format::WriteWholeFile(victim, {1, 2, 3});
    for (const bool isLink : {false, true}) {
        MakeOldState();
        if (isLink) {
            std::error_code ignored;  // not every user of Windows may make links
            std::filesystem::create_symlink(victim, JournalPath(), ignored);
        } else {
            Format::WriteWholeFile(JournalPath(), Bytes(100000, 1));
        }
        EXPECT_TRUE(TrySave());
        EXPECT_FALSE(HasJournal());
        EXPECT_EQ(StateOf(path_), 'n');
    }
    EXPECT_EQ(Format::ReadWholeFile(victim), (Bytes{1, 2, 3}));
}

}  // namespace

}  // namespace Quorvel::Testing
