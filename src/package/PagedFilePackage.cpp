#include "package/PagedFilePackage.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "package/PackageAudit.h"
#include "package/TailMover.h"
#include "platform/Assert.h"
#include "platform/ScopeGuard.h"
#include "quorvel/Exceptions.h"
#include "seekers/ChildFileSeeker.h"

namespace Quorvel {

using Platform::ScopeGuard;

namespace {

Util::RefPtr<PagedFilePackage> New(const PagedFilePackageConfig& config) {
    return Util::RefPtr<PagedFilePackage>(new PagedFilePackage(config));
}

// Runs an operation. If it throws, leaves the cause in errno, as Create describes.
template <typename Operation>
bool Try(const Operation& operation) noexcept {
    try {
        operation();
        return true;
    } catch (const FileIOException& error) {
        errno = static_cast<int>(error.errorCode);
    } catch (const OutOfMemoryException&) { errno = ENOMEM; } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    } catch (...) { errno = 0; }
    return false;
}

// A package that an operation has opened; empty if the operation throws.
template <typename Operation>
Util::RefPtr<PagedFilePackage> Make(const PagedFilePackageConfig& config,
                                    const Operation& operation) noexcept {
    Util::RefPtr<PagedFilePackage> opened;
    Try([&] {
        const auto package = New(config);
        operation(*package);
        opened = package;
    });
    return opened;
}

}  // namespace

PagedFilePackage::PagedFilePackage(const PagedFilePackageConfig& config) : config_(config) {
    if (!config.fileName) { throw InvalidParameterException(); }
    path_ = config.fileName;
    config_.fileName = path_.c_str();
}

Util::RefPtr<PagedFilePackage> PagedFilePackage::Create(
    const PagedFilePackageConfig& config) noexcept {
    return Make(config, [](PagedFilePackage& package) { package.Create(); });
}

Util::RefPtr<PagedFilePackage> PagedFilePackage::Open(
    const PagedFilePackageConfig& config) noexcept {
    return Make(config, [](PagedFilePackage& package) { package.Read(); });
}

PagedFilePackage::~PagedFilePackage() {
    try {
        Commit();
    } catch (...) {
        // The file keeps its contents; no caller is left to report the error to.
    }
    for (const OpenStreams::Item& open : openStreams_) {
        open.stream->LeavePackage();
    }
    openStreams_.Clear();
    Close();
}

// ---- The file and its state ---------------------------------------------------------------------

void PagedFilePackage::AssertState() const {
    if (state_ == FileState::Closed) {
        QUORVEL_ASSERT(!cache_ && !stored_.headFile && openStreams_.IsEmpty() && !journal_);
        return;
    }
    QUORVEL_ASSERT(cache_);
    QUORVEL_ASSERT(state_ != FileState::Clean || (cache_->IsOpen() && stored_.headFile));
    QUORVEL_ASSERT((cache_->Listener() == this) == IsInSave() &&
                   (JournalPages() > 0) == IsInSave());
    QUORVEL_ASSERT(state_ != FileState::Saving || cache_->IsResident(kHeadPageNumber));
    QUORVEL_ASSERT(state_ != FileState::Overwriting || journal_->IsNeeded());
}

bool PagedFilePackage::HasChanges() const {
    return state_ == FileState::Changed || IsInSave();
}

bool PagedFilePackage::IsInSave() const {
    return state_ == FileState::Saving || state_ == FileState::Overwriting;
}

void PagedFilePackage::MarkChanged() {
    QUORVEL_ASSERT(state_ != FileState::Closed && state_ != FileState::Discarded);
    if (state_ == FileState::Clean) { state_ = FileState::Changed; }
}

void PagedFilePackage::BeginSave() {
    AssertState();
    QUORVEL_ASSERT(state_ == FileState::Clean && openStreams_.IsEmpty());
    journal_ = std::make_unique<RollbackJournal>(config_.fileName, cache_->FileSize(),
                                                 stored_.allocator->PagesInUse());
    cache_->SetListener(this);
    ScopeGuard endSave([&] { EndSave(); });
    MarkHeadPage(*cache_, journal_->Mark());
    endSave.Dismiss();
    state_ = FileState::Saving;
}

