#include "tools/quorvel/RedisConnection.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <hiredis/hiredis.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <utility>

#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {

namespace {

using std::chrono::milliseconds;

// The longest reply that is accepted, in bytes and in elements. The longest ones asked for are a
// value and a page of keys.
constexpr std::size_t kLongestReply = 2 << 20;
constexpr int kMostElements = 1 << 16;

// The most bytes of replies that are accepted while commands are written.
constexpr std::size_t kMostEarly = 16 << 20;

constexpr std::size_t kReadSize = 1 << 18;

// The reader moves its remaining bytes with every reply, so it gets few at a time.
constexpr std::size_t kParseSize = 1 << 14;

// A wait notices Ctrl-C after this time.
constexpr milliseconds kSlice(100);

// ---- Replies, built by the reader of hiredis ----------------------------------------------------

void* Place(const redisReadTask* task, Reply&& reply) {
    if (!task->parent) { return new Reply(std::move(reply)); }
    Reply& place =
        static_cast<Reply*>(task->parent->obj)->list[static_cast<std::size_t>(task->idx)];
    place = std::move(reply);
    return &place;
}

// The reader takes null for a lack of memory.
template <typename Make>
void* Build(const redisReadTask* task, const Make& make) {
    try {
        Reply reply;
        make(reply);
        return Place(task, std::move(reply));
    } catch (const std::exception&) { return nullptr; }
}

void* BuildText(const redisReadTask* task, char* text, std::size_t size) {
    return Build(task, [&](Reply& reply) {
        reply.kind = task->type == REDIS_REPLY_ERROR ? Reply::Kind::Error : Reply::Kind::Text;
        reply.text.assign(text, size);
    });
}

void* BuildList(const redisReadTask* task, int elements) {
    if (elements < 0 || elements > kMostElements) { return nullptr; }
    return Build(task, [&](Reply& reply) {
        reply.kind = Reply::Kind::List;
        reply.list.resize(static_cast<std::size_t>(elements));
    });
}

void* BuildNumber(const redisReadTask* task, long long number) {
    return Build(task, [&](Reply& reply) {
        reply.kind = Reply::Kind::Number;
        reply.number = number;
    });
}

void* BuildNothing(const redisReadTask* task) {
    return Build(task, [](Reply&) {});
}

void FreeReply(void* reply) {
    delete static_cast<Reply*>(reply);
}

redisReplyObjectFunctions builders = {BuildText, BuildList, BuildNumber, BuildNothing, FreeReply};

template <auto Function>
struct Free {
    template <typename Object>
    void operator()(Object* object) const {
        Function(object);
    }
};

}  // namespace

// ---- Connecting ---------------------------------------------------------------------------------

struct RedisConnection::State {
    std::unique_ptr<redisContext, Free<redisFree>> context;
    std::unique_ptr<redisReader, Free<redisReaderFree>> reader;
};

RedisConnection::RedisConnection(const StoreUrl& url, std::chrono::seconds timeout)
    : name_(url.Name()), timeout_(timeout), state_(std::make_unique<State>()), in_(kReadSize) {
    const timeval time = {timeout.count(), 0};
    state_->context.reset(url.host.empty()
                              ? redisConnectUnixWithTimeout(url.socket.c_str(), time)
                              : redisConnectWithTimeout(url.host.c_str(), url.port, time));
    state_->reader.reset(redisReaderCreateWithFunctions(&builders));
    const redisContext* const context = state_->context.get();
    if (!context || !state_->reader) { throw std::bad_alloc(); }
    StopIfAsked();
    if (context->err != 0) { Fail(fmt::format("can't be reached: {}", context->errstr)); }
    if (::fcntl(context->fd, F_SETFL, ::fcntl(context->fd, F_GETFL) | O_NONBLOCK) != 0) {
        Fail(std::strerror(errno));
    }
    LogIn(url);
    if (url.database != 0) { Ask({"SELECT", std::to_string(url.database)}); }
}

RedisConnection::~RedisConnection() = default;

void RedisConnection::LogIn(const StoreUrl& url) {
    if (url.user.empty() && url.password.empty()) { return; }
    try {
        if (url.user.empty()) {
            Ask({"AUTH", url.password});
        } else {
            Ask({"AUTH", url.user, url.password});
        }
    } catch (const ServerRefusal& refusal) {
        if (!url.password.empty()) { throw; }
        throw ServerRefusal(std::string(refusal.what()) + "; no password was given");
    }
}

void RedisConnection::Fail(const std::string& why) const {
    throw ServerFailure(fmt::format("{}: {}", name_, why));
}

// ---- Transfers ----------------------------------------------------------------------------------

