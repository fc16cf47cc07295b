#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "pagestore/PageGeometry.h"
#include "support/ScratchDirectory.h"

namespace Quorvel::Benchmarks {

// The page cache capacity of the effect cache.
constexpr std::uint64_t kCapacity = 64;

// The numbers of effects, streams or pages of a curve.
inline std::vector<std::int64_t> CurveCounts() {
    return {1000, 2000, 4000, 8000, 16000, 32000, 60000};
}

// A folder with a file of that number of zero pages.
class PageFile {
public:
    explicit PageFile(std::uint64_t pages) : path_(directory_.Path() + "/pages") {
        std::fclose(std::fopen(path_.c_str(), "wb"));
        std::filesystem::resize_file(path_, pages * kPageSize);
    }

    const char* Path() const { return path_.c_str(); }

private:
    const ScratchDirectory directory_{std::filesystem::temp_directory_path()};
    const std::string path_;
};

}  // namespace Quorvel::Benchmarks
