#include "fuzz/FileBases.h"

#include <map>

#include "format/EffectCacheWriter.h"
#include "format/TestData.h"

namespace Quorvel::Fuzz {

namespace {

using Format::PackageLayout;
using Format::Pattern;

// Free pages past the end of the file: their links need a second head page.
constexpr unsigned kLinksOfTwoPages = 1100;

PackageLayout Scattered() {
    PackageLayout layout;
    layout.pageOrder = Format::PageOrder::kShuffled;
    layout.interleaveChains = true;
    layout.freePages = 3;
    layout.tails = Format::TailPlacement::kScattered;
    layout.shuffleRecords = true;
    return layout;
}

PackageLayout LongState() {
    PackageLayout layout;
    layout.freePagesAtEnd = kLinksOfTwoPages;
    return layout;
}

// Most share a size with others, so that the library can't detect wrong bytes by their length.
std::vector<Format::NewEffect> SomeEffects() {
    return {{"a", Pattern(100, 1)},   {"b", Pattern(100, 2)},   {"c", Pattern(100, 3), true},
            {"bb", Pattern(8184, 4)}, {"cc", Pattern(8184, 5)}, {"long name", Pattern(20000, 6)}};
}

}  // namespace

const std::vector<FileBase>& PackageBases() {
    static const std::vector<FileBase> bases = [] {
        const std::map<std::uint64_t, Format::Bytes> few = {{0, Pattern(3, 1)}};
        const std::map<std::uint64_t, Format::Bytes> many = {
            {0, Pattern(100, 1)},  {1, Pattern(8197, 2)}, {2, {}},
            {3, Pattern(8191, 3)}, {4, Pattern(100, 4)},  {6, Pattern(16384, 5)},
            {7, Pattern(8191, 6)}, {9, Pattern(20000, 7)}};
        std::vector<FileBase> all;
        all.push_back(MakeBase(Format::LayOutPackage(few, Pattern(5, 9), {})));
        all.push_back(MakeBase(Format::LayOutPackage({}, {}, {})));
        all.push_back(MakeBase(Format::LayOutPackage(many, Pattern(40, 9), {})));
        all.push_back(MakeBase(Format::LayOutPackage(many, Pattern(300, 9), Scattered())));
        all.push_back(MakeBase(Format::LayOutPackage(many, {}, LongState())));
        return all;
    }();
    return bases;
}

const std::vector<FileBase>& EffectCacheBases() {
    static const std::vector<FileBase> bases = [] {
        std::vector<FileBase> all;
        const auto add = [&](const std::vector<Format::NewEffect>& effects,
                             const Format::EffectCacheLayout& layout) {
            all.push_back(MakeBase(LayOutEffectCache(effects, layout)));
        };
        add({}, {});
        add({{"a", Pattern(9, 1)}}, {});
        add(SomeEffects(), {});
        add(SomeEffects(), {Scattered(), true, true, true, 40});
        add(SomeEffects(), {LongState(), false, false, false, Format::kCacheHeaderSize});
        return all;
    }();
    return bases;
}

}  // namespace Quorvel::Fuzz
