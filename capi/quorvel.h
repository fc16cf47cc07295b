/// @file
/// Quorvel for C, and for every compiler, C runtime and language that can call C functions: the
/// effect cache and the package. No exception and no allocated memory crosses this interface.
///
/// **Errors.** Most functions return a #quorvel_status. After a failure, quorvel_last_error() says
/// what went wrong. A handle that could not be made is null, and every function accepts null: if it
/// returns a status, that is #QUORVEL_ERROR_ARGUMENT, except where null is allowed; otherwise it
/// does nothing or returns 0. A host that ignores errors therefore goes on without a cache.
/// Functions may also return #QUORVEL_ERROR_OUT_OF_MEMORY or #QUORVEL_ERROR_INTERNAL where they
/// don't list them.
///
/// **Paths** end in a NUL and mean what they mean to fopen; on Windows they are in the ANSI code
/// page. **Names and data** are bytes with a size. The library copies what it keeps.
///
/// **Threads.** Calls on different handles may run at the same time, but the streams of a package
/// count as one handle with it. Each kind of handle says what threads may do with the same one.
///
/// **Fork.** A handle belongs to the process that made it. A process that is forked must not use or
/// close the handles that it inherits, nor open the directory of an inherited cache: its locks end
/// when the parent closes the cache. So it ends with _exit, or calls exec.
#ifndef QUORVEL_H
#define QUORVEL_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// ---- Errors -------------------------------------------------------------------------------------

/// @name Errors
/// @{

/// What most functions return.
typedef enum quorvel_status {
    QUORVEL_OK = 0,                      ///< done
    QUORVEL_ERROR_ARGUMENT = 1,          ///< an argument is null or out of range
    QUORVEL_ERROR_OUT_OF_MEMORY = 2,     ///< no memory, or the file can hold no more pages
    QUORVEL_ERROR_NOT_FOUND = 3,         ///< there is no effect of the name, no stream of the id
    QUORVEL_ERROR_BUFFER_TOO_SMALL = 4,  ///< the size that is needed has been stored
    QUORVEL_ERROR_STOPPED = 5,           ///< the caller's function returned another value than 0
    QUORVEL_ERROR_UNUSABLE = 6,          ///< the cache can't use its file and ignores effects
    QUORVEL_ERROR_IO = 7,                ///< a file could not be opened, read or written
    QUORVEL_ERROR_DAMAGED = 8,           ///< the file does not hold an intact package
    QUORVEL_ERROR_LIMIT = 9,             ///< the package has as many streams as its limit allows
    QUORVEL_ERROR_BUSY = 10,             ///< a stream is open
    QUORVEL_ERROR_SYSTEM = 11,           ///< the system refused an object that processes share
    QUORVEL_ERROR_INTERNAL = 12          ///< none of these: a bug in the library
} quorvel_status;

/// What a status means, in English.
///
/// @param status  Any number.
/// @return A phrase without a full stop. Never null.
const char* quorvel_status_text(quorvel_status status);

/// What went wrong in the last function that returned an error to the calling thread.
///
/// @return The text of its status, and what else is known; empty if there was none. Never null;
///         valid until the thread's next error or end.
const char* quorvel_last_error(void);

/// The error code of the failed call of the system, if that function failed with #QUORVEL_ERROR_IO
/// or #QUORVEL_ERROR_SYSTEM.
///
/// @return The C runtime's error number for the first, the system's for the second; 0 if no call
///         failed or the code is unknown.
uint32_t quorvel_last_system_error(void);

/// @return The library's version, for example "1.0.0".
const char* quorvel_version(void);

/// @}

// ---- The effect cache ---------------------------------------------------------------------------

/// @name The effect cache
/// @{

