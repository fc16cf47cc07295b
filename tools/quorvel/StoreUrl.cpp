#include "tools/quorvel/StoreUrl.h"

#include <fmt/format.h>

#include <charconv>
#include <string_view>

#include "tools/quorvel/Session.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {

namespace {

[[noreturn]] void Refuse(const std::string& why) {
    throw Failure("the URL of the store: " + why, kUsage);
}

// Takes the text up to a separator off the front, and the separator. Takes everything if there is
// no separator.
std::string_view TakeUpTo(std::string_view& text, std::string_view separator) {
    const std::size_t end = text.find(separator);
    const std::string_view part = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + separator.size());
    return part;
}

std::string Decode(std::string_view text) {
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        unsigned byte = 0;
        const std::string_view digits = text.substr(i + 1, 2);
        const char* const end = digits.data() + digits.size();
        if (digits.size() != 2 || std::from_chars(digits.data(), end, byte, 16).ptr != end) {
            Refuse("two hexadecimal digits must follow each %");
        }
        decoded += static_cast<char>(byte);
        i += 2;
    }
    return decoded;
}

template <typename Number>
Number ReadNumber(std::string_view text, const char* what) {
    Number number = 0;
    const char* const end = text.data() + text.size();
    const auto [at, error] = std::from_chars(text.data(), end, number);
    // The text may be a password that lacks its @.
    if (text.empty() || at != end || error != std::errc()) {
        Refuse(fmt::format("the {} is no number, or too large", what));
    }
    return number;
}

// USER:PASSWORD, :PASSWORD or USER.
void ReadUser(std::string_view text, StoreUrl& url) {
    url.user = Decode(TakeUpTo(text, ":"));
    url.password = Decode(text);
}

void ReadHost(std::string_view text, StoreUrl& url) {
    std::string_view port;
    if (text.starts_with('[')) {
        text.remove_prefix(1);
        if (text.find(']') == std::string_view::npos) { Refuse("the host lacks a ]"); }
        url.host = TakeUpTo(text, "]");
        if (!text.empty() && !text.starts_with(':')) { Refuse("a port must follow the ]"); }
        port = text;
    } else {
        const std::size_t colon = text.find(':');
        url.host = text.substr(0, colon);
        if (colon != std::string_view::npos) { port = text.substr(colon); }
    }
    if (url.host.empty()) { Refuse("it names no host"); }
    if (!port.empty()) { url.port = ReadNumber<std::uint16_t>(port.substr(1), "port"); }
}

void ReadOptions(std::string_view text, StoreUrl& url) {
    while (!text.empty()) {
        std::string_view value = TakeUpTo(text, "&");
        const std::string_view name = TakeUpTo(value, "=");
        if (name == "namespace") {
            url.space = Decode(value);
        } else if (name == "db") {
            url.database = ReadNumber<std::uint32_t>(value, "database");
        } else if (name == "proxy" && (value == "0" || value == "1")) {
            url.isProxy = value == "1";
        } else {
            Refuse(fmt::format("\"{}\" is no option; write namespace=NAME, db=NUMBER or proxy=1",
                               Escape(name)));
        }
    }
    if (url.space.empty()) { Refuse("the namespace is empty"); }
}

}  // namespace

std::string StoreUrl::Name() const {
    if (host.empty()) { return fmt::format("unix://{}", socket); }
    const bool isAddress = host.find(':') != std::string::npos;
    return fmt::format("redis://{}{}{}:{}", isAddress ? "[" : "", host, isAddress ? "]" : "", port);
}

StoreUrl ParseStoreUrl(const std::string& text) {
    StoreUrl url;
    std::string_view rest = text;
    if (rest.find("://") == std::string_view::npos) {
        Refuse("it must begin with redis:// or unix://");
    }
    const std::string_view scheme = TakeUpTo(rest, "://");
    if (scheme == "rediss") {
        Refuse(
            "this build has no TLS, since its hiredis is older than 1.0; run stunnel or \"ssh -L\" "
            "on this machine, and give redis:// with its port or unix:// with its socket");
    }
    if (scheme != "redis" && scheme != "unix") { Refuse("it must begin with redis:// or unix://"); }
    std::string_view place = TakeUpTo(rest, "?");
    const std::size_t at = place.substr(0, place.find('/')).rfind('@');
    if (at != std::string_view::npos) {
        ReadUser(place.substr(0, at), url);
        place.remove_prefix(at + 1);
    }
    if (scheme == "unix") {
        if (!place.starts_with('/')) {
            Refuse("unix:// takes an absolute path: unix:///run/redis");
        }
        url.socket = Decode(place);
    } else {
        ReadHost(TakeUpTo(place, "/"), url);
        if (!place.empty()) { url.database = ReadNumber<std::uint32_t>(place, "database"); }
    }
    ReadOptions(rest, url);
    if (url.isProxy && url.database != 0) { Refuse("a proxy has only database 0"); }
    return url;
}

}  // namespace Quorvel::Tool
