#pragma once

#include <string>
#include <vector>

#include "tools/quorvel/CacheEditor.h"
#include "tools/quorvel/Command.h"

namespace Quorvel::Tool {

// The effects that a command changes: those that are named, or those that match a pattern.
struct Selection {
    std::vector<std::string> names;
    std::string match;

    // Adds the arguments NAME... and --match.
    void AddTo(Command& command);

    // Throws Failure, with the exit code kUsage, if there are neither names nor a pattern, or both.
    void Check() const;

    // The names of the effects, each once and in their order. Throws Failure, with the exit code
    // kNo, if one of them is missing or if nothing matches.
    std::vector<std::string> Find(CacheEditor& editor, const Cache& cache,
                                  const Session& session) const;
};

// The Failure to throw if a pattern matches nothing; its exit code is kNo.
Failure NoMatch(const std::string& cache, const std::string& pattern);

// Removes effects and commits.
void RemoveEffects(CacheEditor& editor, const std::vector<std::string>& names,
                   const Session& session);

// Says that an effect can't be read, and why.
void TellDamage(const Session& session, const Cache& cache, const std::string& name,
                const std::string& why);

// Escaped names, as JSON.
Json EscapeAll(const std::vector<std::string>& names);
Json EscapeAll(const std::vector<const std::string*>& names);

// Reports effects that were changed, "removed 2 effects", or with --json their names. A dry run
// also prints the names, one per line.
void ReportNames(Session& session, const std::string& done, const std::vector<std::string>& names,
                 bool isDryRun);

}  // namespace Quorvel::Tool
