#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "format/PackageCheck.h"
#include "format/PageOwners.h"
#include "format/Path.h"
#include "platform/Directory.h"
#include "tools/quorvel/Cache.h"
#include "tools/quorvel/Commands.h"
#include "tools/quorvel/EffectsFormat.h"
#include "tools/quorvel/Progress.h"
#include "tools/quorvel/Terminal.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {

namespace fs = std::filesystem;

namespace {

constexpr const char* kEffectCache = "effect cache";

struct CheckOptions {
    std::vector<std::string> caches;
    std::uint64_t mostProblems = 100;
    EffectsFormat format;
};

// What was found in one file.
struct Findings {
    std::string path;
    std::string kind = "no intact package";
    std::uint64_t streams = 0;
    std::uint64_t streamBytes = 0;
    std::uint64_t pages = 0;  // all pages of the file, including the next three
    std::uint64_t freePages = 0;
    std::uint64_t unownedPages = 0;
    std::uint64_t deadPages = 0;
    std::uint64_t tailBlocks = 0;
    bool areContentsChecked = false;
    std::string failure;  // why the effects could not be read; empty if they could
    std::uint64_t problemCount = 0;
    std::vector<std::string> problems;  // the first problems
    std::vector<std::string> notes;
};

class Checker {
public:
    Checker(const CheckOptions& options, const Session& session, Findings& findings)
        : options_(options), session_(session), findings_(findings) {}

    // Checks the structures. REQUIRES: the cache is locked.
    void CheckStructure(const Cache& cache);

    // Reads the effects, and checks their contents if their format is known. REQUIRES: the cache is
    // not locked.
    void CheckEffects(Cache& cache);

private:
    void Problem(const std::string& line);
    void CheckState(const Format::PackageState& state, const Format::FileSource& file);
    void CountParts(const Format::PackageState& state, std::uint64_t fileSize);
    void SayThatASaveWasInterrupted(const Cache& cache);

