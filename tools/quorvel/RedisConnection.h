#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/quorvel/Session.h"
#include "tools/quorvel/StoreUrl.h"

namespace Quorvel::Tool {

// The server can't be reached, closes the connection, is silent for too long, or breaks the
// protocol.
class ServerFailure : public Failure {
public:
    using Failure::Failure;
};

// The server refuses a command. The connection can be used on.
class ServerRefusal : public ServerFailure {
public:
    using ServerFailure::ServerFailure;
};

// A server's answer to a command.
struct Reply {
    enum class Kind { Nothing, Text, Number, List, Error };

    Kind kind = Kind::Nothing;
    std::string text;         // or the server's message
    std::int64_t number = 0;  // of Kind::Number
    std::vector<Reply> list;
};

// A connection to a Redis server. Whatever the server sends, this program does not wait forever,
// and does not take more than a few MiB of memory. All functions throw ServerFailure, and Failure
// if the user has asked the program to stop.
class RedisConnection {
public:
    // Connects, logs in and selects the database. The server has that time for each of these, and
    // later for each reply.
    RedisConnection(const StoreUrl& url, std::chrono::seconds timeout);
    RedisConnection(const RedisConnection&) = delete;
    RedisConnection& operator=(const RedisConnection&) = delete;
    ~RedisConnection();

    // Queues a command.
    void Send(std::initializer_list<std::string_view> words);

    // Hands the queued commands to the system.
    void Flush();

    // The reply to the earliest command that has none yet. Flushes before.
    Reply Receive();

    // What to throw if the reply to a command is an error.
    ServerRefusal Refusal(std::string_view command, const Reply& reply) const;

    // Sends a command and waits for its reply. Throws ServerRefusal if that is an error.
    Reply Ask(std::initializer_list<std::string_view> words);

    // A message that no command asked for, if one comes within that time.
    std::optional<Reply> Await(std::chrono::milliseconds time);

private:
    using Clock = std::chrono::steady_clock;
    struct State;

    void LogIn(const StoreUrl& url);
    [[noreturn]] void Fail(const std::string& why) const;
    bool WaitUntilReady(bool canWrite, Clock::time_point end);
    bool Write();
    void Read();
    std::optional<Reply> Parse();

    const std::string name_;  // of the server
    const std::chrono::seconds timeout_;
    std::unique_ptr<State> state_;
    std::string out_;          // commands
    std::size_t written_ = 0;  // bytes of out_
    std::vector<char> in_;
    std::size_t begin_ = 0;    // of the bytes in in_ that were not parsed
    std::size_t end_ = 0;      // of the bytes in in_
    std::size_t parsed_ = 0;   // bytes since the last complete reply
    std::deque<Reply> early_;  // came while commands were written
};

}  // namespace Quorvel::Tool
