#include "tools/quorvel/CacheEditor.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <new>

#include "effectcache/SharedCache.h"
#include "effectcache/SpaceBudget.h"
#include "effectcache/StoredEffect.h"
#include "effectcache/StreamHelpers.h"
#include "format/Path.h"
#include "pagestore/StdioFile.h"
#include "platform/ScopeGuard.h"
#include "quorvel/Exceptions.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {

namespace {

EffectKey KeyOf(const std::string& name) {
    return {reinterpret_cast<const unsigned char*>(name.data()), name.size()};
}

// What a failed step of the package means to a user.
std::string Reason(const std::exception& error) {
    if (const auto* const failure = dynamic_cast<const FileIOException*>(&error)) {
        if (IsFull(*failure)) {
            return "the volume is full; make room on it, or empty the cache with \"quorvel clear\"";
        }
        if (failure->errorCode != 0) { return std::strerror(static_cast<int>(failure->errorCode)); }
        return "a transfer ended early";
    }
    if (dynamic_cast<const FileDataCorruptException*>(&error)) {
        return "the file is damaged; \"quorvel check\" says more";
    }
    if (dynamic_cast<const OutOfMemoryException*>(&error) ||
        dynamic_cast<const std::bad_alloc*>(&error)) {
        return "not enough memory";
    }
    return error.what();
}

}  // namespace

std::string NameOf(const IndexEntry& entry) {
    const EffectKey key = entry.Key();
    return {reinterpret_cast<const char*>(key.bytes), key.length};
}

EntryTime ToRecord(const Format::EntryTime& time) {
    return {time.year, time.month, time.day, time.hour, time.minute, time.second, time.millisecond};
}

std::string DescribeFailure(const std::string& path, const std::exception& error) {
    return fmt::format("{}: nothing was changed: {}", path, Reason(error));
}

std::uint64_t FreeBytes(const Cache& cache, std::uint64_t reserved) {
    const std::string directory =
        std::filesystem::absolute(Format::ToPath(cache.Path())).parent_path().string();
    const std::uint64_t free = SpaceBudget(directory.c_str(), reserved);
    return free == kLargestSpaceBudget ? free : free - free / 8;
}

void RequireWritable(const Cache& cache) {
    cache.RequireFile();
    if (const int error = StdioFile().Open(cache.Path().c_str(), "r+b"); error != 0) {
        throw Failure(
            fmt::format("{}: can't be opened for writing: {}", cache.Path(), std::strerror(error)));
    }
}

template <typename Step>
auto CacheEditor::Try(const Step& step) {
    try {
        return step();
    } catch (const Failure&) { throw; } catch (const std::exception& error) {
        throw Failure(DescribeFailure(cache_.Path(), error));
    }
}

CacheEditor::CacheEditor(Cache& cache, const Cache::Lock& lock, Missing missing)
    : cache_(cache), path_(cache.Path().c_str()) {
    lock.Recover();
    Open(missing);
}

void CacheEditor::Open(Missing missing) {
    const PagedFilePackageConfig config = CachePackageConfig(path_);
    if (cache_.Exists()) {
        RequireWritable(cache_);
        package_ = PagedFilePackage::Open(config);
        if (package_ && Try([&] { return index_.Load(*package_); })) { return; }
        throw Failure(cache_.Path() +
                          ": no cache that can be changed: it is damaged or holds no effects; "
                          "\"quorvel check\" says more",
                      kNo);
    }
    if (missing == Missing::Refuse) { cache_.RequireFile(); }
    isNew_ = true;
    Platform::ScopeGuard removeFile([&] { RemoveNewFile(); });
    Try([&] {
        package_ = Util::RefPtr<PagedFilePackage>(new PagedFilePackage(config));
        package_->Create();
        cache_.TellOthers();
        index_.Start(*package_);
        package_->Commit();
    });
    removeFile.Dismiss();
}

void CacheEditor::RemoveNewFile() noexcept {
    package_ = nullptr;
    std::remove(path_.data());
    cache_.TellOthers();
}

