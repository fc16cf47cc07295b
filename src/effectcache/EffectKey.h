#pragma once

#include <cstddef>
#include <cstring>
#include <utility>
#include <vector>

#include "vornutil/CStr.h"

namespace Quorvel {

// The bytes of an effect's name, owned by somebody else.
struct EffectKeyView {
    EffectKeyView(const unsigned char* name, std::size_t size) : bytes(name), length(size) {}
    explicit EffectKeyView(const CStr& name)
        : bytes(reinterpret_cast<const unsigned char*>(name.data())), length(name.Length()) {}
    explicit EffectKeyView(const std::vector<unsigned char>& name)
        : bytes(name.data()), length(name.size()) {}

    const unsigned char* bytes;
    std::size_t length;
};

// The bytes of an effect's name.
struct EffectKey {
    explicit EffectKey(const EffectKeyView& view) : bytes(view.bytes, view.bytes + view.length) {}
    explicit EffectKey(std::vector<unsigned char> name) : bytes(std::move(name)) {}

    std::vector<unsigned char> bytes;
};

// The order of keys: a shorter one first, those of equal length by unsigned bytes. It is the order
// of the listing and of the records in the file.
struct EffectKeyOrder {
    using is_transparent = void;

    static EffectKeyView View(const EffectKeyView& key) { return key; }
    static EffectKeyView View(const EffectKey& key) { return EffectKeyView(key.bytes); }

    template <typename Left, typename Right>
    bool operator()(const Left& left, const Right& right) const {
        const EffectKeyView a = View(left);
        const EffectKeyView b = View(right);
        if (a.length != b.length) {
            return a.length < b.length;
        }
        return a.length != 0 && std::memcmp(a.bytes, b.bytes, a.length) < 0;
    }
};

}  // namespace Quorvel
