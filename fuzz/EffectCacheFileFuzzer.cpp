// Opens an effect cache over arbitrary bytes, searches it for every name in its index and for
// others, adds effects, saves it and opens it again. It must find exactly what an independent
// reader of the format finds, and a sound cache must lose nothing and stay sound.
//
// A process may have died in a save of these bytes. Its journal lies next to the file and undoes
// the save, unless it is damaged or belongs to another file.
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "format/EffectCacheImage.h"
#include "fuzz/CrashImage.h"
#include "fuzz/DamagedFile.h"
#include "fuzz/FileBases.h"
#include "fuzz/Require.h"
#include "quorvel/EffectCacheSystem.h"
#include "quorvel/MultiProcessTimeStamp.h"
#include "support/TemporaryDirectory.h"
#include "vornutil/RefPtr.h"

namespace Quorvel::Fuzz {

namespace {

using Format::Bytes;
using Cache = Util::RefPtr<EffectCacheSystem>;

// The result of a search for each name: its bytes, or nothing.
using Results = std::map<std::string, std::optional<Bytes>>;

// A cache whose streams claim more than this may be trimmed when it is opened.
constexpr std::uint64_t kSurelyWithinBudget = 1 << 26;

constexpr int kMostNewEffects = 4;

// What an independent reader finds in a file.
struct Expectation {
    bool isCache = false;    // the package and the cache's header can be read
    bool isIndexed = false;  // the index can be read too
    bool isSound = false;
    std::uint64_t effectCount = 0;  // of those that a cache keeps; if isIndexed, as the next
    Results results;
};

std::optional<Bytes> EffectOf(const Format::PackageImage& image, const Format::StreamReader& reader,
                              const Format::EffectRecord& record) {
    const std::uint64_t size = Format::kLengthPrefixSize + record.size;
    for (const Format::StreamRecord& stream : image.streams) {
        if (stream.id == record.streamId && stream.size != size) { return std::nullopt; }
    }
    try {
        const Bytes stream = reader.Read(record.streamId);
        if (Format::LoadInteger(stream, 0, Format::kLengthPrefixSize) == record.size) {
            return Bytes(stream.begin() + Format::kLengthPrefixSize, stream.end());
        }
    } catch (const Format::FormatError&) {}
    return std::nullopt;
}

// True if a cache certainly keeps all of these streams.
bool IsWithinBudget(const Format::PackageImage& image) {
    std::uint64_t total = 0;
    for (const Format::StreamRecord& stream : image.streams) {
        if (stream.size > kSurelyWithinBudget) { return false; }
        total += stream.size;
    }
    return total <= kSurelyWithinBudget;
}

bool HasStream(const Format::PackageImage& image, std::uint64_t id) {
    return std::any_of(image.streams.begin(), image.streams.end(),
                       [id](const Format::StreamRecord& stream) { return stream.id == id; });
}

// What a cache must find in this file. A cache drops an effect whose stream is missing or has
// another owner.
Expectation Expect(const Bytes& file) {
    Expectation expected;
    try {
        const Format::PackageImage image = Format::ReadPackage(file, Format::kCacheStreamLimit);
        const Format::CacheHeader header = Format::ReadCacheHeader(image.headerData);
        expected.isCache = true;
        if (!IsWithinBudget(image)) { return expected; }
        const Format::StreamReader reader(image);
        const auto entries = Format::ReadIndex(reader, header);
        expected.isIndexed = true;
        std::map<std::string, Format::EffectRecord> records;
        for (const Format::IndexEntry& entry : entries) {
            records[entry.name] = entry.record;
        }
        std::map<std::uint64_t, int> namings = {{header.indexStream, 1}};
        for (const auto& [name, record] : records) {
            ++namings[record.streamId];
        }
        for (const auto& [name, record] : records) {
            const bool isKept = namings[record.streamId] == 1 && HasStream(image, record.streamId);
            expected.effectCount += isKept ? 1 : 0;
            expected.results[name] = isKept ? EffectOf(image, reader, record) : std::nullopt;
        }
        expected.isSound = Format::CheckEffectCache(image).empty();
    } catch (const Format::FormatError&) {}
    return expected;
}

CStr TextOf(const std::string& text) {
    return CStr(text.data(), text.size());
}

void RequireResults(EffectCacheSystem& cache, const Results& results) {
    for (const auto& [name, expected] : results) {
        Tab<unsigned char> data;
        const bool found = cache.SearchCachedEffects(TextOf(name), data);
        Require(found == expected.has_value(), "found if and only if it exists");
        if (found) {
            const auto size = static_cast<std::size_t>(data.Count());
            Require(size == expected->size(), "an effect's size");
            Require(Bytes(data.Addr(0), data.Addr(0) + size) == *expected, "an effect's bytes");
        }
    }
}

// A name from the index of a base, or one that is in none.
std::string TakeName(FuzzedDataProvider& input) {
    static const char* const kNames[] = {"a", "b", "c", "bb", "cc", "long name", "absent", "d"};
    return input.PickValueInArray(kNames);
}

// Adds effects, saves them, and updates the results.
void AddEffects(EffectCacheSystem& cache, FuzzedDataProvider& input, Results& results) {
    static constexpr std::size_t kSizes[] = {1, 9, 100, 8184, 8183, 20000, 70000};
    for (int count = input.ConsumeIntegral<std::uint8_t>() % kMostNewEffects; count > 0; --count) {
        const std::string name = TakeName(input);
        const Bytes data(input.PickValueInArray(kSizes), static_cast<std::uint8_t>(0x80 + count));
        cache.CacheCompiledEffect(TextOf(name), data.data(), data.size(), input.ConsumeBool());
        results[name] = data;
    }
    cache.ForceSaveToFile();
}

class Directory {
public:
    std::string Path() const { return directory_.Path().string(); }
    std::string File() const { return directory_.File("vornFxoCache.dat"); }
    Cache Open() const { return Cache(new EffectCacheSystem(TextOf(Path()))); }

