#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>

#include "tools/quorvel/Cache.h"
#include "tools/quorvel/Commands.h"
#include "tools/quorvel/EffectStore.h"
#include "tools/quorvel/ShareOptions.h"
#include "tools/quorvel/StoreTransfer.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {
namespace {

// "1.2 s, 119.0 MiB/s".
std::string Rate(std::uint64_t bytes, double seconds) {
    return fmt::format(
        "{:.1f} s, {}/s", seconds,
        Size(static_cast<std::uint64_t>(static_cast<double>(bytes) / std::max(seconds, 0.001))));
}

// What a command has done in one direction: for people, and for programs.
struct Report {
    std::string line;
    Json json;
};

class Sharing {
public:
    Sharing(const ShareOptions& options, Session& session)
        : transfer_(options.Transfer()),
          session_(session),
          cache_(session, options.cache),
          store_(options.Url(), options.ServerTimeout()) {}

    Report Push() {
        cache_.RequireFile();
        const auto begin = Clock::now();
        const PushResult result = PushEffects(
            cache_, store_, transfer_, [](const auto&) { return true; }, session_);
        const double seconds = Since(begin);
        NoteProblems(result.leftOut, result.damaged);
        std::string line = fmt::format("{}sent {}, {} in {}", Would(), Count(result.sent, "effect"),
                                       Size(result.bytes), Rate(result.bytes, seconds));
        if (result.equal > 0) { line += fmt::format("; already there: {}", result.equal); }
        if (result.kept > 0) { line += fmt::format("; the store's own stayed: {}", result.kept); }
        AddProblems(line, result.leftOut, result.damaged);
        return {line, Json{{"dryRun", transfer_.isDryRun},
                           {"sent", result.sent},
                           {"bytes", result.bytes},
                           {"equal", result.equal},
                           {"kept", result.kept},
                           {"leftOut", result.leftOut},
                           {"damaged", result.damaged},
                           {"seconds", seconds}}};
    }

    Report Pull() {
        const auto begin = Clock::now();
        RefusedVersions refused;
        const PullResult result =
            PullEffects(cache_, store_, transfer_, nullptr, refused, session_);
        const double seconds = Since(begin);
        try {
            store_.AskFor(result.damaged);
        } catch (const ServerRefusal&) {
            // Some users may only read.
        }
        NoteProblems(result.leftOut, result.damaged.size());
        std::string line =
            fmt::format("{}added {}, replaced {}, {} in {}", Would(), Count(result.added, "effect"),
                        result.replaced, Size(result.bytes), Rate(result.bytes, seconds));
        if (result.kept > 0) { line += fmt::format("; the cache's own stayed: {}", result.kept); }
        if (result.evicted > 0) {
            line += fmt::format("; for lack of room, evicted {}", result.evicted);
        }
        AddProblems(line, result.leftOut, result.damaged.size());
        return {line, Json{{"dryRun", transfer_.isDryRun},
                           {"added", result.added},
                           {"replaced", result.replaced},
                           {"evicted", result.evicted},
                           {"bytes", result.bytes},
                           {"kept", result.kept},
                           {"leftOut", result.leftOut},
                           {"damaged", result.damaged.size()},
                           {"seconds", seconds}}};
    }

    bool HasCache() const { return cache_.Exists(); }

private:
    using Clock = std::chrono::steady_clock;

    static double Since(Clock::time_point begin) {
        return std::chrono::duration<double>(Clock::now() - begin).count();
    }

    const char* Would() const { return transfer_.isDryRun ? "would have " : ""; }

    void NoteProblems(std::uint64_t leftOut, std::uint64_t damaged) {
        if (leftOut > 0 || damaged > 0) { session_.exitCode = kNo; }
    }

    static void AddProblems(std::string& line, std::uint64_t leftOut, std::uint64_t damaged) {
        if (leftOut > 0) {
            line += fmt::format("; left out, for lack of room or by --max-bytes: {}", leftOut);
        }
        if (damaged > 0) { line += fmt::format("; left out as damaged: {}", damaged); }
    }

    const TransferOptions transfer_;
    Session& session_;
    Cache cache_;
    EffectStore store_;
};

void RunPush(const ShareOptions& options, Session& session) {
    const Report report = Sharing(options, session).Push();
    session.Report(report.line, report.json);
}

void RunPull(const ShareOptions& options, Session& session) {
    const Report report = Sharing(options, session).Pull();
    session.Report(report.line, report.json);
}

// Pulls first, so that nothing is sent that the store has in a newer version.
void RunSync(const ShareOptions& options, Session& session) {
    Sharing sharing(options, session);
    const Report pulled = sharing.Pull();
    Report pushed = {"nothing to send", nullptr};
    if (sharing.HasCache()) { pushed = sharing.Push(); }
    session.Report(fmt::format("{}; {}", pulled.line, pushed.line),
                   {{"pulled", pulled.json}, {"pushed", pushed.json}});
}

void AddSharing(CLI::App& program, Session& session, const std::string& name,
                const std::string& help, void (*run)(const ShareOptions&, Session&),
                bool isSending) {
    const auto options = std::make_shared<ShareOptions>();
    Command command = AddCommand(program, session, name, help,
                                 [options, run, &session] { run(*options, session); });
    options->AddTo(command);
    options->AddLimitsTo(command);
    if (isSending) { options->AddTimeToLiveTo(command); }
}

}  // namespace

void AddPush(CLI::App& program, Session& session) {
    AddSharing(program, session, "push",
               "Sends effects to a Redis server, from which other machines take them", RunPush,
               true);
}

void AddPull(CLI::App& program, Session& session) {
    AddSharing(program, session, "pull",
               "Takes effects from a Redis server; makes the cache if the directory has none",
               RunPull, false);
}

void AddSync(CLI::App& program, Session& session) {
    AddSharing(program, session, "sync", "Takes effects from a Redis server and sends it others",
               RunSync, true);
}

}  // namespace Quorvel::Tool
