#include "effectcache/PendingEffect.h"

#include <cstring>
#include <new>

namespace Quorvel {

PendingEffect* PendingEffect::Make(EffectTable<PendingEffect>& table, const EffectKey& key,
                                   std::uint32_t hash, std::span<const unsigned char> compiled,
                                   std::uint32_t permanent) {
    void* const memory = table.Allocate(sizeof(PendingEffect) + key.length + compiled.size());
    auto* const behind = static_cast<unsigned char*>(memory) + sizeof(PendingEffect);
    std::memcpy(behind, key.bytes, key.length);
    std::memcpy(behind + key.length, compiled.data(), compiled.size());
    return ::new (memory) PendingEffect(hash, static_cast<std::uint32_t>(compiled.size()),
                                        static_cast<std::uint32_t>(key.length), permanent);
}

}  // namespace Quorvel
