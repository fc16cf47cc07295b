#include "tools/quorvel/EffectStore.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <random>
#include <utility>

#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {

namespace {

// Keys in one step of a scan, in one notice, and in one command for a set.
constexpr std::size_t kKeysPerStep = 1000;

// Footers and values that are asked for before the first one has come.
constexpr std::size_t kFootersAhead = 4000;
constexpr std::size_t kValuesAhead = 256;

constexpr std::size_t kIndexSets = 64;

// A scan with more steps than this is given up as endless.
constexpr std::uint64_t kMostSteps = 1 << 20;

constexpr char kSent = 's';
constexpr char kWanted = 'w';

constexpr std::size_t kMarkSize = 16;
constexpr std::size_t kIdSize = 8;
constexpr std::size_t kKeySize = 16;

// Sets a value unless there is one of an effect that was used at the same time or later. The
// footer's time is at its byte 8.
constexpr char kSetIfNewer[] = R"(
local old = redis.pcall('GETRANGE', KEYS[1], -64, -1)
if type(old) == 'string' and #old == 64 and string.sub(old, 1, 5) == 'QVFX\1' and
        struct.unpack('<i8', old, 9) >= struct.unpack('<i8', ARGV[1], #ARGV[1] - 55) then
    return 0
end
if ARGV[2] == '0' then
    redis.call('SET', KEYS[1], ARGV[1])
else
    redis.call('SET', KEYS[1], ARGV[1], 'EX', ARGV[2])
end
return 1)";

std::string RandomText(std::size_t size) {
    std::random_device random;
    std::string text;
    while (text.size() < size) {
        text += fmt::format("{:08x}", random());
    }
    return text.substr(0, size);
}

std::string Pack(const Checksum& key) {
    std::string text;
    for (const std::uint64_t half : {key.high, key.low}) {
        for (int shift = 56; shift >= 0; shift -= 8) {
            text += static_cast<char>(half >> shift);
        }
    }
    return text;
}

// REQUIRES: the text has kKeySize bytes.
Checksum Unpack(std::string_view text) {
    std::array<std::uint64_t, 2> halves = {};
    for (std::size_t i = 0; i < kKeySize; ++i) {
        halves[i / 8] = halves[i / 8] << 8 | static_cast<unsigned char>(text[i]);
    }
    return {halves[0], halves[1]};
}

EffectStore::Keys UnpackAll(std::string_view text) {
    EffectStore::Keys keys;
    for (; text.size() >= kKeySize; text.remove_prefix(kKeySize)) {
        keys.push_back(Unpack(text.substr(0, kKeySize)));
    }
    return keys;
}

}  // namespace

EffectStore::EffectStore(const StoreUrl& url, std::chrono::seconds timeout)
    : url_(url), space_(url.space), id_(RandomText(kIdSize)), server_(url, timeout) {}

// ---- Reading ------------------------------------------------------------------------------------

void EffectStore::ForEachKey(const std::function<void(const Keys&)>& use) {
    if (!url_.isProxy) {
        ScanSet({}, use);
        return;
    }
    for (std::size_t i = 0; i < kIndexSets; ++i) {
        ScanSet(IndexSet(i), use);
    }
}

std::string EffectStore::IndexSet(std::size_t number) const {
    return fmt::format("{}.index.{}", space_.Prefix(), number);
}

// A proxy closes the connection.
Reply EffectStore::ScanDatabase(const std::string& cursor) {
    const std::string pattern = space_.Prefix() + ":*";
    try {
        return server_.Ask(
            {"SCAN", cursor, "MATCH", pattern, "COUNT", std::to_string(kKeysPerStep)});
    } catch (const ServerRefusal&) { throw; } catch (const ServerFailure& failure) {
        throw ServerFailure(std::string(failure.what()) + "; if it is a proxy, give ?proxy=1");
    }
}

