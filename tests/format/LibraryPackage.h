#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "format/Bytes.h"
#include "format/PackageImage.h"
#include "quorvel/Quorvel.h"

// The library's packages, with this folder's types.
namespace Quorvel::Format {

struct LibrarySettings {
    std::uint64_t pageCacheCapacity = 64;
    std::uint64_t streamLimit = kHighestId;
};

// Call CreateFilePackage and OpenFilePackage; null if these return null.
Util::RefPtr<IDataStreamSet> CreatePackage(const std::string& path, LibrarySettings settings = {});
Util::RefPtr<IDataStreamSet> OpenPackage(const std::string& path, LibrarySettings settings = {});

// Adds a stream with this content and returns its id.
std::uint64_t AddStream(IDataStreamSet& package, const Bytes& content);

// The content of a stream, which must not be empty. Throws what the library throws, and
// std::runtime_error if the library does not open the stream or reads less than its size.
Bytes ReadStream(IDataStreamSet& package, std::uint64_t id);

void SetHeaderData(IDataStreamSet& package, const Bytes& headerData);
Bytes GetHeaderData(IDataStreamSet& package);

// Fails the test unless the package holds exactly these streams.
void ExpectStreams(IDataStreamSet& package, const std::map<std::uint64_t, Bytes>& streams);

// Fails the test unless the file is sound, has its records in the library's order, and holds
// exactly these streams and this header data.
void ExpectFile(const std::string& path, const std::map<std::uint64_t, Bytes>& streams,
                const Bytes& headerData);

}  // namespace Quorvel::Format
