#include "floor/Replay.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <stdexcept>

namespace Quorvel::Benchmarks {

namespace {

constexpr std::uint64_t kPageSize = 8192;
constexpr std::uint64_t kTailBlockSize = 8 * kPageSize;
constexpr std::uint64_t kQueueSize = 0x400000;

// Bytes that one save copies into pages: the queued effects, the whole index, and the package's
// state as it is stored in the file.
class SavedBytes {
public:
    void Queue(const Effect& effect) {
        const std::uint64_t stream = 8 + effect.bytes.size();
        queued_ += stream;
        index_ += 52 + effect.name.Length();
        ++streams_;
        if (stream % kPageSize != 0) {
            ++fragments_;
            tails_ += stream % kPageSize;
        }
    }

    std::uint64_t Save(std::uint64_t pages) {
        const std::uint64_t state = 8 + 8 * pages + 8 + 32 * (streams_ + 1) +
                                    88 * (tails_ / kTailBlockSize + 1) + 48 * (fragments_ + 1) + 64;
        const std::uint64_t bytes = queued_ + index_ + state;
        queued_ = 0;
        return bytes;
    }

private:
    std::uint64_t queued_ = 0;
    std::uint64_t index_ = 0;
    std::uint64_t streams_ = 0;
    std::uint64_t fragments_ = 0;
    std::uint64_t tails_ = 0;
};

class BareFile {
public:
    explicit BareFile(const std::string& path) : file_(::open(path.c_str(), O_RDWR | O_CLOEXEC)) {}
    BareFile(const BareFile&) = delete;
    BareFile& operator=(const BareFile&) = delete;
    ~BareFile() {
        if (file_ >= 0) { ::close(file_); }
    }

    bool IsOpen() const { return file_ >= 0; }
    bool Read(void* to, std::uint64_t size, std::uint64_t offset) const {
        return ::pread(file_, to, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size);
    }
    bool Write(const void* from, std::uint64_t size, std::uint64_t offset) const {
        return ::pwrite(file_, from, size, static_cast<off_t>(offset)) ==
               static_cast<ssize_t>(size);
    }

private:
    int file_;
};

class StdioFile {
public:
    explicit StdioFile(const std::string& path) : file_(std::fopen(path.c_str(), "r+be")) {
        if (file_) { std::setvbuf(file_, nullptr, _IONBF, 0); }
    }
    StdioFile(const StdioFile&) = delete;
    StdioFile& operator=(const StdioFile&) = delete;
    ~StdioFile() {
        if (file_) { std::fclose(file_); }
    }

    bool IsOpen() const { return file_ != nullptr; }
    bool Read(void* to, std::uint64_t size, std::uint64_t offset) const {
        return Seek(offset) && std::fread(to, size, 1, file_) == 1;
    }
    bool Write(const void* from, std::uint64_t size, std::uint64_t offset) const {
        return Seek(offset) && std::fwrite(from, size, 1, file_) == 1;
    }

private:
    bool Seek(std::uint64_t offset) const {
        return std::fseek(file_, static_cast<long>(offset), SEEK_SET) == 0;
    }

