#include "pagestore/RollbackJournal.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <utility>

#include "platform/Assert.h"
#include "platform/Clock.h"
#include "platform/Process.h"
#include "quorvel/Exceptions.h"

namespace Quorvel {

namespace {

constexpr std::uint64_t kMagic = 0x31304C4E524A5651;  // "QVJRNL01"
constexpr std::uint64_t kMostPages = 31;

std::string JournalPath(const std::string& packagePath) {
    return packagePath + "-journal";
}

// A checksum of bytes and two numbers. It computes four sums side by side, because within a sum
// each step has to wait for the one before. REQUIRES: the size is a multiple of 32.
std::uint64_t Checksum(std::uint64_t first, std::uint64_t second, const void* bytes,
                       std::uint64_t size) {
    const auto step = [](std::uint64_t sum, std::uint64_t word) {
        return std::rotl(sum ^ word, 29) * 0x9E3779B97F4A7C15;
    };
    std::uint64_t a = first;
    std::uint64_t b = second;
    std::uint64_t c = 0;
    std::uint64_t d = 0;
    std::uint64_t words[4];
    QUORVEL_ASSERT(size % sizeof words == 0);
    for (std::uint64_t offset = 0; offset < size; offset += sizeof words) {
        std::memcpy(words, static_cast<const std::uint8_t*>(bytes) + offset, sizeof words);
        a = step(a, words[0]);
        b = step(b, words[1]);
        c = step(c, words[2]);
        d = step(d, words[3]);
    }
    return step(step(step(a, b), c), d);
}

// A number that no other save has.
std::uint64_t MakeNonce() {
    const std::array<std::int64_t, 4> parts = {std::time(nullptr), Platform::PerformanceCounter(),
                                               Platform::CurrentProcessId()};
    return Checksum(0, 0, parts.data(), sizeof parts);
}

[[noreturn]] void Fail(int error) {
    throw FileIOException(static_cast<std::uint32_t>(error));
}

void SeekTo(std::FILE* file, std::uint64_t offset) {
    if (std::fseek(file, static_cast<long>(offset), SEEK_SET) != 0) { Fail(errno); }
}

void WriteAt(std::FILE* file, std::uint64_t offset, const void* bytes, std::uint64_t size) {
    SeekTo(file, offset);
    if (std::fwrite(bytes, size, 1, file) != 1) { Fail(errno); }
}

// Returns the number of bytes read, which is lower than asked for at the end of the file.
std::uint64_t ReadAt(std::FILE* file, std::uint64_t offset, void* bytes, std::uint64_t size) {
    SeekTo(file, offset);
    errno = 0;
    const std::uint64_t read = std::fread(bytes, 1, size, file);
    if (read < size && (std::ferror(file) != 0 || errno != 0)) { Fail(errno); }
    return read;
}

}  // namespace

// The unit in which the journal's file is written. The n-th piece lies at n times the size of a
// full one, because large writes at such offsets are the cheapest.
struct JournalPiece {
    struct Header {
        struct KeptPage {
            std::uint64_t number;
            std::uint64_t checksum;
        };

        std::uint64_t Checksum() const {
            return Quorvel::Checksum(nonce, count, this, offsetof(Header, checksum));
        }

        std::uint64_t magic;
        std::uint64_t nonce;
        std::uint64_t packageSize;  // in bytes, when the save began
        std::uint64_t count;        // of pages in this piece
        std::array<KeptPage, kMostPages> kept;
        std::array<std::uint64_t, 2> unused;
        std::uint64_t checksum;  // of everything before it
    };

    std::uint64_t Size() const { return offsetof(JournalPiece, pages) + header.count * kPageSize; }

    std::uint64_t PageChecksum(std::uint64_t slot) const {
        return Checksum(header.nonce, header.kept[slot].number, pages[slot].data(), kPageSize);
    }

