#include "CachedEffect.h"

#include <gtest/gtest.h>

namespace EffectHost {
namespace {

constexpr std::size_t kHeaderSize = 32;

Bytes SomeBlock() {
    return PackCachedEffect("name", {1234567, {1, 2, 3, 4, 5}, true});
}

TEST(CachedEffect, UnpackingReturnsTheBytesTheCompileTimeAndWhetherItIsPermanent) {
    const Bytes block = SomeBlock();
    ASSERT_EQ(block.size(), kHeaderSize + 5);
    const auto effect = UnpackCachedEffect("name", block.data(), block.size());
    ASSERT_TRUE(effect);
    EXPECT_EQ(effect->compileMicroseconds, 1234567u);
    EXPECT_EQ(effect->bytes, (Bytes{1, 2, 3, 4, 5}));
    EXPECT_TRUE(effect->permanent);
}

TEST(CachedEffect, AnEffectWithoutBytesCanBePackedAndUnpacked) {
    const Bytes block = PackCachedEffect("name", {7, {}});
    const auto effect = UnpackCachedEffect("name", block.data(), block.size());
    ASSERT_TRUE(effect);
    EXPECT_TRUE(effect->bytes.empty());
    EXPECT_FALSE(effect->permanent);
}

TEST(CachedEffect, ABlockOfAnotherNameIsRefused) {
    const Bytes block = SomeBlock();
    EXPECT_FALSE(UnpackCachedEffect("mane", block.data(), block.size()));
}

TEST(CachedEffect, EveryFlippedBitIsDetected) {
    const Bytes intact = SomeBlock();
    for (std::size_t bit = 0; bit < intact.size() * 8; ++bit) {
        Bytes block = intact;
        block[bit / 8] = static_cast<unsigned char>(block[bit / 8] ^ (1u << bit % 8));
        EXPECT_FALSE(UnpackCachedEffect("name", block.data(), block.size())) << "bit " << bit;
    }
}

TEST(CachedEffect, ATruncatedBlockIsRefused) {
    const Bytes block = SomeBlock();
    for (std::size_t size = 0; size < block.size(); ++size) {
        EXPECT_FALSE(UnpackCachedEffect("name", block.data(), size)) << size << " bytes";
    }
}

TEST(CachedEffect, ABlockWithAnExtraByteIsRefused) {
    Bytes block = SomeBlock();
    block.push_back(0);
    EXPECT_FALSE(UnpackCachedEffect("name", block.data(), block.size()));
}

}  // namespace
}  // namespace EffectHost
