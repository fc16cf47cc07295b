#include "pagestore/RollbackJournal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <bit>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <memory>
#include <ostream>

#include "pagestore/Fakes.h"
#include "support/StdioFaults.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

namespace {

constexpr std::size_t kPiece = 0x40000;
constexpr std::size_t kPagesOfPiece = 31;
constexpr std::uint64_t kPages = 70;
constexpr std::uint64_t kHead = 10;

// The fields of a piece.
constexpr std::size_t kMagic = 0;
constexpr std::size_t kNonce = 8;
constexpr std::size_t kPackageSize = 16;
constexpr std::size_t kCount = 24;
constexpr std::size_t kKept = 32;     // a number and a checksum for each page
constexpr std::size_t kUnused = 528;  // 16 bytes
constexpr std::size_t kChecksum = 544;
constexpr std::size_t kPagesStart = 8192;

std::size_t NumberField(std::size_t slot) {
    return kKept + slot * 16;
}
std::size_t ChecksumField(std::size_t slot) {
    return kKept + slot * 16 + 8;
}
std::size_t PageField(std::size_t slot) {
    return kPagesStart + slot * kPageSize;
}

std::uint64_t Load(const Bytes& bytes, std::size_t offset) {
    return FieldAt<std::uint64_t>(bytes.data(), offset);
}
void Store(Bytes& bytes, std::size_t offset, std::uint64_t value) {
    std::memcpy(bytes.data() + offset, &value, sizeof value);
}

// The checksum of docs/format.md.
std::uint64_t Checksum(std::uint64_t first, std::uint64_t second, const Bytes& bytes) {
    const auto step = [](std::uint64_t sum, std::uint64_t word) {
        return std::rotl(sum ^ word, 29) * 0x9E3779B97F4A7C15;
    };
    std::uint64_t sums[4] = {first, second, 0, 0};
    for (std::size_t word = 0; word < bytes.size() / 8; ++word) {
        sums[word % 4] = step(sums[word % 4], Load(bytes, word * 8));
    }
    return step(step(step(sums[0], sums[1]), sums[2]), sums[3]);
}

// Recomputes the checksums of the piece at that offset of a journal.
void Seal(Bytes& journal, std::size_t piece = 0) {
    const std::uint64_t nonce = Load(journal, piece + kNonce);
    const std::uint64_t count = Load(journal, piece + kCount);
    for (std::size_t slot = 0; slot < std::min<std::uint64_t>(count, kPagesOfPiece); ++slot) {
        if (piece + PageField(slot + 1) > journal.size()) { break; }
        Store(journal, piece + ChecksumField(slot),
              Checksum(nonce, Load(journal, piece + NumberField(slot)),
                       Slice(journal, piece + PageField(slot), kPageSize)));
    }
    Store(journal, piece + kChecksum, Checksum(nonce, count, Slice(journal, piece, kChecksum)));
}

// The file of a package, which the tests overwrite. All its pages are in use.
class RollbackJournalTest : public ::testing::Test {
protected:
    RollbackJournalTest() { WriteFile(path_, old_); }

    std::unique_ptr<RollbackJournal> NewJournal() {
        return std::make_unique<RollbackJournal>(path_.c_str(), old_.size(),
                                                 std::vector<bool>(kPages, true));
    }

    bool HasJournal() const { return std::filesystem::exists(std::filesystem::path(journalPath_)); }

    void KeepPage(RollbackJournal& journal, std::uint64_t page) const {
        journal.KeepPage(page, Slice(old_, FileOffset(page), kPageSize).data());
    }

