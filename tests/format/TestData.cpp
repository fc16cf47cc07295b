#include "format/TestData.h"

#include <algorithm>

namespace Quorvel::Format {

Bytes Pattern(std::size_t size, std::uint64_t seed) {
    // A period slightly longer than a page is quick to make and keeps pages different.
    constexpr std::size_t kPeriod = 8209;
    Bytes bytes(std::min(size, kPeriod));
    auto state = static_cast<std::uint32_t>(seed * 2654435761u + 1);
    for (std::uint8_t& byte : bytes) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<std::uint8_t>(state >> 24);
    }
    bytes.resize(size);
    std::uint8_t* const data = bytes.data();
    for (std::size_t i = kPeriod; i < size; ++i) {
        data[i] = data[i - kPeriod];
    }
    return bytes;
}

const std::vector<std::size_t>& BoundarySizes() {
    static const std::vector<std::size_t> sizes = {
        0,     1,     2,     4095,  4096,  4097,  8191,  8192,  8193,  12288, 16383,
        16384, 16385, 24575, 24576, 24577, 65535, 65536, 65537, 73727, 73728, 73729};
    return sizes;
}

std::map<std::uint64_t, Bytes> BoundaryStreams() {
    std::map<std::uint64_t, Bytes> streams;
    std::uint32_t id = 0;
    for (const std::size_t size : BoundarySizes()) {
        streams[id] = Pattern(size, id);
        id += 1 + id % 3;
    }
    return streams;
}

const std::vector<NamedLayout>& AllLayouts() {
    static const std::vector<NamedLayout> layouts = [] {
        std::vector<NamedLayout> all = {{"Plain", {}}};
        const auto add = [&](const char* name) -> PackageLayout& {
            all.push_back({name, {}});
            return all.back().layout;
        };
        add("DescendingPages").pageOrder = PageOrder::kDescending;
        add("ShuffledPages").pageOrder = PageOrder::kShuffled;
        add("InterleavedChains").interleaveChains = true;
        add("FreePagesAmongUsedPages").freePages = 40;
        add("FreePagesPastTheEnd").freePagesAtEnd = 25;
        add("LongHeadFile").freePagesAtEnd = 5000;
        add("BlockForEachTail").tails = TailPlacement::kBlockEach;
        add("ScatteredTails").tails = TailPlacement::kScattered;
        add("EmptyBlocks").emptyBlocks = 5;
        add("ShuffledRecords").shuffleRecords = true;
        PackageLayout& everything = add("EverythingAtOnce");
        everything = {PageOrder::kShuffled, true, 2500, 300, TailPlacement::kScattered, 2, true, 7};
        return all;
    }();
    return layouts;
}

std::vector<NewEffect> ManyEffects(std::size_t count) {
    std::vector<NewEffect> effects;
    for (std::size_t i = 0; i < count; ++i) {
        NewEffect effect;
        effect.name = "shaders/effect_" + std::to_string(i * 7919 % count) + ".fx";
        effect.name.append(i % 50, static_cast<char>(0x80 + i % 100));
        const std::size_t size = i % 11 == 0 ? 8184 + i % 3 * 4096 : 1 + i * 37 % 3000;
        effect.data = Pattern(size, i);
        effect.permanent = i % 5 == 0;
        effect.time = {2024,
                       2,
                       29,
                       23,
                       59,
                       static_cast<std::uint16_t>(i % 60),
                       static_cast<std::uint32_t>(i % 1000)};
        effects.push_back(std::move(effect));
    }
    return effects;
}

std::string Joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    return text;
}

}  // namespace Quorvel::Format
