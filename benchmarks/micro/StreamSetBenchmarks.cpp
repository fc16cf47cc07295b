// A package with many streams.
#include <benchmark/benchmark.h>
#include <quorvel/Quorvel.h>

#include <map>
#include <string>
#include <vector>

#include "micro/Fixtures.h"
#include "support/Random.h"

namespace Quorvel::Benchmarks {

namespace {

constexpr std::uint64_t kStreamLimit = 65535;

// From 300 bytes to 4 KiB.
std::uint64_t StreamSize(Random& random) {
    return 300 + random.Below(3796);
}

// A package of that number of streams in a folder of its own.
class FullPackage {
public:
    explicit FullPackage(std::int64_t streams) : path_(directory_.Path() + "/package") {
        package_ = CreateFilePackage(Config());
        Random random(1);
        for (std::int64_t stream = 0; stream < streams; ++stream) {
            ids_.push_back(package_->CreateDataStream(StreamSize(random)));
        }
        package_->Commit();
    }

    IDataStreamSet& Package() { return *package_; }
    std::vector<std::uint64_t>& Ids() { return ids_; }
    PagedFilePackageConfig Config() const { return {path_.c_str(), kCapacity, kStreamLimit}; }
    void Replace(std::uint64_t& id, Random& random) {
        package_->DeleteDataStream(id);
        id = package_->CreateDataStream(StreamSize(random));
    }

private:
    const ScratchDirectory directory_{std::filesystem::temp_directory_path()};
    const std::string path_;
    Util::RefPtr<IDataStreamSet> package_;
    std::vector<std::uint64_t> ids_;
};

// Created once for each number of streams, since that takes longer than most measured operations.
FullPackage& PackageOf(std::int64_t streams) {
    static std::map<std::int64_t, FullPackage> packages;
    return packages.try_emplace(streams, streams).first->second;
}

void StreamOpen(benchmark::State& state) {
    FullPackage& full = PackageOf(state.range(0));
    Random random(2);
    for (auto turn : state) {
        const std::uint64_t id = full.Ids()[random.Below(full.Ids().size())];
        benchmark::DoNotOptimize(full.Package().OpenDataStream(id).Get());
    }
}
BENCHMARK(StreamOpen)->Name("Curve/StreamOpen")->ArgsProduct({CurveCounts()});

void StreamOpenAndRead(benchmark::State& state) {
    FullPackage& full = PackageOf(state.range(0));
    Random random(3);
    char buffer[4096];
    for (auto turn : state) {
        const std::uint64_t id = full.Ids()[random.Below(full.Ids().size())];
        benchmark::DoNotOptimize(full.Package().OpenDataStream(id)->Read(buffer, sizeof buffer));
    }
}
BENCHMARK(StreamOpenAndRead)->Name("Curve/StreamOpenAndRead")->ArgsProduct({CurveCounts()});

// Deletes a stream and creates another.
void StreamReplace(benchmark::State& state) {
    FullPackage& full = PackageOf(state.range(0));
    Random random(4);
    for (auto turn : state) {
        full.Replace(full.Ids()[random.Below(full.Ids().size())], random);
    }
    full.Package().Commit();
}
BENCHMARK(StreamReplace)->Name("Curve/StreamReplace")->ArgsProduct({CurveCounts()});

void StreamIdByIndex(benchmark::State& state) {
    FullPackage& full = PackageOf(state.range(0));
    Random random(5);
    for (auto turn : state) {
        benchmark::DoNotOptimize(full.Package().GetDataStreamId(random.Below(full.Ids().size())));
    }
}
BENCHMARK(StreamIdByIndex)->Name("Curve/StreamIdByIndex")->ArgsProduct({CurveCounts()});

// Creates that number of streams in an empty package.
void StreamCreate(benchmark::State& state) {
    for (auto turn : state) {
        const FullPackage full(state.range(0));
        benchmark::DoNotOptimize(&full);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(StreamCreate)
    ->Name("Walk/StreamCreate")
    ->ArgsProduct({CurveCounts()})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

// PackageCommit writes the state of the whole package, and PackageLoad reads it.
void PackageCommit(benchmark::State& state) {
    FullPackage& full = PackageOf(state.range(0));
    for (auto turn : state) {
        full.Package().SetHeaderDataSize(8);
        full.Package().Commit();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(PackageCommit)
    ->Name("Walk/PackageCommit")
    ->ArgsProduct({CurveCounts()})
    ->Unit(benchmark::kMillisecond);

void PackageLoad(benchmark::State& state) {
    FullPackage& full = PackageOf(state.range(0));
    full.Package().Commit();
    for (auto turn : state) {
        benchmark::DoNotOptimize(full.Package().Load());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(PackageLoad)
    ->Name("Walk/PackageLoad")
    ->ArgsProduct({CurveCounts()})
    ->Unit(benchmark::kMillisecond);

}  // namespace

}  // namespace Quorvel::Benchmarks
