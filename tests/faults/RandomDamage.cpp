#include "faults/RandomDamage.h"

#include <algorithm>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "format/EffectCacheWriter.h"
#include "torture/EffectBytes.h"

namespace Quorvel::Faults {

namespace {

using Format::Bytes;

constexpr std::size_t kDamagedSize = 8700;  // with its length prefix: a page and a tail

class Mutator {
public:
    Mutator(std::uint64_t seed, const FileMap& map)
        : random_(seed), map_(map), file_(map.Image().file) {
        for (std::uint64_t left = 1 + Below(4); left > 0; --left) {
            Mutate();
        }
    }

    const Bytes& File() const { return file_; }

private:
    std::uint64_t Below(std::uint64_t end) { return random_() % end; }

    std::size_t AnyOffset() { return file_.empty() ? 0 : Below(file_.size()); }

    // A number that has a meaning somewhere in the format, or an arbitrary one.
    std::uint64_t AnyValue() {
        static constexpr std::uint64_t kValues[] = {
            0,       1,       2,       9,        10,       11,         16,         32,
            8160,    8176,    8191,    8192,     8193,     65535,      65536,      65537,
            0xFFFF6, 0xFFFF7, 0xFFFFF, 0x100000, 0xFFFFFF, 0x7FFFFFFF, 0x80000000, ~0ull};
        switch (Below(3)) {
            case 0:
                return kValues[Below(std::size(kValues))];
            case 1:
                return Below(100);
            default:
                return random_() >> Below(64);
        }
    }

    void Store(std::size_t offset, std::size_t width, std::uint64_t value) {
        if (offset + width <= file_.size()) { Format::StoreInteger(file_, offset, width, value); }
    }

    void Mutate() {
        switch (Below(10)) {
            case 0:
                return FlipBit(AnyOffset());
            case 1:
                return FlipBit(AnyHeadOffset());
            case 2:
                return Scribble();
            case 3:
                return Store(AnyHeadOffset() / 8 * 8, 8, AnyValue());
            case 4:
            case 5:
            case 6:
                return SetField();
            case 7:
                return MovePage();
            case 8:
                return Below(4) == 0 ? ChangeLength() : FlipBit(AnyHeadOffset());
            default:
                return CopyField();
        }
    }

    std::size_t AnyHeadOffset() {
        const auto& pages = map_.Image().headPages;
        const Format::HeadPage& page = pages[Below(pages.size())];
        return Format::PageOffset(page.number) + Below(page.dataEnd);
    }

    void FlipBit(std::size_t offset) {
        if (offset < file_.size()) { file_[offset] ^= static_cast<std::uint8_t>(1U << Below(8)); }
    }

    void Scribble() {
        const std::size_t start = AnyOffset();
        const std::size_t end = std::min<std::size_t>(start + 1 + Below(600), file_.size());
        for (std::size_t offset = start; offset < end; ++offset) {
            file_[offset] = static_cast<std::uint8_t>(random_());
        }
    }

    const Field& AnyField(std::vector<Place>& places) {
        for (;;) {
            const Field& field = Fields()[Below(Fields().size())];
            places = field.places(map_);
            if (!places.empty()) { return field; }
        }
    }

    void SetField() {
        std::vector<Place> places;
        const Field& field = AnyField(places);
        const Place place = places[Below(places.size())];
        Store(place.offset, place.width, Below(4) == 0 ? field.limit + Below(3) - 1 : AnyValue());
    }

    void CopyField() {
        std::vector<Place> places;
        AnyField(places);
        const Place from = places[Below(places.size())];
        const Place to = places[Below(places.size())];
        if (from.offset + from.width <= file_.size()) {
            Store(to.offset, to.width, Format::LoadInteger(file_, from.offset, from.width));
        }
    }

    // Copies a page over another, swaps two, or fills one with zeros.
    void MovePage() {
        const std::size_t pages = file_.size() / Format::kPageSize;
        if (pages == 0) { return; }
        const auto page = [&] {
            return file_.begin() + static_cast<std::ptrdiff_t>(Below(pages) * Format::kPageSize);
        };
        constexpr auto kSize = static_cast<std::ptrdiff_t>(Format::kPageSize);
        const auto first = page();
        const auto second = page();
        switch (Below(3)) {
            case 0:
                std::copy_n(first, first == second ? 0 : kSize, second);
                break;
            case 1:
                if (first != second) { std::swap_ranges(first, first + kSize, second); }
                break;
            default:
                std::fill_n(first, kSize, std::uint8_t{0});
        }
    }

    void ChangeLength() {
        if (Below(2) == 0) {
            file_.resize(AnyOffset());
        } else {
            file_.insert(file_.end(), Below(20000), static_cast<std::uint8_t>(random_()));
        }
    }

    std::mt19937_64 random_;
    const FileMap& map_;
    Bytes file_;
};

}  // namespace

Bytes SampleCache(unsigned seed) {
    std::vector<Format::NewEffect> effects;
    for (int index = 0; index < 10; ++index) {
        Format::NewEffect effect;
        effect.name = "effect-" + std::to_string(index);
        const std::size_t size = index < 7 ? kDamagedSize : index < 9 ? 300 : 20000;
        effect.data = Torture::MakeEffect(effect.name, kSampleVersion, size);
        effect.permanent = index % 3 == 0;
        effects.push_back(effect);
    }
    Format::EffectCacheLayout layout;
    layout.shuffleStreams = seed % 2 == 0;
    layout.package.pageOrder = Format::PageOrder::kShuffled;
    layout.package.tails =
        seed % 3 == 0 ? Format::TailPlacement::kBlockEach : Format::TailPlacement::kPacked;
    layout.package.freePages = 3;
    layout.package.freePagesAtEnd = 1000;
    layout.package.seed = seed;
    return Format::WriteEffectCache(effects, layout);
}

Bytes DamageRandomly(const FileMap& map, std::uint64_t seed, std::uint64_t number) {
    return Mutator(seed * 1000003 + number, map).File();
}

}  // namespace Quorvel::Faults
