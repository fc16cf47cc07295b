// The effect cache's main operations for different numbers of effects. The operations called Walk
// visit every effect, and also report effects per second.
#include <benchmark/benchmark.h>

#include "micro/Fixtures.h"
#include "micro/FullCache.h"
#include "support/Random.h"

namespace Quorvel::Benchmarks {

namespace {

void SearchHot(benchmark::State& state) {
    FullCache& full = CacheOf(state.range(0));
    std::vector<std::size_t> hot = ShuffledOrder(full.Count(), 1);
    hot.resize(20);
    Random random(2);
    Tab<unsigned char> found;
    for (auto turn : state) {
        benchmark::DoNotOptimize(
            full.Cache().SearchCachedEffects(full.Name(hot[random.Below(hot.size())]), found));
    }
}
BENCHMARK(SearchHot)->Name("Curve/SearchHot")->ArgsProduct({CurveCounts()});

void SearchRandom(benchmark::State& state) {
    FullCache& full = CacheOf(state.range(0));
    Random random(3);
    Tab<unsigned char> found;
    for (auto turn : state) {
        benchmark::DoNotOptimize(
            full.Cache().SearchCachedEffects(full.Name(random.Below(full.Count())), found));
    }
}
BENCHMARK(SearchRandom)->Name("Curve/SearchRandom")->ArgsProduct({CurveCounts()});

void SearchAbsent(benchmark::State& state) {
    FullCache& full = CacheOf(state.range(0));
    std::vector<std::size_t> hot = ShuffledOrder(full.Count(), 1);
    hot.resize(200);
    Random random(4);
    Tab<unsigned char> found;
    for (auto turn : state) {
        benchmark::DoNotOptimize(full.Cache().SearchCachedEffects(
            full.AbsentName(hot[random.Below(hot.size())]), found));
    }
}
BENCHMARK(SearchAbsent)->Name("Curve/SearchAbsent")->ArgsProduct({CurveCounts()});

// Saves a hundred existing effects again, in file order.
void SaveHundred(benchmark::State& state) {
    FullCache& full = CacheOf(state.range(0));
    std::size_t first = 0;
    for (auto turn : state) {
        state.PauseTiming();
        full.QueueAgain(first, 100);
        first += 100;
        state.ResumeTiming();
        full.Cache().ForceSaveToFile();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(SaveHundred)
    ->Name("Walk/SaveHundred")
    ->ArgsProduct({CurveCounts()})
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);

// Releases the cache, and opens it again, which loads the state and the index.
void IndexLoad(benchmark::State& state) {
    FullCache& full = CacheOf(state.range(0));
    for (auto turn : state) {
        full.Reopen();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(IndexLoad)
    ->Name("Walk/IndexLoad")
    ->ArgsProduct({CurveCounts()})
    ->Unit(benchmark::kMillisecond);

}  // namespace

}  // namespace Quorvel::Benchmarks
