#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"
#include "tools/quorvel/RedisConnection.h"

namespace Quorvel::Tool {

// True if a program is installed.
bool HasProgram(const std::string& name);

// The program of the server. Debian has it under this name without the service, too; it goes by the
// name that it is started by. Empty if there is none.
std::string RedisProgram();

// A Redis server that listens on a socket, or a proxy in front of such servers. It ends with the
// object.
class RedisServer {
public:
    // Starts a server that keeps nothing on the disk; it listens on a port of the loopback, too, if
    // one is given. Returns when it answers. Throws std::runtime_error if it does not.
    explicit RedisServer(const std::vector<std::string>& options = {}, int port = 0);

    // Starts nutcracker in front of two servers.
    static RedisServer ProxyOf(const RedisServer& one, const RedisServer& other) {
        return RedisServer(one, other);
    }

    const std::string& Socket() const { return socket_; }
    std::string Url(const std::string& options = "") const { return "unix://" + socket_ + options; }

    // Sends a command, and returns the reply.
    Reply Ask(const std::vector<std::string>& words) const;

    // The names of the keys that belong to effects.
    std::vector<std::string> EffectKeys() const;

    // A number in the server's INFO: the first one after a text.
    std::uint64_t Info(const std::string& section, const std::string& text) const;

    // Kills the server, so that it loses its effects; starts it again.
    void Kill();
    void Start();

    // Suspends the server's process, and resumes it.
    void Freeze() const;
    void Thaw() const;

private:
    RedisServer(const RedisServer& one, const RedisServer& other);
    void AwaitAnswer() const;

    const Testing::TemporaryDirectory directory_;
    const std::string socket_;
    std::vector<std::string> command_;
    std::unique_ptr<Testing::ChildProcess> process_;
};

// A port of the loopback that no program uses now.
int FreePort();

}  // namespace Quorvel::Tool
