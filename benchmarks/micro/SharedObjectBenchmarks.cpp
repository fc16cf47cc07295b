// The objects that processes share, used by one process: the named mutex and the time stamp.
#include <benchmark/benchmark.h>
#include <quorvel/Quorvel.h>

#include <string>

#include "platform/Clock.h"
#include "platform/Process.h"

namespace Quorvel::Benchmarks {

namespace {

std::string OwnName(const char* what) {
    return "quorvel_bench_" + std::to_string(Platform::CurrentProcessId()) + what;
}

void MutexRoundTrip(benchmark::State& state) {
    MutexObject mutex(OwnName("_mutex").c_str());
    for (auto turn : state) {
        const AutoMutex guard(mutex, kWaitForever);
        benchmark::DoNotOptimize(guard.WaitResult());
    }
}
BENCHMARK(MutexRoundTrip);

// A second acquisition by the thread that owns the mutex.
void MutexRecursiveRoundTrip(benchmark::State& state) {
    MutexObject mutex(OwnName("_recursive").c_str());
    const AutoMutex outer(mutex, kWaitForever);
    for (auto turn : state) {
        const AutoMutex guard(mutex, kWaitForever);
        benchmark::DoNotOptimize(guard.WaitResult());
    }
}
BENCHMARK(MutexRecursiveRoundTrip);

void MutexOpenAndClose(benchmark::State& state) {
    const std::string name = OwnName("_opened");
    for (auto turn : state) {
        const MutexObject mutex(name.c_str());
        benchmark::DoNotOptimize(&mutex);
    }
}
BENCHMARK(MutexOpenAndClose);

void TimeStampCompare(benchmark::State& state) {
    MultiProcessTimeStamp stamp;
    stamp.Initialize(OwnName("_stamp").c_str());
    for (auto turn : state) {
        benchmark::DoNotOptimize(stamp.IsChanged());
    }
}
BENCHMARK(TimeStampCompare);

void TimeStampUpdate(benchmark::State& state) {
    MultiProcessTimeStamp stamp;
    stamp.Initialize(OwnName("_updated").c_str());
    for (auto turn : state) {
        stamp.UpdateTimeStamp();
    }
}
BENCHMARK(TimeStampUpdate);

void LocalTimeOfDay(benchmark::State& state) {
    for (auto turn : state) {
        benchmark::DoNotOptimize(Platform::CurrentLocalTime());
    }
}
BENCHMARK(LocalTimeOfDay);

}  // namespace

}  // namespace Quorvel::Benchmarks
