#include "Processes.h"

#include <utility>

namespace EffectHost {

namespace {

constexpr std::size_t kBufferSize = 4096;

}  // namespace

void ChildProcess::StopAndWait() {
    RequestStop();
    ReadOutput();
    Wait();
}

std::optional<std::string> ChildProcess::ReadLine() {
    std::size_t end;
    while ((end = unread_.find('\n')) == unread_.npos) {
        char buffer[kBufferSize];
        const std::size_t count = Read(buffer, sizeof(buffer));
        if (count == 0) {
            return unread_.empty() ? std::nullopt : std::optional(std::exchange(unread_, {}));
        }
        unread_.append(buffer, count);
    }
    std::string line = unread_.substr(0, end);
    unread_.erase(0, end + 1);
    if (line.ends_with('\r')) { line.pop_back(); }
    return line;
}

std::string ChildProcess::ReadOutput() {
    std::string text = std::exchange(unread_, {});
    char buffer[kBufferSize];
    while (const std::size_t count = Read(buffer, sizeof(buffer))) {
        text.append(buffer, count);
    }
    return text;
}

}  // namespace EffectHost
