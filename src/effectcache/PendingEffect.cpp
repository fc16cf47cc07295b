#include "effectcache/PendingEffect.h"

#include <cstring>
#include <new>

namespace Quorvel {

EffectTable<PendingEffect>::Owner PendingEffect::Make(const EffectKey& key,
                                                      std::span<const unsigned char> bytes,
                                                      std::uint32_t permanent) {
    void* const memory = ::operator new(sizeof(PendingEffect) + key.length + bytes.size());
    EffectTable<PendingEffect>::Owner effect(
        ::new (memory) PendingEffect(static_cast<std::uint32_t>(bytes.size()),
                                     static_cast<std::uint32_t>(key.length), permanent));
    auto* const behind = static_cast<unsigned char*>(memory) + sizeof(PendingEffect);
    std::memcpy(behind, key.bytes, key.length);
    std::memcpy(behind + key.length, bytes.data(), bytes.size());
    return effect;
}

void PendingEffect::Free(PendingEffect* effect) noexcept {
    ::operator delete(effect);
}

}  // namespace Quorvel
