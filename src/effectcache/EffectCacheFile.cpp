// The effect cache's steps on its file.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <span>
#include <vector>

#include "effectcache/EffectCacheImpl.h"
#include "effectcache/IndexReader.h"
#include "effectcache/StreamHelpers.h"
#include "package/PagedFilePackage.h"
#include "platform/DiskSpace.h"
#include "quorvel/Exceptions.h"
#include "quorvel/FilePackage.h"

namespace Quorvel {

namespace {

constexpr std::uint64_t kPageCacheCapacity = 64;
constexpr std::uint64_t kStreamLimit = 65535;

// The cache takes no more of a volume than this, however much is free.
constexpr std::uint64_t kLargestSpaceBudget = 0x10000000;

// Until the first effect is saved the index stream has one byte, since a stream without bytes can't
// be opened.
constexpr std::uint64_t kEmptyIndexSize = 1;

PagedFilePackageConfig PackageConfig(const CStr& path) {
    return {path.data(), kPageCacheCapacity, kStreamLimit};
}

// The package came from the entry points, which make no other kind.
PagedFilePackage& Internals(const Util::RefPtr<IDataStreamSet>& package) {
    return static_cast<PagedFilePackage&>(*package);
}

// Pieces in which the index stream is written.
constexpr std::size_t kIndexPieceSize = 16384;

// How far ahead of the writing entries are fetched from memory.
constexpr std::size_t kEntriesAhead = 8;

}  // namespace

// Which streams hold effects, as an index says. An effect without a stream is never found, and does
// no harm before another stream gets the id.
class EffectCacheImpl::StreamClaims {
public:
    StreamClaims(const PagedFilePackage& package, std::uint64_t indexStreamId)
        : package_(package), isTaken_(kStreamLimit + 1) {
        Claim(indexStreamId);
    }

    void Claim(std::uint64_t id) {
        if (!package_.HasStream(id)) {
            if (id <= kStreamLimit) {
                missing_.resize(kStreamLimit + 1);
                missing_[id] = true;
            }
        } else if (isTaken_[id]) {
            areDistinct_ = false;
        } else {
            isTaken_[id] = true;
        }
    }

    // Whether no stream has been claimed twice.
    bool AreDistinct() const { return areDistinct_; }

