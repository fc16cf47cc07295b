#include "tools/quorvel/StoreValue.h"

#include <fmt/format.h>
#include <zstd.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <ctime>
#include <new>
#include <tuple>

#include "effectcache/EffectRecord.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {

static_assert(kLargestValue == kLongestName + kLargestEffect + kFooterSize);

namespace {

constexpr std::string_view kMagic("QVFX\1", 5);
constexpr std::uint8_t kPermanent = 1;
constexpr std::uint8_t kCompressed = 2;

// The end of the year 9999.
constexpr std::int64_t kLatestTime = 253402300799999;

// Effects of at least this size are compressed, at this level, if that saves an eighth.
constexpr int kLevel = 1;
constexpr std::size_t kSmallestCompressed = 128;

// The offsets in the footer.
enum Field : std::size_t {
    kFlags = 5,
    kTime = 8,
    kSize = 16,
    kNameLength = 20,
    kPayloadLength = 24,
    kDataChecksum = 32,
    kChecksum = 48
};

template <typename Number>
void Store(char* at, Number number) {
    for (std::size_t i = 0; i < sizeof number; ++i) {
        at[i] = static_cast<char>(static_cast<std::uint64_t>(number) >> (8 * i));
    }
}

template <typename Number>
Number Load(std::string_view text, std::size_t at) {
    std::uint64_t number = 0;
    for (std::size_t i = 0; i < sizeof(Number); ++i) {
        number |= static_cast<std::uint64_t>(static_cast<unsigned char>(text[at + i])) << (8 * i);
    }
    return static_cast<Number>(number);
}

void Store(char* at, const Checksum& checksum) {
    Store(at, checksum.low);
    Store(at + sizeof checksum.low, checksum.high);
}

Checksum LoadChecksum(std::string_view text, std::size_t at) {
    return {Load<std::uint64_t>(text, at + 8), Load<std::uint64_t>(text, at)};
}

}  // namespace

std::int64_t ToStoreTime(const Format::EntryTime& time) {
    // The system checks for a changed time zone in every conversion, which takes 2 us. So the
    // beginning of the last hour is remembered; the offset from UTC is the same for a whole hour.
    thread_local Format::EntryTime hour;
    thread_local std::int64_t begin = 0;
    const auto key = [](const Format::EntryTime& one) {
        return std::tuple(one.year, one.month, one.day, one.hour);
    };
    if (key(time) != key(hour)) {
        hour = time;
        hour.minute = hour.second = 0;
        begin = ToUnixTime(hour);
    }
    const std::int64_t seconds = begin + time.minute * 60 + time.second;
    return seconds < 0 ? 0 : std::min(seconds * 1000 + time.millisecond % 1000, kLatestTime);
}

Format::EntryTime FromStoreTime(std::int64_t time) {
    return FromUnixTime(time / 1000, static_cast<std::uint32_t>(time % 1000));
}

// ---- Keys ---------------------------------------------------------------------------------------

StoreSpace::StoreSpace(const std::string& name)
    : name_(name),
      prefix_(fmt::format("quorvel:1:{:016x}", ChecksumOf(name.data(), name.size()).low)) {}

Checksum StoreSpace::KeyOf(std::string_view effectName) const {
    std::string text = name_;
    text += '\0';
    text += effectName;
    return ChecksumOf(text.data(), text.size());
}

std::optional<Checksum> StoreSpace::ReadKey(std::string_view text) const {
    constexpr std::size_t kDigits = 16;
    if (text.size() != prefix_.size() + 1 + 2 * kDigits || !text.starts_with(prefix_)) {
        return std::nullopt;
    }
    Checksum key;
    const char* const digits = text.data() + prefix_.size() + 1;
    std::from_chars(digits, digits + kDigits, key.high, 16);
    std::from_chars(digits + kDigits, digits + 2 * kDigits, key.low, 16);
    return Name(key) == text ? std::optional(key) : std::nullopt;
}

// ---- Values -------------------------------------------------------------------------------------

