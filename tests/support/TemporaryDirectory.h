#pragma once

#include <filesystem>
#include <string>

namespace Quorvel::Testing {

// A new, empty folder, which is removed with its contents when the object is destroyed.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    ~TemporaryDirectory();

    const std::filesystem::path& Path() const { return path_; }

    // The path of a file in the folder, as a string for the library.
    std::string File(const std::string& name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

// A name that no other test and no other run of the tests uses, made of letters, digits and
// underscores.
std::string UniqueName();

}  // namespace Quorvel::Testing
