#include "tool/DamagedFiles.h"

#include <algorithm>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>
#include <sstream>
#include <vector>

#include "faults/RandomDamage.h"
#include "format/EffectCacheImage.h"
#include "support/TemporaryDirectory.h"
#include "tools/quorvel/Program.h"
#include "tools/quorvel/Session.h"
#include "torture/EffectBytes.h"

namespace Quorvel::Tool {

namespace fs = std::filesystem;

namespace {

using Faults::FileMap;
using Format::Bytes;

class Runner {
public:
    explicit Runner(DamagedFileRuns& runs) : runs_(runs) {}

    void Run(const FileMap& map, const Bytes& damaged, const std::string& name,
             const CommandLine& command) {
        map_ = &map;
        damaged_ = &damaged;
        name_ = name + ", " + command.front();
        fs::remove_all(saved_);
        fs::remove_all(output_);
        fs::create_directory(saved_);
        Format::WriteWholeFile(file_, damaged);
        Run(command);
        if (Format::ReadWholeFile(file_) != damaged) { Problem("changes the file"); }
        if (fs::exists(SavedFile())) { CheckSaved(); }
    }

private:
    void Run(CommandLine command) {
        for (std::string& argument : command) {
            if (argument == "{file}") { argument = file_; }
            if (argument == "{directory}") { argument = saved_; }
            if (argument == "{output}") { argument = output_; }
        }
        std::vector<const char*> argv = {"quorvel"};
        for (const std::string& argument : command) {
            argv.push_back(argument.c_str());
        }
        std::istringstream in;
        std::ostringstream out;
        std::ostringstream err;
        const int exitCode = RunProgram(static_cast<int>(argv.size()), argv.data(), {in, out, err});
        ++runs_.exitCodes[command.front()][exitCode];
        if (exitCode != kDone && exitCode != kNo) {
            Problem("ends with " + std::to_string(exitCode) + ": " + err.str());
        }
        if (exitCode == kNo && (out.str() + err.str()).empty()) { Problem("does not say why"); }
        if (std::count(command.begin(), command.end(), "--json") != 0 && !out.str().empty() &&
            !Json::accept(out.str())) {
            Problem("prints no JSON");
        }
    }

    void CheckSaved() {
        const Bytes saved = Format::ReadWholeFile(SavedFile());
        for (const std::string& problem : Format::CheckEffectCache(saved)) {
            Problem("leaves a cache in which " + problem);
        }
        const Format::Effects effects = Format::ReadEffectCache(Format::ReadPackage(saved));
        runs_.saved += effects.size();
        for (const FileMap::Entry& entry : map_->Entries()) {
            const auto effect = effects.find(entry.name);
            std::uint64_t version = 0;
            if (effect != effects.end() && map_->IsUntouched(entry, *damaged_) &&
                Torture::CheckEffect(entry.name, effect->second.data, version) !=
                    Torture::Verdict::Intact) {
                Problem("saves wrong bytes of " + entry.name);
            }
        }
    }

    void Problem(const std::string& text) { runs_.problems.push_back(name_ + ": " + text); }

    std::string SavedFile() const { return (fs::path(saved_) / "vornFxoCache.dat").string(); }

    DamagedFileRuns& runs_;
    const Testing::TemporaryDirectory directory_;
    const std::string file_ = directory_.File("vornFxoCache.dat");
    const std::string saved_ = directory_.File("saved");
    const std::string output_ = directory_.File("output.tar");
    const FileMap* map_ = nullptr;
    const Bytes* damaged_ = nullptr;
    std::string name_;
};

}  // namespace

std::vector<CommandLine> CommandsForDamagedFiles() {
    return {
        {"info", "{file}"},
        {"info", "{file}", "--json", "--offline"},
        {"list", "{file}", "--json"},
        {"check", "{file}", "--effects-format", "effecthost"},
        {"check", "{file}", "--json", "--max-problems", "3", "--offline"},
        {"salvage", "{file}", "{directory}", "--json"},
        {"export", "{file}", "{output}"},
        {"map", "{file}"},
        {"map", "{file}", "--svg", "--offline"},
    };
}

std::ostream& operator<<(std::ostream& stream, const DamagedFileRuns& runs) {
    stream << runs.files << " files";
    for (const auto& [command, codes] : runs.exitCodes) {
        stream << "; " << command << ":";
        for (const auto& [code, count] : codes) {
            stream << ' ' << count << " times " << code;
        }
    }
    stream << "; " << runs.saved << " effects saved; " << runs.problems.size() << " problems\n";
    for (const std::string& problem : runs.problems) {
        stream << problem << '\n';
    }
    return stream;
}

DamagedFileRuns RunOnDamagedFiles(std::uint64_t seed, std::uint64_t count,
                                  const std::vector<CommandLine>& commands) {
    std::vector<std::unique_ptr<FileMap>> maps;
    for (unsigned sample = 0; sample < Faults::kSampleSeeds; ++sample) {
        maps.push_back(std::make_unique<FileMap>(Faults::SampleCache(sample)));
    }
    DamagedFileRuns runs;
    Runner runner(runs);
    for (std::uint64_t number = 0; number < count; ++number) {
        const FileMap& map = *maps[number % maps.size()];
        const Bytes damaged = Faults::DamageRandomly(map, seed, number);
        ++runs.files;
        for (const CommandLine& command : commands) {
            runner.Run(map, damaged, "file " + std::to_string(number), command);
        }
    }
    return runs;
}

}  // namespace Quorvel::Tool
