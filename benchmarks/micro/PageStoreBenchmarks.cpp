// Page cache, page allocator, streams.
#include <benchmark/benchmark.h>

#include "micro/Fixtures.h"
#include "pagestore/FilePageCache.h"
#include "pagestore/PageAllocator.h"
#include "pagestore/PagedFileStream.h"
#include "seekers/ChildFileSeeker.h"
#include "support/Random.h"

namespace Quorvel::Benchmarks {

namespace {

constexpr std::uint64_t kPages = 4096;

// ---- Page cache ---------------------------------------------------------------------------------

void PageCacheHit(benchmark::State& state) {
    const PageFile file(kPages);
    FilePageCache cache(file.Path(), kCapacity);
    std::uint64_t page = 0;
    for (auto turn : state) {
        const std::uint64_t number = kHeadPageNumber + page;
        benchmark::DoNotOptimize(cache.GetPageForRead(number));
        cache.ReleasePageForRead(number);
        page = (page + 1) % kCapacity;
    }
    cache.DiscardAll();
}
BENCHMARK(PageCacheHit);

// A page that is not in the cache: one page is written back, one is read.
void PageCacheMiss(benchmark::State& state) {
    const PageFile file(kPages);
    FilePageCache cache(file.Path(), kCapacity);
    Random random(1);
    for (auto turn : state) {
        const std::uint64_t number = kHeadPageNumber + random.Below(kPages);
        benchmark::DoNotOptimize(cache.GetPageForRead(number));
        cache.ReleasePageForRead(number);
    }
    cache.DiscardAll();
}
BENCHMARK(PageCacheMiss);

// A page past the end of the file: the file grows, one page is written back, one is read.
void PageCacheGrow(benchmark::State& state) {
    const PageFile file(0);
    FilePageCache cache(file.Path(), kCapacity);
    std::uint64_t page = 0;
    for (auto turn : state) {
        benchmark::DoNotOptimize(cache.GetPageForWrite(kHeadPageNumber + page));
        cache.ReleasePageForWrite(kHeadPageNumber + page);
        ++page;
    }
    cache.DiscardAll();
}
BENCHMARK(PageCacheGrow)->Iterations(20000);

// ---- Page allocator -----------------------------------------------------------------------------

// Frees and allocates a page in a chain of that number of pages.
void AllocatorReuse(benchmark::State& state) {
    PageAllocator allocator;
    std::vector<std::uint64_t> pages;
    std::uint64_t last = 0;
    for (std::int64_t page = 0; page < state.range(0); ++page) {
        pages.push_back(last = allocator.AllocatePage(last));
    }
    Random random(1);
    for (auto turn : state) {
        const std::uint64_t page = pages[random.Below(pages.size())];
        allocator.FreePage(page);
        benchmark::DoNotOptimize(allocator.AllocatePage(0));
    }
}
BENCHMARK(AllocatorReuse)->Name("Curve/AllocatorReuse")->ArgsProduct({CurveCounts()});

void AllocatorExtend(benchmark::State& state) {
    Util::RefPtr<PageAllocator> allocator(new PageAllocator);
    std::uint64_t last = 0;
    for (auto turn : state) {
        last = allocator->AllocatePage(last);
        if (last + 1 >= kPageNumberLimit) {
            allocator->Clear();
            last = 0;
        }
    }
}
BENCHMARK(AllocatorExtend);

// ---- Streams ------------------------------------------------------------------------------------

class StreamFixture {
public:
    explicit StreamFixture(std::uint64_t pages)
        : file_(pages), cache_(file_.Path(), kCapacity), allocator_(new PageAllocator) {
        std::uint64_t first = 0;
        std::uint64_t last = 0;
        for (std::uint64_t page = 0; page < pages; ++page) {
            last = allocator_->AllocatePage(last);
            first = first == 0 ? last : first;
        }
        const Util::RefPtr<ChildFileSeeker> seeker(new ChildFileSeeker);
        seeker->Attach(allocator_, {0, pages * kPageSize, first, pages}, {});
        stream_ = Util::RefPtr<PagedFileStream>(new PagedFileStream(&cache_, seeker));
    }
    ~StreamFixture() {
        stream_.Reset();
        cache_.DiscardAll();
    }

    PagedFileStream& Stream() { return *stream_; }

private:
    PageFile file_;
    FilePageCache cache_;
    Util::RefPtr<IPageAllocator> allocator_;
    Util::RefPtr<PagedFileStream> stream_;
};

// Reads a number of bytes at a time from pages that are all in memory.
void StreamRead(benchmark::State& state) {
    StreamFixture fixture(kCapacity / 2);
    std::vector<char> buffer(static_cast<std::size_t>(state.range(0)));
    for (auto turn : state) {
        if (fixture.Stream().Read(buffer.data(), buffer.size()) != buffer.size()) {
            fixture.Stream().Seek(kSeekFromStart, 0);
        }
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(StreamRead)->Arg(8)->Arg(44)->Arg(2048)->Arg(65536);

void StreamWrite(benchmark::State& state) {
    StreamFixture fixture(kCapacity / 2);
    const std::vector<char> buffer(static_cast<std::size_t>(state.range(0)));
    for (auto turn : state) {
        if (fixture.Stream().Write(buffer.data(), buffer.size()) != buffer.size()) {
            fixture.Stream().Seek(kSeekFromStart, 0);
        }
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(StreamWrite)->Arg(8)->Arg(44)->Arg(2048)->Arg(65536);

void StreamSeek(benchmark::State& state) {
    StreamFixture fixture(kCapacity / 2);
    Random random(1);
    for (auto turn : state) {
        benchmark::DoNotOptimize(fixture.Stream().Seek(
            kSeekFromStart, static_cast<std::int32_t>(random.Below(kCapacity / 2 * kPageSize))));
    }
}
BENCHMARK(StreamSeek);

}  // namespace

}  // namespace Quorvel::Benchmarks
