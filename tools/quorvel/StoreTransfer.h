#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <unordered_map>

#include "tools/quorvel/Cache.h"
#include "tools/quorvel/Checksum.h"
#include "tools/quorvel/EffectStore.h"
#include "tools/quorvel/Session.h"

// Effects on their way between a cache and a store. Of two effects of one name, the one that was
// used last stays, with its time and flag. If their bytes are equal, both stay as they are.
namespace Quorvel::Tool {

struct TransferOptions {
    std::string match = "*";
    std::optional<std::int64_t> newerThan;  // only effects used since then, as ToStoreTime says
    std::uint64_t mostBytes = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t timeToLive = 0;  // seconds; 0 for ever
    bool isDryRun = false;         // prints what would happen, as PrintChanges does
};

struct PushResult {
    std::uint64_t sent = 0;
    std::uint64_t bytes = 0;    // of the effects that were sent
    std::uint64_t equal = 0;    // the store had them
    std::uint64_t kept = 0;     // the store's own was used last
    std::uint64_t leftOut = 0;  // beyond mostBytes
    std::uint64_t damaged = 0;  // in the cache
};

// Sends effects of a cache that `select` accepts. Throws Failure; what was sent then stays sent.
PushResult PushEffects(Cache& cache, EffectStore& store, const TransferOptions& options,
                       const std::function<bool(const Format::IndexEntry&)>& select,
                       Session& session);

struct PullResult {
    std::uint64_t added = 0;
    std::uint64_t replaced = 0;
    std::uint64_t evicted = 0;
    std::uint64_t bytes = 0;    // of the effects that came
    std::uint64_t kept = 0;     // the cache's own was used last, or has equal bytes
    std::uint64_t leftOut = 0;  // for lack of room, or beyond mostBytes
    EffectStore::Keys damaged;  // not whole, or something else
    EffectStore::Keys older;    // the cache's own was used later
};

// Versions of effects that a cache can't take, by a checksum of their footers: they need not be
// fetched again.
using RefusedVersions = std::unordered_map<Checksum, Checksum, ChecksumHash>;

// Takes the effects that have these keys, or all effects if `keys` is null, into a cache: in
// batches, each of which goes in as a whole or not at all. Makes the cache if its directory has
// none. Throws Failure; the batches before stay.
PullResult PullEffects(Cache& cache, EffectStore& store, const TransferOptions& options,
                       const EffectStore::Keys* keys, RefusedVersions& refused, Session& session);

// Sends effects that someone has asked for, if the store's are damaged or missing.
void SendWanted(Cache& cache, EffectStore& store, const EffectStore::Keys& keys,
                std::uint64_t timeToLive);

}  // namespace Quorvel::Tool
