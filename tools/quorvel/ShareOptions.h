#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "tools/quorvel/Command.h"
#include "tools/quorvel/StoreTransfer.h"
#include "tools/quorvel/StoreUrl.h"

namespace Quorvel::Tool {

// The arguments of the commands that share effects through a store.
struct ShareOptions {
    std::string cache;
    std::string url;
    std::optional<std::string> space;
    std::optional<std::string> passwordFile;
    std::uint64_t serverTimeout = 10;  // seconds
    std::string match = "*";
    std::optional<std::string> newerThan;
    std::optional<std::string> maxBytes;
    std::optional<std::string> timeToLive;
    bool isDryRun = false;

    // Adds CACHE, URL and the options that all of these commands have.
    void AddTo(Command& command);

    // Adds --newer-than, --max-bytes and --dry-run, for commands that end.
    void AddLimitsTo(Command& command);

    // Adds --ttl, for commands that send effects.
    void AddTimeToLiveTo(Command& command);

    // All three throw Failure, with the exit code kUsage if an argument is wrong.
    StoreUrl Url() const;
    std::chrono::seconds ServerTimeout() const { return std::chrono::seconds(serverTimeout); }
    TransferOptions Transfer() const;
};

}  // namespace Quorvel::Tool
