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
    std::int32_t pinCount;  // the page can be evicted while this is below 1
    std::uint8_t dirty;     // was pinned for writing; recorded, never consulted
    std::uint8_t data[kPageSize];
    CachedPage* older;  // towards the least recently used end
    CachedPage* newer;  // towards the most recently used end
};
#pragma pack(pop)
static_assert(sizeof(CachedPage) == 13 + kPageSize + 2 * sizeof(void*));

// Is notified before a page changes in memory and before it is written to the file. If the listener
// throws, the page is not changed or written, and the exception leaves the operation that was about
// to do so.
class PageListener {
public:
    // Called before GetPageForWrite returns: these bytes may now change.
    virtual void BeforePageChange(std::uint64_t page, const std::uint8_t* bytes) = 0;

    // Called before each write of a whole page that leaves the cache.
    virtual void BeforePageWrite(std::uint64_t page) = 0;

protected:
    ~PageListener() = default;
};

// Every byte of a package file passes through its page cache. The cache keeps a bounded number of
// whole pages in memory and hands out pointers to their bytes; each pointer pins its page until it
// is released. To make room, the cache writes back and frees the least recently used page without a
// pin. It writes every page that leaves, changed or not. Closing writes back all pages.
//
// Two structures hold the resident pages: `pages_`, indexed by page index, finds them; a doubly
// linked list, from the most to the least recently used page, chooses the one to evict.
//
// For one thread at a time.
class FilePageCache {
public:
    // Opens a file as Open does.
    FilePageCache(const char* path, std::uint64_t capacity);
    FilePageCache(const FilePageCache&) = delete;
    FilePageCache& operator=(const FilePageCache&) = delete;

    // Closes. Pages that can't be written are lost.
    virtual ~FilePageCache();

    // Closes the open file, if any, then opens a file for reading and writing, or creates it if it
    // can't be opened. Keeps at most `capacity` pages; 0 counts as 1. Returns true. Throws
    // FileIOException with the error number of the attempt to create, or as Close does.
    bool Open(const char* path, std::uint64_t capacity);

    // Writes back and frees every page in ascending order, pinned ones too, and closes the file.
    // Throws FileIOException when a page can't be written: that page and those after it stay
    // resident and the file stays open. Also throws it when closing the file reports an error, so
    // that written bytes may be lost; the cache is then closed.
    void Close();

    // Frees every page without writing it. The file stays open.
    void DiscardAll();

    bool IsOpen() const { return file_ != nullptr; }

    // The 8192 bytes of a page, pinned. For writing, the file grows to cover the page. Null when
    // the number is not valid or every resident page is pinned. Throws FileIOException when the
    // page can't be read, for example past the end of the file, when an evicted page can't be
    // written, or when the file is closed (for writing InvalidParameterException);
    // OutOfMemoryException if there is no memory for the page, and std::bad_alloc if there is none
    // for the index.
    std::uint8_t* GetPageForRead(std::uint64_t page) { return GetPage(page, Access::Read); }
    std::uint8_t* GetPageForWrite(std::uint64_t page) { return GetPage(page, Access::Write); }

    // Removes one pin from a page. Does nothing for a page that is not resident.
    void ReleasePageForRead(std::uint64_t page) { ReleasePage(page); }
    void ReleasePageForWrite(std::uint64_t page) { ReleasePage(page); }

    // The length of the open file in bytes.
    std::uint64_t FileSize() const { return fileSize_; }

    bool IsResident(std::uint64_t page) const;

    // Writes a page to the file now; it stays resident. The listener is not called.
    // REQUIRES: the page is resident. Throws FileIOException.
    void WritePage(std::uint64_t page);

    // Sets the listener, or none. It must outlive the cache or be replaced before it is destroyed.
    void SetListener(PageListener* listener) { listener_ = listener; }
    const PageListener* Listener() const { return listener_; }

    // True if the whole page lies in the file. REQUIRES: the page number is valid.
    bool CoversPage(std::uint64_t page) const;

    // Grows the file to cover a page. REQUIRES: the page number is valid. Throws FileIOException,
    // InvalidParameterException when the file is closed.
    void EnsurePageInFile(std::uint64_t page);

private:
    enum class Access { Read, Write };

    std::uint8_t* GetPage(std::uint64_t page, Access access);
    std::unique_ptr<CachedPage> LoadPage(std::uint64_t index, bool forWrite);
    void AnnounceChange(std::uint64_t page, const std::uint8_t* bytes);
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
    PageListener* listener_ = nullptr;
};

// Holds a pin on one page, or none, and releases it when destroyed.
class PageRef {
public:
    explicit PageRef(FilePageCache* cache) : cache_(cache), data_(nullptr), page_(0) {}
    PageRef(const PageRef&) = delete;
    PageRef& operator=(const PageRef&) = delete;
    ~PageRef() { Release(); }

    // Releases the page it holds and pins another. Data() is null afterwards if the cache returned
    // none. Throws what the cache throws, holding nothing.
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
