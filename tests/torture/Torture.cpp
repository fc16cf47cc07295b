#include "torture/Torture.h"

#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <ostream>
#include <random>
#include <string_view>
#include <thread>

#include "format/EffectCacheImage.h"
#include "quorvel/AutoMutex.h"
#include "quorvel/MutexObject.h"
#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"
#include "torture/Board.h"

namespace Quorvel::Torture {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::array<std::string_view, static_cast<std::size_t>(Count::CountOfCounts)> kCountNames =
    {"searches",
     "hits",
     "effects cached",
     "saves forced",
     "cache objects",
     "others' bytes",
     "damaged bytes",
     "missing after a save",
     "older than the save",
     "found but never cached",
     "caches that became inert",
     "caches inert from the start"};

// A process that still runs this long after its time is up counts as hung.
constexpr auto kPatience = std::chrono::seconds(120);

std::uint64_t At(const Report& report, Count count) {
    return report.counts[static_cast<std::size_t>(count)];
}

// The object name that the cache gives its file: the path with '_' for all but letters and digits.
std::string ObjectName(std::string path) {
    for (char& byte : path) {
        const bool plain = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
                           (byte >= '0' && byte <= '9');
        if (!plain) { byte = '_'; }
    }
    return path;
}

Format::Bytes ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

class Orchestra {
public:
    explicit Orchestra(const Options& options)
        : options_(options),
          random_(options.seed),
          boardName_(Testing::UniqueName()),
          board_(boardName_),
          workers_(options.processes) {
        report_.options = options;
    }

    Report Play() {
        if (options_.IsOrderly()) {
            PlayOrderly();
        } else {
            PlayWithDeaths();
        }
        for (std::uint64_t count = 0; count < kCountNames.size(); ++count) {
            report_.counts.push_back(board_[static_cast<Count>(count)]);
        }
        return report_;
    }

private:
    struct Worker {
        std::unique_ptr<Testing::ChildProcess> process;
        Clock::time_point end;
    };

    void Start(std::uint64_t slot, milliseconds life) {
        Worker& worker = workers_[slot];
        worker.end = Clock::now() + life;
        worker.process = std::make_unique<Testing::ChildProcess>(
            "TortureWorker",
            std::vector<std::string>{options_.directory, boardName_, std::to_string(slot),
                                     std::to_string(options_.processes), std::to_string(random_()),
                                     std::to_string(life.count()),
                                     std::to_string(options_.MayEvict() ? 1 : 0)});
        ++report_.processes;
    }

    milliseconds RandomLife() {
        return milliseconds(std::uniform_int_distribution<int>(100, 1500)(random_));
    }

    // Waits for a worker whose time is up, or nearly up.
    void Finish(std::uint64_t slot) {
        Worker& worker = workers_[slot];
        const Clock::time_point deadline = worker.end + kPatience;
        while (!worker.process->HasEnded()) {
            if (Clock::now() > deadline) {
                ++report_.hung;
                worker.process->Kill();
                worker.process.reset();
                return;
            }
            std::this_thread::sleep_for(milliseconds(1));
        }
        switch (worker.process->Wait()) {
            case 0:
                break;
            case kRefused:
                ++report_.refused;
                board_.Repair();
                break;
            default:
                ++report_.crashed;
        }
        worker.process.reset();
    }

    // Each slot runs one process after another; the file is checked after every exit.
    void PlayOrderly() {
        const Clock::time_point end = Clock::now() + std::chrono::seconds(options_.seconds);
        for (std::uint64_t slot = 0; slot < workers_.size(); ++slot) {
            Start(slot, RandomLife());
        }
        while (Clock::now() < end) {
            std::uint64_t next = 0;
            for (std::uint64_t slot = 1; slot < workers_.size(); ++slot) {
                if (workers_[slot].end < workers_[next].end) { next = slot; }
            }
            while (Clock::now() < workers_[next].end) {
                std::this_thread::sleep_for(milliseconds(20));
                ChangeVolume();
            }
            Finish(next);
            CheckStructure();
            Start(next, RandomLife());
        }
        for (std::uint64_t slot = 0; slot < workers_.size(); ++slot) {
            Finish(slot);
            CheckStructure();
        }
    }

