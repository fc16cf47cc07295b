#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "format/Bytes.h"
#include "format/EffectCacheWriter.h"
#include "format/PackageWriter.h"

namespace Quorvel::Format {

// Bytes that look random and differ from seed to seed.
Bytes Pattern(std::size_t size, std::uint64_t seed);

// Stream sizes on and around every boundary: page, tail block, several pages.
const std::vector<std::size_t>& BoundarySizes();

// A stream of each boundary size, with ids that leave gaps.
std::map<std::uint64_t, Bytes> BoundaryStreams();

// Layouts that vary in every way in which sound files may differ.
struct NamedLayout {
    std::string name;
    PackageLayout layout;
};
inline void PrintTo(const NamedLayout& named, std::ostream* out) {
    *out << named.name;
}
const std::vector<NamedLayout>& AllLayouts();

// Effects of many sizes under names of many lengths.
std::vector<NewEffect> ManyEffects(std::size_t count);

// The lines, each followed by a newline.
std::string Joined(const std::vector<std::string>& lines);

}  // namespace Quorvel::Format