    // Overwrites the head page and the given number of pages after it, as a save does.
    void Overwrite(RollbackJournal& journal, std::uint64_t pages) {
        for (std::uint64_t page = kHead; page <= kHead + pages; ++page) {
            KeepPage(journal, page);
        }
        Bytes file = ReadFile(path_);
        for (std::uint64_t page = kHead; page <= kHead + pages; ++page) {
            EXPECT_TRUE(journal.PrepareWrite(page)) << page;
            std::fill_n(file.begin() + static_cast<std::ptrdiff_t>(FileOffset(page)), kPageSize,
                        std::uint8_t{0xEE});
        }
        journal.BeginOverwriting();
        const HeadPageMark mark = journal.Mark();
        std::memcpy(file.data(), &mark, sizeof mark);
        WriteFile(path_, file);
    }

    // Leaves the files as a process does when it dies after overwriting that number of pages.
    void DieAfterOverwriting(std::uint64_t pages) {
        WriteFile(path_, old_);
        const auto journal = NewJournal();
        Overwrite(*journal, pages);
    }

    // Expects that Recover leaves the package's file as it is and removes the journal.
    void ExpectRefused() {
        const Bytes package = ReadFile(path_);
        RollbackJournal::Recover(path_.c_str());
        EXPECT_TRUE(ReadFile(path_) == package);
        EXPECT_FALSE(HasJournal());
    }

    void ExpectRestored() {
        RollbackJournal::Recover(path_.c_str());
        EXPECT_TRUE(ReadFile(path_) == old_);
        EXPECT_FALSE(HasJournal());
    }

    void EditJournal(const std::function<void(Bytes&)>& edit) {
        Bytes journal = ReadFile(journalPath_);
        edit(journal);
        WriteFile(journalPath_, journal);
    }

    const TemporaryDirectory directory_;
    const std::string path_ = directory_.File("package");
    const std::string journalPath_ = path_ + "-journal";
    const Bytes old_ = PatternBytes(kPages * kPageSize);
};

}  // namespace

// ---- Keeping pages ------------------------------------------------------------------------------

TEST_F(RollbackJournalTest, HasNoFileBeforeAPageIsWritten) {
    const auto journal = NewJournal();
    for (std::uint64_t page = kHead; page < kHead + kPagesOfPiece; ++page) {
        KeepPage(*journal, page);
    }
    EXPECT_FALSE(HasJournal());
    EXPECT_TRUE(journal->PrepareWrite(kHead));
    EXPECT_TRUE(HasJournal());
}

TEST_F(RollbackJournalTest, KeepsOnlyPagesInUse) {
    std::vector<bool> pagesInUse(kPages, false);
    pagesInUse[0] = pagesInUse[2] = true;
    RollbackJournal journal(path_.c_str(), old_.size(), pagesInUse);
    for (const std::uint64_t page : {kHead, kHead + 1, kHead + 2, kHead + kPages}) {
        journal.KeepPage(page, old_.data());
    }
    EXPECT_EQ(journal.KeptPages(), 2u);
    EXPECT_FALSE(journal.PrepareWrite(kHead + 1));
    EXPECT_FALSE(journal.PrepareWrite(kHead + kPages));
    EXPECT_FALSE(HasJournal());
    EXPECT_TRUE(journal.PrepareWrite(kHead + 2));
}

TEST_F(RollbackJournalTest, KeepsAPageAsItWasTheFirstTime) {
    const auto journal = NewJournal();
    KeepPage(*journal, kHead);
    KeepPage(*journal, kHead + 5);
    const Bytes changed(kPageSize, 0x77);
    journal->KeepPage(kHead + 5, changed.data());
    EXPECT_EQ(journal->KeptPages(), 2u);
    ASSERT_TRUE(journal->PrepareWrite(kHead + 5));
    journal->KeepPage(kHead + 5, changed.data());
    EXPECT_EQ(journal->KeptPages(), 2u);
    const Bytes file = ReadFile(journalPath_);
    ASSERT_EQ(file.size(), PageField(2));
    EXPECT_EQ(Slice(file, PageField(1), kPageSize), Slice(old_, FileOffset(15), kPageSize));
}

