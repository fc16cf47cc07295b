#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "package/OpenStreams.h"
#include "package/StoredState.h"
#include "pagestore/ChildFileStream.h"
#include "pagestore/FilePageCache.h"
#include "pagestore/RollbackJournal.h"
#include "platform/Assert.h"
#include "quorvel/IDataStreamSet.h"
#include "quorvel/PagedFilePackageConfig.h"
#include "vornutil/RefPtr.h"

namespace Quorvel {

// How a package's file relates to what the package holds in memory.
//
//   Closed       No file is open.
//   Clean        The file holds what is in memory, as far as this process knows. Bytes written into
//                streams don't count as a difference.
//   Changed      Memory is ahead of the file, and pages that left the cache may have overwritten
//                parts of the state that the file describes.
//   Saving       Memory is ahead, but no page of the last committed state has been overwritten;
//                other pages may have been, and the file may have grown. The package listens to the
//                cache, to keep the old bytes of pages in the rollback journal. In the cache, the
//                head page carries the journal's mark. If writing the mark to the file has failed,
//                the file may hold a part of it: the next page that is written tries again, and
//                Rollback restores the head page.
//   Overwriting  As Saving, but pages of the last committed state may have been overwritten. Their
//                old bytes are in the journal's file, and the head page in the file carries the
//                mark: nothing can open the file until it is restored or Commit has written
//                everything.
//   Discarded    A file is open, but memory does not describe it: changes were discarded, or the
//                file is about to be loaded or created.
//
//   Closed -> Discarded                  OpenCache, called by Create and Load
//   Closed, Clean, Changed, Discarded
//                  -> Clean              Create; Load, through a second package and Swap. A Load
//                                        from Changed then still commits the changes: the file
//                                        differs from memory until it is loaded again
//   Clean -> Changed                     every operation that changes the package
//   Clean -> Saving                      BeginSave
//   Saving -> Overwriting                BeforePageWrite, for the first such page
//   Discarded -> Changed -> Clean        inside Create
//   Changed -> Clean                     Commit, which closes the file and opens it again
//   Saving -> Overwriting -> Clean       Commit, which removes the journal
//   Overwriting -> Clean                 the same
//   Saving, Overwriting -> Closed        Rollback, which restores the old state
//   Clean, Changed -> Discarded          Discard; a Closed package stays Closed
//   any -> Closed                        destruction, which first commits any changes
//
// A Commit that fails keeps the state, or turns Saving into Overwriting. It may leave the package
// without an open file, and without a head file in memory; another Commit, or Rollback, may follow.
enum class FileState { Closed, Clean, Changed, Saving, Overwriting, Discarded };

// A package over one file: its streams. A stream's bytes lie in whole pages, chained by the
// allocator, and in a fragment of a tail block. StoredState.h says how the package's own state is
// stored.
//
// For one thread at a time. Operations throw as IDataStreamSet documents.
class PagedFilePackage final : public IDataStreamSet, private PageListener {
public:
    // A package without a file. Throws InvalidParameterException when config has no path.
    explicit PagedFilePackage(const PagedFilePackageConfig& config);

    // The two ways to get a package: a new, empty one in the file, or the one that the file holds.
    // An empty reference on any failure. errno then tells the C library why: it is ENOMEM, the
    // error number of the call that failed, or 0 if the file does not hold an intact package. The
    // same holds for Load.
    [[nodiscard]] static Util::RefPtr<PagedFilePackage> Create(
        const PagedFilePackageConfig& config) noexcept;
    [[nodiscard]] static Util::RefPtr<PagedFilePackage> Open(
        const PagedFilePackageConfig& config) noexcept;

    // Starts a new, empty package in the file and commits it. REQUIRES: no save has begun and no
    // stream is open.
    void Create();

    FileState State() const { return state_; }

    // True if Commit has something to write.
    bool HasChanges() const;

