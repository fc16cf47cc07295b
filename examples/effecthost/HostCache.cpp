#include "HostCache.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <random>

#include "Failure.h"
#include "Paths.h"
#include "quorvel/Exceptions.h"

namespace EffectHost {

namespace {

constexpr const char* kSavingFailed = "saving failed; is the disk full, or the file damaged?";

CStr ToCStr(const std::string& text) {
    return CStr(text.data(), text.size());
}

Util::RefPtr<Quorvel::EffectCacheSystem> OpenCache(const std::string& directory) {
    try {
        return new Quorvel::EffectCacheSystem(ToCStr(directory));
    } catch (const Quorvel::Win32APICallFailedException& error) {
        throw Failure(ExitCode::UnusableCache,
                      fmt::format("the cache in {} can't be used: the system refuses the objects "
                                  "shared between processes (error {})",
                                  directory, error.errorCode));
    } catch (const Quorvel::OutOfMemoryException&) {
        throw Failure(ExitCode::UnusableCache,
                      fmt::format("the cache in {} can't be used: out of memory", directory));
    }
}

// Where the cache writes its listing first: a new file in a folder that is certain to be writable.
std::filesystem::path ListingDraft(const std::filesystem::path& directory) {
    return directory / fmt::format("effecthost-listing-{:08x}.txt", std::random_device()());
}

}  // namespace

HostCache::HostCache(const std::filesystem::path& directory) : directory_(directory) {
    const TimedScope watch(openTime_);
    cache_ = OpenCache(SpellingForFopen(directory_).value());
    RequireUsable("its file can't be opened or created");
}

HostCache::Result HostCache::Find(const std::string& name, CachedEffect& effect) {
    const TimedScope watch(searchTime_);
    Tab<unsigned char> block;
    if (!cache_->SearchCachedEffects(ToCStr(name), block)) { return Result::Missing; }
    auto found = UnpackCachedEffect(name, block.Addr(0), static_cast<std::size_t>(block.Count()));
    if (!found) { return Result::Damaged; }
    effect = std::move(*found);
    return Result::Found;
}

void HostCache::Store(const std::string& name, const CachedEffect& effect) {
    const TimedScope watch(storeTime_);
    const Bytes block = PackCachedEffect(name, effect);
    cache_->CacheCompiledEffect(ToCStr(name), block.data(), block.size(), effect.permanent);
    RequireUsable(kSavingFailed);
}

void HostCache::Save() {
    const TimedScope watch(storeTime_);
    cache_->ForceSaveToFile();
    RequireUsable(kSavingFailed);
}

std::size_t HostCache::EffectsInFile() const {
    return static_cast<std::size_t>(cache_->GetNumberOfEffectsInFile());
}

std::string HostCache::ListedEffects() {
    const std::filesystem::path draft = ListingDraft(directory_);
    cache_->ListCachedEffects(SpellingForFopen(draft).value().c_str());
    std::ifstream file(draft);
    const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    file.close();
    std::error_code ignored;
    std::filesystem::remove(draft, ignored);
    return text;
}

// The cache does not report a listing that it can't write. So the cache writes a draft, and this
// function copies the draft and checks for errors.
void HostCache::WriteListing(const std::filesystem::path& file) {
    const std::string text = ListedEffects();
    const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
    std::ofstream copy(file);
    copy << text << std::flush;
    if (!copy || lines < EffectsInFile()) {
        throw Failure(ExitCode::OutputFailed,
                      fmt::format("can't write the listing {}", ToText(file)));
    }
}

void HostCache::RequireUsable(const char* problem) const {
    if (!cache_->IsEnabled()) {
        throw Failure(ExitCode::UnusableCache, fmt::format("the cache in {} can't be used: {}",
                                                           ToText(directory_), problem));
    }
}

}  // namespace EffectHost
