#include "effectcache/EffectCacheImpl.h"

#include <cstdio>
#include <cstring>
#include <span>
#include <string>

#include "effectcache/StreamHelpers.h"
#include "platform/Path.h"

namespace Quorvel {

namespace {

constexpr char kFileName[] = "vornFxoCache.dat";

// Pending effects are saved when they come to this. The count is an over-estimate: an effect that
// is cached twice counts twice.
constexpr std::uint64_t kSaveThreshold = 0x200000;

CStr WithSeparator(const CStr& directory) {
    const std::size_t length = directory.Length();
    if (length == 0 || directory[length - 1] == Platform::kPathSeparator) {
        return directory;
    }
    return directory + CStr(&Platform::kPathSeparator, 1);
}

// The name that a path gives the objects which processes share: letters and digits stay.
std::string ObjectName(const CStr& path) {
    std::string name(path.data(), path.Length());
    for (char& byte : name) {
        const bool plain = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
                           (byte >= '0' && byte <= '9');
        if (!plain) {
            byte = '_';
        }
    }
    return name;
}

}  // namespace

EffectCacheImpl::EffectCacheImpl(const CStr& directory)
    : directory_(directory),
      directoryPath_(WithSeparator(directory)),
      filePath_(directory.Length() != 0 ? directoryPath_ + CStr(kFileName) : CStr()),
      enabled_(true),
      header_{},
      pendingBytes_(0) {
    const std::string name = ObjectName(filePath_);
    fileMutex_ = std::make_unique<MutexObject>((name + "_mutex").c_str());
    // Seen from here on: a save between now and the opening of the file makes for one reload too
    // many, never for one too few.
    stamp_.Initialize((name + "_timestamp").c_str());

    const AutoMutex guard(*fileMutex_, kWaitForever);
    if (!OpenFile()) {
        CreateFile();
    }
}

EffectCacheImpl::~EffectCacheImpl() {
    SaveToFile();
    ClearState();
    if (package_) {
        const AutoMutex guard(*fileMutex_, kWaitForever);
        LetPackageGo();
    }
}

void EffectCacheImpl::ClearState() {
    fileTable_.Clear();
    pendingTable_.Clear();
    pendingBytes_ = 0;
    enabled_ = true;
    header_ = {};
    missingStreams_.clear();
}

void EffectCacheImpl::CacheCompiledEffect(const CStr& name, const unsigned char* data,
                                          std::uint64_t size, bool permanent) {
    if (!data || size < kSmallestEffect || size > kLargestEffect) {
        return;
    }
    const EffectKey key(name);
    if (key.length < kShortestName || key.length > kLongestName) {
        return;
    }
    const std::uint32_t hash = key.Hash();
    const Platform::CriticalSectionGuard guard(section_);
    if (!package_) {
        return;
    }
    pendingTable_.MakeRoom();
    pendingTable_.Put(
        PendingEffect::Make(pendingTable_, key, hash, {data, size}, permanent ? 1U : 0U), hash);
    pendingBytes_ += IndexEntrySize(key.length) + SerializedSize(size);
    if (pendingBytes_ >= kSaveThreshold) {
        SavePending();
    }
}

bool EffectCacheImpl::SearchCachedEffects(const CStr& name, Tab<unsigned char>& data) {
    const EffectKey key(name);
    if (key.length == 0) {
        return false;
    }
    const std::uint32_t hash = key.Hash();
    const Platform::CriticalSectionGuard guard(section_);
    if (!package_) {
        return false;
    }
    if (const PendingEffect* const pending = pendingTable_.Find(key, hash)) {
        const std::span<const unsigned char> bytes = pending->Compiled();
        data.SetCount(static_cast<int>(bytes.size()));
        std::memcpy(data.Addr(0), bytes.data(), bytes.size());
        return true;
    }

    const AutoMutex fileGuard(*fileMutex_, kWaitForever);
    SyncWithFile(fileGuard);
    IndexEntry* const found = fileTable_.Find(key, hash);
    return found && ReadEffect(found->record, data);
}

bool EffectCacheImpl::ReadEffect(EffectRecord& record, Tab<unsigned char>& data) {
    if (!package_) {
        return false;
    }
    Util::RefPtr<IDataStream> stream = package_->OpenDataStream(record.streamId);
    if (!ReadBytes(data, stream, kLargestEffect)) {
        return false;
    }
    const auto count = static_cast<std::uint64_t>(data.Count());
    if (count != record.effectSize || stream->GetSize() != SerializedSize(count)) {
        return false;
    }
    record.entryTime = CurrentEntryTime();
    return true;
}

bool EffectCacheImpl::IsEnabled() {
    const Platform::CriticalSectionGuard guard(section_);
    return package_ && enabled_;
}

void EffectCacheImpl::SetEnabled(bool enabled) {
    const Platform::CriticalSectionGuard guard(section_);
    enabled_ = enabled;
}

void EffectCacheImpl::ListCachedEffects(const char* fileName) const {
    std::FILE* const file = fileName ? std::fopen(fileName, "w") : nullptr;
    if (!file) {
        return;
    }
    for (const IndexEntry* const entry : fileTable_.Entries()) {
        std::fputs("Name: ", file);
        std::fwrite(entry->Key().bytes, 1, entry->Key().length, file);
        const std::uint32_t size = entry->record.effectSize;
        const std::uint32_t permanent = entry->record.permanent;
        std::fprintf(file, " Size: %lu Permanent: %lu\n", static_cast<unsigned long>(size),
                     static_cast<unsigned long>(permanent));
    }
    std::fclose(file);
}

}  // namespace Quorvel