/// A cache of compiled shader effects: bytes found by name.
///
/// It queues new effects in memory, saves them in batches to the file "vornFxoCache.dat" in a
/// directory, and shares that file with every process that opens the same directory.
///
/// A cache whose save has failed is unusable: its functions return #QUORVEL_ERROR_UNUSABLE, and
/// only a new cache can use the directory again. The file keeps what was saved before.
///
/// Any thread may call quorvel_cache_add(), quorvel_cache_find(), quorvel_cache_visit(),
/// quorvel_cache_is_enabled() and quorvel_cache_set_enabled() at any time. The other functions must
/// not run at the same time as any other on the same cache.
typedef struct quorvel_cache quorvel_cache;

/// The largest name of an effect, in bytes. The smallest has 1 byte.
#define QUORVEL_LARGEST_NAME 65536

/// The largest effect, in bytes. The smallest has 1 byte.
#define QUORVEL_LARGEST_EFFECT 1048576

/// Opens the cache of a directory.
///
/// Creates an empty cache if the file is missing, damaged or of another version. Evicts effects,
/// least recently used first, while their total size reaches 256 MiB or the free space of the
/// volume.
///
/// Each user should have a directory of its own. On Linux, a directory or file of another user is
/// not used. On Windows, processes share a directory only within a session: services and users who
/// are logged on at the same time must not open the same one.
///
/// @param directory   Its path; it must exist.
/// @param[out] cache  The cache, to be closed with quorvel_cache_close(); null on failure.
/// @return #QUORVEL_ERROR_UNUSABLE if the directory is missing, belongs to another user, or its
///         file can't be read and written; #QUORVEL_ERROR_SYSTEM.
quorvel_status quorvel_cache_open(const char* directory, quorvel_cache** cache);

/// Saves the queued effects and closes the cache. A failing save is not reported: call
/// quorvel_cache_save() first to know.
///
/// @param cache  The cache, which must not be used again.
void quorvel_cache_close(quorvel_cache* cache);

/// Queues a copy of an effect and replaces the effect of that name. Saves when 2 MiB are queued.
///
/// Success is no promise to keep the effect: the cache silently drops effects if its volume has no
/// room, or if memory runs out while it queues them.
///
/// @param cache      The cache.
/// @param name       Any bytes.
/// @param name_size  Their number, 1 to #QUORVEL_LARGEST_NAME.
/// @param data       The compiled bytes.
/// @param size       Their number, 1 to #QUORVEL_LARGEST_EFFECT.
/// @param permanent  Not 0 for an effect that is never evicted.
/// @return #QUORVEL_ERROR_UNUSABLE.
quorvel_status quorvel_cache_add(quorvel_cache* cache, const void* name, size_t name_size,
                                 const void* data, size_t size, int permanent);

/// Copies an effect into a buffer.
///
/// A capacity of 0, with which buffer may be null, asks for the size. That reads the whole effect,
/// and another process may replace it before the next call: a buffer of #QUORVEL_LARGEST_EFFECT
/// bytes always suffices.
///
/// Finding an effect in the file sets its time of use to now, which delays its eviction. The new
/// time reaches the file with the next save that has something to save; if another process saves
/// before that, it is lost.
///
/// @param cache        The cache.
/// @param name         The name of the effect.
/// @param name_size    Its bytes, 1 to #QUORVEL_LARGEST_NAME.
/// @param[out] buffer  Where to; unchanged unless the effect fits.
/// @param capacity     Bytes of the buffer.
/// @param[out] size    Bytes of the effect, also if it does not fit; 0 on other failures.
/// @return #QUORVEL_ERROR_NOT_FOUND, also if the effect is damaged or memory runs out while it is
///         read; #QUORVEL_ERROR_BUFFER_TOO_SMALL; #QUORVEL_ERROR_UNUSABLE.
quorvel_status quorvel_cache_find(quorvel_cache* cache, const void* name, size_t name_size,
                                  void* buffer, size_t capacity, size_t* size);

/// Receives an effect. It may use the cache, but not close it.
///
/// @param context  What the caller of quorvel_cache_visit() passed.
/// @param data     The bytes of the effect, valid until the function returns.
/// @param size     Their number.
/// @return 0 means success; any other value makes quorvel_cache_visit() return
///         #QUORVEL_ERROR_STOPPED.
typedef int (*quorvel_visitor)(void* context, const void* data, size_t size);

