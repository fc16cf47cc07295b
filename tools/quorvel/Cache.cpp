#include "tools/quorvel/Cache.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <utility>

#include "format/Path.h"
#include "pagestore/RollbackJournal.h"
#include "quorvel/Exceptions.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {

namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t kPieceSize = 4 << 20;

std::string JoinFile(const std::string& directory) {
    return (Format::ToPath(directory) / kCacheFileName).string();
}

// True if a path, in any spelling, names the cache file of its directory.
bool IsCacheFile(const std::string& file) {
    const fs::path path = Format::ToPath(file);
    std::error_code ignored;
    return path.filename() == kCacheFileName ||
           fs::equivalent(path, path.parent_path() / kCacheFileName, ignored);
}

// The path to use for an argument. For a link with another name, this is the path of its file.
std::string Resolve(const std::string& argument) {
    const fs::path path = Format::ToPath(argument);
    std::error_code ignored;
    if (!fs::is_symlink(path, ignored) || fs::is_directory(path) || IsCacheFile(argument)) {
        return argument;
    }
    return fs::canonical(path).string();
}

// The directory to open as a host would; nothing for a file of another name.
std::optional<std::string> SharedDirectory(const std::string& file) {
    const fs::path path = Format::ToPath(file);
    if (fs::is_directory(path)) { return file; }
    if (!IsCacheFile(file)) { return std::nullopt; }
    return path.has_parent_path() ? path.parent_path().string() : ".";
}

}  // namespace

Cache::Cache(const Session& session, const std::string& argument)
    : name_(argument), path_(argument), offline_(session.offline), timeout_(session.timeout) {
    std::error_code error;
    const fs::file_status status = fs::status(Format::ToPath(argument), error);
    if (!fs::exists(status)) {
        const bool isMissing = status.type() == fs::file_type::not_found;
        throw Failure(
            fmt::format("{}: {}", argument,
                        isMissing ? "no such file or directory; give a cache directory or a file"
                                  : error.message()),
            isMissing ? kNo : kFailed);
    }
    if (!fs::is_directory(status) && !fs::is_regular_file(status)) {
        throw Failure(argument + ": neither a directory nor a file");
    }
    path_ = Resolve(argument);
    const std::optional<std::string> directory = SharedDirectory(path_);
    if (fs::is_directory(status)) { path_ = JoinFile(argument); }
    if (offline_) { return; }
    if (!directory) { return; }
    try {
        shared_ = std::make_unique<SharedCache>(directory->c_str());
    } catch (const Win32APICallFailedException& failure) {
        throw Failure(
            fmt::format("{}: the cache's lock can't be opened (system error {}); "
                        "commands that only read take --offline",
                        argument, failure.errorCode));
    }
    if (shared_->Path().Length() == 0) {
        throw Failure(
            argument +
            ": the directory or its cache file belongs to another user, so caches of this "
            "user don't use it; run this as that user; commands that only read take --offline");
    }
    path_ = shared_->Path().data();
}

bool Cache::Exists() const {
    std::error_code error;
    const fs::file_status status = fs::status(Format::ToPath(path_), error);
    if (status.type() == fs::file_type::none) {
        throw Failure(fmt::format("{}: {}", path_, error.message()));
    }
    return fs::exists(status);
}

void Cache::RequireFile() const {
    if (!Exists()) {
        throw Failure(fmt::format("{}: there is no {} in the directory", name_, kCacheFileName),
                      kNo);
    }
}

std::uint64_t Cache::StreamLimit() const {
    return IsCacheFile(path_) ? Format::kCacheStreamLimit : Format::kHighestId;
}

bool Cache::HasChanged() {
    const bool isAnnounced = shared_ && shared_->Stamp().IsChanged();
    return std::exchange(hasLastHolderDied_, false) || isAnnounced;
}

void Cache::TellOthers() {
    if (shared_) { shared_->Stamp().UpdateTimeStamp(); }
}

namespace {

// Waits for a mutex in short slices, so that Ctrl-C can end the wait.
std::uint32_t Acquire(MutexObject& mutex, std::chrono::milliseconds timeout) {
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::milliseconds kSlice(100);
    const Clock::time_point end = Clock::now() + timeout;
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
        const auto slice = std::clamp(left, std::chrono::milliseconds(0), kSlice);
        const std::uint32_t result = mutex.Acquire(static_cast<std::uint32_t>(slice.count()));
        if (result != kWaitTimedOut || left <= kSlice) { return result; }
        StopIfAsked();
    }
}

}  // namespace

Cache::Lock::Lock(Cache& cache) : cache_(cache) {
    if (!cache.shared_) { return; }
    asOwner_.emplace(cache.shared_->Directory().user);
    const std::uint32_t result =
        Acquire(cache.shared_->Mutex(), std::chrono::seconds(cache.timeout_));
    if (result == kWaitTimedOut) {
        throw Failure(
            fmt::format("{}: another process has held the cache's lock for {}; wait longer with "
                        "--timeout; commands that only read can do without the lock (--offline)",
                        cache.name_, Count(cache.timeout_, "second")));
    }
    if (result != kWaitAcquired && result != kWaitAbandoned) {
        throw Failure(cache.name_ + ": the system refuses the cache's lock; try again");
    }
    mutex_ = &cache.shared_->Mutex();
    try {
        Recover();
    } catch (const Failure&) {
        cache.TellOthers();
        mutex_->Release();
        throw;
    }
    // The last holder may have died between the end of its save and its stamp.
    if (result == kWaitAbandoned) {
        cache.TellOthers();
        cache.hasLastHolderDied_ = true;
    }
}