    Header header;
    std::array<std::uint8_t, kPageSize - sizeof(Header)> padding;
    std::array<std::array<std::uint8_t, kPageSize>, kMostPages> pages;
};
static_assert(sizeof(JournalPiece) == 0x40000);
static_assert(RollbackJournal::kBytesPerPage * kMostPages >= sizeof(JournalPiece));

namespace {

// Reads a journal from its start, one piece at a time into `piece`, and calls `apply` with each
// page's number and old bytes: the head page first. False if the journal is damaged or holds no
// page. A last piece that is incomplete is no damage: a process that died may have left it so.
template <typename Apply>
bool ForEachPage(std::FILE* journal, JournalPiece& piece, const Apply& apply) {
    std::uint64_t nonce = 0;
    std::uint64_t pages = 0;
    for (std::uint64_t offset = 0;; offset += sizeof piece) {
        const std::uint64_t size = ReadAt(journal, offset, &piece, sizeof piece);
        const JournalPiece::Header& header = piece.header;
        if (size < kPageSize) { return pages > 0; }
        if (offset == 0) { nonce = header.nonce; }
        if (header.magic != kMagic || header.nonce != nonce || header.count > kMostPages ||
            header.checksum != header.Checksum()) {
            return false;
        }
        for (std::uint64_t slot = 0; slot < header.count; ++slot, ++pages) {
            if ((slot + 2) * kPageSize > size) { return pages > 0; }
            const std::uint64_t number = header.kept[slot].number;
            if (!IsValidPageNumber(number) || (number == kHeadPageNumber) != (pages == 0) ||
                header.kept[slot].checksum != piece.PageChecksum(slot)) {
                return false;
            }
            apply(number, piece.pages[slot]);
        }
    }
}

std::uint64_t PageOffset(std::uint64_t page) {
    return (page - kHeadPageNumber) << kPageShift;
}

// True if the package's head page carries the mark of a journal with that nonce.
bool IsMarked(std::FILE* package, std::uint64_t nonce) {
    HeadPageMark mark;
    return ReadAt(package, 0, &mark, sizeof mark) == sizeof mark && mark.pageCount == 0 &&
           mark.nonce == nonce;
}

// Puts the old pages back. The head page comes last: until it is written, the file is marked. The
// rest of the head page is written first, together with the mark, because a process that is killed
// may write only part of a page.
void Restore(std::FILE* package, std::FILE* journal, JournalPiece& piece) {
    std::vector<std::uint8_t> headPage;
    ForEachPage(journal, piece, [&](std::uint64_t number, auto& bytes) {
        if (number == kHeadPageNumber) {
            headPage.assign(bytes.begin(), bytes.end());
            const HeadPageMark mark = {0, piece.header.nonce};
            std::memcpy(bytes.data(), &mark, sizeof mark);
        }
        WriteAt(package, PageOffset(number), bytes.data(), kPageSize);
    });
    WriteAt(package, 0, headPage.data(), kPageSize);
}

// Restores the package, and returns true, if its head page carries the journal's mark, or if the
// journal is known to be the right one: a process that fails to write the mark may have written a
// part of it.
bool Apply(const std::string& packagePath, std::FILE* journal, bool isKnown) {
    StdioFile package;
    if (const int error = package.Open(packagePath.c_str(), "r+b"); error != 0) {
        if (error == ENOENT) { return false; }
        Fail(error);
    }
    JournalPiece::Header header;
    if (ReadAt(journal, 0, &header, sizeof header) < sizeof header) { return false; }
    if (!isKnown && !IsMarked(package.Get(), header.nonce)) { return false; }
    // A file that has become shorter has lost pages that were not kept.
    if (GetFileSize(package.Get()) < header.packageSize) { return false; }
    const auto piece = std::make_unique_for_overwrite<JournalPiece>();
    if (!ForEachPage(journal, *piece, [](std::uint64_t, const auto&) {})) { return false; }
    Restore(package.Get(), journal, *piece);
    if (const int error = package.Close(); error != 0) { Fail(error); }
    return true;
}

}  // namespace

RollbackJournal::RollbackJournal(const char* packagePath, std::uint64_t packageSize,
                                 std::vector<bool> pagesInUse)
    : packagePath_(packagePath),
      path_(JournalPath(packagePath_)),
      isToKeep_(std::move(pagesInUse)),
      isKept_(isToKeep_.size()),
      piece_(std::make_unique_for_overwrite<JournalPiece>()) {
    std::memset(piece_.get(), 0, kPageSize);  // pages are filled before they are written
    piece_->header.magic = kMagic;
    piece_->header.nonce = MakeNonce();
    piece_->header.packageSize = packageSize;
}

RollbackJournal::~RollbackJournal() {
    if (!file_.Get()) { return; }
    file_.Close();
    if (!isNeeded_) { std::remove(path_.c_str()); }
}

HeadPageMark RollbackJournal::Mark() const {
    return {0, piece_->header.nonce};
}

void RollbackJournal::KeepPage(std::uint64_t page, const std::uint8_t* bytes) {
    const std::uint64_t index = page - kHeadPageNumber;
    if (index >= isToKeep_.size() || !isToKeep_[index]) { return; }
    QUORVEL_ASSERT(keptPages_ > 0 || page == kHeadPageNumber);
    JournalPiece::Header& header = piece_->header;
    if (header.count == kMostPages) { WritePiece(); }
    std::copy_n(bytes, kPageSize, piece_->pages[header.count].begin());
    header.kept[header.count].number = page;
    header.kept[header.count].checksum = piece_->PageChecksum(header.count);
    ++header.count;
    isToKeep_[index] = false;
    isKept_[index] = true;
    ++keptPages_;
}

bool RollbackJournal::PrepareWrite(std::uint64_t page) {
    const std::uint64_t index = page - kHeadPageNumber;
    if (index >= isKept_.size() || !isKept_[index]) { return false; }
    const auto first = piece_->header.kept.begin();
    const auto last = first + static_cast<std::ptrdiff_t>(piece_->header.count);
    if (std::any_of(first, last, [&](const auto& kept) { return kept.number == page; })) {
        WritePiece();
    }
    return true;
}

// If a piece can't be written completely, the next attempt, if there is one, writes it again in the
// same place.
void RollbackJournal::WritePiece() {
    if (!file_.Get()) {
        std::remove(path_.c_str());  // what an earlier save left, or a link that was planted
        if (const int error = file_.Create(path_.c_str()); error != 0) { Fail(error); }
    }
    piece_->header.checksum = piece_->header.Checksum();
    WriteAt(file_.Get(), fileSize_, piece_.get(), piece_->Size());
    fileSize_ += sizeof(JournalPiece);
    piece_->header.count = 0;
}

void RollbackJournal::Undo() {
    if (!isNeeded_) { return; }
    StdioFile journal;
    if (const int error = journal.OpenPlain(path_.c_str()); error != 0) { Fail(error); }
    if (!Apply(packagePath_, journal.Get(), true)) { Fail(EIO); }
    isNeeded_ = false;
}

void RollbackJournal::Recover(const char* packagePath) {
    const std::string path = JournalPath(packagePath);
    StdioFile journal;
    const int error = journal.OpenPlain(path.c_str());
    if (error == ENOENT) { return; }
    if (error == 0) {
        Apply(packagePath, journal.Get(), false);
        journal.Close();
    } else if (error != ELOOP) {
        Fail(error);
    }
    std::remove(path.c_str());
}

}  // namespace Quorvel
