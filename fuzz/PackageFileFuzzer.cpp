// Opens arbitrary bytes as a package, which must read exactly what an independent reader of the
// format reads; then deletes and creates streams and commits. A sound file must stay sound.
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>

#include "format/PackageCheck.h"
#include "fuzz/DamagedFile.h"
#include "fuzz/FileBases.h"
#include "fuzz/Require.h"
#include "quorvel/Exceptions.h"
#include "quorvel/FilePackage.h"
#include "support/TemporaryDirectory.h"

namespace Quorvel::Fuzz {

namespace {

using Format::Bytes;
using Format::PackageImage;
using Streams = std::map<std::uint64_t, Bytes>;

constexpr std::uint64_t kLargestCompared = 1 << 18;
constexpr std::uint64_t kLargestCreated = 1 << 16;
constexpr std::uint64_t kAddedSize = 50;

// Under this stream limit even a sound package may have no room for the replacements.
constexpr std::uint64_t kTightLimit = 16;

// Runs a step that may throw if the file is damaged; false if it throws an exception that packages
// may throw. Others propagate.
template <typename Step>
bool Succeeds(const Step& step) {
    try {
        return step();
    } catch (const FileIOException&) {
    } catch (const FileDataCorruptException&) {
    } catch (const InvalidParameterException&) {
    } catch (const OutOfMemoryException&) {}
    return false;
}

std::optional<PackageImage> ReadByFormat(const Bytes& file, std::uint64_t limit) {
    try {
        return Format::ReadPackage(file, limit);
    } catch (const Format::FormatError&) { return std::nullopt; }
}

std::optional<Bytes> ReadByFormat(const Format::StreamReader& reader, std::uint64_t id) {
    try {
        return reader.Read(id);
    } catch (const Format::FormatError&) { return std::nullopt; }
}

std::optional<Bytes> ReadByLibrary(IDataStreamSet& package, std::uint64_t id) {
    Bytes content;
    const bool read = Succeeds([&] {
        const Util::RefPtr<IDataStream> stream = package.OpenDataStream(id);
        if (!stream) { return false; }
        content.resize(stream->GetSize());
        return stream->Read(content.data(), content.size()) == content.size();
    });
    return read ? std::optional(content) : std::nullopt;
}

void CompareWithFormat(IDataStreamSet& package, const PackageImage& image) {
    const IDataStreamSet& reading = package;
    const std::uint8_t* const data = reading.GetHeaderData();
    Require(Bytes(data, data + package.GetHeaderDataSize()) == image.headerData, "header data");
    Require(package.GetNumberOfDataStreams() == image.streams.size(), "number of streams");
    std::uint64_t total = 0;
    const Format::StreamReader reader(image);
    for (const Format::StreamRecord& stream : image.streams) {
        total += stream.size;
        if (stream.size <= kLargestCompared) {
            Require(ReadByLibrary(package, stream.id) == ReadByFormat(reader, stream.id),
                    "a stream's bytes");
        } else {
            // Too long to read, but not to open.
            Succeeds([&] { return static_cast<bool>(package.OpenDataStream(stream.id)); });
        }
    }
    Require(package.GetTotalDataSize() == total, "total size");
}

// Creates a stream and fills it; false if a step was refused.
bool AddStream(IDataStreamSet& package, const Bytes& content, Streams& streams) {
    return Succeeds([&] {
        const std::uint64_t id = package.CreateDataStream(content.size());
        if (id == kInvalidStreamId) { return false; }
        streams[id] = content;
        return content.empty() ||
               package.OpenDataStream(id)->Write(content.data(), content.size()) == content.size();
    });
}

// Adds a stream, then replaces each of the others with one of the same size (at most
// kLargestCreated) or one byte more. Records the contents in `streams`. False if a step was
// refused.
bool ChangeStreams(IDataStreamSet& package, const PackageImage& image, Streams& streams) {
    std::uint8_t filler = 1;
    bool complete = AddStream(package, Bytes(kAddedSize, filler), streams);
    for (const Format::StreamRecord& stream : image.streams) {
        const std::uint64_t size = std::min(stream.size, kLargestCreated) + stream.id % 2;
        const bool deleted = Succeeds([&] { return package.DeleteDataStream(stream.id); });
        if (deleted) { streams.erase(stream.id); }
        const Bytes content(static_cast<std::size_t>(size), ++filler);
        complete = AddStream(package, content, streams) && deleted && complete;
    }
    return complete;
}

void TryFile(const Bytes& file, const std::string& path, std::uint64_t limit,
             std::uint64_t capacity) {
    const PagedFilePackageConfig config = {path.c_str(), capacity, limit};
    const std::optional<PackageImage> image = ReadByFormat(file, limit);
    Format::WriteWholeFile(path, file);
    Util::RefPtr<IDataStreamSet> package = OpenFilePackage(config);
    Require(static_cast<bool>(package) == image.has_value(),
            "opened if and only if the format allows it");
    if (!package || !image) {
        Require(Format::ReadWholeFile(path) == file, "a refused file is not changed");
        return;
    }
    CompareWithFormat(*package, *image);

    const bool sound = Format::CheckPackage(*image).empty();
    Streams streams;
    for (const Format::StreamRecord& stream : image->streams) {
        streams[stream.id];
    }
    const bool changed = ChangeStreams(*package, *image, streams);
    const bool committed = Succeeds([&] { return package->Commit(); });
    package.Reset();
    Require(std::filesystem::file_size(path) <= file.size() + kMostGrowth, "the file's growth");
    package = OpenFilePackage(config);
    if (!sound || limit == kTightLimit) { return; }
    Require(changed && committed && package, "a sound package can be changed");
    const Bytes after = Format::ReadWholeFile(path);
    Require(Format::CheckPackage(after, limit).empty(), "a sound package stays sound");
    const PackageImage changedImage = Format::ReadPackage(after, limit);
    Require(Format::ReadAllStreams(changedImage) == streams, "the streams written");
    CompareWithFormat(*package, changedImage);
}

}  // namespace

}  // namespace Quorvel::Fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace Quorvel;
    static constexpr std::uint64_t kLimits[] = {Format::kHighestId, 65535, Fuzz::kTightLimit};
    static const Testing::TemporaryDirectory directory;
    static const std::string path = directory.File("package");
    FuzzedDataProvider input(data, size);
    const std::uint64_t limit = input.PickValueInArray(kLimits);
    const std::uint64_t capacity = 2 + input.ConsumeIntegral<std::uint8_t>() % 16;
    Fuzz::TryFile(Fuzz::TakeFile(input, Fuzz::PackageBases()), path, limit, capacity);
    return 0;
}
