#include "tools/quorvel/Checksum.h"

#include <fmt/format.h>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace Quorvel::Tool {

namespace {

Checksum Convert(const XXH128_hash_t& hash) {
    return {hash.high64, hash.low64};
}

}  // namespace

std::string Checksum::Text() const {
    return fmt::format("{:016x}{:016x}", high, low);
}

Checksum ChecksumOf(const void* data, std::size_t size) {
    return Convert(XXH3_128bits(data, size));
}

struct ChecksumBuilder::State {
    XXH3_state_t hash;
};

ChecksumBuilder::ChecksumBuilder() : state_(std::make_unique<State>()) {
    XXH3_128bits_reset(&state_->hash);
}

ChecksumBuilder::~ChecksumBuilder() = default;

void ChecksumBuilder::Add(const void* data, std::size_t size) {
    XXH3_128bits_update(&state_->hash, data, size);
}

Checksum ChecksumBuilder::Get() const {
    return Convert(XXH3_128bits_digest(&state_->hash));
}

}  // namespace Quorvel::Tool
