#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "pagestore/Fakes.h"
#include "pagestore/FilePageCache.h"
#include "seekers/BaseHeadFileSeeker.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

// The data bytes of the first page of a head file, and of each later page.
constexpr std::uint64_t kFirst = 8160;
constexpr std::uint64_t kLater = 8176;

// A page position that can be compared and printed.
struct Place {
    bool found = true;
    std::uint64_t pageIndex = 0;
    std::uint64_t pageOffset = 0;

    friend bool operator==(const Place&, const Place&) = default;
    friend void PrintTo(const Place& place, std::ostream* out) {
        *out << (place.found ? "page " : "nowhere, page ") << place.pageIndex << " offset "
             << place.pageOffset;
    }
};

constexpr Place kNowhere = {false, 0, 0};

inline Place PlaceOf(IPagedFileSeeker& seeker, std::int32_t position) {
    Place place = {false, 77, 88};
    place.found = seeker.PositionToPage(place.pageIndex, place.pageOffset, position);
    return place;
}

inline Place Moved(IPagedFileSeeker& seeker, const PagePosition& from, std::uint32_t distance) {
    Place place = {false, 77, 88};
    place.found = seeker.MovePosition(place.pageIndex, place.pageOffset, from, distance);
    return place;
}

// A zero-filled file for a head file, and a page cache of capacity 1 over it: a test fails if a pin
// is not released, or if two pages are needed at once.
class HeadFileFixture : public ::testing::Test {
protected:
    HeadFileFixture() { SetFile(Bytes(8 * kPageSize)); }

    void SetFile(const Bytes& file) {
        cache_.DiscardAll();
        cache_.Close();
        WriteFile(path_, file);
        cache_.Open(path_.c_str(), 1);
    }

    // The bytes of the file, after the cache has written back all its pages.
    Bytes File() {
        cache_.Close();
        const Bytes file = ReadFile(path_);
        cache_.Open(path_.c_str(), 1);
        return file;
    }

    // Stores a little-endian 64-bit number in a page of the file.
    void SetWord(std::uint64_t page, std::uint64_t offset, std::uint64_t value) {
        Bytes file = File();
        for (std::uint64_t i = 0; i < 8; ++i) {
            file[FileOffset(page) + offset + i] = static_cast<std::uint8_t>(value >> (8 * i));
        }
        SetFile(file);
    }

    // Writes the headers of a head file. The first page is page 10; all pages but the last are
    // full.
    void WriteHeaders(const Numbers& pages, std::uint64_t byteSize, std::uint64_t lastDataEnd) {
        for (std::size_t i = 0; i < pages.size(); ++i) {
            const bool last = i + 1 == pages.size();
            const std::uint64_t link = i == 0 ? 16 : 0;
            SetWord(pages[i], link, last ? 0 : pages[i + 1]);
            SetWord(pages[i], link + 8, last ? lastDataEnd : 8192);
        }
        SetWord(10, 0, pages.size());
        SetWord(10, 8, byteSize);
    }

    // True if no page is pinned.
    bool NothingIsPinned() {
        const bool free = cache_.GetPageForRead(17) != nullptr;
        if (free) { cache_.ReleasePageForRead(17); }
        return free;
    }

    TemporaryDirectory directory_;
    const std::string path_ = directory_.File("pages");
    FilePageCache cache_{path_.c_str(), 1};
};

// Consecutive page numbers from 10 on, and the successor of each; 0 for the last.
struct Chain {
    explicit Chain(std::uint64_t count) {
        for (std::uint64_t i = 0; i < count; ++i) {
            pages.push_back(10 + i);
            nextPages.push_back(i + 1 < count ? 11 + i : 0);
        }
    }
    Numbers pages;
    Numbers nextPages;
};

// Sets a seeker up for a new head file in consecutive pages.
inline bool Create(BaseHeadFileSeeker& seeker, std::uint64_t byteSize) {
    const Chain chain(BaseHeadFileSeeker::PagesForSize(byteSize));
    return seeker.CreateHeadFile(chain.pages.data(), chain.nextPages.data(), chain.pages.size(),
                                 byteSize);
}

}  // namespace Quorvel::Testing
