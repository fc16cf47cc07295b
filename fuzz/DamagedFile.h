#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "format/Bytes.h"
#include "format/PackageImage.h"

namespace Quorvel::Fuzz {

// A sound file, and where its numbers stand.
struct FileBase {
    struct Field {
        std::size_t offset;  // in the file
        unsigned width;      // bytes
    };

    Format::PackageImage image;
    Format::Bytes file;
    std::vector<Field> fields;
};

// A base from an image. The fields are those of the head file, and the first numbers of each
// stream.
FileBase MakeBase(const Format::PackageImage& image);

// A package file out of a fuzzer's input, which is used up. Two kinds of input make two kinds of
// files:
//
// - Plain: each run of bytes up to a backslash and another byte fills a page from its start, the
//   rest of which is zero; a backslash itself stands twice. Pages of zeros follow.
// - Patched: one of the bases, with a few records taken out, doubled or counted anew, and then a
//   few of its fields set to values that mean something.
Format::Bytes TakeFile(FuzzedDataProvider& input, const std::vector<FileBase>& bases);

// How much longer a package may make such a file. Its link table may reach behind its end, so far.
constexpr std::uint64_t kMostGrowth = 1 << 25;

// The first number that TakeFile takes for a plain file, and for a file out of a base.
constexpr std::uint8_t kPlainFile = 0;
constexpr std::uint8_t kFirstBase = 1;

}  // namespace Quorvel::Fuzz
