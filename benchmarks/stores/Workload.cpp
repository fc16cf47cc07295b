#include "stores/Workload.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <list>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "stores/Agents.h"
#include "stores/StopFlag.h"
#include "support/ChildProcess.h"
#include "support/Random.h"
#include "support/ScratchDirectory.h"
#include "support/TracedProcess.h"

namespace Quorvel::Benchmarks {

namespace {

constexpr std::size_t kHotSearches = 20000;
constexpr std::size_t kAbsentNames = 200;
constexpr std::size_t kAbsentSearches = 20000;
constexpr std::size_t kSavesSeen = 7;             // saves for one sample of AfterSave
constexpr std::size_t kEffectsInSave = 20;        // effects in each of these saves
constexpr std::size_t kSavedBesideSearch = 4000;  // about five batches
constexpr int kSearchers = 4;
constexpr double kMillisecond = 1e6;  // nanoseconds

// Different orders from one seed.
enum SeedOffset : std::uint64_t { kSaveSeed = 101, kSearchSeed, kHotSeed, kDrawSeed };

[[noreturn]] void Fail(const std::string& what) {
    throw std::runtime_error(what);
}

// The folder of a store. A store with a file per effect keeps its folder until the program ends:
// ext4 skips recently freed inodes, so after tens of thousands of removals a new file costs ten
// times as much.
std::shared_ptr<const ScratchDirectory> MakeFolder(const StoreKind& kind,
                                                   const std::string& parent) {
    static std::vector<std::shared_ptr<const ScratchDirectory>> kept;
    auto folder = std::make_shared<const ScratchDirectory>(parent);
    if (kind.hasFilePerEffect) { kept.push_back(folder); }
    return folder;
}

// Compares only the first and last bytes: comparing all of them would take longer than the search.
void CheckBriefly(const Effect& effect,
                  const std::optional<std::span<const unsigned char>>& found) {
    if (!found || found->size() != effect.bytes.size() || found->front() != effect.bytes.front() ||
        found->back() != effect.bytes.back()) {
        Fail(std::string("not found as it was saved: ") + effect.name.data());
    }
}

// The words of an agent's answer as numbers. Throws std::runtime_error when there are fewer than
// count.
std::vector<double> NumbersIn(const std::string& line, std::size_t count) {
    std::istringstream words(line);
    std::vector<double> numbers{std::istream_iterator<double>(words), {}};
    if (numbers.size() < count) { Fail("an agent failed: " + line); }
    return numbers;
}

}  // namespace

const std::vector<FigureDescription>& Figures() {
    static const std::vector<FigureDescription> figures = {
        {Figure::Save, "save_ns", "save", 0},
        {Figure::Open, "open_ms", "open ms", 2},
        {Figure::AllOnce, "all_once_ns", "all once", 0},
        {Figure::Hot20, "hot_20_ns", "20 hot", 0},
        {Figure::Hot200, "hot_200_ns", "200 hot", 0},
        {Figure::Absent, "absent_ns", "absent", 0},
        {Figure::AbsentOnce, "absent_once_ns", "absent once", 0},
        {Figure::AfterSave, "after_save_ms", "after save ms", 3},
        {Figure::SearchBesideSave, "search_beside_save_ns", "4 search", 0},
        {Figure::SaveBesideSearch, "save_beside_search_ns", "1 saves", 0},
        {Figure::DiskRatio, "disk_ratio", "disk", 2},
        {Figure::SavePeak, "save_peak_bytes", "save peak", 0},
        {Figure::SaveHeapPeak, "save_heap_peak_bytes", "its heap part", 0},
        {Figure::SearchPeak, "search_peak_bytes", "search peak", 0},
        {Figure::SearchHeapPeak, "search_heap_peak_bytes", "its heap part", 0},
        {Figure::SaveCalls, "save_calls", "save", 2},
        {Figure::AllOnceCalls, "all_once_calls", "all once", 2},
        {Figure::Hot20Calls, "hot_20_calls", "20 hot", 2},
        {Figure::AbsentCalls, "absent_calls", "absent", 2},
    };
    return figures;
}

Workload::Workload(const WorkloadOptions& options, std::size_t count)
    : options_(options),
      source_(options.effects, options.seed),
      effects_(source_.Make(0, count)),
      bytes_(TotalBytes(effects_)),
      saveOrder_(ShuffledOrder(count, options.seed + kSaveSeed)),
      searchOrder_(ShuffledOrder(count, options.seed + kSearchSeed)) {
    absentNames_.reserve(count);
    for (const Effect& effect : effects_) {
        absentNames_.push_back(effect.name);
        absentNames_.back()[effect.name.Length() - 1] = '~';
    }
}

std::uint64_t Workload::NameBytes() const {
    std::uint64_t bytes = 0;
    for (const Effect& effect : effects_) {
        bytes += effect.name.Length();
    }
    return bytes;
}

// ---- The steps ----------------------------------------------------------------------------------

void Workload::SaveAll(Store& store) const {
    for (const std::size_t number : saveOrder_) {
        store.Save(effects_[number]);
    }
    store.Flush();
}

void Workload::FindAll(Store& store) const {
    for (const std::size_t number : searchOrder_) {
        const Effect& effect = effects_[number];
        const auto found = store.Find(effect.name);
        if (!found ||
            !std::equal(found->begin(), found->end(), effect.bytes.begin(), effect.bytes.end())) {
            Fail(std::string("not found as it was saved: ") + effect.name.data());
        }
    }
}

void Workload::FindOne(Store& store, std::size_t number) const {
    const Effect& effect = effects_[number];
    CheckBriefly(effect, store.Find(effect.name));
}

void Workload::FindDraws(Store& store, const std::vector<std::size_t>& draws) const {
    for (const std::size_t number : draws) {
        FindOne(store, number);
    }
}

void Workload::FindHot20(Store& store, std::size_t searches) const {
    std::vector<std::size_t> hot = ShuffledOrder(effects_.size(), options_.seed + kHotSeed);
    hot.resize(std::min<std::size_t>(hot.size(), 20));
    FindDraws(store, RandomDraws(hot, searches, options_.seed + kDrawSeed));
}

void Workload::FindAbsent(Store& store, std::size_t searches, std::size_t names) const {
    names = std::min(names, searchOrder_.size());
    for (std::size_t search = 0; search < searches; ++search) {
        if (store.Find(absentNames_[searchOrder_[search % names]])) {
            Fail("found an effect that was never saved");
        }
    }
}

// ---- Timing -------------------------------------------------------------------------------------

void Workload::RunRound(const StoreKind& kind, Samples& samples) const {
    const auto folder = MakeFolder(kind, options_.directory);
    const std::string& directory = folder->Path();
    const auto count = static_cast<double>(effects_.size());
    {
        std::unique_ptr<Store> store = kind.open(directory);
        const Stopwatch watch(options_.clock);
        SaveAll(*store);
        store.reset();
        samples[Figure::Save].push_back(watch.Nanoseconds() / count);
    }
    samples[Figure::DiskRatio].push_back(static_cast<double>(BytesOnDisk(directory)) /
                                         static_cast<double>(bytes_));
    {
        const Stopwatch opening(options_.clock);
        const std::unique_ptr<Store> store = kind.open(directory);
        samples[Figure::Open].push_back(opening.Nanoseconds() / kMillisecond);

        const Stopwatch searching(options_.clock);
        FindAll(*store);
        samples[Figure::AllOnce].push_back(searching.Nanoseconds() / count);

        TimeHot(*store, 20, samples[Figure::Hot20]);
        TimeHot(*store, 200, samples[Figure::Hot200]);

        FindAbsent(*store, kAbsentNames, kAbsentNames);
        const Stopwatch missing(options_.clock);
        FindAbsent(*store, kAbsentSearches, kAbsentNames);
        samples[Figure::Absent].push_back(missing.Nanoseconds() / kAbsentSearches);

        const Stopwatch missingOnce(options_.clock);
        FindAbsent(*store, effects_.size(), effects_.size());
        samples[Figure::AbsentOnce].push_back(missingOnce.Nanoseconds() / count);
    }
    if (options_.withProcesses) {
        TimeAfterSave(kind, directory, samples[Figure::AfterSave]);
        if (kind.sharing != Sharing::OneProcessOnly) { TimeBeside(kind, directory, samples); }
    }
}

// The first pass, which brings the effects into the store's memory, is not timed.
void Workload::TimeHot(Store& store, std::size_t hotCount, std::vector<double>& samples) const {
    std::vector<std::size_t> hot = ShuffledOrder(effects_.size(), options_.seed + kHotSeed);
    hot.resize(std::min(hot.size(), hotCount));
    const std::vector<std::size_t> draws =
        RandomDraws(hot, kHotSearches, options_.seed + kDrawSeed);
    FindDraws(store, hot);
    const Stopwatch watch(options_.clock);
    FindDraws(store, draws);
    samples.push_back(watch.Nanoseconds() / kHotSearches);
}

// Another process saves a few effects at a time, and the first search after each save is timed. If
// only one process can have the store open, the time includes opening it.
void Workload::TimeAfterSave(const StoreKind& kind, const std::string& directory,
                             std::vector<double>& samples) const {
    Testing::ChildProcess saver(
        kSaverAgent, AgentArguments(kind, directory, effects_.size(), kSavesSeen * kEffectsInSave));
    NumbersIn(saver.Receive(), 1);
    const bool isShared = kind.sharing != Sharing::OneProcessOnly;
    std::unique_ptr<Store> store;
    if (isShared) {
        store = kind.openReader(directory);
        FindOne(*store, searchOrder_[0]);
    }
    std::vector<double> times;
    for (std::size_t save = 0; save < kSavesSeen; ++save) {
        NumbersIn(saver.Ask(std::to_string(kEffectsInSave)), 1);
        const Stopwatch watch;
        if (!isShared) { store = kind.open(directory); }
        FindOne(*store, searchOrder_[save % searchOrder_.size()]);
        times.push_back(watch.Nanoseconds() / kMillisecond);
        if (!isShared) { store.reset(); }
    }
    saver.Wait();
    samples.push_back(Median(times));
}

// Four processes search at random until a fifth one has saved its effects.
void Workload::TimeBeside(const StoreKind& kind, const std::string& directory,
                          Samples& samples) const {
    const ScratchDirectory flagDirectory(options_.directory);
    const std::string flagPath = flagDirectory.Path() + "/stop";
    StopFlag stop(flagPath);
    const std::size_t firstNew = effects_.size() + kSavesSeen * kEffectsInSave;
    Testing::ChildProcess saver(kSaverAgent,
                                AgentArguments(kind, directory, firstNew, kSavedBesideSearch));
    NumbersIn(saver.Receive(), 1);
    std::list<Testing::ChildProcess> searchers;
    for (int index = 0; index < kSearchers; ++index) {
        std::vector<std::string> arguments = AgentArguments(kind, directory, 0, effects_.size());
        arguments.push_back(flagPath);
        arguments.push_back(std::to_string(index));
        searchers.emplace_back(kSearcherAgent, arguments);
    }
    for (Testing::ChildProcess& searcher : searchers) {
        NumbersIn(searcher.Receive(), 1);
    }
    for (Testing::ChildProcess& searcher : searchers) {
        searcher.Send("go");
    }
    const double saving = NumbersIn(saver.Ask(std::to_string(kSavedBesideSearch)), 1)[0];
    stop.Raise();
    double searching = 0;
    double searches = 0;
    for (Testing::ChildProcess& searcher : searchers) {
        const std::vector<double> answer = NumbersIn(searcher.Receive(), 2);
        searches += answer[0];
        searching += answer[1];
        searcher.Wait();  // until it has closed the store
    }
    saver.Wait();
    samples[Figure::SaveBesideSearch].push_back(saving / kSavedBesideSearch);
    samples[Figure::SearchBesideSave].push_back(searching / searches);
}

// ---- Memory and system calls --------------------------------------------------------------------

std::vector<std::string> Workload::AgentArguments(const StoreKind& kind,
                                                  const std::string& directory, std::size_t first,
                                                  std::size_t count) const {
    return {kind.name,
            directory,
            options_.effects,
            std::to_string(options_.seed),
            std::to_string(first),
            std::to_string(count)};
}

void Workload::RunOnce(const StoreKind& kind, Samples& samples) const {
    if (options_.withMemory) { MeasureMemory(kind, samples); }
    if (options_.withCalls) { CountCalls(kind, samples); }
}

// Saves in one process and searches in another, so that their memory is measured separately.
void Workload::MeasureMemory(const StoreKind& kind, Samples& samples) const {
    const auto folder = MakeFolder(kind, options_.directory);
    const std::string& directory = folder->Path();
    const auto measure = [&](const char* agent, Figure all, Figure heap) {
        Testing::ChildProcess process(agent, AgentArguments(kind, directory, 0, effects_.size()));
        const std::vector<double> answer = NumbersIn(process.Receive(), 2);
        const auto count = static_cast<double>(effects_.size());
        samples[all].push_back(answer[0] / count);
        samples[heap].push_back(answer[1] / count);
    };
    measure(kSaveMemoryAgent, Figure::SavePeak, Figure::SaveHeapPeak);
    measure(kSearchMemoryAgent, Figure::SearchPeak, Figure::SearchHeapPeak);
}

void Workload::CountCalls(const StoreKind& kind, Samples& samples) const {
    const auto folder = MakeFolder(kind, options_.directory);
    const std::string& directory = folder->Path();
    std::map<std::uint16_t, double> counts;
    std::uint16_t phase = 0;
    try {
        const int exitCode = Trace(
            kCallsAgent, AgentArguments(kind, directory, 0, effects_.size()),
            [&](const SystemCall&) { ++counts[phase]; }, [&](std::uint16_t mark) { phase = mark; });
        if (exitCode != 0) { Fail("the traced process failed"); }
    } catch (const std::system_error&) {
        return;  // without ptrace there are no figures
    }
    const auto count = static_cast<double>(effects_.size());
    samples[Figure::SaveCalls].push_back(counts[kSavePhase] / count);
    samples[Figure::AllOnceCalls].push_back(counts[kAllOncePhase] / count);
    samples[Figure::Hot20Calls].push_back(counts[kHot20Phase] / kTracedSearches);
    samples[Figure::AbsentCalls].push_back(counts[kAbsentPhase] / kTracedSearches);
}

}  // namespace Quorvel::Benchmarks
