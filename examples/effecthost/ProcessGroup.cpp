#include "ProcessGroup.h"

#include <fmt/format.h>

#include "Failure.h"
#include "Processes.h"

namespace EffectHost {

namespace {

std::vector<ChildProcess> StartAll(const std::filesystem::path& program, const Options& options,
                                   std::size_t effectCount) {
    std::vector<ChildProcess> processes;
    for (std::size_t i = 0; i < options.processes; ++i) {
        const std::size_t start = options.start + i * effectCount / options.processes;
        processes.emplace_back(program, WorkerArguments(options, start));
    }
    return processes;
}

ExitCode ToExitCode(int code) {
    const bool ours = code > 0 && code <= static_cast<int>(ExitCode::NoCompiler);
    return ours ? ExitCode{code} : ExitCode::ProcessFailed;
}

}  // namespace

Summary RunProcessGroup(const std::filesystem::path& program, const Options& options,
                        std::size_t effectCount) {
    std::vector<ChildProcess> processes = StartAll(program, options, effectCount);
    Summary sum;
    sum.effects = effectCount;
    sum.processes = options.processes;
    for (std::size_t i = 0; i < processes.size(); ++i) {
        const std::string output = processes[i].ReadOutput();
        const int exitCode = processes[i].Wait();
        if (exitCode != 0) {
            throw Failure(ToExitCode(exitCode),
                          fmt::format("process {} of {} ended with exit code {}", i + 1,
                                      processes.size(), exitCode));
        }
        AddProcess(sum, FromJson(output));
    }
    return sum;
}

}  // namespace EffectHost
