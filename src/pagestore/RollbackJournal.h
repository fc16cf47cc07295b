#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "pagestore/PageGeometry.h"
#include "pagestore/StdioFile.h"

namespace Quorvel {

struct JournalPiece;

// How the head page begins while the file is being overwritten. Because the page count is 0, the
// file can't be opened. The nonce, in the place of the byte size, names the journal that can
// restore it.
struct HeadPageMark {
    std::uint64_t pageCount = 0;
    std::uint64_t nonce;
};

// Keeps the old contents of the pages that a save overwrites in a file of its own, next to the
// package's, so that a save can be undone if it fails or its process dies.
//
//   1. KeepPage gets each page of the committed state before it changes for the first time.
//   2. Before such a page is written to the package's file, PrepareWrite makes sure that what was
//      kept of it is in the journal's file. (KeepPage writes there, too, whenever 31 pages have
//      been kept.) The package then marks its head page, once.
//   3. When everything is in the file, the head page is written without the mark. From then on the
//      journal is not needed, and is removed.
//
// If the process dies between 2 and 3, Recover puts the old pages back. A journal is applied only
// to a file with its own mark. Any other journal is removed, and a file with any other mark can't
// be opened.
//
// The journal's file is "<package's path>-journal". It consists of pieces of up to 31 pages with a
// header that holds their numbers and checksums. The head page is the first one. A process that
// dies while it writes a piece leaves it incomplete; the pages that are missing were not
// overwritten yet.
class RollbackJournal {
public:
    // The bytes that each kept page takes in the journal's file.
    static constexpr std::uint64_t kBytesPerPage = kPageSize + kPageSize / 31 + 1;

    // For a save of the package at a path, whose file has `packageSize` bytes. `pagesInUse` tells,
    // by page index, which pages belong to the committed state. Creates no file.
    RollbackJournal(const char* packagePath, std::uint64_t packageSize,
                    std::vector<bool> pagesInUse);
    RollbackJournal(const RollbackJournal&) = delete;
    RollbackJournal& operator=(const RollbackJournal&) = delete;

    // Removes the file, unless it is needed to restore the package.
    ~RollbackJournal();

    // What the head page in the file must say while the journal is needed.
    HeadPageMark Mark() const;

    // Keeps a page's old bytes, if it belongs to the committed state and was not kept before.
    // REQUIRES: the head page comes first. Throws FileIOException, std::bad_alloc.
    void KeepPage(std::uint64_t page, const std::uint8_t* bytes);

    // Must be called before a page is written to the package's file. True if the page was kept: its
    // old bytes are then in the journal's file. Throws FileIOException when they can't be written
    // there.
    [[nodiscard]] bool PrepareWrite(std::uint64_t page);

    // The mark is about to be written: from now on the journal is needed, until Finish.
    void BeginOverwriting() { isNeeded_ = true; }

    // True if the file may not be used without the journal.
    bool IsNeeded() const { return isNeeded_; }

    // The new state is complete.
    void Finish() { isNeeded_ = false; }

    // The number of pages kept.
    std::uint64_t KeptPages() const { return keptPages_; }

    // Puts the old pages back if any may have been overwritten. REQUIRES: the package's file is
    // closed, and nothing else is called afterwards. Throws FileIOException, std::bad_alloc if that
    // fails; the journal's file then stays.
    void Undo();

    // Undoes an unfinished save of the package at a path, if there was one, and removes the
    // journal. Does nothing when there is no journal. REQUIRES: this process caches no page of the
    // file. Throws FileIOException if the file may still need its journal, which then stays;
    // std::bad_alloc.
    static void Recover(const char* packagePath);

private:
    void WritePiece();

    const std::string packagePath_;
    const std::string path_;
    std::vector<bool> isToKeep_;  // by page index
    std::vector<bool> isKept_;    // by page index
    std::uint64_t keptPages_ = 0;
    std::unique_ptr<JournalPiece> piece_;  // not yet written to the file
    StdioFile file_;                       // created with the first piece
    std::uint64_t fileSize_ = 0;           // in full pieces
    bool isNeeded_ = false;
};

}  // namespace Quorvel
