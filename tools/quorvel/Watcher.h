#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tools/quorvel/Cache.h"
#include "tools/quorvel/WatchView.h"

namespace Quorvel::Tool {

// Looks for changes of a cache.
class Watcher {
public:
    Watcher(const Session& session, const std::string& cache) : cache_(session, cache) {}

    const std::string& Path() const { return cache_.Path(); }

    // The present state of the cache. Throws Failure if the effects can't be read.
    WatchUpdate First();

    // What has changed since the last update, if anything has. Takes the lock only if the file has
    // changed, and not too often.
    std::optional<WatchUpdate> Next();

private:
    using Clock = WatchView::Clock;

    // Shows that the file has changed even if the change was not announced.
    struct Mark {
        std::uint64_t size = 0;
        std::filesystem::file_time_type time;
        bool operator==(const Mark&) const = default;
    };

    struct Effect {
        std::string name;
        Format::EffectRecord record;
    };

    Mark Look() const;
    WatchUpdate Read();
    void Compare(const std::vector<Format::IndexEntry>& effects, WatchUpdate& update);

    Cache cache_;
    Mark mark_;
    bool mustRead_ = true;
    Clock::time_point nextRead_;
    std::string problem_;
    std::vector<Effect> effects_;  // ordered by name
};

}  // namespace Quorvel::Tool