TEST_F(RollbackJournalTest, IsWrittenOnceForThePagesOfAPiece) {
    const auto journal = NewJournal();
    for (const std::uint64_t page : {kHead, kHead + 1, kHead + 2}) {
        KeepPage(*journal, page);
    }
    const std::uint64_t before = CountStdioCalls().writes;
    for (const std::uint64_t page : {kHead + 1, kHead, kHead + 1, kHead + 2}) {
        EXPECT_TRUE(journal->PrepareWrite(page));
    }
    EXPECT_FALSE(journal->PrepareWrite(kHead + 3));
    EXPECT_EQ(CountStdioCalls().writes, before + 1);
    KeepPage(*journal, kHead + 3);
    EXPECT_TRUE(journal->PrepareWrite(kHead));
    EXPECT_EQ(CountStdioCalls().writes, before + 1);
    EXPECT_TRUE(journal->PrepareWrite(kHead + 3));
    EXPECT_EQ(CountStdioCalls().writes, before + 2);
}

// ---- The file -----------------------------------------------------------------------------------

TEST_F(RollbackJournalTest, HasPiecesOf256KibibytesWithNumbersAndChecksums) {
    const auto journal = NewJournal();
    Overwrite(*journal, 2 * kPagesOfPiece + 2);
    EXPECT_EQ(journal->KeptPages(), 2 * kPagesOfPiece + 3);
    const Bytes file = ReadFile(journalPath_);
    ASSERT_EQ(file.size(), 2 * kPiece + PageField(3));
    std::uint64_t page = kHead;
    for (std::size_t piece = 0; piece < file.size(); piece += kPiece) {
        SCOPED_TRACE(piece);
        EXPECT_EQ(Slice(file, piece, 8), (Bytes{'Q', 'V', 'J', 'R', 'N', 'L', '0', '1'}));
        EXPECT_EQ(Load(file, piece + kNonce), journal->Mark().nonce);
        EXPECT_EQ(Load(file, piece + kPackageSize), old_.size());
        const std::uint64_t count = Load(file, piece + kCount);
        EXPECT_EQ(count, piece < 2 * kPiece ? kPagesOfPiece : 3);
        for (std::size_t slot = 0; slot < count; ++slot, ++page) {
            EXPECT_EQ(Load(file, piece + NumberField(slot)), page);
            EXPECT_EQ(Slice(file, piece + PageField(slot), kPageSize),
                      Slice(old_, FileOffset(page), kPageSize));
        }
        EXPECT_EQ(Slice(file, piece + kUnused, 16), Bytes(16));
    }
    Bytes sealed = file;
    for (std::size_t piece = 0; piece < sealed.size(); piece += kPiece) {
        Seal(sealed, piece);
    }
    EXPECT_TRUE(sealed == file);
}

TEST_F(RollbackJournalTest, HasANonceOfItsOwn) {
    const auto one = NewJournal();
    const auto other = NewJournal();
    EXPECT_EQ(one->Mark().pageCount, 0u);
    EXPECT_EQ(one->Mark().nonce, one->Mark().nonce);
    EXPECT_NE(one->Mark().nonce, other->Mark().nonce);
}

TEST_F(RollbackJournalTest, IsRemovedUnlessItIsNeeded) {
    {
        const auto journal = NewJournal();
        KeepPage(*journal, kHead);
        ASSERT_TRUE(journal->PrepareWrite(kHead));
        ASSERT_TRUE(HasJournal());
    }
    EXPECT_FALSE(HasJournal());
    {
        const auto journal = NewJournal();
        Overwrite(*journal, 40);
        journal->Finish();
        EXPECT_TRUE(HasJournal());
    }
    EXPECT_FALSE(HasJournal());
    DieAfterOverwriting(40);
    EXPECT_TRUE(HasJournal());
}

TEST_F(RollbackJournalTest, WithoutAFileOfItsOwnRemovesNone) {
    WriteFile(journalPath_, {1, 2, 3});
    {
        const auto journal = NewJournal();
        KeepPage(*journal, kHead);
    }
    EXPECT_EQ(ReadFile(journalPath_), (Bytes{1, 2, 3}));
}

