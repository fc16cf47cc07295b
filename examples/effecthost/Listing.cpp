#include "Listing.h"

#include <fmt/format.h>

#include <fstream>

#include "Failure.h"
#include "HostCache.h"
#include "Paths.h"

namespace EffectHost {

// Opening for appending creates a missing file and leaves an existing one unchanged. Only an
// existing file can be compared with the cache's, which may have another name. Pipes and devices
// are not opened.
void RequireListingFile(const std::filesystem::path& listing,
                        const std::filesystem::path& cacheDirectory) {
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(listing, error);
    const bool isNew = !std::filesystem::exists(status);
    if (!isNew && !is_regular_file(status) && !is_directory(status)) { return; }
    const bool isWritable = std::ofstream(listing, std::ios::app).is_open();
    const bool isCache =
        std::filesystem::equivalent(listing, cacheDirectory / kCacheFileName, error);
    if (isNew && isWritable) { std::filesystem::remove(listing, error); }
    if (isCache) {
        throw Failure(ExitCode::BadUsage,
                      fmt::format("the listing {} would overwrite the cache", ToText(listing)));
    }
    if (!isWritable) {
        throw Failure(ExitCode::BadUsage,
                      fmt::format("can't write the listing {}", ToText(listing)));
    }
}

}  // namespace EffectHost
