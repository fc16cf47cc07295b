#pragma once

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "format/EffectCacheImage.h"
#include "tools/quorvel/Cache.h"
#include "tools/quorvel/Command.h"

namespace Quorvel::Tool {

// Effects on their way into a cache. Their bytes wait in a temporary file: they are collected
// before the cache is locked, so that no command ever holds two locks or reads a pipe under a lock,
// and a damaged source is noticed before anything is changed.
class Incoming {
public:
    struct Effect {
        Format::EntryTime time;
        bool permanent = false;
        std::uint32_t size = 0;
        std::fpos_t place = {};  // in the temporary file
    };
    using Effects = std::map<std::string, Effect, Format::NameOrder>;

    // A dry run keeps no bytes. All three throw Failure if there is no room for the temporary file,
    // or if it can't be used.
    explicit Incoming(bool isDryRun);
    std::fpos_t Keep(const Format::Bytes& data);
    Format::Bytes Read(const Effect& effect) const;

    // True unless there is an effect of that name that was used at the same time or later.
    bool Wants(const std::string& name, const Format::EntryTime& time) const;

    // Adds an effect, replacing the one that had the name.
    void Add(const std::string& name, const Effect& effect) { effects_[name] = effect; }

    const Effects& All() const { return effects_; }

private:
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };

    std::unique_ptr<std::FILE, Close> file_;
    Effects effects_;
};

// How effects are taken into a cache: the options of the commands that do so.
struct IncomingOptions {
    std::string match = "*";
    std::string prefer;  // empty, "dest" or "source"
    bool isDryRun = false;

    void AddTo(Command& command, const std::string& source);
};

// What became of the effects. The names are in the order of an index.
struct IncomingResult {
    std::vector<const std::string*> added;  // names in the Incoming
    std::vector<const std::string*> replaced;
    std::vector<std::string> evicted;  // from the cache, to make room
    std::uint64_t kept = 0;            // the cache's own effect was preferred
    std::uint64_t leftOut = 0;         // did not fit
};

// Takes the effects into a cache, all or none; makes the cache if its directory has none. If two
// effects have one name, the one used last stays, with its time and flag; if they were used at the
// same time, the cache's own stays. The options can override this. If not all effects fit, the
// cache's permanent ones stay, then incoming permanent ones, then those used last. Throws Failure.
IncomingResult TakeIn(const Incoming& incoming, Cache& cache, const IncomingOptions& options,
                      const Session& session);

// Prints what would happen to each effect, as ReportResult does.
void PrintChanges(Session& session, const IncomingResult& result);

// Prints the result; the exit code is kNo if effects were left out. A dry run also prints what
// would happen to each effect: "+ name" for one that is added, "! name" for one that is replaced,
// "- name" for one that is evicted.
void ReportResult(Session& session, const IncomingResult& result, const IncomingOptions& options,
                  std::uint64_t damaged);

}  // namespace Quorvel::Tool