TEST_F(RollbackJournalTest, ReplacesAFileThatAnEarlierSaveLeft) {
    WriteFile(journalPath_, Bytes(3 * kPiece, 1));
    DieAfterOverwriting(3);
    EXPECT_EQ(std::filesystem::file_size(journalPath_), PageField(4));
    ExpectRestored();
}

TEST_F(RollbackJournalTest, ThatCannotBeCreatedRefusesTheWrite) {
    std::filesystem::create_directories(journalPath_ + "/folder");
    const auto journal = NewJournal();
    KeepPage(*journal, kHead);
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(FileErrorOf([&] { (void)journal->PrepareWrite(kHead); }), EEXIST);
    }
}

// A piece that was partly written is written again, with the pages kept in the meantime.
TEST_F(RollbackJournalTest, ThatCannotBeWrittenCanBeTriedAgain) {
    for (const StdioCall call : {StdioCall::Open, StdioCall::Seek, StdioCall::Write}) {
        WriteFile(path_, old_);
        auto journal = NewJournal();
        KeepPage(*journal, kHead);
        KeepPage(*journal, kHead + 1);
        {
            const StdioFault fault(call, ENOSPC, 0, 1, PageField(1) + 4096);
            EXPECT_EQ(FileErrorOf([&] { (void)journal->PrepareWrite(kHead + 1); }), ENOSPC);
            EXPECT_EQ(fault.Failures(), 1u);
        }
        Overwrite(*journal, 2 * kPagesOfPiece);
        EXPECT_EQ(journal->KeptPages(), 2 * kPagesOfPiece + 1);
        EXPECT_EQ(std::filesystem::file_size(journalPath_), 2 * kPiece + PageField(1));
        journal.reset();
        ExpectRestored();
    }
}

TEST_F(RollbackJournalTest, RefusesAPageWhenAFullPieceCannotBeWritten) {
    auto journal = NewJournal();
    for (std::uint64_t page = kHead; page < kHead + kPagesOfPiece; ++page) {
        KeepPage(*journal, page);
    }
    {
        const StdioFault fault(StdioCall::Write, ENOSPC);
        EXPECT_EQ(FileErrorOf([&] { KeepPage(*journal, kHead + kPagesOfPiece); }), ENOSPC);
    }
    EXPECT_EQ(journal->KeptPages(), kPagesOfPiece);
    EXPECT_FALSE(journal->PrepareWrite(kHead + kPagesOfPiece));
    Overwrite(*journal, kPagesOfPiece);
    journal.reset();
    ExpectRestored();
}

// ---- Undoing a save -----------------------------------------------------------------------------

TEST_F(RollbackJournalTest, UndoPutsTheOldPagesBack) {
    for (const std::uint64_t pages : {0U, 1U, 30U, 31U, 69U}) {
        const auto journal = NewJournal();
        Overwrite(*journal, pages);
        journal->Undo();
        EXPECT_TRUE(ReadFile(path_) == old_) << pages;
    }
    EXPECT_FALSE(HasJournal());
}

TEST_F(RollbackJournalTest, UndoWritesNothingIfNothingWasOverwritten) {
    const auto journal = NewJournal();
    KeepPage(*journal, kHead);
    ASSERT_TRUE(journal->PrepareWrite(kHead));
    const std::uint64_t before = CountStdioCalls().writes;
    journal->Undo();
    EXPECT_EQ(CountStdioCalls().writes, before);
}

// The write of the mark may have failed half-way.
TEST_F(RollbackJournalTest, UndoDoesNotLookForTheMark) {
    const auto journal = NewJournal();
    Overwrite(*journal, 40);
    Bytes file = ReadFile(path_);
    Store(file, 0, 12345);
    WriteFile(path_, file);
    journal->Undo();
    EXPECT_TRUE(ReadFile(path_) == old_);
}

