#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/quorvel/RedisConnection.h"
#include "tools/quorvel/StoreUrl.h"
#include "tools/quorvel/StoreValue.h"

namespace Quorvel::Tool {

// The effects of a namespace on a Redis server. Besides a key for each effect, there are
//
//   PREFIX              a random text, which is lost when the server loses its effects
//   PREFIX.index.0-63   behind a proxy, sets of the keys: a proxy can't list them
//   the channel PREFIX  notices (StoreNotices)
//
// All functions throw ServerFailure, and Failure if the user has asked the program to stop. After a
// ServerRefusal, the store can be used on; after anything else it must not be used.
class EffectStore {
public:
    EffectStore(const StoreUrl& url, std::chrono::seconds timeout);

    const StoreUrl& Url() const { return url_; }
    const StoreSpace& Space() const { return space_; }

    // Calls `use` with the keys of all effects, some hundreds at a time. A key that comes or goes
    // meanwhile may be left out, and any may come twice.
    using Keys = std::vector<Checksum>;
    void ForEachKey(const std::function<void(const Keys&)>& use);

    // Calls `use` with the position of each key, in their order, and the last bytes of its value,
    // which ReadFooter takes. They are empty if there is no value, or something else. `use` must
    // not use the store.
    using Use = std::function<void(std::size_t, const std::string&)>;
    void ReadFooters(const Keys& keys, const Use& use);

    // The same with whole values. A value that is longer than kLargestValue is cut short one byte
    // later.
    void ReadValues(const Keys& keys, const Use& use);

    // How to treat an effect that the server has.
    enum class Write {
        New,      // there was none; one that has come meanwhile is treated as by Newer
        Newer,    // it stays if it was used at the same time or later
        Replace,  // it does not stay
    };
    struct Outgoing {
        Checksum key;
        std::string value;
        Write write;
    };

    // Sends effects without waiting for the server; FinishSending waits, and returns the number of
    // those that the server has taken. They vanish from the server after `timeToLive` seconds, if
    // that is not 0. Others are told of them. REQUIRES: no other call comes between.
    void BeginSending(std::vector<Outgoing> effects, std::uint64_t timeToLive);
    std::uint64_t FinishSending();

    // Behind a proxy, makes sure that ForEachKey finds effects that the server has.
    void List(const Keys& keys);

    // Lets effects live that long from now on.
    void Refresh(const Keys& keys, std::uint64_t timeToLive);

    // Asks all who have them to send effects again, because their values are damaged.
    void AskFor(const Keys& keys);

    // What has happened since the last call. The first call always returns Lost. Sent is returned
    // only behind a proxy, where a loss may also look like Sent.
    enum class Change { None, Sent, Lost };
    Change LookForChange();

    // Identifies this connection in notices.
    const std::string& Id() const { return id_; }

private:
    std::string IndexSet(std::size_t number) const;
    Reply ScanDatabase(const std::string& cursor);
    void ScanSet(const std::string& set, const std::function<void(const Keys&)>& use);
    void ReadRanges(const Keys& keys, long long first, long long last, std::size_t ahead,
                    const Use& use);
    void SendWrite(const Outgoing& effect);
    void ChangeMark();
    void ReceiveAll(std::size_t count, const char* what);
    void Note(const Keys& keys, char kind);

    const StoreUrl url_;
    const StoreSpace space_;
    const std::string id_;
    RedisConnection server_;
    std::vector<Outgoing> sending_;
    std::uint64_t timeToLive_ = 0;
    std::string mark_;  // the random text when it was last seen
    bool isFirstLook_ = true;
};

// What others do with the effects of a namespace, as it happens: a second connection.
class StoreNotices {
public:
    explicit StoreNotices(const StoreUrl& url, std::chrono::seconds timeout);

    struct Notice {
        enum class Kind { Sent, Wanted };
        Kind kind;
        std::string sender;  // EffectStore::Id
        EffectStore::Keys keys;
    };

    // The next notice, if one comes within that time. Throws ServerFailure, and Failure if the user
    // has asked the program to stop.
    std::optional<Notice> Await(std::chrono::milliseconds time);

private:
    RedisConnection server_;
};

}  // namespace Quorvel::Tool
