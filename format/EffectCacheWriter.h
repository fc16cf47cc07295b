#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "format/EffectCacheImage.h"
#include "format/PackageWriter.h"

namespace Quorvel::Format {

struct NewEffect {
    std::string name;
    Bytes data;
    bool permanent = false;
    EntryTime time = {2024, 2, 29, 23, 59, 58, 999};
};

// A variant of a cache file that a reader must accept.
struct EffectCacheLayout {
    PackageLayout package;
    bool shuffleIndex = false;    // records in random order
    bool shuffleStreams = false;  // random stream ids with gaps
    bool moreBlocks = false;      // other blocks before and after the cache's in the header data
    std::uint32_t headerPayload = kCacheHeaderSize;  // at least 28 bytes
};

// A package that holds these effects. Their names must differ.
PackageImage LayOutEffectCache(std::vector<NewEffect> effects, const EffectCacheLayout& layout);
Bytes WriteEffectCache(const std::vector<NewEffect>& effects, const EffectCacheLayout& layout = {});

// The parts, for tests that assemble them differently.
Bytes EncodeHeaderBlock(const CacheHeader& header, std::uint32_t payloadSize = kCacheHeaderSize);
Bytes EncodeIndex(const std::vector<IndexEntry>& entries);
Bytes EncodeEffect(const Bytes& data);

}  // namespace Quorvel::Format
