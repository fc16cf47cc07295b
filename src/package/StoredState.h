#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "package/StreamDirectory.h"
#include "package/TailBlockTable.h"
#include "pagestore/FilePageCache.h"
#include "pagestore/PageAllocator.h"
#include "pagestore/RollbackJournal.h"
#include "quorvel/IDataStream.h"
#include "seekers/IPagedFileSeeker.h"
#include "vornutil/RefPtr.h"

namespace Quorvel {

// A package's own state, which its head file stores in this order: the allocator's links, the
// stream directory, the tail block table, the length of the header data (8 bytes) and the header
// data.
//
// Write frees the pages of the old head file and writes a new one. Both begin at page 10, which
// stays allocated in between: even after a Write that failed, no stream can get it.
struct StoredState {
    StoredState();

    // Replaces everything with the contents of the file's head file. Throws
    // FileDataCorruptException, InvalidParameterException or FileIOException for a head file that
    // can't be read or makes no sense, and std::bad_alloc; the state is then unspecified.
    void Read(FilePageCache& cache, std::uint64_t streamLimit);

    // Writes a new head file into pages of the cache. Throws as the cache and the allocator do;
    // what is in memory stays valid, and another Write may follow. The new head page carries the
    // mark, if there is one, until FinishHeadPage removes it.
    void Write(FilePageCache& cache, const std::optional<HeadPageMark>& mark);

    // Removes the mark from the head page in the cache, but not in the file. REQUIRES: the state
    // was written. Throws as MarkHeadPage does.
    void FinishHeadPage(FilePageCache& cache) const;

    // Resets to the state of a new package.
    void Clear();
    void Swap(StoredState& other) noexcept;

    Util::RefPtr<PageAllocator> allocator;
    StreamDirectory directory;
    TailBlockTable tailBlocks;
    std::vector<std::uint8_t> headerData;
    Util::RefPtr<IPagedFileSeeker> headFile;  // null before the first Read or Write

private:
    void FreeHeadFile();
    void FreeHeadPages(const std::uint64_t* pages, std::uint64_t count);
    void CreateHeadFile(FilePageCache& cache);
    std::uint64_t AllocateHeadPages(FilePageCache& cache, std::vector<std::uint64_t>& pages);
    void WriteContent(FilePageCache& cache) const;
};

// The number of pages of a head file that were read or are about to be written.
std::uint64_t KnownPageCount(const IPagedFileSeeker& headFile);

// Marks the head page in the cache, but not in the file. Throws as FilePageCache::GetPageForWrite
// does, and FileDataCorruptException when every page of the cache is pinned.
void MarkHeadPage(FilePageCache& cache, const HeadPageMark& mark);

}  // namespace Quorvel
