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
    // Keeps other processes out of the file while it lives. The file is then whole: what a process
    // that died in a save has overwritten was put back. Does nothing for a file that is not shared.
    //
    // Unlike a host, the program gives the mutex back even if the last holder died.
    class Lock {
    public:
        // Throws Failure if the lock can't be had in time, or if the file can't be made whole.
        explicit Lock(Cache& cache);
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;
        ~Lock();

        // Puts back what an interrupted save has overwritten. Files that are not shared need it
        // before they are changed; nothing tells a save that was interrupted from a running one, so
        // reading leaves them alone. Throws Failure.
        void Recover() const;

    private:
        Cache& cache_;
        std::optional<Platform::Impersonation> asOwner_;
        MutexObject* mutex_ = nullptr;
    };

    // Throws Failure if there is no such directory or file, or if this user may not use it.
    Cache(const Session& session, const std::string& argument);

    // As it was given.
    const std::string& Name() const { return name_; }

    // Of the package file. It may be missing in a directory.
    const std::string& Path() const { return path_; }

    // Throws Failure if this user may not know.
    bool Exists() const;

    // Throws Failure, with the exit code kNo, if the package file is missing.
    void RequireFile() const;
    bool IsOffline() const { return offline_; }
    bool IsShared() const { return shared_ != nullptr; }

    // The most streams that a reader of the file accepts: a host accepts fewer than a package may
    // have.
    std::uint64_t StreamLimit() const;

    // True if another process has announced a change of the file since the last call. Always false
    // for a file that is not shared. Needs no lock: a change is complete when it is announced. But
    // only under the lock does "no change" say anything of what is read next.
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

// What becomes of a snapshot if the package is intact, but the effect cache in it can't be read.
enum class DamagedEffects { Refuse, LeaveOut };

// The records of a cache's file at one moment.
class Snapshot {
public:
    // Throws FormatError if the file holds no intact package, and std::runtime_error if it can't be
    // read. ReadPackage and ReadCache say the same in a Failure.
    Snapshot(const Cache& cache, const Cache::Lock& lock,
             DamagedEffects damaged = DamagedEffects::Refuse);
    Snapshot(const Snapshot&) = delete;
    Snapshot& operator=(const Snapshot&) = delete;

    const Format::FileSource& File() const { return file_; }
    const Format::PackageState& State() const { return state_; }
    bool HoldsEffects() const { return holdsEffects_; }
    const Format::CacheHeader& Header() const { return header_; }

    // Why the effects were left out; empty if they were not, and if there are none.
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
// `use` runs without it. `select` says which effects, from a snapshot; it is asked again whenever
// the cache has changed meanwhile. Effects that vanish before it is their turn are left out. `use`
// gets each effect once. Effects that are not intact go to `skip`.
struct EffectBytes {
    Format::IndexEntry entry;
    Format::Bytes data;
};
void ForEachEffect(Cache& cache, const std::function<bool(const Format::IndexEntry&)>& select,
                   const std::function<void(const EffectBytes&)>& use,
                   const std::function<void(const Format::IndexEntry&, const std::string&)>& skip);

}  // namespace Quorvel::Tool