std::optional<StoreFooter> ReadFooter(std::string_view value) {
    if (value.size() < kFooterSize) { return std::nullopt; }
    const std::string_view footer = value.substr(value.size() - kFooterSize);
    if (!footer.starts_with(kMagic)) { return std::nullopt; }
    const auto flags = Load<std::uint8_t>(footer, kFlags);
    StoreFooter result;
    result.permanent = (flags & kPermanent) != 0;
    result.isCompressed = (flags & kCompressed) != 0;
    result.time = Load<std::int64_t>(footer, kTime);
    result.size = Load<std::uint32_t>(footer, kSize);
    result.nameLength = Load<std::uint32_t>(footer, kNameLength);
    result.payloadLength = Load<std::uint32_t>(footer, kPayloadLength);
    result.data = LoadChecksum(footer, kDataChecksum);
    const bool isPlausible =
        result.time >= 0 && result.time <= kLatestTime && result.size >= kSmallestEffect &&
        result.size <= kLargestEffect && result.nameLength >= kShortestName &&
        result.nameLength <= kLongestName && result.payloadLength <= result.size &&
        (result.isCompressed || result.payloadLength == result.size);
    return isPlausible ? std::optional(result) : std::nullopt;
}

struct ValueCodec::State {
    struct Free {
        void operator()(ZSTD_CCtx* context) const { ZSTD_freeCCtx(context); }
        void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
    };
    std::unique_ptr<ZSTD_CCtx, Free> packer{ZSTD_createCCtx()};
    std::unique_ptr<ZSTD_DCtx, Free> unpacker{ZSTD_createDCtx()};
};

ValueCodec::ValueCodec() : state_(std::make_unique<State>()) {
    if (!state_->packer || !state_->unpacker) { throw std::bad_alloc(); }
}

ValueCodec::~ValueCodec() = default;

std::string ValueCodec::Encode(const EffectBytes& effect, const Checksum& checksum) {
    const auto& [name, record] = effect.entry;
    const std::size_t size = effect.data.size();
    std::string value(name.size() + size + kFooterSize, '\0');
    std::memcpy(value.data(), name.data(), name.size());
    char* const payload = value.data() + name.size();
    std::size_t length = size;
    if (size >= kSmallestCompressed) {
        // Fails if the result does not fit.
        length = ZSTD_compressCCtx(state_->packer.get(), payload, size - size / 8,
                                   effect.data.data(), size, kLevel);
    }
    const bool isCompressed = size >= kSmallestCompressed && ZSTD_isError(length) == 0;
    if (!isCompressed) {
        length = size;
        std::memcpy(payload, effect.data.data(), size);
    }
    value.resize(name.size() + length + kFooterSize);
    char* const footer = value.data() + name.size() + length;
    std::memset(footer, 0, kFooterSize);
    std::memcpy(footer, kMagic.data(), kMagic.size());
    footer[kFlags] = static_cast<char>((record.permanent != 0 ? kPermanent : 0) |
                                       (isCompressed ? kCompressed : 0));
    Store(footer + kTime, ToStoreTime(record.time));
    Store(footer + kSize, static_cast<std::uint32_t>(size));
    Store(footer + kNameLength, static_cast<std::uint32_t>(name.size()));
    Store(footer + kPayloadLength, static_cast<std::uint32_t>(length));
    Store(footer + kDataChecksum, checksum);
    Store(footer + kChecksum, ChecksumOf(value.data(), value.size() - (kFooterSize - kChecksum)));
    return value;
}

std::optional<EffectBytes> ValueCodec::Decode(const StoreSpace& space, const Checksum& key,
                                              std::string_view value) {
    const std::optional<StoreFooter> footer = ReadFooter(value);
    if (!footer ||
        value.size() != std::size_t{footer->nameLength} + footer->payloadLength + kFooterSize) {
        return std::nullopt;
    }
    const std::size_t checked = value.size() - (kFooterSize - kChecksum);
    if (LoadChecksum(value, checked) != ChecksumOf(value.data(), checked)) { return std::nullopt; }
    EffectBytes effect;
    effect.entry.name = value.substr(0, footer->nameLength);
    if (space.KeyOf(effect.entry.name) != key) { return std::nullopt; }
    const std::string_view payload = value.substr(footer->nameLength, footer->payloadLength);
    if (footer->isCompressed) {
        effect.data.resize(footer->size);
        if (ZSTD_decompressDCtx(state_->unpacker.get(), effect.data.data(), effect.data.size(),
                                payload.data(), payload.size()) != footer->size) {
            return std::nullopt;
        }
    } else {
        effect.data.assign(payload.begin(), payload.end());
    }
    if (ChecksumOf(effect.data.data(), effect.data.size()) != footer->data) { return std::nullopt; }
    effect.entry.record.nameLength = footer->nameLength;
    effect.entry.record.size = footer->size;
    effect.entry.record.permanent = footer->permanent ? 1 : 0;
    effect.entry.record.time = FromStoreTime(footer->time);
    return effect;
}

}  // namespace Quorvel::Tool
