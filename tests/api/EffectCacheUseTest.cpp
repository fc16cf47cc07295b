// The effect cache as a host uses it.
#include <gtest/gtest.h>
#include <quorvel/Quorvel.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "support/TemporaryDirectory.h"

namespace Quorvel::Testing {

namespace {

class EffectCacheUse : public ::testing::Test {
protected:
    Util::RefPtr<EffectCacheSystem> OpenCache() const {
        return new EffectCacheSystem(directory_.Path().string().c_str());
    }

    static void Cache(EffectCacheSystem& cache, const char* name, const std::string& code,
                      bool permanent = false) {
        cache.CacheCompiledEffect(name, reinterpret_cast<const unsigned char*>(code.data()),
                                  code.size(), permanent);
    }

    // The code of an effect; empty if the cache does not have it.
    static std::string Search(EffectCacheSystem& cache, const char* name) {
        Tab<unsigned char> data;
        return cache.SearchCachedEffects(name, data)
                   ? std::string(data.Addr(0), data.Addr(0) + data.Count())
                   : std::string();
    }

    TemporaryDirectory directory_;
};

}  // namespace

TEST_F(EffectCacheUse, FindsOnlyWhatWasCached) {
    const auto cache = OpenCache();
    EXPECT_TRUE(cache->IsEnabled());
    EXPECT_EQ(Search(*cache, "bloom"), "");
    Cache(*cache, "bloom", "code of bloom");
    EXPECT_EQ(Search(*cache, "bloom"), "code of bloom");
    EXPECT_EQ(Search(*cache, "blur"), "");
}

TEST_F(EffectCacheUse, FindsInTheNextRunWhatThisRunSaved) {
    auto cache = OpenCache();
    Cache(*cache, "bloom", "code of bloom");
    Cache(*cache, "blur", std::string(100000, 'b'), true);
    cache.Reset();

    cache = OpenCache();
    EXPECT_EQ(cache->GetNumberOfEffectsInFile(), 2U);
    EXPECT_EQ(Search(*cache, "bloom"), "code of bloom");
    EXPECT_EQ(Search(*cache, "blur"), std::string(100000, 'b'));
}

TEST_F(EffectCacheUse, FindsWhatAnotherCacheInTheDirectorySaves) {
    const auto one = OpenCache();
    const auto other = OpenCache();
    Cache(*one, "bloom", "code of bloom");
    EXPECT_EQ(one->GetNumberOfEffectsInMemory(), 1U);
    EXPECT_EQ(Search(*other, "bloom"), "");
    one->ForceSaveToFile();
    EXPECT_EQ(one->GetNumberOfEffectsInMemory(), 0U);
    EXPECT_EQ(one->GetNumberOfEffectsInFile(), 1U);
    EXPECT_EQ(Search(*other, "bloom"), "code of bloom");
    EXPECT_EQ(other->GetNumberOfEffectsInFile(), 1U);
}

TEST_F(EffectCacheUse, ListsTheEffectsInItsFile) {
    const auto cache = OpenCache();
    Cache(*cache, "tone map", "12345", true);
    Cache(*cache, "blur", "123");
    cache->ForceSaveToFile();
    const std::string path = directory_.File("list");
    cache->ListCachedEffects(path.c_str());
    std::ifstream list(path);
    std::string line;
    ASSERT_TRUE(std::getline(list, line));
    EXPECT_EQ(line.rfind("Name: blur Size: 3 Permanent: 0", 0), 0U) << line;
    ASSERT_TRUE(std::getline(list, line));
    EXPECT_EQ(line.rfind("Name: tone map Size: 5 Permanent: 1", 0), 0U) << line;
}

TEST_F(EffectCacheUse, ReportsItsDirectoryAndWhetherItIsEnabled) {
    const auto cache = OpenCache();
    EXPECT_TRUE(cache->GetCacheFilePath() == directory_.Path().string().c_str());
    cache->SetEnabled(false);
    EXPECT_FALSE(cache->IsEnabled());
    cache->SetEnabled(true);
    EXPECT_TRUE(cache->IsEnabled());
}

TEST_F(EffectCacheUse, IsInertWithoutADirectory) {
    const Util::RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(""));
    EXPECT_FALSE(cache->IsEnabled());
    Cache(*cache, "bloom", "code of bloom");
    EXPECT_EQ(Search(*cache, "bloom"), "");
}

}  // namespace Quorvel::Testing
