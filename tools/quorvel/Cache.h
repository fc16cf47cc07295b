#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "effectcache/SharedCache.h"
#include "format/EffectCacheImage.h"
#include "format/FileSource.h"
#include "platform/Impersonation.h"
#include "tools/quorvel/Session.h"

namespace Quorvel::Tool {

// What a CACHE argument names: a cache directory, whose file is shared with other processes, or a
// package file. A file called "vornFxoCache.dat" stands for its directory, unless --offline is
// given.
class Cache {
public:
    // Keeps other processes out of the file for its lifetime. If a process died in a save, the
    // constructor undoes that save. Does nothing for a file that is not shared.
    //
    // Unlike a host, the program releases the mutex even if the last holder died.
    class Lock {
    public:
        // Throws Failure if the lock can't be acquired in time, or if the save can't be undone.
        explicit Lock(Cache& cache);
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;
        ~Lock();

        // Undoes an interrupted save. A file that is not shared needs this before it is changed.
        // Reading leaves such a file alone, because an interrupted save can't be told from a
        // running one. Throws Failure.
        void Recover() const;

    private:
        Cache& cache_;
        std::optional<Platform::Impersonation> asOwner_;
        MutexObject* mutex_ = nullptr;
    };

    // Throws Failure if there is no such directory or file, or if this user may not use it.
    Cache(const Session& session, const std::string& argument);

    // The argument as it was given.
    const std::string& Name() const { return name_; }

    // The path of the package file. In a directory, the file may be missing.
    const std::string& Path() const { return path_; }

    // Throws Failure if this user has no right to know.
    bool Exists() const;

    // Throws Failure, with the exit code kNo, if the package file is missing.
    void RequireFile() const;
    bool IsOffline() const { return offline_; }
    bool IsShared() const { return shared_ != nullptr; }

    // The maximum number of streams that a reader of the file accepts: in a cache, a host accepts
    // fewer than a package may have.
    std::uint64_t StreamLimit() const;

    // True if another process has announced a change of the file since the last call. Always false
    // for a file that is not shared. Needs no lock: a change is complete when it is announced. But
    // only while the cache is locked does a result of false say anything about what is read next.
    bool HasChanged();

    // Tells the other processes that the file has changed. REQUIRES: the cache is locked.
    void TellOthers();

private:
    std::string name_;
    std::string path_;
    bool offline_;
    std::uint32_t timeout_;
    std::unique_ptr<SharedCache> shared_;
    bool hasLastHolderDied_ = false;  // since the last call of HasChanged
};

// What a snapshot does if the package is intact but the effect cache in it can't be read.
enum class DamagedEffects { Refuse, LeaveOut };

// The records of a cache's file at one moment.
class Snapshot {
public:
    // Throws FormatError if the file holds no intact package, and std::runtime_error if it can't be
    // read. ReadPackage and ReadCache turn these into a Failure.
    Snapshot(const Cache& cache, const Cache::Lock& lock,
             DamagedEffects damaged = DamagedEffects::Refuse);
    Snapshot(const Snapshot&) = delete;
    Snapshot& operator=(const Snapshot&) = delete;

    const Format::FileSource& File() const { return file_; }
    const Format::PackageState& State() const { return state_; }
    bool HoldsEffects() const { return holdsEffects_; }
    const Format::CacheHeader& Header() const { return header_; }

    // Why the effects were left out; empty if they were not, or if there are none.
    const std::string& Damage() const { return damage_; }

    // The effects that a host would find, ordered by name. REQUIRES: HoldsEffects.
    const std::vector<Format::IndexEntry>& Effects() const { return effects_; }

    // The entry of a name; null if there is none.
    const Format::IndexEntry* Find(const std::string& name) const;

    // An effect's bytes. Throws FormatError if they are not intact. REQUIRES: the cache was not
    // unlocked since the snapshot was taken, or has not changed since then.
    Format::Bytes Read(const Format::IndexEntry& effect) const;

private:
    void ReadEffects();

    Format::DiskSource file_;
    Format::PackageState state_;
    std::optional<Format::StreamReader> streams_;
    bool holdsEffects_ = false;
    std::string damage_;
    Format::CacheHeader header_;
    std::vector<Format::IndexEntry> effects_;
};

// Takes a snapshot of a package, or of a package that must hold effects. Throws Failure, with the
// exit code kNo if the file is missing, damaged or of the other kind.
std::unique_ptr<Snapshot> ReadPackage(Cache& cache, const Cache::Lock& lock,
                                      DamagedEffects damaged = DamagedEffects::Refuse);
std::unique_ptr<Snapshot> ReadCache(Cache& cache, const Cache::Lock& lock);

// Reads the bytes of effects in pieces of some MiB, and holds the lock only while it reads a piece:
// `use` runs without it. `select` says which effects of a snapshot to read; after a change of the
// cache, the remaining effects are chosen from a new snapshot. Effects that vanish before their
// turn are left out. `use` receives each effect once. Effects that are not intact go to `skip`.
struct EffectBytes {
    Format::IndexEntry entry;
    Format::Bytes data;
};
// ForEachPiece hands over what was read in one piece, which is never empty.
void ForEachPiece(Cache& cache, const std::function<bool(const Format::IndexEntry&)>& select,
                  const std::function<void(std::vector<EffectBytes>)>& use,
                  const std::function<void(const Format::IndexEntry&, const std::string&)>& skip);
void ForEachEffect(Cache& cache, const std::function<bool(const Format::IndexEntry&)>& select,
                   const std::function<void(const EffectBytes&)>& use,
                   const std::function<void(const Format::IndexEntry&, const std::string&)>& skip);

}  // namespace Quorvel::Tool
