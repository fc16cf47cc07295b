#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "vornutil/CStr.h"

namespace Quorvel::Benchmarks {

struct Effect {
    CStr name;
    std::vector<unsigned char> bytes;
};

// The source of a benchmark's effects. They are numbered from 0 without end, and a number denotes
// the same effect in every process that has the same source.
//
// Without a path the effects are made up and resemble compiled shaders: names of 60 to 120 bytes
// (source file, entry point, profile, macros), sizes from 300 bytes to 20 KiB around a median of
// 2 KiB, distributed log-normally (sigma 0.67, so the mean is a little over 2.5 KiB).
//
// With a path they are real. In a directory, every file at any depth is an effect, named by its
// relative path with slashes. A file is a list: each line has the path of an effect's file,
// relative to the list's folder or absolute, then optionally a tab and the effect's name; without a
// tab the name is the path. Files that are empty or larger than 1 MiB are skipped. When a benchmark
// needs more effects than there are, they repeat with "#1", "#2", ... after their names.
class EffectSource {
public:
    // An empty path for made-up effects. Throws std::runtime_error when the path has no effects.
    EffectSource(const std::string& path, std::uint64_t seed);

    // Number of effects before they repeat; 0 when they are made up.
    std::size_t FileCount() const { return files_.size(); }

    Effect Make(std::size_t number) const;
    std::vector<Effect> Make(std::size_t first, std::size_t count) const;

    // A name of the same shape that no effect has.
    CStr AbsentName(std::size_t number) const;

    // Describes the source in a report.
    std::string Description() const;

private:
    struct File {
        std::filesystem::path path;
        std::string name;
    };

    void ListDirectory(const std::filesystem::path& directory);
    void ReadList(const std::filesystem::path& list);

    std::string path_;
    std::uint64_t seed_;
    std::vector<File> files_;
};

// Sum of the sizes of the effects' bytes.
std::uint64_t TotalBytes(const std::vector<Effect>& effects);

}  // namespace Quorvel::Benchmarks
