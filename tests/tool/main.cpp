// quorvel-mutate-tool: runs the program "quorvel" on many randomly damaged caches.
#include <CLI/CLI.hpp>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "tool/DamagedFiles.h"

int main(int argc, char** argv) {
    using namespace Quorvel::Tool;
    std::uint64_t seed = 1;
    std::uint64_t count = 5000;
    std::vector<std::string> lines;
    CLI::App app(
        "Runs commands of the program \"quorvel\", in this process, on randomly damaged effect "
        "caches, and checks what they return and what they leave.");
    app.add_option("--seed", seed, "seed of all random choices")->capture_default_str();
    app.add_option("--count", count, "number of files")->capture_default_str();
    app.add_option("--command", lines,
                   "a command line such as \"check {file} --json\"; {directory} is an empty "
                   "directory, {output} a path where there is nothing; may be repeated; if it is "
                   "left out, all commands that take any file");
    CLI11_PARSE(app, argc, argv);

    std::vector<CommandLine> commands;
    for (const std::string& line : lines) {
        std::istringstream words(line);
        commands.emplace_back();
        for (std::string word; words >> word;) {
            commands.back().push_back(word);
        }
    }
    const DamagedFileRuns runs =
        RunOnDamagedFiles(seed, count, commands.empty() ? CommandsForDamagedFiles() : commands);
    std::cout << "seed " << seed << ", " << runs;
    return runs.problems.empty() ? 0 : 1;
}
