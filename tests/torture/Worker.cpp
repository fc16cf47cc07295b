// One process of a torture run: does at random everything that a host does with its cache.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "quorvel/EffectCacheSystem.h"
#include "quorvel/Exceptions.h"
#include "support/Agent.h"
#include "torture/Board.h"
#include "torture/EffectBytes.h"
#include "torture/Probes.h"
#include "torture/Torture.h"
#include "vornutil/CStr.h"
#include "vornutil/RefPtr.h"
#include "vornutil/Tab.h"

namespace Quorvel::Torture {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint64_t kSharedNames = 40;

// Every kPermanentStep-th name is always permanent, so that it is never evicted.
constexpr std::uint64_t kPermanentStep = 8;

// Most effects have the same size, so that the library can't tell a misplaced one by its length.
constexpr std::size_t kUsualSize = 3000;
constexpr std::size_t kLargeSize = 10000;
constexpr std::size_t kLargestSize = 60000;

class Worker {
public:
    Worker(std::string directory, const std::string& board, std::uint64_t slot, std::uint64_t slots,
           std::uint64_t seed, bool mayEvict)
        : directory_(std::move(directory)),
          board_(board),
          slot_(slot),
          slots_(slots),
          random_(seed),
          mayEvict_(mayEvict) {
        Observe(board_, slot);
        Open();
    }

    void RunUntil(Clock::time_point end) {
        SearchEveryOwned();  // a death may have cost any of them
        while (Clock::now() < end && !board_.IsEnding()) {
            Act();
            if (!cache_->IsEnabled()) {
                ++board_[Count::BecameInert];
                Open();
            }
        }
    }

    // Closes the cache, which saves it, as a host does at its end.
    void Leave() {
        if (Roll(2) == 0) { Save(); }
        Close();
    }

private:
    std::uint64_t Roll(std::uint64_t sides) {
        return std::uniform_int_distribution<std::uint64_t>(0, sides - 1)(random_);
    }

    void Act() {
        const std::uint64_t roll = Roll(1000);
        if (roll < 350) {
            SearchOwned(Roll(slots_), Roll(kNamesOfSlot));
        } else if (roll < 450) {
            SearchShared();
        } else if (roll < 500) {
            SearchAbsent();
        } else if (roll < 800) {
            CacheOwned(Roll(kNamesOfSlot));
        } else if (roll < 940) {
            CacheShared();
        } else if (roll < 985) {
            Save();
        } else if (roll < 988) {
            SaveMuch();
        } else if (roll < 994) {
            cache_->ListCachedEffects((directory_ + "/list" + std::to_string(slot_)).c_str());
        } else {
            Close();
            Open();
        }
    }

    void Close() {
        const bool isSaved = !mayEvict_ && cache_->IsEnabled();
        {
            const Operation operation(Operation::Kind::Save);
            cache_.Reset();
        }
        if (isSaved) { PublishSaved(); }
    }

    void Open() {
        const bool exists =
            std::filesystem::exists(std::filesystem::path(directory_) / "vornFxoCache.dat");
        const Operation operation(exists ? Operation::Kind::Load : Operation::Kind::Create);
        cache_ = Util::RefPtr<EffectCacheSystem>(new EffectCacheSystem(directory_.c_str()));
        pending_.clear();
        ++board_[Count::Objects];
        if (!cache_->IsEnabled()) { ++board_[Count::Unusable]; }
    }

    static std::string OwnedName(std::uint64_t slot, std::uint64_t name) {
        return "slot " + std::to_string(slot) + " effect " + std::to_string(name);
    }
    static std::string SharedName(std::uint64_t name) {
        return "shared effect " + std::to_string(name);
    }

    // Replaces all effects of the slot with large ones. The page cache can't hold them, so pages
    // reach the file throughout the save.
    void SaveMuch() {
        leastSize_ = kLargeSize;
        for (std::uint64_t name = 0; name < kNamesOfSlot; ++name) {
            CacheOwned(name);
        }
        leastSize_ = 0;
        Save();
    }

    std::size_t RandomSize(const std::string& name) {
        const std::size_t smallest = std::max(leastSize_, SmallestEffect(name));
        const std::uint64_t roll = Roll(10);
        if (roll < 7) { return std::max(leastSize_, kUsualSize); }
        return smallest + Roll(roll < 9 ? kUsualSize : kLargestSize);
    }

    void Cache(const std::string& name, std::uint64_t version, bool permanent) {
        const std::vector<unsigned char> bytes = MakeEffect(name, version, RandomSize(name));
        const Operation operation(Operation::Kind::Save);
        cache_->CacheCompiledEffect(name.c_str(), bytes.data(), bytes.size(), permanent);
        ++board_[Count::Cached];
    }

