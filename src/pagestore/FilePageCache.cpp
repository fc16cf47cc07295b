#include "pagestore/FilePageCache.h"

#include <cerrno>
#include <exception>
#include <memory>
#include <new>

#include "pagestore/StdioFile.h"
#include "platform/Assert.h"
#include "quorvel/Exceptions.h"

namespace Quorvel {

namespace {

std::uint64_t OffsetOfIndex(std::uint64_t pageIndex) {
    return pageIndex << kPageShift;
}

std::uint64_t EndOfPage(std::uint64_t page) {
    return OffsetOfIndex(page - kHeadPageNumber) + kPageSize;
}

}  // namespace

FilePageCache::FilePageCache(const char* path, std::uint64_t capacity) {
    ResetToEmpty();
    Open(path, capacity);
}

FilePageCache::~FilePageCache() {
    try {
        Close();
    } catch (const std::exception&) {
        DiscardAll();
        if (file_) { std::fclose(file_); }
    }
}

bool FilePageCache::Open(const char* path, std::uint64_t capacity) {
    Close();
    StdioFile opened;
    if (opened.Open(path, "r+b") != 0) {
        if (const int error = opened.Open(path, "w+b"); error != 0) {
            throw FileIOException(static_cast<std::uint32_t>(error));
        }
    }
    fileSize_ = GetFileSize(opened.Get());
    file_ = opened.Detach();
    capacity_ = capacity != 0 ? capacity : 1;
    return true;
}

void FilePageCache::Close() {
    for (CachedPage* page : pages_) {
        if (page) { WriteBackPage(page); }
    }
    std::FILE* const file = file_;
    ResetToEmpty();
    // Some file systems report only now that bytes which were written are lost.
    if (file && std::fclose(file) != 0) {
        throw FileIOException(static_cast<std::uint32_t>(errno));
    }
}

void FilePageCache::DiscardAll() {
    for (CachedPage* page = mostRecent_; page;) {
        CachedPage* const older = page->older;
        delete page;
        page = older;
    }
    pages_.clear();
    residentCount_ = 0;
    mostRecent_ = nullptr;
    leastRecent_ = nullptr;
}

bool FilePageCache::IsResident(std::uint64_t page) const {
    const std::uint64_t index = page - kHeadPageNumber;
    return IsValidPageNumber(page) && index < pages_.size() && pages_[index];
}

void FilePageCache::WritePage(std::uint64_t page) {
    QUORVEL_ASSERT(IsResident(page));
    const std::uint64_t index = page - kHeadPageNumber;
    WriteAt(pages_[index]->data, OffsetOfIndex(index), kPageSize);
}

bool FilePageCache::CoversPage(std::uint64_t page) const {
    QUORVEL_ASSERT(IsValidPageNumber(page));
    return EndOfPage(page) <= fileSize_;
}

void FilePageCache::EnsurePageInFile(std::uint64_t page) {
    QUORVEL_ASSERT(IsValidPageNumber(page));
    GrowTo(EndOfPage(page));
}

std::uint8_t* FilePageCache::GetPage(std::uint64_t page, Access access) {
    if (!IsValidPageNumber(page)) { return nullptr; }
    const std::uint64_t index = page - kHeadPageNumber;
    if (index >= pages_.size()) { pages_.resize(index + 1); }
    const bool forWrite = access == Access::Write;
    if (CachedPage* const resident = pages_[index]) {
        if (forWrite) { AnnounceChange(page, resident->data); }
        Unlink(resident);
        PushMostRecent(resident);
        ++resident->pinCount;
        if (forWrite) { resident->dirty = 1; }
        return resident->data;
    }

    std::unique_ptr<CachedPage> loaded = LoadPage(index, forWrite);
    if (!loaded) { return nullptr; }
    if (forWrite) { AnnounceChange(page, loaded->data); }
    PushMostRecent(loaded.get());
    return (pages_[index] = loaded.release())->data;
}

// A page of the file, pinned once and not yet entered in the index or the list. Null when every
// resident page is pinned.
std::unique_ptr<CachedPage> FilePageCache::LoadPage(std::uint64_t index, bool forWrite) {
    if (QUORVEL_NEVER(capacity_ == 0)) { throw InvalidParameterException(); }
    std::unique_ptr<CachedPage> loaded;
    if (!EvictDownTo(capacity_ - 1, loaded)) { return nullptr; }
    if (!loaded) { loaded.reset(new (std::nothrow) CachedPage); }
    if (!loaded) { throw OutOfMemoryException(); }
    loaded->pageIndex = index;
    loaded->pinCount = 1;
    loaded->dirty = forWrite ? 1 : 0;
    if (forWrite) { GrowTo(OffsetOfIndex(index) + kPageSize); }
    ReadAt(loaded->data, OffsetOfIndex(index), kPageSize);
    return loaded;
}

void FilePageCache::AnnounceChange(std::uint64_t page, const std::uint8_t* bytes) {
    if (listener_) { listener_->BeforePageChange(page, bytes); }
}

void FilePageCache::ReleasePage(std::uint64_t page) {
    if (!IsValidPageNumber(page)) { return; }
    const std::uint64_t index = page - kHeadPageNumber;
    if (index < pages_.size() && pages_[index]) { --pages_[index]->pinCount; }
}

// Evicts the least recently used pages, skipping pinned ones, until at most `limit` pages are left.
// False if too many are pinned. Leaves one of the freed pages in `frame` for the next page to use.
bool FilePageCache::EvictDownTo(std::uint64_t limit, std::unique_ptr<CachedPage>& frame) {
    CachedPage* next = leastRecent_;
    while (residentCount_ > limit && next) {
        CachedPage* const page = next;
        next = page->newer;
        if (page->pinCount < 1) { frame = WriteBackPage(page); }
    }
    return residentCount_ <= limit;
}

// Writes a page and takes it out of the cache.
std::unique_ptr<CachedPage> FilePageCache::WriteBackPage(CachedPage* page) {
    if (listener_) { listener_->BeforePageWrite(page->pageIndex + kHeadPageNumber); }
    WriteAt(page->data, OffsetOfIndex(page->pageIndex), kPageSize);
    pages_[page->pageIndex] = nullptr;
    Unlink(page);
    return std::unique_ptr<CachedPage>(page);
}

void FilePageCache::GrowTo(std::uint64_t size) {
    if (size > fileSize_) {
        GrowFile(file_, size);
        fileSize_ = size;
    }
}

void FilePageCache::PushMostRecent(CachedPage* page) {
    page->newer = nullptr;
    page->older = mostRecent_;
    if (mostRecent_) {
        mostRecent_->newer = page;
    } else {
        leastRecent_ = page;
    }
    mostRecent_ = page;
    ++residentCount_;
}

void FilePageCache::Unlink(CachedPage* page) {
    if (mostRecent_ == leastRecent_) {
        mostRecent_ = nullptr;
        leastRecent_ = nullptr;
    } else if (page == mostRecent_) {
        mostRecent_ = page->older;
        mostRecent_->newer = nullptr;
    } else if (page == leastRecent_) {
        leastRecent_ = page->newer;
        leastRecent_->older = nullptr;
    } else {
        page->older->newer = page->newer;
        page->newer->older = page->older;
    }
    --residentCount_;
}

void FilePageCache::WriteAt(const void* buffer, std::uint64_t offset, std::uint64_t size) {
    SeekTo(offset);
    if (std::fwrite(buffer, size, 1, file_) != 1) {
        throw FileIOException(static_cast<std::uint32_t>(errno));
    }
}

void FilePageCache::ReadAt(void* buffer, std::uint64_t offset, std::uint64_t size) {
    SeekTo(offset);
    errno = 0;  // reading past the end of the file sets no error number
    if (std::fread(buffer, size, 1, file_) != 1) {
        throw FileIOException(static_cast<std::uint32_t>(errno));
    }
}

void FilePageCache::SeekTo(std::uint64_t offset) {
    if (!file_) { throw FileIOException(); }
    if (std::fseek(file_, static_cast<long>(offset), SEEK_SET) != 0) {
        throw FileIOException(static_cast<std::uint32_t>(errno));
    }
}

void FilePageCache::ResetToEmpty() {
    file_ = nullptr;
    fileSize_ = 0;
    capacity_ = 1;
    pages_.clear();
    residentCount_ = 0;
    mostRecent_ = nullptr;
    leastRecent_ = nullptr;
}

void PageRef::SetReadPage(std::uint64_t page) {
    Release();
    page_ = page;
    data_ = cache_->GetPageForRead(page);
}

void PageRef::SetWritePage(std::uint64_t page) {
    Release();
    page_ = page;
    data_ = cache_->GetPageForWrite(page);
}

void PageRef::Release() {
    if (data_) {
        cache_->ReleasePageForRead(page_);
        data_ = nullptr;
        page_ = 0;
    }
}

}  // namespace Quorvel
