#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "format/Path.h"
#include "format/SalvageReader.h"
#include "pagestore/RollbackJournal.h"
#include "pagestore/StdioFile.h"
#include "platform/Process.h"
#include "platform/ScopeGuard.h"
#include "tools/quorvel/Cache.h"
#include "tools/quorvel/CacheEditor.h"
#include "tools/quorvel/Commands.h"
#include "tools/quorvel/EffectsFormat.h"
#include "tools/quorvel/Progress.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {

namespace fs = std::filesystem;

namespace {

struct SalvageOptions {
    std::string file;
    std::string destination;
    bool isVerbose = false;
    EffectsFormat format;
};

// What became of the effects.
struct Outcome {
    bool isSaveUndone = false;
    std::vector<std::string> damage;
    bool hasWholeIndex = false;
    std::uint64_t saved = 0;
    std::uint64_t savedBytes = 0;
    std::vector<std::pair<std::string, std::string>> leftOut;  // names and reasons
};

std::string JournalOf(const std::string& path) {
    return path + "-journal";
}

void Copy(const Format::FileSource& source, const std::string& path) {
    constexpr std::uint64_t kPieceSize = 1 << 20;
    StdioFile file;
    int error = file.Create(path.c_str());
    for (std::uint64_t done = 0; error == 0 && done < source.Size(); done += kPieceSize) {
        StopIfAsked();
        Format::Bytes piece(static_cast<std::size_t>(std::min(kPieceSize, source.Size() - done)));
        source.Read(done, piece.data(), piece.size());
        if (std::fwrite(piece.data(), piece.size(), 1, file.Get()) != 1) { error = errno; }
    }
    if (error != 0) { throw Failure(fmt::format("{}: {}", path, std::strerror(error))); }
}

// Saves the whole effects of a file in an empty cache.
class Salvager {
public:
    Salvager(const SalvageOptions& options, Session& session)
        : options_(options), session_(session) {}

    // Throws Failure.
    Outcome Run();

private:
    void OpenFile();
    void UndoSave(const std::string& copy);
    void Save(const Format::SalvageReader& reader, CacheEditor& editor);

