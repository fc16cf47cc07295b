#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <new>

#include "effectcache/AllocationFault.h"
#include "effectcache/CacheClient.h"
#include "effectcache/EffectCacheImpl.h"
#include "effectcache/EqualSizes.h"
#include "effectcache/PlatformStubs.h"
#include "effectcache/StoredCache.h"
#include "quorvel/Exceptions.h"
#include "support/HeapFault.h"

// Runs each operation once per allocation that it makes. Allocations of the standard library's
// containers fail one at a time; those from the host's heap fail from the chosen one onwards.
namespace Quorvel::Testing {

namespace {

class EffectCacheMemory : public ::testing::Test {
public:
    EffectCacheMemory() { WriteOldCache(path); }

    // Prepares, runs the operation with its first allocation failing, and checks. Repeats this with
    // the second allocation failing, and so on until none fails.
    void ForEachAllocation(const std::function<void()>& prepare,
                           const std::function<void()>& operation,
                           const std::function<void(bool failed)>& check) {
        const Bytes oldFile = ReadWholeFile(path);
        const auto run = [&](const auto& armedRun) {
            bool failed = true;
            for (std::uint64_t skipped = 0; failed; ++skipped) {
                SCOPED_TRACE("allocations that succeed: " + std::to_string(skipped));
                WriteWholeFile(path, oldFile);
                prepare();
                failed = armedRun(skipped);
                EXPECT_TRUE(IsFileMutexFree(directory));
                check(failed);
                cache.reset();
                other.reset();
                ASSERT_FALSE(HasFailure());
            }
        };
        run([&](std::uint64_t skipped) {
            const AllocationFault armed(skipped);
            operation();
            return armed.HasFailed();
        });
        run([&](std::uint64_t skipped) {
            const HeapFault armed(skipped);
            operation();
            return armed.Failures() != 0;
        });
    }

    void Open(std::unique_ptr<CacheClient>& client) {
        client = std::make_unique<CacheClient>(directory);
    }

    // The arguments are made beforehand, so that passing them allocates nothing.
    void Save() { (*cache)->ForceSaveToFile(); }
    bool Find(const CStr& name) { return (*cache)->SearchCachedEffects(name, found); }
    void ExpectFound(const Bytes& bytes) {
        EXPECT_EQ(Bytes(found.Addr(0), found.Addr(0) + found.Count()), bytes);
    }

    State FreshState() {
        CacheClient fresh(directory);
        EXPECT_TRUE(fresh->IsEnabled());
        return StateOf(fresh);
    }

