#include "effectcache/EffectKey.h"

#include <gtest/gtest.h>

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

TEST(EffectKey, OtherBytesOrAnotherLengthAreAnotherKey) {
    const std::string name = "same";
    EXPECT_FALSE(Key(name) == Key("some"));
    EXPECT_FALSE(Key(name) == Key("sam"));
    EXPECT_NE(Key(name).Hash(), Key("some").Hash());
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

TEST(EffectKey, HasTheBytesOfTheNameWithoutTerminator) {
    const CStr name("a\0\xFE", 3);
    EXPECT_TRUE(EffectKey(name) == Key(std::string("a\0\xFE", 3)));
}

}  // namespace

}  // namespace Quorvel