    const SalvageOptions& options_;
    Session& session_;
    std::string path_;
    std::unique_ptr<Format::FileSource> file_;
    Outcome outcome_;
};

Outcome Salvager::Run() {
    OpenFile();
    if (!fs::is_directory(Format::ToPath(options_.destination))) {
        throw Failure(options_.destination + ": not a directory; make one for the new cache",
                      kUsage);
    }
    Cache cache(session_, options_.destination);
    std::error_code isMissing;
    if (fs::equivalent(Format::ToPath(path_), Format::ToPath(cache.Path()), isMissing)) {
        throw Failure(cache.Path() +
                          ": the file can't be its own destination; name another "
                          "directory",
                      kUsage);
    }
    const Cache::Lock lock(cache);
    const std::string copy =
        fmt::format("{}-salvage-{}", cache.Path(), Platform::CurrentProcessId());
    const Platform::ScopeGuard removeCopy([&] {
        file_.reset();
        std::remove(copy.c_str());
        std::remove(JournalOf(copy).c_str());
    });
    UndoSave(copy);

    const Format::SalvageReader reader(*file_);
    outcome_.damage.insert(outcome_.damage.end(), reader.Damage().begin(), reader.Damage().end());
    outcome_.hasWholeIndex = reader.HasWholeIndex();
    if (reader.Count() == 0) { return outcome_; }
    CacheEditor editor(cache, lock, CacheEditor::Missing::Create);
    if (!editor.Effects().empty()) {
        throw Failure(fmt::format("{}: holds {} already; give a directory without a cache",
                                  cache.Path(), Count(editor.Effects().size(), "effect")));
    }
    Save(reader, editor);
    editor.Commit();
    return outcome_;
}

void Salvager::OpenFile() {
    const fs::path file = Format::ToPath(options_.file);
    path_ = fs::is_directory(file) ? (file / kCacheFileName).string() : options_.file;
    if (!fs::exists(Format::ToPath(path_))) { throw Failure(path_ + ": no such file", kNo); }
    file_ = std::make_unique<Format::DiskSource>(path_);
}

// If a save of the file was interrupted and its journal exists, continues with a copy in which the
// save is undone. The copy lies beside the new cache, where there must be room for the effects
// anyway.
void Salvager::UndoSave(const std::string& copy) {
    std::error_code ignored;
    if (!Format::IsMarked(*file_) || !fs::exists(Format::ToPath(JournalOf(path_)), ignored)) {
        return;
    }
    try {
        Copy(*file_, copy);
        Copy(Format::DiskSource(JournalOf(path_)), JournalOf(copy));
    } catch (const Failure&) { throw; } catch (const std::runtime_error& error) {
        outcome_.damage.push_back(
            fmt::format("an interrupted save can't be undone: {}", EscapePath(error.what())));
        return;
    }
    try {
        RollbackJournal::Recover(copy.c_str());
    } catch (const std::exception& error) { throw Failure(DescribeFailure(copy, error)); }
    file_ = std::make_unique<Format::DiskSource>(copy);
    outcome_.isSaveUndone = !Format::IsMarked(*file_);
}

void Salvager::Save(const Format::SalvageReader& reader, CacheEditor& editor) {
    Progress progress(session_, "saving", reader.Count());
    const std::uint64_t capacity = editor.Capacity();
    std::uint64_t size = 0;
    const auto leaveOut = [&](const Format::IndexEntry& effect, const std::string& reason) {
        progress.Add();
        outcome_.leftOut.emplace_back(effect.name, reason);
    };
    const auto save = [&](const Format::IndexEntry& effect, const Format::Bytes& data) {
        if (!options_.format.IsIntact(effect, data)) {
            leaveOut(effect, "its checksum is wrong");
            return;
        }
        progress.Add();
        size += CacheEditor::EffectSize(effect.name.size(), data.size());
        if (size >= capacity) {
            throw Failure(
                fmt::format("{}: nothing was saved: the whole effects don't fit in a "
                            "cache, which may take {} there",
                            options_.destination, Size(capacity)));
        }
        editor.Store(effect.name, data, effect.record.permanent != 0, effect.record.time);
        ++outcome_.saved;
        outcome_.savedBytes += data.size();
    };
    reader.ForEach(save, leaveOut);
}

void PrintText(const Outcome& outcome, const SalvageOptions& options, Session& session) {
    for (const std::string& line : outcome.damage) {
        session.Warn(options.file + ": " + line);
    }
    if (outcome.isSaveUndone) { session.Tell("undid the interrupted save, in a copy"); }
    session.Tell(fmt::format("saved {} of {} in {}", Count(outcome.saved, "effect"),
                             Size(outcome.savedBytes), options.destination));
    std::map<std::string, std::uint64_t> reasons;
    for (const auto& [name, reason] : outcome.leftOut) {
        ++reasons[reason];
        if (options.isVerbose) { session.out << Escape(name) << ": " << reason << '\n'; }
    }
    for (const auto& [reason, count] : reasons) {
        session.Warn(fmt::format("left out {}: {}", Count(count, "effect"), reason));
    }
    if (!outcome.hasWholeIndex) { session.Tell("there may have been more effects"); }
    if (!options.format.IsKnown()) { session.Tell(kContentsUnchecked); }
}

Json ToJson(const Outcome& outcome, const SalvageOptions& options) {
    Json json = {{"file", EscapePath(options.file)},
                 {"saveUndone", outcome.isSaveUndone},
                 {"damage", outcome.damage},
                 {"indexComplete", outcome.hasWholeIndex},
                 {"saved", outcome.saved},
                 {"savedBytes", outcome.savedBytes},
                 {"contentsChecked", options.format.IsKnown()},
                 {"leftOut", Json::array()}};
    for (const auto& [name, reason] : outcome.leftOut) {
        json["leftOut"].push_back({{"name", Escape(name)}, {"reason", reason}});
    }
    return json;
}

void Salvage(const SalvageOptions& options, Session& session) {
    const Outcome outcome = Salvager(options, session).Run();
    if (session.json) {
        session.Print(ToJson(outcome, options));
    } else {
        PrintText(outcome, options, session);
    }
    if (!outcome.hasWholeIndex || !outcome.leftOut.empty()) { session.exitCode = kNo; }
}

}  // namespace

void AddSalvage(CLI::App& program, Session& session) {
    const auto options = std::make_shared<SalvageOptions>();
    Command command =
        AddCommand(program, session, "salvage",
                   "Saves the effects of a damaged file that are provably whole in a new cache",
                   [options, &session] { Salvage(*options, session); });
    command.AddChanging();
    command.AddJson();
    command
        .AddOption("FILE", options->file,
                   "the damaged file, which stays as it is; no process should be using it")
        .Required();
    command.AddOption("DEST", options->destination, "the directory for the new cache").Required();
    command.AddFlag("-v,--verbose", options->isVerbose,
                    "print the names of effects that are left out");
    options->format.AddTo(command);
}

}  // namespace Quorvel::Tool
