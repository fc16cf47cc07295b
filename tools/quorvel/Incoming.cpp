#include "tools/quorvel/Incoming.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <utility>

#include "effectcache/EffectRecord.h"
#include "effectcache/SpaceBudget.h"
#include "tools/quorvel/CacheEditor.h"
#include "tools/quorvel/Progress.h"
#include "tools/quorvel/Selection.h"
#include "tools/quorvel/Terminal.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {

namespace {

constexpr char kAdvice[] = "nothing was changed; name another folder in TMPDIR, or TMP on Windows";

std::string TemporaryFolder() {
    std::error_code error;
    const std::filesystem::path folder = std::filesystem::temp_directory_path(error);
    if (error) {
        throw Failure(fmt::format("the folder for temporary files can't be used: {}; {}",
                                  error.message(), kAdvice));
    }
    return folder.string();
}

[[noreturn]] void FailTemporaryFile(const std::string& what) {
    const int error = errno;
    throw Failure(fmt::format("{}: a temporary file can't be {}: {}; {}", TemporaryFolder(), what,
                              std::strerror(error), kAdvice));
}

}  // namespace

// ---- Collecting ---------------------------------------------------------------------------------

Incoming::Incoming(bool isDryRun) {
    if (isDryRun) { return; }
    file_.reset(CreateTemporaryFile(TemporaryFolder()));
    if (!file_) { FailTemporaryFile("created"); }
}

std::fpos_t Incoming::Keep(const Format::Bytes& data) {
    std::fpos_t place = {};
    if (!file_) { return place; }
    if (std::fgetpos(file_.get(), &place) != 0 ||
        std::fwrite(data.data(), 1, data.size(), file_.get()) != data.size()) {
        FailTemporaryFile("written");
    }
    return place;
}

Format::Bytes Incoming::Read(const Effect& effect) const {
    Format::Bytes data(effect.size);
    if (std::fsetpos(file_.get(), &effect.place) != 0 ||
        std::fread(data.data(), 1, data.size(), file_.get()) != data.size()) {
        FailTemporaryFile("read");
    }
    return data;
}

bool Incoming::Wants(const std::string& name, const Format::EntryTime& time) const {
    const auto found = effects_.find(name);
    return found == effects_.end() || IsEarlier(ToRecord(found->second.time), ToRecord(time));
}

void IncomingOptions::AddTo(Command& command, const std::string& source) {
    command
        .AddOption(
            "--match", match,
            fmt::format("only effects of the {} whose names match this shell pattern", source))
        .ShowDefault();
    command
        .AddOption("--prefer", prefer,
                   "which of two effects of one name stays: dest or source; without this, the "
                   "one used last")
        .OneOf({"dest", "source"});
    command.AddFlag("--dry-run", isDryRun, "say what would happen, change nothing");
}

// ---- Planning -----------------------------------------------------------------------------------

namespace {

// The journal and the spare pages of a small cache.
constexpr std::uint64_t kReservedForNewCache = 0x40000;

CacheEditor::Room RoomOfNewCache(const Cache& cache) {
    const std::uint64_t free = FreeBytes(cache, kReservedForNewCache);
    return {kStreamLimit - 1, free, free < kLargestSpaceBudget};
}

// An effect that the cache would hold if it had room for everything: one of its own, or an incoming
// one, which may replace one of its own.
struct Candidate {
    const IndexEntry* own = nullptr;
    const Incoming::Effects::value_type* incoming = nullptr;

    EntryTime Time() const {
        return incoming ? ToRecord(incoming->second.time) : own->record.entryTime;
    }

    std::uint64_t Size(const CacheEditor::Room& room) const {
        if (incoming) {
            return CacheEditor::EffectSize(incoming->first.size(), incoming->second.size);
        }
        return room.isLimitedByVolume
                   ? 0
                   : CacheEditor::EffectSize(own->record.nameLength, own->record.effectSize);
    }

    // Effects of a lower rank are kept first. Those of rank 0 always stay, if necessary in the
    // cache's own version.
    int Rank(const CacheEditor::Room& room) const {
        if (own && (own->record.permanent != 0 || room.isLimitedByVolume)) { return 0; }
        return incoming && incoming->second.permanent ? 1 : 2;
    }
};

class Plan {
public:
    // The editor is null for a cache that does not exist yet.
    Plan(const Incoming& incoming, const Cache& cache, CacheEditor* editor,
         const std::string& prefer)
        : incoming_(incoming.All()), prefer_(prefer) {
        Match(editor);
        const auto replaced =
            std::count_if(candidates_.begin(), candidates_.end(),
                          [](const auto& one) { return one.own && one.incoming; });
        Choose(editor ? editor->TotalRoom(static_cast<std::uint64_t>(replaced))
                      : RoomOfNewCache(cache));
    }

    IncomingResult result;

private:
    bool Wins(const Incoming::Effect& effect, const IndexEntry& own) const {
        if (!prefer_.empty()) { return prefer_ == "source"; }
        return IsEarlier(own.record.entryTime, ToRecord(effect.time));
    }

