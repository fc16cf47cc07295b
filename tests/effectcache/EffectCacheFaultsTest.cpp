#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <fstream>
#include <functional>
#include <memory>
#include <ostream>
#include <set>
#include <string>

#include "effectcache/CacheClient.h"
#include "effectcache/EqualSizes.h"
#include "effectcache/PlatformStubs.h"
#include "effectcache/StoredCache.h"
#include "support/StdioFaults.h"

// Runs each operation once per file system call that it makes, with that call failing. No operation
// may throw, keep a lock or return the bytes of another effect.
namespace Quorvel::Testing {

namespace {

struct Fault {
    const char* name;
    StdioCall call;
    std::uint64_t failures;
    std::uint64_t bytesMoved;
};

void PrintTo(const Fault& fault, std::ostream* out) {
    *out << fault.name;
}

class EffectCacheFaults : public ::testing::TestWithParam<Fault> {
public:
    EffectCacheFaults() {
        WriteOldCache(path);
        oldFile = ReadWholeFile(path);
    }

    // Prepares, runs the operation with its first call of the kind failing, and checks. Repeats
    // this with the second call failing, and so on until none fails.
    void ForEachCall(const std::function<void()>& prepare, const std::function<void()>& operation,
                     const std::function<void(bool failed)>& check) {
        const Fault& fault = GetParam();
        bool failed = true;
        for (std::uint64_t skipped = 0; failed; ++skipped) {
            SCOPED_TRACE("calls that succeed: " + std::to_string(skipped));
            WriteWholeFile(path, oldFile);
            prepare();
            {
                const StdioFault armed(fault.call, EIO, skipped, fault.failures, fault.bytesMoved);
                EXPECT_NO_THROW(operation());
                failed = armed.Failures() != 0;
            }
            EXPECT_TRUE(IsFileMutexFree(directory));
            check(failed);
            a.reset();
            b.reset();
            ASSERT_FALSE(HasFailure());
        }
    }

    void Open(std::unique_ptr<CacheClient>& cache) {
        cache = std::make_unique<CacheClient>(directory);
    }

    State FreshState() {
        CacheClient fresh(directory);
        EXPECT_TRUE(fresh->IsEnabled());
        return StateOf(fresh);
    }

    // A failed save changes nothing. If one attempt to open a file fails, the file may be created
    // anew, which empties it.
    void ExpectOldOrNew(State state, bool failed) {
        const bool mayBeEmpty = failed && GetParam().call == StdioCall::Open;
        EXPECT_TRUE(state == State::New || (failed && state == State::Old) ||
                    (mayBeEmpty && state == State::Empty))
            << state;
    }

    // An object that can't read the file replaces it with a new one.
    static bool MayHideFile() {
        const StdioCall call = GetParam().call;
        return call == StdioCall::Open || call == StdioCall::Seek || call == StdioCall::Tell ||
               call == StdioCall::Read;
    }