    // Begins a save that is all or nothing; Commit or Rollback ends it. A process that dies in
    // between leaves the old state, the new one, or a file that RollbackJournal::Recover restores.
    // REQUIRES: the state is Clean and no stream is open. When it throws, nothing has changed.
    void BeginSave();

    // Makes sure that `count` pages are free, if the file can grow that far. A save that has enough
    // of them leaves most pages of the committed state as they are, and keeps few in its journal.
    // REQUIRES: BeginSave was called just before. Throws std::bad_alloc.
    void ReservePages(std::uint64_t count);

    // The number of pages that the save has kept in its journal.
    std::uint64_t JournalPages() const { return journal_ ? journal_->KeptPages() : 0; }

    // The number of pages of the head file that a save will free and write anew. REQUIRES: the
    // state is Clean, or Saving and no Commit has failed.
    std::uint64_t HeadPageCount() const {
        QUORVEL_ASSERT(stored_.headFile);
        return KnownPageCount(*stored_.headFile);
    }

    std::uint64_t TailBlockCount() const { return stored_.tailBlocks.BlockCount(); }

    // Undoes a save: puts back every page of the committed state and closes the file. Outside a
    // save it means Discard. Only Load, Discard or destruction may follow. REQUIRES: no stream is
    // open. Throws FileIOException or std::bad_alloc if a page could not be put back: the journal
    // then stays, and RollbackJournal::Recover can try again.
    void Rollback();

    // Forgets every change since the last Commit or Load without writing anything. Only Load,
    // Discard or destruction may follow. REQUIRES: no save has begun.
    void Discard();

    // True if no damage to the file can make one stream's bytes appear in another: see
    // PackageAudit.h. False without a file.
    [[nodiscard]] bool IsSound() const noexcept;

    // True if a stream has the id.
    bool HasStream(std::uint64_t id) const { return stored_.directory.HasId(id); }

    bool Load() override;
    bool Commit() override;
    std::uint64_t GetTotalDataSize() override;
    bool SetHeaderDataSize(std::uint64_t size) override;
    std::uint64_t GetHeaderDataSize() override;
    const std::uint8_t* GetHeaderData() const override;
    std::uint8_t* GetHeaderData() override;
    std::uint64_t GetNumberOfDataStreams() override;
    std::uint64_t GetDataStreamId(std::uint64_t index) override;
    Util::RefPtr<IDataStream> OpenDataStream(std::uint64_t id) override;
    std::uint64_t CreateDataStream(std::uint64_t size) override;
    bool DeleteDataStream(std::uint64_t id) override;

    // Called by a stream that is destroyed.
    void ForgetOpenStream(std::uint64_t id) noexcept;

protected:
    // Commits what was not committed, if it can, and closes the file. Streams that are still open
    // have no bytes from then on.
    ~PagedFilePackage() override;

private:
    void AssertState() const;
    void BeforePageChange(std::uint64_t page, const std::uint8_t* bytes) override;
    void BeforePageWrite(std::uint64_t page) override;
    void EndSave();
    void MarkChanged();
    bool IsInSave() const;

    void Close();
    void OpenCache();
    void Read();
    void ReopenFile();
    void EnsureFileIsOpen();
    void ReleaseStreamPages();
    void Swap(PagedFilePackage& other) noexcept;

    void CheckTailPages(const ChildFileTail& tail) const;
    std::uint64_t AllocateChain(std::uint64_t count, std::uint64_t* pages = nullptr);
    void FreeChain(std::uint64_t firstPage);
    [[nodiscard]] bool PlaceTail(std::uint64_t id, std::uint64_t length);

    FileState state_ = FileState::Closed;
    PagedFilePackageConfig config_;  // fileName points to path_
    std::string path_;
    std::unique_ptr<FilePageCache> cache_;
    StoredState stored_;
    OpenStreams openStreams_;
    std::unique_ptr<RollbackJournal> journal_;  // while a save runs
};

}  // namespace Quorvel
