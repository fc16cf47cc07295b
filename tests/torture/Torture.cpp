#include "torture/Torture.h"

#include <array>
#include <atomic>
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

constexpr std::array<std::string_view, static_cast<std::size_t>(Moment::CountOfMoments)>
    kMomentNames = {"at other moments",
                    "creating",
                    "saving, before the journal",
                    "saving, journal begun",
                    "saving, file marked",
                    "undoing a save",
                    "trimming"};

// If no process reaches the wanted moment within this time, another moment is chosen.
constexpr auto kAimPatience = milliseconds(500);

// The longest time between a moment and the kill, in microseconds, before it adapts to the time
// that processes take.
constexpr double kFirstDelay = 1000;

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
        report_.killedAt.resize(kMomentNames.size());
        longestDelay_.fill(kFirstDelay);
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

    std::uint64_t Roll(std::uint64_t sides) {
        return std::uniform_int_distribution<std::uint64_t>(0, sides - 1)(random_);
    }

    milliseconds RandomLife() { return milliseconds(100 + Roll(1401)); }

    std::string FilePath() const { return options_.directory + kSeparator + "vornFxoCache.dat"; }

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
                if (Roll(5) == 0) { ChangeVolume(); }
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

    // Runs processes of limited life and kills one after the other. A process that inherits the
    // file mutex of a dead one keeps it until it ends, and so do its heirs: until all processes
    // have ended, only one of them works at a time. So all of them end now and then.
    void PlayWithDeaths() {
        Moment aim = Moment::Overwrite;
        while (report_.killed < options_.kills) {
            if (aim == Moment::Create) { RemoveFile(); }
            if (aim == Moment::Trim) { board_.Room() = Roll(options_.room / 4); }
            KillAt(aim);
            aim = IsMarked() && Roll(2) == 0 ? Moment::Recovery : ChooseAim();
            if (aim != Moment::Recovery && Roll(3) == 0) { Settle(); }
        }
        Settle();
    }

    // Most deaths are inside saves.
    Moment ChooseAim() {
        const std::uint64_t roll = Roll(100);
        if (roll < 5) { return Moment::Other; }
        if (roll < 15) { return Moment::Create; }
        if (roll < 25) { return Moment::Save; }
        if (roll < 35) { return Moment::Journal; }
        return options_.room != 0 && roll < 55 ? Moment::Trim : Moment::Overwrite;
    }

    // Waits until a process reaches the moment, and kills it a random time later if it is still
    // there. With Moment::Other, kills any process at any time. Does nothing if no process reaches
    // the moment in time, or if it leaves too soon. Afterwards a process that is about to undo a
    // save waits until Aim is set again.
    void KillAt(Moment aim) {
        const Clock::time_point start = Clock::now();
        const milliseconds patience = aim == Moment::Other ? milliseconds(Roll(60)) : kAimPatience;
        const Moment reported = aim == Moment::Overwrite ? Moment::Journal : aim;
        board_.Aim() = reported;
        do {
            Tend();
            std::this_thread::sleep_for(std::chrono::microseconds(20));
            for (std::uint64_t slot = 0; slot < workers_.size() && aim != Moment::Other; ++slot) {
                if (board_.MomentOf(slot) == reported) { return KillSoon(slot, aim); }
            }
        } while (Clock::now() < start + patience);
        board_.Aim() = Moment::Recovery;
        if (aim == Moment::Other) { Kill(Roll(workers_.size())); }
    }

    // Kills a process that has reached a moment, unless it leaves the moment first.
    void KillSoon(std::uint64_t slot, Moment aim) {
        using Microseconds = std::chrono::duration<double, std::micro>;
        const Moment reported = board_.MomentOf(slot);
        const auto isThere = [&] { return board_.MomentOf(slot) == reported; };
        double& longest = longestDelay_[static_cast<std::size_t>(aim)];
        const Microseconds delay(std::uniform_real_distribution<double>(0, longest)(random_));
        board_.Aim() = Moment::Other;
        while (aim == Moment::Overwrite && isThere() && !IsMarked()) {}
        const Clock::time_point reached = Clock::now();
        while (Clock::now() - reached < delay) {
            std::this_thread::yield();
        }
        longest *= isThere() ? 1.2 : 0.7;  // so that two of three processes are still there
        board_.Aim() = Moment::Recovery;
        if (isThere()) { Kill(slot); }
    }

    // True if a process that died left the file marked. REQUIRES: Aim is Recovery, so that no
    // process undoes the save.
    bool IsMarked() const {
        std::uint64_t pageCount = 1;
        std::ifstream file(FilePath(), std::ios::binary);
        file.read(reinterpret_cast<char*>(&pageCount), sizeof pageCount);
        return pageCount == 0;
    }

    void Kill(std::uint64_t slot) {
        std::unique_ptr<Testing::ChildProcess>& process = workers_[slot].process;
        if (!process || process->HasEnded()) { return; }
        process->Kill();
        process.reset();
        Moment moment = board_.MomentOf(slot).exchange(Moment::Other);
        if (moment == Moment::Journal && IsMarked()) { moment = Moment::Overwrite; }
        ++report_.killed;
        ++report_.killedAt[static_cast<std::size_t>(moment)];
    }

    // Replaces processes that have ended or hang, and changes the volume now and then.
    void Tend() {
        if (Clock::now() < nextLook_) { return; }
        nextLook_ = Clock::now() + milliseconds(2);
        if (Roll(15) == 0) { ChangeVolume(); }
        for (std::uint64_t slot = 0; slot < workers_.size(); ++slot) {
            Worker& worker = workers_[slot];
            const bool isOverdue = worker.process && Clock::now() > worker.end + kPatience;
            if (worker.process && (isOverdue || worker.process->HasEnded())) { Finish(slot); }
            if (!worker.process) { Start(slot, RandomLife()); }
        }
    }

    // Lets all processes end, so that none is left that has inherited a mutex. One more process
    // must then be able to use the file, find every saved effect, and leave the file sound.
    void Settle() {
        board_.Aim() = Moment::Other;
        board_.IsEnding() = true;
        for (std::uint64_t slot = 0; slot < workers_.size(); ++slot) {
            if (workers_[slot].process) { Finish(slot); }
        }
        board_.IsEnding() = false;
        Start(0, milliseconds(20));
        Finish(0);
        CheckStructure();
    }

    void RemoveFile() {
        Settle();
        std::filesystem::remove(FilePath());
        board_.ForgetSaved();
    }

    // Changes the free bytes that the volume reports, or really has. Every fourth time, on average,
    // none are left.
    void ChangeVolume() {
        const bool isFull = Roll(4) == 0;
        if (options_.room != 0) { board_.Room() = isFull ? 0 : Roll(options_.room + 1); }
        if (options_.fillsVolume) { FillVolume(isFull); }
    }

    void FillVolume(bool wholly) {
        const std::string path = options_.directory + kSeparator + "filler";
        std::filesystem::remove(path);
        std::uint64_t bytes = std::filesystem::space(options_.directory).available;
        if (!wholly) { bytes = Roll(bytes + 1); }
        std::ofstream filler(path, std::ios::binary);
        const std::string block(4096, 'f');
        for (std::uint64_t written = 0; written <= bytes && filler; written += block.size()) {
            filler.write(block.data(), static_cast<std::streamsize>(block.size()));
        }
    }

    void CheckStructure() {
        const std::string path = FilePath();
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
    Clock::time_point nextLook_;  // when Tend looks at the processes again
    std::array<double, kMomentNames.size()> longestDelay_;  // by Moment, in microseconds
    Report report_;
};

}  // namespace

bool Report::IsGood() const {
    const bool nobodyFailed = crashed == 0 && hung == 0 && structureProblems.empty();
    const bool nothingIsWrong = At(*this, Count::OthersBytes) == 0 &&
                                At(*this, Count::DamagedBytes) == 0 &&
                                At(*this, Count::Invented) == 0;
    const bool nothingIsLost = At(*this, Count::Missing) == 0 && At(*this, Count::Stale) == 0;
    const bool nothingIsInert =
        At(*this, Count::BecameInert) == 0 && At(*this, Count::Unusable) == 0;
    return nobodyFailed && nothingIsWrong && nothingIsLost &&
           (nothingIsInert || options.fillsVolume) && (refused == 0 || !options.IsOrderly());
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
    for (std::size_t moment = 0; moment < report.killedAt.size(); ++moment) {
        if (report.killedAt[moment] != 0) {
            stream << "    " << kMomentNames[moment] << ": " << report.killedAt[moment] << '\n';
        }
    }
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