TEST_F(RollbackJournalTest, ThatCannotBeAppliedStays) {
    const std::vector<std::function<void()>> obstacles = {
        [&] { std::filesystem::resize_file(path_, old_.size() - 1); },
        [&] { std::filesystem::remove(path_); },
        [&] { EditJournal([](Bytes& bytes) { bytes[kNonce] ^= 1; }); },
    };
    for (std::size_t index = 0; index < obstacles.size(); ++index) {
        WriteFile(path_, old_);
        {
            const auto journal = NewJournal();
            Overwrite(*journal, 40);
            obstacles[index]();
            EXPECT_EQ(FileErrorOf([&] { journal->Undo(); }), EIO) << index;
        }
        EXPECT_TRUE(HasJournal()) << index;
    }
}

TEST_F(RollbackJournalTest, UndoWithoutTheJournalsFileFails) {
    const std::string elsewhere = directory_.File("elsewhere");
    {
        const auto journal = NewJournal();
        Overwrite(*journal, 40);
        std::filesystem::rename(journalPath_, elsewhere);
        EXPECT_EQ(FileErrorOf([&] { journal->Undo(); }), ENOENT);
    }
    std::filesystem::rename(elsewhere, journalPath_);
    ExpectRestored();
}

// ---- Recovery -----------------------------------------------------------------------------------

TEST_F(RollbackJournalTest, RecoverPutsTheOldPagesBack) {
    for (const std::uint64_t pages : {0U, 1U, 29U, 30U, 31U, 61U, 62U, 69U}) {
        SCOPED_TRACE(pages);
        DieAfterOverwriting(pages);
        ExpectRestored();
        ExpectRestored();
    }
}

// If a page is written soon after it was kept, its piece is written before it is full.
TEST_F(RollbackJournalTest, RecoverReadsPiecesThatAreNotFull) {
    {
        const auto journal = NewJournal();
        KeepPage(*journal, kHead);
        for (std::uint64_t page = kHead + 1; page < kHead + 4; ++page) {
            KeepPage(*journal, page);
            ASSERT_TRUE(journal->PrepareWrite(page));
        }
        Overwrite(*journal, 5);
    }
    EXPECT_EQ(std::filesystem::file_size(journalPath_), 3 * kPiece + PageField(2));
    ExpectRestored();
}

TEST_F(RollbackJournalTest, RecoverWithoutAJournalTouchesNothing) {
    Bytes marked = old_;
    Store(marked, 0, 0);
    for (const Bytes& package : {old_, marked, Bytes()}) {
        WriteFile(path_, package);
        ExpectRefused();
    }
    std::filesystem::remove(path_);
    RollbackJournal::Recover(path_.c_str());
    EXPECT_FALSE(std::filesystem::exists(path_));
    RollbackJournal::Recover(directory_.File("missing/package").c_str());
}

TEST_F(RollbackJournalTest, RecoverAppliesNoJournalToAPackageWithoutItsMark) {
    const std::vector<std::function<void(Bytes&)>> edits = {
        [](Bytes& package) { Store(package, 0, 1); },
        [](Bytes& package) { Store(package, 0, std::uint64_t{1} << 56); },
        [](Bytes& package) { Store(package, 8, Load(package, 8) ^ 1); },
        [](Bytes& package) { Store(package, 8, Load(package, 8) ^ (std::uint64_t{1} << 63)); },
        [](Bytes& package) { Store(package, 8, 0); },
    };
    for (std::size_t index = 0; index < edits.size(); ++index) {
        SCOPED_TRACE(index);
        DieAfterOverwriting(40);
        Bytes package = ReadFile(path_);
        edits[index](package);
        WriteFile(path_, package);
        ExpectRefused();
    }
}

