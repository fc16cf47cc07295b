// quorvel-bench-counts: one operation of the effect cache between two marks that callgrind sees.
//
// quorvel-bench-counts OPERATION, run under
//     valgrind --tool=callgrind --collect-atstart=no --toggle-collect=CountedOperation
// counts the instructions of that operation alone. What comes before, and so the state of the cache
// and of the heap, is the same in every run.
#include <quorvel/Quorvel.h>

#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/EffectSource.h"
#include "support/Random.h"
#include "support/ScratchDirectory.h"

// The function that callgrind is told of; it is found by its name.
extern "C" [[gnu::noinline]] void CountedOperation(const std::function<void()>* operation) {
    (*operation)();
}

namespace {

using namespace Quorvel::Benchmarks;
using Quorvel::EffectCacheSystem;

constexpr std::size_t kSavedEffects = 2000;
constexpr std::size_t kQueuedEffects = 200;
constexpr std::uint64_t kSeed = 1;

void Count(const std::function<void()>& operation) {
    CountedOperation(&operation);
}

class Counter {
public:
    Counter() : effects_(EffectSource("", kSeed).Make(0, kSavedEffects + kQueuedEffects)) {
        Open();
        const std::vector<std::size_t> order = ShuffledOrder(kSavedEffects, kSeed);
        for (const std::size_t number : order) {
            Cache(number);
        }
        cache_->ForceSaveToFile();
        cache_.Reset();
        Open();
        if (cache_->GetNumberOfEffectsInFile() != kSavedEffects) {
            throw std::runtime_error("the cache did not save all");
        }
        Search();
    }

    // One effect that was searched just before, and so lies in a page that is in memory.
    void CountHotSearch() {
        Count([this] { Search(); });
    }

    // A name that is not there.
    void CountAbsentSearch() {
        CStr name = effects_[kFound].name;
        name[name.Length() - 1] = '~';
        Count([&] { cache_->SearchCachedEffects(name, found_); });
    }

    // Effects that are queued, saved to a file that holds ten times as many.
    void CountSave() {
        for (std::size_t number = kSavedEffects; number < effects_.size(); ++number) {
            Cache(number);
        }
        Count([this] { cache_->ForceSaveToFile(); });
        if (cache_->GetNumberOfEffectsInFile() != effects_.size()) {
            throw std::runtime_error("the cache did not save what was queued");
        }
    }

    void CountOpen() {
        cache_.Reset();
        Count([this] { Open(); });
    }

private:
    static constexpr std::size_t kFound = 777;

    void Open() {
        cache_ =
            Util::RefPtr<EffectCacheSystem>(new EffectCacheSystem(CStr(directory_.Path().c_str())));
    }
    void Cache(std::size_t number) {
        const Effect& effect = effects_[number];
        cache_->CacheCompiledEffect(effect.name, effect.bytes.data(), effect.bytes.size(), false);
    }
    void Search() {
        if (!cache_->SearchCachedEffects(effects_[kFound].name, found_)) {
            throw std::runtime_error("the cache did not find an effect");
        }
    }

    const ScratchDirectory directory_{std::filesystem::temp_directory_path()};
    const std::vector<Effect> effects_;
    Util::RefPtr<EffectCacheSystem> cache_;
    Tab<unsigned char> found_;
};

}  // namespace

int main(int argc, char** argv) {
    const std::string operation = argc == 2 ? argv[1] : "";
    try {
        Counter counter;
        if (operation == "hot-search") {
            counter.CountHotSearch();
        } else if (operation == "absent-search") {
            counter.CountAbsentSearch();
        } else if (operation == "save") {
            counter.CountSave();
        } else if (operation == "open") {
            counter.CountOpen();
        } else {
            std::fprintf(stderr,
                         "usage: quorvel-bench-counts hot-search|absent-search|save|open\n");
            return 2;
        }
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
}
