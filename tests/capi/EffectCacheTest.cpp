// The effect cache through the C functions.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "capi/Handles.h"
#include "effectcache/CacheClient.h"
#include "effectcache/PlatformStubs.h"
#include "support/StdioFaults.h"

namespace Quorvel::Testing {

namespace {

class CEffectCache : public ::testing::Test {
protected:
    CacheHandle Open() const { return OpenCache(directory_.Path().string()); }

    // The status of opening a directory's cache, which must fail.
    static quorvel_status Refusal(const std::string& directory) {
        int other = 0;
        auto* cache = reinterpret_cast<quorvel_cache*>(&other);
        const quorvel_status status = quorvel_cache_open(directory.c_str(), &cache);
        EXPECT_EQ(cache, nullptr);
        return status;
    }

    // The text file that lists the saved effects.
    std::string Listing(const CacheHandle& cache) const {
        const std::string path = directory_.File("list");
        EXPECT_EQ(quorvel_cache_list(cache.get(), path.c_str()), QUORVEL_OK);
        std::ostringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }

    TemporaryDirectory directory_;
};

// Collects what a visitor receives.
struct Visits {
    int count = 0;
    std::string bytes;
    int answer = 0;
};

int Visit(void* context, const void* data, std::size_t size) {
    auto& visits = *static_cast<Visits*>(context);
    ++visits.count;
    visits.bytes.assign(static_cast<const char*>(data), size);
    return visits.answer;
}

}  // namespace

TEST_F(CEffectCache, FindsOnlyWhatWasAdded) {
    const CacheHandle cache = Open();
    ASSERT_TRUE(cache);
    std::size_t size = 1;
    EXPECT_EQ(quorvel_cache_find(cache.get(), "bloom", 5, nullptr, 0, &size),
              QUORVEL_ERROR_NOT_FOUND);
    EXPECT_EQ(size, 0U);
    EXPECT_EQ(AddEffect(cache, "bloom", "code of bloom"), QUORVEL_OK);
    EXPECT_EQ(FindEffect(cache, "bloom"), "code of bloom");
    EXPECT_EQ(FindEffect(cache, "bloo"), std::nullopt);
    EXPECT_EQ(AddEffect(cache, "bloom", "other code"), QUORVEL_OK);
    EXPECT_EQ(FindEffect(cache, "bloom"), "other code");
}

TEST_F(CEffectCache, SavesWhenItIsClosed) {
    const std::string name("a\0b\xFF", 4);
    const std::string code("\0code\0", 6);
    CacheHandle cache = Open();
    EXPECT_EQ(AddEffect(cache, name, code), QUORVEL_OK);
    EXPECT_EQ(quorvel_cache_effects_in_memory(cache.get()), 1U);
    EXPECT_EQ(quorvel_cache_effects_in_file(cache.get()), 0U);
    cache.reset();

    cache = Open();
    EXPECT_EQ(quorvel_cache_effects_in_memory(cache.get()), 0U);
    EXPECT_EQ(quorvel_cache_effects_in_file(cache.get()), 1U);
    EXPECT_EQ(FindEffect(cache, name), code);
}

TEST_F(CEffectCache, SharesItsFileWithTheCppInterface) {
    const CacheHandle cache = Open();
    CacheClient client(directory_);
    EXPECT_EQ(AddEffect(cache, "bloom", "code"), QUORVEL_OK);
    EXPECT_EQ(quorvel_cache_save(cache.get()), QUORVEL_OK);
    EXPECT_EQ(client.Find("bloom"), (Bytes{'c', 'o', 'd', 'e'}));
    client.Add("blur", {'x'});
    client->ForceSaveToFile();
    EXPECT_EQ(FindEffect(cache, "blur"), "x");
}

TEST_F(CEffectCache, ReportsTheSizeThatABufferNeeds) {
    const CacheHandle cache = Open();
    EXPECT_EQ(AddEffect(cache, "bloom", "code"), QUORVEL_OK);
    const auto find = [&](void* buffer, std::size_t capacity, std::size_t& size) {
        return quorvel_cache_find(cache.get(), "bloom", 5, buffer, capacity, &size);
    };
    std::size_t size = 0;
    EXPECT_EQ(find(nullptr, 0, size), QUORVEL_ERROR_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 4U);
    char buffer[] = "......";
    size = 0;
    EXPECT_EQ(find(buffer, 3, size), QUORVEL_ERROR_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 4U);
    EXPECT_STREQ(buffer, "......");
    size = 0;
    EXPECT_EQ(find(buffer, 4, size), QUORVEL_OK);
    EXPECT_EQ(size, 4U);
    EXPECT_STREQ(buffer, "code..");
    EXPECT_EQ(find(buffer, 6, size), QUORVEL_OK);
    EXPECT_EQ(size, 4U);
    EXPECT_STREQ(buffer, "code..");
}

TEST_F(CEffectCache, HandsAVisitorAnEffectOnce) {
    const CacheHandle cache = Open();
    EXPECT_EQ(AddEffect(cache, "bloom", "code"), QUORVEL_OK);
    Visits visits;
    EXPECT_EQ(quorvel_cache_visit(cache.get(), "bloom", 5, &Visit, &visits), QUORVEL_OK);
    EXPECT_EQ(visits.count, 1);
    EXPECT_EQ(visits.bytes, "code");
    EXPECT_EQ(quorvel_cache_visit(cache.get(), "blur", 4, &Visit, &visits),
              QUORVEL_ERROR_NOT_FOUND);
    EXPECT_EQ(visits.count, 1);
}

TEST_F(CEffectCache, ReportsAVisitorThatStopsOrThrows) {
    const CacheHandle cache = Open();
    EXPECT_EQ(AddEffect(cache, "bloom", "code"), QUORVEL_OK);
    for (const int answer : {1, -1}) {
        Visits visits;
        visits.answer = answer;
        EXPECT_EQ(quorvel_cache_visit(cache.get(), "bloom", 5, &Visit, &visits),
                  QUORVEL_ERROR_STOPPED);
    }
    const auto throwing = [](void*, const void*, std::size_t) -> int { throw 1; };
    EXPECT_EQ(quorvel_cache_visit(cache.get(), "bloom", 5, throwing, nullptr),
              QUORVEL_ERROR_INTERNAL);
    EXPECT_EQ(FindEffect(cache, "bloom"), "code");
}

TEST_F(CEffectCache, LetsAVisitorUseTheCache) {
    const CacheHandle cache = Open();
    EXPECT_EQ(AddEffect(cache, "bloom", "code"), QUORVEL_OK);
    const auto copy = [](void* context, const void* data, std::size_t size) {
        auto* const target = static_cast<quorvel_cache*>(context);
        return static_cast<int>(quorvel_cache_add(target, "copy", 4, data, size, 0));
    };
    EXPECT_EQ(quorvel_cache_visit(cache.get(), "bloom", 5, copy, cache.get()), QUORVEL_OK);
    EXPECT_EQ(FindEffect(cache, "copy"), "code");
}

TEST_F(CEffectCache, RefusesSizesOutOfRange) {
    const CacheHandle cache = Open();
    const std::string longest(QUORVEL_LARGEST_NAME, 'n');
    const std::string largest(QUORVEL_LARGEST_EFFECT, 'c');
    EXPECT_EQ(AddEffect(cache, longest, largest), QUORVEL_OK);
    EXPECT_EQ(FindEffect(cache, longest), largest);
    EXPECT_EQ(AddEffect(cache, longest + 'n', "code"), QUORVEL_ERROR_ARGUMENT);
    EXPECT_STREQ(quorvel_last_error(), "invalid argument: a name has 1 to 65536 bytes");
    EXPECT_EQ(AddEffect(cache, "", "code"), QUORVEL_ERROR_ARGUMENT);
    EXPECT_STREQ(quorvel_last_error(), "invalid argument: a name has 1 to 65536 bytes");
    EXPECT_EQ(AddEffect(cache, "name", largest + 'c'), QUORVEL_ERROR_ARGUMENT);
    EXPECT_STREQ(quorvel_last_error(), "invalid argument: an effect has 1 to 1048576 bytes");
    EXPECT_EQ(AddEffect(cache, "name", ""), QUORVEL_ERROR_ARGUMENT);
    EXPECT_STREQ(quorvel_last_error(), "invalid argument: an effect has 1 to 1048576 bytes");
    EXPECT_EQ(quorvel_cache_effects_in_memory(cache.get()), 1U);
    std::size_t size = 1;
    EXPECT_EQ(quorvel_cache_find(cache.get(), longest.data(), 0, nullptr, 0, &size),
              QUORVEL_ERROR_ARGUMENT);
    EXPECT_EQ(size, 0U);
}

TEST_F(CEffectCache, ListsItsSavedEffects) {
    const CacheHandle cache = Open();
    EXPECT_EQ(AddEffect(cache, "tone map", "12345", true), QUORVEL_OK);
    EXPECT_EQ(AddEffect(cache, "blur", "123"), QUORVEL_OK);
    EXPECT_EQ(Listing(cache), "");
    EXPECT_EQ(quorvel_cache_save(cache.get()), QUORVEL_OK);
    EXPECT_EQ(Listing(cache),
              "Name: blur Size: 3 Permanent: 0\nName: tone map Size: 5 Permanent: 1\n");
}

TEST_F(CEffectCache, ReportsThatAListingCantBeWritten) {
    const CacheHandle cache = Open();
    const std::string path = directory_.File("no/list");
    EXPECT_EQ(quorvel_cache_list(cache.get(), path.c_str()), QUORVEL_ERROR_IO);
    EXPECT_EQ(quorvel_last_system_error(), static_cast<std::uint32_t>(ENOENT));
    EXPECT_EQ(quorvel_last_error(), std::string("a file can't be opened, read or written (error ") +
                                        std::to_string(ENOENT) + ')');
}

TEST_F(CEffectCache, ReportsItsDirectoryAndItsSwitch) {
    const CacheHandle cache = Open();
    EXPECT_EQ(quorvel_cache_directory(cache.get()), directory_.Path().string());
    EXPECT_EQ(quorvel_cache_is_enabled(cache.get()), 1);
    quorvel_cache_set_enabled(cache.get(), 0);
    EXPECT_EQ(quorvel_cache_is_enabled(cache.get()), 0);
    EXPECT_EQ(AddEffect(cache, "bloom", "code"), QUORVEL_OK);
    EXPECT_EQ(FindEffect(cache, "bloom"), "code");
    EXPECT_EQ(FindEffect(cache, "blur"), std::nullopt);
    EXPECT_EQ(quorvel_cache_save(cache.get()), QUORVEL_OK);
    quorvel_cache_set_enabled(cache.get(), 2);
    EXPECT_EQ(quorvel_cache_is_enabled(cache.get()), 1);
}

TEST_F(CEffectCache, DoesNotOpenADirectoryThatItCantUse) {
    EXPECT_EQ(Refusal(directory_.File("missing")), QUORVEL_ERROR_UNUSABLE);
    EXPECT_NE(std::string(quorvel_last_error()).find("its directory is missing"),
              std::string::npos);
    EXPECT_EQ(Refusal(""), QUORVEL_ERROR_ARGUMENT);
    {
        const StdioFault fault(StdioCall::Open, EACCES);
        EXPECT_EQ(Refusal(directory_.Path().string()), QUORVEL_ERROR_UNUSABLE);
    }
    std::filesystem::create_directory(directory_.Path() / "vornFxoCache.dat");
    EXPECT_EQ(Refusal(directory_.Path().string()), QUORVEL_ERROR_UNUSABLE);
}

TEST_F(CEffectCache, ReportsThatTheSystemRefusesAMutex) {
    const NamedMutexFault fault(0, 2);
    EXPECT_EQ(Refusal(directory_.Path().string()), QUORVEL_ERROR_SYSTEM);
}

TEST_F(CEffectCache, ReplacesADamagedFile) {
    std::ofstream(directory_.File("vornFxoCache.dat")) << "not a package";
    const CacheHandle cache = Open();
    ASSERT_TRUE(cache);
    EXPECT_EQ(quorvel_cache_effects_in_file(cache.get()), 0U);
    EXPECT_EQ(AddEffect(cache, "bloom", "code"), QUORVEL_OK);
    EXPECT_EQ(quorvel_cache_save(cache.get()), QUORVEL_OK);
    EXPECT_EQ(quorvel_cache_effects_in_file(cache.get()), 1U);
}

TEST_F(CEffectCache, IsUnusableAfterASaveThatFails) {
    CacheHandle cache = Open();
    EXPECT_EQ(AddEffect(cache, "bloom", "code"), QUORVEL_OK);
    EXPECT_EQ(quorvel_cache_save(cache.get()), QUORVEL_OK);
    EXPECT_EQ(AddEffect(cache, "blur", "code"), QUORVEL_OK);
    {
        const StdioFault fault(StdioCall::Write, ENOSPC);
        EXPECT_EQ(quorvel_cache_save(cache.get()), QUORVEL_ERROR_UNUSABLE);
    }
    EXPECT_EQ(quorvel_cache_save(cache.get()), QUORVEL_ERROR_UNUSABLE);
    EXPECT_EQ(AddEffect(cache, "bloom", "code"), QUORVEL_ERROR_UNUSABLE);
    std::size_t size = 1;
    EXPECT_EQ(quorvel_cache_find(cache.get(), "bloom", 5, nullptr, 0, &size),
              QUORVEL_ERROR_UNUSABLE);
    EXPECT_EQ(size, 0U);
    Visits visits;
    EXPECT_EQ(quorvel_cache_visit(cache.get(), "bloom", 5, &Visit, &visits),
              QUORVEL_ERROR_UNUSABLE);
    EXPECT_EQ(visits.count, 0);
    const std::string list = directory_.File("list");
    EXPECT_EQ(quorvel_cache_list(cache.get(), list.c_str()), QUORVEL_ERROR_UNUSABLE);
    EXPECT_FALSE(std::filesystem::exists(list));
    EXPECT_EQ(quorvel_cache_is_enabled(cache.get()), 0);

    cache.reset();
    cache = Open();
    EXPECT_EQ(FindEffect(cache, "bloom"), "code");
    EXPECT_EQ(FindEffect(cache, "blur"), std::nullopt);
}

}  // namespace Quorvel::Testing
