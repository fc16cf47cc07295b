#pragma once

#include <cstddef>
#include <filesystem>

#include "Options.h"
#include "Progress.h"
#include "Summary.h"

namespace EffectHost {

// Starts options.processes copies of a program at once. Each does all the work on the same cache,
// starting at its own place among effectCount effects, so that they race: each finds what the
// others have saved. Shows their combined progress. Returns the sum of their reports when all have
// ended. Throws Failure with the exit code and message of the first that failed, and
// Failure(Interrupted) when they stopped because this process was asked to.
Summary RunProcessGroup(const std::filesystem::path& program, const Options& options,
                        std::size_t effectCount, Progress& progress);

}  // namespace EffectHost
