#include "package/PagedFilePackage.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <utility>

#include "package/StreamTransfer.h"
#include "quorvel/Exceptions.h"
#include "seekers/ChildFileSeeker.h"
#include "seekers/HeadFileSeeker.h"
#include "seekers/HeadFileWriteOnlySeeker.h"

namespace Quorvel {

namespace {

std::uint64_t HeaderDataStateSize(const std::vector<std::uint8_t>& headerData) {
    return sizeof(std::uint64_t) + headerData.size();
}

}  // namespace

PagedFilePackage::PagedFilePackage(const PagedFilePackageConfig& config)
    : dirty_(false),
      config_(config),
      allocator_(new PageAllocator),
      isMarkedUnfinished_(false),
      reopened_(true) {
    if (!config.fileName) {
        throw InvalidParameterException();
    }
    path_ = config.fileName;
    config_.fileName = path_.c_str();
}

PagedFilePackage::~PagedFilePackage() {
    try {
        Commit();
    } catch (...) {
        // The file keeps what it holds; there is nobody left to tell.
    }
    for (const auto& [id, stream] : std::exchange(openStreams_, {})) {
        stream->LeavePackage();
    }
    Close();
}

bool PagedFilePackage::Create() {
    Close();
    OpenCache();
    directory_.Reset(config_.streamLimit);
    dirty_ = true;
    Commit();
    return true;
}

void PagedFilePackage::Abandon() {
    dirty_ = false;
    ReleaseStreamPages();
    if (cache_) {
        cache_->DiscardAll();
    }
}

void PagedFilePackage::MarkUnfinished() {
    if (!isMarkedUnfinished_) {
        SetStoredPageCount(0);
        cache_->WriteBeforeOthers(kHeadPageNumber);
        isMarkedUnfinished_ = true;
    }
    dirty_ = true;
}

bool PagedFilePackage::MayHaveChangedFile() const {
    return dirty_ && !(isMarkedUnfinished_ && cache_->IsHoldingBack());
}

void PagedFilePackage::Close() {
    headFile_.Reset();
    headerData_.clear();
    cache_.reset();
    Allocator().Clear();
    directory_.Reset();
    tailBlocks_.Reset();
    dirty_ = false;
    isMarkedUnfinished_ = false;
}

void PagedFilePackage::OpenCache() {
    cache_ = std::make_unique<FilePageCache>(config_.fileName, config_.pageCacheCapacity);
    reopened_ = true;
}

PageAllocator& PagedFilePackage::Allocator() const {
    return static_cast<PageAllocator&>(*allocator_);
}

// ---- Load ---------------------------------------------------------------------------------------

bool PagedFilePackage::Load() {
    if (!openStreams_.empty()) {
        return false;
    }
    try {
        const Util::RefPtr<PagedFilePackage> loaded(new PagedFilePackage(config_));
        loaded->ReadState();
        if (cache_) {
            cache_->DiscardAll();
        }
        Swap(*loaded);
        return true;
    } catch (...) {
        return false;
    }
}

void PagedFilePackage::ReadState() {
    OpenCache();
    const Util::RefPtr<HeadFileSeeker> seeker(new HeadFileSeeker(cache_.get()));
    headFile_ = seeker;
    seeker->OpenHeadFile();
    const Util::RefPtr<IDataStream> stream(new PagedFileStream(cache_.get(), headFile_));
    Allocator().LoadState(stream);
    StateReader reader(*stream);
    directory_.Load(reader, config_.streamLimit);
    if (!tailBlocks_.Load(reader, config_.streamLimit)) {
        throw FileDataCorruptException();
    }
    const auto length = reader.Read<std::uint64_t>();
    if (!reader.ReadItems(headerData_, length)) {
        throw FileIOException();
    }
}

void PagedFilePackage::Swap(PagedFilePackage& other) noexcept {
    std::swap(dirty_, other.dirty_);
    std::swap(config_, other.config_);
    path_.swap(other.path_);
    config_.fileName = path_.c_str();
    other.config_.fileName = other.path_.c_str();
    cache_.swap(other.cache_);
    std::swap(allocator_, other.allocator_);
    directory_.Swap(other.directory_);
    tailBlocks_.Swap(other.tailBlocks_);
    headerData_.swap(other.headerData_);
    std::swap(headFile_, other.headFile_);
    openStreams_.swap(other.openStreams_);
    std::swap(isMarkedUnfinished_, other.isMarkedUnfinished_);
    std::swap(reopened_, other.reopened_);
}

// ---- Soundness ----------------------------------------------------------------------------------

// Which pages have been found to belong to something.
class PagedFilePackage::PageClaims {
public:
    explicit PageClaims(IPageAllocator& allocator) : allocator_(allocator) {}

