#pragma once

#include <filesystem>

namespace EffectHost {

// The one spelling of a cache directory. The cache makes the names of what its processes share, the
// lock among them, from the spelling that it is given: processes that spell the same directory
// differently would write the file at the same time. Throws Failure(NoCacheDirectory) when there is
// no such directory, or none that the cache can use.
std::filesystem::path FindCacheDirectory(const std::filesystem::path& directory);

}  // namespace EffectHost
