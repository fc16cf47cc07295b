#pragma once

#include <cstddef>
#include <filesystem>

#include "Options.h"
#include "Summary.h"

namespace EffectHost {

// Starts options.processes copies of a program at once. Each does all the work on the one cache,
// beginning at its own place among effectCount effects, so that they race: what one has saved, the
// others find. Returns the sum of what they report. Throws Failure with the exit code of the first
// that failed.
Summary RunProcessGroup(const std::filesystem::path& program, const Options& options,
                        std::size_t effectCount);

}  // namespace EffectHost
