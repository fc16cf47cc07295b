#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <unordered_set>

#include "tools/quorvel/Cache.h"
#include "tools/quorvel/Commands.h"
#include "tools/quorvel/EffectStore.h"
#include "tools/quorvel/ShareOptions.h"
#include "tools/quorvel/StoreTransfer.h"
#include "tools/quorvel/Terminal.h"
#include "tools/quorvel/Text.h"
#include "tools/quorvel/Watcher.h"

namespace Quorvel::Tool {
namespace {

using Clock = std::chrono::steady_clock;
using Keys = EffectStore::Keys;
using std::chrono::milliseconds;

struct AgentOptions {
    ShareOptions share;
    double every = 3;
    double rescan = 600;
};

// The agent looks for changes of the cache, and for notices, with this pause.
constexpr milliseconds kTick(100);

// It asks the server this often whether the effects are still there.
constexpr milliseconds kHeartbeat(1000);

// It reads at most this number of notices at once.
constexpr int kMostNotices = 1000;

// It scans the server for at most one part in this number of the time.
constexpr int kShareOfScans = 10;

constexpr std::size_t kMostRefused = 1 << 17;
constexpr std::size_t kMostAsked = 1 << 16;

constexpr milliseconds kShortestBackOff(250);
constexpr milliseconds kLongestBackOff(15000);

Clock::duration Seconds(double seconds) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

// A time before which something that has failed is not tried again. It grows with each failure.
class BackOff {
public:
    bool IsOver() const { return Clock::now() >= end_; }

    void Fail() {
        end_ = Clock::now() + next_;
        next_ = std::min(2 * next_, kLongestBackOff);
    }

    void Succeed() { next_ = kShortestBackOff; }

private:
    Clock::time_point end_;
    milliseconds next_ = kShortestBackOff;
};

// Keys of effects to be looked at. If there are too many, all effects are.
class KeySet {
public:
    bool IsEmpty() const { return !isAll_ && keys_.empty(); }
    bool IsAll() const { return isAll_; }
    bool Contains(const Checksum& key) const { return isAll_ || keys_.contains(key); }

    void AddAll() {
        isAll_ = true;
        keys_.clear();
    }

    void Add(const Checksum& key) {
        if (isAll_) { return; }
        keys_.insert(key);
        if (keys_.size() > kMost) { AddAll(); }
    }

    void Clear() {
        isAll_ = false;
        keys_.clear();
    }

    Keys List() const { return {keys_.begin(), keys_.end()}; }

private:
    static constexpr std::size_t kMost = 1 << 16;

    bool isAll_ = false;
    std::unordered_set<Checksum, ChecksumHash> keys_;
};

// Keeps a cache and a store equal. Of the effects that it has yet to send or fetch, it keeps only
// the keys.
class Agent {
public:
    Agent(const AgentOptions& options, Session& session)
        : options_(options),
          transfer_(options.share.Transfer()),
          url_(options.share.Url()),
          space_(url_.space),
          every_(Seconds(options.every)),
          rescan_(Seconds(options.rescan)),
          session_(session),
          cache_(session, options.share.cache),
          watcher_(session, options.share.cache) {}

    // Until the user asks the program to stop.
    void Run() {
        while (!IsStopRequested()) {
            Guard([&] { LookAtCache(); });
            if (!store_ && serverBackOff_.IsOver()) {
                Guard([&] { Connect(); });
            }
            if (notices_) {
                Guard([&] { Listen(); });
            } else {
                std::this_thread::sleep_for(kTick);
            }
            if (store_) {
                Guard([&] { Beat(); });
            }
            if (store_ && sendBackOff_.IsOver()) {
                Guard([&] { Send(); });
            }
            if (store_ && Clock::now() >= nextFetch_) {
                Guard([&] { Fetch(); });
            }
        }
    }

private:
    // Runs a step. If it fails, the failure is reported, and the agent tries again later.
    template <typename Step>
    void Guard(const Step& step) {
        try {
            step();
        } catch (const ServerRefusal& refusal) {
            if (!store_) { Disconnect(); }
            sendBackOff_.Fail();
            Tell(refusal.what());
        } catch (const Failure& failure) {
            // Also if it is the cache that failed: replies may still be on their way.
            Disconnect();
            Tell(failure.what());
        }
    }

