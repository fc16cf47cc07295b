#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace Quorvel::Benchmarks {

// A new, empty folder. At the end of the scope it is removed with everything in it.
class ScratchDirectory {
public:
    // Throws std::system_error when it can't be created.
    explicit ScratchDirectory(const std::filesystem::path& parent);
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;
    ~ScratchDirectory();

    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

// Bytes that a folder and the files in it take on the volume: their blocks, not their lengths.
std::uint64_t BytesOnDisk(const std::filesystem::path& directory);

}  // namespace Quorvel::Benchmarks
