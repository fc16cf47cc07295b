#include "Pattern.h"

#include <gtest/gtest.h>

namespace EffectHost {
namespace {

TEST(Pattern, WithoutWildcardsMatchesOnlyItself) {
    EXPECT_TRUE(MatchesPattern("sky", "sky"));
    EXPECT_FALSE(MatchesPattern("sky", "skyline"));
    EXPECT_FALSE(MatchesPattern("sky", "sk"));
    EXPECT_TRUE(MatchesPattern("", ""));
    EXPECT_FALSE(MatchesPattern("", "sky"));
}

TEST(Pattern, AQuestionMarkMatchesOneCharacter) {
    EXPECT_TRUE(MatchesPattern("s?y", "sky"));
    EXPECT_FALSE(MatchesPattern("s?y", "sy"));
    EXPECT_FALSE(MatchesPattern("sky?", "sky"));
}

TEST(Pattern, AStarMatchesAnyRunOfCharacters) {
    EXPECT_TRUE(MatchesPattern("*", ""));
    EXPECT_TRUE(MatchesPattern("sky*", "sky"));
    EXPECT_TRUE(MatchesPattern("*PixelMain*FOG=1*", "lighting.hlsl:PixelMain:ps_4_0:A=0,FOG=1:x"));
    EXPECT_FALSE(MatchesPattern("*PixelMain*FOG=1*", "lighting.hlsl:VertexMain:ps_4_0:FOG=1"));
    EXPECT_FALSE(MatchesPattern("sky*", "blue sky"));
}

TEST(Pattern, AStarMatchesMoreIfTheRestAppearsAgainLater) {
    EXPECT_TRUE(MatchesPattern("*ab", "aab"));
    EXPECT_TRUE(MatchesPattern("*a*b?c", "xaabxbyc"));
    EXPECT_FALSE(MatchesPattern("*ab", "aba"));
}

}  // namespace
}  // namespace EffectHost
