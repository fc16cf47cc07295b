#include "effectcache/EffectKey.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace Quorvel {

namespace {

EffectKey Key(const std::string& name) {
    return EffectKey(std::vector<unsigned char>(name.begin(), name.end()));
}

bool IsBefore(const std::string& left, const std::string& right) {
    return EffectKeyOrder{}(Key(left), Key(right));
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
    EXPECT_FALSE(IsBefore("same", "same"));
    EXPECT_FALSE(IsBefore("", ""));
}

TEST(EffectKey, ZeroBytesCount) {
    const std::string left("a\0b", 3);
    const std::string right("a\0c", 3);
    EXPECT_TRUE(IsBefore(left, right));
    EXPECT_FALSE(IsBefore(right, left));
}

TEST(EffectKey, EmptySortsFirst) {
    EXPECT_TRUE(IsBefore("", std::string(1, '\0')));
    EXPECT_FALSE(IsBefore(std::string(1, '\0'), ""));
}

TEST(EffectKey, HoldsTheBytesOfTheNameWithoutTerminator) {
    const CStr name("a\0\xFE", 3);
    EXPECT_EQ(EffectKey(EffectKeyView(name)).bytes, (std::vector<unsigned char>{'a', 0, 0xFE}));
}

TEST(EffectKey, IsFoundByAViewOfItsName) {
    std::map<EffectKey, int, EffectKeyOrder> table;
    table.emplace(Key("one"), 1);
    table.emplace(Key("seven"), 7);
    EXPECT_EQ(table.find(EffectKeyView(CStr("seven")))->second, 7);
    EXPECT_EQ(table.find(EffectKeyView(CStr("eleven"))), table.end());
}

}  // namespace

}  // namespace Quorvel
