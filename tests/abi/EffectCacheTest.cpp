// The effect cache, used by a client.
#include <quorvel/Quorvel.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "Check.h"
#include "Slots.h"

namespace Quorvel::Abi {

namespace {

using Cache = Util::RefPtr<EffectCacheSystem>;

Cache OpenCache(const std::string& folder) {
    Cache cache(new EffectCacheSystem(CStr(folder.data(), folder.size())));
    EXPECT(cache->IsEnabled());
    return cache;
}

void Add(const Cache& cache, const char* name, const std::string& bytes, bool permanent = false) {
    cache->CacheCompiledEffect(CStr(name), reinterpret_cast<const unsigned char*>(bytes.data()),
                               bytes.size(), permanent);
}

bool Holds(const Cache& cache, const char* name, const std::string& bytes) {
    Tab<unsigned char> found;
    return cache->SearchCachedEffects(CStr(name), found) &&
           static_cast<std::size_t>(found.Count()) == bytes.size() &&
           std::memcmp(found.Addr(0), bytes.data(), bytes.size()) == 0;
}

}  // namespace

ABI_TEST(EffectCache, FindsItsEffectsAgainAfterASave) {
    const std::string folder = NewTemporaryFolder();
    const std::string large(300000, 'L');
    {
        const Cache cache = OpenCache(folder);
        Add(cache, "small", "bytes");
        Add(cache, "large", large, true);
        EXPECT(Holds(cache, "large", large));
        EXPECT(cache->GetNumberOfEffectsInMemory() == 2);
        cache->ForceSaveToFile();
        EXPECT(cache->GetNumberOfEffectsInMemory() == 0);
        EXPECT(cache->GetNumberOfEffectsInFile() == 2);
    }
    const Cache again = OpenCache(folder);
    EXPECT(again->GetNumberOfEffectsInFile() == 2);
    EXPECT(Holds(again, "small", "bytes"));
    EXPECT(Holds(again, "large", large));
    Tab<unsigned char> unused;
    EXPECT(!again->SearchCachedEffects(CStr("absent"), unused));
}

ABI_TEST(EffectCache, SavesWhenItsLastReferenceIsReleased) {
    const std::string folder = NewTemporaryFolder();
    auto* const cache = new EffectCacheSystem(CStr(folder.c_str()));
    EXPECT(CallSlot<std::uint32_t>(cache, kAddRef) == 1);
    cache->CacheCompiledEffect(CStr("name"), reinterpret_cast<const unsigned char*>("12345"), 5,
                               false);
    EXPECT(CallSlot<std::uint32_t>(cache, kRelease) == 0);
    EXPECT(Holds(OpenCache(folder), "name", "12345"));
}

ABI_TEST(EffectCache, ReloadsWhatAnotherCacheHasSaved) {
    const std::string folder = NewTemporaryFolder();
    const Cache mine = OpenCache(folder);
    const Cache other = OpenCache(folder);
    Add(other, "shared", "theirs");
    other->ForceSaveToFile();
    EXPECT(mine->GetNumberOfEffectsInFile() == 0);
    EXPECT(Holds(mine, "shared", "theirs"));
    EXPECT(mine->GetNumberOfEffectsInFile() == 1);
}

ABI_TEST(EffectCache, ReportsItsFolderAndWhetherItIsEnabled) {
    const std::string folder = NewTemporaryFolder();
    const Cache cache = OpenCache(folder);
    EXPECT(cache->GetCacheFilePath() == CStr(folder.c_str()));
    cache->SetEnabled(false);
    EXPECT(!cache->IsEnabled());
    cache->SetEnabled(true);
    EXPECT(cache->IsEnabled());
}

ABI_TEST(EffectCache, ListsItsEffects) {
    const Cache cache = OpenCache(NewTemporaryFolder());
    Add(cache, "bb", "12");
    Add(cache, "a", "1", true);
    cache->ForceSaveToFile();
    const std::string path = TemporaryFile("listing");
    cache->ListCachedEffects(path.c_str());
    std::FILE* const file = std::fopen(path.c_str(), "r");
    EXPECT(file);
    char text[200] = {};
    std::fread(text, 1, sizeof text - 1, file);
    std::fclose(file);
    EXPECT(std::string(text) == "Name: a Size: 1 Permanent: 1\nName: bb Size: 2 Permanent: 0\n");
}

ABI_TEST(EffectCache, HoldsOneFieldAfterItsCount) {
    const Cache cache = OpenCache(NewTemporaryFolder());
    static_assert(sizeof(EffectCacheSystem) == 24);
    EXPECT(FieldAt<std::uint32_t>(cache.Get(), 8) == 1);
    EXPECT(FieldAt<const void*>(cache.Get(), 16) != nullptr);
}

}  // namespace Quorvel::Abi