void PagedFilePackage::EndSave() {
    cache_->SetListener(nullptr);
    journal_.reset();
}

// Called only in a save.
void PagedFilePackage::BeforePageChange(std::uint64_t page, const std::uint8_t* bytes) {
    journal_->KeepPage(page, bytes);
}

// Called only in a save. Marks the head page in the file before the first page of the committed
// state is overwritten.
void PagedFilePackage::BeforePageWrite(std::uint64_t page) {
    if (!journal_->PrepareWrite(page) || state_ == FileState::Overwriting) { return; }
    AssertState();
    journal_->BeginOverwriting();
    cache_->WritePage(kHeadPageNumber);
    state_ = FileState::Overwriting;  // if the mark can't be written, the next page tries again
}

void PagedFilePackage::ReservePages(std::uint64_t count) {
    AssertState();
    QUORVEL_ASSERT(state_ == FileState::Saving);
    PageAllocator& allocator = *stored_.allocator;
    const std::uint64_t free = allocator.FreePageCount();
    const std::uint64_t last = kHeadPageNumber + allocator.PageCount() + count - free - 1;
    if (free >= count || !IsValidPageNumber(last)) { return; }
    try {
        cache_->EnsurePageInFile(last);
    } catch (const FileIOException&) { return; }
    allocator.MarkPageAllocated(last);
    allocator.FreePage(last);
}

void PagedFilePackage::Rollback() {
    AssertState();
    QUORVEL_ASSERT(openStreams_.IsEmpty());
    if (!IsInSave()) { return Discard(); }
    cache_->SetListener(nullptr);
    cache_->DiscardAll();
    const std::unique_ptr<RollbackJournal> journal = std::move(journal_);
    Close();
    journal->Undo();
}

void PagedFilePackage::Discard() {
    AssertState();
    QUORVEL_ASSERT(!IsInSave());
    ReleaseStreamPages();
    if (cache_) {
        cache_->DiscardAll();
        state_ = FileState::Discarded;
    }
}

void PagedFilePackage::Close() {
    cache_.reset();
    stored_.Clear();
    state_ = FileState::Closed;
}

void PagedFilePackage::OpenCache() {
    cache_ = std::make_unique<FilePageCache>(config_.fileName, config_.pageCacheCapacity);
    state_ = FileState::Discarded;
}

void PagedFilePackage::Create() {
    AssertState();
    QUORVEL_ASSERT(!IsInSave() && openStreams_.IsEmpty());
    Close();
    OpenCache();
    stored_.directory.Reset(config_.streamLimit);
    state_ = FileState::Changed;
    Commit();
}

bool PagedFilePackage::Load() {
    AssertState();
    QUORVEL_ASSERT(!IsInSave());
    return openStreams_.IsEmpty() && Try([&] { Read(); });
}

void PagedFilePackage::Read() {
    const auto loaded = New(config_);
    loaded->OpenCache();
    loaded->stored_.Read(*loaded->cache_, config_.streamLimit);
    loaded->state_ = FileState::Clean;
    if (cache_) { cache_->DiscardAll(); }
    Swap(*loaded);
}

void PagedFilePackage::Swap(PagedFilePackage& other) noexcept {
    std::swap(state_, other.state_);
    std::swap(config_, other.config_);
    path_.swap(other.path_);
    config_.fileName = path_.c_str();
    other.config_.fileName = other.path_.c_str();
    cache_.swap(other.cache_);
    stored_.Swap(other.stored_);
    std::swap(openStreams_, other.openStreams_);
}

