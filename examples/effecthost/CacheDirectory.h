#pragma once

#include <filesystem>

namespace EffectHost {

// The canonical path of a cache directory, which messages show and child processes receive. Throws
// Failure(NoCacheDirectory) when the directory does not exist or the cache can't spell its path.
std::filesystem::path FindCacheDirectory(const std::filesystem::path& directory);

}  // namespace EffectHost
