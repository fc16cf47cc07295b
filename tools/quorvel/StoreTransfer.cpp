#include "tools/quorvel/StoreTransfer.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <unordered_set>
#include <utility>
#include <vector>

#include "format/Path.h"
#include "tools/quorvel/Incoming.h"
#include "tools/quorvel/Progress.h"
#include "tools/quorvel/Selection.h"
#include "tools/quorvel/StoreValue.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {

namespace {

using Keys = EffectStore::Keys;

// A batch that goes into a cache under one lock.
constexpr std::uint64_t kBatchBytes = 16 << 20;
constexpr std::size_t kBatchEffects = 16384;

// Effects that are newer in the store, before their bytes are compared.
constexpr std::size_t kMostNewer = 1 << 16;

std::int64_t StoreTimeNow() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

// ---- Pushing ------------------------------------------------------------------------------------

namespace {

class Push {
public:
    Push(EffectStore& store, const TransferOptions& options, Session& session)
        : store_(store),
          options_(options),
          session_(session),
          oldest_(options.timeToLive == 0
                      ? 0
                      : StoreTimeNow() - static_cast<std::int64_t>(options.timeToLive) * 1000) {}

    PushResult result;

    bool Selects(const Format::IndexEntry& effect) const {
        if (!Matches(options_.match, effect.name)) { return false; }
        if (!options_.newerThan && oldest_ == 0) { return true; }
        const std::int64_t time = ToStoreTime(effect.record.time);
        return time >= options_.newerThan.value_or(0) && time >= oldest_;
    }

    // The store works on a piece while the next one is read.
    void Take(const std::vector<EffectBytes>& piece) {
        Finish();
        Keys keys;
        keys.reserve(piece.size());
        for (const EffectBytes& effect : piece) {
            keys.push_back(store_.Space().KeyOf(effect.entry.name));
        }
        std::vector<EffectStore::Outgoing> outgoing;
        Keys there;
        store_.ReadFooters(keys, [&](std::size_t i, const std::string& footer) {
            if (!Choose(piece[i], keys[i], footer, outgoing)) { there.push_back(keys[i]); }
        });
        if (options_.isDryRun) { return; }
        store_.List(there);
        if (options_.timeToLive != 0) { store_.Refresh(there, options_.timeToLive); }
        store_.BeginSending(std::move(outgoing), options_.timeToLive);
    }

    void Finish() {
        const std::uint64_t sent = store_.FinishSending();
        result.sent += sent;
        result.kept += std::exchange(pending_, 0) - sent;
    }

private:
    // False if the store's own effect stays.
    bool Choose(const EffectBytes& effect, const Checksum& key, const std::string& value,
                std::vector<EffectStore::Outgoing>& outgoing) {
        const Checksum checksum = ChecksumOf(effect.data.data(), effect.data.size());
        if (const std::optional<StoreFooter> footer = ReadFooter(value)) {
            const bool isEqual = footer->data == checksum;
            if (isEqual || footer->time >= ToStoreTime(effect.entry.record.time)) {
                ++(isEqual ? result.equal : result.kept);
                return false;
            }
        }
        if (effect.data.size() > options_.mostBytes - result.bytes) {
            ++result.leftOut;
            return true;
        }
        result.bytes += effect.data.size();
        if (options_.isDryRun) {
            ++result.sent;
            if (!session_.json) {
                session_.out << (value.empty() ? "+ " : "! ") << Escape(effect.entry.name) << '\n';
            }
            return true;
        }
        ++pending_;
        outgoing.push_back({key, codec_.Encode(effect, checksum),
                            value.empty() ? EffectStore::Write::New : EffectStore::Write::Newer});
        return true;
    }