bool PagedFilePackage::Commit() {
    AssertState();
    if (!HasChanges()) { return true; }
    EnsureFileIsOpen();
    stored_.Write(*cache_, IsInSave() ? std::optional(journal_->Mark()) : std::nullopt);
    const std::uint64_t size = cache_->FileSize();
    ReopenFile();
    if (IsInSave()) {
        if (cache_->FileSize() < size) { throw FileIOException(); }  // it was created anew
        // Everything else is in the file. This write makes it possible to open the file again.
        QUORVEL_ASSERT(state_ == FileState::Overwriting);
        stored_.FinishHeadPage(*cache_);
        cache_->WritePage(kHeadPageNumber);
        journal_->Finish();
        EndSave();
    }
    state_ = FileState::Clean;
    AssertState();
    return true;
}

// Writes back every page and reopens the file. If that fails, the cache may be left without a file;
// the next change or Commit tries again.
void PagedFilePackage::ReopenFile() {
    ReleaseStreamPages();
    cache_->Open(config_.fileName, config_.pageCacheCapacity);
}

void PagedFilePackage::EnsureFileIsOpen() {
    if (!cache_->IsOpen()) { ReopenFile(); }
}

void PagedFilePackage::ReleaseStreamPages() {
    for (const OpenStreams::Item& open : openStreams_) {
        open.stream->ReleasePages();
    }
}

bool PagedFilePackage::IsSound() const noexcept {
    return stored_.headFile && Quorvel::IsSound(stored_, *cache_);
}

// ---- Header data and the list of streams --------------------------------------------------------

std::uint64_t PagedFilePackage::GetTotalDataSize() {
    return stored_.directory.TotalBytes();
}

bool PagedFilePackage::SetHeaderDataSize(std::uint64_t size) {
    AssertState();
    stored_.headerData.resize(size);
    MarkChanged();
    return true;
}

std::uint64_t PagedFilePackage::GetHeaderDataSize() {
    return stored_.headerData.size();
}

const std::uint8_t* PagedFilePackage::GetHeaderData() const {
    return stored_.headerData.empty() ? nullptr : stored_.headerData.data();
}

std::uint8_t* PagedFilePackage::GetHeaderData() {
    MarkChanged();
    return stored_.headerData.empty() ? nullptr : stored_.headerData.data();
}

std::uint64_t PagedFilePackage::GetNumberOfDataStreams() {
    return stored_.directory.Count();
}

std::uint64_t PagedFilePackage::GetDataStreamId(std::uint64_t index) {
    return stored_.directory.IdAt(index);
}

// ---- Streams ------------------------------------------------------------------------------------

Util::RefPtr<IDataStream> PagedFilePackage::OpenDataStream(std::uint64_t id) {
    AssertState();
    QUORVEL_ASSERT(cache_ && state_ != FileState::Discarded);
    if (ChildFileStream* const open = openStreams_.Find(id)) { return open; }
    const ChildFileExtent* const extent = stored_.directory.Find(id);
    if (!extent) { return {}; }
    ChildFileTail tail;
    GetChildFileTail(tail, stored_.tailBlocks, id);
    CheckTailPages(tail);
    auto* const seeker = new ChildFileSeeker;
    const Util::RefPtr<IPagedFileSeeker> seekerReference(seeker);
    seeker->Attach(stored_.allocator, *extent, tail);
    auto* const stream = new ChildFileStream(this, id, cache_.get(), seekerReference);
    Util::RefPtr<IDataStream> streamReference(stream);
    openStreams_.Add(id, stream);
    return streamReference;
}

void PagedFilePackage::ForgetOpenStream(std::uint64_t id) noexcept {
    openStreams_.Remove(id);
}

// Refuses a tail in a free page: the page may lie far past the end of the file, and writing to it
// would make the file that long. The seeker refuses whole pages that are free.
void PagedFilePackage::CheckTailPages(const ChildFileTail& tail) const {
    const auto isFree = [&](std::uint64_t page) {
        return page != 0 && !stored_.allocator->IsPageAllocated(page);
    };
    if (tail.tailLength == 0) { return; }
    if (isFree(tail.tailPage) || isFree(tail.followingPage)) { throw FileDataCorruptException(); }
}

