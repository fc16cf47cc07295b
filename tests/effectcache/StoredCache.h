#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "effectcache/CacheClient.h"
#include "platform/Clock.h"
#include "quorvel/FilePackage.h"

// The cache's file as a package: header data and streams, byte for byte.
namespace Quorvel::Testing {

// A sequence of little-endian numbers, texts and bytes.
class ByteList {
public:
    ByteList& U16(std::uint16_t value) { return Number(value, 2); }
    ByteList& U32(std::uint32_t value) { return Number(value, 4); }
    ByteList& U64(std::uint64_t value) { return Number(value, 8); }
    ByteList& Text(const std::string& text);
    ByteList& Append(const Bytes& bytes);
    operator const Bytes&() const { return bytes_; }
    const Bytes& Get() const { return bytes_; }

private:
    ByteList& Number(std::uint64_t value, int size);

    Bytes bytes_;
};

std::uint64_t NumberAt(const Bytes& bytes, std::size_t offset, std::size_t size);

constexpr std::uint32_t kTagOfCache = 20091030;

// A block of the header data.
Bytes Block(std::uint32_t tag, const Bytes& payload);

// The cache's header, of 28 bytes.
Bytes Header(std::uint64_t recordCount, std::uint64_t indexStream, std::uint32_t version = 7);

// A byte array as it is stored: its length in 8 bytes, then its bytes.
Bytes ByteArray(const Bytes& bytes);
Bytes ByteArray(const std::string& text);

// A record of the index, of 44 bytes.
struct Record {
    std::uint64_t streamId = 0;
    std::uint32_t nameLength = 0;
    std::uint32_t effectSize = 0;
    std::uint32_t permanent = 0;
    Platform::LocalTime time = {2024, 1, 1, 0, 0, 0, 0};
    std::uint64_t reserved = 0;

    Bytes Get() const;
};

// An effect as it is stored in a file.
struct StoredEffect {
    std::string name;
    Bytes bytes;
    std::uint32_t permanent = 0;
    Platform::LocalTime time = {2024, 1, 1, 0, 0, 0, 0};
};

// Makes a new package in a file, with the streams' ids counting from 0.
void WritePackage(const std::string& path, const Bytes& headerData,
                  const std::vector<Bytes>& streams);

// Writes a cache file: stream 0 is the index, stream n the n-th effect.
void WriteCache(const std::string& path, const std::vector<StoredEffect>& effects);

// Leaves a cache's file and its journal as a process does when it is killed in a save after
// overwriting pages. The file must have an effect.
void LeaveUnfinishedSave(const std::string& path);

// The contents of a cache's file, which is open only while they are read.
class StoredCache {
public:
    // Fails the test if the file is not a package.
    explicit StoredCache(const std::string& path);
    explicit StoredCache(const TemporaryDirectory& directory);

    const Bytes& HeaderData() const { return headerData_; }
    const std::vector<std::uint64_t>& StreamIds() const { return streamIds_; }
    std::uint64_t TotalDataSize() const { return totalDataSize_; }

    // The bytes of a stream; empty if no stream has that id.
    Bytes Stream(std::uint64_t id) const;

    // The fields of the cache's header, which must be the only block.
    std::uint64_t RecordCount() const { return NumberAt(headerData_, 16, 8); }
    std::uint64_t IndexStreamId() const { return NumberAt(headerData_, 24, 8); }
    Bytes Index() const { return Stream(IndexStreamId()); }

    // The names in the index, in its order.
    std::vector<std::string> Names() const;

    // The 44 bytes of a name's record; empty if the index does not have it.
    Bytes RecordOf(const std::string& name) const;

private:
    struct IndexEntry {
        std::string name;
        Bytes record;
    };
    std::vector<IndexEntry> Entries() const;

    Bytes headerData_;
    std::vector<std::uint64_t> streamIds_;
    std::vector<Bytes> streams_;
    std::uint64_t totalDataSize_ = 0;
};

PagedFilePackageConfig CacheConfig(const std::string& path);

}  // namespace Quorvel::Testing
