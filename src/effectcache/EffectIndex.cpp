#include "effectcache/EffectIndex.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <span>
#include <utility>

#include "package/StreamTransfer.h"
#include "platform/Assert.h"
#include "quorvel/Exceptions.h"

namespace Quorvel {

namespace {

// An index stream without effects has one byte, since a stream without bytes can't be opened.
constexpr std::uint64_t kEmptyIndexSize = 1;

// The index stream is read in pieces of this size.
constexpr std::uint64_t kPieceSize = 0x10000;  // mutation: any size will do

struct HeaderPayload {
    std::uint64_t offset;  // in the header data
    std::uint32_t length;
};

// The payload of the cache's block of the header data. The search ends at the first block that
// reaches past the end of the data.
std::optional<HeaderPayload> FindHeaderPayload(const std::uint8_t* data, std::uint64_t size) {
    QUORVEL_ASSERT(data || size == 0);
    std::uint64_t offset = 0;
    while (size - offset >= sizeof(HeaderBlock)) {
        HeaderBlock block;
        std::memcpy(&block, data + offset, sizeof block);
        offset += sizeof block;
        if (block.payloadLength > size - offset) { break; }
        if (block.tag == kCacheHeaderTag) { return HeaderPayload{offset, block.payloadLength}; }
        offset += block.payloadLength;
    }
    return std::nullopt;
}

}  // namespace

std::vector<IndexEntry*> EffectIndex::EvictionOrder() {
    std::vector<IndexEntry*> order;
    for (IndexEntry* const entry : Entries()) {
        if (entry->record.permanent == 0) { order.push_back(entry); }
    }
    std::stable_sort(order.begin(), order.end(), [](const auto& left, const auto& right) {
        return IsEarlier(left->record.entryTime, right->record.entryTime);
    });
    return order;
}

void EffectIndex::Clear() {
    header_ = {};
    table_.Clear();
}

// ---- Loading ------------------------------------------------------------------------------------

bool EffectIndex::Load(PagedFilePackage& package) {
    // In an unsound package a stream may have the bytes of another, now or after a change, so none
    // of its streams can be trusted.
    if (!ReadHeader(package) || !package.IsSound()) { return false; }
    const Util::RefPtr<IDataStream> stream = package.OpenDataStream(header_.indexStreamId);
    if (!stream) { return false; }
    table_.Clear();
    const std::vector<IndexEntry*> read = ReadEntries(*stream);
    if (read.size() != header_.recordCount) { return false; }
    DropAmbiguousEntries(package, read);
    Entries();  // sorts them now, not in the first save
    return true;
}

bool EffectIndex::ReadHeader(PagedFilePackage& package) {
    const std::uint8_t* const data = std::as_const(package).GetHeaderData();
    const auto payload = FindHeaderPayload(data, package.GetHeaderDataSize());
    if (!payload || payload->length < sizeof(CacheHeader)) { return false; }
    CacheHeader header;
    std::memcpy(&header, data + payload->offset, sizeof header);
    if (header.version != kCacheVersion || header.recordCount > kMostEffects) { return false; }
    header_ = header;
    return true;
}

// Reads the records up to the first damaged one. Returns all of them, even those that a later
// record of the same name replaces.
std::vector<IndexEntry*> EffectIndex::ReadEntries(IDataStream& stream) {
    std::vector<IndexEntry*> entries;
    const std::uint64_t count = header_.recordCount;
    // A damaged header may state more effects than a cache can hold.
    const std::uint64_t expected = std::min(count, kStreamLimit);
    entries.reserve(expected);
    table_.Reserve(expected);
    std::vector<std::byte> bytes;
    std::span<const std::byte> rest;
    while (entries.size() < count) {
        const std::size_t size = IndexEntry::SizeIn(rest);
        if (size > rest.size()) {
            bytes.erase(bytes.begin(), bytes.end() - static_cast<std::ptrdiff_t>(rest.size()));
            if (!ReadMore(stream, bytes)) { break; }
            rest = bytes;
            continue;
        }
        if (size == 0) { break; }
        const auto* const entry = reinterpret_cast<const IndexEntry*>(rest.data());
        entries.push_back(table_.Put(entry->Key(), entry->Key().Hash(), entry->record));
        rest = rest.subspan(size);
    }
    return entries;
}

// Reads more bytes and appends them. False at the end of the stream, and at a page that can't be
// read: that page may lie after the last entry.
bool EffectIndex::ReadMore(IDataStream& stream, std::vector<std::byte>& bytes) {
    const std::uint64_t position = stream.GetPosition();
    QUORVEL_ASSERT(position <= stream.GetSize());
    const std::uint64_t size = std::min(kPieceSize, stream.GetSize() - position);
    const std::size_t kept = bytes.size();
    bytes.resize(kept + size);
    try {
        stream.Read(bytes.data() + kept, size);
    } catch (const FileIOException&) {}
    bytes.resize(kept + (stream.GetPosition() - position));
    return stream.GetPosition() != position;
}

// Removes entries whose stream is missing, holds the index, or is named by another of the records
// read: a search could return another effect's bytes for them.
void EffectIndex::DropAmbiguousEntries(const PagedFilePackage& package,
                                       std::span<IndexEntry* const> read) {
    std::vector<std::uint8_t> namings(kStreamLimit + 1);  // by stream; 2 stands for more
    QUORVEL_ASSERT(header_.indexStreamId < namings.size());
    namings[header_.indexStreamId] = 1;  // mutation: any number but 0
    bool isAmbiguous = false;
    for (const IndexEntry* const entry : read) {
        const std::uint64_t id = entry->record.streamId;
        if (!package.HasStream(id)) {
            isAmbiguous = true;
        } else if (namings[id]++ != 0) {
            namings[id] = 2;
            isAmbiguous = true;
        }
    }
    if (!isAmbiguous) { return; }
    const std::vector<IndexEntry*> entries = Entries();
    for (IndexEntry* const entry : entries) {
        const std::uint64_t id = entry->record.streamId;
        if (!package.HasStream(id) || namings[id] != 1) { Remove(entry); }
    }
}

// ---- Saving -------------------------------------------------------------------------------------

void EffectIndex::Start(PagedFilePackage& package) {
    QUORVEL_ASSERT(Size() == 0);
    header_ = {kCacheVersion, 0, package.CreateDataStream(kEmptyIndexSize), 0};
    if (QUORVEL_NEVER(!package.OpenDataStream(header_.indexStreamId))) { throw FileIOException(); }
    WriteHeader(package);
}

void EffectIndex::Write(PagedFilePackage& package) {
    table_.Pack();
    const Util::RefPtr<IDataStream> stream =
        OpenForWriting(package, std::max(table_.TotalBytes(), kEmptyIndexSize));
    StateWriter writer(*stream);
    for (const IndexEntry* const entry : Entries()) {
        const std::span<const unsigned char> bytes = entry->Bytes();
        writer.Write(bytes.data(), bytes.size());
    }
    writer.Flush();
    WriteHeader(package);
}

// The index stream, if it has that size; otherwise a new one in its place.
Util::RefPtr<IDataStream> EffectIndex::OpenForWriting(PagedFilePackage& package,
                                                      std::uint64_t size) {
    Util::RefPtr<IDataStream> stream = package.OpenDataStream(header_.indexStreamId);
    if (stream && stream->GetSize() != size) {
        stream.Reset();
        package.DeleteDataStream(header_.indexStreamId);
        header_.indexStreamId = package.CreateDataStream(size);
        stream = package.OpenDataStream(header_.indexStreamId);
    }
    if (QUORVEL_NEVER(!stream)) { throw FileIOException(); }
    return stream;
}

void EffectIndex::WriteHeader(PagedFilePackage& package) {
    const std::uint64_t size = package.GetHeaderDataSize();
    auto payload = FindHeaderPayload(std::as_const(package).GetHeaderData(), size);
    if (!payload) {
        const HeaderBlock block = {kCacheHeaderTag, sizeof(CacheHeader), 0};
        package.SetHeaderDataSize(size + sizeof block + sizeof(CacheHeader));
        std::memcpy(package.GetHeaderData() + size, &block, sizeof block);
        payload = HeaderPayload{size + sizeof block, sizeof(CacheHeader)};
    }
    QUORVEL_ASSERT(payload->length >= sizeof(CacheHeader));  // a shorter one is refused by Load
    header_.recordCount = Size();
    std::memcpy(package.GetHeaderData() + payload->offset, &header_, sizeof header_);
}

}  // namespace Quorvel
