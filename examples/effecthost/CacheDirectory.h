#pragma once

#include <filesystem>

namespace EffectHost {

// The canonical spelling of a cache directory. The cache derives the names of shared objects, such
// as its lock, from the spelling it is given: processes that spell the same directory differently
// would write the file at the same time. Throws Failure(NoCacheDirectory) when the directory does
// not exist or the cache can't use it.
std::filesystem::path FindCacheDirectory(const std::filesystem::path& directory);

}  // namespace EffectHost
