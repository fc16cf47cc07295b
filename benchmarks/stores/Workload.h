#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "stores/Store.h"
#include "support/EffectSource.h"
#include "support/Statistics.h"

namespace Quorvel::Benchmarks {

// What is measured. Times are nanoseconds per effect, except where stated.
enum class Figure {
    Save,              // in random order into an empty store, including closing it
    Open,              // opening the full store; milliseconds
    AllOnce,           // every effect searched once, in random order, all bytes compared
    Hot20,             // repeated searches for 20 effects
    Hot200,            // repeated searches for 200 effects
    Absent,            // repeated searches for 200 names that no effect has
    AbsentOnce,        // one search for each of count absent names, in random order
    AfterSave,         // the first search after another process saved; milliseconds
    SearchBesideSave,  // in each of four processes while a fifth one saves
    SaveBesideSearch,  // in that fifth one
    DiskRatio,         // bytes on the volume per byte of effects
    SavePeak,          // peak growth of memory while all effects are saved; bytes per effect
    SearchPeak,        // the same while the store is opened and all effects are searched
    SaveHeapPeak,      // the part of these that is not a mapped file
    SearchHeapPeak,
    SaveCalls,  // system calls per effect
    AllOnceCalls,
    Hot20Calls,
    AbsentCalls,
};

struct FigureDescription {
    Figure figure;
    const char* name;   // in the results
    const char* title;  // in the table
    int digits;         // after the decimal point
};
const std::vector<FigureDescription>& Figures();

// The samples of one store, one for each round.
using Samples = std::map<Figure, std::vector<double>>;

struct WorkloadOptions {
    std::string effects;  // path of an EffectSource, empty for made-up ones
    std::uint64_t seed = 1;
    std::string directory;      // where the stores are created
    Clock clock = Clock::Wall;  // for measurements of a single process
    bool withProcesses = true;
    bool withMemory = true;
    bool withCalls = true;
};

// The same work for every store: count effects, and the orders of saving and searching them.
class Workload {
public:
    Workload(const WorkloadOptions& options, std::size_t count);

    // Sums over all effects.
    std::uint64_t EffectBytes() const { return bytes_; }
    std::uint64_t NameBytes() const;

    // One round of all timings of one store. Throws std::runtime_error when the store does not find
    // an effect that was saved.
    void RunRound(const StoreKind& kind, Samples& samples) const;

    // Measures memory and system calls, each in a process of its own. Called once per store.
    void RunOnce(const StoreKind& kind, Samples& samples) const;

    // The steps, which the agents use too.
    void SaveAll(Store& store) const;
    void FindAll(Store& store) const;
    void FindHot20(Store& store, std::size_t searches) const;
    void FindAbsent(Store& store, std::size_t searches, std::size_t names) const;
    void FindOne(Store& store, std::size_t number) const;
    std::size_t Count() const { return effects_.size(); }

private:
    std::vector<std::string> AgentArguments(const StoreKind& kind, const std::string& directory,
                                            std::size_t first, std::size_t count) const;
    void FindDraws(Store& store, const std::vector<std::size_t>& draws) const;
    void TimeHot(Store& store, std::size_t hotCount, std::vector<double>& samples) const;
    void TimeAfterSave(const StoreKind& kind, const std::string& directory,
                       std::vector<double>& samples) const;
    void TimeBeside(const StoreKind& kind, const std::string& directory, Samples& samples) const;
    void MeasureMemory(const StoreKind& kind, Samples& samples) const;
    void CountCalls(const StoreKind& kind, Samples& samples) const;

    WorkloadOptions options_;
    EffectSource source_;
    std::vector<Effect> effects_;
    std::uint64_t bytes_;
    std::vector<std::size_t> saveOrder_;
    std::vector<std::size_t> searchOrder_;
    std::vector<CStr> absentNames_;
};

}  // namespace Quorvel::Benchmarks
