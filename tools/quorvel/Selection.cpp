#include "tools/quorvel/Selection.h"

#include <fmt/format.h>

#include <algorithm>

#include "tools/quorvel/Progress.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {

Failure NoMatch(const std::string& cache, const std::string& pattern) {
    return Failure(fmt::format("{}: no effect matches \"{}\"", cache, Escape(pattern)), kNo);
}

void Selection::AddTo(Command& command) {
    command.AddOption("NAME", names, "names of effects");
    command.AddEscaped();
    command.AddOption("--match", match, "all effects whose names match this shell pattern");
}

void Selection::Check() const {
    if (names.empty() == match.empty()) {
        throw Failure("give names of effects, or a pattern with --match", kUsage);
    }
}

std::vector<std::string> Selection::Find(CacheEditor& editor, const Cache& cache,
                                         const Session& session) const {
    std::vector<std::string> found;
    for (const std::string& argument : names) {
        found.push_back(session.ReadName(argument));
        if (!editor.Find(found.back())) {
            throw Failure(fmt::format("{}: no effect is called \"{}\"; nothing was changed",
                                      cache.Name(), Escape(found.back())),
                          kNo);
        }
    }
    std::sort(found.begin(), found.end(), Format::NameOrder());
    found.erase(std::unique(found.begin(), found.end()), found.end());
    if (!found.empty()) { return found; }
    for (const IndexEntry* const entry : editor.Effects()) {
        std::string name = NameOf(*entry);
        if (Matches(match, name)) { found.push_back(std::move(name)); }
    }
    if (found.empty()) { throw NoMatch(cache.Name(), match); }
    return found;
}

void RemoveEffects(CacheEditor& editor, const std::vector<std::string>& names,
                   const Session& session) {
    Progress progress(session, "removing", names.size());
    for (const std::string& name : names) {
        editor.Remove(editor.Find(name));
        progress.Add();
    }
    editor.Commit();
}

void TellDamage(const Session& session, const Cache& cache, const std::string& name,
                const std::string& why) {
    session.Warn(fmt::format("{}: \"{}\" is damaged: {}", cache.Path(), Escape(name), why));
}

Json EscapeAll(const std::vector<std::string>& names) {
    Json list = Json::array();
    for (const std::string& name : names) {
        list.push_back(Escape(name));
    }
    return list;
}

Json EscapeAll(const std::vector<const std::string*>& names) {
    Json list = Json::array();
    for (const std::string* const name : names) {
        list.push_back(Escape(*name));
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
