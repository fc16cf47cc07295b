#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "package/StreamDirectory.h"
#include "package/TailBlockTable.h"
#include "pagestore/ChildFileStream.h"
#include "pagestore/FilePageCache.h"
#include "pagestore/PageAllocator.h"
#include "quorvel/IDataStreamSet.h"
#include "quorvel/PagedFilePackageConfig.h"
#include "seekers/IPagedFileSeeker.h"
#include "vornutil/RefPtr.h"

namespace Quorvel {

// A package over one file.
//
// A stream's bytes lie in whole pages, chained by the allocator, and in a fragment of a tail block.
// The package's own state lies in the head file, in this order: the allocator's links, the stream
// directory, the tail block table, the length of the header data (8 bytes) and the header data.
//
// Commit frees the pages of the head file and writes a new one, which begins at page 10 like every
// head file. Page 10 is never free: a Commit that fails leaves it to the next one. Load builds a
// second package from the file and exchanges all state with it.
class PagedFilePackage : public IDataStreamSet {
public:
    // An empty package without a file. Throws InvalidParameterException when config has no path.
    explicit PagedFilePackage(const PagedFilePackageConfig& config);

    // Starts a new, empty package in the file and commits it. Returns true. Throws as the
    // operations of IDataStreamSet do.
    bool Create();

    // Whether anything changed since the last Commit or Load.
    bool HasChanges() const { return dirty_; }

    // Whether a stream has the id.
    bool HasStream(std::uint64_t id) const { return directory_.HasId(id); }

    // Forgets every change since the last Commit or Load without writing anything: what is in
    // memory is then worth nothing until the next Load. For a package whose file somebody else has
    // rewritten, or whose state is half done.
    void Abandon();

    // Has the file marked as unfinished, before its first page is overwritten and until the next
    // Commit has written everything: its head page then says that it has no pages. Who dies on the
    // way leaves the old state or a file that can't be opened, not one that mixes two states.
    // Counts as a change. Throws as the operations of IDataStreamSet do.
    void MarkUnfinished();

    // Whether the file may no longer hold what was last committed or loaded.
    bool MayHaveChangedFile() const;

    // Whether what was loaded is as a writer leaves it, where a damage could let one stream have
    // the bytes of another, now or after a change: each page of the head file, of a stream and of a
    // tail block is in use, lies in the file and belongs to nothing else, and no other page has a
    // successor; each tail block is a chain of its pages, and the fragments stand in it one behind
    // the other, in the order of its list. False also for a package that can't be examined for lack
    // of memory or of a file.
    bool IsSound() noexcept;

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

    // Called by a stream that dies.
    void ForgetOpenStream(std::uint64_t id) noexcept;

    // Offered by a stream that dies: its seeker, for the next one, or null. Taken and cleared if
    // nobody else holds it.
    void TakeBack(ChildFileSeeker* seeker) noexcept;

protected:
    // Commits what was not committed, if it can, and closes the file.
    ~PagedFilePackage() override;

private:
    // Pins on the pages of a tail block.
    using TailBlockPins = std::array<std::optional<PageRef>, kTailBlockPages>;

    void Close();
    void OpenCache();
    void ReadState();
    void Swap(PagedFilePackage& other) noexcept;
    PageAllocator& Allocator() const;

    void ReopenFile();
    void EnsureFileIsOpen();
    void FreeHeadFile();
    void FreeHeadPages(const std::uint64_t* pages, std::uint64_t count);
    bool CreateHeadFile();
    void SetStoredPageCount(std::uint64_t pageCount);
    std::uint64_t AllocateHeadPages(std::vector<std::uint64_t>& pages);
    void ReleaseStreamPages();
    bool WriteState();

    Util::RefPtr<ChildFileSeeker> TakeSeeker();
    void EnterOpenStream(std::uint64_t id, ChildFileStream* stream);
    std::uint64_t AllocateChain(std::uint64_t count, std::uint64_t* pages = nullptr);
    void FreeChain(std::uint64_t firstPage);
    void CheckPagesOfStream(const ChildFileExtent& extent, const ChildFileTail& tail) const;
    std::uint64_t AllocateStream(std::uint64_t size);
    bool PlaceTail(std::uint64_t id, std::uint64_t length);
    Util::RefPtr<PagedFileStream> OpenTailBlock(std::uint64_t blockId);
    void PinTailBlock(TailBlockPins& pins, const TailFragment& fragment);
    void ReattachStreamsOfBlock(std::uint64_t blockId);

    // The steps of IsSound.
    class PageClaims;
    bool ClaimHeadFile(PageClaims& claims);
    bool ClaimStreams(PageClaims& claims) const;
    bool ClaimTailBlocks(PageClaims& claims) const;
    bool AreFragmentsInOrder(const TailBlockRecord& block) const;

    bool dirty_;
    PagedFilePackageConfig config_;
    std::string path_;
    std::unique_ptr<FilePageCache> cache_;
    Util::RefPtr<IPageAllocator> allocator_;
    StreamDirectory directory_;
    TailBlockTable tailBlocks_;
    std::vector<std::uint8_t> headerData_;
    Util::RefPtr<IPagedFileSeeker> headFile_;
    std::map<std::uint64_t, ChildFileStream*> openStreams_;
    bool isMarkedUnfinished_;
    bool reopened_;  // false when the last attempt to reopen the file failed

    // What the last stream that died leaves to the next one: streams come and go by the thousand,
    // mostly one at a time.
    Util::RefPtr<ChildFileSeeker> spareSeeker_;
    std::map<std::uint64_t, ChildFileStream*>::node_type spareEntry_;
};

}  // namespace Quorvel