    // Tells open caches that their file has been rewritten.
    void AnnounceChange() const {
        std::string name = File();
        for (char& byte : name) {
            const auto character = static_cast<unsigned char>(byte);
            byte = character < 0x80 && std::isalnum(character) ? byte : '_';
        }
        MultiProcessTimeStamp stamp;
        stamp.Initialize((name + "_timestamp").c_str());
        stamp.UpdateTimeStamp();
    }

private:
    const Testing::TemporaryDirectory directory_;
};

// Opens a cache with the files, either directly or by a reload after a change.
Cache OpenOver(const Directory& directory, const CrashImage& image, bool byReload) {
    if (!byReload) {
        WriteFiles(directory.File(), image);
        const Cache cache = directory.Open();
        Require(cache->IsEnabled(), "a cache over any bytes works");
        return cache;
    }
    Format::WriteWholeFile(directory.File(), EffectCacheBases().back().file);
    Cache cache = directory.Open();
    WriteFiles(directory.File(), image);
    directory.AnnounceChange();
    Tab<unsigned char> data;
    cache->SearchCachedEffects(CStr("absent"), data);
    return cache;
}

// True if the cache has refused a file with a readable index, which it may do unless the file is
// sound.
bool IsRefused(EffectCacheSystem& cache, const Expectation& expected) {
    if (!expected.isIndexed) { return false; }
    const std::uint64_t count = cache.GetNumberOfEffectsInFile();
    if (cache.IsEnabled() && count == expected.effectCount) { return false; }
    Require(!expected.isSound, "a sound cache is accepted");
    Require(!cache.IsEnabled() || count == 0, "accepted as a whole or not at all");
    return true;
}

void TryFile(const Directory& directory, FuzzedDataProvider& input) {
    const auto start = input.ConsumeIntegral<std::uint8_t>();
    const bool byReload = start % 4 == 0;
    const auto kind =
        static_cast<CrashImage::Kind>(start / 4 % static_cast<int>(CrashImage::Kind::CountOfKinds));
    // These come from the front of the input; the numbers that make the file come from its end.
    const std::vector<std::uint8_t> additions = input.ConsumeBytes<std::uint8_t>(12);
    FuzzedDataProvider adding(additions.data(), additions.size());
    const std::vector<std::uint8_t> crash =
        input.ConsumeBytes<std::uint8_t>(kind == CrashImage::Kind::NoSave ? 0 : kCrashInput);
    FuzzedDataProvider crashing(crash.data(), crash.size());
    const Bytes before = TakeFile(input, EffectCacheBases());
    const CrashImage image = MakeCrashImage(directory.File(), before, kind, crashing);
    const Bytes file = Recover(directory.File(), before, image);
    Expectation expected = Expect(file);

    Cache cache = OpenOver(directory, image, byReload);
    Require(!std::filesystem::exists(directory.File() + "-journal"), "a journal is used once");
    if (IsRefused(*cache, expected)) { expected = {}; }
    if (!expected.isCache || expected.isIndexed) {
        for (const char* const name : {"absent", "a", "bb"}) {
            expected.results.try_emplace(name);
        }
        RequireResults(*cache, expected.results);
    }

    AddEffects(*cache, adding, expected.results);
    Require(cache->IsEnabled() || !expected.isSound, "a sound cache can be saved");
    const bool isKnown = expected.isIndexed && cache->IsEnabled();
    if (isKnown) { RequireResults(*cache, expected.results); }
    cache.Reset();
    Require(std::filesystem::file_size(directory.File()) <= file.size() + kMostGrowth,
            "the file's growth");

    const Bytes saved = Format::ReadWholeFile(directory.File());
    if (expected.isSound) {
        Require(Format::CheckEffectCache(saved).empty(), "a sound cache stays sound");
    }
    cache = directory.Open();
    Require(cache->IsEnabled(), "a cache can be opened again");
    if (isKnown) { RequireResults(*cache, expected.results); }
}

}  // namespace

}  // namespace Quorvel::Fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Quorvel::Fuzz::Directory directory;
    FuzzedDataProvider input(data, size);
    Quorvel::Fuzz::TryFile(directory, input);
    return 0;
}