    void CacheOwned(std::uint64_t name) {
        const std::uint64_t version = ++board_.Issued(slot_, name);
        pending_.emplace_back(name, version);
        Cache(OwnedName(slot_, name), version, name % kPermanentStep == 0);
        if (cache_->IsEnabled() && cache_->GetNumberOfEffectsInMemory() == 0) {
            PublishSaved();  // this effect made the cache save
        }
    }

    void CacheShared() {
        Cache(SharedName(Roll(kSharedNames)), random_(), Roll(20) == 0);
        if (cache_->IsEnabled() && cache_->GetNumberOfEffectsInMemory() == 0) { PublishSaved(); }
    }

    void Save() {
        {
            const Operation operation(Operation::Kind::Save);
            cache_->ForceSaveToFile();
        }
        if (cache_->IsEnabled()) {
            ++board_[Count::Saves];
            PublishSaved();
        }
    }

    // If effects may be evicted, or dropped from a save for lack of room, only those that a search
    // finds count as saved.
    void PublishSaved() {
        for (const auto& [name, version] : pending_) {
            std::uint64_t found = 0;
            if (!mayEvict_ || (Search(OwnedName(slot_, name), found) && found == version)) {
                board_.Saved(slot_, name) = version;
            }
        }
        pending_.clear();
    }

    bool Search(const std::string& name, std::uint64_t& version) {
        Tab<unsigned char> found;
        ++board_[Count::Searches];
        {
            const Operation operation(Operation::Kind::Load);
            if (!cache_->SearchCachedEffects(name.c_str(), found)) { return false; }
        }
        ++board_[Count::Hits];
        const auto size = static_cast<std::size_t>(found.Count());
        switch (CheckEffect(name, {found.Addr(0), size}, version)) {
            case Verdict::Intact:
                return true;
            case Verdict::SomebodyElses:
                ++board_[Count::OthersBytes];
                break;
            case Verdict::Damaged:
                ++board_[Count::DamagedBytes];
                break;
        }
        version = kWrongBytes;  // so that the caller doesn't count them again
        return true;
    }

    void SearchOwned(std::uint64_t slot, std::uint64_t name) {
        const std::uint64_t saved = board_.Saved(slot, name);
        std::uint64_t version = 0;
        if (!Search(OwnedName(slot, name), version)) {
            const bool mustBeThere = !mayEvict_ || name % kPermanentStep == 0;
            if (saved != 0 && mustBeThere && cache_->IsEnabled()) { ++board_[Count::Missing]; }
        } else if (version < saved) {
            ++board_[Count::Stale];
        } else if (version != kWrongBytes && version > board_.Issued(slot, name)) {
            ++board_[Count::Invented];
        }
    }

    void SearchEveryOwned() {
        for (std::uint64_t slot = 0; slot < slots_; ++slot) {
            for (std::uint64_t name = 0; name < kNamesOfSlot; ++name) {
                SearchOwned(slot, name);
            }
        }
    }

    void SearchShared() {
        std::uint64_t version = 0;
        Search(SharedName(Roll(kSharedNames)), version);
    }

    void SearchAbsent() {
        std::uint64_t version = 0;
        if (Search("never cached " + std::to_string(Roll(1000)), version)) {
            ++board_[Count::Invented];
        }
    }

    static constexpr std::uint64_t kWrongBytes = ~std::uint64_t{0};

    std::string directory_;
    Board board_;
    std::uint64_t slot_;
    std::uint64_t slots_;
    std::mt19937_64 random_;
    bool mayEvict_;
    std::size_t leastSize_ = 0;  // of new effects
    Util::RefPtr<EffectCacheSystem> cache_;
    std::vector<std::pair<std::uint64_t, std::uint64_t>> pending_;  // names and versions
};

// Arguments: directory, board, slot, slots, seed, milliseconds to live, whether effects may be
// evicted.
//
// An object that is created while its mutex is abandoned throws, and the thread keeps the mutex
// until it ends. So the process ends, as a host's thread should.
QUORVEL_AGENT(TortureWorker) {
    const auto number = [&](std::size_t index) { return std::stoull(arguments[index]); };
    try {
        Worker worker(arguments[0], arguments[1], number(2), number(3), number(4), number(6) != 0);
        worker.RunUntil(Clock::now() + std::chrono::milliseconds(number(5)));
        worker.Leave();
    } catch (const Win32APICallFailedException&) { return kRefused; }
    return 0;
}

}  // namespace

}  // namespace Quorvel::Torture
