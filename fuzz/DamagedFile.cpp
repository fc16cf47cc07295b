#include "fuzz/DamagedFile.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <stdexcept>
#include <string>

#include "format/PackageWriter.h"

namespace Quorvel::Fuzz {

namespace {

using Format::Bytes;
using Format::PackageImage;

constexpr int kMostEdits = 3;
constexpr int kMostPatches = 12;
constexpr std::size_t kMostZeroPages = 15;
constexpr std::size_t kMostLinks = 3000;
constexpr std::size_t kNumberedBytes = 256;  // of each stream, from its start

// Boundary values of fields of the format.
constexpr std::uint64_t kBorders[] = {
    0,          1,          2,          7,          8,          9,          10,         11,
    12,         16,         17,         28,         32,         33,         40,         44,
    8160,       8161,       8176,       8191,       8192,       8193,       16384,      65534,
    65535,      65536,      65537,      0xFFFF5,    0xFFFF6,    0xFFFF7,    0xFFFFF,    0x100000,
    0x100001,   8388608,    8388609,    0xFFFFFE,   0xFFFFFF,   0x1000000,  0x7FFFFFFF, 0x80000000,
    0xFFFFFFFF, 1ull << 32, 1ull << 51, 1ull << 60, 1ull << 61, 1ull << 63, ~0ull - 7,  ~0ull};

// The file offsets of a stream's first bytes in a sound image, at most `most` of them.
std::vector<std::size_t> PlacesOf(const PackageImage& image, const Format::StreamRecord& stream,
                                  std::size_t most) {
    std::vector<std::size_t> places;
    std::uint64_t page = stream.firstPage;
    for (std::uint64_t index = 0; index < stream.pageCount; ++index) {
        for (std::size_t offset = 0; offset < Format::kPageSize && places.size() < most; ++offset) {
            places.push_back(Format::PageOffset(page) + offset);
        }
        page = image.Link(page);
    }
    for (const Format::Fragment& fragment : image.fragments) {
        if (fragment.streamId != stream.id) { continue; }
        const auto block =
            std::find_if(image.blocks.begin(), image.blocks.end(),
                         [&](const auto& candidate) { return candidate.id == fragment.blockId; });
        for (std::uint64_t byte = fragment.offset;
             byte < fragment.offset + fragment.length && places.size() < most; ++byte) {
            places.push_back(Format::PageOffset(block->pages[byte / Format::kPageSize]) +
                             byte % Format::kPageSize);
        }
    }
    return places;
}

template <typename Record>
void EraseOrDouble(std::vector<Record>& records, FuzzedDataProvider& input) {
    if (records.empty()) { return; }
    const auto which =
        static_cast<std::ptrdiff_t>(input.ConsumeIntegral<std::uint8_t>() % records.size());
    if (input.ConsumeBool()) {
        records.erase(records.begin() + which);
    } else {
        const Record copy = records[static_cast<std::size_t>(which)];
        records.push_back(copy);
    }
}

// Makes one change to the tables. Later bytes move, and all counts stay correct.
void EditRecords(PackageImage& image, FuzzedDataProvider& input) {
    const auto number = [&] { return input.ConsumeIntegral<std::uint8_t>(); };
    switch (number() % 8) {
        case 0:
            EraseOrDouble(image.streams, input);
            break;
        case 1:
            EraseOrDouble(image.blocks, input);
            break;
        case 2:
            EraseOrDouble(image.fragments, input);
            break;
        case 3:
            EraseOrDouble(image.headerData, input);
            break;
        case 4:
            if (!image.blocks.empty()) {
                EraseOrDouble(image.blocks[number() % image.blocks.size()].streams, input);
            }
            break;
        case 5:
            image.links.resize(input.ConsumeIntegral<std::uint16_t>() % kMostLinks,
                               input.ConsumeBool() ? Format::kFreePage : Format::kChainEnd);
            break;
        case 6:
            image.headerData.resize(number());
            break;
        default:
            if (!image.streams.empty()) {
                image.streams[number() % image.streams.size()].id = number();
            }
            break;
    }
}

std::uint64_t TakeValue(const Bytes& file, const FileBase& base, std::uint64_t old,
                        FuzzedDataProvider& input) {
    const auto number = input.ConsumeIntegral<std::uint8_t>();
    switch (number % 8) {
        case 0:
            return input.ConsumeIntegral<std::uint64_t>();
        case 1:
            return old ^ std::uint64_t{1} << (number / 8);
        case 2:
            return old + number / 8 + 1;
        case 3:
            return old - number / 8 - 1;
        case 4: {
            const std::size_t which = input.ConsumeIntegral<std::uint16_t>() % base.fields.size();
            const FileBase::Field& other = base.fields[which];
            return other.offset + other.width <= file.size()
                       ? Format::LoadInteger(file, other.offset, other.width)
                       : old;
        }
        default:
            return kBorders[input.ConsumeIntegral<std::uint8_t>() % std::size(kBorders)];
    }
}

void Patch(Bytes& file, const FileBase& base, FuzzedDataProvider& input) {
    const auto kind = input.ConsumeIntegral<std::uint8_t>();
    if (kind == 0) {
        file.resize(input.ConsumeIntegral<std::uint32_t>() % (file.size() + 2 * Format::kPageSize));
        return;
    }
    FileBase::Field field;
    if (kind % 16 == 1) {
        field = {input.ConsumeIntegral<std::uint32_t>() % base.file.size(), 1};
    } else {
        field = base.fields[input.ConsumeIntegral<std::uint16_t>() % base.fields.size()];
    }
    if (field.offset + field.width <= file.size()) {
        const std::uint64_t old = Format::LoadInteger(file, field.offset, field.width);
        Format::StoreInteger(file, field.offset, field.width, TakeValue(file, base, old, input));
    }
}

Bytes PatchedFile(const FileBase& base, FuzzedDataProvider& input) {
    Bytes file = base.file;
    if (const int edits = input.ConsumeIntegral<std::uint8_t>() % (kMostEdits + 1); edits > 0) {
        PackageImage image = base.image;
        for (int edit = 0; edit < edits; ++edit) {
            EditRecords(image, input);
        }
        try {
            file = Format::EncodePackage(image);
        } catch (const std::logic_error&) {
            // The state now needs a different number of pages.
        }
    }
    for (int patch = 0; patch < kMostPatches && input.remaining_bytes() > 0; ++patch) {
        Patch(file, base, input);
    }
    return file;
}

Bytes PlainFile(FuzzedDataProvider& input) {
    const std::size_t zeroPages = input.ConsumeIntegral<std::uint8_t>() % (kMostZeroPages + 1);
    const bool endsInPage = input.ConsumeBool();
    Bytes file;
    std::size_t end = 0;
    while (input.remaining_bytes() > 0) {
        const std::string page = input.ConsumeRandomLengthString(Format::kPageSize);
        end = file.size() + page.size();
        file.insert(file.end(), page.begin(), page.end());
        file.resize((file.size() + Format::kPageSize - 1) / Format::kPageSize * Format::kPageSize);
    }
    if (endsInPage) {
        file.resize(end);
    } else {
        file.resize(file.size() + zeroPages * Format::kPageSize);
    }
    return file;
}

}  // namespace

FileBase MakeBase(const PackageImage& image) {
    FileBase base;
    base.file = Format::EncodePackage(image);
    base.image = Format::ReadPackage(base.file);
    for (const Format::HeadPage& page : base.image.headPages) {
        for (std::size_t offset = 0; offset + 8 <= page.dataEnd; offset += 8) {
            base.fields.push_back({Format::PageOffset(page.number) + offset, 8});
        }
    }
    const std::size_t state = Format::PageOffset(base.image.headPages.back().number) +
                              static_cast<std::size_t>(base.image.headPages.back().dataEnd);
    const std::size_t headerData = std::min<std::size_t>(base.image.headerData.size(), 128);
    for (std::size_t left = headerData; left >= 4; left -= 4) {
        base.fields.push_back({state - left, 4});
    }
    for (const Format::StreamRecord& stream : base.image.streams) {
        const std::vector<std::size_t> places = PlacesOf(base.image, stream, kNumberedBytes);
        for (std::size_t index = 0; index + 8 <= places.size(); ++index) {
            for (const unsigned width : {4u, 8u}) {
                if (places[index + width - 1] == places[index] + width - 1) {
                    base.fields.push_back({places[index], width});
                }
            }
        }
    }
    return base;
}

Bytes TakeFile(FuzzedDataProvider& input, const std::vector<FileBase>& bases) {
    const std::size_t kind = input.ConsumeIntegral<std::uint8_t>() % (bases.size() + 1);
    return kind == kPlainFile ? PlainFile(input) : PatchedFile(bases[kind - kFirstBase], input);
}

}  // namespace Quorvel::Fuzz