    TemporaryDirectory directory;
    std::string path = CacheFilePath(directory);
    std::unique_ptr<CacheClient> cache;
    std::unique_ptr<CacheClient> other;
    Tab<unsigned char> found;
};

TEST_F(EffectCacheMemory, CachingQueuesTheEffectOrIgnoresIt) {
    const CStr name("a name that is too long for any place but the heap");
    const Bytes bytes = EffectBytes("x", 100);
    ForEachAllocation(
        [&] { Open(cache); },
        [&] { (*cache)->CacheCompiledEffect(name, bytes.data(), bytes.size(), false); },
        [&](bool failed) {
            EXPECT_EQ(cache->InMemory(), failed ? 0u : 1u);
            EXPECT_TRUE((*cache)->IsEnabled());
            cache->Add(name.data(), bytes);
            EXPECT_EQ(cache->Find(name.data()), bytes);
        });
}

TEST_F(EffectCacheMemory, ReplacingAQueuedEffectSucceedsOrLeavesIt) {
    const CStr name("x");
    const Bytes bytes = EffectBytes("second", 100);
    ForEachAllocation(
        [&] {
            Open(cache);
            cache->Add("x", EffectBytes("first", 100));
        },
        [&] { (*cache)->CacheCompiledEffect(name, bytes.data(), bytes.size(), false); },
        [&](bool failed) {
            EXPECT_EQ(cache->Find("x"), failed ? EffectBytes("first", 100) : bytes);
        });
}

TEST_F(EffectCacheMemory, SearchFindsTheBytesOrNothing) {
    const CStr name("c");
    bool isFound = false;
    ForEachAllocation(
        [&] {
            Open(cache);
            found = {};
        },
        [&] { isFound = Find(name); },
        [&](bool failed) {
            EXPECT_TRUE(isFound || failed);
            if (isFound) { ExpectFound(OldContents().at("c")); }
            EXPECT_TRUE((*cache)->IsEnabled());
            EXPECT_EQ(StateOf(*cache), State::Old);
        });
}

TEST_F(EffectCacheMemory, SearchAmongPendingEffectsFindsTheBytesOrNothing) {
    const CStr name("pending");
    bool isFound = false;
    ForEachAllocation(
        [&] {
            Open(cache);
            cache->Add("pending", EffectBytes("pending", 500));
            found = {};
        },
        [&] { isFound = Find(name); },
        [&](bool failed) {
            EXPECT_EQ(isFound, !failed);
            if (isFound) { ExpectFound(EffectBytes("pending", 500)); }
            EXPECT_EQ(cache->Find("pending"), EffectBytes("pending", 500));
        });
}

TEST_F(EffectCacheMemory, ReloadWorksOrMakesTheCacheInert) {
    const CStr absent("absent");
    ForEachAllocation(
        [&] {
            Open(cache);
            Open(other);
            AddNew(*other);
            (*other)->ForceSaveToFile();
        },
        [&] { Find(absent); },
        [&](bool failed) {
            EXPECT_TRUE(failed || (*cache)->IsEnabled());
            EXPECT_TRUE(!(*cache)->IsEnabled() || StateOf(*cache) == State::New);
            EXPECT_EQ(FreshState(), State::New);
        });
}

TEST_F(EffectCacheMemory, SaveLeavesTheOldStateOrTheNewOne) {
    ForEachAllocation(
        [&] {
            Open(cache);
            Open(other);
            FindAll(*other);
            AddNew(*cache);
        },
        [&] { Save(); },
        [&](bool failed) {
            FindAll(*cache);
            FindAll(*other);
            const State state = FreshState();
            EXPECT_TRUE(state == State::New || (failed && state == State::Old)) << state;
        });
}

TEST_F(EffectCacheMemory, SaveAtTheEndLeavesTheOldStateOrTheNewOne) {
    ForEachAllocation(
        [&] {
            Open(cache);
            Open(other);
            FindAll(*other);
            AddNew(*cache);
        },
        [&] { cache->Close(); },
        [&](bool failed) {
            FindAll(*other);
            const State state = FreshState();
            EXPECT_TRUE(state == State::New || (failed && state == State::Old)) << state;
        });
}

// Only the constructor may report that memory has run out.
TEST_F(EffectCacheMemory, OpeningWorksOrThrowsAndLeavesTheOldStateOrAnEmptyCache) {
    const CStr text = ToCStr(directory.Path().string());
    Util::RefPtr<EffectCacheSystem> opened;
    ForEachAllocation([] {},
                      [&] {
                          try {
                              opened = new EffectCacheSystem(text);
                          } catch (const std::bad_alloc&) {
                          } catch (const OutOfMemoryException&) {
                          } catch (const Win32APICallFailedException&) {}
                      },
                      [&](bool failed) {
                          EXPECT_TRUE(failed || opened);
                          opened.Reset();
                          const State state = FreshState();
                          EXPECT_TRUE(state == State::Old || (failed && state == State::Empty))
                              << state;
                      });
}

TEST_F(EffectCacheMemory, TrimWhileOpeningLeavesWholeEffects) {
    const CStr text = ToCStr(directory.Path().string());
    const std::uint64_t space = StoredCache(path).TotalDataSize() - kEqualSize;
    Util::RefPtr<EffectCacheSystem> opened;
    std::unique_ptr<FreeSpaceStub> stub;
    ForEachAllocation(
        [&] {
            Open(other);
            FindAll(*other);
            // Only the library's allocations may fail, not the stub's.
            stub = std::make_unique<FreeSpaceStub>(space);
            stub->ForgetQueries();
        },
        [&] {
            try {
                opened = new EffectCacheSystem(text);
            } catch (const std::bad_alloc&) {
            } catch (const OutOfMemoryException&) {
            } catch (const Win32APICallFailedException&) {}
        },
        [&](bool failed) {
            stub.reset();
            opened.Reset();
            FindAll(*other);
            CacheClient fresh(directory);
            const std::size_t left = FindAll(fresh).size();
            EXPECT_EQ(fresh.InFile(), left);
            EXPECT_TRUE(left == 5 || (failed && (left == 6 || left == 0))) << left;
        });
}

}  // namespace

}  // namespace Quorvel::Testing
