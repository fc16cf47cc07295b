#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tools/quorvel/Cache.h"
#include "tools/quorvel/Checksum.h"

// The form in which a store keeps an effect. All numbers are little-endian:
//
//   name     the effect's name
//   payload  the effect's bytes, as they are or as one zstd frame
//   footer   64 bytes:
//       0  "QVFX"
//       4  1    the version of the format
//       5       1 if the effect is permanent, plus 2 if the payload is compressed
//       6  0    2 bytes
//       8       the time of the last use, in milliseconds since 1970 UTC (8 bytes)
//      16       the size of the effect's bytes (4 bytes)
//      20       the length of the name (4 bytes)
//      24       the length of the payload (4 bytes)
//      28  0    4 bytes
//      32       a checksum of the effect's bytes (XXH3, 128 bits, low half first)
//      48       a checksum of everything before it
//
// The footer says which version of an effect it is, and comes last: a value that was cut short has
// none.
namespace Quorvel::Tool {

constexpr std::size_t kFooterSize = 64;

// The largest value that can hold an effect.
constexpr std::size_t kLargestValue = 0x10000 + 0x100000 + kFooterSize;

struct ChecksumHash {
    std::size_t operator()(const Checksum& checksum) const { return checksum.low; }
};

// A cache's local time in milliseconds since 1970 UTC; 0 if it is earlier than that.
std::int64_t ToStoreTime(const Format::EntryTime& time);
Format::EntryTime FromStoreTime(std::int64_t time);

// What a footer says about an effect.
struct StoreFooter {
    std::int64_t time = 0;
    std::uint32_t size = 0;
    bool permanent = false;
    bool isCompressed = false;
    std::uint32_t nameLength = 0;
    std::uint32_t payloadLength = 0;
    Checksum data;
};

// The footer at the end of a value, or of its last bytes; nothing if there is none.
std::optional<StoreFooter> ReadFooter(std::string_view value);

// Names of keys: a checksum of namespace and name.
class StoreSpace {
public:
    explicit StoreSpace(const std::string& name);

    Checksum KeyOf(std::string_view effectName) const;

    // "quorvel:1:" and a checksum of the namespace. The name of a key goes on with a colon and the
    // checksum.
    const std::string& Prefix() const { return prefix_; }
    std::string Name(const Checksum& key) const { return prefix_ + ':' + key.Text(); }

    // The reverse of Name; nothing if the text is not the name of a key.
    std::optional<Checksum> ReadKey(std::string_view text) const;

private:
    std::string name_;
    std::string prefix_;
};

// Packs and unpacks the values of a store.
class ValueCodec {
public:
    ValueCodec();
    ~ValueCodec();

    // The value of an effect; `checksum` is that of its bytes.
    std::string Encode(const EffectBytes& effect, const Checksum& checksum);

    // The effect that a store has under a key. Nothing if the value is not whole, or belongs to
    // another key.
    std::optional<EffectBytes> Decode(const StoreSpace& space, const Checksum& key,
                                      std::string_view value);

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace Quorvel::Tool
