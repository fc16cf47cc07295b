#include <gtest/gtest.h>

#include <exception>
#include <optional>
#include <random>
#include <vector>

#include "format/LibraryPackage.h"
#include "format/PackageWriter.h"
#include "format/TestData.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Format {
namespace {

constexpr std::uint64_t kStreamLimit = 40;
constexpr std::uint64_t kLargestCompared = 1 << 22;

// A value that has a meaning in some field of the head file, or a small number.
std::uint64_t AnyValue(std::mt19937& random) {
    static constexpr std::uint64_t kValues[] = {
        0,        1,        2,          4,          5,          6,          8,
        9,        10,       11,         12,         16,         17,         32,
        33,       40,       41,         8160,       8176,       8191,       8192,
        8193,     65535,    65536,      65537,      0xFFFF6,    0xFFFF7,    0xFFFFF,
        0x100000, 0xFFFFFF, 0x7FFFFFFF, 0x80000000, 1ull << 32, 1ull << 63, ~0ull};
    return random() % 2 == 0 ? kValues[random() % std::size(kValues)] : random() % 60;
}

// Damages up to three fields of the head file, or cuts the file short.
void DamageAtRandom(Bytes& file, const PackageImage& image, std::mt19937& random) {
    if (random() % 20 == 0) {
        file.resize(random() % file.size());
        return;
    }
    for (std::size_t count = 1 + random() % 3; count > 0; --count) {
        const HeadPage& page = image.headPages[random() % image.headPages.size()];
        const std::size_t field = PageOffset(page.number) + random() % (page.dataEnd / 8) * 8;
        if (random() % 4 == 0) {
            file[field + random() % 8] ^= static_cast<std::uint8_t>(1u << random() % 8);
        } else {
            StoreInteger(file, field, 8, AnyValue(random));
        }
    }
}

std::optional<Bytes> ReadByLibrary(IDataStreamSet& package, std::uint64_t id) {
    try {
        return ReadStream(package, id);
    } catch (const std::exception&) { return std::nullopt; }
}

std::optional<Bytes> ReadByFormat(const StreamReader& reader, std::uint64_t id) {
    try {
        return reader.Read(id);
    } catch (const FormatError&) { return std::nullopt; }
}

// Fails the test unless the library accepts and reads exactly what the format says a reader must.
// Returns true if the file is accepted.
bool CompareReaders(const Bytes& file, const std::string& path) {
    WriteWholeFile(path, file);
    const auto package = OpenPackage(path, {16, kStreamLimit});
    std::optional<PackageImage> image;
    std::string refusal;
    try {
        image = ReadPackage(file, kStreamLimit);
    } catch (const FormatError& error) { refusal = error.what(); }
    EXPECT_EQ(static_cast<bool>(package), image.has_value()) << refusal;
    if (!package || !image) { return false; }

    EXPECT_TRUE(GetHeaderData(*package) == image->headerData);
    EXPECT_EQ(package->GetNumberOfDataStreams(), image->streams.size());
    const StreamReader reader(*image);
    for (const StreamRecord& stream : image->streams) {
        if (stream.size <= kLargestCompared) {
            EXPECT_TRUE(ReadByLibrary(*package, stream.id) == ReadByFormat(reader, stream.id))
                << "stream " << stream.id;
        }
    }
    return true;
}

class DamagedPackage : public testing::TestWithParam<unsigned> {};

TEST_P(DamagedPackage, IsRefusedOrReadAsTheFormatSays) {
    const Testing::TemporaryDirectory directory;
    const std::string path = directory.File("package");
    std::mt19937 random(GetParam());
    std::map<std::uint64_t, Bytes> streams;
    for (std::uint64_t id = 0; id < 6; ++id) {
        streams[id] = Pattern(random() % 25000, id);
    }
    PackageLayout layout;
    layout.pageOrder = PageOrder::kShuffled;
    layout.freePages = 3;
    layout.freePagesAtEnd = GetParam() % 2 == 0 ? 0 : 2000;
    layout.seed = GetParam();
    const PackageImage image = LayOutPackage(streams, Pattern(100, GetParam()), layout);
    const Bytes sound = EncodePackage(image);
    const PackageImage whole = ReadPackage(sound);
    ASSERT_TRUE(CompareReaders(sound, path));

    int accepted = 0;
    constexpr int kRounds = 500;
    for (int round = 0; round < kRounds; ++round) {
        Bytes file = sound;
        DamageAtRandom(file, whole, random);
        accepted += CompareReaders(file, path) ? 1 : 0;
        ASSERT_FALSE(HasFailure()) << "in round " << round;
    }
    EXPECT_GT(accepted, 0);
    EXPECT_LT(accepted, kRounds);
}

INSTANTIATE_TEST_SUITE_P(Seed, DamagedPackage, testing::Range(1u, 9u),
                         testing::PrintToStringParamName());

TEST(DamagedPackage, CutAtEveryHalfPageIsRefusedOrReadAsTheFormatSays) {
    const Testing::TemporaryDirectory directory;
    const Bytes sound = WritePackage(BoundaryStreams(), Pattern(9000, 1));
    for (std::size_t size = 0; size < sound.size(); size += 4096) {
        CompareReaders(Bytes(sound.begin(), sound.begin() + static_cast<std::ptrdiff_t>(size)),
                       directory.File("package"));
    }
}

}  // namespace
}  // namespace Quorvel::Format
