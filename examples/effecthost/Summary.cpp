#include "Summary.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

namespace EffectHost {

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Summary, sources, effects, processes, hits, misses, damaged,
                                   verified, madePermanent, effectsInFile, mostCompilations,
                                   wallTime, compileTime, openTime, searchTime, storeTime,
                                   checkTime, sparedTime, compiledEffects, untimed, broken)

namespace {

// How often the most frequent effect occurs.
std::size_t MostFrequent(const std::vector<std::size_t>& effects) {
    std::map<std::size_t, std::size_t> counts;
    std::size_t most = 0;
    for (const std::size_t effect : effects) {
        most = std::max(most, ++counts[effect]);
    }
    return most;
}

// Compares getting all effects from the cache with compiling them. Empty when some were compiled,
// or for several processes, whose times include waiting for each other.
std::string SpeedText(const Summary& summary) {
    const std::uint64_t gettingTime = summary.openTime + summary.searchTime;
    if (summary.hits < summary.effects || gettingTime == 0 || summary.processes > 1) { return {}; }
    if (summary.untimed > 0) {
        return fmt::format(
            "speed      got from the cache in {}; no comparison with compiling, because several "
            "processes at once compiled {} of {} effects\n",
            FormatTime(gettingTime), summary.untimed, summary.effects);
    }
    const double factor =
        static_cast<double>(summary.sparedTime) / static_cast<double>(gettingTime);
    return fmt::format(
        "speed      got from the cache in {}, {:.{}f} times faster than compiling, which took {} "
        "when they were cached\n",
        FormatTime(gettingTime), factor, factor < 10 ? 1 : 0, FormatTime(summary.sparedTime));
}

// The time of a run that belongs to none of its parts.
std::uint64_t OtherTime(const Summary& summary) {
    const std::uint64_t parts = summary.compileTime + summary.CacheTime() + summary.checkTime;
    return summary.wallTime - std::min(summary.wallTime, parts);
}

std::string TimesText(const Summary& summary) {
    std::string text = fmt::format("compiling  {}\n", FormatTime(summary.compileTime));
    text += fmt::format("cache      {} (opening {}, searching {}, storing {})\n",
                        FormatTime(summary.CacheTime()), FormatTime(summary.openTime),
                        FormatTime(summary.searchTime), FormatTime(summary.storeTime));
    text += fmt::format("checking   {}\n", FormatTime(summary.checkTime));
    if (summary.processes == 1) {
        text += fmt::format("other      {}\n", FormatTime(OtherTime(summary)));
    }
    return text + fmt::format("run        {}\n", FormatTime(summary.wallTime));
}

// "once", "twice", "3 times".
std::string TimesOver(std::size_t count) {
    return count == 1 ? "once" : count == 2 ? "twice" : fmt::format("{} times", count);
}

}  // namespace

void AddProcess(Summary& sum, const Summary& process) {
    sum.hits += process.hits;
    sum.untimed += process.untimed;
    sum.misses += process.misses;
    sum.damaged += process.damaged;
    sum.madePermanent += process.madePermanent;
    sum.compileTime += process.compileTime;
    sum.openTime += process.openTime;
    sum.searchTime += process.searchTime;
    sum.storeTime += process.storeTime;
    sum.sparedTime += process.sparedTime;
    sum.compiledEffects.insert(sum.compiledEffects.end(), process.compiledEffects.begin(),
                               process.compiledEffects.end());
    sum.mostCompilations = MostFrequent(sum.compiledEffects);
    sum.broken.insert(process.broken.begin(), process.broken.end());
}

std::string ToJson(const Summary& summary) {
    return nlohmann::json(summary).dump();
}

Summary FromJson(const std::string& line) {
    return nlohmann::json::parse(line).get<Summary>();
}

std::string ToText(const Summary& summary) {
    std::string text = fmt::format("effects    {} from {} sources, {} in the cache file\n",
                                   summary.effects, summary.sources, summary.effectsInFile);
    if (summary.processes > 1) {
        text +=
            fmt::format("processes  {}, each of which asked for every effect\n", summary.processes);
    }
    text += fmt::format("hits       {}\n", summary.hits);
    text += fmt::format("misses     {}\n", summary.misses);
    if (summary.processes > 1 && summary.mostCompilations > 0) {
        text +=
            fmt::format("compiled   no effect more than {}\n", TimesOver(summary.mostCompilations));
    }
    if (!summary.broken.empty()) {
        text += fmt::format("broken     {} do not compile\n", summary.broken.size());
    }
    if (summary.damaged > 0) {
        text += fmt::format("damaged    {}, compiled again\n", summary.damaged);
    }
    if (summary.madePermanent > 0) {
        text += fmt::format("permanent  {} hits made permanent\n", summary.madePermanent);
    }
    if (summary.verified > 0) {
        text += fmt::format("verified   {} recompiled to the same bytes\n", summary.verified);
    }
    return text + SpeedText(summary) + TimesText(summary);
}

std::string BrokenText(const Summary& summary) {
    std::string text =
        fmt::format("{} of {} effects do not compile", summary.broken.size(), summary.effects);
    std::set<std::string_view> shown;
    for (const auto& [number, message] : summary.broken) {
        const std::string_view words = std::string_view(message).substr(message.find('\n') + 1);
        if (shown.insert(words).second) { text += "\n" + message; }
    }
    return text;
}

std::string FormatTime(std::uint64_t microseconds) {
    const double time = static_cast<double>(microseconds);
    if (microseconds < 1000) { return fmt::format("{} us", microseconds); }
    if (microseconds < 999950) {  // from here on, rounding to 0.1 ms gives a whole second
        return fmt::format("{:.1f} ms", time / 1e3);
    }
    return fmt::format("{:.2f} s", time / 1e6);
}

}  // namespace EffectHost