std::uint64_t PagedFilePackage::CreateDataStream(std::uint64_t size) {
    AssertState();
    StreamDirectory& directory = stored_.directory;
    if (directory.Count() >= config_.streamLimit) { return kInvalidStreamId; }
    MarkChanged();
    EnsureFileIsOpen();
    const std::uint64_t wholePages = size >> kPageShift;
    // Allocating that many could only fail after every page was taken.
    if (wholePages > kPageCountLimit) { throw OutOfMemoryException(); }
    const std::uint64_t firstPage = AllocateChain(wholePages);
    ScopeGuard freePages([&] { FreeChain(firstPage); });
    const std::uint64_t id = directory.AllocateId();
    // not reached in tests: no id is left only after 16 million streams
    if (id == kInvalidStreamId) { return id; }
    ScopeGuard freeId([&] {
        if (!directory.Remove(id)) { directory.FreeId(id); }
    });
    directory.Store(id, {id, size, firstPage, wholePages});
    const std::uint64_t tail = size & (kPageSize - 1);
    const bool isPlaced = tail == 0 || PlaceTail(id, tail);
    freeId.Dismiss();
    freePages.Dismiss();
    if (!isPlaced) {
        // The id stays taken: the damage in the table may concern this id alone, and the next call
        // would try it again if it were free.
        throw FileDataCorruptException();
    }
    return id;
}

// False when the tail contradicts the table of blocks.
bool PagedFilePackage::PlaceTail(std::uint64_t id, std::uint64_t length) {
    if (const auto block = stored_.tailBlocks.FindBlockWithRoom(length)) {
        return stored_.tailBlocks.Place(id, *block, length);
    }
    TailBlockPageNumbers pages;
    AllocateChain(kTailBlockPages, pages.data());
    ScopeGuard freePages([&] { FreeChain(pages.front()); });
    const std::uint64_t block = stored_.tailBlocks.AddBlock(pages);
    freePages.Dismiss();
    return stored_.tailBlocks.Place(id, block, length);
}

// Allocates a chain of `count` pages, writes their numbers to `pages` unless it is null, and makes
// the file cover them. Returns the first page, or 0 for none.
std::uint64_t PagedFilePackage::AllocateChain(std::uint64_t count, std::uint64_t* pages) {
    std::uint64_t first = 0;
    std::uint64_t last = 0;
    std::uint64_t highest = 0;
    ScopeGuard freePages([&] { FreeChain(first); });
    for (std::uint64_t index = 0; index < count; ++index) {
        last = stored_.allocator->AllocatePage(last);
        if (index == 0) { first = last; }
        highest = std::max(highest, last);
        if (pages) { pages[index] = last; }
    }
    if (highest != 0) { cache_->EnsurePageInFile(highest); }
    freePages.Dismiss();
    return first;
}

void PagedFilePackage::FreeChain(std::uint64_t firstPage) {
    for (std::uint64_t page = firstPage; IsValidPageNumber(page);) {
        const std::uint64_t next = stored_.allocator->GetNextPage(page);
        stored_.allocator->FreePage(page);
        page = next;
    }
}

// In a sound file the steps that can fail come first; the rest works from memory. A failure
// therefore changes nothing, unless the cache can't pin all pages of the block. In a damaged file
// the stream is gone even if its tail can't be removed; otherwise each attempt would fail.
bool PagedFilePackage::DeleteDataStream(std::uint64_t id) {
    AssertState();
    if (openStreams_.Find(id)) { return false; }
    const ChildFileExtent* const extent = stored_.directory.Find(id);
    if (!extent) { return true; }
    MarkChanged();
    EnsureFileIsOpen();
    std::optional<TailMover> tail;
    if (const TailFragment* const fragment = stored_.tailBlocks.FindFragment(id)) {
        tail.emplace(*cache_, stored_, *fragment);
    }
    FreeChain(extent->firstPage);
    if (QUORVEL_NEVER(!stored_.directory.Remove(id))) { return false; }
    if (!tail) { return true; }
    if (!tail->RemoveTail()) { return false; }
    tail->ReattachStreams(openStreams_);
    return true;
}

}  // namespace Quorvel