    TemporaryDirectory directory;
    std::string path = CacheFilePath(directory);
    Bytes oldFile;
    std::unique_ptr<CacheClient> a;
    std::unique_ptr<CacheClient> b;
};

// Checks the outcome of a save by `a`. `b` had read the old file.
#define EXPECT_SAFE_AFTER_SAVE(failed)    \
    do {                                  \
        FindAll(*b);                      \
        if (a) { FindAll(*a); }           \
        const State state = FreshState(); \
        ExpectOldOrNew(state, failed);    \
        FindAll(*b);                      \
        a.reset();                        \
        b.reset();                        \
        EXPECT_EQ(FreshState(), state);   \
    } while (false)

TEST_P(EffectCacheFaults, SaveLeavesTheOldStateOrTheNewOne) {
    ForEachCall(
        [&] {
            Open(a);
            Open(b);
            FindAll(*b);
            AddNew(*a);
        },
        [&] { (*a)->ForceSaveToFile(); }, [&](bool failed) { EXPECT_SAFE_AFTER_SAVE(failed); });
}

// A failed save leaves the queue unchanged, whichever call fails. The cache is inert from then on,
// but still counts and lists its effects.
TEST_P(EffectCacheFaults, FailedSaveKeepsTheQueueAndTheListingInOrder) {
    const std::string listing = directory.File("listing.txt");
    ForEachCall(
        [&] {
            Open(a);
            AddNew(*a);
        },
        [&] { (*a)->ForceSaveToFile(); },
        [&](bool) {
            const std::uint64_t queued = NewContents().size() - OldContents().size();
            EXPECT_EQ(a->InMemory() == 0, (*a)->IsEnabled());
            EXPECT_TRUE(a->InMemory() == 0 || a->InMemory() >= queued);
            (*a)->ListCachedEffects(listing.c_str());
            std::ifstream lines(listing);
            std::set<std::string> names;
            std::uint64_t count = 0;
            for (std::string line; std::getline(lines, line); ++count) {
                names.insert(line.substr(0, line.find(" Size: ")));
            }
            EXPECT_EQ(count, a->InFile());
            EXPECT_EQ(names.size(), count);
        });
}

TEST_P(EffectCacheFaults, SaveAtTheEndLeavesTheOldStateOrTheNewOne) {
    ForEachCall(
        [&] {
            Open(a);
            Open(b);
            FindAll(*b);
            FindAll(*a);
            AddNew(*a);
        },
        [&] { a.reset(); }, [&](bool failed) { EXPECT_SAFE_AFTER_SAVE(failed); });
}

// The effects are laid out in the file differently from what `a` has read.
TEST_P(EffectCacheFaults, SaveAfterAnothersSaveLeavesAWholeState) {
    ForEachCall(
        [&] {
            Open(a);
            FindAll(*a);
            Open(b);
            b->Add("c", EffectBytes("other", kEqualSize));
            b->Add("z", EffectBytes("z", kEqualSize));
            (*b)->ForceSaveToFile();
            b->Add("c", OldContents().at("c"));
            (*b)->ForceSaveToFile();
            AddNew(*a);
        },
        [&] { (*a)->ForceSaveToFile(); }, [&](bool failed) { EXPECT_SAFE_AFTER_SAVE(failed); });
}

TEST_P(EffectCacheFaults, FailedSaveMakesTheCacheInert) {
    ForEachCall(
        [&] {
            Open(a);
            AddNew(*a);
        },
        [&] { (*a)->ForceSaveToFile(); },
        [&](bool failed) {
            if (!(*a)->IsEnabled()) {
                EXPECT_EQ(FindAll(*a), Contents());
                a->Add("ignored", {1});
                EXPECT_EQ(a->Find("ignored"), std::nullopt);
            } else {
                // The save could do without the call, which closed a file or reserved pages.
                EXPECT_EQ(StateOf(*a), State::New) << failed;
            }
        });
}

TEST_P(EffectCacheFaults, SearchFindsTheBytesOrNothingAndLeavesTheFileAlone) {
    ForEachCall([&] { Open(a); }, [&] { FindAll(*a); },
                [&](bool failed) {
                    EXPECT_TRUE((*a)->IsEnabled());
                    EXPECT_EQ(StateOf(*a), State::Old);
                    a.reset();
                    EXPECT_EQ(ReadWholeFile(path), oldFile) << failed;
                });
}

TEST_P(EffectCacheFaults, FailedReloadMakesTheCacheInert) {
    ForEachCall(
        [&] {
            Open(a);
            Open(b);
            FindAll(*b);
            b->Add("pending", {1});
            AddNew(*a);
            (*a)->ForceSaveToFile();
        },
        [&] { b->Find("absent"); },
        [&](bool failed) {
            const StdioCall call = GetParam().call;
            if (failed && call != StdioCall::Close && call != StdioCall::Open) {
                EXPECT_FALSE((*b)->IsEnabled());
                EXPECT_EQ(FindAll(*b), Contents());
                EXPECT_EQ(b->Find("pending"), std::nullopt);
            } else if (!failed) {
                EXPECT_EQ(StateOf(*b), State::New);
            }
            b.reset();
            // If one attempt to open a file fails, the file may be created anew, which empties it.
            const State state = FreshState();
            EXPECT_TRUE(state == State::New || (call == StdioCall::Open && state == State::Empty))
                << state;
        });
}

TEST_P(EffectCacheFaults, OpeningAFileThatCanBeReadLeavesTheOldState) {
    ForEachCall(
        [&] {
            Open(b);
            FindAll(*b);
        },
        [&] { Open(a); },
        [&](bool failed) {
            FindAll(*a);
            FindAll(*b);
            const State state = FreshState();
            const bool mayBeEmpty = failed && MayHideFile();
            EXPECT_TRUE(state == State::Old || (mayBeEmpty && state == State::Empty)) << state;
        });
}

TEST_P(EffectCacheFaults, CreatingMakesAnEmptyCacheOrAnInertOne) {
    ForEachCall([&] { std::filesystem::remove(path); }, [&] { Open(a); },
                [&](bool failed) {
                    if (!failed) { EXPECT_TRUE((*a)->IsEnabled()); }
                    EXPECT_EQ(a->InFile(), 0u);
                    a->Add("x", {1, 2});
                    EXPECT_EQ(a->Find("x").has_value(), (*a)->IsEnabled());
                    a.reset();
                    CacheClient fresh(directory);
                    EXPECT_TRUE(fresh->IsEnabled());
                    EXPECT_LE(fresh.InFile(), 1u);
                });
}

TEST_P(EffectCacheFaults, TrimWhileOpeningLeavesWholeEffects) {
    const std::uint64_t total = StoredCache(path).TotalDataSize();
    ForEachCall(
        [&] {
            Open(b);
            FindAll(*b);
        },
        [&] {
            const FreeSpaceStub space(total - 2 * kEqualSize);
            Open(a);
        },
        [&](bool failed) {
            FindAll(*a);
            FindAll(*b);
            CacheClient fresh(directory);
            const Contents found = FindAll(fresh);
            EXPECT_EQ(fresh.InFile(), found.size());
            if (failed) {
                EXPECT_TRUE(found.size() == 6 || found.size() == 4 ||
                            (MayHideFile() && found.empty()))
                    << found.size();
            } else {
                EXPECT_EQ(found.size(), 4u);
            }
        });
}

// If the effects fill whole pages, only the index has a tail. An old index could then be read
// together with new streams.
TEST_P(EffectCacheFaults, TrimOfWholePagesWhileOpeningLeavesWholeEffects) {
    constexpr std::size_t kWholePage = 8192 - 8;
    std::vector<StoredEffect> effects;
    for (const char name : std::string("pqrstu")) {
        effects.push_back({std::string(1, name), EffectBytes({name}, kWholePage)});
    }
    WriteCache(path, effects);
    oldFile = ReadWholeFile(path);
    const std::uint64_t total = StoredCache(path).TotalDataSize();
    ForEachCall([] {},
                [&] {
                    const FreeSpaceStub space(total - kWholePage);
                    Open(a);
                },
                [&](bool failed) {
                    CacheClient fresh(directory);
                    std::uint64_t found = 0;
                    for (const StoredEffect& effect : effects) {
                        const auto bytes = fresh.Find(effect.name);
                        EXPECT_TRUE(!bytes || *bytes == effect.bytes) << effect.name;
                        found += bytes ? 1 : 0;
                    }
                    EXPECT_EQ(fresh.InFile(), found);
                    EXPECT_TRUE(found == 5 || (failed && found == 6) ||
                                (failed && MayHideFile() && found == 0))
                        << found;
                });
}

TEST_P(EffectCacheFaults, SaveWithoutRoomLeavesTheOldState) {
    ForEachCall(
        [&] {
            Open(a);
            Open(b);
            FindAll(*b);
            AddNew(*a);
        },
        [&] {
            const FreeSpaceStub space(1);
            (*a)->ForceSaveToFile();
        },
        [&](bool failed) {
            FindAll(*b);
            FindAll(*a);
            const State state = FreshState();
            // If one attempt to open a file fails, the file may be created anew, which empties it.
            const bool mayBeEmpty = failed && GetParam().call == StdioCall::Open;
            EXPECT_TRUE(state == State::Old || (mayBeEmpty && state == State::Empty)) << state;
        });
}

INSTANTIATE_TEST_SUITE_P(
    Calls, EffectCacheFaults,
    ::testing::Values(Fault{"OneOpen", StdioCall::Open, 1, 0},
                      Fault{"TwoOpens", StdioCall::Open, 2, 0},
                      Fault{"EveryOpen", StdioCall::Open, StdioFault::kEveryLaterCall, 0},
                      Fault{"OneClose", StdioCall::Close, 1, 0},
                      Fault{"EveryClose", StdioCall::Close, StdioFault::kEveryLaterCall, 0},
                      Fault{"OneSeek", StdioCall::Seek, 1, 0},
                      Fault{"EverySeek", StdioCall::Seek, StdioFault::kEveryLaterCall, 0},
                      Fault{"OneTell", StdioCall::Tell, 1, 0},
                      Fault{"EveryTell", StdioCall::Tell, StdioFault::kEveryLaterCall, 0},
                      Fault{"OneRead", StdioCall::Read, 1, 0},
                      Fault{"OneShortRead", StdioCall::Read, 1, 5000},
                      Fault{"EveryRead", StdioCall::Read, StdioFault::kEveryLaterCall, 0},
                      Fault{"OneWrite", StdioCall::Write, 1, 0},
                      Fault{"OneShortWrite", StdioCall::Write, 1, 5000},
                      Fault{"EveryWrite", StdioCall::Write, StdioFault::kEveryLaterCall, 0},
                      Fault{"EveryWriteShort", StdioCall::Write, StdioFault::kEveryLaterCall, 3000},
                      Fault{"OneRemove", StdioCall::Remove, 1, 0},
                      Fault{"EveryRemove", StdioCall::Remove, StdioFault::kEveryLaterCall, 0}),
    [](const auto& test) { return std::string(test.param.name); });

}  // namespace

}  // namespace Quorvel::Testing
