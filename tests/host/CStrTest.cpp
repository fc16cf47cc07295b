#include "vornutil/CStr.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

TEST(CStr, IsEmptyAtFirst) {
    const CStr text;
    EXPECT_EQ(text.Length(), 0U);
    EXPECT_STREQ(text.data(), "");
}

TEST(CStr, TakesTextUpToItsNul) {
    const CStr text("name");
    EXPECT_EQ(text.Length(), 4U);
    EXPECT_STREQ(text.data(), "name");
}

TEST(CStr, TreatsANullPointerAsNoText) {
    const CStr text(nullptr);
    EXPECT_EQ(text.Length(), 0U);
    EXPECT_STREQ(text.data(), "");
}

TEST(CStr, HoldsAnyBytesOfAGivenLengthFollowedByANul) {
    const CStr text("a\0b\xFF", 4);
    EXPECT_EQ(text.Length(), 4U);
    EXPECT_EQ(std::memcmp(text.data(), "a\0b\xFF", 5), 0);
}

TEST(CStr, CopiesItsBytes) {
    char bytes[] = "one";
    const CStr text(bytes);
    CStr copy(text);
    bytes[0] = 'x';
    copy[0] = 'y';
    EXPECT_EQ(text, CStr("one"));
    EXPECT_EQ(copy, CStr("yne"));
}

TEST(CStr, ReadsAndWritesBytesByIndex) {
    CStr text("abc");
    text[1] = 'x';
    const CStr& constant = text;
    EXPECT_EQ(constant[0], 'a');
    EXPECT_EQ(constant[1], 'x');
    EXPECT_EQ(text[2], 'c');
}

TEST(CStr, Concatenates) {
    CStr text("cache");
    const CStr longer = text + "/" + CStr("file\0x", 6);
    EXPECT_EQ(longer, CStr("cache/file\0x", 12));
    EXPECT_EQ(text, CStr("cache"));
    text += ".dat";
    EXPECT_EQ(text, CStr("cache.dat"));
    text += text;
    EXPECT_EQ(text, CStr("cache.datcache.dat"));
}

TEST(CStr, IsEqualToTheSameBytesOfTheSameLength) {
    EXPECT_TRUE(CStr("a\0b", 3) == CStr("a\0b", 3));
    EXPECT_FALSE(CStr("a\0b", 3) == CStr("a\0c", 3));
    EXPECT_FALSE(CStr("a\0b", 3) == CStr("a"));
    EXPECT_FALSE(CStr("a") == CStr("A"));
    EXPECT_TRUE(CStr("a") != CStr("b"));
    EXPECT_FALSE(CStr("a") != CStr("a"));
    EXPECT_TRUE(CStr() == CStr(""));
}

}  // namespace