TEST_F(RollbackJournalTest, RecoverAppliesNoJournalToAPackageThatLostPages) {
    for (const std::size_t size : {std::size_t{0}, std::size_t{15}, old_.size() - 1}) {
        DieAfterOverwriting(40);
        std::filesystem::resize_file(path_, size);
        ExpectRefused();
    }
}

TEST_F(RollbackJournalTest, RecoverDoesNotMakeAPackage) {
    DieAfterOverwriting(40);
    std::filesystem::remove(path_);
    RollbackJournal::Recover(path_.c_str());
    EXPECT_FALSE(std::filesystem::exists(path_));
    EXPECT_FALSE(HasJournal());
}

TEST_F(RollbackJournalTest, RecoverLeavesPagesByWhichThePackageHasGrown) {
    DieAfterOverwriting(40);
    std::filesystem::resize_file(path_, old_.size() + 5 * kPageSize + 100);
    RollbackJournal::Recover(path_.c_str());
    const Bytes package = ReadFile(path_);
    EXPECT_EQ(package.size(), old_.size() + 5 * kPageSize + 100);
    EXPECT_TRUE(Slice(package, 0, old_.size()) == old_);
}

// A page in use may lie past the end of the file. The save has made the file longer.
TEST_F(RollbackJournalTest, RecoverPutsAPageBackThatLayPastTheEnd) {
    const Bytes page = PatternBytes(kPageSize, 9);
    {
        RollbackJournal journal(path_.c_str(), old_.size(), std::vector<bool>(kPages + 20, true));
        journal.KeepPage(kHead, old_.data());
        journal.KeepPage(kHead + kPages + 9, page.data());
        Overwrite(journal, 2);
        ASSERT_TRUE(journal.PrepareWrite(kHead + kPages + 9));
    }
    RollbackJournal::Recover(path_.c_str());
    const Bytes package = ReadFile(path_);
    ASSERT_EQ(package.size(), (kPages + 10) * kPageSize);
    EXPECT_TRUE(Slice(package, 0, old_.size()) == old_);
    EXPECT_EQ(Slice(package, (kPages + 9) * kPageSize, kPageSize), page);
}

// Each region of a piece, with the size of what is checked there.
TEST_F(RollbackJournalTest, RecoverRefusesADamagedJournalAsAWhole) {
    constexpr std::uint64_t kOverwritten = kPagesOfPiece + 3;
    struct Region {
        std::size_t offset;
        std::size_t size;
    };
    for (const std::size_t piece : {std::size_t{0}, kPiece}) {
        const std::size_t lastSlot = piece == 0 ? kPagesOfPiece - 1 : 3;
        const std::vector<Region> regions = {{kMagic, 8},
                                             {kNonce, 8},
                                             {kPackageSize, 8},
                                             {kCount, 8},
                                             {NumberField(0), 16},
                                             {NumberField(lastSlot), 16},
                                             {NumberField(kPagesOfPiece - 1), 16},
                                             {kUnused, 16},
                                             {kChecksum, 8},
                                             {PageField(0), kPageSize},
                                             {PageField(1), kPageSize},
                                             {PageField(lastSlot), kPageSize}};
        for (const Region& region : regions) {
            const std::size_t last = region.offset + region.size - 1;
            for (const std::size_t offset :
                 {region.offset, region.offset + region.size / 2, last}) {
                SCOPED_TRACE(testing::Message()
                             << "byte " << offset << " of the piece at " << piece);
                DieAfterOverwriting(kOverwritten);
                EditJournal([&](Bytes& journal) { journal[piece + offset] ^= 0x10; });
                ExpectRefused();
                ASSERT_FALSE(HasFailure());
            }
        }
        DieAfterOverwriting(kOverwritten);
        EditJournal([&](Bytes& journal) { journal[piece + kPagesStart - 1] ^= 1; });
        ExpectRestored();  // nothing is stored there
    }
}

