// quorvel-torture: several processes on one effect cache, orderly or dying.
#include <CLI/CLI.hpp>
#include <iostream>

#include "support/Agent.h"
#include "support/TemporaryDirectory.h"
#include "torture/Torture.h"

int main(int argc, char** argv) {
    int exitCode = 0;
    if (Quorvel::Testing::RunRequestedAgent(argc, argv, exitCode)) {
        return exitCode;
    }
    Quorvel::Torture::Options options;
    CLI::App app(
        "Lets several processes work on one effect cache at random, and checks every byte "
        "that they find and the file that they leave.");
    app.add_option("--directory", options.directory,
                   "an empty directory for the cache, which is kept; otherwise one of its own");
    app.add_option("--seed", options.seed, "start value of all random choices")
        ->capture_default_str();
    app.add_option("--seconds", options.seconds, "length of an orderly run")->capture_default_str();
    app.add_option("--processes", options.processes, "processes at a time")
        ->check(CLI::Range(2, 8))
        ->capture_default_str();
    app.add_option("--kills", options.kills,
                   "kill processes at random moments, so many in all; 0 is an orderly run")
        ->capture_default_str();
    app.add_option("--room", options.room,
                   "tell the cache that its volume has at most so many free bytes, and at times "
                   "fewer; 0 tells the truth")
        ->capture_default_str();
    app.add_flag("--fill-volume", options.fillsVolume,
                 "fill the directory's volume at random; it should be a small one of its own");
    CLI11_PARSE(app, argc, argv);
    if (options.fillsVolume && options.directory.empty()) {
        std::cerr << "--fill-volume needs a --directory on a small volume of its own\n";
        return 2;
    }

    const Quorvel::Testing::TemporaryDirectory own;
    if (options.directory.empty()) {
        options.directory = own.Path().string();
    }
    const Quorvel::Torture::Report report = Quorvel::Torture::RunTorture(options);
    std::cout << "seed " << options.seed << ", " << options.processes << " processes, " << report;
    return report.IsGood() ? 0 : 1;
}
