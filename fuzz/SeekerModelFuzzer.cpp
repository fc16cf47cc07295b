// Lays out a logical file over pages, as a child file or as a head file, and compares its seeker
// and a stream over it with plain bytes in memory and a list of their places.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <string>
#include <vector>

#include "format/Bytes.h"
#include "fuzz/Pattern.h"
#include "fuzz/Require.h"
#include "pagestore/FilePageCache.h"
#include "pagestore/PageAllocator.h"
#include "pagestore/PagedFileStream.h"
#include "quorvel/Exceptions.h"
#include "seekers/ChildFileSeeker.h"
#include "seekers/HeadFileSeeker.h"
#include "seekers/HeadFileWriteOnlySeeker.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Fuzz {

namespace {

using Format::Bytes;

constexpr std::uint64_t kPages = 16;  // in the file
constexpr std::uint64_t kMostWholePages = 4;
constexpr std::uint64_t kMostHeadBytes = 4 * kPageSize;
constexpr int kMostOperations = 60;

// A stream may pin one page, twice; removing a range from it needs two more pages, and its seeker a
// fourth.
constexpr std::uint64_t kCacheCapacity = 4;

// Where a byte lies in the package's file.
struct Place {
    std::uint64_t page;
    std::uint64_t offset;

    friend bool operator==(const Place&, const Place&) = default;
};

// A logical file: its seeker, and where its bytes and its end lie.
struct LogicalFile {
    struct Run {
        Place start;
        std::uint64_t size;
    };

    Util::RefPtr<IPagedFileSeeker> seeker;
    std::uint64_t size = 0;
    std::vector<Run> runs;
    Place end{};

    void Append(std::uint64_t page, std::uint64_t start, std::uint64_t bytes) {
        runs.push_back({{page, start}, bytes});
        size += bytes;
        end = {page, start + bytes};
    }

    Place PlaceOf(std::uint64_t position) const {
        for (const Run& run : runs) {
            if (position < run.size) { return {run.start.page, run.start.offset + position}; }
            position -= run.size;
        }
        return end;
    }
};

// The pages of the file in an order that the input chooses.
std::vector<std::uint64_t> TakePageOrder(FuzzedDataProvider& input) {
    std::vector<std::uint64_t> pages(kPages);
    std::iota(pages.begin(), pages.end(), kHeadPageNumber);
    for (std::uint64_t swaps = input.ConsumeIntegral<std::uint8_t>() % kPages; swaps > 0; --swaps) {
        std::swap(pages[swaps], pages[input.ConsumeIntegral<std::uint8_t>() % kPages]);
    }
    return pages;
}

// A number up to limit, often close to 0 or to limit.
std::uint64_t TakeSize(FuzzedDataProvider& input, std::uint64_t limit) {
    const auto number = input.ConsumeIntegral<std::uint8_t>();
    if (number < 32) { return std::min<std::uint64_t>(number, limit); }
    if (number < 64) { return limit - std::min<std::uint64_t>(number - 32u, limit); }
    return input.ConsumeIntegral<std::uint32_t>() % (limit + 1);
}

// A child file; without a seeker if it would be empty.
LogicalFile TakeChildFile(FuzzedDataProvider& input) {
    std::vector<std::uint64_t> pages = TakePageOrder(input);
    const std::uint64_t wholePages = input.ConsumeIntegral<std::uint8_t>() % (kMostWholePages + 1);
    ChildFileTail tail = {};
    tail.tailLength = TakeSize(input, kPageSize - 1);
    tail.tailOffset = TakeSize(input, kPageSize - 1);

    LogicalFile file;
    const Util::RefPtr<IPageAllocator> allocator(new PageAllocator);
    for (std::uint64_t page = kHeadPageNumber; page < kHeadPageNumber + kPages; ++page) {
        allocator->MarkPageAllocated(page);
    }
    // Makes a page follow another: the allocator links the only free page to it.
    const auto follow = [&](std::uint64_t previous, std::uint64_t page) {
        allocator->FreePage(page);
        Require(allocator->AllocatePage(previous) == page, "the only free page is allocated");
    };
    for (std::uint64_t index = 0; index < wholePages; ++index) {
        follow(index == 0 ? 0 : pages[index - 1], pages[index]);
        file.Append(pages[index], 0, kPageSize);
    }
    if (tail.tailLength != 0) {
        tail.tailPage = pages[wholePages];
        const std::uint64_t here = std::min(tail.tailLength, kPageSize - tail.tailOffset);
        file.Append(tail.tailPage, tail.tailOffset, here);
        if (here < tail.tailLength) {
            tail.followingPage = pages[wholePages + 1];
            follow(tail.tailPage, tail.followingPage);
            file.Append(tail.followingPage, 0, tail.tailLength - here);
        } else if (tail.tailOffset + here == kPageSize) {
            file.end = {0, 0};  // the seeker's last entry has no page
        }
    }

    const ChildFileExtent extent = {0, wholePages * kPageSize + tail.tailLength,
                                    wholePages == 0 ? 0 : pages[0], wholePages};
    const Util::RefPtr<ChildFileSeeker> seeker(new ChildFileSeeker);
    try {
        seeker->Attach(allocator, extent, tail);
        Require(file.size != 0, "an empty child file can't be attached");
        file.seeker = seeker;
    } catch (const FileDataCorruptException&) {
        Require(file.size == 0, "only an empty child file can't be attached");
    }
    return file;
}

// A head file that has been written from front to back and opened for reading; without a seeker if
// it would be empty.
LogicalFile TakeHeadFile(FuzzedDataProvider& input, FilePageCache& cache) {
    std::vector<std::uint64_t> pages = TakePageOrder(input);
    std::swap(pages[0], *std::find(pages.begin(), pages.end(), kHeadPageNumber));
    std::uint64_t size = TakeSize(input, kMostHeadBytes);
    if (const auto number = input.ConsumeIntegral<std::uint8_t>(); number < 64) {
        const std::uint64_t full = kFirstPageCapacity + number % 4 * kPageCapacity;
        size = full - 1 + number / 4 % 3;
    }

    LogicalFile file;
    for (std::size_t index = 0; file.size < size; ++index) {
        const std::uint64_t start = index == 0 ? kFirstPageHeaderSize : kPageHeaderSize;
        file.Append(pages[index], start, std::min(kPageSize - start, size - file.size));
    }
    const std::uint64_t count = BaseHeadFileSeeker::PagesForSize(size);
    pages.resize(count);
    std::vector<std::uint64_t> nextPages(pages.begin() + 1, pages.end());
    nextPages.push_back(kEndOfChain);
    const Util::RefPtr<HeadFileWriteOnlySeeker> writer(new HeadFileWriteOnlySeeker(&cache));
    const bool created = writer->CreateHeadFile(pages.data(), nextPages.data(), count, size);
    Require(created == (size != 0), "a head file is not empty");
    if (!created) { return file; }
    const Bytes content = PatternOf(size, 0);
    const Util::RefPtr<PagedFileStream> stream(new PagedFileStream(&cache, writer));
    std::uint64_t done = 0;
    for (int steps = 0; done < size; ++steps) {
        const std::uint64_t step = steps < kMostOperations
                                       ? std::min(size - done, 1 + TakeSize(input, size))
                                       : size - done;
        Require(stream->Write(content.data() + done, step) == step, "a head file can be written");
        done += step;
    }

    const Util::RefPtr<HeadFileSeeker> seeker(new HeadFileSeeker(&cache));
    Require(seeker->OpenHeadFile(), "a head file can be opened");
    file.seeker = seeker;
    return file;
}

// The difference, modulo 2^32.
std::int32_t Minus(std::int32_t left, std::int32_t right) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(left) -
                                     static_cast<std::uint32_t>(right));
}

