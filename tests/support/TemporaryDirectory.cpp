#include "support/TemporaryDirectory.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <random>
#include <system_error>

namespace Quorvel::Testing {

namespace {

// Distinguishes this run of the program from all others.
std::string RunIdentifier() {
    std::random_device random;
    char text[32];
    std::snprintf(text, sizeof text, "%08x%08x", static_cast<unsigned>(random()),
                  static_cast<unsigned>(random()));
    return text;
}

}  // namespace

TemporaryDirectory::TemporaryDirectory()
    : path_(std::filesystem::temp_directory_path() / UniqueName()) {
    std::filesystem::create_directory(path_);
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string UniqueName() {
    static const std::string run = RunIdentifier();
    static std::atomic<std::uint64_t> names{0};
    return "quorvel_test_" + run + '_' + std::to_string(++names);
}

}  // namespace Quorvel::Testing