/// Passes an effect to a function, once. Otherwise as quorvel_cache_find().
///
/// @param cache      The cache.
/// @param name       The name of the effect.
/// @param name_size  Its bytes, 1 to #QUORVEL_LARGEST_NAME.
/// @param visitor    The function.
/// @param context    Is passed on to it; may be null.
/// @return #QUORVEL_ERROR_NOT_FOUND; #QUORVEL_ERROR_STOPPED; #QUORVEL_ERROR_UNUSABLE.
quorvel_status quorvel_cache_visit(quorvel_cache* cache, const void* name, size_t name_size,
                                   quorvel_visitor visitor, void* context);

/// Saves the queued effects now. To make room for them, and because a file holds at most 65534
/// effects, the save evicts others, least recently used first. Queued effects that still have no
/// room are dropped.
///
/// @param cache  The cache.
/// @return #QUORVEL_ERROR_UNUSABLE if the save failed: the queued effects are lost.
quorvel_status quorvel_cache_save(quorvel_cache* cache);

/// Writes one line for each saved effect to a text file, ordered by name length, then by name:
/// "Name: ", the name, " Size: ", bytes, " Permanent: ", 0 or 1. A list that is cut off because the
/// volume is full is not reported.
///
/// @param cache      The cache.
/// @param file_name  Path of the text file.
/// @return #QUORVEL_ERROR_IO if the file can't be opened for writing; #QUORVEL_ERROR_UNUSABLE, with
///         the file untouched.
quorvel_status quorvel_cache_list(quorvel_cache* cache, const char* file_name);

/// A switch for the host, on at first. It records whether the host intends to use the cache and has
/// no effect on the other functions.
///
/// @param cache  The cache.
/// @return Not 0 if it is on. An unusable cache is never enabled.
int quorvel_cache_is_enabled(const quorvel_cache* cache);

/// Sets the switch.
///
/// @param cache    The cache.
/// @param enabled  0 switches it off, any other value on.
void quorvel_cache_set_enabled(quorvel_cache* cache, int enabled);

/// Counts the effects in the file.
///
/// @param cache  The cache.
/// @return Their number, as this cache last read or wrote the file.
uint64_t quorvel_cache_effects_in_file(const quorvel_cache* cache);

/// Counts the effects in the queue.
///
/// @param cache  The cache.
/// @return Their number.
uint64_t quorvel_cache_effects_in_memory(const quorvel_cache* cache);

/// The directory of the cache.
///
/// @param cache  The cache.
/// @return The path as it was passed to quorvel_cache_open(); valid until the cache is closed.
///         Never null.
const char* quorvel_cache_directory(const quorvel_cache* cache);

/// @}

// ---- The package --------------------------------------------------------------------------------

/// @name The package
/// @{

/// One file that holds many byte streams, each with an integer id, and one free-form block of
/// header data.
///
/// Changes are kept in memory and in evicted pages until quorvel_package_commit() or
/// quorvel_package_close() makes them the state of the file. If the process dies before that, the
/// file may be damaged.
///
/// One thread of one process at a time may use a package and its streams. The file stays open for
/// reading and writing; there is no read-only mode and no locking.
///
/// Functions that return a status fail with #QUORVEL_ERROR_IO if the file can't be read or written,
/// and with #QUORVEL_ERROR_DAMAGED if its contents are inconsistent.
typedef struct quorvel_package quorvel_package;

/// An id that no stream has.
#define QUORVEL_NO_STREAM UINT64_MAX

/// The largest stream, in bytes.
#define QUORVEL_LARGEST_STREAM 2147483647

