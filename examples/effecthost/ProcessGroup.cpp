#include "ProcessGroup.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>

#include "Failure.h"
#include "Processes.h"
#include "StopRequest.h"

namespace EffectHost {

namespace {

constexpr std::chrono::milliseconds kStopPollInterval{50};

struct Worker {
    Worker(const std::filesystem::path& program, const std::vector<std::string>& arguments)
        : process(program, arguments, ChildProcess::Errors::Captured) {}

    ChildProcess process;
    ProgressReport progress;
    std::string summary;
    std::string errors;
    std::optional<int> exitCode;  // set once it has ended
};

// Several processes, each with a thread that reads its output.
class Group {
public:
    Group(const std::filesystem::path& program, const Options& options, std::size_t effectCount,
          Progress& progress)
        : progress_(progress) {
        for (std::size_t i = 0; i < options.processes; ++i) {
            const std::size_t start = options.start + i * effectCount / options.processes;
            workers_.emplace_back(program, WorkerArguments(options, start % effectCount));
        }
    }

    // Returns when all processes have ended.
    const std::deque<Worker>& Run() {
        std::vector<std::jthread> readers;
        for (Worker& worker : workers_) {
            readers.emplace_back([this, &worker] { Listen(worker); });
        }
        std::unique_lock lock(mutex_);
        while (!change_.wait_for(lock, kStopPollInterval, [this] { return HaveAllEnded(); })) {
            if (StopRequested()) { RequestStop(); }
        }
        return workers_;
    }

private:
    void Listen(Worker& worker) {
        while (const std::optional<std::string> line = worker.process.ReadLine()) {
            const std::lock_guard lock(mutex_);
            Take(worker, *line);
        }
        const int exitCode = worker.process.Wait();
        const std::lock_guard lock(mutex_);
        worker.exitCode = exitCode;
        change_.notify_one();
    }

    // A line is progress, the summary, or part of an error message.
    void Take(Worker& worker, const std::string& line) {
        if (const auto report = ParseProgressReport(line)) {
            worker.progress = *report;
            ShowProgress();
        } else if (line.starts_with('{')) {
            worker.summary = line;
        } else {
            worker.errors += (worker.errors.empty() ? "" : "\n") + line;
        }
    }

    void ShowProgress() {
        ProgressReport sum;
        for (const Worker& worker : workers_) {
            sum.done += worker.progress.done;
            sum.compiled += worker.progress.compiled;
        }
        progress_.Show(sum.done, sum.compiled);
    }

    bool HaveAllEnded() const {
        return std::all_of(workers_.begin(), workers_.end(),
                           [](const Worker& worker) { return worker.exitCode.has_value(); });
    }

    void RequestStop() {
        for (Worker& worker : workers_) {
            worker.process.RequestStop();
        }
    }

    Progress& progress_;
    std::deque<Worker> workers_;
    std::mutex mutex_;  // guards workers_, except for reading from a process
    std::condition_variable change_;
};

ExitCode ToExitCode(int code) {
    const bool ours = code > 0 && code <= static_cast<int>(ExitCode::Interrupted);
    return ours ? ExitCode{code} : ExitCode::ProcessFailed;
}

// What a process printed about its failure.
std::string Because(const Worker& worker) {
    const std::string_view text = worker.errors;
    const std::size_t prefix = text.starts_with(kMessagePrefix) ? kMessagePrefix.size() : 0;
    return text.empty() ? "" : fmt::format(": {}", text.substr(prefix));
}

// Reports only the first failure: the processes mostly fail in the same way.
void RequireSuccess(const std::deque<Worker>& workers) {
    bool interrupted = false;
    for (std::size_t i = 0; i < workers.size(); ++i) {
        const ExitCode code = ToExitCode(*workers[i].exitCode);
        if (code == ExitCode::Interrupted) {
            interrupted = true;
        } else if (*workers[i].exitCode != 0 || workers[i].summary.empty()) {
            throw Failure(code,
                          fmt::format("process {} of {} {}{}", i + 1, workers.size(),
                                      DescribeEnd(*workers[i].exitCode), Because(workers[i])));
        }
    }
    if (interrupted) {
        throw Failure(ExitCode::Interrupted, "stopped; what was compiled is saved");
    }
}

}  // namespace

Summary RunProcessGroup(const std::filesystem::path& program, const Options& options,
                        std::size_t effectCount, Progress& progress) {
    Group group(program, options, effectCount, progress);
    const std::deque<Worker>& workers = group.Run();
    RequireSuccess(workers);
    Summary sum;
    sum.effects = effectCount;
    sum.processes = options.processes;
    for (const Worker& worker : workers) {
        AddProcess(sum, FromJson(worker.summary));
    }
    return sum;
}

}  // namespace EffectHost
