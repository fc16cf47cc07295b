#pragma once

#include <filesystem>

namespace EffectHost {

// Checks that a listing of the cache in a directory can be written to a file, and leaves no trace.
// Throws Failure(BadUsage) when the file can't be written, or is the cache's own.
void RequireListingFile(const std::filesystem::path& listing,
                        const std::filesystem::path& cacheDirectory);

}  // namespace EffectHost