CacheEditor::~CacheEditor() {
    try {
        package_->Rollback();
    } catch (const std::exception&) {
        // The journal stays, and the next process that opens or reloads the file tries again.
        cache_.TellOthers();
    }
    if (isNew_) { RemoveNewFile(); }
}

// Spare pages keep the journal small. A file that can't grow does without them.
void CacheEditor::Begin() {
    if (package_->HasChanges()) { return; }
    const std::uint64_t capacity = Capacity();
    package_->BeginSave();
    ReservePages(*package_, index_, 0, capacity);
}

IndexEntry* CacheEditor::Find(const std::string& name) const {
    const EffectKey key = KeyOf(name);
    return index_.Find(key, key.Hash());
}

void CacheEditor::Store(const std::string& name, const Format::Bytes& data, bool permanent,
                        const Format::EntryTime& time) {
    const EffectKey key = KeyOf(name);
    Try([&] {
        Begin();
        StoreEffect(*package_, index_, key, key.Hash(), data, permanent ? 1 : 0, ToRecord(time));
    });
}

void CacheEditor::Remove(IndexEntry* entry) {
    Try([&] {
        Begin();
        DeleteEffect(*package_, index_, entry);
    });
}

void CacheEditor::SetPermanent(IndexEntry* entry, bool permanent) {
    Try([&] { Begin(); });
    entry->record.permanent = permanent ? 1 : 0;
}

std::uint64_t CacheEditor::Capacity(std::uint64_t replaced) const {
    const std::uint64_t sparePages = JournalBytes(*package_, index_, 0);  // about as many
    const std::uint64_t free =
        FreeBytes(cache_, JournalBytes(*package_, index_, replaced) + sparePages);
    return free == kLargestSpaceBudget
               ? free
               : std::min(kLargestSpaceBudget, package_->GetTotalDataSize() + 1 + free);
}

std::uint64_t CacheEditor::EffectSize(std::uint64_t nameLength, std::uint64_t size) {
    return IndexEntrySize(nameLength) + SerializedSize(size);
}

// A stream that belongs to no effect takes up room too.
CacheEditor::Room CacheEditor::TotalRoom(std::uint64_t replaced) {
    const std::uint64_t otherStreams = package_->GetNumberOfDataStreams() - index_.Size();
    const std::uint64_t effects = kStreamLimit - otherStreams;
    const std::uint64_t capacity = Capacity(replaced);
    if (capacity < kLargestSpaceBudget) {
        return {effects, capacity - package_->GetTotalDataSize() - 1, true};
    }
    std::uint64_t bytes = 0;
    for (const IndexEntry* const entry : index_.Entries()) {
        bytes += EffectSize(entry->record.nameLength, entry->record.effectSize);
    }
    // The stream of a damaged effect may be shorter than its record says.
    const std::uint64_t total = std::max(package_->GetTotalDataSize(), bytes);
    const std::uint64_t limit = capacity + bytes;
    return {effects, limit > total ? limit - total - 1 : 0, false};
}

std::vector<std::string> CacheEditor::MakeRoom(std::uint64_t size) {
    const std::uint64_t capacity = Capacity();
    const auto fits = [&] {
        return package_->GetTotalDataSize() + size < capacity &&
               package_->GetNumberOfDataStreams() < kStreamLimit;
    };
    std::vector<std::string> evicted;
    if (fits()) { return evicted; }
    for (IndexEntry* const entry : index_.EvictionOrder()) {
        evicted.push_back(NameOf(*entry));
        Remove(entry);
        if (fits()) { return evicted; }
    }
    throw Failure(fmt::format(
        "{}: {} don't fit beside the permanent effects; the cache may take {} and hold {}",
        cache_.Path(), Size(size), Size(capacity), Count(kStreamLimit - 1, "effect")));
}

void CacheEditor::Commit() {
    if (package_->HasChanges()) {
        Try([&] {
            index_.Write(*package_);
            package_->Commit();
        });
        cache_.TellOthers();
    }
    isNew_ = false;
}

}  // namespace Quorvel::Tool
