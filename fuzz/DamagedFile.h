#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "format/Bytes.h"
#include "format/PackageImage.h"

namespace Quorvel::Fuzz {

// A sound file and the places of its numbers.
struct FileBase {
    struct Field {
        std::size_t offset;  // in the file
        unsigned width;      // bytes
    };

    Format::PackageImage image;
    Format::Bytes file;
    std::vector<Field> fields;
};

// Makes a base from an image. Its fields are the numbers in the head file and the first ones of
// each stream.
FileBase MakeBase(const Format::PackageImage& image);

// Makes a package file from all of a fuzzer's input, in one of two ways:
//
// - Plain: each run of bytes, up to a backslash followed by another byte, fills a page from its
//   start; the rest of the page is zero. A backslash is written as two. Pages of zeros follow, or
//   the file ends with the last run.
// - Patched: one of the bases, with a few records removed, duplicated or renumbered, and then with
//   a few fields set to meaningful values, or with a different file size.
Format::Bytes TakeFile(FuzzedDataProvider& input, const std::vector<FileBase>& bases);

// The library may make such a file longer by at most this number of bytes: the file's link table
// may cover that range past its end.
constexpr std::uint64_t kMostGrowth = 1 << 25;

// The first number of TakeFile's input for a plain file, and for a file from the first base.
constexpr std::uint8_t kPlainFile = 0;
constexpr std::uint8_t kFirstBase = 1;

}  // namespace Quorvel::Fuzz
