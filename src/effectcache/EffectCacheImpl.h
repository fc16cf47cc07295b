#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "effectcache/EffectKey.h"
#include "effectcache/EffectRecord.h"
#include "effectcache/EffectTable.h"
#include "effectcache/IndexEntry.h"
#include "effectcache/PendingEffect.h"
#include "platform/CriticalSection.h"
#include "quorvel/AutoMutex.h"
#include "quorvel/IDataStreamSet.h"
#include "quorvel/MultiProcessTimeStamp.h"
#include "quorvel/MutexObject.h"
#include "vornutil/CStr.h"
#include "vornutil/RefPtr.h"
#include "vornutil/Tab.h"

namespace Quorvel {

// The effect cache behind EffectCacheSystem, which documents the operations.
//
// Locks, in the order in which they are taken: the critical section (threads of this process), the
// file mutex (processes), the time stamp's own mutex (inside its operations). The file is read and
// written, and the package let go, with the file mutex held, never without.
//
// A package that is let go is abandoned first: after a commit the file holds everything, and
// without one what is in memory must not reach it. What a step that failed half-way may have left
// in the file is replaced by an empty cache or, where that can't be written, by nothing. For the
// case that the process dies half-way, the file is marked as unfinished from the first change of a
// save to its commit. So the next to open the file finds the state of the last commit or an empty
// cache, never a mixture.
class EffectCacheImpl {
public:
    explicit EffectCacheImpl(const CStr& directory);
    EffectCacheImpl(const EffectCacheImpl&) = delete;
    EffectCacheImpl& operator=(const EffectCacheImpl&) = delete;
    ~EffectCacheImpl();

    void CacheCompiledEffect(const CStr& name, const unsigned char* data, std::uint64_t size,
                             bool permanent);
    bool SearchCachedEffects(const CStr& name, Tab<unsigned char>& data);
    void ListCachedEffects(const char* fileName) const;
    bool IsEnabled();
    void SetEnabled(bool enabled);
    std::uint64_t GetNumberOfEffectsInFile() const { return fileTable_.Size(); }
    std::uint64_t GetNumberOfEffectsInMemory() const { return pendingTable_.Size(); }
    const CStr& GetDirectory() const { return directory_; }

    // Moves the pending effects into the file. True when there was nothing to do or it worked;
    // otherwise the cache is inert.
    bool SaveToFile() noexcept;

private:
    class StreamClaims;

    void ClearState();

    // SaveToFile, except that the queue keeps its memory, up to some 2 MiB, for the next effects.
    bool SavePending() noexcept;

    bool ReadEffect(EffectRecord& record, Tab<unsigned char>& data);

    // The steps on the file (EffectCacheFile.cpp). Each wants the file mutex held, and says whether
    // it succeeded.
    bool OpenFile() noexcept;
    bool CreateFile() noexcept;
    void CreateEmptyCache();
    bool SyncWithFile(const AutoMutex& guard) noexcept;
    bool ReadHeader();
    bool WriteHeader();
    bool ReadIndex(IDataStream& stream, StreamClaims& claims);
    bool LoadIndex();
    bool LoadFileTable();
    bool TrimFile() noexcept;
    bool HaveDistinctStreams() const;
    std::uint64_t CreateStream(std::uint64_t size);
    bool HasRoomForPending() const;
    bool WriteIndex();
    Util::RefPtr<IDataStream> OpenIndexForWriting(std::uint64_t size);
    bool TrimTo(std::uint64_t limit);
    bool MovePendingIntoFile();
    bool MoveIntoFile(const PendingEffect& effect);
    bool CommitTables();
    std::uint64_t SpaceBudget() const;
    std::optional<std::uint64_t> FindHeaderPayload(std::uint32_t& payloadLength) const;
    void LetPackageGo() noexcept;
    void GivePackageUp() noexcept;
    void EmptyFile() noexcept;

    Platform::CriticalSection section_;
    CStr directory_;      // as it was passed in
    CStr directoryPath_;  // with a separator at its end
    CStr filePath_;       // empty when the directory is
    bool enabled_;
    CacheHeader header_;
    EffectTable<IndexEntry> fileTable_;
    EffectTable<PendingEffect> pendingTable_;
    std::uint64_t pendingBytes_;
    Util::RefPtr<IDataStreamSet> package_;  // null when the cache is inert
    std::unique_ptr<MutexObject> fileMutex_;
    MultiProcessTimeStamp stamp_;
    std::vector<bool> missingStreams_;  // by id: effects of the index name it, and there is none
};

}  // namespace Quorvel