// Waits until there is something to read, or if `canWrite` is set, room to write.
bool RedisConnection::WaitUntilReady(bool canWrite, Clock::time_point end) {
    for (;;) {
        StopIfAsked();
        const auto left = std::chrono::ceil<milliseconds>(end - Clock::now());
        const milliseconds slice = std::clamp(left, milliseconds(0), kSlice);
        pollfd descriptor = {state_->context->fd, POLLIN, 0};
        if (canWrite) { descriptor.events |= POLLOUT; }
        const int ready = ::poll(&descriptor, 1, static_cast<int>(slice.count()));
        if (ready > 0) { return true; }
        if (ready < 0 && errno != EINTR) { Fail(std::strerror(errno)); }
        if (left <= kSlice) { return false; }
    }
}

// False if there is no room now.
bool RedisConnection::Write() {
    const ssize_t moved =
        ::send(state_->context->fd, out_.data() + written_, out_.size() - written_, MSG_NOSIGNAL);
    if (moved < 0 && (errno == EAGAIN || errno == EINTR)) { return false; }
    if (moved < 0) { Fail(std::strerror(errno)); }
    written_ += static_cast<std::size_t>(moved);
    return true;
}

// REQUIRES: all bytes that were read before are parsed.
void RedisConnection::Read() {
    begin_ = end_ = 0;
    const ssize_t moved = ::recv(state_->context->fd, in_.data(), in_.size(), 0);
    if (moved < 0 && (errno == EAGAIN || errno == EINTR)) { return; }
    if (moved < 0) { Fail(std::strerror(errno)); }
    if (moved == 0) { Fail("the server has closed the connection"); }
    end_ = static_cast<std::size_t>(moved);
}

// The next reply, if it has come.
std::optional<Reply> RedisConnection::Parse() {
    redisReader* const reader = state_->reader.get();
    for (;;) {
        void* reply = nullptr;
        if (redisReaderGetReply(reader, &reply) != REDIS_OK) {
            Fail(reader->err == REDIS_ERR_OOM ? "the server's reply is too long"
                                              : "the server does not speak the protocol of Redis");
        }
        if (reply) {
            parsed_ = 0;
            const std::unique_ptr<Reply> owner(static_cast<Reply*>(reply));
            return std::move(*owner);
        }
        if (begin_ == end_) { return std::nullopt; }
        const std::size_t size = std::min(kParseSize, end_ - begin_);
        parsed_ += size;
        if (parsed_ > kLongestReply) { Fail("the server's reply is too long"); }
        if (redisReaderFeed(reader, in_.data() + begin_, size) != REDIS_OK) {
            throw std::bad_alloc();
        }
        begin_ += size;
    }
}

void RedisConnection::Send(std::initializer_list<std::string_view> words) {
    out_ += fmt::format("*{}\r\n", words.size());
    for (const std::string_view word : words) {
        fmt::format_to(std::back_inserter(out_), "${}\r\n", word.size());
        out_ += word;
        out_ += "\r\n";
    }
}

// Also reads: a server whose replies are not read stops reading commands.
void RedisConnection::Flush() {
    Clock::time_point end = Clock::now() + timeout_;
    std::size_t early = 0;
    while (written_ < out_.size()) {
        if (Write()) {
            end = Clock::now() + timeout_;
            continue;
        }
        if (Clock::now() > end || !WaitUntilReady(true, end)) {
            Fail("the server does not read what it is sent");
        }
        Read();
        early += end_;
        if (early > kMostEarly) { Fail("the server sends more than it was asked for"); }
        while (std::optional<Reply> reply = Parse()) {
            early_.push_back(std::move(*reply));
        }
    }
    out_.clear();
    written_ = 0;
}

Reply RedisConnection::Receive() {
    Flush();
    if (!early_.empty()) {
        Reply reply = std::move(early_.front());
        early_.pop_front();
        return reply;
    }
    const Clock::time_point end = Clock::now() + timeout_;
    for (;;) {
        if (std::optional<Reply> reply = Parse()) { return std::move(*reply); }
        if (Clock::now() > end || !WaitUntilReady(false, end)) {
            Fail("the server does not answer");
        }
        Read();
    }
}

ServerRefusal RedisConnection::Refusal(std::string_view command, const Reply& reply) const {
    return ServerRefusal(
        fmt::format("{}: the server refuses {}: {}", name_, command, Escape(reply.text)));
}

Reply RedisConnection::Ask(std::initializer_list<std::string_view> words) {
    Send(words);
    Reply reply = Receive();
    if (reply.kind == Reply::Kind::Error) { throw Refusal(*words.begin(), reply); }
    return reply;
}

std::optional<Reply> RedisConnection::Await(milliseconds time) {
    Flush();
    const Clock::time_point end = Clock::now() + time;
    for (;;) {
        if (std::optional<Reply> reply = Parse()) { return reply; }
        if (!WaitUntilReady(false, end)) { return std::nullopt; }
        Read();
    }
}

}  // namespace Quorvel::Tool
