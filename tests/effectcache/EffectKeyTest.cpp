#include "effectcache/EffectKey.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

namespace Quorvel {

namespace {

EffectKey Key(const std::string& name) {
    return {reinterpret_cast<const unsigned char*>(name.data()), name.size()};
}

bool IsBefore(const std::string& left, const std::string& right) {
    return Key(left) < Key(right);
}

TEST(EffectKey, ShorterSortsBeforeLonger) {
    EXPECT_TRUE(IsBefore("z", "aa"));
    EXPECT_FALSE(IsBefore("aa", "z"));
    EXPECT_TRUE(IsBefore("\xFF", std::string(2, '\0')));
}

TEST(EffectKey, EqualLengthSortsByBytes) {
    EXPECT_TRUE(IsBefore("aab", "aba"));
    EXPECT_FALSE(IsBefore("aba", "aab"));
    EXPECT_TRUE(IsBefore("Z", "a"));
}

TEST(EffectKey, BytesAreUnsigned) {
    EXPECT_TRUE(IsBefore("\x7F", "\x80"));
    EXPECT_FALSE(IsBefore("\x80", "\x7F"));
    EXPECT_TRUE(IsBefore("\x80", "\xFF"));
}

TEST(EffectKey, EqualBytesAreTheSameKey) {
    const std::string name = "same";
    const std::string copy = name;
    EXPECT_FALSE(IsBefore(name, copy));
    EXPECT_TRUE(Key(name) == Key(copy));
    EXPECT_EQ(Key(name).Hash(), Key(copy).Hash());
    EXPECT_FALSE(IsBefore("", ""));
    EXPECT_TRUE(Key("") == Key(""));
}

TEST(EffectKey, OtherBytesOrLengthMakeAnotherKey) {
    const std::string name = "same";
    EXPECT_FALSE(Key(name) == Key("some"));
    EXPECT_FALSE(Key(name) == Key("sam"));
    EXPECT_NE(Key(name).Hash(), Key("some").Hash());
}

// Names that differ in one byte, at any position and length, have different hashes. The low bits,
// which choose the slot, collide no more often than chance.
TEST(EffectKey, SimilarNamesHaveDifferentHashes) {
    for (const std::size_t length : {1u, 7u, 8u, 15u, 16u, 17u, 31u, 32u, 33u, 89u}) {
        std::set<std::uint32_t> hashes;
        std::set<std::uint32_t> slots;
        std::size_t names = 0;
        for (std::size_t place = 0; place < length; ++place) {
            for (char byte = 'a'; byte < 'q'; ++byte) {
                std::string name(length, 'A');
                name[place] = byte;
                hashes.insert(Key(name).Hash());
                slots.insert(Key(name).Hash() & 0xFFFF);
                ++names;
            }
        }
        EXPECT_EQ(hashes.size(), names) << length;
        EXPECT_GE(slots.size(), names * 97 / 100) << length;
    }
}

TEST(EffectKey, HashDependsOnTheNumberOfZeroBytes) {
    std::set<std::uint32_t> hashes;
    for (std::size_t length = 0; length < 100; ++length) {
        hashes.insert(Key(std::string(length, '\0')).Hash());
    }
    EXPECT_EQ(hashes.size(), 100u);
    EXPECT_EQ(hashes.count(0), 0u);
}

TEST(EffectKey, BytesAfterAZeroByteCount) {
    const std::string left("a\0b", 3);
    const std::string right("a\0c", 3);
    EXPECT_TRUE(IsBefore(left, right));
    EXPECT_FALSE(IsBefore(right, left));
}

TEST(EffectKey, EmptySortsFirst) {
    EXPECT_TRUE(IsBefore("", std::string(1, '\0')));
    EXPECT_FALSE(IsBefore(std::string(1, '\0'), ""));
}

TEST(EffectKey, HasTheBytesOfTheNameWithoutTerminator) {
    const CStr name("a\0\xFE", 3);
    EXPECT_TRUE(EffectKey(name) == Key(std::string("a\0\xFE", 3)));
}

}  // namespace

}  // namespace Quorvel
