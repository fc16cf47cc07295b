#include "support/ScratchDirectory.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <cerrno>
#include <system_error>

namespace Quorvel::Benchmarks {

namespace {

constexpr std::uint64_t kBlockUnit = 512;  // what st_blocks counts

std::uint64_t BlocksOf(const std::filesystem::path& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0
               ? static_cast<std::uint64_t>(status.st_blocks) * kBlockUnit
               : 0;
}

}  // namespace

ScratchDirectory::ScratchDirectory(const std::filesystem::path& parent)
    : path_((parent / "quorvel-bench-XXXXXX").string()) {
    if (!::mkdtemp(path_.data())) {
        throw std::system_error(errno, std::generic_category(), path_);
    }
}

ScratchDirectory::~ScratchDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::uint64_t BytesOnDisk(const std::filesystem::path& directory) {
    std::uint64_t bytes = BlocksOf(directory);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
        bytes += BlocksOf(entry.path());
    }
    return bytes;
}

}  // namespace Quorvel::Benchmarks
