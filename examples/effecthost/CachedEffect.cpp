#include "CachedEffect.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "Checksum.h"

namespace EffectHost {

namespace {

static_assert(std::endian::native == std::endian::little);

constexpr std::uint32_t kMagic = 0x58464551;  // "QEFX"
constexpr std::uint16_t kVersion = 2;

#pragma pack(push, 1)
struct BlockHeader {
    std::uint32_t magic;
    std::uint16_t version;
    std::uint16_t permanent;
    std::uint64_t compileMicroseconds;
    std::uint64_t byteCount;
    std::uint64_t checksum;  // over the fields above, the effect's name and the bytes
};
#pragma pack(pop)
static_assert(sizeof(BlockHeader) == 32);
static_assert(offsetof(BlockHeader, checksum) == 24);

std::uint64_t ChecksumOf(const BlockHeader& header, std::string_view name,
                         const unsigned char* bytes, std::size_t size) {
    Checksum checksum;
    checksum.Add(&header, offsetof(BlockHeader, checksum)).Add(name).Add(bytes, size);
    return checksum.Value();
}

}  // namespace

Bytes PackCachedEffect(std::string_view name, const CachedEffect& effect) {
    const std::uint16_t permanent = effect.permanent ? 1 : 0;
    BlockHeader header{kMagic, kVersion, permanent, effect.compileMicroseconds, effect.bytes.size(),
                       0};
    header.checksum = ChecksumOf(header, name, effect.bytes.data(), effect.bytes.size());

    Bytes block(sizeof(header) + effect.bytes.size());
    std::memcpy(block.data(), &header, sizeof(header));
    std::copy(effect.bytes.begin(), effect.bytes.end(), block.begin() + sizeof(header));
    return block;
}

std::optional<CachedEffect> UnpackCachedEffect(std::string_view name, const unsigned char* block,
                                               std::size_t size) {
    BlockHeader header;
    if (size < sizeof(header)) { return std::nullopt; }
    std::memcpy(&header, block, sizeof(header));
    const unsigned char* bytes = block + sizeof(header);
    const std::size_t byteCount = size - sizeof(header);
    if (header.magic != kMagic || header.version != kVersion || header.byteCount != byteCount ||
        header.checksum != ChecksumOf(header, name, bytes, byteCount)) {
        return std::nullopt;
    }
    return CachedEffect{header.compileMicroseconds, Bytes(bytes, bytes + byteCount),
                        header.permanent != 0};
}

}  // namespace EffectHost