class Runner {
public:
    Runner(FuzzedDataProvider& input, FilePageCache& cache, const LogicalFile& file)
        : input_(input),
          file_(file),
          seeker_(*file.seeker),
          stream_(new PagedFileStream(&cache, file.seeker)),
          content_(PatternOf(file.size, 1)) {
        Require(stream_->GetSize() == content_.size(), "the stream's size");
        Require(stream_->Write(content_.data(), content_.size()) == content_.size(), "all written");
        Require(stream_->Seek(kSeekFromStart, 0), "back to the start");
    }

    void Run() {
        for (int step = 0; step < kMostOperations && input_.remaining_bytes() > 0; ++step) {
            switch (input_.ConsumeIntegral<std::uint8_t>() % 8) {
                case 0:
                    Find();
                    break;
                case 1:
                case 2:
                    Move();
                    break;
                case 3:
                    Seek();
                    break;
                case 4:
                    Read();
                    break;
                case 5:
                    Write();
                    break;
                case 6:
                    stream_->ReleasePages();
                    break;
                default:
                    RemoveRange();
                    break;
            }
            Require(stream_->GetPosition() == position_, "the position");
        }
        Compare();
    }

private:
    std::uint64_t Size() const { return content_.size(); }
    void RequirePlace(const PagePosition& found, std::uint64_t position);
    bool IsInside(std::int64_t position) const {
        return position >= 0 && position <= static_cast<std::int64_t>(Size());
    }
    std::int32_t AnyPosition();

    void Find();
    void Move();
    void Seek();
    void Read();
    void Write();
    void RemoveRange();
    void Compare();

    FuzzedDataProvider& input_;
    const LogicalFile& file_;
    IPagedFileSeeker& seeker_;
    Util::RefPtr<PagedFileStream> stream_;

    Bytes content_;
    std::uint64_t position_ = 0;
    std::uint8_t fill_ = 1;
};

void Runner::RequirePlace(const PagePosition& found, std::uint64_t position) {
    Require(found.pageIndex < seeker_.pageCount, "a page of the file");
    seeker_.LoadPageInfo(found.pageIndex);
    const Place place = {seeker_.pageNumbers[found.pageIndex], found.pageOffset};
    Require(place == file_.PlaceOf(position), "a byte's place");
}

