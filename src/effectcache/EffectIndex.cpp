#include "effectcache/EffectIndex.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <span>
#include <utility>

#include "effectcache/IndexReader.h"
#include "package/StreamTransfer.h"
#include "platform/Assert.h"
#include "quorvel/Exceptions.h"

namespace Quorvel {

namespace {

// An index stream of no effects has one byte, since a stream without bytes can't be opened.
constexpr std::uint64_t kEmptyIndexSize = 1;

struct HeaderPayload {
    std::uint64_t offset;  // in the header data
    std::uint32_t length;
};

// The payload of the cache's block of the header data. Blocks count up to the first one that does
// not lie inside the data.
std::optional<HeaderPayload> FindHeaderPayload(const std::uint8_t* data, std::uint64_t size) {
    std::uint64_t offset = 0;
    while (size - offset >= sizeof(HeaderBlock)) {
        HeaderBlock block;
        std::memcpy(&block, data + offset, sizeof block);
        offset += sizeof block;
        if (block.payloadLength > size - offset) {
            break;
        }
        if (block.tag == kCacheHeaderTag) {
            return HeaderPayload{offset, block.payloadLength};
        }
        offset += block.payloadLength;
    }
    return std::nullopt;
}

}  // namespace

// Which streams the index says hold effects. An effect without a stream is never found, and does no
// harm until another stream gets the id.
class EffectIndex::StreamClaims {
public:
    StreamClaims(const PagedFilePackage& package, std::uint64_t indexStreamId)
        : package_(package), isClaimed_(kStreamLimit + 1) {
        Claim(indexStreamId);
    }

    void Claim(std::uint64_t id) {
        if (!package_.HasStream(id)) {
            if (id <= kStreamLimit) {
                missing_.resize(kStreamLimit + 1);
                missing_[id] = true;
            }
        } else if (isClaimed_[id]) {
            areDistinct_ = false;
        } else {
            isClaimed_[id] = true;
        }
    }

    // True if no stream was claimed twice.
    bool AreDistinct() const { return areDistinct_; }

