#include "floor/Transfers.h"

#include <quorvel/Quorvel.h>
#include <sys/syscall.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>

#include "floor/CacheSteps.h"
#include "support/Agent.h"
#include "support/Random.h"
#include "support/ScratchDirectory.h"
#include "support/TracedProcess.h"

namespace Quorvel::Benchmarks {

namespace {

constexpr char kRecordAgent[] = "Record";
constexpr char kCacheFileName[] = "vornFxoCache.dat";
constexpr std::uint64_t kPageSize = 8192;
constexpr std::uint64_t kFirstPage = 10;

enum RecordMark : std::uint16_t { kOutside, kSaving, kOpening, kSearching, kNextEffect };

// Follows the cache's file through the system calls of the traced process.
class Recorder {
public:
    void Marked(std::uint16_t mark) {
        switch (mark) {
            case kSaving:
                phase_ = &recorded_.save;
                phase_->fileSizeBefore = fileSize_;
                break;
            case kOpening:
                phase_ = &recorded_.open;
                break;
            case kSearching:
                phase_ = &recorded_.allOnce;
                break;
            case kNextEffect:
                if (phase_) { ++phase_->effects; }
                break;
            default:
                phase_ = nullptr;
        }
    }

    void Called(const SystemCall& call) {
        if (phase_) { ++phase_->calls; }
        const auto argument = static_cast<int>(call.arguments[0]);
        switch (call.number) {
            case SYS_open:
            case SYS_openat:
            case SYS_creat:
                Opened(call);
                return;
            case SYS_close:
                positions_.erase(argument);
                return;
            case SYS_mmap:
                Refuse(static_cast<int>(call.arguments[4]), "mapped");
                return;
            case SYS_readv:
            case SYS_writev:
            case SYS_preadv:
            case SYS_pwritev:
            case SYS_preadv2:
            case SYS_pwritev2:
            case SYS_ftruncate:
            case SYS_fallocate:
            case SYS_dup:
                Refuse(argument, "used by a call that is not recorded");
                return;
            default:
                break;
        }
        const auto file = positions_.find(argument);
        if (file == positions_.end() || call.result < 0) { return; }
        const auto result = static_cast<std::uint64_t>(call.result);
        switch (call.number) {
            case SYS_lseek:
                file->second = result;
                break;
            case SYS_read:
                Add(Transfer::Kind::Read, file->second, result);
                file->second += result;
                break;
            case SYS_write:
                Add(Transfer::Kind::Write, file->second, result);
                file->second += result;
                break;
            case SYS_pread64:
                Add(Transfer::Kind::Read, call.arguments[3], result);
                break;
            case SYS_pwrite64:
                Add(Transfer::Kind::Write, call.arguments[3], result);
                break;
            default:
                break;
        }
    }

    const RecordedTransfers& Recorded() const { return recorded_; }

private:
    void Opened(const SystemCall& call) {
        if (call.result < 0) { return; }
        const auto descriptor = static_cast<int>(call.result);
        std::error_code error;
        const std::filesystem::path path = std::filesystem::read_symlink(
            "/proc/" + std::to_string(call.thread) + "/fd/" + std::to_string(descriptor), error);
        if (!error && path.filename() == kCacheFileName) { positions_[descriptor] = 0; }
    }

    void Refuse(int descriptor, const std::string& what) const {
        if (positions_.count(descriptor) != 0) {
            throw std::runtime_error("the cache's file was " + what);
        }
    }

    // A write at or past the end of the file makes it longer.
    void Add(Transfer::Kind kind, std::uint64_t offset, std::uint64_t length) {
        if (kind == Transfer::Kind::Write && offset >= fileSize_) { kind = Transfer::Kind::Grow; }
        if (kind != Transfer::Kind::Read) { fileSize_ = std::max(fileSize_, offset + length); }
        if (phase_ && length > 0) {
            phase_->transfers.push_back({kind, offset, length, phase_->effects});
        }
    }

    RecordedTransfers recorded_;
    PhaseTransfers* phase_ = nullptr;
    std::map<int, std::uint64_t> positions_;  // of the cache's file, by descriptor
    std::uint64_t fileSize_ = 0;
};

QUORVEL_AGENT(Record) {
    const FloorTask task(arguments[1], std::stoull(arguments[2]), std::stoull(arguments[3]));
    CacheSteps steps(task, arguments[0]);
    Mark(kSaving);
    steps.SaveAll([] { Mark(kNextEffect); });
    Mark(kOpening);
    steps.Open();
    Mark(kSearching);
    steps.FindAll([] { Mark(kNextEffect); });
    Mark(kOutside);
    return 0;
}

void WritePhase(std::ofstream& file, const char* name, const PhaseTransfers& phase) {
    static const char* const kinds[] = {"read", "write", "grow"};
    file << name << '\n';
    for (const Transfer& transfer : phase.transfers) {
        file << transfer.effect << ' ' << kinds[static_cast<std::size_t>(transfer.kind)] << ' '
             << transfer.offset / kPageSize + kFirstPage << ' ' << transfer.length << '\n';
    }
}

}  // namespace

std::uint64_t PhaseTransfers::Bytes(Transfer::Kind kind) const {
    std::uint64_t bytes = 0;
    for (const Transfer& transfer : transfers) {
        bytes += transfer.kind == kind ? transfer.length : 0;
    }
    return bytes;
}

FloorTask::FloorTask(const std::string& effectsPath, std::uint64_t seedNumber, std::size_t count)
    : path(effectsPath),
      seed(seedNumber),
      effects(EffectSource(effectsPath, seedNumber).Make(0, count)),
      saveOrder(ShuffledOrder(count, seedNumber + 101)),
      searchOrder(ShuffledOrder(count, seedNumber + 102)) {}

RecordedTransfers RecordTransfers(const FloorTask& task, const std::string& directory) {
    const ScratchDirectory scratch(directory);
    Recorder recorder;
    const int exitCode = Trace(
        kRecordAgent,
        {scratch.Path(), task.path, std::to_string(task.seed), std::to_string(task.effects.size())},
        [&](const SystemCall& call) { recorder.Called(call); },
        [&](std::uint16_t mark) { recorder.Marked(mark); });
    if (exitCode != 0) { throw std::runtime_error("the recorded process failed"); }
    return recorder.Recorded();
}

void WriteTransfers(const std::string& path, const RecordedTransfers& recorded) {
    std::ofstream file(path);
    WritePhase(file, "save", recorded.save);
    WritePhase(file, "open", recorded.open);
    WritePhase(file, "all once", recorded.allOnce);
    if (!file.flush()) { throw std::runtime_error("can't write " + path); }
}

}  // namespace Quorvel::Benchmarks