// A position in the file or just outside it; sometimes any number.
std::int32_t Runner::AnyPosition() {
    if (input_.ConsumeIntegral<std::uint8_t>() < 16) {
        return input_.ConsumeIntegral<std::int32_t>();
    }
    return static_cast<std::int32_t>(TakeSize(input_, Size() + 2)) - 1;
}

void Runner::Find() {
    const std::int32_t position = AnyPosition();
    PagePosition found = {77, 88};
    const bool inside = seeker_.PositionToPage(found.pageIndex, found.pageOffset, position);
    Require(inside == IsInside(position), "every position inside has a place");
    if (inside) {
        RequirePlace(found, static_cast<std::uint64_t>(position));
    } else {
        Require(found.pageIndex == 0 && found.pageOffset == 0, "a position outside has no place");
    }
}

void Runner::Move() {
    const std::int32_t start = AnyPosition();
    PagePosition from;
    if (!seeker_.PositionToPage(from.pageIndex, from.pageOffset, start)) { return; }
    const std::int32_t distance = Minus(AnyPosition(), input_.ConsumeBool() ? start : 0);
    PagePosition found = {77, 88};
    const bool moved = seeker_.MovePosition(found.pageIndex, found.pageOffset, from,
                                            static_cast<std::uint32_t>(distance));
    const std::int64_t target = std::int64_t{start} + distance;
    Require(moved == IsInside(target), "moved if the target is inside");
    if (moved) { RequirePlace(found, static_cast<std::uint64_t>(target)); }
}

void Runner::Seek() {
    const std::uint32_t origin = input_.ConsumeIntegral<std::uint8_t>() % 4;
    const std::int32_t offset =
        Minus(AnyPosition(), input_.ConsumeBool() ? static_cast<std::int32_t>(Size()) : 0);
    const std::int64_t from = origin == kSeekFromStart ? 0
                              : origin == kSeekFromEnd ? static_cast<std::int64_t>(Size())
                                                       : static_cast<std::int64_t>(position_);
    const bool inside = IsInside(from + offset);
    Require(stream_->Seek(origin, offset) == inside, "a seek inside succeeds");
    if (inside) { position_ = static_cast<std::uint64_t>(from + offset); }
}

void Runner::Read() {
    const std::uint64_t size = TakeSize(input_, Size() + 1);
    const std::uint64_t expected = std::min(size, Size() - position_);
    Bytes buffer(size);
    Require(stream_->Read(buffer.data(), size) == expected, "bytes read");
    Require(std::equal(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(expected),
                       content_.begin() + static_cast<std::ptrdiff_t>(position_)),
            "what was read");
    position_ += expected;
}

void Runner::Write() {
    const std::uint64_t size = TakeSize(input_, Size() + 1);
    const std::uint64_t expected = std::min(size, Size() - position_);
    const Bytes bytes = PatternOf(size, ++fill_);
    Require(stream_->Write(bytes.data(), size) == expected, "bytes written");
    std::copy_n(bytes.begin(), expected, content_.begin() + static_cast<std::ptrdiff_t>(position_));
    position_ += expected;
}

// The bytes after the range move down; the file's last bytes stay as they were.
void Runner::RemoveRange() {
    const std::int32_t position = AnyPosition();
    const std::int32_t length = AnyPosition();
    const bool inside =
        IsInside(position) && length >= 0 && IsInside(std::int64_t{position} + length);
    Require(stream_->RemoveRange(position, length) == inside, "a range inside can be removed");
    if (!inside) { return; }
    Bytes cut = content_;
    cut.erase(cut.begin() + position, cut.begin() + position + length);
    cut.insert(cut.end(), content_.end() - length, content_.end());
    content_ = cut;
    position_ = static_cast<std::uint64_t>(position);
    Compare();
    Require(stream_->Seek(kSeekFromStart, position), "the stream can return to its position");
}

void Runner::Compare() {
    Bytes buffer(Size());
    Require(stream_->Seek(kSeekFromStart, 0), "the file has a start");
    Require(stream_->Read(buffer.data(), buffer.size()) == buffer.size(), "all bytes can be read");
    Require(buffer == content_, "all bytes are as written");
}

}  // namespace

}  // namespace Quorvel::Fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace Quorvel;
    static const Testing::TemporaryDirectory directory;
    static FilePageCache cache(directory.File("pages").c_str(), Fuzz::kCacheCapacity);
    static const bool grown = [] {
        cache.EnsurePageInFile(kHeadPageNumber + Fuzz::kPages - 1);
        return true;
    }();
    static_cast<void>(grown);
    FuzzedDataProvider input(data, size);
    const Fuzz::LogicalFile file =
        input.ConsumeBool() ? Fuzz::TakeChildFile(input) : Fuzz::TakeHeadFile(input, cache);
    if (file.seeker) { Fuzz::Runner(input, cache, file).Run(); }
    cache.DiscardAll();
    return 0;
}