    // False for a page that is free, or claimed already.
    bool Claim(std::uint64_t page) {
        if (!IsValidPageNumber(page) || !allocator_.IsPageAllocated(page)) {
            return false;
        }
        const std::uint64_t index = page - kHeadPageNumber;
        if (index >= claimed_.size()) {
            claimed_.resize(index + 1);
        }
        if (claimed_[index]) {
            return false;
        }
        claimed_[index] = true;
        return true;
    }

    // Claims a page and all that follow it. A chain that returns to itself is refused as well.
    bool ClaimChain(std::uint64_t page) {
        while (IsValidPageNumber(page)) {
            if (!Claim(page)) {
                return false;
            }
            page = allocator_.GetNextPage(page);
        }
        return true;
    }

    // Whether no page that was not claimed is followed by another, which may be somebody's, or free
    // and somebody's soon.
    bool AreOthersWithoutSuccessor(std::uint64_t highestPage) {
        claimed_.resize(
            std::max<std::uint64_t>(claimed_.size(), highestPage - kHeadPageNumber + 1));
        for (std::uint64_t page = kHeadPageNumber; page <= highestPage; ++page) {
            if (!claimed_[page - kHeadPageNumber] &&
                IsValidPageNumber(allocator_.GetNextPage(page))) {
                return false;
            }
        }
        return true;
    }

private:
    IPageAllocator& allocator_;
    std::vector<bool> claimed_;
};

bool PagedFilePackage::IsSound() noexcept {
    try {
        PageClaims claims(*allocator_);
        if (!headFile_ || !ClaimHeadFile(claims) || !ClaimStreams(claims) ||
            !ClaimTailBlocks(claims) ||
            !claims.AreOthersWithoutSuccessor(Allocator().HighestPage())) {
            return false;
        }
        return cache_->CoversPage(Allocator().HighestPage());
    } catch (...) {
        return false;
    }
}

bool PagedFilePackage::ClaimHeadFile(PageClaims& claims) {
    headFile_->LoadPageInfo(headFile_->pageCount - 1);
    const std::uint64_t* const pages = headFile_->pageNumbers;
    return std::all_of(pages, pages + headFile_->pageCount,
                       [&](std::uint64_t page) { return claims.Claim(page); });
}

bool PagedFilePackage::ClaimStreams(PageClaims& claims) const {
    bool isSound = true;
    directory_.ForEach([&](const ChildFileExtent& stream) {
        isSound = isSound && claims.ClaimChain(stream.firstPage);
    });
    return isSound;
}

bool PagedFilePackage::ClaimTailBlocks(PageClaims& claims) const {
    for (const std::unique_ptr<TailBlockRecord>& block : tailBlocks_.Blocks()) {
        if (!block) {
            continue;
        }
        for (std::uint64_t slot = 0; slot < kTailBlockPages; ++slot) {
            const std::uint64_t next = allocator_->GetNextPage(block->pages[slot]);
            const bool isLast = slot + 1 == kTailBlockPages;
            if (!claims.Claim(block->pages[slot]) ||
                (isLast ? IsValidPageNumber(next) : next != block->pages[slot + 1])) {
                return false;
            }
        }
        if (!AreFragmentsInOrder(*block)) {
            return false;
        }
    }
    return true;
}

// Whether a block's list names all fragments of the block, in the order in which they lie in it,
// without gaps.
bool PagedFilePackage::AreFragmentsInOrder(const TailBlockRecord& block) const {
    if (block.streamIds.size() != block.fragmentCount) {
        return false;
    }
    std::uint64_t end = 0;
    for (std::uint64_t index = 0; index < block.streamIds.size(); ++index) {
        const TailFragment* const fragment = tailBlocks_.FindFragment(block.streamIds[index]);
        if (!fragment || fragment->blockId != block.blockId || fragment->listIndex != index ||
            fragment->offset != end) {
            return false;
        }
        end += fragment->length;
    }
    return end == kTailBlockSize - block.freeBytes;
}

// ---- Commit -------------------------------------------------------------------------------------

bool PagedFilePackage::Commit() {
    if (!dirty_) {
        return true;
    }
    if (!cache_) {
        return false;
    }
    EnsureFileIsOpen();
    FreeHeadFile();
    if (!CreateHeadFile()) {
        return false;
    }
    if (isMarkedUnfinished_) {
        SetStoredPageCount(0);
    }
    if (!WriteState()) {
        return false;
    }
    ReopenFile();
    if (isMarkedUnfinished_) {
        // Everything else is in the file: from here on it holds the new state.
        SetStoredPageCount(headFile_->pageCount);
        cache_->WritePage(kHeadPageNumber);
        isMarkedUnfinished_ = false;
    }
    dirty_ = false;
    return true;
}

// Changes the head page in the cache alone.
void PagedFilePackage::SetStoredPageCount(std::uint64_t pageCount) {
    PageRef page(cache_.get());
    page.SetWritePage(kHeadPageNumber);
    if (!page.Data()) {
        throw FileDataCorruptException();
    }
    std::memcpy(page.Data() + offsetof(HeadFileHeader, pageCount), &pageCount, sizeof pageCount);
}

// Writes every page back and opens the file anew. An attempt that fails may leave the cache without
// a file; the next change or Commit begins with another.
void PagedFilePackage::ReopenFile() {
    ReleaseStreamPages();
    reopened_ = false;
    cache_->Open(config_.fileName, config_.pageCacheCapacity);
    reopened_ = true;
}

void PagedFilePackage::EnsureFileIsOpen() {
    if (!reopened_) {
        ReopenFile();
    }
}

void PagedFilePackage::FreeHeadFile() {
    if (!headFile_) {
        return;
    }
    // Dropped first: no page may be freed twice, also when one of them can't be, or not be found.
    const auto headFile = std::exchange(headFile_, {});
    const std::uint64_t count = headFile->pageCount;
    if (count > 0 && headFile->pageNumbers[count - 1] == 0) {
        // What was not read of the chain so far is not known yet. If it can't be read, its pages
        // are lost, but for the first, which the next head file begins with.
        try {
            headFile->LoadPageInfo(count - 1);
        } catch (...) {
            FreeHeadPages(headFile->pageNumbers, 1);
            throw;
        }
    }
    FreeHeadPages(headFile->pageNumbers, count);
}

// Page 10 stays in use: until the next head file is there, no stream may get it.
void PagedFilePackage::FreeHeadPages(const std::uint64_t* pages, std::uint64_t count) {
    for (std::uint64_t index = 0; index < count; ++index) {
        allocator_->FreePage(pages[index]);
        if (pages[index] == kHeadPageNumber) {
            allocator_->MarkPageAllocated(kHeadPageNumber);
        }
    }
}

// Makes a head file of the size that the state needs now.
bool PagedFilePackage::CreateHeadFile() {
    const Util::RefPtr<HeadFileWriteOnlySeeker> seeker(new HeadFileWriteOnlySeeker(cache_.get()));
    std::vector<std::uint64_t> pages;
    try {
        const std::uint64_t stateSize = AllocateHeadPages(pages);
        std::vector<std::uint64_t> nextPages(pages.begin() + 1, pages.end());
        nextPages.push_back(kEndOfChain);
        if (!seeker->CreateHeadFile(pages.data(), nextPages.data(), pages.size(), stateSize)) {
            return false;
        }
    } catch (...) {
        FreeHeadPages(pages.data(), pages.size());
        throw;
    }
    headFile_ = seeker;
    return true;
}

// Takes the pages that the state needs and returns its size. Taking a page can make the allocator's
// own state larger, and so the need.
std::uint64_t PagedFilePackage::AllocateHeadPages(std::vector<std::uint64_t>& pages) {
    const std::uint64_t otherSizes =
        directory_.StateSize() + tailBlocks_.StateSize() + HeaderDataStateSize(headerData_);
    for (;;) {
        const std::uint64_t stateSize = Allocator().GetStateSize() + otherSizes;
        const std::uint64_t needed = BaseHeadFileSeeker::PagesForSize(stateSize);
        if (pages.size() >= needed) {
            return stateSize;
        }
        pages.reserve(needed);
        if (pages.empty()) {
            allocator_->MarkPageAllocated(kHeadPageNumber);
            pages.push_back(kHeadPageNumber);
        }
        while (pages.size() < needed) {
            pages.push_back(allocator_->AllocatePage(pages.back()));
        }
        cache_->EnsurePageInFile(*std::max_element(pages.begin(), pages.end()));
    }
}

void PagedFilePackage::ReleaseStreamPages() {
    for (const auto& [id, stream] : openStreams_) {
        stream->ReleasePages();
    }
}

bool PagedFilePackage::WriteState() {
    const Util::RefPtr<IDataStream> stream(new PagedFileStream(cache_.get(), headFile_));
    if (!Allocator().SaveState(stream) || !directory_.Save(*stream) || !tailBlocks_.Save(*stream)) {
        return false;
    }
    StateWriter writer(*stream);
    writer.Write<std::uint64_t>(headerData_.size());
    writer.Write(headerData_.data(), headerData_.size());
    writer.Flush();
    return true;
}

// ---- Header data and the list of streams --------------------------------------------------------

std::uint64_t PagedFilePackage::GetTotalDataSize() {
    return directory_.TotalBytes();
}

bool PagedFilePackage::SetHeaderDataSize(std::uint64_t size) {
    headerData_.resize(size);
    dirty_ = true;
    return true;
}

std::uint64_t PagedFilePackage::GetHeaderDataSize() {
    return headerData_.size();
}

const std::uint8_t* PagedFilePackage::GetHeaderData() const {
    return headerData_.empty() ? nullptr : headerData_.data();
}

std::uint8_t* PagedFilePackage::GetHeaderData() {
    dirty_ = true;
    return headerData_.empty() ? nullptr : headerData_.data();
}

std::uint64_t PagedFilePackage::GetNumberOfDataStreams() {
    return directory_.Count();
}

std::uint64_t PagedFilePackage::GetDataStreamId(std::uint64_t index) {
    return directory_.IdAt(index);
}

// ---- Streams ------------------------------------------------------------------------------------

Util::RefPtr<IDataStream> PagedFilePackage::OpenDataStream(std::uint64_t id) {
    if (const auto open = openStreams_.find(id); open != openStreams_.end()) {
        return Util::RefPtr<IDataStream>(open->second);
    }
    const ChildFileExtent* const extent = directory_.Find(id);
    if (!extent) {
        return {};
    }
    ChildFileTail tail;
    if (!GetChildFileTail(tail, tailBlocks_, id)) {
        return {};
    }
    CheckPagesOfStream(*extent, tail);
    const Util::RefPtr<ChildFileSeeker> seeker = TakeSeeker();
    if (!seeker->Attach(allocator_, *extent, tail)) {
        return {};
    }
    const Util::RefPtr<ChildFileStream> stream(new ChildFileStream(this, id, cache_.get(), seeker));
    EnterOpenStream(id, stream.Get());
    return stream;
}

Util::RefPtr<ChildFileSeeker> PagedFilePackage::TakeSeeker() {
    if (spareSeeker_) {
        return std::exchange(spareSeeker_, {});
    }
    return Util::RefPtr<ChildFileSeeker>(new ChildFileSeeker);
}

// Refuses a stream whose chain returns to itself, so that a small file seems to hold a stream of
// any size, or that has a free page: such a page may lie far behind the file's end, and writing to
// it would make the file as long. No page follows two others, so a chain can only return to where
// it began.
void PagedFilePackage::CheckPagesOfStream(const ChildFileExtent& extent,
                                          const ChildFileTail& tail) const {
    const auto require = [&](std::uint64_t page) {
        if (IsValidPageNumber(page) && !allocator_->IsPageAllocated(page)) {
            throw FileDataCorruptException();
        }
    };
    std::uint64_t page = extent.firstPage;
    for (std::uint64_t index = 0; index < extent.wholePageCount && IsValidPageNumber(page);
         ++index) {
        if (index > 0 && page == extent.firstPage) {
            throw FileDataCorruptException();
        }
        require(page);
        page = allocator_->GetNextPage(page);
    }
    require(tail.tailPage);
    require(tail.followingPage);
}

void PagedFilePackage::EnterOpenStream(std::uint64_t id, ChildFileStream* stream) {
    if (spareEntry_.empty()) {
        openStreams_.emplace(id, stream);
        return;
    }
    spareEntry_.key() = id;
    spareEntry_.mapped() = stream;
    openStreams_.insert(std::move(spareEntry_));
}

void PagedFilePackage::ForgetOpenStream(std::uint64_t id) noexcept {
    if (const auto entry = openStreams_.find(id); entry != openStreams_.end()) {
        spareEntry_ = openStreams_.extract(entry);
    }
}

void PagedFilePackage::TakeBack(ChildFileSeeker* seeker) noexcept {
    constexpr std::uint64_t kMostSparePages = 256;
    if (!seeker || seeker->pageCount > kMostSparePages) {
        return;
    }
    const bool isStreamsAlone = seeker->AddRef() == 2;
    seeker->Release();
    if (isStreamsAlone) {
        seeker->Clear();
        spareSeeker_ = seeker;
    }
}

std::uint64_t PagedFilePackage::CreateDataStream(std::uint64_t size) {
    if (directory_.Count() >= config_.streamLimit) {
        return kInvalidStreamId;
    }
    dirty_ = true;
    EnsureFileIsOpen();
    const std::uint64_t id = AllocateStream(size);
    const std::uint64_t tail = size & (kPageSize - 1);
    if (id == kInvalidStreamId || tail == 0) {
        return id;
    }
    bool isPlaced;
    try {
        isPlaced = PlaceTail(id, tail);
    } catch (...) {
        FreeChain(directory_.Find(id)->firstPage);
        directory_.Remove(id);
        throw;
    }
    if (!isPlaced) {
        // The id stays taken: what is wrong in the table may be wrong with that id alone, and a
        // free one would be the next to be tried again.
        throw FileDataCorruptException();
    }
    return id;
}

// A stream's whole pages and its record.
std::uint64_t PagedFilePackage::AllocateStream(std::uint64_t size) {
    const std::uint64_t wholePages = size >> kPageShift;
    if (wholePages > kPageCountLimit) {
        throw InvalidParameterException();
    }
    const std::uint64_t firstPage = AllocateChain(wholePages);
    try {
        const std::uint64_t id = directory_.AllocateId();
        if (id == kInvalidStreamId) {
            FreeChain(firstPage);
            return id;
        }
        try {
            directory_.Store(id, {id, size, firstPage, wholePages});
        } catch (...) {
            directory_.FreeId(id);
            throw;
        }
        return id;
    } catch (...) {
        FreeChain(firstPage);
        throw;
    }
}

// False when the tail does not fit what the table of blocks says.
bool PagedFilePackage::PlaceTail(std::uint64_t id, std::uint64_t length) {
    if (const auto block = tailBlocks_.FindBlockWithRoom(length)) {
        return tailBlocks_.Place(id, *block, length);
    }
    TailBlockPageNumbers pages;
    AllocateChain(kTailBlockPages, pages.data());
    std::uint64_t block;
    try {
        block = tailBlocks_.AddBlock(pages);
    } catch (...) {
        FreeChain(pages.front());
        throw;
    }
    return tailBlocks_.Place(id, block, length);
}

// Allocates so many pages, each the successor of the one before, lists them if asked, and makes the
// file cover them. Returns the first; 0 for none.
std::uint64_t PagedFilePackage::AllocateChain(std::uint64_t count, std::uint64_t* pages) {
    std::uint64_t first = 0;
    try {
        std::uint64_t last = 0;
        std::uint64_t highest = 0;
        for (std::uint64_t index = 0; index < count; ++index) {
            last = allocator_->AllocatePage(last);
            if (index == 0) {
                first = last;
            }
            highest = std::max(highest, last);
            if (pages) {
                pages[index] = last;
            }
        }
        if (highest != 0) {
            cache_->EnsurePageInFile(highest);
        }
    } catch (...) {
        FreeChain(first);
        throw;
    }
    return first;
}

void PagedFilePackage::FreeChain(std::uint64_t firstPage) {
    for (std::uint64_t page = firstPage; IsValidPageNumber(page);) {
        const std::uint64_t next = allocator_->GetNextPage(page);
        allocator_->FreePage(page);
        page = next;
    }
}

// What can fail comes first, and the rest is done from memory: so a failure changes nothing, unless
// the cache has no room for all pages of the block.
bool PagedFilePackage::DeleteDataStream(std::uint64_t id) {
    if (openStreams_.count(id) != 0) {
        return false;
    }
    const ChildFileExtent* const extent = directory_.Find(id);
    if (!extent) {
        return true;
    }
    dirty_ = true;
    EnsureFileIsOpen();
    const TailFragment* const fragment = tailBlocks_.FindFragment(id);
    Util::RefPtr<PagedFileStream> block;
    TailBlockPins pins;
    if (fragment) {
        block = OpenTailBlock(fragment->blockId);
        PinTailBlock(pins, *fragment);
    }
    FreeChain(extent->firstPage);
    if (!directory_.Remove(id)) {
        return false;
    }
    if (!fragment) {
        return true;
    }
    const std::uint64_t blockId = fragment->blockId;
    // The bytes behind the fragment move down over it.
    if (!block->RemoveRange(static_cast<std::int32_t>(fragment->offset),
                            static_cast<std::int32_t>(fragment->length))) {
        return false;
    }
    tailBlocks_.Remove(id);
    ReattachStreamsOfBlock(blockId);
    return true;
}

Util::RefPtr<PagedFileStream> PagedFilePackage::OpenTailBlock(std::uint64_t blockId) {
    const ChildFileExtent extent = {kInvalidStreamId, kTailBlockSize,
                                    tailBlocks_.FindBlock(blockId)->pages.front(), kTailBlockPages};
    const Util::RefPtr<ChildFileSeeker> seeker(new ChildFileSeeker);
    if (!seeker->Attach(allocator_, extent, {})) {
        throw FileDataCorruptException();
    }
    return Util::RefPtr<PagedFileStream>(new PagedFileStream(cache_.get(), seeker));
}

// Pins the pages of a block from the one in which a fragment begins. A cache that has no room for
// them all is left to load them one by one.
void PagedFilePackage::PinTailBlock(TailBlockPins& pins, const TailFragment& fragment) {
    std::uint64_t page = tailBlocks_.FindBlock(fragment.blockId)->pages.front();
    for (std::uint64_t slot = 0; slot < kTailBlockPages; ++slot) {
        if (slot >= fragment.offset >> kPageShift) {
            pins[slot].emplace(cache_.get()).SetWritePage(page);
            if (!pins[slot]->Data()) {
                for (std::optional<PageRef>& pin : pins) {
                    pin.reset();
                }
                return;
            }
        }
        page = allocator_->GetNextPage(page);
    }
}

// The tails of streams that are open may have moved. A stream that can't follow has no bytes from
// then on.
void PagedFilePackage::ReattachStreamsOfBlock(std::uint64_t blockId) {
    for (const auto& [id, stream] : openStreams_) {
        const TailFragment* const fragment = tailBlocks_.FindFragment(id);
        if (!fragment || fragment->blockId != blockId) {
            continue;
        }
        try {
            ChildFileTail tail;
            GetChildFileTail(tail, tailBlocks_, id);
            const Util::RefPtr<ChildFileSeeker> seeker(new ChildFileSeeker);
            seeker->Attach(allocator_, *directory_.Find(id), tail);
            stream->MoveTo(seeker);
        } catch (...) {
            stream->Detach();
        }
    }
}

}  // namespace Quorvel
