// quorvel-torture: several processes on one effect cache, killed or not. Fails if a saved effect is
// missing or older, if bytes are wrong, if a cache is inert or if a process hangs.
#include <CLI/CLI.hpp>
#include <iostream>

#include "support/Agent.h"
#include "support/TemporaryDirectory.h"
#include "torture/Torture.h"

int main(int argc, char** argv) {
    int exitCode = 0;
    if (Quorvel::Testing::RunRequestedAgent(argc, argv, exitCode)) { return exitCode; }
    Quorvel::Torture::Options options;
    CLI::App app(
        "Runs several processes that use one effect cache at random, and checks every byte "
        "that they find and the file that they leave.");
    app.add_option("--directory", options.directory,
                   "an empty directory for the cache, which is kept; by default a temporary one");
    app.add_option("--seed", options.seed, "seed of all random choices")->capture_default_str();
    app.add_option("--seconds", options.seconds, "length of an orderly run in seconds")
        ->capture_default_str();
    app.add_option("--processes", options.processes, "number of processes at a time")
        ->check(CLI::Range(2, 8))
        ->capture_default_str();
    app.add_option("--kills", options.kills,
                   "number of processes to kill, most of them inside saves, recovery, trims "
                   "(with --room) and creation; 0 for an orderly run")
        ->capture_default_str();
    app.add_option(
           "--room", options.room,
           "most free bytes that the volume reports to the cache, at times fewer; 0 for the "
           "real number")
        ->capture_default_str();
    app.add_flag(
        "--fill-volume", options.fillsVolume,
        "fill the directory's volume at random; use a small volume that holds nothing else");
    CLI11_PARSE(app, argc, argv);
    if (options.fillsVolume && options.directory.empty()) {
        std::cerr << "--fill-volume needs a --directory on a small volume of its own\n";
        return 2;
    }

    const Quorvel::Testing::TemporaryDirectory own;
    if (options.directory.empty()) { options.directory = own.Path().string(); }
    const Quorvel::Torture::Report report = Quorvel::Torture::RunTorture(options);
    std::cout << "seed " << options.seed << ", " << options.processes << " processes, " << report;
    return report.IsGood() ? 0 : 1;
}
