#pragma once

#include <cstdint>

#include "quorvel/Export.h"
#include "vornutil/CStr.h"
#include "vornutil/RefObject.h"
#include "vornutil/Tab.h"

namespace Quorvel {

class EffectCacheImpl;

/// A cache of compiled shader effects: bytes found by name.
///
/// It queues new effects in memory, saves them in batches to the file "vornFxoCache.dat" in a cache
/// directory, and shares the file with every process that opens the same directory. Create it with
/// new and hold it in a Util::RefPtr.
///
/// **Files.** While a process saves, the directory also has the file "vornFxoCache.dat-journal". If
/// the process dies, the next one that opens or uses the cache restores the state before that save
/// from it: what was saved earlier is not lost. Don't copy or remove one of the files without the
/// other. A crash of the whole machine may cost the cache, because the library does not make the
/// system flush anything to the disk.
///
/// **Processes** find each other by the directory itself, however they spell its path. The
/// directory is looked up once, by the constructor: changing the working directory later makes no
/// difference.
///
/// **Users.** Each user should have a directory of its own. On Linux, a directory or a file that
/// belongs to another user than the process's effective one is not used: the cache is inert. Root
/// is the exception: it shares the cache of the directory's owner, and what it makes there belongs
/// to the owner. On Windows, processes find each other only within a session. Services, and users
/// who are logged on at the same time, are in different sessions: if they open the same directory,
/// they damage each other's file. To pass effects on, copy the file while no process has it open,
/// or read it with the tools.
///
/// **Errors.** A cache whose file can't be used, or whose save has failed, is *inert*: it ignores
/// new effects, finds none, and IsEnabled() returns false. Only a new EffectCacheSystem can use the
/// directory again. Apart from the constructor, no operation throws.
///
/// **Threads.** Any thread may call CacheCompiledEffect(), SearchCachedEffects(), IsEnabled() and
/// SetEnabled() at any time. The other operations, and releasing the last reference, must not run
/// concurrently with any other call on the same object.
///
/// **Fork.** An object belongs to the process that made it. On Linux, a process that is forked must
/// not use or release the objects that it inherits, nor open their directories: the locks end when
/// the parent closes the cache. So it ends with _exit, or calls exec.
class QUORVEL_API EffectCacheSystem : public Util::ARefObject {
public:
    /// Opens the cache of a directory.
    ///
    /// Undoes a save in which another process has died; the cache is inert if that fails. Creates
    /// an empty cache when the file is missing, damaged, unreadable or of another version. Evicts
    /// effects, least recently used first, while their total size reaches 256 MiB or the free space
    /// of the volume.
    ///
    /// @param directory  Must exist. In the spelling of fopen: on Windows in the ANSI code page. A
    ///                   trailing path separator makes no difference. An empty path makes an inert
    ///                   cache.
    /// @throws Win32APICallFailedException when the objects shared between processes can't be
    ///         created
    /// @throws OutOfMemoryException likewise
    /// @throws std::bad_alloc
    explicit EffectCacheSystem(const CStr& directory);

    /// Queues a copy of an effect and replaces any effect of that name. Saves when the queue
    /// reaches 2 MiB.
    ///
    /// Does nothing when an argument is out of range, or when memory runs out.
    ///
    /// @param name       1 to 65536 bytes of any value.
    /// @param data       The compiled bytes; not null.
    /// @param size       Their number, 1 to 1048576.
    /// @param permanent  True for an effect that is never evicted.
    void CacheCompiledEffect(const CStr& name, const unsigned char* data, std::uint64_t size,
                             bool permanent);

    /// Finds an effect.
    ///
    /// Finding an effect in the file sets its time of use to now, which delays its eviction. The
    /// new time reaches the file only with the next save that has something to save; if another
    /// process saves before that, it is lost.
    ///
    /// @param name       1 to 65536 bytes.
    /// @param[out] data  The bytes of the effect; unspecified if it is not found.
    /// @return False when the cache does not have the effect, or when it is damaged.
    bool SearchCachedEffects(const CStr& name, Tab<unsigned char>& data);

    /// Saves the queued effects now and evicts others, least recently used first, to make room;
    /// drops the queued effects if there is still no room.
    ///
    /// A file holds at most 65534 effects: a save that would exceed this evicts others in the same
    /// way. If permanent effects leave too little, it drops the effects that were queued last.
    ///
    /// If the save fails, for example because the volume fills up while it runs, the queued effects
    /// are lost and the cache becomes inert. The file keeps what was saved before, and the caches
    /// of other processes go on.
    void ForceSaveToFile();

    /// Writes one line per saved effect to a text file, ordered by name length, then by name:
    /// "Name: ", the name, " Size: ", bytes, " Permanent: ", 0 or 1.
    ///
    /// @param fileName  Path of the text file, NUL-terminated. Nothing happens when it can't be
    ///                  opened.
    void ListCachedEffects(const char* fileName);

    /// A switch for the host, on at first. It records whether the host intends to use the cache and
    /// has no effect on the other operations.
    ///
    /// @return The switch; always false while the cache is inert.
    bool IsEnabled() const;

    /// Sets the switch of IsEnabled().
    ///
    /// @param enabled  The new position. An inert cache stays off.
    void SetEnabled(bool enabled);

    /// @return The number of effects in the file, as last read or written by this object.
    std::uint64_t GetNumberOfEffectsInFile() const;

    /// @return The number of effects in the queue.
    std::uint64_t GetNumberOfEffectsInMemory() const;

    /// @return The directory as it was passed to the constructor.
    const CStr& GetCacheFilePath() const;

protected:
    /// Saves the queued effects and closes the file. Runs when the last reference is released.
    ~EffectCacheSystem() override;

private:
    EffectCacheImpl* impl_;
};

}  // namespace Quorvel
