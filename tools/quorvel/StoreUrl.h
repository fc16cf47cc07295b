#pragma once

#include <cstdint>
#include <string>

namespace Quorvel::Tool {

// Where a store is: a Redis server, a database of it, and a namespace.
struct StoreUrl {
    std::string host;  // empty if the server listens on a socket
    std::uint16_t port = 6379;
    std::string socket;  // the socket's path
    std::string user;
    std::string password;
    std::uint32_t database = 0;
    std::string space = "default";  // the namespace
    bool isProxy = false;           // the server is a proxy, which knows neither SCAN nor PUBLISH

    // For messages: without user and password.
    std::string Name() const;
};

// Reads redis://[[USER]:PASSWORD@]HOST[:PORT][/DATABASE][?OPTIONS] or
// unix://[[USER]:PASSWORD@]/PATH[?OPTIONS]. OPTIONS are namespace=NAME, db=DATABASE and proxy=1,
// joined by "&". %XX stands for a byte. Throws Failure, with the exit code kUsage and a message
// without the password.
StoreUrl ParseStoreUrl(const std::string& text);

}  // namespace Quorvel::Tool
