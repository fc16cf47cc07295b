// The seekers of child files and of the head file.
#include <benchmark/benchmark.h>

#include "micro/Fixtures.h"
#include "pagestore/FilePageCache.h"
#include "pagestore/PageAllocator.h"
#include "seekers/ChildFileSeeker.h"
#include "seekers/HeadFileSeeker.h"
#include "seekers/HeadFileWriteOnlySeeker.h"
#include "support/Random.h"

namespace Quorvel::Benchmarks {

namespace {

// Opens a stream of that number of whole pages and a tail, with a new seeker each time.
void ChildSeekerAttach(benchmark::State& state) {
    const auto pages = static_cast<std::uint64_t>(state.range(0));
    const Util::RefPtr<IPageAllocator> allocator(new PageAllocator);
    std::uint64_t first = 0;
    std::uint64_t last = 0;
    for (std::uint64_t page = 0; page < pages; ++page) {
        last = allocator->AllocatePage(last);
        first = first == 0 ? last : first;
    }
    const std::uint64_t tailPage = allocator->AllocatePage(0);
    for (auto turn : state) {
        const Util::RefPtr<ChildFileSeeker> seeker(new ChildFileSeeker);
        seeker->Attach(allocator, {1, pages * kPageSize + 2000, first, pages},
                       {tailPage, 0, 100, 2000});
        benchmark::DoNotOptimize(seeker->pageCount);
    }
}
BENCHMARK(ChildSeekerAttach)->Arg(0)->Arg(1)->Arg(128);

void ChildSeekerPosition(benchmark::State& state) {
    constexpr std::uint64_t kPages = 128;
    const Util::RefPtr<IPageAllocator> allocator(new PageAllocator);
    std::uint64_t first = 0;
    std::uint64_t last = 0;
    for (std::uint64_t page = 0; page < kPages; ++page) {
        last = allocator->AllocatePage(last);
        first = first == 0 ? last : first;
    }
    const Util::RefPtr<ChildFileSeeker> seeker(new ChildFileSeeker);
    seeker->Attach(allocator, {1, kPages * kPageSize, first, kPages}, {});
    Random random(1);
    std::uint64_t index = 0;
    std::uint64_t offset = 0;
    for (auto turn : state) {
        benchmark::DoNotOptimize(seeker->PositionToPage(
            index, offset, static_cast<std::int32_t>(random.Below(kPages * kPageSize))));
    }
}
BENCHMARK(ChildSeekerPosition);

// A head file of that number of pages. All headers are written, or read and checked.
class HeadFile {
public:
    explicit HeadFile(std::uint64_t pages) : file_(pages), cache_(file_.Path(), kCapacity) {
        for (std::uint64_t page = 0; page < pages; ++page) {
            numbers_.push_back(kHeadPageNumber + page);
            next_.push_back(page + 1 < pages ? kHeadPageNumber + page + 1 : 0);
        }
        Write();
    }
    ~HeadFile() { cache_.DiscardAll(); }

    void Write() {
        const Util::RefPtr<HeadFileWriteOnlySeeker> seeker(new HeadFileWriteOnlySeeker(&cache_));
        const std::uint64_t pages = numbers_.size();
        seeker->CreateHeadFile(numbers_.data(), next_.data(), pages,
                               kFirstPageCapacity + (pages - 1) * kPageCapacity);
        seeker->LoadPageInfo(pages - 1);
    }

    void Read() {
        const Util::RefPtr<HeadFileSeeker> seeker(new HeadFileSeeker(&cache_));
        seeker->OpenHeadFile();
        seeker->LoadPageInfo(numbers_.size() - 1);
    }

private:
    PageFile file_;
    FilePageCache cache_;
    std::vector<std::uint64_t> numbers_;
    std::vector<std::uint64_t> next_;
};

void HeadSeekerRead(benchmark::State& state) {
    HeadFile file(static_cast<std::uint64_t>(state.range(0)));
    for (auto turn : state) {
        file.Read();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(HeadSeekerRead)->Arg(32)->Arg(512);

void HeadSeekerWrite(benchmark::State& state) {
    HeadFile file(static_cast<std::uint64_t>(state.range(0)));
    for (auto turn : state) {
        file.Write();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(HeadSeekerWrite)->Arg(32)->Arg(512);

}  // namespace

}  // namespace Quorvel::Benchmarks
