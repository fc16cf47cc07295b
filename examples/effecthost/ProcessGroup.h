#pragma once

#include <cstddef>
#include <filesystem>

#include "Options.h"
#include "Progress.h"
#include "Summary.h"

namespace EffectHost {

// Starts options.processes copies of a program at once. Each does all the work on the one cache,
// beginning at its own place among effectCount effects, so that they race: what one has saved, the
// others find. Shows how far all of them together have come. Returns the sum of what they report,
// when all have ended. Throws Failure with the exit code and the message of the first that failed,
// and Failure(Interrupted) when they have stopped because we were asked to.
Summary RunProcessGroup(const std::filesystem::path& program, const Options& options,
                        std::size_t effectCount, Progress& progress);

}  // namespace EffectHost