void Cache::Lock::Recover() const {
    try {
        RollbackJournal::Recover(cache_.path_.c_str());
    } catch (const std::exception& error) {
        const auto* const failure = dynamic_cast<const FileIOException*>(&error);
        throw Failure(fmt::format(
            "{}: whether a save was interrupted can't be found out, or it can't be undone: {}",
            cache_.path_,
            failure ? std::strerror(static_cast<int>(failure->errorCode)) : error.what()));
    }
}

Cache::Lock::~Lock() {
    if (mutex_) { mutex_->Release(); }
}

// ---- Reading ------------------------------------------------------------------------------------

Snapshot::Snapshot(const Cache& cache, const Cache::Lock& /*lock*/, DamagedEffects damaged)
    : file_(cache.Path()) {
    state_ = Format::ReadPackageState(file_, cache.StreamLimit());
    streams_.emplace(state_, file_);
    if (!Format::HoldsEffectCache(state_.headerData)) { return; }
    try {
        ReadEffects();
        holdsEffects_ = true;
    } catch (const Format::FormatError& error) {
        if (damaged == DamagedEffects::Refuse) { throw; }
        damage_ = error.what();
    }
}

void Snapshot::ReadEffects() {
    header_ = Format::ReadCacheHeader(state_.headerData);
    effects_ =
        Format::FindableEntries(state_, header_.indexStream, Format::ReadIndex(*streams_, header_));
}

const Format::IndexEntry* Snapshot::Find(const std::string& name) const {
    const auto found = std::lower_bound(
        effects_.begin(), effects_.end(), name,
        [](const auto& entry, const auto& key) { return Format::NameOrder()(entry.name, key); });
    return found != effects_.end() && found->name == name ? &*found : nullptr;
}

Format::Bytes Snapshot::Read(const Format::IndexEntry& effect) const {
    return Format::ReadEffect(*streams_, effect.record);
}

std::unique_ptr<Snapshot> ReadPackage(Cache& cache, const Cache::Lock& lock,
                                      DamagedEffects damaged) {
    cache.RequireFile();
    try {
        cache.HasChanged();  // from here on, only later changes count
        return std::make_unique<Snapshot>(cache, lock, damaged);
    } catch (const Format::FormatError& error) {
        std::string advice = "\"quorvel check\" says more, \"quorvel salvage\" saves what is left";
        std::error_code ignored;
        if (!cache.IsShared() && fs::exists(Format::ToPath(cache.Path() + "-journal"), ignored)) {
            advice = cache.IsOffline()
                         ? "a save was interrupted; without --offline, it is undone first"
                         : "a change is running or was interrupted; the next change undoes it";
        }
        throw Failure(
            fmt::format("{}: damaged, or no package: {}; {}", cache.Path(), error.what(), advice),
            kNo);
    } catch (const std::runtime_error& error) { throw Failure(error.what()); }
}

std::unique_ptr<Snapshot> ReadCache(Cache& cache, const Cache::Lock& lock) {
    std::unique_ptr<Snapshot> snapshot = ReadPackage(cache, lock);
    if (!snapshot->HoldsEffects()) {
        throw Failure(cache.Path() + ": a package without an effect cache", kNo);
    }
    return snapshot;
}

void ForEachPiece(Cache& cache, const std::function<bool(const Format::IndexEntry&)>& select,
                  const std::function<void(std::vector<EffectBytes>)>& use,
                  const std::function<void(const Format::IndexEntry&, const std::string&)>& skip) {
    std::unique_ptr<Snapshot> snapshot;
    std::string last;  // the effects up to this name are done; empty before the first one
    for (bool isDone = false; !isDone;) {
        StopIfAsked();
        std::vector<EffectBytes> piece;
        std::vector<std::pair<Format::IndexEntry, std::string>> skipped;
        {
            const Cache::Lock lock(cache);
            if (!snapshot || cache.HasChanged()) { snapshot = ReadCache(cache, lock); }
            const std::vector<Format::IndexEntry>& effects = snapshot->Effects();
            auto next = std::upper_bound(effects.begin(), effects.end(), last,
                                         [](const auto& key, const auto& entry) {
                                             return Format::NameOrder()(key, entry.name);
                                         });
            std::uint64_t bytes = 0;
            for (; next != effects.end() && bytes < kPieceSize; ++next) {
                last = next->name;
                if (!select(*next)) { continue; }
                try {
                    piece.push_back({*next, snapshot->Read(*next)});
                    bytes += next->name.size() + next->record.size;
                } catch (const Format::FormatError& error) {
                    skipped.emplace_back(*next, error.what());
                }
            }
            isDone = next == effects.end();
        }
        for (const auto& [entry, why] : skipped) {
            skip(entry, why);
        }
        if (!piece.empty()) { use(std::move(piece)); }
    }
}

void ForEachEffect(Cache& cache, const std::function<bool(const Format::IndexEntry&)>& select,
                   const std::function<void(const EffectBytes&)>& use,
                   const std::function<void(const Format::IndexEntry&, const std::string&)>& skip) {
    ForEachPiece(
        cache, select,
        [&](const std::vector<EffectBytes>& piece) {
            for (const EffectBytes& effect : piece) {
                use(effect);
            }
        },
        skip);
}

}  // namespace Quorvel::Tool
