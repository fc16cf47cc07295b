#include "transfers/PageCacheModel.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace Quorvel::Testing {

namespace {

std::uint64_t OffsetOf(std::uint64_t page) {
    return (page - 10) * kPageSize;
}

}  // namespace

bool PageCacheModel::Get(std::uint64_t page, bool forWrite) {
    if (pins_.count(page) != 0) {
        recent_.splice(recent_.begin(), recent_, std::find(recent_.begin(), recent_.end(), page));
        ++pins_[page];
        return true;
    }
    if (!MakeRoom()) { return false; }
    if (forWrite) { Ensure(page); }
    Transfer(StdioTransfer::Kind::Read, page);
    recent_.push_front(page);
    pins_[page] = 1;
    return true;
}

// Evicts unpinned pages, the least recently used one first, until there is room for one more.
bool PageCacheModel::MakeRoom() {
    for (auto next = recent_.end(); pins_.size() >= capacity_ && next != recent_.begin();) {
        const auto page = std::prev(next);
        if (pins_[*page] > 0) {
            next = page;
            continue;
        }
        Transfer(StdioTransfer::Kind::Write, *page);
        pins_.erase(*page);
        next = recent_.erase(page);
    }
    return pins_.size() < capacity_;
}

void PageCacheModel::Release(std::uint64_t page) {
    --pins_[page];
}

void PageCacheModel::Ensure(std::uint64_t page) {
    for (; fileSize_ < OffsetOf(page) + kPageSize; fileSize_ += kPageSize) {
        transfers_.push_back({StdioTransfer::Kind::Write, fileSize_, kPageSize});
    }
}

void PageCacheModel::Close() {
    for (const auto& [page, pins] : pins_) {
        Transfer(StdioTransfer::Kind::Write, page);
    }
    pins_.clear();
    recent_.clear();
}

Transfers PageCacheModel::Take() {
    return std::exchange(transfers_, {});
}

void PageCacheModel::Transfer(StdioTransfer::Kind kind, std::uint64_t page) {
    transfers_.push_back({kind, OffsetOf(page), kPageSize});
}

}  // namespace Quorvel::Testing
