// quorvel-bench-floor: compares the time of the cache with that of its page transfers alone.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "floor/CacheSteps.h"
#include "floor/Replay.h"
#include "floor/Transfers.h"
#include "support/Agent.h"
#include "support/Machine.h"
#include "support/ScratchDirectory.h"
#include "support/Statistics.h"

namespace {

using namespace Quorvel::Benchmarks;

struct Options {
    std::string effects;
    std::vector<std::size_t> counts;
    int rounds = 7;
    std::uint64_t seed = 1;
    std::string directory = std::filesystem::temp_directory_path().string();
    std::string json;
    std::string transfers;
    Clock clock = Clock::Wall;
};

// Times of one phase in nanoseconds per effect, a sample for each round.
struct PhaseTimes {
    const char* name;
    const PhaseTransfers& transfers;
    std::vector<double> cache = {};
    std::vector<double> floor = {};
    std::vector<double> stdio = {};

    double Quotient() const { return QuotientTo(floor); }
    double StdioQuotient() const { return QuotientTo(stdio); }

    // The median of the rounds' quotients, so that a slow round does not distort it.
    double QuotientTo(const std::vector<double>& times) const {
        std::vector<double> quotients;
        for (std::size_t round = 0; round < cache.size(); ++round) {
            quotients.push_back(cache[round] / times[round]);
        }
        return Median(quotients);
    }
};

void RunCache(const FloorTask& task, const std::string& directory, Clock clock,
              std::vector<PhaseTimes>& times) {
    const ScratchDirectory scratch(directory);
    const auto count = static_cast<double>(task.effects.size());
    const auto nothing = [] {};
    CacheSteps steps(task, scratch.Path());
    const Stopwatch saving(clock);
    steps.SaveAll(nothing);
    times[0].cache.push_back(saving.Nanoseconds() / count);
    const Stopwatch opening(clock);
    steps.Open();
    times[1].cache.push_back(opening.Nanoseconds() / count);
    const Stopwatch searching(clock);
    steps.FindAll(nothing);
    times[2].cache.push_back(searching.Nanoseconds() / count);
}

void RunFloor(Replay& replay, std::size_t effects, const std::string& directory,
              std::vector<PhaseTimes>& times) {
    const auto count = static_cast<double>(effects);
    for (const Replay::Calls calls : {Replay::Calls::Bare, Replay::Calls::Stdio}) {
        const ScratchDirectory scratch(directory);
        const std::string path = scratch.Path() + "/pages";
        const auto add = [&](PhaseTimes& phase, double time) {
            (calls == Replay::Calls::Bare ? phase.floor : phase.stdio).push_back(time / count);
        };
        replay.Create(path);
        add(times[0], replay.Save(path, calls));
        add(times[1], replay.Open(path, calls));
        add(times[2], replay.FindAll(path, calls));
    }
}

void Print(std::size_t count, const std::vector<PhaseTimes>& times) {
    std::printf("\n%zu effects, medians, nanoseconds per effect; pages and calls per effect\n",
                count);
    std::printf("%-10s%10s%10s%10s%10s%10s%10s%10s%10s%10s\n", "", "Quorvel", "floor", "quotient",
                "stdio", "quotient", "reads", "writes", "growths", "calls");
    for (const PhaseTimes& phase : times) {
        const auto per = [&](Transfer::Kind kind) {
            return static_cast<double>(phase.transfers.Bytes(kind)) / 8192 /
                   static_cast<double>(count);
        };
        std::printf("%-10s%10.0f%10.0f%10.2f%10.0f%10.2f%10.2f%10.2f%10.2f%10.2f\n", phase.name,
                    Median(phase.cache), Median(phase.floor), phase.Quotient(), Median(phase.stdio),
                    phase.StdioQuotient(), per(Transfer::Kind::Read), per(Transfer::Kind::Write),
                    per(Transfer::Kind::Grow),
                    static_cast<double>(phase.transfers.calls) / static_cast<double>(count));
    }
    std::fflush(stdout);
}

nlohmann::ordered_json Describe(std::size_t count, const std::vector<PhaseTimes>& times) {
    nlohmann::ordered_json entry;
    entry["count"] = count;
    for (const PhaseTimes& phase : times) {
        entry["phases"][phase.name] = {
            {"quorvel_ns", phase.cache},
            {"floor_ns", phase.floor},
            {"quotient", phase.Quotient()},
            {"stdio_ns", phase.stdio},
            {"stdio_quotient", phase.StdioQuotient()},
            {"pages_read", phase.transfers.Bytes(Transfer::Kind::Read) / 8192},
            {"pages_written", phase.transfers.Bytes(Transfer::Kind::Write) / 8192},
            {"pages_grown", phase.transfers.Bytes(Transfer::Kind::Grow) / 8192},
            {"calls", phase.transfers.calls}};
    }
    return entry;
}

nlohmann::ordered_json Measure(const Options& options, std::size_t count) {
    const FloorTask task(options.effects, options.seed, count);
    const RecordedTransfers recorded = RecordTransfers(task, options.directory);
    if (!options.transfers.empty()) { WriteTransfers(options.transfers, recorded); }
    std::vector<PhaseTimes> times = {
        {"save", recorded.save}, {"open", recorded.open}, {"all once", recorded.allOnce}};
    Replay replay(task, recorded, options.clock);
    for (int round = 0; round < options.rounds; ++round) {
        if (round % 2 == 0) { RunCache(task, options.directory, options.clock, times); }
        RunFloor(replay, count, options.directory, times);
        if (round % 2 != 0) { RunCache(task, options.directory, options.clock, times); }
    }
    Print(count, times);
    return Describe(count, times);
}

void Run(Options& options) {
    const EffectSource source(options.effects, options.seed);
    if (options.counts.empty()) {
        const std::size_t files = source.FileCount();
        options.counts = files == 0 ? std::vector<std::size_t>{8000, 40000}
                                    : std::vector<std::size_t>{files, 5 * files};
    }
    nlohmann::ordered_json document = {{"machine", DescribeMachine()},
                                       {"effects", source.Description()}};
    document["machine"]["clock"] = ClockName(options.clock);
    for (const std::size_t count : options.counts) {
        document["results"].push_back(Measure(options, count));
    }
    if (!options.json.empty()) {
        std::ofstream file(options.json);
        file << document.dump(1) << '\n';
        if (!file.flush()) { throw std::runtime_error("can't write " + options.json); }
    }
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app("Compares the time of the cache with that of its page transfers alone");
    app.add_option("--effects", options.effects,
                   "Real effects, as for quorvel-bench-stores (default: made-up effects)");
    app.add_option("--counts", options.counts,
                   "Numbers of effects (default: 8000,40000; with --effects their number and five "
                   "times that, repeated under other names)")
        ->delimiter(',');
    app.add_option("--rounds", options.rounds, "Rounds (default 7)")->check(CLI::PositiveNumber);
    app.add_option("--seed", options.seed, "Seed for effects and orders (default 1)");
    app.add_option("--directory", options.directory,
                   "Folder for the files (default: the folder for temporary files)");
    app.add_option("--json", options.json, "File to write every sample to");
    app.add_option("--transfers", options.transfers,
                   "File to write the transfers of the last number of effects to");
    bool byProcessor = false;
    app.add_flag("--processor-time", byProcessor,
                 "Measure processor time instead of wall-clock time, for a busy machine");
    try {
        int exitCode = 0;
        if (Quorvel::Testing::RunRequestedAgent(argc, argv, exitCode)) { return exitCode; }
        CLI11_PARSE(app, argc, argv);
        options.clock = byProcessor ? Clock::Processor : Clock::Wall;
        Run(options);
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
}