    EffectStore& store_;
    const TransferOptions& options_;
    Session& session_;
    const std::int64_t oldest_;  // effects used earlier would have expired
    ValueCodec codec_;
    std::uint64_t pending_ = 0;  // effects on their way
};

}  // namespace

PushResult PushEffects(Cache& cache, EffectStore& store, const TransferOptions& options,
                       const std::function<bool(const Format::IndexEntry&)>& select,
                       Session& session) {
    Push push(store, options, session);
    std::error_code ignored;
    Progress progress(session, "sending",
                      std::filesystem::file_size(Format::ToPath(cache.Path()), ignored));
    ForEachPiece(
        cache, [&](const auto& effect) { return select(effect) && push.Selects(effect); },
        [&](const std::vector<EffectBytes>& piece) {
            push.Take(piece);
            for (const EffectBytes& effect : piece) {
                progress.Add(effect.data.size());
            }
        },
        [&](const Format::IndexEntry& effect, const std::string& why) {
            TellDamage(session, cache, effect.name, why);
            ++push.result.damaged;
        });
    push.Finish();
    return push.result;
}

// ---- Pulling ------------------------------------------------------------------------------------

namespace {

class Pull {
public:
    Pull(Cache& cache, EffectStore& store, const TransferOptions& options, RefusedVersions& refused,
         Session& session)
        : cache_(cache),
          store_(store),
          options_(options),
          refused_(refused),
          session_(session),
          incoming_(std::in_place, options.isDryRun) {
        if (!cache.Exists()) { return; }
        const Cache::Lock lock(cache);
        const std::unique_ptr<Snapshot> snapshot = ReadCache(cache, lock);
        for (const auto& [name, record] : snapshot->Effects()) {
            own_.emplace_back(store.Space().KeyOf(name), ToStoreTime(record.time));
        }
        std::sort(own_.begin(), own_.end(), IsBefore);
    }

    void Take(const Keys& keys) {
        Keys wanted;
        Keys unsure;
        for (const Checksum& key : keys) {
            const bool isUnsure = options_.newerThan || OwnTime(key) || refused_.contains(key);
            (isUnsure ? unsure : wanted).push_back(key);
        }
        store_.ReadFooters(unsure, [&](std::size_t i, const std::string& footer) {
            if (Wants(unsure[i], footer)) { wanted.push_back(unsure[i]); }
        });
        Fetch(wanted);
        if (newer_.size() >= kMostNewer) { FetchNewer(); }
    }

    PullResult Finish() {
        FetchNewer();
        StoreBatch();
        return std::move(result_);
    }

private:
    using Own = std::pair<Checksum, std::int64_t>;

    static bool IsBefore(const Own& left, const Own& right) {
        return std::pair(left.first.high, left.first.low) <
               std::pair(right.first.high, right.first.low);
    }

    // When the cache's effect was used; nothing if it has none.
    std::optional<std::int64_t> OwnTime(const Checksum& key) const {
        const auto found = std::lower_bound(own_.begin(), own_.end(), Own(key, 0), IsBefore);
        if (found == own_.end() || found->first != key) { return std::nullopt; }
        return found->second;
    }

    static Checksum VersionOf(std::string_view value) {
        const std::size_t size = std::min(value.size(), kFooterSize);
        return ChecksumOf(value.data() + value.size() - size, size);
    }

    // True if a value must be fetched. An effect that is newer than the cache's goes to newer_
    // instead.
    bool Wants(const Checksum& key, const std::string& value) {
        if (value.empty()) { return false; }
        const auto refused = refused_.find(key);
        if (refused != refused_.end() && refused->second == VersionOf(value)) { return false; }
        const std::optional<StoreFooter> footer = ReadFooter(value);
        if (!footer) { return true; }  // the value is counted as damaged then
        if (options_.newerThan && footer->time < *options_.newerThan) { return false; }
        const std::optional<std::int64_t> own = OwnTime(key);
        if (!own) { return true; }
        if (*own >= footer->time) {
            ++result_.kept;
            if (*own > footer->time) { result_.older.push_back(key); }
        } else {
            newer_[key] = footer->data;
        }
        return false;
    }

    // Fetches those of newer_ whose bytes are not equal to the cache's.
    void FetchNewer() {
        if (newer_.empty()) { return; }
        const auto keyOf = [&](const Format::IndexEntry& effect) {
            return store_.Space().KeyOf(effect.name);
        };
        ForEachEffect(
            cache_, [&](const auto& effect) { return newer_.contains(keyOf(effect)); },
            [&](const EffectBytes& effect) {
                const auto found = newer_.find(keyOf(effect.entry));
                if (found->second == ChecksumOf(effect.data.data(), effect.data.size())) {
                    newer_.erase(found);
                    ++result_.kept;
                }
            },
            [](const Format::IndexEntry&, const std::string&) {
                // The store's version replaces the damaged one.
            });
        Keys keys;
        for (const auto& effect : newer_) {
            keys.push_back(effect.first);
        }
        newer_.clear();
        Fetch(keys);
    }

    void Fetch(const Keys& keys) {
        store_.ReadValues(keys, [&](std::size_t i, const std::string& value) {
            if (!value.empty()) { Receive(keys[i], value); }
        });
    }

