#include "Options.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>

#include "Failure.h"
#include "Paths.h"

namespace EffectHost {

namespace {

constexpr std::size_t kDefaultVerify = 20;
constexpr std::size_t kDefaultGroupSaveEvery = 16;
constexpr std::size_t kMaxProcesses = 64;
constexpr std::size_t kMaxStart = 1000000;

constexpr const char* kDescription =
    "Compiles the shader effects of a folder, every variant once, and keeps the results in an "
    "effect cache.\nA second run finds them in the cache instead of compiling them.";

constexpr const char* kExitCodes =
    "Exit codes:\n"
    "  0  all effects are in the cache\n"
    "  1  internal error\n"
    "  2  bad command line\n"
    "  3  the effects folder is missing, empty or has a malformed effect\n"
    "  4  the cache directory does not exist, or can't be reached\n"
    "  5  an effect does not compile; with --keep-going, after all others have been cached\n"
    "  6  the cache can't be used, or its file lacks effects at the end\n"
    "  7  the cached bytes of an effect differ from the compiler's\n"
    "  8  one of several processes could not be started, or was killed\n"
    "  9  the shader compiler can't be loaded\n"
    " 10  the output or the listing can't be written\n"
    " 11  stopped by Ctrl-C or another request; what was compiled is saved\n";

CLI::Option* AddPath(CLI::App& app, const std::string& name, std::filesystem::path& path,
                     const std::string& text) {
    const auto set = [&path](const std::string& word) { path = ToPath(word); };
    return app.add_option_function<std::string>(name, set, text);
}

void AddWhatToDo(CLI::App& app, Options& options) {
    AddPath(app, "--cache", options.cacheDirectory,
            "Directory of the cache file. The directory must exist; the file is created if missing")
        ->required()
        ->type_name("DIR");
    AddPath(app, "--effects", options.effectsFolder, "Folder with the .hlsl files")
        ->default_str(ToText(options.effectsFolder))
        ->type_name("DIR");
    app.add_option("--processes", options.processes,
                   "Run N processes at once. Each does all the work, with its own starting point")
        ->check(CLI::Range(std::size_t{1}, kMaxProcesses))
        ->type_name("N");
    app.add_option("--start", options.start,
                   "Start with variant N, counted from 0, and wrap around at the end")
        ->check(CLI::Range(std::size_t{0}, kMaxStart))
        ->type_name("N");
    app.add_option("--permanent", options.permanent,
                   "Never evict effects whose name matches (* is any run of characters, ? any one "
                   "character). Can be repeated. Matching effects already cached are saved again")
        ->take_all()
        ->allow_extra_args(false)
        ->type_name("PATTERN");
    app.add_option("--share", options.share,
                   "Take effects from a Redis server first, and send it new ones at the end, with "
                   "the program quorvel")
        ->type_name("URL");
    app.add_flag("--keep-going", options.keepGoing,
                 "Go on past effects that do not compile, and report them at the end");
}

void AddWhatToReport(CLI::App& app, Options& options) {
    AddPath(app, "--list", options.listing, "Write a listing of the saved effects at the end")
        ->type_name("FILE");
    app.add_flag("--quiet", options.quiet, "Print nothing but errors");
    app.add_flag("--json", options.json, "Print the summary as one line of JSON and no progress");
    app.add_flag("--worker", options.worker)->group("");  // internal, so not in the help
    app.footer(kExitCodes);
}

// The error message if a text is not a whole number; empty if it is one, or if it was left out.
std::string WholeNumberProblem(const std::string& text) {
    constexpr std::size_t kMostDigits = 9;
    const bool isNumber = text.find_first_not_of("0123456789") == text.npos;
    const bool isGood = isNumber && text.size() <= kMostDigits;
    return isGood ? "" : fmt::format("{} is not a whole number up to 999999999", text);
}

// An option whose number may be left out.
CLI::Option* AddOptionalNumber(CLI::App& app, const std::string& name, const std::string& text) {
    return app.add_option(name, text)
        ->expected(0, 1)
        ->check(CLI::Validator(WholeNumberProblem, {}))
        ->type_name("[N]");
}

std::size_t NumberOr(const CLI::Option& option, std::size_t notGiven, std::size_t withoutNumber) {
    if (option.count() == 0) { return notGiven; }
    const std::string text = option.as<std::string>();
    return text.empty() || text == "true" ? withoutNumber : option.as<std::size_t>();
}

// What is wrong with the command line. A word that is not known is named first: CLI11 reports that
// something else is missing before it looks for such words.
std::string ProblemOf(const CLI::App& app, const CLI::ParseError& error) {
    const std::vector<std::string> unknown = app.remaining();
    const auto option = std::find_if(unknown.begin(), unknown.end(),
                                     [](const auto& word) { return word.starts_with('-'); });
    if (option != unknown.end()) { return fmt::format("unknown option {}", *option); }
    return unknown.empty() ? error.what() : fmt::format("unknown argument {}", unknown.front());
}

}  // namespace

std::optional<Options> ParseOptions(const std::vector<std::string>& words,
                                    const std::filesystem::path& defaultEffects,
                                    std::ostream& out) {
    Options options;
    options.effectsFolder = defaultEffects;
    CLI::App app(kDescription, "effecthost");
    AddWhatToDo(app, options);
    const CLI::Option* forceSave = AddOptionalNumber(
        app, "--force-save",
        "Save after every N compiled effects (1 without N), so that other processes find them "
        "sooner; 0 saves in batches. Default: 0 for one process, 16 for several");
    const CLI::Option* verify = AddOptionalNumber(
        app, "--verify",
        "At the end, recompile N effects (20 without N) and compare them with the cached bytes");
    AddWhatToReport(app, options);
    app.set_version_flag("--version", "effecthost " EFFECTHOST_VERSION);

    try {
        // parse() takes the words in reverse order, without the program's name.
        app.parse(std::vector<std::string>(words.rbegin(), words.rend() - 1));
        options.saveEvery =
            NumberOr(*forceSave, options.processes > 1 ? kDefaultGroupSaveEvery : 0, 1);
        options.verify = NumberOr(*verify, 0, kDefaultVerify);
    } catch (const CLI::CallForHelp&) {
        out << app.help();
        return std::nullopt;
    } catch (const CLI::CallForVersion& version) {
        out << version.what() << '\n';
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        throw Failure(ExitCode::BadUsage, ProblemOf(app, error) + " (--help explains)");
    }
    return options;
}

std::vector<std::string> WorkerArguments(const Options& options, std::size_t start) {
    std::vector<std::string> arguments{"--cache",      ToText(options.cacheDirectory),
                                       "--effects",    ToText(options.effectsFolder),
                                       "--start",      std::to_string(start),
                                       "--force-save", std::to_string(options.saveEvery),
                                       "--worker"};
    if (options.keepGoing) { arguments.push_back("--keep-going"); }
    for (const std::string& pattern : options.permanent) {
        arguments.insert(arguments.end(), {"--permanent", pattern});
    }
    return arguments;
}

}  // namespace EffectHost
