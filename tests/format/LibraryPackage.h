#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "format/Bytes.h"
#include "format/PackageImage.h"
#include "quorvel/Quorvel.h"

// The library's packages in the terms of this folder.
namespace Quorvel::Format {

struct LibrarySettings {
    std::uint64_t pageCacheCapacity = 64;
    std::uint64_t streamLimit = kHighestId;
};

// CreateFilePackage and OpenFilePackage; empty where they are.
Util::RefPtr<IDataStreamSet> CreatePackage(const std::string& path, LibrarySettings settings = {});
Util::RefPtr<IDataStreamSet> OpenPackage(const std::string& path, LibrarySettings settings = {});

// A new stream with that content. Its id.
std::uint64_t AddStream(IDataStreamSet& package, const Bytes& content);

// The whole content of a stream, which must not be empty. Throws what the library throws, and
// std::runtime_error when it does not open the stream or reads less than all of it.
Bytes ReadStream(IDataStreamSet& package, std::uint64_t id);

void SetHeaderData(IDataStreamSet& package, const Bytes& headerData);
Bytes GetHeaderData(IDataStreamSet& package);

// Fails the test unless the package holds these streams and no others.
void ExpectStreams(IDataStreamSet& package, const std::map<std::uint64_t, Bytes>& streams);

// Fails the test unless the file is sound, has its records in the library's order, and holds this
// and nothing else.
void ExpectFile(const std::string& path, const std::map<std::uint64_t, Bytes>& streams,
                const Bytes& headerData);

}  // namespace Quorvel::Format