// Scans the members of a set, or the database if no set is named.
void EffectStore::ScanSet(const std::string& set, const std::function<void(const Keys&)>& use) {
    const std::string count = std::to_string(kKeysPerStep);
    std::string cursor = "0";
    for (std::uint64_t step = 0; step < kMostSteps; ++step) {
        const Reply reply = set.empty() ? ScanDatabase(cursor)
                                        : server_.Ask({"SSCAN", set, cursor, "COUNT", count});
        if (reply.list.size() != 2) { break; }
        Keys keys;
        for (const Reply& item : reply.list[1].list) {
            if (set.empty()) {
                const std::optional<Checksum> key = space_.ReadKey(item.text);
                if (key) { keys.push_back(*key); }
            } else if (item.text.size() == kKeySize) {
                keys.push_back(Unpack(item.text));
            }
        }
        if (!keys.empty()) { use(keys); }
        const std::string& next = reply.list[0].text;
        if (next == "0") { return; }
        if (next == cursor) { break; }
        cursor = next;
    }
    throw ServerFailure(url_.Name() + ": the server's list of keys makes no sense");
}

// Asks for a range of bytes of each value, `ahead` values before the first one has come.
void EffectStore::ReadRanges(const Keys& keys, long long first, long long last, std::size_t ahead,
                             const Use& use) {
    const std::string from = std::to_string(first);
    const std::string to = std::to_string(last);
    std::size_t asked = 0;
    std::optional<ServerRefusal> refusal;
    for (std::size_t i = 0; i < (refusal ? asked : keys.size()); ++i) {
        // Many at a time, since each transfer costs time.
        if (!refusal && asked - i <= ahead / 2) {
            for (; asked < std::min(keys.size(), i + ahead); ++asked) {
                server_.Send({"GETRANGE", space_.Name(keys[asked]), from, to});
            }
        }
        const Reply reply = server_.Receive();
        const bool isError = reply.kind == Reply::Kind::Error;
        if (isError && !reply.text.starts_with("WRONGTYPE")) {
            refusal.emplace(server_.Refusal("GETRANGE", reply));
        } else if (!refusal) {
            use(i, isError ? std::string() : reply.text);
        }
    }
    if (refusal) { throw ServerRefusal(*refusal); }
}

void EffectStore::ReadFooters(const Keys& keys, const Use& use) {
    ReadRanges(keys, -static_cast<long long>(kFooterSize), -1, kFootersAhead, use);
}

void EffectStore::ReadValues(const Keys& keys, const Use& use) {
    ReadRanges(keys, 0, kLargestValue, kValuesAhead, use);
}

// ---- Writing ------------------------------------------------------------------------------------

void EffectStore::SendWrite(const Outgoing& effect) {
    const std::string name = space_.Name(effect.key);
    const std::string seconds = std::to_string(timeToLive_);
    if (effect.write == Write::Newer) {
        server_.Send({"EVAL", kSetIfNewer, "1", name, effect.value, seconds});
    } else if (effect.write == Write::New) {
        if (timeToLive_ == 0) {
            server_.Send({"SET", name, effect.value, "NX"});
        } else {
            server_.Send({"SET", name, effect.value, "EX", seconds, "NX"});
        }
    } else if (timeToLive_ == 0) {
        server_.Send({"SET", name, effect.value});
    } else {
        server_.Send({"SET", name, effect.value, "EX", seconds});
    }
}

void EffectStore::BeginSending(std::vector<Outgoing> effects, std::uint64_t timeToLive) {
    sending_ = std::move(effects);
    timeToLive_ = timeToLive;
    for (const Outgoing& effect : sending_) {
        SendWrite(effect);
    }
    server_.Flush();
}

std::uint64_t EffectStore::FinishSending() {
    const std::vector<Outgoing> effects = std::exchange(sending_, {});
    Keys taken;
    std::vector<Outgoing> late;
    std::optional<ServerRefusal> refusal;
    const auto receive = [&](const Outgoing& effect) {
        const Reply reply = server_.Receive();
        if (reply.kind == Reply::Kind::Error) {
            refusal.emplace(server_.Refusal(effect.write == Write::Newer ? "EVAL" : "SET", reply));
        } else if (reply.kind == Reply::Kind::Text || reply.number == 1) {
            taken.push_back(effect.key);
        } else if (effect.write == Write::New) {
            late.push_back({effect.key, effect.value, Write::Newer});
        }
    };
    for (const Outgoing& effect : effects) {
        receive(effect);
    }
    for (const Outgoing& effect : late) {
        SendWrite(effect);
    }
    for (std::size_t i = 0; i < late.size(); ++i) {
        receive(late[i]);
    }
    List(taken);
    if (!taken.empty()) { ChangeMark(); }
    Note(taken, kSent);
    if (refusal) { throw ServerRefusal(*refusal); }
    return taken.size();
}

