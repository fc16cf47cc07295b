#pragma once

#include <filesystem>
#include <system_error>

namespace Quorvel::Testing {

// Changes the working directory while it exists.
class WorkingDirectory {
public:
    explicit WorkingDirectory(const std::filesystem::path& path)
        : previous_(std::filesystem::current_path()) {
        std::filesystem::current_path(path);
    }
    WorkingDirectory(const WorkingDirectory&) = delete;
    WorkingDirectory& operator=(const WorkingDirectory&) = delete;
    ~WorkingDirectory() {
        std::error_code ignored;
        std::filesystem::current_path(previous_, ignored);
    }

private:
    std::filesystem::path previous_;
};

}  // namespace Quorvel::Testing