/// Starts a new, empty package. A missing file is created. An existing file does not become
/// shorter, and its old contents are no longer reachable.
///
/// @param file_name     Path of the file.
/// @param cache_pages   The maximum number of 8192-byte pages kept in memory; 0 counts as 1. An
///                      open stream pins up to two pages, and deleting a stream needs two more.
/// @param stream_limit  The upper bound on the number of streams and on their ids, which never
///                      exceed 0xFFFFFF; preferably a multiple of 8.
/// @param[out] package  The package, to be closed with quorvel_package_close(); null on failure.
/// @return #QUORVEL_ERROR_IO.
quorvel_status quorvel_package_create(const char* file_name, uint64_t cache_pages,
                                      uint64_t stream_limit, quorvel_package** package);

/// Opens the package in a file.
///
/// @param file_name     Path of the file.
/// @param cache_pages   As for quorvel_package_create().
/// @param stream_limit  As for quorvel_package_create().
/// @param[out] package  The package, to be closed with quorvel_package_close(); null on failure.
/// @return #QUORVEL_ERROR_IO if the file is missing, or can't be read or written;
///         #QUORVEL_ERROR_DAMAGED if it does not hold an intact package, has more streams than
///         stream_limit, or was made with a much higher one.
quorvel_status quorvel_package_open(const char* file_name, uint64_t cache_pages,
                                    uint64_t stream_limit, quorvel_package** package);

/// Commits pending changes and closes the file. A failing commit is not reported: call
/// quorvel_package_commit() first to know. Streams that are still open become empty; each must
/// still be closed.
///
/// @param package  The package, which must not be used again.
void quorvel_package_close(quorvel_package* package);

/// Writes the state to the file if it has changed since the last commit: streams created or
/// deleted, or header data.
///
/// Bytes written to a stream that existed before don't count as a change. They reach the file with
/// the next commit that has one, when their page is evicted, or when the package is closed.
///
/// @param package  The package.
/// @return On failure the changes stay pending.
quorvel_status quorvel_package_commit(quorvel_package* package);

/// Reads the whole state from the file again. Commit first: pending changes are written over the
/// file's state after it has been read.
///
/// @param package  The package.
/// @return #QUORVEL_ERROR_BUSY while a stream is open; #QUORVEL_ERROR_IO; #QUORVEL_ERROR_DAMAGED if
///         the file does not hold an intact package. A failure changes nothing.
quorvel_status quorvel_package_load(quorvel_package* package);

/// The size of the header data.
///
/// @param package  The package.
/// @return The size in bytes.
uint64_t quorvel_package_header_size(const quorvel_package* package);

/// Copies the header data into a buffer.
///
/// @param package      The package.
/// @param[out] buffer  Where to; unchanged unless the data fits. May be null if capacity is 0.
/// @param capacity     Bytes of the buffer.
/// @param[out] size    Bytes of the header data, also if it does not fit; 0 on other failures.
/// @return #QUORVEL_ERROR_BUFFER_TOO_SMALL.
quorvel_status quorvel_package_read_header(const quorvel_package* package, void* buffer,
                                           size_t capacity, size_t* size);

/// Replaces the header data.
///
/// @param package  The package.
/// @param data     The new bytes; may be null if size is 0.
/// @param size     Their number.
/// @return #QUORVEL_ERROR_OUT_OF_MEMORY.
quorvel_status quorvel_package_write_header(quorvel_package* package, const void* data,
                                            size_t size);

/// Counts the streams.
///
/// @param package  The package.
/// @return Their number.
uint64_t quorvel_package_stream_count(const quorvel_package* package);

/// Adds up the sizes of all streams.
///
/// @param package  The package.
/// @return The sum in bytes.
uint64_t quorvel_package_total_size(const quorvel_package* package);

/// The ids of all streams, in ascending order.
///
/// @param package  The package.
/// @param index    From 0.
/// @return #QUORVEL_NO_STREAM if index is not below the number of streams.
uint64_t quorvel_package_stream_id(const quorvel_package* package, uint64_t index);

