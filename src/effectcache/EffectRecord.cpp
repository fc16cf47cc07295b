#include "effectcache/EffectRecord.h"

#include <tuple>

#include "platform/Clock.h"

namespace Quorvel {

EntryTime CurrentEntryTime() noexcept {
    const Platform::LocalTime now = Platform::CurrentLocalTime();
    return {now.year, now.month, now.day, now.hour, now.minute, now.second, now.milliseconds};
}

bool IsEarlier(const EntryTime& left, const EntryTime& right) noexcept {
    const auto fields = [](const EntryTime& time) {
        return std::make_tuple(time.year, time.month, time.day, time.hour, time.minute, time.second,
                               time.milliseconds);
    };
    return fields(left) < fields(right);
}

}  // namespace Quorvel
