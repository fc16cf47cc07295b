#include "pagestore/PagedFileStream.h"

#include <algorithm>
#include <cstring>

#include "platform/Assert.h"
#include "quorvel/Exceptions.h"

namespace Quorvel {

PagedFileStream::PagedFileStream(FilePageCache* cache, const Util::RefPtr<IPagedFileSeeker>& seeker)
    : cache_(cache), seeker_(seeker), position_{}, readPage_(cache), writePage_(cache) {
    if (!seeker_) { throw InvalidParameterException(); }
    if (!seeker_->PositionToPage(position_.page.pageIndex, position_.page.pageOffset, 0)) {
        throw InvalidParameterException();
    }
}

PagedFileStream::~PagedFileStream() {
    Detach();
}

std::uint64_t PagedFileStream::GetPosition() {
    return position_.byte;
}

std::uint64_t PagedFileStream::GetSize() {
    return seeker_ ? seeker_->byteSize : 0;
}

bool PagedFileStream::Seek(std::uint32_t origin, std::int32_t offset) {
    Position target;
    if (!ComputeTarget(target, position_, origin, offset)) { return false; }
    if (target.page.pageIndex != position_.page.pageIndex) { ReleasePages(); }
    position_ = target;
    return true;
}

std::uint64_t PagedFileStream::Read(void* buffer, std::uint64_t size) {
    return Transfer<Direction::Read>(static_cast<std::uint8_t*>(buffer), size);
}

std::uint64_t PagedFileStream::Write(const void* buffer, std::uint64_t size) {
    return Transfer<Direction::Write>(static_cast<std::uint8_t*>(const_cast<void*>(buffer)), size);
}

// One loop serves both directions. At the end of a page's data it steps to the next page at once,
// even when nothing is left to copy, so a position between two pages always belongs to the later
// one.
template <PagedFileStream::Direction direction>
std::uint64_t PagedFileStream::Transfer(std::uint8_t* buffer, std::uint64_t size) {
    if (!seeker_ || seeker_->pageCount == 0) { return 0; }
    PagePosition& page = position_.page;
    std::uint64_t transferred = 0;
    while (transferred < size) {
        std::uint8_t* const data = PinCurrentPage<direction>();
        if (!data) { break; }
        const std::uint64_t left = BytesLeftInPage(position_);
        const std::uint64_t count = std::min(size - transferred, left);
        QUORVEL_ASSERT(page.pageOffset + count <= kPageSize);
        if constexpr (direction == Direction::Read) {
            std::memcpy(buffer + transferred, data + page.pageOffset, count);
        } else {
            std::memcpy(data + page.pageOffset, buffer + transferred, count);
        }
        transferred += count;
        page.pageOffset += count;
        position_.byte += count;
        if (count == left) {
            if (page.pageIndex + 1 >= seeker_->pageCount) { break; }
            ReleasePages();
            page = {page.pageIndex + 1, RangeOf(page.pageIndex + 1).start};
        }
    }
    return transferred;
}

template <PagedFileStream::Direction direction>
std::uint8_t* PagedFileStream::PinCurrentPage() {
    PageRef& pin = direction == Direction::Read ? readPage_ : writePage_;
    if (!pin.Data() && position_.page.pageIndex < seeker_->pageCount) {
        const std::uint64_t number = PageNumberOf(position_.page.pageIndex);
        if constexpr (direction == Direction::Read) {
            pin.SetReadPage(number);
        } else {
            pin.SetWritePage(number);
        }
    }
    return pin.Data();
}

bool PagedFileStream::RemoveRange(std::int32_t position, std::int32_t length) {
    Position destination;
    Position source;
    if (length < 0 || !ComputeTarget(destination, position_, kSeekFromStart, position) ||
        !ComputeTarget(source, destination, kSeekFromCurrent, length)) {
        return false;
    }
    while (!IsAtEnd(source)) {
        const std::uint64_t count = std::min(BytesLeftInPage(destination), BytesLeftInPage(source));
        PageRef to(cache_);
        PageRef from(cache_);
        if (count != 0) {
            to.SetWritePage(PageNumberOf(destination.page.pageIndex));
            from.SetReadPage(PageNumberOf(source.page.pageIndex));
        }
        if (!to.Data() || !from.Data()) { throw FileDataCorruptException(); }
        QUORVEL_ASSERT(destination.page.pageOffset + count <= kPageSize &&
                       source.page.pageOffset + count <= kPageSize);
        // Both may be the same page.
        std::memmove(to.Data() + destination.page.pageOffset, from.Data() + source.page.pageOffset,
                     count);
        const auto step = static_cast<std::int32_t>(count);
        if (!ComputeTarget(destination, destination, kSeekFromCurrent, step) ||
            !ComputeTarget(source, source, kSeekFromCurrent, step)) {
            return false;
        }
    }
    return Seek(kSeekFromStart, position);
}

void PagedFileStream::ReleasePages() {
    readPage_.ReleaseReadPage();
    writePage_.ReleaseWritePage();
}

void PagedFileStream::MoveTo(const Util::RefPtr<IPagedFileSeeker>& seeker) {
    QUORVEL_ASSERT(seeker);
    ReleasePages();
    PagePosition page;
    if (!seeker->PositionToPage(page.pageIndex, page.pageOffset,
                                static_cast<std::int32_t>(position_.byte))) {
        throw FileDataCorruptException();
    }
    position_.page = page;
    seeker_ = seeker;
}

void PagedFileStream::Detach() {
    ReleasePages();
    seeker_.Reset();
    position_ = {};
}

// Does not call the seeker when the position stays the same.
bool PagedFileStream::ComputeTarget(Position& target, const Position& from, std::uint32_t origin,
                                    std::int32_t offset) {
    if (!seeker_) { return false; }
    Position result = from;
    if (origin == kSeekFromStart || origin == kSeekFromEnd) {
        std::uint32_t absolute = static_cast<std::uint32_t>(offset);
        if (origin == kSeekFromEnd) { absolute += static_cast<std::uint32_t>(GetSize()); }
        const auto signedTarget = static_cast<std::int32_t>(absolute);
        if (static_cast<std::int64_t>(from.byte) != signedTarget) {
            if (!seeker_->PositionToPage(result.page.pageIndex, result.page.pageOffset,
                                         signedTarget)) {
                return false;
            }
            result.byte = static_cast<std::uint64_t>(std::int64_t{signedTarget});
        }
    } else if (offset != 0) {
        if (!seeker_->MovePosition(result.page.pageIndex, result.page.pageOffset, from.page,
                                   static_cast<std::uint32_t>(offset))) {
            return false;
        }
        result.byte += static_cast<std::uint64_t>(std::int64_t{offset});
    }
    target = result;
    return true;
}

PageRange PagedFileStream::RangeOf(std::uint64_t pageIndex) {
    QUORVEL_ASSERT(pageIndex < seeker_->pageCount);
    seeker_->LoadPageInfo(pageIndex);
    return seeker_->pageRanges[pageIndex];
}

std::uint64_t PagedFileStream::PageNumberOf(std::uint64_t pageIndex) {
    QUORVEL_ASSERT(pageIndex < seeker_->pageCount);
    seeker_->LoadPageInfo(pageIndex);
    return seeker_->pageNumbers[pageIndex];
}

std::uint64_t PagedFileStream::BytesLeftInPage(const Position& position) {
    if (position.page.pageIndex >= seeker_->pageCount) { return 0; }
    const std::uint64_t end = RangeOf(position.page.pageIndex).end;
    return end - std::min(end, position.page.pageOffset);
}

bool PagedFileStream::IsAtEnd(const Position& position) {
    return position.page.pageIndex + 1 >= seeker_->pageCount && BytesLeftInPage(position) == 0;
}

}  // namespace Quorvel
