#include "CacheDirectory.h"

#include <fmt/format.h>

#include "Failure.h"
#include "Paths.h"

namespace EffectHost {

namespace {

[[noreturn]] void Refuse(const std::string& message) {
    throw Failure(ExitCode::NoCacheDirectory, message);
}

}  // namespace

std::filesystem::path FindCacheDirectory(const std::filesystem::path& directory) {
    try {
        const std::filesystem::file_status status = std::filesystem::status(directory);
        if (!exists(status)) {
            Refuse(fmt::format("there is no cache directory {}", ToText(directory)));
        }
        if (!is_directory(status)) {
            Refuse(fmt::format("the cache directory {} is not a directory", ToText(directory)));
        }
        std::filesystem::path found = CanonicalFolder(directory);
        if (!SpellingForFopen(found)) {
            Refuse(
                fmt::format("the cache can't use the directory {}: its name has characters that "
                            "are not in the code page of this system",
                            ToText(found)));
        }
        return found;
    } catch (const std::filesystem::filesystem_error& error) {
        Refuse(fmt::format("can't use the cache directory {}: {}", ToText(directory),
                           error.code().message()));
    }
}

}  // namespace EffectHost
