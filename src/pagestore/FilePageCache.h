#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

#include "pagestore/PageGeometry.h"

namespace Quorvel {

// One resident page.
#pragma pack(push, 1)
struct CachedPage {
    std::uint64_t pageIndex;
    std::int32_t pinCount;  // evictable while below 1
    std::uint8_t dirty;     // was pinned for writing; recorded only
    std::uint8_t data[kPageSize];
    CachedPage* older;  // towards the least recently used end
    CachedPage* newer;  // towards the most recently used end
};
#pragma pack(pop)
static_assert(sizeof(CachedPage) == 13 + kPageSize + 2 * sizeof(void*));

// Every byte of a package file passes through its page cache. It keeps a bounded number of whole
// pages in memory and hands out pointers to their bytes, each of which pins its page until it is
// released. When room is wanted, the least recently used page without a pin is written back and
// freed; a page is written whenever it leaves the cache, changed or not. Closing writes back all.
//
// Resident pages stand in two structures: `pages_`, indexed by page index, to find them, and a
// doubly linked list from the most to the least recently used one, to choose what to evict.
//
// For one thread at a time.
class FilePageCache {
public:
    // Opens a file as Open does.
    FilePageCache(const char* path, std::uint64_t capacity);
    FilePageCache(const FilePageCache&) = delete;
    FilePageCache& operator=(const FilePageCache&) = delete;

    // Closes. What can't be written is lost.
    virtual ~FilePageCache();

    // Closes what is open, then opens a file for reading and writing, or creates it when it can't
    // be opened. At most capacity pages are kept; 0 is taken as 1. Returns true. Throws
    // FileIOException with the error number of the attempt to create, or as Close does.
    bool Open(const char* path, std::uint64_t capacity);

    // Writes back and frees every page in ascending order, pinned ones too, and closes the file.
    // Throws FileIOException when a page can't be written: it and those behind it stay resident and
    // the file stays open.
    void Close();

    // Frees every page without writing it. The file stays open.
    void DiscardAll();

    // The 8192 bytes of a page, pinned. For writing, the file grows to cover the page. Null when
    // the number is not valid or every page kept is pinned. Throws FileIOException when the page
    // can't be read, as beyond the end of the file, or when a page that must leave can't be
    // written, or when the file is closed (for writing InvalidParameterException);
    // OutOfMemoryException and std::bad_alloc without memory for the page and for the index.
    std::uint8_t* GetPageForRead(std::uint64_t page) { return GetPage(page, Access::Read); }
    std::uint8_t* GetPageForWrite(std::uint64_t page) { return GetPage(page, Access::Write); }

    // Takes one pin off a page. Does nothing for a page that is not resident.
    void ReleasePageForRead(std::uint64_t page) { ReleasePage(page); }
    void ReleasePageForWrite(std::uint64_t page) { ReleasePage(page); }

    // Writes a page that is resident to the file now; it stays resident. Throws FileIOException.
    void WritePage(std::uint64_t page);

    // Has a page, which must be resident, written before any other page that leaves the cache from
    // now on; it stays resident. Until then the file keeps the bytes it has, though it may grow.
    void WriteBeforeOthers(std::uint64_t page);

    // Whether that page is still to be written.
    bool IsHoldingBack() const { return firstToWrite_ != nullptr; }

    // Whether a page, which must be valid, lies in the file as a whole.
    bool CoversPage(std::uint64_t page) const;

    // Grows the file to cover a page, which must be valid. Throws FileIOException,
    // InvalidParameterException when the file is closed.
    void EnsurePageInFile(std::uint64_t page);

private:
    enum class Access { Read, Write };

    std::uint8_t* GetPage(std::uint64_t page, Access access);
    void ReleasePage(std::uint64_t page);
    bool EvictDownTo(std::uint64_t limit, std::unique_ptr<CachedPage>& frame);
    std::unique_ptr<CachedPage> WriteBackPage(CachedPage* page);
    void GrowTo(std::uint64_t size);
    void PushMostRecent(CachedPage* page);
    void Unlink(CachedPage* page);
    void WriteAt(const void* buffer, std::uint64_t offset, std::uint64_t size);
    void ReadAt(void* buffer, std::uint64_t offset, std::uint64_t size);
    void SeekTo(std::uint64_t offset);
    void ResetToEmpty();

    std::FILE* file_;
    std::uint64_t fileSize_;
    std::uint64_t capacity_;
    std::vector<CachedPage*> pages_;
    std::uint64_t residentCount_;
    CachedPage* mostRecent_;
    CachedPage* leastRecent_;
    CachedPage* firstToWrite_;  // resident; null for none
};

// Holds a pin on one page, or none, and gives it back at the end of its life.
class PageRef {
public:
    explicit PageRef(FilePageCache* cache) : cache_(cache), data_(nullptr), page_(0) {}
    PageRef(const PageRef&) = delete;
    PageRef& operator=(const PageRef&) = delete;
    ~PageRef() { Release(); }

    // Releases what is held and pins a page. Data() is null afterwards when the cache had no page
    // to give. Throws what the cache throws, holding nothing.
    void SetReadPage(std::uint64_t page);
    void SetWritePage(std::uint64_t page);

    void ReleaseReadPage() { Release(); }
    void ReleaseWritePage() { Release(); }

    // The page's bytes; null when nothing is held.
    std::uint8_t* Data() const { return data_; }

private:
    void Release();

    FilePageCache* cache_;
    std::uint8_t* data_;
    std::uint64_t page_;
};

}  // namespace Quorvel
