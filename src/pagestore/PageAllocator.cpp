#include "pagestore/PageAllocator.h"

#include <algorithm>
#include <new>

#include "platform/Assert.h"
#include "quorvel/Exceptions.h"

namespace Quorvel {

PageAllocator::PageAllocator() : highestPage_(kHeadPageNumber) {}

std::uint64_t PageAllocator::IndexOf(std::uint64_t page) {
    if (!IsValidPageNumber(page)) { throw InvalidParameterException(); }
    return page - kHeadPageNumber;
}

std::uint64_t PageAllocator::AllocatePage(std::uint64_t previous) {
    if (!IsValidPageNumber(previous)) { previous = 0; }
    const std::uint64_t page = TakeCandidate(previous);
    const std::uint64_t index = page - kHeadPageNumber;
    QUORVEL_ASSERT(IsValidPageNumber(page) && IsKnown(index));
    links_[index] = kEndOfChain;
    if (previous != 0) {
        const std::uint64_t previousIndex = previous - kHeadPageNumber;
        if (!IsKnown(previousIndex) || links_[previousIndex] != kEndOfChain) {
            throw InvalidParameterException();
        }
        links_[previousIndex] = page;
        previousPages_[index] = previous;
    }
    highestPage_ = std::max(highestPage_, page);
    return page;
}

// The first page of the free queue that is still free, or else a new one.
std::uint64_t PageAllocator::TakeCandidate(std::uint64_t previous) {
    while (!freeQueue_.empty()) {
        const std::uint64_t page = freeQueue_.front();
        freeQueue_.pop_front();
        if (!IsPageAllocated(page)) { return page; }
    }
    if (links_.size() >= kPageCountLimit) { throw OutOfMemoryException(); }
    previousPages_.resize(links_.size() + 1);
    previousPages_.back() = previous;
    links_.push_back(kEndOfChain);
    return links_.size() - 1 + kHeadPageNumber;
}

void PageAllocator::FreePage(std::uint64_t page) {
    const std::uint64_t index = IndexOf(page);
    if (!IsKnown(index)) { throw InvalidParameterException(); }
    const std::uint64_t successor = links_[index];
    links_[index] = kFreePage;
    previousPages_[index] = 0;
    if (IsValidPageNumber(successor)) {
        QUORVEL_ASSERT(IsKnown(successor - kHeadPageNumber));
        previousPages_[successor - kHeadPageNumber] = 0;
    }
    try {
        freeQueue_.push_back(page);
    } catch (const std::bad_alloc&) {
        // The page is free nevertheless, but is not used again before the next load. Throwing would
        // leave a chain half freed.
    }
}

bool PageAllocator::MarkPageAllocated(std::uint64_t page) {
    const std::uint64_t index = IndexOf(page);
    highestPage_ = std::max(highestPage_, page);
    if (!IsKnown(index)) {
        std::list<std::uint64_t> missing;
        for (std::uint64_t between = links_.size(); between < index; ++between) {
            missing.push_back(between + kHeadPageNumber);
        }
        previousPages_.resize(index + 1, 0);
        links_.resize(index + 1, kFreePage);
        links_[index] = kEndOfChain;
        freeQueue_.splice(freeQueue_.end(), missing);
        return true;
    }
    if (links_[index] == kFreePage) {
        links_[index] = kEndOfChain;
        return true;
    }
    return false;
}

bool PageAllocator::IsPageAllocated(std::uint64_t page) {
    const std::uint64_t index = IndexOf(page);
    return IsKnown(index) && links_[index] != kFreePage;
}

std::uint64_t PageAllocator::GetNextPage(std::uint64_t page) {
    const std::uint64_t index = IndexOf(page);
    return IsKnown(index) ? links_[index] : kFreePage;
}

void PageAllocator::Clear() {
    highestPage_ = kHeadPageNumber;
    previousPages_.clear();
    links_.clear();
    freeQueue_.clear();
}

std::uint64_t PageAllocator::FreePageCount() const {
    return static_cast<std::uint64_t>(std::count(links_.begin(), links_.end(), kFreePage));
}

std::vector<bool> PageAllocator::PagesInUse() const {
    std::vector<bool> inUse(links_.size());
    std::transform(links_.begin(), links_.end(), inUse.begin(),
                   [](std::uint64_t link) { return link != kFreePage; });
    return inUse;
}

std::uint64_t PageAllocator::GetStateSize() const {
    return sizeof(std::uint64_t) * (links_.size() + 1);
}

bool PageAllocator::SaveState(const Util::RefPtr<IDataStream>& stream) const {
    const std::uint64_t count = links_.size();
    if (stream->Write(&count, sizeof count) != sizeof count) { throw FileIOException(); }
    const std::uint64_t bytes = count * sizeof(std::uint64_t);
    if (count > 0 && stream->Write(links_.data(), bytes) != bytes) { throw FileIOException(); }
    return true;
}

bool PageAllocator::LoadState(const Util::RefPtr<IDataStream>& stream) {
    Clear();
    ReadLinks(stream);
    RebuildFromLinks();
    return true;
}

void PageAllocator::ReadLinks(const Util::RefPtr<IDataStream>& stream) {
    std::uint64_t count = 0;
    if (stream->Read(&count, sizeof count) != sizeof count || count > kPageCountLimit) {
        throw FileDataCorruptException();
    }
    previousPages_.resize(count, 0);
    links_.resize(count);
    const std::uint64_t bytes = count * sizeof(std::uint64_t);
    if (count > 0 && stream->Read(links_.data(), bytes) != bytes) {
        throw FileDataCorruptException();
    }
}

void PageAllocator::RebuildFromLinks() {
    QUORVEL_ASSERT(previousPages_.size() == links_.size() && freeQueue_.empty());
    for (std::uint64_t index = 0; index < links_.size(); ++index) {
        const std::uint64_t page = index + kHeadPageNumber;
        const std::uint64_t link = links_[index];
        if (link == kFreePage) {
            freeQueue_.push_back(page);
            continue;
        }
        if (IsValidPageNumber(link)) {
            const std::uint64_t successor = link - kHeadPageNumber;
            if (!IsKnown(successor) || previousPages_[successor] != 0) {
                throw FileDataCorruptException();
            }
            previousPages_[successor] = page;
        }
        highestPage_ = std::max(highestPage_, page);
    }
}

}  // namespace Quorvel