// Journals that no save writes, with the right checksums.
TEST_F(RollbackJournalTest, RecoverRefusesAJournalThatMakesNoSense) {
    const std::vector<std::function<void(Bytes&)>> edits = {
        [](Bytes& bytes) { Store(bytes, kMagic, Load(bytes, kMagic) + 1); },
        [](Bytes& bytes) { Store(bytes, kPiece + kMagic, 0); },
        [](Bytes& bytes) { Store(bytes, kPiece + kNonce, Load(bytes, kNonce) + 1); },
        [](Bytes& bytes) { Store(bytes, kPackageSize, Load(bytes, kPackageSize) + 1); },
        [](Bytes& bytes) { Store(bytes, kCount, kPagesOfPiece + 1); },
        [](Bytes& bytes) { Store(bytes, kPiece + kCount, ~std::uint64_t{0}); },
        [](Bytes& bytes) { Store(bytes, NumberField(0), kHead + 1); },
        [](Bytes& bytes) { Store(bytes, NumberField(1), kHead); },
        [](Bytes& bytes) { Store(bytes, kPiece + NumberField(0), kHead); },
        [](Bytes& bytes) { Store(bytes, NumberField(1), kHead - 1); },
        [](Bytes& bytes) { Store(bytes, NumberField(1), 0x100000); },
        [](Bytes& bytes) { Store(bytes, kPiece + NumberField(1), ~std::uint64_t{0}); },
        [](Bytes& bytes) {
            bytes.resize(kPiece);
            Store(bytes, kCount, 0);
        },
    };
    for (std::size_t index = 0; index < edits.size(); ++index) {
        SCOPED_TRACE(index);
        DieAfterOverwriting(kPagesOfPiece + 3);
        EditJournal([&](Bytes& bytes) {
            edits[index](bytes);
            for (std::size_t piece = 0; piece < bytes.size(); piece += kPiece) {
                Seal(bytes, piece);
            }
        });
        ExpectRefused();
    }
}

// A process that dies while it writes a piece leaves it incomplete. It has not overwritten the
// pages that are missing.
TEST_F(RollbackJournalTest, RecoverAppliesThePagesThatAnIncompleteJournalHolds) {
    constexpr std::uint64_t kKeptPages = 2 * kPagesOfPiece + 5;
    for (std::size_t piece = 0; piece < kKeptPages; piece += kPagesOfPiece) {
        for (const std::size_t slots : {0U, 1U, 2U, 3U}) {
            for (const int difference : {-1, 0, 1, 551, 552, 4096, 8191}) {
                const auto size =
                    static_cast<std::ptrdiff_t>(piece / kPagesOfPiece * kPiece + PageField(slots)) +
                    difference;
                SCOPED_TRACE(testing::Message() << "bytes: " << size);
                DieAfterOverwriting(kKeptPages - 1);
                std::filesystem::resize_file(journalPath_, static_cast<std::uintmax_t>(size));
                const std::uint64_t complete =
                    piece + (difference >= 0 ? slots : slots - (slots > 0 ? 1 : 0));
                if (complete == 0) {
                    ExpectRefused();
                    continue;
                }
                RollbackJournal::Recover(path_.c_str());
                const Bytes package = ReadFile(path_);
                EXPECT_TRUE(Slice(package, 0, complete * kPageSize) ==
                            Slice(old_, 0, complete * kPageSize));
                EXPECT_EQ(package[complete * kPageSize], 0xEE);
                EXPECT_FALSE(HasJournal());
            }
        }
    }
}

TEST_F(RollbackJournalTest, RecoverRemovesAJournalWithoutPages) {
    for (const std::size_t size : {0U, 1U, 551U, 552U, 4096U, 8191U, 8192U, 8193U, 16383U}) {
        SCOPED_TRACE(size);
        DieAfterOverwriting(3);
        std::filesystem::resize_file(journalPath_, size);
        ExpectRefused();
    }
}

