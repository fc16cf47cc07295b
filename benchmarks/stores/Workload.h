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

// What is measured. Times are nanoseconds an effect, except where stated.
enum class Figure {
    Save,              // in random order into an empty store, until the store's object has gone
    Open,              // of the full store in a new object; milliseconds
    AllOnce,           // every effect searched once, in random order, all bytes compared
    Hot20,             // searches for 20 effects, over and over
    Hot200,            // searches for 200 effects, over and over
    Absent,            // searches for 200 names that no effect has, over and over
    AbsentOnce,        // as many such names as there are effects, each once, in random order
    AfterSave,         // the first search after another process saved; milliseconds
    SearchBesideSave,  // in each of four processes while a fifth one saves
    SaveBesideSearch,  // in that fifth one
    DiskRatio,         // bytes on the volume for a byte of effects
    SavePeak,          // most memory while all is saved, over what the process had; bytes an effect
    SearchPeak,        // the same while the store is opened and all is searched
    SaveHeapPeak,      // what of these is not a file mapped into memory
    SearchHeapPeak,
    SaveCalls,  // system calls an effect
    AllOnceCalls,
    Hot20Calls,
    AbsentCalls,
};

struct FigureDescription {
    Figure figure;
    const char* name;   // in the results
    const char* title;  // in the table
    int digits;         // behind the point
};
const std::vector<FigureDescription>& Figures();

// The samples of one store, one for each round.
using Samples = std::map<Figure, std::vector<double>>;

struct WorkloadOptions {
    std::string effects;  // path of an EffectSource, empty for made-up ones
    std::uint64_t seed = 1;
    std::string directory;      // where the stores are put
    Clock clock = Clock::Wall;  // for what one process does alone
    bool withProcesses = true;
    bool withMemory = true;
    bool withCalls = true;
};

// The same work for every store, in the same order: so many effects, and the orders in which they
// are saved and searched.
class Workload {
public:
    Workload(const WorkloadOptions& options, std::size_t count);

    // Sums over all effects.
    std::uint64_t EffectBytes() const { return bytes_; }
    std::uint64_t NameBytes() const;

    // One round of one store: all that is timed. Throws std::runtime_error when the store does not
    // find what it was given.
    void RunRound(const StoreKind& kind, Samples& samples) const;

    // Memory and system calls, each in a process of its own; once a store.
    void RunOnce(const StoreKind& kind, Samples& samples) const;

    // The steps, for other processes.
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
