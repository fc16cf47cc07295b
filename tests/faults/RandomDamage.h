#pragma once

#include <cstdint>

#include "faults/FormatFields.h"
#include "format/Bytes.h"

// Makes damaged files.
namespace Quorvel::Faults {

// An effect cache of ten effects, most of one size, in shuffled pages, with a head file of two
// pages. The effects are those of Torture::MakeEffect. Different seeds make different files.
Format::Bytes SampleCache(unsigned seed = 1);

// The number of seeds that the tests use, from 0 on, and the version of the effects.
constexpr unsigned kSampleSeeds = 5;
constexpr std::uint64_t kSampleVersion = 1;

// A copy of a sound file with random damage in one to four places: bits, bytes, numbers of the head
// file, fields of the format, whole pages, the length of the file. The same seed and number make
// the same file.
Format::Bytes DamageRandomly(const FileMap& map, std::uint64_t seed, std::uint64_t number);

}  // namespace Quorvel::Faults