    std::FILE* file_;
};

}  // namespace

// Assigns a memory frame to each page: a page that is read takes the next frame, and is written
// from there.
class Replay::FramePlan {
public:
    std::uint32_t ForRead(std::uint64_t offset) {
        last_ = static_cast<std::uint32_t>((last_ + 1) % kFrames);
        frames_[offset] = last_;
        return last_;
    }
    std::uint32_t ForWrite(std::uint64_t offset) { return frames_[offset]; }
    std::uint32_t Last() const { return last_; }

private:
    std::map<std::uint64_t, std::uint32_t> frames_;
    std::uint32_t last_ = 0;
};

Replay::Replay(const FloorTask& task, const RecordedTransfers& recorded, Clock clock)
    : task_(task),
      clock_(clock),
      firstSize_(recorded.save.fileSizeBefore),
      save_(PlanSave(recorded.save)),
      open_(PlanFind(recorded.open)),
      find_(PlanFind(recorded.allOnce)),
      frames_(kFrames * kFrameSize, 1),
      queue_(kQueueSize + 0x100000, 2),
      found_(0x100000, 3) {
    std::uint64_t longest = 0;
    for (const Steps* steps : {&save_, &open_, &find_}) {
        for (const Step& step : *steps) {
            if (step.kind == Step::Kind::Grow) {
                longest = std::max(longest, step.length);
            } else if (step.kind != Step::Kind::Queue && step.kind != Step::Kind::Empty &&
                       step.length > kFrameSize) {
                throw std::runtime_error("a transfer is longer than a page");
            }
        }
    }
    zeros_.resize(longest);
}

// A save begins when an effect has filled the queue, so its transfers come after the step that
// queues this effect. The bytes that it copies into pages are spread evenly over its page reads.
Replay::Steps Replay::PlanSave(const PhaseTransfers& phase) const {
    Steps steps;
    FramePlan frames;
    SavedBytes saved;
    std::uint64_t pages = 0;
    auto next = phase.transfers.begin();
    for (std::size_t turn = 0; turn <= task_.saveOrder.size(); ++turn) {
        if (turn < task_.saveOrder.size()) {
            const Effect& effect = task_.effects[task_.saveOrder[turn]];
            steps.push_back({Step::Kind::Queue, 0, effect.bytes.size(), task_.saveOrder[turn]});
            saved.Queue(effect);
        }
        const auto end =
            std::find_if(next, phase.transfers.end(),
                         [turn](const Transfer& transfer) { return transfer.effect > turn; });
        if (next == end) { continue; }
        const auto reads =
            static_cast<std::uint64_t>(std::count_if(next, end, [](const Transfer& transfer) {
                return transfer.kind == Transfer::Kind::Read;
            }));
        std::for_each(next, end, [&pages](const Transfer& transfer) {
            pages = std::max(pages, (transfer.offset + transfer.length) / kPageSize);
        });
        const std::uint64_t each =
            reads == 0 ? 0 : std::min<std::uint64_t>(saved.Save(pages) / reads, kFrameSize);
        for (; next != end; ++next) {
            if (next->kind == Transfer::Kind::Read) {
                const std::uint32_t frame = frames.ForRead(next->offset);
                steps.push_back({Step::Kind::Read, frame, next->length, next->offset});
                steps.push_back({Step::Kind::Fill, frame, each, 0});
            } else {
                const bool grows = next->kind == Transfer::Kind::Grow;
                steps.push_back({grows ? Step::Kind::Grow : Step::Kind::Write,
                                 grows ? 0 : frames.ForWrite(next->offset), next->length,
                                 next->offset});
            }
        }
    }
    return steps;
}

// Opening finds no effects, so its plan has only transfers.
Replay::Steps Replay::PlanFind(const PhaseTransfers& phase) const {
    Steps steps;
    FramePlan frames;
    auto next = phase.transfers.begin();
    for (std::size_t turn = 0; turn <= phase.effects; ++turn) {
        for (; next != phase.transfers.end() && next->effect == turn; ++next) {
            const bool reads = next->kind == Transfer::Kind::Read;
            steps.push_back({reads ? Step::Kind::Read : Step::Kind::Write,
                             reads ? frames.ForRead(next->offset) : frames.ForWrite(next->offset),
                             next->length, next->offset});
        }
        if (turn < phase.effects) {
            const Effect& effect = task_.effects[task_.searchOrder[turn]];
            steps.push_back({Step::Kind::Empty, frames.Last(), effect.bytes.size(), 0});
        }
    }
    return steps;
}

void Replay::Create(const std::string& path) const {
    std::ofstream file(path, std::ios::binary);
    file << std::string(firstSize_, '\0');
    if (!file.flush()) { throw std::runtime_error("can't write " + path); }
}

double Replay::Run(const Steps& steps, const std::string& path, Calls calls) {
    const Stopwatch watch(clock_);
    const bool good =
        calls == Calls::Bare ? Make(steps, BareFile(path)) : Make(steps, StdioFile(path));
    const double time = watch.Nanoseconds();
    if (!good) { throw std::runtime_error("a transfer could not be repeated"); }
    return time;
}

template <typename File>
bool Replay::Make(const Steps& steps, const File& file) {
    std::size_t queued = 0;
    std::size_t taken = 0;
    if (!file.IsOpen()) { return false; }
    bool good = true;
    for (const Step& step : steps) {
        unsigned char* const frame = frames_.data() + step.frame * kFrameSize;
        switch (step.kind) {
            case Step::Kind::Read:
                good &= file.Read(frame, step.length, step.place);
                break;
            case Step::Kind::Write:
                good &= file.Write(frame, step.length, step.place);
                break;
            case Step::Kind::Grow:
                good &= file.Write(zeros_.data(), step.length, step.place);
                break;
            case Step::Kind::Queue:
                queued = queued < kQueueSize ? queued : 0;
                std::memcpy(queue_.data() + queued, task_.effects[step.place].bytes.data(),
                            step.length);
                queued += step.length;
                break;
            case Step::Kind::Fill:
                taken = taken < kQueueSize ? taken : 0;
                std::memcpy(frame, queue_.data() + taken, step.length);
                taken += step.length;
                break;
            case Step::Kind::Empty:
                for (std::size_t moved = 0; moved < step.length; moved += kFrameSize) {
                    std::memcpy(found_.data() + moved, frame,
                                std::min<std::size_t>(kFrameSize, step.length - moved));
                }
                break;
        }
    }
    return good;
}

double Replay::Save(const std::string& path, Calls calls) {
    return Run(save_, path, calls);
}

double Replay::Open(const std::string& path, Calls calls) {
    return Run(open_, path, calls);
}

double Replay::FindAll(const std::string& path, Calls calls) {
    return Run(find_, path, calls);
}

}  // namespace Quorvel::Benchmarks