    void Receive(const Checksum& key, const std::string& value) {
        std::optional<EffectBytes> effect = codec_.Decode(store_.Space(), key, value);
        if (!effect) {
            result_.damaged.push_back(key);
            refused_[key] = VersionOf(value);
            return;
        }
        const auto& [name, record] = effect->entry;
        if (!Matches(options_.match, name) || !incoming_->Wants(name, record.time)) { return; }
        if (record.size > options_.mostBytes - result_.bytes) {
            ++result_.leftOut;
            return;
        }
        incoming_->Add(
            name, {record.time, record.permanent != 0, record.size, incoming_->Keep(effect->data)});
        result_.bytes += record.size;
        batchBytes_ += record.size;
        versions_.emplace_back(key, VersionOf(value));
        if (batchBytes_ >= kBatchBytes || versions_.size() >= kBatchEffects) { StoreBatch(); }
    }

    void StoreBatch() {
        if (incoming_->All().empty()) { return; }
        IncomingOptions how;
        how.isDryRun = options_.isDryRun;
        const IncomingResult taken = TakeIn(*incoming_, cache_, how, session_);
        if (options_.isDryRun && !session_.json) { PrintChanges(session_, taken); }
        result_.added += taken.added.size();
        result_.replaced += taken.replaced.size();
        result_.evicted += taken.evicted.size();
        result_.kept += taken.kept;
        result_.leftOut += taken.leftOut;
        Refuse(taken);
        incoming_.emplace(options_.isDryRun);
        versions_.clear();
        batchBytes_ = 0;
    }

    // Remembers what the cache did not take.
    void Refuse(const IncomingResult& taken) {
        if (taken.added.size() + taken.replaced.size() == versions_.size()) { return; }
        std::unordered_set<Checksum, ChecksumHash> keys;
        for (const auto* const names : {&taken.added, &taken.replaced}) {
            for (const std::string* const name : *names) {
                keys.insert(store_.Space().KeyOf(*name));
            }
        }
        for (const auto& [key, version] : versions_) {
            if (!keys.contains(key)) { refused_[key] = version; }
        }
    }

    Cache& cache_;
    EffectStore& store_;
    const TransferOptions& options_;
    RefusedVersions& refused_;
    Session& session_;
    ValueCodec codec_;
    std::vector<Own> own_;  // ordered by key
    std::unordered_map<Checksum, Checksum, ChecksumHash> newer_;
    std::optional<Incoming> incoming_;
    std::vector<std::pair<Checksum, Checksum>> versions_;  // of the effects in incoming_
    std::uint64_t batchBytes_ = 0;
    PullResult result_;
};

}  // namespace

PullResult PullEffects(Cache& cache, EffectStore& store, const TransferOptions& options,
                       const EffectStore::Keys* keys, RefusedVersions& refused, Session& session) {
    Pull pull(cache, store, options, refused, session);
    if (keys) {
        pull.Take(*keys);
    } else {
        store.ForEachKey([&](const Keys& some) {
            StopIfAsked();
            pull.Take(some);
        });
    }
    return pull.Finish();
}

// ---- Mending ------------------------------------------------------------------------------------

void SendWanted(Cache& cache, EffectStore& store, const EffectStore::Keys& keys,
                std::uint64_t timeToLive) {
    ValueCodec codec;
    std::unordered_set<Checksum, ChecksumHash> wanted;
    store.ReadValues(keys, [&](std::size_t i, const std::string& value) {
        if (!codec.Decode(store.Space(), keys[i], value)) { wanted.insert(keys[i]); }
    });
    if (wanted.empty()) { return; }
    ForEachPiece(
        cache,
        [&](const auto& effect) { return wanted.contains(store.Space().KeyOf(effect.name)); },
        [&](const std::vector<EffectBytes>& piece) {
            std::vector<EffectStore::Outgoing> outgoing;
            for (const EffectBytes& effect : piece) {
                const Checksum checksum = ChecksumOf(effect.data.data(), effect.data.size());
                outgoing.push_back({store.Space().KeyOf(effect.entry.name),
                                    codec.Encode(effect, checksum), EffectStore::Write::Replace});
            }
            store.BeginSending(std::move(outgoing), timeToLive);
            store.FinishSending();
        },
        [](const Format::IndexEntry&, const std::string&) {});
}

}  // namespace Quorvel::Tool