    // The ids claimed that no stream has, but may get; empty for none.
    std::vector<bool>& Missing() { return missing_; }

private:
    const PagedFilePackage& package_;
    std::vector<bool> isTaken_;
    std::vector<bool> missing_;
    bool areDistinct_ = true;
};

// ---- Opening, creating, letting go --------------------------------------------------------------

bool EffectCacheImpl::OpenFile() noexcept {
    const AutoMutex guard(*fileMutex_, kWaitForever);
    try {
        package_ = OpenFilePackage(PackageConfig(filePath_));
        if (package_ && ReadHeader() && LoadIndex()) {
            return true;
        }
    } catch (...) {
    }
    GivePackageUp();
    return false;
}

bool EffectCacheImpl::CreateFile() noexcept {
    ClearState();
    const AutoMutex guard(*fileMutex_, kWaitForever);
    LetPackageGo();
    try {
        CreateEmptyCache();
        return true;
    } catch (...) {
        LetPackageGo();
        return false;
    }
}

void EffectCacheImpl::CreateEmptyCache() {
    package_ = CreateFilePackage(PackageConfig(filePath_));
    if (!package_) {
        throw FileIOException();
    }
    stamp_.UpdateTimeStamp();
    header_ = {kCacheVersion, 0, package_->CreateDataStream(kEmptyIndexSize), 0};
    if (!package_->OpenDataStream(header_.indexStreamId) || !WriteHeader() || !package_->Commit()) {
        throw FileIOException();
    }
}

// After a commit the file holds everything; without one, what is in memory must not reach it.
void EffectCacheImpl::LetPackageGo() noexcept {
    if (package_) {
        Internals(package_).Abandon();
        package_.Reset();
    }
}

// A step that failed may have let some of its changes reach the file, where what was committed
// before still describes the pages they overwrote. Nobody must read that, neither from the file nor
// by what he remembers of it.
void EffectCacheImpl::GivePackageUp() noexcept {
    const bool isFileSuspect = package_ && Internals(package_).MayHaveChangedFile();
    LetPackageGo();
    if (!isFileSuspect) {
        return;
    }
    if (!CreateFile()) {
        EmptyFile();
        stamp_.UpdateTimeStamp();
    }
    LetPackageGo();
}

// Takes no space on the volume, so it mostly works where nothing can be written.
void EffectCacheImpl::EmptyFile() noexcept {
    if (std::FILE* const file = std::fopen(filePath_.data(), "wb")) {
        std::fclose(file);
    }
}

// ---- Reading ------------------------------------------------------------------------------------

// The guard is the one under which the caller has the file. When its wait ended in an abandoned
// mutex, the last holder may have died in the middle of a save, before it wrote a stamp.
bool EffectCacheImpl::SyncWithFile(const AutoMutex& guard) noexcept {
    const bool isAbandoned = guard.WaitResult() == kWaitAbandoned;
    if (!stamp_.IsChanged() && !isAbandoned) {
        return true;
    }
    if (!package_) {
        return false;
    }
    try {
        // Changes that nobody committed are older than what the file holds now.
        Internals(package_).Abandon();
        if (package_->Load() && ReadHeader() && LoadIndex()) {
            return true;
        }
    } catch (...) {
    }
    GivePackageUp();
    return false;
}

// Offset of the payload of the cache's block in the header data. Blocks are looked at up to the
// first one that does not lie inside the data.
std::optional<std::uint64_t> EffectCacheImpl::FindHeaderPayload(
    std::uint32_t& payloadLength) const {
    const IDataStreamSet& package = *package_;
    const std::uint8_t* const data = package.GetHeaderData();
    const std::uint64_t size = package_->GetHeaderDataSize();
    std::uint64_t offset = 0;
    while (size - offset >= sizeof(HeaderBlock)) {
        HeaderBlock block;
        std::memcpy(&block, data + offset, sizeof block);
        offset += sizeof block;
        if (block.payloadLength > size - offset) {
            break;
        }
        if (block.tag == kCacheHeaderTag) {
            payloadLength = block.payloadLength;
            return offset;
        }
        offset += block.payloadLength;
    }
    return std::nullopt;
}

bool EffectCacheImpl::ReadHeader() {
    if (!package_) {
        return false;
    }
    std::uint32_t payloadLength = 0;
    const auto payload = FindHeaderPayload(payloadLength);
    if (!payload || payloadLength < sizeof(CacheHeader)) {
        return false;
    }
    const IDataStreamSet& package = *package_;
    CacheHeader header;
    std::memcpy(&header, package.GetHeaderData() + *payload, sizeof header);
    if (header.version != kCacheVersion || header.recordCount > kMostEffects) {
        return false;
    }
    header_ = header;
    return true;
}

bool EffectCacheImpl::LoadIndex() {
    if (!LoadFileTable()) {
        return false;
    }
    if (TrimFile()) {
        return true;
    }
    // A file that takes no change still holds all its effects, if only more than it should.
    if (Internals(package_).MayHaveChangedFile()) {
        return false;
    }
    Internals(package_).Abandon();
    return package_->Load() && ReadHeader() && LoadFileTable();
}

// Trims to the space budget. A trim deletes streams that the index in the file still names, and
// moves the tails of others: no page of that may reach the file without the index that goes with
// it.
bool EffectCacheImpl::TrimFile() noexcept {
    try {
        TrimTo(SpaceBudget());
        fileTable_.Settle();
        return !Internals(package_).HasChanges() || CommitTables();
    } catch (...) {
        return false;
    }
}

bool EffectCacheImpl::LoadFileTable() {
    // In a package that is not sound a stream may have the bytes of another, or get them by a
    // change: nothing of it is used.
    if (!package_ || !Internals(package_).IsSound()) {
        return false;
    }
    Util::RefPtr<IDataStream> stream = package_->OpenDataStream(header_.indexStreamId);
    if (!stream) {
        return false;
    }
    if (header_.recordCount < fileTable_.Size() / 4) {
        fileTable_.Clear();  // so much memory is not needed any more
    } else {
        fileTable_.Recycle();
    }
    bool isComplete = false;
    StreamClaims claims(Internals(package_), header_.indexStreamId);
    try {
        isComplete = ReadIndex(*stream, claims);
    } catch (...) {
        // What was read before the failure is counted all the same.
    }
    fileTable_.Settle();
    fileTable_.DropSpare();
    missingStreams_.swap(claims.Missing());
    return isComplete && (claims.AreDistinct() || HaveDistinctStreams());
}

bool EffectCacheImpl::ReadIndex(IDataStream& stream, StreamClaims& claims) {
    // A damaged file may count more effects than it can hold.
    const std::uint64_t count = header_.recordCount;  // no reference to a packed field
    fileTable_.Reserve(std::min(count, kStreamLimit));
    IndexReader reader(stream, fileTable_, count);
    for (std::uint64_t index = 0; index < count; ++index) {
        const IndexEntry* const entry = reader.ReadNext();
        if (!entry) {
            return false;
        }
        claims.Claim(entry->record.streamId);
    }
    return true;
}

// Whether no stream is said to hold two effects, or an effect and the index, when those that others
// of their names replaced don't count.
bool EffectCacheImpl::HaveDistinctStreams() const {
    StreamClaims claims(Internals(package_), header_.indexStreamId);
    for (const IndexEntry* const entry : fileTable_.Entries()) {
        claims.Claim(entry->record.streamId);
    }
    return claims.AreDistinct();
}

// Makes a stream. An effect of the index whose stream was missing is forgotten when its id comes
// up: it must not get the bytes of another.
std::uint64_t EffectCacheImpl::CreateStream(std::uint64_t size) {
    const std::uint64_t id = package_->CreateDataStream(size);
    if (id < missingStreams_.size() && missingStreams_[id]) {
        fileTable_.Settle();
        for (IndexEntry* const entry : fileTable_.Entries()) {
            if (entry->record.streamId == id) {
                fileTable_.Remove(entry);
            }
        }
        missingStreams_[id] = false;
    }
    return id;
}

// Whether the package can have as many streams as it will once the pending effects are in it.
bool EffectCacheImpl::HasRoomForPending() const {
    const std::uint64_t left = kStreamLimit - package_->GetNumberOfDataStreams();
    if (pendingTable_.Size() <= left) {
        return true;
    }
    const auto isNew = [&](const PendingEffect* effect) {
        const IndexEntry* const replaced = fileTable_.Find(effect->Key(), effect->Hash());
        return !replaced || !Internals(package_).HasStream(replaced->record.streamId);
    };
    const auto& pending = pendingTable_.Entries();
    return static_cast<std::uint64_t>(std::count_if(pending.begin(), pending.end(), isNew)) <= left;
}

// ---- Saving -------------------------------------------------------------------------------------

bool EffectCacheImpl::SaveToFile() noexcept {
    const bool isSaved = SavePending();
    pendingTable_.DropSpare();
    return isSaved;
}

bool EffectCacheImpl::SavePending() noexcept {
    if (!package_) {
        return true;
    }
    const AutoMutex guard(*fileMutex_, kWaitForever);
    if (pendingTable_.Size() == 0) {
        return true;
    }
    try {
        if (!SyncWithFile(guard)) {
            throw FileIOException();
        }
        Internals(package_).MarkUnfinished();
        if (!MovePendingIntoFile() || !CommitTables()) {
            throw FileIOException();
        }
        return true;
    } catch (...) {
        GivePackageUp();
        return false;
    }
}

// Writes what the tables in memory say over what the file says, and tells the other processes.
bool EffectCacheImpl::CommitTables() {
    if (!WriteIndex() || !WriteHeader() || !package_->Commit()) {
        return false;
    }
    stamp_.UpdateTimeStamp();
    return true;
}

std::uint64_t EffectCacheImpl::SpaceBudget() const {
    std::uint64_t available = 0;
    if (!Platform::GetFreeDiskSpace(directoryPath_.data(), available)) {
        return kLargestSpaceBudget;  // better a full volume than a lost cache
    }
    return std::min(available, kLargestSpaceBudget);
}

bool EffectCacheImpl::TrimTo(std::uint64_t limit) {
    if (!package_) {
        return false;
    }
    if (package_->GetTotalDataSize() < limit) {
        return true;
    }
    fileTable_.Settle();
    std::vector<IndexEntry*> entries;
    for (IndexEntry* const entry : fileTable_.Entries()) {
        if (entry->record.permanent == 0) {
            entries.push_back(entry);
        }
    }
    std::stable_sort(entries.begin(), entries.end(), [](const auto& left, const auto& right) {
        return IsEarlier(left->record.entryTime, right->record.entryTime);
    });
    if (!entries.empty()) {
        Internals(package_).MarkUnfinished();
    }
    for (IndexEntry* const entry : entries) {
        if (package_->GetTotalDataSize() < limit) {
            break;
        }
        package_->DeleteDataStream(entry->record.streamId);
        fileTable_.Remove(entry);
    }
    return package_->GetTotalDataSize() < limit;
}

bool EffectCacheImpl::MovePendingIntoFile() {
    if (!package_) {
        return false;
    }
    const std::uint64_t budget = SpaceBudget();
    if (budget >= pendingBytes_ && TrimTo(budget - pendingBytes_)) {
        pendingTable_.Settle();
        if (!HasRoomForPending()) {
            return false;
        }
        for (const PendingEffect* const effect : pendingTable_.Entries()) {
            if (!MoveIntoFile(*effect)) {
                return false;
            }
        }
    }
    // Without room the pending effects are dropped: they can be compiled again.
    pendingTable_.Recycle();
    pendingBytes_ = 0;
    return true;
}

bool EffectCacheImpl::MoveIntoFile(const PendingEffect& effect) {
    const EffectKey name = effect.Key();
    const std::span<const unsigned char> bytes = effect.Compiled();
    if (IndexEntry* const replaced = fileTable_.Find(name, effect.Hash())) {
        package_->DeleteDataStream(replaced->record.streamId);
        fileTable_.Remove(replaced);
    }
    const std::uint64_t streamId = CreateStream(SerializedSize(bytes.size()));
    Util::RefPtr<IDataStream> stream = package_->OpenDataStream(streamId);
    if (!stream || !WriteBytes(bytes, stream)) {
        return false;
    }
    stream.Reset();
    const EffectRecord record = {streamId,
                                 static_cast<std::uint32_t>(name.length),
                                 static_cast<std::uint32_t>(bytes.size()),
                                 effect.Permanent(),
                                 CurrentEntryTime(),
                                 0};
    fileTable_.MakeRoom();
    fileTable_.Put(IndexEntry::Make(fileTable_, name, record), effect.Hash());
    return true;
}

bool EffectCacheImpl::WriteIndex() {
    if (!package_) {
        return false;
    }
    Util::RefPtr<IDataStream> stream;
    std::uint64_t size;
    do {
        // The id that the stream gets may cost an effect.
        stream.Reset();
        fileTable_.Settle();
        fileTable_.Pack();
        size = std::max(fileTable_.TotalBytes(), kEmptyIndexSize);
        stream = OpenIndexForWriting(size);
        if (!stream) {
            return false;
        }
        fileTable_.Settle();
    } while (size != std::max(fileTable_.TotalBytes(), kEmptyIndexSize));
    std::vector<unsigned char> piece;
    piece.reserve(kIndexPieceSize);
    const std::span<IndexEntry* const> entries = fileTable_.Entries();
    for (std::size_t index = 0; index < entries.size(); ++index) {
        // The entries may stand anywhere in memory.
        if (index + kEntriesAhead < entries.size()) {
            entries[index + kEntriesAhead]->Prefetch();
        }
        const std::span<const unsigned char> bytes = entries[index]->Bytes();
        if (piece.size() + bytes.size() > kIndexPieceSize && !piece.empty()) {
            if (!WriteExact(stream, piece.data(), piece.size())) {
                return false;
            }
            piece.clear();
        }
        piece.insert(piece.end(), bytes.begin(), bytes.end());
    }
    return piece.empty() || WriteExact(stream, piece.data(), piece.size());
}

// The index stream of that size: the one there is, or a new one in its place.
Util::RefPtr<IDataStream> EffectCacheImpl::OpenIndexForWriting(std::uint64_t size) {
    if (header_.indexStreamId != kInvalidStreamId) {
        Util::RefPtr<IDataStream> stream = package_->OpenDataStream(header_.indexStreamId);
        if (stream && stream->GetSize() == size) {
            return stream;
        }
        if (stream) {
            stream.Reset();
            package_->DeleteDataStream(header_.indexStreamId);
        }
    }
    header_.indexStreamId = CreateStream(size);
    return package_->OpenDataStream(header_.indexStreamId);
}

bool EffectCacheImpl::WriteHeader() {
    if (!package_) {
        return false;
    }
    std::uint32_t payloadLength = sizeof(CacheHeader);
    auto payload = FindHeaderPayload(payloadLength);
    if (!payload) {
        const std::uint64_t end = package_->GetHeaderDataSize();
        const HeaderBlock block = {kCacheHeaderTag, sizeof(CacheHeader), 0};
        package_->SetHeaderDataSize(end + sizeof block + sizeof(CacheHeader));
        std::memcpy(package_->GetHeaderData() + end, &block, sizeof block);
        payload = end + sizeof block;
    }
    if (payloadLength < sizeof(CacheHeader)) {
        return false;
    }
    header_.recordCount = fileTable_.Size();
    std::memcpy(package_->GetHeaderData() + *payload, &header_, sizeof header_);
    return true;
}

}  // namespace Quorvel
