#include "Host.h"

#include <fmt/format.h>

#include <exception>
#include <optional>
#include <ostream>

#include "CacheDirectory.h"
#include "Console.h"
#include "EffectLibrary.h"
#include "Failure.h"
#include "Listing.h"
#include "Options.h"
#include "Paths.h"
#include "ProcessGroup.h"
#include "Processes.h"
#include "Session.h"
#include "SharedEffects.h"
#include "StopRequest.h"

namespace EffectHost {

namespace {

ProgressStyle ChooseProgress(const Options& options) {
    if (options.worker) { return ProgressStyle::Reports; }
    if (options.quiet || options.json) { return ProgressStyle::None; }
    return StandardOutputIsTerminal() ? ProgressStyle::Bar : ProgressStyle::Lines;
}

void Print(const Summary& summary, const Options& options, std::ostream& out) {
    if (options.json || options.worker) {
        out << ToJson(summary) << '\n';
    } else if (!options.quiet) {
        out << ToText(summary);
    }
}

// Checks the cache once every effect should be in it. Prints the summary even if a check fails.
void Conclude(Session& session, Summary summary, const Stopwatch& run, const Options& options,
              std::ostream& out) {
    std::exception_ptr problem;
    try {
        session.RequireAllSaved();
        session.Verify(options.verify);
        if (!options.listing.empty()) { session.Cache().WriteListing(options.listing); }
    } catch (const Failure&) { problem = std::current_exception(); }
    const Summary checked = session.Result();
    summary.verified = checked.verified;
    summary.checkTime = checked.checkTime;
    summary.effectsInFile = checked.effectsInFile;
    summary.wallTime = run.Microseconds();
    Print(summary, options, out);
    if (problem) { std::rethrow_exception(problem); }
    if (!summary.broken.empty()) { throw Failure(ExitCode::CompileError, BrokenText(summary)); }
}

void RunAlone(const Options& options, const EffectLibrary& library, const Stopwatch& run,
              std::ostream& out) {
    const ShaderCompiler compiler;
    Session session(options, library, compiler);
    {
        Progress progress(out, ChooseProgress(options), library.variants.size(), TerminalWidth());
        session.GetAllEffects(progress);
    }
    if (options.worker) {
        Print(session.Result(), options, out);
        return;
    }
    Conclude(session, session.Result(), run, options, out);
}

// The processes do the work; a session in this process then checks the cache.
void RunGroup(const Options& options, const EffectLibrary& library, const Stopwatch& run,
              std::ostream& out) {
    if (ChooseProgress(options) != ProgressStyle::None) {
        out << fmt::format("{} processes are running\n", options.processes) << std::flush;
    }
    Summary summary;
    {
        Progress progress(out, ChooseProgress(options), options.processes * library.variants.size(),
                          TerminalWidth());
        summary = RunProcessGroup(ExecutablePath(), options, library.variants.size(), progress);
    }
    summary.sources = library.sourceCount;

    const ShaderCompiler compiler;
    Session session(options, library, compiler);
    session.SkipBroken(summary);
    Conclude(session, summary, run, options, out);
}

void Run(Options options, std::ostream& out, std::ostream& err) {
    const Stopwatch run;
    if (options.worker) { StopAtEndOfInput(); }
    options.cacheDirectory = FindCacheDirectory(options.cacheDirectory);
    if (!options.listing.empty()) { RequireListingFile(options.listing, options.cacheDirectory); }
    const EffectLibrary library = LoadEffectLibrary(options.effectsFolder);
    std::optional<SharedEffects> shared;
    if (!options.share.empty()) {
        shared.emplace(options.cacheDirectory, options.share, ShaderCompiler().Identity(), err);
        shared->Take();
    }
    if (options.processes > 1) {
        RunGroup(options, library, run, out);
    } else {
        RunAlone(options, library, run, out);
    }
    if (shared) { shared->Send(); }
}

void RequireOutput(std::ostream& out) {
    if (!out.flush()) { throw Failure(ExitCode::OutputFailed, "can't write the output"); }
}

int Report(ExitCode code, const char* message, std::ostream& err) {
    err << kMessagePrefix << message << std::endl;
    return static_cast<int>(code);
}

}  // namespace

int RunHost(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
    PrepareStandardStreams();
    StopOnSignals();
    try {
        const auto options = ParseOptions(CommandLineWords(argc, argv),
                                          ExecutablePath().parent_path() / "effects", out);
        if (options) { Run(*options, out, err); }
        RequireOutput(out);
        return static_cast<int>(ExitCode::Success);
    } catch (const Failure& failure) {
        return Report(failure.Code(), failure.what(), err);
    } catch (const std::exception& error) {
        return Report(ExitCode::InternalError, error.what(), err);
    }
}

}  // namespace EffectHost
