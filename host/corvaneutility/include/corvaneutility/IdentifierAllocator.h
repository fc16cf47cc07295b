#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Corvane {

// Allocates small identifiers, the lowest free one first, starting at 0. Apart from growing, every
// operation takes O(log n) time in the highest identifier.
//
// Each identifier has a bit, 64 to a word. Above the words is a binary tree whose nodes count the
// identifiers allocated below them: node 1 is the root, nodes 2k and 2k + 1 are the children of
// node k, and the leaves are the words in order.
class IdentifierAllocator {
public:
    static constexpr std::uint64_t kHighestIdentifier = 0xFFFFFF;
    static constexpr std::uint64_t kNoIdentifier = ~std::uint64_t{0};

    // Allocates the lowest free identifier. Returns kNoIdentifier when all up to kHighestIdentifier
    // are taken. Throws std::bad_alloc, with nothing changed.
    std::uint64_t Allocate() {
        if (allocated_ == Capacity()) {
            if (Capacity() > kHighestIdentifier) { return kNoIdentifier; }
            Grow(allocated_);
        }
        std::size_t node = 1;
        std::uint64_t below = Capacity();
        while (node < words_.size()) {
            below /= 2;
            node *= 2;
            if (counts_[node] == below) { ++node; }
        }
        const std::size_t word = node - words_.size();
        const auto bit = static_cast<unsigned>(std::countr_one(words_[word]));
        Set(word, bit);
        return word * kWordBits + bit;
    }

    // Frees an allocated identifier. Returns false if it was free.
    bool Free(std::uint64_t identifier) {
        if (!IsAllocated(identifier)) { return false; }
        const std::size_t word = identifier / kWordBits;
        words_[word] &= ~(std::uint64_t{1} << (identifier % kWordBits));
        for (std::size_t node = word + words_.size(); node > 0; node /= 2) {
            --counts_[node];
        }
        --allocated_;
        return true;
    }

    // Frees every identifier.
    void Clear() {
        words_.clear();
        counts_.clear();
        allocated_ = 0;
    }

    void Swap(IdentifierAllocator& other) noexcept {
        words_.swap(other.words_);
        counts_.swap(other.counts_);
        const std::uint64_t allocated = allocated_;
        allocated_ = other.allocated_;
        other.allocated_ = allocated;
    }

    bool IsAllocated(std::uint64_t identifier) const {
        return identifier < Capacity() &&
               (words_[identifier / kWordBits] >> (identifier % kWordBits) & 1) != 0;
    }

    // Allocates the given identifier. Returns false if it is already allocated or above
    // kHighestIdentifier. Throws std::bad_alloc. Changes nothing when it fails.
    bool MarkAllocated(std::uint64_t identifier) {
        if (identifier > kHighestIdentifier || IsAllocated(identifier)) { return false; }
        if (identifier >= Capacity()) { Grow(identifier); }
        Set(identifier / kWordBits, static_cast<unsigned>(identifier % kWordBits));
        return true;
    }

    std::uint64_t GetNumberOfAllocatedIdentifiers() const { return allocated_; }

    // The index-th allocated identifier in ascending order, or kNoIdentifier when index is not
    // below the number of allocated identifiers.
    std::uint64_t GetAllocatedIdentifier(std::uint64_t index) const {
        if (index >= allocated_) { return kNoIdentifier; }
        std::size_t node = 1;
        while (node < words_.size()) {
            node *= 2;
            if (index >= counts_[node]) {
                index -= counts_[node];
                ++node;
            }
        }
        const std::size_t word = node - words_.size();
        std::uint64_t bits = words_[word];
        for (; index > 0; --index) {
            bits &= bits - 1;
        }
        return word * kWordBits + static_cast<unsigned>(std::countr_zero(bits));
    }

private:
    static constexpr std::uint64_t kWordBits = 64;

    std::uint64_t Capacity() const { return words_.size() * kWordBits; }

    void Set(std::size_t word, unsigned bit) {
        words_[word] |= std::uint64_t{1} << bit;
        for (std::size_t node = word + words_.size(); node > 0; node /= 2) {
            ++counts_[node];
        }
        ++allocated_;
    }

    // Makes room for the given identifier; the number of words stays a power of two.
    void Grow(std::uint64_t identifier) {
        const std::size_t words =
            std::bit_ceil(static_cast<std::size_t>(identifier / kWordBits + 1));
        std::vector<std::uint32_t> counts(2 * words);
        words_.resize(words);
        for (std::size_t word = 0; word < words; ++word) {
            counts[words + word] = static_cast<std::uint32_t>(std::popcount(words_[word]));
        }
        for (std::size_t node = words - 1; node > 0; --node) {
            counts[node] = counts[2 * node] + counts[2 * node + 1];
        }
        counts_.swap(counts);
    }

    std::vector<std::uint64_t> words_;
    std::vector<std::uint32_t> counts_;
    std::uint64_t allocated_ = 0;
};

}  // namespace Corvane
