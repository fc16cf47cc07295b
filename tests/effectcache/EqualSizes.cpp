#include "effectcache/EqualSizes.h"

#include <gtest/gtest.h>

#include <ostream>

#include "effectcache/StoredCache.h"

namespace Quorvel::Testing {

namespace {

Contents MakeContents(const std::string& names, const std::string& label) {
    Contents contents;
    for (const char name : names) {
        contents[std::string(1, name)] = EffectBytes(label + ' ' + name + '.', kEqualSize);
    }
    return contents;
}

const Contents& AddedContents() {
    static const Contents contents = MakeContents("bdgh", "new");
    return contents;
}

}  // namespace

const Contents& OldContents() {
    static const Contents contents = MakeContents("abcdef", "old");
    return contents;
}

const Contents& NewContents() {
    static const Contents contents = [] {
        Contents both = AddedContents();
        both.insert(OldContents().begin(), OldContents().end());
        return both;
    }();
    return contents;
}

void WriteOldCache(const std::string& path) {
    std::vector<StoredEffect> effects;
    for (const auto& [name, bytes] : OldContents()) {
        effects.push_back({name, bytes});
    }
    WriteCache(path, effects);
}

void AddNew(CacheClient& cache) {
    for (const auto& [name, bytes] : AddedContents()) {
        cache.Add(name, bytes);
    }
}

Contents FindAll(CacheClient& cache) {
    const Contents& oldContents = OldContents();
    Contents found;
    for (const auto& [name, newBytes] : NewContents()) {
        const auto bytes = cache.Find(name);
        if (!bytes) { continue; }
        const auto old = oldContents.find(name);
        EXPECT_TRUE(*bytes == newBytes || (old != oldContents.end() && *bytes == old->second))
            << name << " has bytes that begin with "
            << std::string(bytes->begin(), bytes->begin() + 6);
        found[name] = *bytes;
    }
    return found;
}

State StateOf(CacheClient& cache) {
    const Contents found = FindAll(cache);
    if (found == OldContents()) { return State::Old; }
    if (found == NewContents()) { return State::New; }
    return found.empty() && cache.InFile() == 0 ? State::Empty : State::Other;
}

std::ostream& operator<<(std::ostream& out, State state) {
    constexpr const char* kNames[] = {"empty", "old", "new", "other"};
    return out << kNames[static_cast<int>(state)];
}

}  // namespace Quorvel::Testing
