// quorvel-mutate: opens, reads, changes and saves many randomly damaged files.
#include <CLI/CLI.hpp>
#include <iostream>

#include "faults/Mutation.h"

int main(int argc, char** argv) {
    std::uint64_t seed = 1;
    std::uint64_t count = 5000;
    CLI::App app(
        "Opens randomly damaged effect caches, as packages and as caches, reads all of them, "
        "changes and saves them, and checks memory, file system calls and every byte that is "
        "found.");
    app.add_option("--seed", seed, "seed of all random choices")->capture_default_str();
    app.add_option("--count", count, "number of files")->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    const Quorvel::Faults::Findings findings = Quorvel::Faults::ExamineMutations(seed, count);
    std::cout << "seed " << seed << ", " << findings;
    return findings.IsGood() ? 0 : 1;
}
