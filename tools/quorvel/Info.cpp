#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "effectcache/EffectRecord.h"
#include "effectcache/SpaceBudget.h"
#include "format/Path.h"
#include "tools/quorvel/Cache.h"
#include "tools/quorvel/Commands.h"
#include "tools/quorvel/Statistics.h"
#include "tools/quorvel/Terminal.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {
namespace {

struct Facts {
    std::string path;
    bool holdsEffects = false;
    Statistics statistics;
    std::uint64_t freeDisk = 0;
    bool knowsHolders = false;
    std::vector<Holder> holders;
    std::string hostProblem;
};

// Tries what a host does before it reads or saves: why a host of this user can't. Empty if it can,
// and for a file that is not shared.
std::string HostProblem(const Cache& cache, const Cache::Lock& /*lock*/) {
    if (!cache.IsShared()) { return {}; }
    if (cache.Exists()) {
        std::FILE* const file = std::fopen(cache.Path().c_str(), "r+b");
        if (!file) {
            return fmt::format("the file can't be opened for writing: {}", std::strerror(errno));
        }
        std::fclose(file);
    }
    const int error = FolderError(Format::ToPath(cache.Path()).parent_path().string());
    if (error == 0) { return {}; }
    return fmt::format("no files can be made in the directory: {}", std::strerror(error));
}

Facts Collect(const std::string& argument, Session& session) {
    Cache cache(session, argument);
    Facts facts;
    facts.path = cache.Path();
    std::unique_ptr<Snapshot> snapshot;
    {
        const Cache::Lock lock(cache);
        facts.hostProblem = HostProblem(cache, lock);
        if (!facts.hostProblem.empty() && !cache.Exists()) {
            throw Failure(fmt::format("{}: there is no cache, and hosts can't make one: {}",
                                      cache.Name(), facts.hostProblem));
        }
        snapshot = ReadPackage(cache, lock);
    }
    facts.holdsEffects = snapshot->HoldsEffects();
    facts.statistics = MakeStatistics(*snapshot);
    std::error_code ignored;
    facts.freeDisk = std::filesystem::space(Format::ToPath(cache.Path()), ignored).available;
    facts.knowsHolders = FindHolders(cache.Path(), facts.holders);
    return facts;
}

// The bytes that all streams together may have.
std::uint64_t ByteLimit(const Facts& facts) {
    return std::min(kLargestSpaceBudget, facts.freeDisk);
}

void PrintJson(const Facts& facts, Session& session) {
    Json json = {{"path", EscapePath(facts.path)}};
    json.update(ToJson(facts.statistics, facts.holdsEffects));
    if (facts.holdsEffects) {
        json["limits"] = {{"effects", kStreamLimit - 1},
                          {"bytes", ByteLimit(facts)},
                          {"freeDisk", facts.freeDisk}};
    }
    json["holders"] = nullptr;
    if (facts.knowsHolders) {
        json["holders"] = Json::array();
        for (const Holder& holder : facts.holders) {
            json["holders"].push_back({{"process", holder.process}, {"name", Escape(holder.name)}});
        }
    }
    json["hostProblem"] = nullptr;
    if (!facts.hostProblem.empty()) { json["hostProblem"] = facts.hostProblem; }
    session.Print(json);
}

class TextReport {
public:
    explicit TextReport(std::ostream& out) : out_(out) {}

    void Line(const std::string& label, const std::string& text) {
        out_ << fmt::format("{:<14} {}\n", label, text);
    }

    void Histogram(const std::string& label, const std::vector<Statistics::Group>& groups) {
        constexpr std::uint64_t kWidth = 40;
        std::uint64_t most = 1;
        for (const Statistics::Group& group : groups) {
            most = std::max(most, group.count);
        }
        std::string title = label;
        for (const auto& [name, count] : groups) {
            const std::uint64_t width = (count * kWidth + most - 1) / most;
            Line(title, fmt::format("{:<17}{:>7}  {}", name, count,
                                    std::string(static_cast<std::size_t>(width), '#')));
            title.clear();
        }
    }

private:
    std::ostream& out_;
};

std::string Percent(std::uint64_t part, std::uint64_t whole) {
    if (whole == 0) { return "0 %"; }
    return fmt::format("{:.1f} %", 100.0 * static_cast<double>(part) / static_cast<double>(whole));
}

void PrintEffects(const Statistics& figures, const Facts& facts, TextReport& report) {
    report.Line("effects", fmt::format("{} of {}, {} of {} permanent", figures.effects,
                                       Size(figures.effectBytes), figures.permanent,
                                       Size(figures.permanentBytes)));
    report.Histogram("sizes", figures.sizes);
    report.Histogram("last used", figures.ages);
    report.Line(
        "limits",
        fmt::format("{} of {}; {} of {}", Percent(figures.effects, kStreamLimit - 1),
                    Count(kStreamLimit - 1, "effect"),
                    Percent(figures.streamBytes, ByteLimit(facts)), Size(ByteLimit(facts))));
}

void PrintText(const Facts& facts, Session& session) {
    const Statistics& figures = facts.statistics;
    const auto pages = [&](PageKind kind) { return figures.Pages(kind); };
    TextReport report(session.out);
    report.Line(facts.holdsEffects ? "effect cache" : "package", EscapePath(facts.path));
    if (facts.holdsEffects) { PrintEffects(figures, facts, report); }
    report.Line("streams", fmt::format("{} of {}", figures.streams, Size(figures.streamBytes)));
    report.Line("file",
                fmt::format("{}, {}", Size(figures.fileSize), Count(figures.filePages, "page")));
    report.Line("pages",
                fmt::format("{} head file, {} index, {} {}, {} tail blocks", pages(PageKind::kHead),
                            pages(PageKind::kIndex), pages(PageKind::kEffects),
                            facts.holdsEffects ? "effects" : "streams", pages(PageKind::kTails)));
    report.Line("", fmt::format("{} free, {} unowned, {} dead past the end", pages(PageKind::kFree),
                                pages(PageKind::kUnowned), pages(PageKind::kDead)));
    report.Line("tail blocks", fmt::format("{}, {} full", figures.tailBlocks,
                                           Percent(figures.tailBytes,
                                                   figures.tailBlocks * Format::kTailBlockSize)));
    report.Line("free disk", Size(facts.freeDisk));
    std::string holders = facts.knowsHolders ? "" : "this system can't tell";
    for (const Holder& holder : facts.holders) {
        holders += fmt::format("{}{} ({})", holders.empty() ? "" : ", ", Escape(holder.name),
                               holder.process);
    }
    report.Line("opened by", holders.empty() ? "no process" : holders);
    if (!facts.hostProblem.empty()) {
        report.Line("hosts", fmt::format("can't use it: {}", facts.hostProblem));
    }
}

}  // namespace

void AddInfo(CLI::App& program, Session& session) {
    const auto cache = std::make_shared<std::string>();
    Command command =
        AddCommand(program, session, "info",
                   "Says what a cache or a package holds, and how full it is", [cache, &session] {
                       const Facts facts = Collect(*cache, session);
                       session.json ? PrintJson(facts, session) : PrintText(facts, session);
                   });
    command.AddReading();
    command.AddJson();
    command.AddCache(*cache);
}

}  // namespace Quorvel::Tool
