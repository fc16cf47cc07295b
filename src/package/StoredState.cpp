#include "package/StoredState.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <utility>

#include "package/StreamTransfer.h"
#include "pagestore/PagedFileStream.h"
#include "platform/Assert.h"
#include "platform/ScopeGuard.h"
#include "quorvel/Exceptions.h"
#include "seekers/HeadFileSeeker.h"
#include "seekers/HeadFileWriteOnlySeeker.h"

namespace Quorvel {

std::uint64_t KnownPageCount(const IPagedFileSeeker& headFile) {
    const std::uint64_t* const pages = headFile.pageNumbers;
    return static_cast<std::uint64_t>(std::find(pages, pages + headFile.pageCount, 0) - pages);
}

StoredState::StoredState() : allocator(new PageAllocator) {}

void StoredState::Clear() {
    headFile.Reset();
    headerData.clear();
    allocator->Clear();
    directory.Reset();
    tailBlocks.Reset();
}

void StoredState::Swap(StoredState& other) noexcept {
    std::swap(allocator, other.allocator);
    directory.Swap(other.directory);
    tailBlocks.Swap(other.tailBlocks);
    headerData.swap(other.headerData);
    std::swap(headFile, other.headFile);
}

void StoredState::Read(FilePageCache& cache, std::uint64_t streamLimit) {
    const Util::RefPtr<HeadFileSeeker> seeker(new HeadFileSeeker(&cache));
    headFile = seeker;
    seeker->OpenHeadFile();
    const Util::RefPtr<IDataStream> stream(new PagedFileStream(&cache, headFile));
    allocator->LoadState(stream);
    StateReader reader(*stream);
    directory.Load(reader, streamLimit);
    if (!tailBlocks.Load(reader, streamLimit)) { throw FileDataCorruptException(); }
    const auto length = reader.Read<std::uint64_t>();
    if (!reader.ReadItems(headerData, length)) { throw FileIOException(); }
}

void StoredState::Write(FilePageCache& cache, const std::optional<HeadPageMark>& mark) {
    FreeHeadFile();
    CreateHeadFile(cache);
    if (mark) { MarkHeadPage(cache, *mark); }
    WriteContent(cache);
}

// Pages that were not read, because the state ended before them, stay allocated: only reading them
// would tell whether they really belong to the head file.
void StoredState::FreeHeadFile() {
    if (!headFile) { return; }
    const auto freed = std::exchange(headFile, {});  // first, so that no page is freed twice
    FreeHeadPages(freed->pageNumbers, KnownPageCount(*freed));
}

// Page 10 stays allocated: no stream may get it before the next head file is written.
void StoredState::FreeHeadPages(const std::uint64_t* pages, std::uint64_t count) {
    for (std::uint64_t index = 0; index < count; ++index) {
        allocator->FreePage(pages[index]);
        if (pages[index] == kHeadPageNumber) { allocator->MarkPageAllocated(kHeadPageNumber); }
    }
}

void StoredState::CreateHeadFile(FilePageCache& cache) {
    const Util::RefPtr<HeadFileWriteOnlySeeker> seeker(new HeadFileWriteOnlySeeker(&cache));
    std::vector<std::uint64_t> pages;
    Platform::ScopeGuard freePages([&] { FreeHeadPages(pages.data(), pages.size()); });
    const std::uint64_t stateSize = AllocateHeadPages(cache, pages);
    std::vector<std::uint64_t> nextPages(pages.begin() + 1, pages.end());
    nextPages.push_back(kEndOfChain);
    if (QUORVEL_NEVER(
            !seeker->CreateHeadFile(pages.data(), nextPages.data(), pages.size(), stateSize))) {
        throw FileIOException();
    }
    freePages.Dismiss();
    headFile = seeker;
}

// Allocates the pages that the state needs and returns its size. Allocating a page can make the
// allocator's own state longer, so that the state needs another page.
std::uint64_t StoredState::AllocateHeadPages(FilePageCache& cache,
                                             std::vector<std::uint64_t>& pages) {
    const std::uint64_t otherSizes =
        directory.StateSize() + tailBlocks.StateSize() + sizeof(std::uint64_t) + headerData.size();
    for (;;) {
        const std::uint64_t stateSize = allocator->GetStateSize() + otherSizes;
        const std::uint64_t needed = BaseHeadFileSeeker::PagesForSize(stateSize);
        if (pages.size() >= needed) { return stateSize; }
        pages.reserve(needed);
        if (pages.empty()) {
            allocator->MarkPageAllocated(kHeadPageNumber);
            pages.push_back(kHeadPageNumber);
        }
        while (pages.size() < needed) {
            pages.push_back(allocator->AllocatePage(pages.back()));
        }
        cache.EnsurePageInFile(*std::max_element(pages.begin(), pages.end()));
    }
}

void StoredState::WriteContent(FilePageCache& cache) const {
    const Util::RefPtr<IDataStream> stream(new PagedFileStream(&cache, headFile));
    allocator->SaveState(stream);
    directory.Save(*stream);
    tailBlocks.Save(*stream);
    StateWriter writer(*stream);
    writer.Write<std::uint64_t>(headerData.size());
    writer.Write(headerData.data(), headerData.size());
    writer.Flush();
}

namespace {

void SetHeadPageStart(FilePageCache& cache, const HeadPageMark& start) {
    static_assert(offsetof(HeadPageMark, pageCount) == offsetof(HeadFileHeader, pageCount));
    static_assert(offsetof(HeadPageMark, nonce) == offsetof(HeadFileHeader, byteSize));
    PageRef page(&cache);
    page.SetWritePage(kHeadPageNumber);
    if (!page.Data()) { throw FileDataCorruptException(); }
    std::memcpy(page.Data(), &start, sizeof start);
}

}  // namespace

void StoredState::FinishHeadPage(FilePageCache& cache) const {
    QUORVEL_ASSERT(headFile);
    SetHeadPageStart(cache, {headFile->pageCount, headFile->byteSize});
}

void MarkHeadPage(FilePageCache& cache, const HeadPageMark& mark) {
    SetHeadPageStart(cache, mark);
}

}  // namespace Quorvel