// The head page comes last, and carries the mark until then.
TEST_F(RollbackJournalTest, RecoverCanBeRepeatedUntilTheHeadPageIsBack) {
    DieAfterOverwriting(40);
    const Bytes damaged = ReadFile(path_);
    const Bytes journal = ReadFile(journalPath_);
    const std::uint64_t nonce = Load(damaged, 8);
    std::uint64_t writes = 0;
    for (bool isDone = false; !isDone; ++writes) {
        WriteFile(path_, damaged);
        WriteFile(journalPath_, journal);
        {
            const StdioFault fault(StdioCall::Write, EIO, writes);
            isDone = FileErrorOf([&] { RollbackJournal::Recover(path_.c_str()); }) == std::nullopt;
        }
        EXPECT_EQ(HasJournal(), !isDone);
        if (!isDone) {
            EXPECT_EQ(Load(ReadFile(path_), 0), 0u);
            EXPECT_EQ(Load(ReadFile(path_), 8), nonce);
        }
        ExpectRestored();
    }
    EXPECT_EQ(writes, 43u);  // 41 pages and the head page again; the 43rd attempt succeeds
}

TEST_F(RollbackJournalTest, RecoverThatFailsKeepsTheJournal) {
    struct Failure {
        StdioCall call;
        std::uint64_t bytesMoved;
    };
    DieAfterOverwriting(40);
    const Bytes damaged = ReadFile(path_);
    const Bytes journal = ReadFile(journalPath_);
    for (const Failure& failure : std::vector<Failure>{{StdioCall::Open, 0},
                                                       {StdioCall::Seek, 0},
                                                       {StdioCall::Tell, 0},
                                                       {StdioCall::Read, 0},
                                                       {StdioCall::Read, 8},
                                                       {StdioCall::Write, 0},
                                                       {StdioCall::Write, 4096}}) {
        bool hasFailed = true;
        for (std::uint64_t skipped = 0; hasFailed; ++skipped) {
            SCOPED_TRACE(testing::Message() << "call " << static_cast<int>(failure.call)
                                            << " after " << skipped << " calls");
            WriteFile(path_, damaged);
            WriteFile(journalPath_, journal);
            {
                const StdioFault fault(failure.call, EIO, skipped, 1, failure.bytesMoved);
                const auto error = FileErrorOf([&] { RollbackJournal::Recover(path_.c_str()); });
                hasFailed = fault.Failures() > 0;
                EXPECT_EQ(error, hasFailed ? std::optional(EIO) : std::nullopt);
            }
            EXPECT_EQ(HasJournal(), hasFailed);
            ExpectRestored();
            ASSERT_FALSE(HasFailure());
        }
    }
}

TEST_F(RollbackJournalTest, RecoverThatCannotCloseThePackageKeepsTheJournal) {
    DieAfterOverwriting(40);
    {
        const StdioFault fault(StdioCall::Close, EIO, 0, 1);
        EXPECT_EQ(FileErrorOf([&] { RollbackJournal::Recover(path_.c_str()); }), EIO);
    }
    EXPECT_TRUE(HasJournal());
    ExpectRestored();
}

TEST_F(RollbackJournalTest, ThatCannotBeRemovedIsAppliedOnlyOnce) {
    DieAfterOverwriting(40);
    {
        const StdioFault fault(StdioCall::Remove, EACCES);
        RollbackJournal::Recover(path_.c_str());
        EXPECT_GT(fault.Failures(), 0u);
    }
    EXPECT_TRUE(HasJournal());
    EXPECT_TRUE(ReadFile(path_) == old_);
    WriteFile(path_, PatternBytes(old_.size(), 5));
    ExpectRefused();
}

TEST_F(RollbackJournalTest, RecoverPassesOverAFolderInItsPlace) {
    std::filesystem::create_directories(journalPath_ + "/folder");
    RollbackJournal::Recover(path_.c_str());
    EXPECT_TRUE(ReadFile(path_) == old_);
    EXPECT_TRUE(std::filesystem::exists(journalPath_ + "/folder"));
}

}  // namespace Quorvel::Testing
