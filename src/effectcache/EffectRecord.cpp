#include "effectcache/EffectRecord.h"

#include <array>
#include <cstdint>

#include "platform/Clock.h"

namespace Quorvel {

EntryTime CurrentEntryTime() noexcept {
    const Platform::LocalTime now = Platform::CurrentLocalTime();
    return {now.year, now.month, now.day, now.hour, now.minute, now.second, now.milliseconds};
}

bool IsEarlier(const EntryTime& left, const EntryTime& right) noexcept {
    const auto fields = [](const EntryTime& time) {
        return std::array<std::uint32_t, 7>{time.year,   time.month,  time.day,         time.hour,
                                            time.minute, time.second, time.milliseconds};
    };
    return fields(left) < fields(right);
}

}  // namespace Quorvel
