// quorvel-bench-stores: measures the same effects in several stores, in one process and one run.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include "stores/Report.h"
#include "stores/Store.h"
#include "stores/Workload.h"
#include "support/Agent.h"
#include "support/Machine.h"

namespace {

using namespace Quorvel::Benchmarks;

struct Options {
    WorkloadOptions workload;
    std::vector<std::size_t> counts;
    std::vector<std::string> stores;
    int rounds = 5;
    std::string json;
};

// Shows the progress: on a terminal in place of the previous text, in a log as a line.
void ShowProgress(const std::string& text) {
    std::fprintf(stderr, ::isatty(STDERR_FILENO) ? "\r%-70s\r" : "%s\n", text.c_str());
}

// Rounds are interleaved: each round measures every store once and starts with a different one.
WorkloadResults Measure(const Options& options, std::size_t count) {
    const Workload workload(options.workload, count);
    WorkloadResults results{count, workload.EffectBytes(), workload.NameBytes(), {}};
    for (int round = 0; round < options.rounds; ++round) {
        for (std::size_t turn = 0; turn < options.stores.size(); ++turn) {
            const std::size_t index =
                (turn + static_cast<std::size_t>(round)) % options.stores.size();
            const StoreKind& kind = FindStoreKind(options.stores[index]);
            ShowProgress(std::to_string(count) + " effects, round " + std::to_string(round + 1) +
                         " of " + std::to_string(options.rounds) + ", " + kind.title);
            workload.RunRound(kind, results.byStore[kind.name]);
        }
    }
    for (const std::string& name : options.stores) {
        ShowProgress(std::to_string(count) + " effects, memory and system calls, " + name);
        workload.RunOnce(FindStoreKind(name), results.byStore[name]);
    }
    ShowProgress("");
    return results;
}

void Run(Options& options) {
    const EffectSource source(options.workload.effects, options.workload.seed);
    if (options.counts.empty()) {
        const std::size_t files = source.FileCount();
        options.counts = files == 0 ? std::vector<std::size_t>{8000, 40000}
                                    : std::vector<std::size_t>{files, 5 * files};
    }
    if (options.stores.empty()) {
        for (const StoreKind& kind : StoreKinds()) {
            options.stores.push_back(kind.name);
        }
    }
    nlohmann::ordered_json machine = DescribeMachine();
    machine["clock"] = ClockName(options.workload.clock);
    std::vector<WorkloadResults> results;
    for (const std::size_t count : options.counts) {
        results.push_back(Measure(options, count));
        PrintTables(results.back());
    }
    if (!options.json.empty()) { WriteJson(options.json, results, source.Description(), machine); }
}

}  // namespace

int main(int argc, char** argv) {
    int exitCode = 0;
    try {
        if (Quorvel::Testing::RunRequestedAgent(argc, argv, exitCode)) { return exitCode; }
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }

    Options options;
    options.workload.directory = std::filesystem::temp_directory_path().string();
    bool byProcessor = false;
    bool noProcesses = false;
    bool noMemory = false;
    bool noCalls = false;
    CLI::App app("Saves and finds the same effects in several stores and compares them");
    app.add_option("--effects", options.workload.effects,
                   "Real effects: a directory whose files are effects, named by their paths in it, "
                   "or a file that lists one file per line, with a tab and a name after it if the "
                   "name is not the path (default: made-up effects)");
    app.add_option("--counts", options.counts,
                   "Numbers of effects (default: 8000,40000; with --effects their number and five "
                   "times that, repeated under other names)")
        ->delimiter(',');
    app.add_option("--stores", options.stores,
                   "Some of quorvel,lmdb,leveldb,rocksdb,directory,sqlite (default: all)")
        ->delimiter(',');
    app.add_option("--rounds", options.rounds, "Rounds (default 5)")->check(CLI::PositiveNumber);
    app.add_option("--seed", options.workload.seed, "Seed for effects and orders (default 1)");
    app.add_option("--directory", options.workload.directory,
                   "Folder for the stores (default: the folder for temporary files)");
    app.add_option("--json", options.json, "File to write every sample to");
    app.add_flag("--processor-time", byProcessor,
                 "Measure processor time of all threads instead of wall-clock time where only one "
                 "process works, for a busy machine");
    app.add_flag("--no-processes", noProcesses, "Skip the measurements with other processes");
    app.add_flag("--no-memory", noMemory, "Skip the memory peaks");
    app.add_flag("--no-calls", noCalls, "Skip the system calls");
    CLI11_PARSE(app, argc, argv);
    options.workload.clock = byProcessor ? Clock::Processor : Clock::Wall;
    options.workload.withProcesses = !noProcesses;
    options.workload.withMemory = !noMemory;
    options.workload.withCalls = !noCalls;
    try {
        Run(options);
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "\n%s\n", failure.what());
        return 1;
    }
}
