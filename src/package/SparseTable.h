#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/Assert.h"

namespace Quorvel {

// Records by id, for ids that are mostly small and close together. Records are kept in chunks of
// sixteen that are allocated when first needed, so that a lone high id takes little memory. A
// record keeps its address until it is erased.
template <typename Record>
class SparseTable {
public:
    // The record of an id; null when there is none.
    const Record* Find(std::uint64_t id) const {
        const Chunk* const chunk = ChunkOf(id);
        return chunk && chunk->Has(id) ? &chunk->records[id % kChunkSize] : nullptr;
    }
    Record* Find(std::uint64_t id) { return const_cast<Record*>(std::as_const(*this).Find(id)); }

    // Stores a record, replacing the one that the id had. Throws std::bad_alloc or, for an id too
    // high for a vector, std::length_error, changing nothing.
    void Put(std::uint64_t id, const Record& record) {
        if (id / kChunkSize >= chunks_.size()) { chunks_.resize(id / kChunkSize + 1); }
        std::unique_ptr<Chunk>& chunk = chunks_[id / kChunkSize];
        if (!chunk) {
            chunk.reset(new Chunk);  // leaves its records uninitialised
        }
        count_ += chunk->Has(id) ? 0 : 1;
        chunk->present |= Chunk::Bit(id);
        chunk->records[id % kChunkSize] = record;
    }

    // REQUIRES: the id has a record.
    void Erase(std::uint64_t id) {
        QUORVEL_ASSERT(Find(id));
        chunks_[id / kChunkSize]->present &= static_cast<std::uint16_t>(~Chunk::Bit(id));
        --count_;
    }

    void Clear() {
        chunks_.clear();
        count_ = 0;
    }

    std::uint64_t Count() const { return count_; }

    // Visits every record, in ascending order of ids.
    template <typename Visitor>
    void ForEach(const Visitor& visit) const {
        for (const std::unique_ptr<Chunk>& chunk : chunks_) {
            for (unsigned left = chunk ? chunk->present : 0; left != 0; left &= left - 1) {
                visit(chunk->records[std::countr_zero(left)]);
            }
        }
    }

private:
    static_assert(std::is_trivially_copyable_v<Record>);
    static constexpr std::uint64_t kChunkSize = 16;

    struct Chunk {
        static std::uint16_t Bit(std::uint64_t id) {
            return static_cast<std::uint16_t>(1U << id % kChunkSize);
        }
        bool Has(std::uint64_t id) const { return (present & Bit(id)) != 0; }

        std::uint16_t present = 0;  // a bit for each record
        Record records[kChunkSize];
    };

    const Chunk* ChunkOf(std::uint64_t id) const {
        return id / kChunkSize < chunks_.size() ? chunks_[id / kChunkSize].get() : nullptr;
    }

    std::vector<std::unique_ptr<Chunk>> chunks_;
    std::uint64_t count_ = 0;
};

}  // namespace Quorvel
