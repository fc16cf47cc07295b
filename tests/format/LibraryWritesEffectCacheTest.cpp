#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "format/LibraryCache.h"
#include "format/TestData.h"

namespace Quorvel::Format {
namespace {

constexpr std::uint64_t kSaveThreshold = 2097152;

// Two caches over one file, changed at random, and a model of what they must hold.
class LibraryWritesEffectCache : public testing::TestWithParam<unsigned> {
protected:
    struct User {
        std::unique_ptr<LibraryCache> cache;
        CachedEffects pending;
        std::uint64_t pendingBytes = 0;
    };

    void SetUp() override {
        for (User& user : users_) {
            user.cache = std::make_unique<LibraryCache>(directory_);
        }
    }

    void Step() {
        User& user = users_[random_() % std::size(users_)];
        switch (random_() % 12) {
            case 0:
                (*user.cache)->ForceSaveToFile();
                Saved(user);
                break;
            case 1:
                user.cache.reset();
                Saved(user);
                user.cache = std::make_unique<LibraryCache>(directory_);
                break;
            case 2:
            case 3:
            case 4:
                Search(user);
                break;
            default:
                Add(user);
                break;
        }
    }

    void Finish() {
        for (User& user : users_) {
            user.cache.reset();
            Saved(user);
        }
    }

private:
    std::string AnyName() {
        const std::size_t number = random_() % 80;
        return "effect" + std::to_string(number) + std::string(number % 7 * 100, '\xE4');
    }

    Bytes AnyData() {
        static constexpr std::size_t kSizes[] = {1,     8183,  8184,  8185,   16376,
                                                 16377, 65528, 65536, 1048576};
        const std::size_t size =
            random_() % 4 == 0 ? kSizes[random_() % std::size(kSizes)] : 1 + random_() % 5000;
        return Pattern(size, random_());
    }

    void Add(User& user) {
        const std::string name = AnyName();
        const CachedEffect effect = {AnyData(), random_() % 3 == 0};
        user.cache->Add(name, effect);
        user.pending[name] = effect;
        user.pendingBytes += 44 + name.size() + 8 + effect.data.size() + 8;
        if (user.pendingBytes >= kSaveThreshold) { Saved(user); }
    }

    void Search(User& user) {
        const std::string name = AnyName();
        const auto pending = user.pending.find(name);
        const auto saved = saved_.find(name);
        const std::optional<Bytes> found = user.cache->Search(name);
        if (pending != user.pending.end()) {
            EXPECT_TRUE(found == pending->second.data) << name;
        } else if (saved != saved_.end()) {
            EXPECT_TRUE(found == saved->second.data) << name;
        } else {
            EXPECT_FALSE(found) << name;
        }
    }

    void Saved(User& user) {
        for (auto& [name, effect] : user.pending) {
            saved_[name] = std::move(effect);
        }
        user.pending.clear();
        user.pendingBytes = 0;
        ExpectCacheFile(CacheFile(directory_), saved_);
    }

    Testing::TemporaryDirectory directory_;
    std::mt19937 random_{GetParam()};
    User users_[2];
    CachedEffects saved_;
};

TEST_P(LibraryWritesEffectCache, SoundAndLikeItsModelAfterEachSaveOfARandomHistory) {
    for (int step = 0; step < 250; ++step) {
        ASSERT_NO_FATAL_FAILURE(Step()) << "in step " << step;
        ASSERT_FALSE(HasFailure()) << "in step " << step;
    }
    Finish();
}

INSTANTIATE_TEST_SUITE_P(Seed, LibraryWritesEffectCache, testing::Range(1u, 5u),
                         testing::PrintToStringParamName());

TEST(LibraryWritesEffectCache, WithNamesOfEveryByteInKeyOrder) {
    const Testing::TemporaryDirectory directory;
    CachedEffects effects;
    for (int first = 0; first < 256; ++first) {
        effects[std::string(1, static_cast<char>(first))] = {{static_cast<std::uint8_t>(first)},
                                                             false};
        effects[std::string(1, static_cast<char>(first)) + '\0'] = {{1, 2}, true};
    }
    effects[std::string(65536, '\xFF')] = {Pattern(1048576, 1), true};
    {
        LibraryCache cache(directory);
        for (const auto& [name, effect] : effects) {
            cache.Add(name, effect);
        }
    }
    ExpectCacheFile(CacheFile(directory), effects);
}

TEST(LibraryWritesEffectCache, WithAnIndexOfTheSameSizeInTheSameStream) {
    const Testing::TemporaryDirectory directory;
    CachedEffects effects = {{"a", {{1}, false}}, {"b", {{2}, true}}};
    LibraryCache cache(directory);
    for (const auto& [name, effect] : effects) {
        cache.Add(name, effect);
    }
    cache->ForceSaveToFile();
    const PackageImage before = ReadPackage(ReadWholeFile(CacheFile(directory)));

    effects["a"] = {{9}, true};
    cache.Add("a", effects["a"]);
    cache->ForceSaveToFile();

    ExpectCacheFile(CacheFile(directory), effects);
    const PackageImage after = ReadPackage(ReadWholeFile(CacheFile(directory)));
    EXPECT_EQ(ReadCacheHeader(after.headerData).indexStream,
              ReadCacheHeader(before.headerData).indexStream);
}

}  // namespace
}  // namespace Quorvel::Format
