#include "pagestore/RollbackJournal.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "pagestore/Fakes.h"
#include "support/TemporaryDirectory.h"

// Something else in the place of a journal, and journals of other users.
namespace Quorvel::Testing {

namespace {

class JournalOnPosix : public ::testing::Test {
protected:
    JournalOnPosix() {
        WriteFile(path_, old_);
        RollbackJournal journal(path_.c_str(), old_.size(), std::vector<bool>(4, true));
        journal.KeepPage(kHeadPageNumber, old_.data());
        EXPECT_TRUE(journal.PrepareWrite(kHeadPageNumber));
        journal.BeginOverwriting();
        const HeadPageMark mark = journal.Mark();
        std::memcpy(marked_.data(), &mark, sizeof mark);
        WriteFile(path_, marked_);
    }

    // True if there is something at the journal's path, even a link that leads nowhere.
    bool IsThere() const {
        return std::filesystem::exists(std::filesystem::symlink_status(journalPath_));
    }

    void ExpectRemovedWithoutRecovery() {
        RollbackJournal::Recover(path_.c_str());
        EXPECT_FALSE(IsThere());
        EXPECT_TRUE(ReadFile(path_) == marked_);
    }

    // Continues as the other user, who may write everything but the journal; that gets the given
    // mode.
    void ActAsOtherUser(mode_t journalMode) const {
        ASSERT_EQ(::chmod(directory_.Path().c_str(), 0777), 0);
        ASSERT_EQ(::chmod(path_.c_str(), 0666), 0);
        ASSERT_EQ(::chmod(journalPath_.c_str(), journalMode), 0);
        ASSERT_EQ(::seteuid(kOtherUser), 0);
    }

    static constexpr uid_t kOtherUser = 0x40000000;
    const TemporaryDirectory directory_;
    const std::string path_ = directory_.File("package");
    const std::string journalPath_ = path_ + "-journal";
    const Bytes old_ = PatternBytes(4 * kPageSize);
    Bytes marked_ = old_;
};

}  // namespace

TEST_F(JournalOnPosix, ThatIsALinkIsNotFollowed) {
    const std::string elsewhere = directory_.File("elsewhere");
    std::filesystem::rename(journalPath_, elsewhere);
    const Bytes journal = ReadFile(elsewhere);
    std::filesystem::create_symlink(elsewhere, journalPath_);
    ExpectRemovedWithoutRecovery();
    EXPECT_EQ(ReadFile(elsewhere), journal);
}

TEST_F(JournalOnPosix, ThatIsALinkToNothingIsRemoved) {
    std::filesystem::remove(journalPath_);
    std::filesystem::create_symlink(directory_.File("missing"), journalPath_);
    ExpectRemovedWithoutRecovery();
}

// The FIFO has no writer, so waiting for one would take forever.
TEST_F(JournalOnPosix, ThatIsAFifoIsRemovedWithoutWaiting) {
    std::filesystem::remove(journalPath_);
    ASSERT_EQ(::mkfifo(journalPath_.c_str(), 0600), 0);
    ExpectRemovedWithoutRecovery();
}

TEST_F(JournalOnPosix, ThatIsASocketIsRemoved) {
    std::filesystem::remove(journalPath_);
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(descriptor, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    ASSERT_LT(journalPath_.size(), sizeof address.sun_path);
    std::strcpy(address.sun_path, journalPath_.c_str());
    ASSERT_EQ(::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::close(descriptor);
    ExpectRemovedWithoutRecovery();
}

TEST_F(JournalOnPosix, ThatIsAnEmptyFolderIsRemoved) {
    std::filesystem::remove(journalPath_);
    std::filesystem::create_directory(journalPath_);
    ExpectRemovedWithoutRecovery();
}

// A new journal doesn't write through a link either.
TEST_F(JournalOnPosix, IsNotWrittenThroughALink) {
    const std::string elsewhere = directory_.File("elsewhere");
    WriteFile(elsewhere, {1, 2, 3});
    for (const std::string& target : {elsewhere, directory_.File("missing")}) {
        std::filesystem::remove(journalPath_);
        std::filesystem::create_symlink(target, journalPath_);
        RollbackJournal journal(path_.c_str(), old_.size(), std::vector<bool>(4, true));
        journal.KeepPage(kHeadPageNumber, old_.data());
        EXPECT_TRUE(journal.PrepareWrite(kHeadPageNumber));
        EXPECT_TRUE(std::filesystem::is_regular_file(
            std::filesystem::symlink_status(std::filesystem::path(journalPath_))));
    }
    EXPECT_EQ(ReadFile(elsewhere), (Bytes{1, 2, 3}));
    EXPECT_FALSE(std::filesystem::exists(directory_.File("missing")));
}

TEST_F(JournalOnPosix, OfAnotherUserIsRemoved) {
    if (::geteuid() != 0) { GTEST_SKIP() << "run the tests as root"; }
    ASSERT_EQ(::chown(journalPath_.c_str(), kOtherUser, static_cast<gid_t>(-1)), 0);
    ExpectRemovedWithoutRecovery();
}

// Any user who may write into the directory could otherwise make its caches inert.
TEST_F(JournalOnPosix, OfAnotherUserThatMayNotBeReadIsRemoved) {
    if (::geteuid() != 0) { GTEST_SKIP() << "run the tests as root"; }
    ActAsOtherUser(0600);
    EXPECT_NO_THROW(RollbackJournal::Recover(path_.c_str()));
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_FALSE(IsThere());
    EXPECT_TRUE(ReadFile(path_) == marked_);
}

// The package may need it, so it must not be ignored.
TEST_F(JournalOnPosix, OfTheUserThatMayNotBeReadStays) {
    if (::geteuid() != 0) { GTEST_SKIP() << "run the tests as root"; }
    ASSERT_EQ(::chown(journalPath_.c_str(), kOtherUser, static_cast<gid_t>(-1)), 0);
    ActAsOtherUser(0);
    const auto error = FileErrorOf([&] { RollbackJournal::Recover(path_.c_str()); });
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_EQ(error, EACCES);
    EXPECT_TRUE(ReadFile(path_) == marked_);
    ASSERT_EQ(::chown(journalPath_.c_str(), 0, static_cast<gid_t>(-1)), 0);
    RollbackJournal::Recover(path_.c_str());
    EXPECT_TRUE(ReadFile(path_) == old_);
}

}  // namespace Quorvel::Testing