    void Match(CacheEditor* editor) {
        if (editor) {
            for (const IndexEntry* const own : editor->Effects()) {
                const auto found = incoming_.find(NameOf(*own));
                const bool isInBoth = found != incoming_.end();
                const bool isReplaced = isInBoth && Wins(found->second, *own);
                candidates_.push_back({own, isReplaced ? &*found : nullptr});
                result.kept += isInBoth && !isReplaced ? 1 : 0;
            }
        }
        for (const auto& effect : incoming_) {
            if (!editor || !editor->Find(effect.first)) {
                candidates_.push_back({nullptr, &effect});
            }
        }
    }

    void Choose(CacheEditor::Room room) {
        std::stable_sort(candidates_.begin(), candidates_.end(),
                         [&](const Candidate& left, const Candidate& right) {
                             return left.Rank(room) != right.Rank(room)
                                        ? left.Rank(room) < right.Rank(room)
                                        : IsEarlier(right.Time(), left.Time());
                         });
        bool isFull = false;
        for (Candidate& candidate : candidates_) {
            const auto fits = [&] {
                return !isFull && room.effects > 0 && room.bytes >= candidate.Size(room);
            };
            if (candidate.own && candidate.incoming && !fits()) {
                candidate.incoming = nullptr;
                ++result.leftOut;
            }
            const bool stays = fits() || candidate.Rank(room) == 0;
            isFull = isFull || !stays;
            Note(candidate, stays);
            const std::uint64_t size = candidate.Size(room);
            room.effects -= std::min<std::uint64_t>(room.effects, 1);
            room.bytes -= std::min(room.bytes, size);
        }
        for (auto* const names : {&result.added, &result.replaced}) {
            std::sort(names->begin(), names->end(), [](const auto* left, const auto* right) {
                return Format::NameOrder()(*left, *right);
            });
        }
        std::sort(result.evicted.begin(), result.evicted.end(), Format::NameOrder());
    }

    void Note(const Candidate& candidate, bool stays) {
        if (!stays && candidate.own) { result.evicted.push_back(NameOf(*candidate.own)); }
        if (!candidate.incoming) { return; }
        if (!stays) {
            ++result.leftOut;
        } else {
            (candidate.own ? result.replaced : result.added).push_back(&candidate.incoming->first);
        }
    }

    const Incoming::Effects& incoming_;
    const std::string& prefer_;
    std::vector<Candidate> candidates_;
};

}  // namespace

// ---- Storing ------------------------------------------------------------------------------------

namespace {

void Apply(const IncomingResult& result, const Incoming& incoming, CacheEditor& editor,
           const Session& session) {
    Progress progress(session, "storing",
                      result.evicted.size() + result.added.size() + result.replaced.size());
    for (const std::string& name : result.evicted) {
        editor.Remove(editor.Find(name));
        progress.Add();
    }
    for (const std::string* const name : result.replaced) {
        StopIfAsked();
        editor.Remove(editor.Find(*name));
    }
    for (const auto* const names : {&result.added, &result.replaced}) {
        for (const std::string* const name : *names) {
            const Incoming::Effect& effect = incoming.All().at(*name);
            editor.Store(*name, incoming.Read(effect), effect.permanent, effect.time);
            progress.Add();
        }
    }
    editor.Commit();
}

}  // namespace

IncomingResult TakeIn(const Incoming& incoming, Cache& cache, const IncomingOptions& options,
                      const Session& session) {
    const Cache::Lock lock(cache);
    std::optional<CacheEditor> editor;
    if (cache.Exists() || !options.isDryRun) {
        editor.emplace(cache, lock, CacheEditor::Missing::Create);
    }
    IncomingResult result =
        Plan(incoming, cache, editor ? &*editor : nullptr, options.prefer).result;
    if (!options.isDryRun) { Apply(result, incoming, *editor, session); }
    return result;
}

void PrintChanges(Session& session, const IncomingResult& result) {
    for (const auto& [mark, names] :
         {std::pair("+ ", &result.added), std::pair("! ", &result.replaced)}) {
        for (const std::string* const name : *names) {
            session.out << mark << Escape(*name) << '\n';
        }
    }
    for (const std::string& name : result.evicted) {
        session.out << "- " << Escape(name) << '\n';
    }
}

void ReportResult(Session& session, const IncomingResult& result, const IncomingOptions& options,
                  std::uint64_t damaged) {
    if (options.isDryRun && !session.json) { PrintChanges(session, result); }
    if (result.leftOut > 0) { session.exitCode = kNo; }
    std::string line = fmt::format("{}added {}, replaced {}", options.isDryRun ? "would have " : "",
                                   Count(result.added.size(), "effect"), result.replaced.size());
    if (result.kept > 0) { line += fmt::format("; the cache's own stayed: {}", result.kept); }
    if (!result.evicted.empty() || result.leftOut > 0) {
        line += fmt::format("; for lack of room, evicted {} and left out {}", result.evicted.size(),
                            result.leftOut);
    }
    if (damaged > 0) { line += fmt::format("; left out as damaged: {}", damaged); }
    session.Report(line, {{"dryRun", options.isDryRun},
                          {"added", EscapeAll(result.added)},
                          {"replaced", EscapeAll(result.replaced)},
                          {"evicted", EscapeAll(result.evicted)},
                          {"kept", result.kept},
                          {"leftOut", result.leftOut},
                          {"damaged", damaged}});
}

}  // namespace Quorvel::Tool