    // Reports a problem, once for as long as it lasts.
    void Tell(const std::string& problem) {
        if (IsStopRequested() || problem == problem_) { return; }
        problem_ = problem;
        if (session_.json) {
            Print({{"problem", EscapePath(problem)}});
        } else {
            session_.Warn(problem);
        }
    }

    // Says what was done.
    void Say(const std::string& line, const Json& json) {
        if (session_.json) {
            Print(json);
        } else {
            session_.Tell(line);
        }
    }

    void Print(const Json& json) {
        Json line = {{"time", Time(Now())}};
        line.update(json);
        session_.out << line.dump(-1, ' ', false, Json::error_handler_t::replace) << std::endl;
    }

    // ---- The cache ------------------------------------------------------------------------------

    // An effect that counts as used may have been replaced by one of the same size.
    void LookAtCache() {
        if (!cache_.Exists()) { return; }
        const std::optional<WatchUpdate> update = watcher_.Next();
        if (!update) { return; }
        if (!update->problem.empty()) { Tell(update->problem); }
        for (const auto* const names : {&update->added, &update->replaced, &update->used}) {
            for (const std::string& name : *names) {
                unsent_.Add(space_.KeyOf(name));
            }
        }
    }

    // ---- The server -----------------------------------------------------------------------------

    // Listens before it looks for effects, so that no notice is missed between the two.
    void Connect() {
        const std::chrono::seconds timeout = options_.share.ServerTimeout();
        if (!url_.isProxy) { notices_.emplace(url_, timeout); }
        store_.emplace(url_, timeout);
        nextBeat_ = nextFetch_ = Clock::now();
        Say(fmt::format("connected to {}", url_.Name()), {{"connected", url_.Name()}});
    }

    void Disconnect() {
        store_.reset();
        notices_.reset();
        serverBackOff_.Fail();
    }

    void Listen() {
        milliseconds wait = kTick;
        for (int i = 0; i < kMostNotices; ++i) {
            const std::optional<StoreNotices::Notice> notice = notices_->Await(wait);
            if (!notice) { return; }
            wait = milliseconds(0);
            if (notice->sender == store_->Id()) { continue; }
            const bool isSent = notice->kind == StoreNotices::Notice::Kind::Sent;
            for (const Checksum& key : notice->keys) {
                (isSent ? unfetched_ : wanted_).Add(key);
                if (isSent) { refused_.erase(key); }
            }
        }
    }

    void Beat() {
        const Clock::time_point now = Clock::now();
        if (now < nextBeat_) { return; }
        nextBeat_ = now + kHeartbeat;
        const EffectStore::Change change = store_->LookForChange();
        const bool isLost = change == EffectStore::Change::Lost || now >= nextRescan_;
        if (isLost) {
            unsent_.AddAll();
            asked_.clear();
            nextRescan_ = now + rescan_;
        }
        if (isLost || change == EffectStore::Change::Sent) { unfetched_.AddAll(); }
        serverBackOff_.Succeed();
        if (!wanted_.IsEmpty() && cache_.Exists()) {
            SendWanted(cache_, *store_, wanted_.List(), transfer_.timeToLive);
        }
        wanted_.Clear();
    }

    void Send() {
        if (unsent_.IsEmpty()) { return; }
        if (cache_.Exists()) {
            const PushResult result = PushEffects(
                cache_, *store_, transfer_,
                [&](const auto& effect) { return unsent_.Contains(space_.KeyOf(effect.name)); },
                session_);
            if (result.sent > 0) {
                Say(fmt::format("sent {}, {}", Count(result.sent, "effect"), Size(result.bytes)),
                    {{"sent", result.sent}, {"bytes", result.bytes}});
            }
        }
        unsent_.Clear();
        sendBackOff_.Succeed();
        problem_.clear();
    }

