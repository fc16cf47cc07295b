#pragma once

#include <cstdint>

#include "pagestore/FilePageCache.h"
#include "quorvel/IDataStream.h"
#include "seekers/IPagedFileSeeker.h"
#include "vornutil/RefPtr.h"

namespace Quorvel {

// A stream over the logical file that a seeker describes. It moves a position through the seeker
// and copies between the caller's buffer and the cached page under the position. That page stays
// pinned, for reading and for writing separately, from the first access of its kind until the
// position leaves it.
class PagedFileStream : public IDataStream {
public:
    // Starts at position 0. The cache must outlive the stream. Throws InvalidParameterException for
    // a null seeker or one that has no position 0.
    PagedFileStream(FilePageCache* cache, const Util::RefPtr<IPagedFileSeeker>& seeker);

    std::uint64_t GetPosition() override;
    std::uint64_t GetSize() override;
    bool Seek(std::uint32_t origin, std::int32_t offset) override;
    std::uint64_t Read(void* buffer, std::uint64_t size) override;
    std::uint64_t Write(const void* buffer, std::uint64_t size) override;

    // Moves every byte from position + length on down to position, and seeks to position. The size
    // stays the same; the last `length` bytes are then stale. False for a negative length and when
    // either end lies outside the stream. Throws FileDataCorruptException when a page can't be
    // pinned.
    [[nodiscard]] bool RemoveRange(std::int32_t position, std::int32_t length);

    // Unpins both pages; the next access pins again.
    void ReleasePages();

    // Switches to a seeker that describes the same bytes in other places. REQUIRES: the seeker is
    // not null. Throws FileDataCorruptException, changing nothing, if the new file is too short for
    // the position.
    void MoveTo(const Util::RefPtr<IPagedFileSeeker>& seeker);

    // Releases the pages and the seeker. The stream has no bytes from then on.
    void Detach();

protected:
    ~PagedFileStream() override;

private:
    struct Position {
        PagePosition page;
        std::uint64_t byte;  // from the start; a signed 32-bit number
    };

    enum class Direction { Read, Write };

    template <Direction direction>
    std::uint64_t Transfer(std::uint8_t* buffer, std::uint64_t size);
    template <Direction direction>
    std::uint8_t* PinCurrentPage();

    bool ComputeTarget(Position& target, const Position& from, std::uint32_t origin,
                       std::int32_t offset);
    PageRange RangeOf(std::uint64_t pageIndex);
    std::uint64_t PageNumberOf(std::uint64_t pageIndex);
    std::uint64_t BytesLeftInPage(const Position& position);
    bool IsAtEnd(const Position& position);

    FilePageCache* cache_;
    Util::RefPtr<IPagedFileSeeker> seeker_;
    Position position_;
    PageRef readPage_;
    PageRef writePage_;
};

}  // namespace Quorvel
