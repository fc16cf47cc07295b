#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "pagestore/ChildFileStream.h"
#include "platform/Assert.h"

namespace Quorvel {

// The streams of a package that are open, in ascending order of ids. Usually there are few, so they
// are kept in a vector, which needs no memory of its own for each of them.
class OpenStreams {
public:
    struct Item {
        std::uint64_t id;
        ChildFileStream* stream;  // not owned
    };

    bool IsEmpty() const { return items_.empty(); }

    // The stream of an id; null when it is not open.
    ChildFileStream* Find(std::uint64_t id) const {
        const auto place = PlaceOf(id);
        return IsOf(id, place) ? place->stream : nullptr;
    }

    // REQUIRES: no stream of that id is open. Throws std::bad_alloc, changing nothing.
    void Add(std::uint64_t id, ChildFileStream* stream) {
        QUORVEL_ASSERT(!Find(id));
        items_.insert(PlaceOf(id), {id, stream});
    }

    // Does nothing if no stream of that id is open.
    void Remove(std::uint64_t id) noexcept {
        if (const auto place = PlaceOf(id); IsOf(id, place)) { items_.erase(place); }
    }

    // Removes the items for which `condition` holds. It is called once for each, in order.
    template <typename Condition>
    void RemoveIf(const Condition& condition) {
        std::erase_if(items_, condition);
    }

    void Clear() { items_.clear(); }

    auto begin() const { return items_.begin(); }
    auto end() const { return items_.end(); }

private:
    using Place = std::vector<Item>::const_iterator;

    bool IsOf(std::uint64_t id, Place place) const {
        return place != items_.end() && place->id == id;
    }

    Place PlaceOf(std::uint64_t id) const {
        return std::lower_bound(items_.begin(), items_.end(), id,
                                [](const Item& item, std::uint64_t key) { return item.id < key; });
    }

    std::vector<Item> items_;
};

}  // namespace Quorvel
