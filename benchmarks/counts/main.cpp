// quorvel-bench-counts: runs one operation of the effect cache for callgrind to count.
//
// `quorvel-bench-counts prepare DIRECTORY` makes a cache there, and
// `quorvel-bench-counts OPERATION DIRECTORY`, run under
//     valgrind --tool=callgrind --collect-atstart=no --toggle-collect=CountedOperation
// counts the instructions of one operation on it. Every run finds the file and the heap in the same
// state.
#include <quorvel/Quorvel.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <exception>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/EffectSource.h"
#include "support/Random.h"

// Callgrind finds this function by its name.
extern "C" [[gnu::noinline]] void CountedOperation(const std::function<void()>* operation) {
    (*operation)();
}

namespace {

using namespace Quorvel::Benchmarks;
using Quorvel::EffectCacheSystem;

constexpr std::size_t kSavedEffects = 2000;
constexpr std::size_t kQueuedEffects = 200;
constexpr std::size_t kFound = 777;
constexpr std::uint64_t kSeed = 1;

void Count(const std::function<void()>& operation) {
    CountedOperation(&operation);
}

EffectSource Source() {
    return {"", kSeed};
}

Util::RefPtr<EffectCacheSystem> Open(const std::string& directory) {
    return Util::RefPtr<EffectCacheSystem>(new EffectCacheSystem(CStr(directory.c_str())));
}

void Cache(EffectCacheSystem& cache, const Effect& effect) {
    cache.CacheCompiledEffect(effect.name, effect.bytes.data(), effect.bytes.size(), false);
}

void Expect(bool condition, const char* what) {
    if (!condition) { throw std::runtime_error(what); }
}

void Prepare(const std::string& directory) {
    const std::vector<Effect> effects = Source().Make(0, kSavedEffects);
    const Util::RefPtr<EffectCacheSystem> cache = Open(directory);
    for (const std::size_t number : ShuffledOrder(kSavedEffects, kSeed)) {
        Cache(*cache, effects[number]);
    }
    cache->ForceSaveToFile();
    Expect(cache->GetNumberOfEffectsInFile() == kSavedEffects, "not all effects were saved");
}

void CountOpen(const std::string& directory) {
    Util::RefPtr<EffectCacheSystem> cache;
    Count([&] { cache = Open(directory); });
    Expect(cache->GetNumberOfEffectsInFile() == kSavedEffects, "not all effects were read");
}

// Once a second the library computes the local time, which takes a fifth as long as a search.
void WaitForNextSecond() {
    const std::time_t start = std::time(nullptr);
    while (std::time(nullptr) == start) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// Searches for an effect that was found just before, so that its page is in memory.
void CountHotSearch(const std::string& directory) {
    const Effect effect = Source().Make(kFound);
    const Util::RefPtr<EffectCacheSystem> cache = Open(directory);
    Tab<unsigned char> found;
    WaitForNextSecond();
    bool isFound = cache->SearchCachedEffects(effect.name, found) &&
                   cache->SearchCachedEffects(effect.name, found);
    Expect(isFound, "an effect was not found");
    Count([&] { isFound = cache->SearchCachedEffects(effect.name, found); });
    Expect(isFound, "an effect was not found again");
}

void CountAbsentSearch(const std::string& directory) {
    const CStr name = Source().AbsentName(kFound);
    const Util::RefPtr<EffectCacheSystem> cache = Open(directory);
    Tab<unsigned char> found;
    bool isFound = cache->SearchCachedEffects(name, found);
    Count([&] { isFound = cache->SearchCachedEffects(name, found); });
    Expect(!isFound, "an effect was found that was never saved");
}

// Saves the queued effects to a file that holds ten times as many.
void CountSave(const std::string& directory) {
    const std::vector<Effect> effects = Source().Make(kSavedEffects, kQueuedEffects);
    const Util::RefPtr<EffectCacheSystem> cache = Open(directory);
    for (const Effect& effect : effects) {
        Cache(*cache, effect);
    }
    Expect(cache->GetNumberOfEffectsInFile() == kSavedEffects, "saved too early");
    Count([&] { cache->ForceSaveToFile(); });
    Expect(cache->GetNumberOfEffectsInFile() == kSavedEffects + kQueuedEffects,
           "not all effects were saved");
}

using Operation = void (*)(const std::string& directory);

const std::map<std::string, Operation> kOperations = {{"prepare", Prepare},
                                                      {"open", CountOpen},
                                                      {"hot-search", CountHotSearch},
                                                      {"absent-search", CountAbsentSearch},
                                                      {"save", CountSave}};

}  // namespace

int main(int argc, char** argv) {
    const auto operation = kOperations.find(argc == 3 ? argv[1] : "");
    if (operation == kOperations.end()) {
        std::fputs(
            "usage: quorvel-bench-counts prepare|open|hot-search|absent-search|save DIRECTORY\n",
            stderr);
        return 2;
    }
    try {
        operation->second(argv[2]);
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
}