    // Runs processes of limited life and kills one now and then. A process that inherits the file
    // mutex of a dead one keeps it until it ends, so the others may have to wait for several.
    void PlayWithDeaths() {
        while (report_.killed < options_.kills) {
            std::this_thread::sleep_for(
                milliseconds(std::uniform_int_distribution<int>(0, 60)(random_)));
            ChangeVolume();
            for (std::uint64_t slot = 0; slot < workers_.size(); ++slot) {
                Worker& worker = workers_[slot];
                if (worker.process && worker.process->HasEnded()) { Finish(slot); }
                if (!worker.process) { Start(slot, RandomLife()); }
                if (worker.process && Clock::now() > worker.end + kPatience) { Finish(slot); }
            }
            Worker& victim = workers_[std::uniform_int_distribution<std::uint64_t>(
                0, workers_.size() - 1)(random_)];
            if (victim.process) {
                victim.process->Kill();
                victim.process.reset();
                ++report_.killed;
            }
        }
        for (std::uint64_t slot = 0; slot < workers_.size(); ++slot) {
            if (workers_[slot].process) { Finish(slot); }
        }
        // One more process must be able to use the file that is left, and leave it sound.
        Start(0, milliseconds(200));
        Finish(0);
        CheckStructure();
    }

    // Now and then changes the free bytes that the volume reports, or really has. Every fourth
    // time, on average, none are left.
    void ChangeVolume() {
        if (std::uniform_int_distribution<int>(0, 4)(random_) != 0) { return; }
        const bool isFull = std::uniform_int_distribution<int>(0, 3)(random_) == 0;
        if (options_.room != 0) {
            board_.Room() =
                isFull ? 0
                       : std::uniform_int_distribution<std::uint64_t>(0, options_.room)(random_);
        }
        if (options_.fillsVolume) { FillVolume(isFull); }
    }

    void FillVolume(bool wholly) {
        const std::string path = options_.directory + kSeparator + "filler";
        std::filesystem::remove(path);
        std::uint64_t bytes = std::filesystem::space(options_.directory).available;
        if (!wholly) { bytes = std::uniform_int_distribution<std::uint64_t>(0, bytes)(random_); }
        std::ofstream filler(path, std::ios::binary);
        const std::string block(4096, 'f');
        for (std::uint64_t written = 0; written <= bytes && filler; written += block.size()) {
            filler.write(block.data(), static_cast<std::streamsize>(block.size()));
        }
    }

    void CheckStructure() {
        const std::string path = options_.directory + kSeparator + "vornFxoCache.dat";
        MutexObject mutex((ObjectName(path) + "_mutex").c_str());
        Format::Bytes file;
        {
            const AutoMutex guard(mutex, kWaitForever);
            file = ReadFile(path);
        }
        ++report_.checks;
        if (options_.fillsVolume && file.empty()) {
            return;  // the volume had no room even for an empty cache
        }
        for (const std::string& problem : Format::CheckEffectCache(file)) {
            report_.structureProblems.push_back(problem);
        }
        if (report_.structureProblems.empty()) {
            report_.effectsAtEnd = Format::ReadEffectCache(Format::ReadPackage(file)).size();
        }
    }

    static constexpr char kSeparator =
        static_cast<char>(std::filesystem::path::preferred_separator);

    Options options_;
    std::mt19937_64 random_;
    std::string boardName_;
    Board board_;
    std::vector<Worker> workers_;
    Report report_;
};

}  // namespace

bool Report::IsGood() const {
    const bool nobodyFailed = crashed == 0 && hung == 0 && structureProblems.empty() &&
                              At(*this, Count::OthersBytes) == 0 &&
                              At(*this, Count::DamagedBytes) == 0 &&
                              At(*this, Count::Invented) == 0;
    const bool nothingIsOld = refused == 0 && At(*this, Count::Stale) == 0;
    const bool nothingIsLost = At(*this, Count::Missing) == 0 && At(*this, Count::BecameInert) == 0;
    const bool everyCacheOpened = At(*this, Count::Unusable) == 0;
    return nobodyFailed && (everyCacheOpened || options.fillsVolume) &&
           (nothingIsOld || !options.IsOrderly()) &&
           (nothingIsLost || !options.IsOrderly() || options.fillsVolume);
}

Report RunTorture(const Options& options) {
    return Orchestra(options).Play();
}

std::ostream& operator<<(std::ostream& stream, const Report& report) {
    stream << (report.options.IsOrderly() ? "orderly run" : "run with deaths") << '\n';
    const auto line = [&stream](std::string_view name, std::uint64_t value) {
        stream << "  " << name << ": " << value << '\n';
    };
    line("processes", report.processes);
    line("killed", report.killed);
    line("crashed", report.crashed);
    line("hung", report.hung);
    line("refused a dead process's lock", report.refused);
    for (std::size_t count = 0; count < report.counts.size(); ++count) {
        line(kCountNames[count], report.counts[count]);
    }
    line("file checks", report.checks);
    line("file problems", report.structureProblems.size());
    for (const std::string& problem : report.structureProblems) {
        stream << "    " << problem << '\n';
    }
    line("effects at the end", report.effectsAtEnd);
    return stream << (report.IsGood() ? "good\n" : "BAD\n");
}

}  // namespace Quorvel::Torture
