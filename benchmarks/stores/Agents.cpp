#include "stores/Agents.h"

#include <string>
#include <vector>

#include "stores/Memory.h"
#include "stores/StopFlag.h"
#include "stores/Store.h"
#include "stores/Workload.h"
#include "support/Agent.h"
#include "support/Random.h"
#include "support/Statistics.h"
#include "support/TracedProcess.h"

namespace Quorvel::Benchmarks {

namespace {

using Testing::AgentReceive;
using Testing::AgentSend;

constexpr std::size_t kSearchesBetweenLooks = 8;
constexpr std::size_t kEffectsBetweenSamples = 100;

struct Task {
    explicit Task(const std::vector<std::string>& arguments)
        : kind(FindStoreKind(arguments[0])),
          directory(arguments[1]),
          first(std::stoull(arguments[4])),
          count(std::stoull(arguments[5])) {
        options.effects = arguments[2];
        options.seed = std::stoull(arguments[3]);
    }

    const StoreKind& kind;
    std::string directory;
    WorkloadOptions options;
    std::size_t first;
    std::size_t count;
};

// Forwards every call, and samples the memory now and then.
class SampledStore : public Store {
public:
    SampledStore(std::unique_ptr<Store> store, MemoryPeak& peak)
        : store_(std::move(store)), peak_(peak) {}

    void Save(const Effect& effect) override {
        store_->Save(effect);
        Count();
    }
    void Flush() override { store_->Flush(); }
    std::optional<std::span<const unsigned char>> Find(const CStr& name) override {
        Count();
        return store_->Find(name);
    }

private:
    void Count() {
        if (++calls_ % kEffectsBetweenSamples == 0) { peak_.Sample(); }
    }

    std::unique_ptr<Store> store_;
    MemoryPeak& peak_;
    std::size_t calls_ = 0;
};

void SendPeak(MemoryPeak& peak) {
    const ResidentMemory most = peak.Peak();
    AgentSend(std::to_string(most.all) + ' ' + std::to_string(most.heap));
}

QUORVEL_AGENT(Saver) {
    const Task task(arguments);
    const std::vector<Effect> effects =
        EffectSource(task.options.effects, task.options.seed).Make(task.first, task.count);
    const bool isShared = task.kind.sharing != Sharing::OneProcessOnly;
    std::unique_ptr<Store> store;
    if (isShared) { store = task.kind.open(task.directory); }
    AgentSend("0");
    std::size_t next = 0;
    for (std::string line = AgentReceive(); !line.empty(); line = AgentReceive()) {
        const std::size_t end = next + std::stoull(line);
        if (!isShared) { store = task.kind.open(task.directory); }
        const Stopwatch watch;
        for (; next < end; ++next) {
            store->Save(effects.at(next));
        }
        store->Flush();
        const double time = watch.Nanoseconds();
        if (!isShared) { store.reset(); }
        AgentSend(std::to_string(time));
    }
    return 0;
}

QUORVEL_AGENT(Searcher) {
    const Task task(arguments);
    const StopFlag stop(arguments[6]);
    Random random(task.options.seed + std::stoull(arguments[7]));
    const Workload workload(task.options, task.count);
    const std::unique_ptr<Store> store = task.kind.openReader(task.directory);
    workload.FindOne(*store, 0);
    AgentSend("0");
    AgentReceive();
    std::size_t searches = 0;
    const Stopwatch watch;
    do {
        for (std::size_t turn = 0; turn < kSearchesBetweenLooks; ++turn) {
            workload.FindOne(*store, random.Below(task.count));
        }
        searches += kSearchesBetweenLooks;
    } while (!stop.IsUp());
    const double time = watch.Nanoseconds();
    AgentSend(std::to_string(searches) + ' ' + std::to_string(time));
    return 0;
}

QUORVEL_AGENT(SaveMemory) {
    const Task task(arguments);
    const Workload workload(task.options, task.count);
    MemoryPeak peak;
    {
        SampledStore store(task.kind.open(task.directory), peak);
        workload.SaveAll(store);
    }
    SendPeak(peak);
    return 0;
}

QUORVEL_AGENT(SearchMemory) {
    const Task task(arguments);
    const Workload workload(task.options, task.count);
    MemoryPeak peak;
    SampledStore store(task.kind.open(task.directory), peak);
    workload.FindAll(store);
    SendPeak(peak);
    return 0;
}

QUORVEL_AGENT(Calls) {
    const Task task(arguments);
    const Workload workload(task.options, task.count);
    {
        std::unique_ptr<Store> store = task.kind.open(task.directory);
        Mark(kSavePhase);
        workload.SaveAll(*store);
        store.reset();
        Mark(kOtherPhase);
    }
    const std::unique_ptr<Store> store = task.kind.open(task.directory);
    Mark(kAllOncePhase);
    workload.FindAll(*store);
    Mark(kOtherPhase);
    workload.FindHot20(*store, kTracedSearches);
    Mark(kHot20Phase);
    workload.FindHot20(*store, kTracedSearches);
    Mark(kAbsentPhase);
    workload.FindAbsent(*store, kTracedSearches, kTracedSearches);
    Mark(kOtherPhase);
    return 0;
}

}  // namespace

}  // namespace Quorvel::Benchmarks
