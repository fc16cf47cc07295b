#include "Host.h"

#include <fmt/format.h>

#include <ostream>

#include "EffectLibrary.h"
#include "Failure.h"
#include "Options.h"
#include "ProcessGroup.h"
#include "Processes.h"
#include "Session.h"

namespace EffectHost {

namespace {

ProgressStyle ChooseProgress(const Options& options) {
    if (options.quiet || options.json) {
        return ProgressStyle::None;
    }
    return StandardOutputIsTerminal() ? ProgressStyle::Bar : ProgressStyle::Lines;
}

void RequireCacheDirectory(const Options& options) {
    if (!std::filesystem::is_directory(options.cacheDirectory)) {
        throw Failure(ExitCode::NoCacheDirectory, fmt::format("there is no cache directory {}",
                                                              options.cacheDirectory.string()));
    }
}

// What is done once, when every effect is in the cache.
void Finish(Session& session, const Options& options) {
    session.Verify(options.verify);
    if (!options.listing.empty()) {
        session.Cache().WriteListing(options.listing);
    }
}

Summary RunAlone(const Options& options, const EffectLibrary& library, std::ostream& out) {
    const ShaderCompiler compiler;
    Session session(options, library, compiler);
    Progress progress(out, ChooseProgress(options), library.variants.size());
    session.GetAllEffects(progress);
    Finish(session, options);
    return session.Result();
}

// The processes do the work; a session of our own looks at the cache that they leave.
Summary RunGroup(const Options& options, const EffectLibrary& library, std::ostream& out) {
    if (ChooseProgress(options) != ProgressStyle::None) {
        out << fmt::format("{} processes are at work\n", options.processes) << std::flush;
    }
    Summary summary = RunProcessGroup(ExecutablePath(), options, library.variants.size());
    summary.sources = library.sourceCount;

    const ShaderCompiler compiler;
    Session session(options, library, compiler);
    Finish(session, options);
    summary.verified = session.Result().verified;
    summary.effectsInFile = session.Result().effectsInFile;
    return summary;
}

Summary Run(const Options& options, std::ostream& out) {
    RequireCacheDirectory(options);
    TimeAccount wallTime;
    Summary summary;
    {
        const Stopwatch watch(wallTime);
        const EffectLibrary library = LoadEffectLibrary(options.effectsFolder);
        summary = options.processes > 1 ? RunGroup(options, library, out)
                                        : RunAlone(options, library, out);
    }
    summary.wallTime = wallTime.Microseconds();
    return summary;
}

void Print(const Summary& summary, const Options& options, std::ostream& out) {
    if (options.json) {
        out << ToJson(summary) << '\n';
    } else if (!options.quiet) {
        out << ToText(summary);
    }
    out << std::flush;
}

int Report(ExitCode code, const char* message, std::ostream& err) {
    err << "effecthost: " << message << std::endl;
    return static_cast<int>(code);
}

}  // namespace

int RunHost(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
    try {
        const auto options =
            ParseOptions(argc, argv, ExecutablePath().parent_path() / "effects", out);
        if (options) {
            Print(Run(*options, out), *options, out);
        }
        return static_cast<int>(ExitCode::Success);
    } catch (const Failure& failure) {
        return Report(failure.Code(), failure.what(), err);
    } catch (const std::exception& error) {
        return Report(ExitCode::InternalError, error.what(), err);
    }
}

}  // namespace EffectHost
