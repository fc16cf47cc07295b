#include "tools/quorvel/Selection.h"

#include <fmt/format.h>

#include <algorithm>

#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {

std::string NameOf(const IndexEntry& entry) {
    const EffectKey key = entry.Key();
    return {reinterpret_cast<const char*>(key.bytes), key.length};
}

void Selection::AddTo(Command& command) {
    command.AddOption("NAME", names, "names of effects");
    command.AddOption("--match", match, "all effects whose names match this shell pattern");
}

void Selection::Check() const {
    if (names.empty() == match.empty()) {
        throw Failure("give names of effects, or a pattern with --match", kUsage);
    }
}

std::vector<std::string> Selection::Find(CacheEditor& editor, const std::string& cache) const {
    for (const std::string& name : names) {
        if (!editor.Find(name)) {
            throw Failure(fmt::format("{}: no effect is called \"{}\"; nothing was changed", cache,
                                      Escape(name)),
                          kNo);
        }
    }
    std::vector<std::string> found(names);
    std::sort(found.begin(), found.end(), Format::NameOrder());
    found.erase(std::unique(found.begin(), found.end()), found.end());
    if (!found.empty()) { return found; }
    for (const IndexEntry* const entry : editor.Effects()) {
        std::string name = NameOf(*entry);
        if (Matches(match, name)) { found.push_back(std::move(name)); }
    }
    if (found.empty()) {
        throw Failure(fmt::format("{}: no effect matches \"{}\"", cache, Escape(match)), kNo);
    }
    return found;
}

Json EscapeAll(const std::vector<std::string>& names) {
    Json list = Json::array();
    for (const std::string& name : names) {
        list.push_back(Escape(name));
    }
    return list;
}

void ReportNames(Session& session, const std::string& done, const std::vector<std::string>& names,
                 bool isDryRun) {
    for (const std::string& name : names) {
        if (isDryRun && !session.json) { session.out << Escape(name) << '\n'; }
    }
    session.Report(
        fmt::format("{}{}: {}", isDryRun ? "would have " : "", done, Count(names.size(), "effect")),
        {{"dryRun", isDryRun}, {"done", done}, {"effects", EscapeAll(names)}});
}

}  // namespace Quorvel::Tool
