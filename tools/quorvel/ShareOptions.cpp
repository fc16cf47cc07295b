#include "tools/quorvel/ShareOptions.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "format/Path.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {

namespace {

constexpr char kPasswordVariable[] = "QUORVEL_REDIS_PASSWORD";

std::string ReadPassword(const std::string& path) {
    errno = 0;
    std::ifstream file(Format::ToPath(path));
    std::string password;
    if (!std::getline(file, password) && !file.eof()) {
        throw Failure(fmt::format("{}: the password can't be read: {}", path,
                                  errno != 0 ? std::strerror(errno) : "read error"));
    }
    if (password.empty()) { throw Failure(path + ": no password in its first line"); }
    return password;
}

}  // namespace

void ShareOptions::AddTo(Command& command) {
    command.AddChanging();
    command.AddJson();
    command.AddCache(cache);
    command
        .AddOption("URL", url,
                   "the Redis server: redis://HOST[:PORT][/DATABASE] or unix:///PATH, with "
                   "?namespace=NAME")
        .Required();
    command.AddOption("--namespace", space,
                      "share only with those who give the same name; it should name the "
                      "compiler's version and platform");
    command.AddOption("--password-file", passwordFile,
                      "take the password from this file's first line; without this, from the URL "
                      "or from QUORVEL_REDIS_PASSWORD");
    command
        .AddOption("--server-timeout", serverTimeout,
                   "seconds that the server may take for an answer")
        .Between(1, 3600)
        .ShowDefault();
    command.AddOption("--match", match, "only effects whose names match this shell pattern")
        .ShowDefault();
}

void ShareOptions::AddLimitsTo(Command& command) {
    command.AddOption("--newer-than", newerThan,
                      "only effects that were used in this time: 30d, 12h, 45m, 2w");
    command.AddOption("--max-bytes", maxBytes,
                      "transfer no more than this in each direction: 100MiB");
    command.AddFlag("--dry-run", isDryRun, "say what would happen, change nothing");
}

void ShareOptions::AddTimeToLiveTo(Command& command) {
    command.AddOption("--ttl", timeToLive,
                      "let the server forget effects that were not used for this long: 30d");
}

StoreUrl ShareOptions::Url() const {
    StoreUrl result = ParseStoreUrl(url);
    if (space) {
        if (space->empty()) { throw Failure("the namespace is empty", kUsage); }
        result.space = *space;
    }
    if (passwordFile) {
        result.password = ReadPassword(*passwordFile);
    } else if (result.password.empty()) {
        const char* const password = std::getenv(kPasswordVariable);
        if (password) { result.password = password; }
    }
    return result;
}

TransferOptions ShareOptions::Transfer() const {
    TransferOptions transfer;
    transfer.match = match;
    if (newerThan) { transfer.newerThan = ToStoreTime(TimeBefore(ParseDuration(*newerThan))); }
    if (maxBytes) { transfer.mostBytes = ParseSize(*maxBytes); }
    if (timeToLive) {
        transfer.timeToLive = ParseDuration(*timeToLive);
        if (transfer.timeToLive == 0) { throw Failure("--ttl must not be 0", kUsage); }
    }
    transfer.isDryRun = isDryRun;
    return transfer;
}

}  // namespace Quorvel::Tool