    const CheckOptions& options_;
    const Session& session_;
    Findings& findings_;
};

void Checker::Problem(const std::string& line) {
    StopIfAsked();
    if (++findings_.problemCount <= options_.mostProblems) {
        findings_.problems.push_back(Escape(line));
    }
}

void Checker::CheckStructure(const Cache& cache) {
    const Format::DiskSource file(cache.Path());
    try {
        CheckState(Format::ReadPackageState(file, cache.StreamLimit()), file);
    } catch (const Format::FormatError& error) {
        Problem(error.what());
        if (Format::IsMarked(file)) { SayThatASaveWasInterrupted(cache); }
    }
}

void Checker::CheckState(const Format::PackageState& state, const Format::FileSource& file) {
    CountParts(state, file.Size());
    const auto problem = [&](const std::string& line) { Problem(line); };
    if (!Format::HoldsEffectCache(state.headerData)) {
        findings_.kind = "package";
        Format::CheckPackage(state, file.Size(), problem);
        return;
    }
    findings_.kind = kEffectCache;
    Format::CheckEffectCacheStructure(state, file, problem);
}

void Checker::CheckEffects(Cache& cache) {
    Progress progress(session_, "checking", findings_.streams);
    const auto check = [&](const EffectBytes& effect) {
        progress.Add();
        if (!options_.format.IsIntact(effect.entry, effect.data)) {
            Problem(fmt::format("effect \"{}\" has a wrong checksum", effect.entry.name));
        }
    };
    try {
        ForEachEffect(
            cache, [](const auto&) { return true; }, check,
            [&](const Format::IndexEntry& effect, const std::string& why) {
                progress.Add();
                Problem(fmt::format("effect \"{}\" of {} can't be read: {}", effect.name,
                                    Count(effect.record.size, "byte"), why));
            });
        findings_.areContentsChecked = options_.format.IsKnown();
    } catch (const Failure& failure) {
        // If there are no effects, the problems say why.
        if (IsStopRequested()) { throw; }
        if (failure.exitCode != kNo) { findings_.failure = failure.what(); }
        if (failure.exitCode == kNo && findings_.problemCount == 0) { Problem(failure.what()); }
    }
}

void Checker::CountParts(const Format::PackageState& state, std::uint64_t fileSize) {
    findings_.streams = state.streams.size();
    for (const Format::StreamRecord& stream : state.streams) {
        findings_.streamBytes += stream.size;
    }
    findings_.tailBlocks = state.blocks.size();
    for (const Format::PageOwner& page : Format::FindPageOwners(state, fileSize)) {
        ++findings_.pages;
        findings_.freePages += page.use == Format::PageUse::kFree ? 1 : 0;
        findings_.unownedPages += page.use == Format::PageUse::kUnowned ? 1 : 0;
        findings_.deadPages += page.use == Format::PageUse::kDead ? 1 : 0;
    }
}

void Checker::SayThatASaveWasInterrupted(const Cache& cache) {
    std::error_code ignored;
    const bool hasJournal = fs::exists(Format::ToPath(cache.Path() + "-journal"), ignored);
    findings_.notes.push_back(
        hasJournal ? "a save was interrupted; without --offline, it is undone first"
                   : "a save was interrupted, and the journal that could undo it is missing; "
                     "\"quorvel salvage\" saves what is left");
}

// Adds a note if a cache of this user would not use the file, whatever its contents.
void NoteOwner(const Cache& cache, Findings& findings) {
    const fs::path file = Format::ToPath(cache.Path());
    const std::string directory = file.has_parent_path() ? file.parent_path().string() : ".";
    const Platform::Directory found =
        Platform::FindDirectory(directory.c_str(), file.filename().string().c_str());
    if (found.access == Platform::Directory::Access::BelongsToAnotherUser) {
        findings.notes.push_back(
            "a cache of this user does not use the file, because the file or its directory belongs "
            "to another user");
    }
}

Findings Check(const std::string& argument, const CheckOptions& options, Session& session) {
    Cache cache(session, argument);
    Findings findings;
    findings.path = cache.Path();
    Checker checker(options, session, findings);
    {
        const Cache::Lock lock(cache);
        cache.RequireFile();
        checker.CheckStructure(cache);
    }
    if (findings.kind == kEffectCache) { checker.CheckEffects(cache); }
    if (!cache.IsShared()) { NoteOwner(cache, findings); }
    return findings;
}

void PrintText(const Findings& findings, Session& session) {
    session.out << EscapePath(findings.path) << ": " << findings.kind;
    if (findings.pages > 0) {
        session.out << fmt::format(
            ", {} of {}, {} ({} free, {} unowned, {} dead), {}", Count(findings.streams, "stream"),
            Count(findings.streamBytes, "byte"), Count(findings.pages, "page"), findings.freePages,
            findings.unownedPages, findings.deadPages, Count(findings.tailBlocks, "tail block"));
    }
    session.out << ", " << Count(findings.problemCount, "problem") << '\n';
    for (const std::string& problem : findings.problems) {
        session.out << problem << '\n';
    }
    if (findings.problems.size() < findings.problemCount) {
        session.out << fmt::format("and {} more; --max-problems shows more\n",
                                   findings.problemCount - findings.problems.size());
    }
    for (const std::string& note : findings.notes) {
        session.out << "note: " << note << '\n';
    }
}

Json ToJson(const Findings& findings) {
    Json json = {{"path", EscapePath(findings.path)},
                 {"kind", findings.kind},
                 {"streams", {{"count", findings.streams}, {"bytes", findings.streamBytes}}},
                 {"pages",
                  {{"file", findings.pages},
                   {"free", findings.freePages},
                   {"unowned", findings.unownedPages},
                   {"dead", findings.deadPages}}},
                 {"tailBlocks", findings.tailBlocks},
                 {"contentsChecked", findings.areContentsChecked},
                 {"problemCount", findings.problemCount},
                 {"problems", findings.problems},
                 {"notes", findings.notes}};
    if (!findings.failure.empty()) { json["error"] = findings.failure; }
    return json;
}

// Goes on after a file that can't be checked.
void CheckAll(const CheckOptions& options, Session& session) {
    Json json = Json::array();
    bool isUnchecked = false;  // the contents of a file
    const auto fail = [&](const std::string& argument, const char* what, int code) {
        if (IsStopRequested()) { throw; }
        session.err << "quorvel: " << EscapePath(what) << '\n';
        session.exitCode = std::max(session.exitCode, code);
        json.push_back({{"path", EscapePath(argument)}, {"error", what}});
    };
    for (const std::string& argument : options.caches) {
        try {
            const Findings findings = Check(argument, options, session);
            if (findings.problemCount > 0) { session.exitCode = std::max(session.exitCode, kNo); }
            isUnchecked = isUnchecked || !findings.areContentsChecked;
            if (session.json) {
                json.push_back(ToJson(findings));
            } else {
                PrintText(findings, session);
            }
            if (!findings.failure.empty()) {
                session.err << "quorvel: " << EscapePath(findings.failure) << '\n';
                session.exitCode = kFailed;
            }
        } catch (const Failure& failure) {
            fail(argument, failure.what(), failure.exitCode);
        } catch (const std::exception& error) { fail(argument, error.what(), kFailed); }
    }
    if (session.json) {
        session.Print(json);
    } else if (isUnchecked) {
        session.Tell(kContentsUnchecked);
    }
}

}  // namespace

void AddCheck(CLI::App& program, Session& session) {
    const auto options = std::make_shared<CheckOptions>();
    Command command =
        AddCommand(program, session, "check", "Checks every structure of caches or packages",
                   [options, &session] { CheckAll(*options, session); });
    command.AddReading();
    command.AddJson();
    command.AddOption("CACHE", options->caches, "cache directories or package files").Required();
    command
        .AddOption("--max-problems", options->mostProblems,
                   "print at most this number of problems of each cache")
        .NonNegative()
        .ShowDefault();
    options->format.AddTo(command);
}

}  // namespace Quorvel::Tool