    // A long scan is followed by a long pause.
    void Fetch() {
        if (unfetched_.IsEmpty()) { return; }
        const Clock::time_point begin = Clock::now();
        nextFetch_ = begin + every_;
        const Keys keys = unfetched_.List();
        const PullResult result = PullEffects(
            cache_, *store_, transfer_, unfetched_.IsAll() ? nullptr : &keys, refused_, session_);
        for (const Checksum& key : result.older) {
            unsent_.Add(key);
        }
        unfetched_.Clear();
        AskFor(result.damaged);
        if (refused_.size() > kMostRefused) { refused_.clear(); }
        const Clock::time_point now = Clock::now();
        nextFetch_ = now + std::max<Clock::duration>(every_, kShareOfScans * (now - begin));
        if (result.added + result.replaced == 0) {
            // Hosts have nothing to reload, so the next effects may come in at once.
            nextFetch_ = now + kShareOfScans * (now - begin);
        } else {
            Say(fmt::format("added {}, replaced {}, {}", Count(result.added, "effect"),
                            result.replaced, Size(result.bytes)),
                {{"added", result.added},
                 {"replaced", result.replaced},
                 {"evicted", result.evicted},
                 {"bytes", result.bytes}});
        }
    }

    // Asks for each effect once until the next rescan, in case the server damages everything.
    void AskFor(const Keys& damaged) {
        Keys keys;
        for (const Checksum& key : damaged) {
            if (asked_.size() < kMostAsked && asked_.insert(key).second) { keys.push_back(key); }
        }
        store_->AskFor(keys);
    }

    const AgentOptions& options_;
    const TransferOptions transfer_;
    const StoreUrl url_;
    const StoreSpace space_;
    const Clock::duration every_;
    const Clock::duration rescan_;
    Session& session_;
    Cache cache_;
    Watcher watcher_;  // has a view of the cache of its own, which misses no change
    std::optional<StoreNotices> notices_;
    std::optional<EffectStore> store_;
    BackOff serverBackOff_;
    BackOff sendBackOff_;
    KeySet unsent_;
    KeySet unfetched_;
    KeySet wanted_;
    RefusedVersions refused_;
    std::unordered_set<Checksum, ChecksumHash> asked_;
    Clock::time_point nextBeat_;
    Clock::time_point nextRescan_;
    Clock::time_point nextFetch_;
    std::string problem_;  // the last one that was reported
};

void RunAgent(const AgentOptions& options, Session& session) {
    if (std::isnan(options.every) || std::isnan(options.rescan)) {
        throw Failure("--every or --rescan is no number", kUsage);
    }
    const auto mend = [&] {
        Cache cache(session, options.share.cache);
        const Cache::Lock lock(cache);
    };
    // Bad arguments, and a cache that can't be used, are refused here.
    options.share.Url();
    options.share.Transfer();
    mend();
    session.err.flush();
    session.out.flush();
    const auto work = [&] {
        try {
            Agent(options, session).Run();
        } catch (const std::exception& error) {
            session.Warn(fmt::format("quorvel: {}", error.what()));
            session.exitCode = kFailed;
        }
        session.out.flush();
        session.err.flush();
        return session.exitCode;
    };
    const int result = RunApart(work, mend);
    if (result < 0) { throw Failure("the process that does the work was killed"); }
    session.exitCode = result;
}

}  // namespace

void AddAgent(CLI::App& program, Session& session) {
    const auto options = std::make_shared<AgentOptions>();
    Command command = AddCommand(
        program, session, "agent",
        "Keeps a cache and a Redis server equal while hosts run, until Ctrl-C: sends what hosts "
        "save, and takes what others send",
        [options, &session] { RunAgent(*options, session); });
    options->share.AddTo(command);
    options->share.AddTimeToLiveTo(command);
    command
        .AddOption("--every", options->every,
                   "seconds between two changes of the cache, after each of which hosts reload it")
        .Between(0.0, 86400.0)
        .ShowDefault();
    command
        .AddOption("--rescan", options->rescan,
                   "seconds after which everything is compared again, to find what was missed")
        .Between(1.0, 86400.0)
        .ShowDefault();
}

}  // namespace Quorvel::Tool