/// Creates a stream. Its size is fixed, and its content unspecified until written.
///
/// @param package  The package.
/// @param size     Bytes of the stream, at most #QUORVEL_LARGEST_STREAM.
/// @param[out] id  The id of the stream; #QUORVEL_NO_STREAM on failure.
/// @return #QUORVEL_ERROR_LIMIT; #QUORVEL_ERROR_OUT_OF_MEMORY if the file can't hold that many more
///         pages.
quorvel_status quorvel_package_create_stream(quorvel_package* package, uint64_t size, uint64_t* id);

/// Deletes a stream and frees its space.
///
/// Failures other than those below change nothing, provided that the file is not damaged and the
/// page cache has room for eight pages more than the open streams use; otherwise the stream may be
/// gone, with the space of its last partial page still in use.
///
/// @param package  The package.
/// @param id       The id of the stream.
/// @return #QUORVEL_ERROR_NOT_FOUND; #QUORVEL_ERROR_BUSY while it is open.
quorvel_status quorvel_package_delete_stream(quorvel_package* package, uint64_t id);

/// @}

// ---- Streams ------------------------------------------------------------------------------------

/// @name Streams
/// @{

/// The bytes of one stream of a package, and a position in them. It counts as one handle with its
/// package: one thread at a time may use both.
typedef struct quorvel_stream quorvel_stream;

/// Opens a stream. A stream that is already open has one position for all its handles, and opening
/// it again does not move it; otherwise it is at the start.
///
/// @param package      The package.
/// @param id           The id of the stream.
/// @param[out] stream  The handle, to be closed with quorvel_stream_close(); null on failure.
/// @return #QUORVEL_ERROR_NOT_FOUND; #QUORVEL_ERROR_DAMAGED for a stream of size 0, which can't be
///         opened.
quorvel_status quorvel_stream_open(quorvel_package* package, uint64_t id, quorvel_stream** stream);

/// Closes a handle. Its package may be closed already.
///
/// @param stream  The handle, which must not be used again.
void quorvel_stream_close(quorvel_stream* stream);

/// The size of a stream.
///
/// @param stream  The stream.
/// @return The size in bytes.
uint64_t quorvel_stream_size(const quorvel_stream* stream);

/// The position in a stream.
///
/// @param stream  The stream.
/// @return Bytes from the start.
uint64_t quorvel_stream_position(const quorvel_stream* stream);

/// Where quorvel_stream_seek() counts from.
typedef enum quorvel_origin {
    QUORVEL_FROM_START = 0,    ///< the start
    QUORVEL_FROM_CURRENT = 1,  ///< the current position
    QUORVEL_FROM_END = 2       ///< the end
} quorvel_origin;

/// Moves to another position.
///
/// @param stream  The stream.
/// @param offset  Bytes from the origin; may be negative.
/// @param origin  Where to count from.
/// @return #QUORVEL_ERROR_ARGUMENT, with the position unchanged, if that is before the start or
///         past the end.
quorvel_status quorvel_stream_seek(quorvel_stream* stream, int64_t offset, quorvel_origin origin);

/// Copies bytes from the position into a buffer, and moves past them.
///
/// @param stream       The stream.
/// @param[out] buffer  Where to.
/// @param size         The most bytes to copy.
/// @param[out] moved   The number copied: fewer than size at the end of the stream, or when every
///                     page in the page cache is pinned. 0 on failure, although some bytes may have
///                     been copied.
/// @return #QUORVEL_ERROR_IO.
quorvel_status quorvel_stream_read(quorvel_stream* stream, void* buffer, size_t size,
                                   size_t* moved);

/// Copies bytes from a buffer to the position, and moves past them. Never makes the stream longer.
///
/// @param stream      The stream.
/// @param data        Where from.
/// @param size        The most bytes to copy.
/// @param[out] moved  As for quorvel_stream_read().
/// @return #QUORVEL_ERROR_IO.
quorvel_status quorvel_stream_write(quorvel_stream* stream, const void* data, size_t size,
                                    size_t* moved);

/// @}

#ifdef __cplusplus
}
#endif

#endif
