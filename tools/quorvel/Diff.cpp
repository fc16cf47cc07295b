#include <fmt/format.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "format/Path.h"
#include "tools/quorvel/Cache.h"
#include "tools/quorvel/Checksum.h"
#include "tools/quorvel/Commands.h"
#include "tools/quorvel/Progress.h"
#include "tools/quorvel/Selection.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {
namespace {

struct DiffOptions {
    std::string a;
    std::string b;
    std::string match = "*";
    bool comparesTimes = false;
};

// What is remembered of an effect of the first cache while the second one is read.
struct Known {
    std::uint32_t size = 0;
    bool permanent = false;
    bool isDamaged = false;
    bool isInBoth = false;
    Format::EntryTime time;
    Checksum checksum;
};

struct Differences {
    std::vector<std::string> onlyA;
    std::vector<std::string> onlyB;
    std::vector<std::pair<std::string, Json>> both;  // with what differs
};

// Calls `use` for each effect that matches.
void ReadAll(const DiffOptions& options, Cache& cache, Progress& progress, const Session& session,
             const std::function<void(const std::string&, const Known&)>& use) {
    const auto describe = [](const Format::EffectRecord& record) {
        Known known;
        known.size = record.size;
        known.permanent = record.permanent != 0;
        known.time = record.time;
        return known;
    };
    ForEachEffect(
        cache, [&](const auto& effect) { return Matches(options.match, effect.name); },
        [&](const EffectBytes& effect) {
            Known known = describe(effect.entry.record);
            known.checksum = ChecksumOf(effect.data.data(), effect.data.size());
            use(effect.entry.name, known);
            progress.Add(effect.data.size());
        },
        [&](const Format::IndexEntry& effect, const std::string& why) {
            TellDamage(session, cache, effect.name, why);
            Known known = describe(effect.record);
            known.isDamaged = true;
            use(effect.name, known);
        });
}

// How two effects of one name differ. A damaged one differs from every other.
Json Compare(const Known& a, const Known& b, bool comparesTimes) {
    Json what = Json::array();
    const bool isDamaged = a.isDamaged || b.isDamaged;
    if (isDamaged || a.size != b.size || a.checksum != b.checksum) { what.push_back("bytes"); }
    if (a.permanent != b.permanent) { what.push_back("permanent"); }
    if (comparesTimes && Time(a.time) != Time(b.time)) { what.push_back("time"); }
    return what;
}

// One cache is read after the other, so that there is never more than one lock.
Differences FindDifferences(const DiffOptions& options, const Session& session) {
    Cache a(session, options.a);
    Cache b(session, options.b);
    std::error_code ignored;
    Progress progress(session, "comparing",
                      std::filesystem::file_size(Format::ToPath(a.Path()), ignored) +
                          std::filesystem::file_size(Format::ToPath(b.Path()), ignored));
    Differences result;
    std::map<std::string, Known, Format::NameOrder> inA;
    ReadAll(options, a, progress, session,
            [&](const std::string& name, const Known& effect) { inA.emplace(name, effect); });
    bool hasMatch = !inA.empty();
    ReadAll(options, b, progress, session, [&](const std::string& name, const Known& effect) {
        hasMatch = true;
        const auto found = inA.find(name);
        if (found == inA.end()) {
            result.onlyB.push_back(name);
            return;
        }
        found->second.isInBoth = true;
        Json what = Compare(found->second, effect, options.comparesTimes);
        if (!what.empty()) { result.both.emplace_back(name, std::move(what)); }
    });
    if (!hasMatch && options.match != "*") {
        throw NoMatch(options.a + ", " + options.b, options.match);
    }
    for (const auto& [name, effect] : inA) {
        if (!effect.isInBoth) { result.onlyA.push_back(name); }
    }
    return result;
}

void PrintJson(const Differences& differences, Session& session) {
    Json json = {{"onlyA", EscapeAll(differences.onlyA)},
                 {"onlyB", EscapeAll(differences.onlyB)},
                 {"different", Json::array()}};
    for (const auto& [name, what] : differences.both) {
        json["different"].push_back({{"name", Escape(name)}, {"in", what}});
    }
    session.Print(json);
}

void Print(const Differences& differences, Session& session) {
    for (const std::string& name : differences.onlyA) {
        session.out << "< " << Escape(name) << '\n';
    }
    for (const std::string& name : differences.onlyB) {
        session.out << "> " << Escape(name) << '\n';
    }
    for (const auto& [name, what] : differences.both) {
        session.out << "! " << Escape(name) << '\n';
    }
}

void Diff(const DiffOptions& options, Session& session) {
    const Differences differences = FindDifferences(options, session);
    if (session.json) {
        PrintJson(differences, session);
    } else {
        Print(differences, session);
    }
    const bool isSame =
        differences.onlyA.empty() && differences.onlyB.empty() && differences.both.empty();
    session.exitCode = isSame ? kDone : kNo;
}

}  // namespace

void AddDiff(CLI::App& program, Session& session) {
    const auto options = std::make_shared<DiffOptions>();
    Command command = AddCommand(program, session, "diff",
                                 "Compares the effects of two caches, their bytes and whether they "
                                 "are permanent: \"< name\" "
                                 "is only in A, \"> name\" only in B, \"! name\" is different",
                                 [options, &session] { Diff(*options, session); });
    command.AddReading();
    command.AddJson();
    command.AddOption("A", options->a, "cache directory or package file").Required();
    command.AddOption("B", options->b, "cache directory or package file").Required();
    command.AddFlag("--time", options->comparesTimes, "also compare the times of use");
    command
        .AddOption("--match", options->match, "only effects whose names match this shell pattern")
        .ShowDefault();
}

}  // namespace Quorvel::Tool