// Publishes a notice about keys. A proxy passes no notices on; there, ChangeMark takes its place.
void EffectStore::Note(const Keys& keys, char kind) {
    if (url_.isProxy) { return; }
    for (std::size_t begin = 0; begin < keys.size(); begin += kKeysPerStep) {
        const std::size_t end = std::min(keys.size(), begin + kKeysPerStep);
        std::string text = kind + id_;
        for (std::size_t i = begin; i < end; ++i) {
            text += Pack(keys[i]);
        }
        server_.Ask({"PUBLISH", space_.Prefix(), text});
    }
}

void EffectStore::List(const Keys& keys) {
    if (!url_.isProxy || keys.empty()) { return; }
    for (const Checksum& key : keys) {
        server_.Send({"SADD", IndexSet(key.low % kIndexSets), Pack(key)});
    }
    ReceiveAll(keys.size(), "SADD");
}

void EffectStore::ChangeMark() {
    if (!url_.isProxy) { return; }
    const std::string mark = RandomText(kMarkSize);
    const std::string old = server_.Ask({"GETSET", space_.Prefix(), mark}).text;
    mark_ = old == mark_ ? mark : std::string();
}

// Receives replies whose content does not matter. Throws ServerRefusal after the last one.
void EffectStore::ReceiveAll(std::size_t count, const char* what) {
    std::optional<ServerRefusal> refusal;
    for (std::size_t i = 0; i < count; ++i) {
        const Reply reply = server_.Receive();
        if (reply.kind == Reply::Kind::Error) { refusal.emplace(server_.Refusal(what, reply)); }
    }
    if (refusal) { throw ServerRefusal(*refusal); }
}

void EffectStore::Refresh(const Keys& keys, std::uint64_t timeToLive) {
    const std::string seconds = std::to_string(timeToLive);
    for (const Checksum& key : keys) {
        server_.Send({"EXPIRE", space_.Name(key), seconds});
    }
    ReceiveAll(keys.size(), "EXPIRE");
}

void EffectStore::AskFor(const Keys& keys) {
    Note(keys, kWanted);
}

EffectStore::Change EffectStore::LookForChange() {
    std::string mark = server_.Ask({"GET", space_.Prefix()}).text;
    const bool isFirst = std::exchange(isFirstLook_, false);
    if (mark.empty()) {
        server_.Ask({"SET", space_.Prefix(), RandomText(kMarkSize), "NX"});
        mark_ = server_.Ask({"GET", space_.Prefix()}).text;
        return Change::Lost;
    }
    const bool isSame = std::exchange(mark_, mark) == mark;
    if (isSame && !isFirst) { return Change::None; }
    return url_.isProxy && !isFirst ? Change::Sent : Change::Lost;
}

// ---- Notices ------------------------------------------------------------------------------------

StoreNotices::StoreNotices(const StoreUrl& url, std::chrono::seconds timeout)
    : server_(url, timeout) {
    server_.Ask({"SUBSCRIBE", StoreSpace(url.space).Prefix()});
}

std::optional<StoreNotices::Notice> StoreNotices::Await(std::chrono::milliseconds time) {
    const std::optional<Reply> reply = server_.Await(time);
    if (!reply || reply->list.size() != 3) { return std::nullopt; }
    const std::string_view text = reply->list[2].text;
    if (text.size() < 1 + kIdSize || (text[0] != kSent && text[0] != kWanted)) {
        return std::nullopt;
    }
    return Notice{text[0] == kSent ? Notice::Kind::Sent : Notice::Kind::Wanted,
                  std::string(text.substr(1, kIdSize)), UnpackAll(text.substr(1 + kIdSize))};
}

}  // namespace Quorvel::Tool
