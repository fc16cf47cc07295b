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

// Where the effects of a benchmark come from. They are numbered from 0 without end, and the effect
// of a number is the same in every process that has the same source.
//
// Without files they are made up, of the shape that compiled shaders have: names of 60 to 120 bytes
// (source file, entry point, profile, macros), sizes from 300 bytes to 20 KiB around a median of
// 2 KiB, distributed log-normally (sigma 0.67, which makes the mean a good 2.5 KiB).
//
// With a path they are real. A directory: every file in it and below is an effect, and its path
// from there, with slashes, the name. A file: each of its lines names an effect's file, from the
// list's own folder unless it is absolute, and, behind a tab, the effect's name; without a tab the
// name is the path. Files that are empty or larger than 1 MiB are left out. When a benchmark wants
// more effects than there are, they come again with "#1", "#2", ... behind their names.
class EffectSource {
public:
    // An empty path for made-up effects. Throws std::runtime_error when the path gives no effects.
    EffectSource(const std::string& path, std::uint64_t seed);

    // Number of effects before they come again; 0 when they are made up.
    std::size_t FileCount() const { return files_.size(); }

    Effect Make(std::size_t number) const;
    std::vector<Effect> Make(std::size_t first, std::size_t count) const;

    // A name of the same shape that no effect has.
    CStr AbsentName(std::size_t number) const;

    // What describes the source in a report.
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
