// Measures time and memory of the program quorvel on caches of 65,534 effects and 255 MiB.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "quorvel/Quorvel.h"
#include "support/ScratchDirectory.h"
#include "support/Statistics.h"

namespace Quorvel::Benchmarks {
namespace {

constexpr std::size_t kEffects = 65534;
constexpr std::size_t kMeanSize = 3980;  // about 255 MiB in all

struct Usage {
    double seconds;
    double processorSeconds;
    double megabytes;
};

// Fills a cache with effects of 1 to 2 * kMeanSize bytes that hardly compress.
void Fill(const std::string& directory, const std::string& prefix, unsigned seed) {
    const Util::RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(directory.c_str()));
    std::mt19937 random(seed);
    std::vector<unsigned char> code(2 * kMeanSize);
    for (std::size_t i = 0; i < kEffects; ++i) {
        std::generate(code.begin(), code.end(),
                      [&] { return static_cast<unsigned char>(random()); });
        const std::string name = prefix + std::to_string(i) + " ps_5_0 TAPS=9 SHADOWS=1";
        cache->CacheCompiledEffect(name.c_str(), code.data(), 1 + random() % code.size(), false);
    }
}

Usage Run(const std::string& program, const std::vector<std::string>& arguments) {
    const Stopwatch watch;
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(::open("/dev/null", O_WRONLY), STDOUT_FILENO);
        std::vector<char*> argv = {const_cast<char*>(program.c_str())};
        for (const std::string& argument : arguments) {
            argv.push_back(const_cast<char*>(argument.c_str()));
        }
        argv.push_back(nullptr);
        ::execv(program.c_str(), argv.data());
        ::_exit(127);
    }
    int status = 0;
    rusage usage{};
    ::wait4(child, &status, 0, &usage);
    if (status != 0) { throw std::runtime_error(arguments[0] + " has failed"); }
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return {watch.Nanoseconds() / 1e9, seconds(usage.ru_utime) + seconds(usage.ru_stime),
            static_cast<double>(usage.ru_maxrss) / 1024};
}

void Measure(const std::string& label, int rounds, const std::function<void()>& prepare,
             const std::function<Usage()>& run) {
    std::vector<double> seconds;
    std::vector<double> processor;
    std::vector<double> megabytes;
    for (int i = 0; i < rounds; ++i) {
        prepare();
        const Usage usage = run();
        seconds.push_back(usage.seconds);
        processor.push_back(usage.processorSeconds);
        megabytes.push_back(usage.megabytes);
    }
    std::printf("%-22s %7.2f s %7.2f s of processor %7.1f MiB\n", label.c_str(), Median(seconds),
                Median(processor), Median(megabytes));
    std::fflush(stdout);
}

void Main(const std::string& program, int rounds) {
    namespace fs = std::filesystem;
    const ScratchDirectory scratch(fs::temp_directory_path());
    const std::string full = scratch.Path() + "/full";
    const std::string other = scratch.Path() + "/other";
    const std::string work = scratch.Path() + "/work";
    const std::string effect = scratch.Path() + "/effect";
    const std::string archive = scratch.Path() + "/effects.tar";
    for (const std::string& directory : {full, other, work}) {
        fs::create_directory(directory);
    }
    std::ofstream(effect) << std::string(kMeanSize, 'x');
    Fill(full, "full/", 1);
    Fill(other, "other/", 2);
    const auto nothing = [] {};
    const auto copy = [&] {
        fs::copy_file(full + "/vornFxoCache.dat", work + "/vornFxoCache.dat",
                      fs::copy_options::overwrite_existing);
    };
    const auto empty = [&] { fs::remove(work + "/vornFxoCache.dat"); };
    const auto command = [&](std::vector<std::string> arguments) {
        return [&program, arguments = std::move(arguments)] { return Run(program, arguments); };
    };
    Measure("info", rounds, nothing, command({"info", full}));
    Measure("list", rounds, nothing, command({"list", full}));
    Measure("list --json", rounds, nothing, command({"list", full, "--json"}));
    Measure("check", rounds, nothing, command({"check", full}));
    Measure("map", rounds, nothing, command({"map", full}));
    Measure("get", rounds, nothing, command({"get", full, "full/1 ps_5_0 TAPS=9 SHADOWS=1"}));
    Measure("diff, equal caches", rounds, copy, command({"diff", full, work}));
    Measure("export to .tar", rounds, nothing, command({"export", full, archive}));
    Measure("export to .tar.gz", rounds, nothing, command({"export", full, archive + ".gz"}));
    Measure("export to .tar.zst", rounds, nothing, command({"export", full, archive + ".zst"}));
    Measure("import, empty cache", rounds, empty, command({"import", work, archive}));
    Measure("import from .tar.zst", rounds, empty, command({"import", work, archive + ".zst"}));
    Measure("salvage", rounds, empty, command({"salvage", full, work}));
    Measure("merge, all new", rounds, copy, command({"merge", work, other}));
    Measure("merge, all known", rounds, copy, command({"merge", work, full}));
    Measure("put", rounds, copy, command({"put", work, "new", effect}));
    Measure("set, all effects", rounds, copy,
            command({"set", work, "--match", "*", "--permanent"}));
    Measure("remove, all effects", rounds, copy, command({"remove", work, "--match", "*"}));
    Measure("prune to half", rounds, copy,
            command({"prune", work, "--max-effects", std::to_string(kEffects / 2)}));
    Measure("compact", rounds, copy, command({"compact", work}));
    Measure("clear", rounds, copy, command({"clear", work, "--yes"}));
}

}  // namespace
}  // namespace Quorvel::Benchmarks

int main(int argc, char** argv) {
    CLI::App app("Time and memory of the program quorvel on caches of 65,534 effects and 255 MiB.",
                 "quorvel-bench-tool");
    std::string program;
    int rounds = 5;
    app.add_option("QUORVEL", program, "the program")->required()->check(CLI::ExistingFile);
    app.add_option("--rounds", rounds, "runs of each command; the median counts")
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    try {
        Quorvel::Benchmarks::Main(program, rounds);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "quorvel-bench-tool: %s\n", error.what());
        return 1;
    }
}
