#include "tools/quorvel/Statistics.h"

#include <utility>

#include "format/PageOwners.h"
#include "tools/quorvel/CacheEditor.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {
namespace {

using Group = Statistics::Group;
using Limit = std::pair<const char*, std::uint64_t>;  // the values of a group lie below its limit

constexpr std::uint64_t kEverything = ~std::uint64_t{0};
constexpr std::array<Limit, 7> kSizes = {{{"below 1 KiB", 1 << 10},
                                          {"1 to 4 KiB", 4 << 10},
                                          {"4 to 16 KiB", 16 << 10},
                                          {"16 to 64 KiB", 64 << 10},
                                          {"64 to 256 KiB", 256 << 10},
                                          {"256 KiB to 1 MiB", 1 << 20},
                                          {"1 MiB", kEverything}}};
constexpr std::array<Limit, 6> kAges = {{{"last hour", 3600},
                                         {"last day", 86400},
                                         {"last week", 7 * 86400},
                                         {"last 30 days", 30 * 86400},
                                         {"last year", 365 * 86400},
                                         {"older", kEverything}}};

template <std::size_t N>
std::vector<Group> MakeGroups(const std::array<Limit, N>& limits) {
    std::vector<Group> groups;
    for (const auto& [label, limit] : limits) {
        groups.push_back({label, 0});
    }
    return groups;
}

void AddSize(std::vector<Group>& groups, std::uint64_t size) {
    std::size_t i = 0;
    while (size >= kSizes[i].second) {
        ++i;
    }
    ++groups[i].count;
}

// The times of use at which the groups of ages begin, except the last one. Comparing a time with
// them is much faster than computing its age.
std::vector<EntryTime> StartsOfAges() {
    std::vector<EntryTime> starts;
    for (std::size_t i = 0; i + 1 < kAges.size(); ++i) {
        starts.push_back(ToRecord(TimeBefore(kAges[i].second)));
    }
    return starts;
}

void AddAge(std::vector<Group>& groups, const std::vector<EntryTime>& starts,
            const EntryTime& time) {
    std::size_t i = 0;
    while (i < starts.size() && !IsEarlier(starts[i], time)) {
        ++i;
    }
    ++groups[i].count;
}

PageKind KindOf(const Format::PageOwner& owner, const Snapshot& snapshot) {
    switch (owner.use) {
        case Format::PageUse::kHead:
            return PageKind::kHead;
        case Format::PageUse::kStream:
            return snapshot.HoldsEffects() && owner.id == snapshot.Header().indexStream
                       ? PageKind::kIndex
                       : PageKind::kEffects;
        case Format::PageUse::kTail:
            return PageKind::kTails;
        case Format::PageUse::kFree:
            return PageKind::kFree;
        case Format::PageUse::kUnowned:
            return PageKind::kUnowned;
        case Format::PageUse::kDead:
            break;
    }
    return PageKind::kDead;
}

Json ToJson(const std::vector<Group>& groups) {
    Json json = Json::object();
    for (const Group& group : groups) {
        json[group.label] = group.count;
    }
    return json;
}

}  // namespace

std::vector<PageRun> FindPageRuns(const Snapshot& snapshot) {
    std::vector<PageRun> runs;
    for (const Format::PageOwner& page :
         Format::FindPageOwners(snapshot.State(), snapshot.File().Size())) {
        const PageKind kind = KindOf(page, snapshot);
        const std::uint64_t owner = kind == PageKind::kHead ? 0 : page.id;
        if (!runs.empty() && runs.back().kind == kind && runs.back().owner == owner) {
            ++runs.back().count;
        } else {
            runs.push_back({kind, owner, 1});
        }
    }
    return runs;
}

Statistics MakeStatistics(const Snapshot& snapshot) {
    Statistics result;
    result.fileSize = snapshot.File().Size();
    for (const PageRun& run : FindPageRuns(snapshot)) {
        result.filePages += run.count;
        result.pages[static_cast<std::size_t>(run.kind)] += run.count;
    }
    result.streams = snapshot.State().streams.size();
    for (const Format::StreamRecord& stream : snapshot.State().streams) {
        result.streamBytes += stream.size;
    }
    result.tailBlocks = snapshot.State().blocks.size();
    for (const Format::TailBlock& block : snapshot.State().blocks) {
        result.tailBytes += Format::kTailBlockSize - block.freeBytes;
    }
    result.sizes = MakeGroups(kSizes);
    result.ages = MakeGroups(kAges);
    const std::vector<EntryTime> starts = StartsOfAges();
    for (const Format::IndexEntry& effect : snapshot.Effects()) {
        ++result.effects;
        result.effectBytes += effect.record.size;
        if (effect.record.permanent != 0) {
            ++result.permanent;
            result.permanentBytes += effect.record.size;
        }
        AddSize(result.sizes, effect.record.size);
        AddAge(result.ages, starts, ToRecord(effect.record.time));
    }
    return result;
}

Json ToJson(const Statistics& statistics, bool holdsEffects) {
    Json json = {{"kind", holdsEffects ? "effect cache" : "package"},
                 {"fileSize", statistics.fileSize}};
    if (holdsEffects) {
        json["effects"] = {
            {"count", statistics.effects},       {"bytes", statistics.effectBytes},
            {"permanent", statistics.permanent}, {"permanentBytes", statistics.permanentBytes},
            {"sizes", ToJson(statistics.sizes)}, {"lastUsed", ToJson(statistics.ages)}};
    }
    json["streams"] = {{"count", statistics.streams}, {"bytes", statistics.streamBytes}};
    json["pages"] = {{"file", statistics.filePages}};
    for (std::size_t i = 0; i < kPageKinds.size(); ++i) {
        json["pages"][kPageKinds[i]] = statistics.pages[i];
    }
    json["tailBlocks"] = {{"count", statistics.tailBlocks},
                          {"usedBytes", statistics.tailBytes},
                          {"bytes", statistics.tailBlocks * Format::kTailBlockSize}};
    return json;
}

}  // namespace Quorvel::Tool