    // The claimed ids that no stream has, but one may get; empty for none.
    std::vector<bool>& Missing() { return missing_; }

private:
    const PagedFilePackage& package_;
    std::vector<bool> isClaimed_;
    std::vector<bool> missing_;
    bool areDistinct_ = true;
};

std::vector<IndexEntry*> EffectIndex::EvictionOrder() {
    std::vector<IndexEntry*> order;
    for (IndexEntry* const entry : Entries()) {
        if (entry->record.permanent == 0) {
            order.push_back(entry);
        }
    }
    std::stable_sort(order.begin(), order.end(), [](const auto& left, const auto& right) {
        return IsEarlier(left->record.entryTime, right->record.entryTime);
    });
    return order;
}

void EffectIndex::Clear() {
    header_ = {};
    table_.Clear();
    missingStreams_.clear();
}

// ---- Loading ------------------------------------------------------------------------------------

bool EffectIndex::Load(PagedFilePackage& package) {
    // In a package that is not sound a stream may have the bytes of another, or get them by a
    // change: none of its streams can be trusted.
    if (!ReadHeader(package) || !package.IsSound()) {
        return false;
    }
    const Util::RefPtr<IDataStream> stream = package.OpenDataStream(header_.indexStreamId);
    if (!stream) {
        return false;
    }
    table_.Clear();
    StreamClaims claims(package, header_.indexStreamId);
    const bool isComplete = ReadEntries(*stream, claims);
    missingStreams_.swap(claims.Missing());
    return isComplete && (claims.AreDistinct() || HaveDistinctStreams(package));
}

bool EffectIndex::ReadHeader(PagedFilePackage& package) {
    const std::uint8_t* const data = std::as_const(package).GetHeaderData();
    const auto payload = FindHeaderPayload(data, package.GetHeaderDataSize());
    if (!payload || payload->length < sizeof(CacheHeader)) {
        return false;
    }
    CacheHeader header;
    std::memcpy(&header, data + payload->offset, sizeof header);
    if (header.version != kCacheVersion || header.recordCount > kMostEffects) {
        return false;
    }
    header_ = header;
    return true;
}

bool EffectIndex::ReadEntries(IDataStream& stream, StreamClaims& claims) {
    const std::uint64_t count = header_.recordCount;
    // A damaged file may count more effects than it can hold.
    table_.Reserve(std::min(count, kStreamLimit));
    IndexReader reader(stream, table_.Allocate(stream.GetSize()), count);
    for (std::uint64_t index = 0; index < count; ++index) {
        IndexEntry* const entry = reader.ReadNext();
        if (!entry) {
            return false;
        }
        table_.AddFilled(entry);
        claims.Claim(entry->record.streamId);
    }
    table_.Entries();  // sorted now, so that a save finds few new entries
    return true;
}

// True if no stream holds two effects, or an effect and the index, when entries that were replaced
// by others of their name don't count.
bool EffectIndex::HaveDistinctStreams(const PagedFilePackage& package) {
    StreamClaims claims(package, header_.indexStreamId);
    for (const IndexEntry* const entry : Entries()) {
        claims.Claim(entry->record.streamId);
    }
    return claims.AreDistinct();
}

// ---- Saving -------------------------------------------------------------------------------------

void EffectIndex::Start(PagedFilePackage& package) {
    QUORVEL_ASSERT(Size() == 0);
    header_ = {kCacheVersion, 0, package.CreateDataStream(kEmptyIndexSize), 0};
    if (!package.OpenDataStream(header_.indexStreamId)) {
        throw FileIOException();
    }
    WriteHeader(package);
}

std::uint64_t EffectIndex::CreateStream(PagedFilePackage& package, std::uint64_t size) {
    const std::uint64_t id = package.CreateDataStream(size);
    if (id < missingStreams_.size() && missingStreams_[id]) {
        const std::vector<IndexEntry*> entries = Entries();
        for (IndexEntry* const entry : entries) {
            if (entry->record.streamId == id) {
                Remove(entry);
            }
        }
        missingStreams_[id] = false;
    }
    return id;
}

void EffectIndex::Write(PagedFilePackage& package) {
    const Util::RefPtr<IDataStream> stream = OpenForWriting(package);
    StateWriter writer(*stream);
    for (const IndexEntry* const entry : Entries()) {
        const std::span<const unsigned char> bytes = entry->Bytes();
        writer.Write(bytes.data(), bytes.size());
    }
    writer.Flush();
    WriteHeader(package);
}

Util::RefPtr<IDataStream> EffectIndex::OpenForWriting(PagedFilePackage& package) {
    for (;;) {
        table_.Pack();
        const std::uint64_t size = std::max(table_.TotalBytes(), kEmptyIndexSize);
        const Util::RefPtr<IDataStream> stream = OpenOfSize(package, size);
        if (!stream) {
            throw FileIOException();
        }
        // Allocating the stream's id may have removed an effect.
        if (std::max(table_.TotalBytes(), kEmptyIndexSize) == size) {
            return stream;
        }
    }
}

// The index stream, if it has that size; otherwise a new one in its place.
Util::RefPtr<IDataStream> EffectIndex::OpenOfSize(PagedFilePackage& package, std::uint64_t size) {
    if (header_.indexStreamId != kInvalidStreamId) {
        Util::RefPtr<IDataStream> stream = package.OpenDataStream(header_.indexStreamId);
        if (stream && stream->GetSize() == size) {
            return stream;
        }
        if (stream) {
            stream.Reset();
            package.DeleteDataStream(header_.indexStreamId);
        }
    }
    header_.indexStreamId = CreateStream(package, size);
    return package.OpenDataStream(header_.indexStreamId);
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
