#include "HostCache.h"

#include <fmt/format.h>

#include <fstream>

#include "Failure.h"
#include "quorvel/Exceptions.h"

namespace EffectHost {

namespace {

CStr ToCStr(const std::string& text) {
    return CStr(text.data(), text.size());
}

Util::RefPtr<Quorvel::EffectCacheSystem> OpenCache(const std::string& directory) {
    try {
        return new Quorvel::EffectCacheSystem(ToCStr(directory));
    } catch (const Quorvel::Win32APICallFailedException& error) {
        throw Failure(ExitCode::UnusableCache,
                      fmt::format("the cache in {} can't be used: the system refuses the objects "
                                  "that processes share (error {})",
                                  directory, error.errorCode));
    } catch (const Quorvel::OutOfMemoryException&) {
        throw Failure(ExitCode::UnusableCache,
                      fmt::format("the cache in {} can't be used: out of memory", directory));
    }
}

}  // namespace

HostCache::HostCache(const std::filesystem::path& directory) : directory_(directory.string()) {
    const Stopwatch watch(openTime_);
    cache_ = OpenCache(directory_);
    RequireUsable("vornFxoCache.dat can be neither opened nor made there");
}

HostCache::Result HostCache::Find(const std::string& name, CachedEffect& effect) {
    const Stopwatch watch(searchTime_);
    Tab<unsigned char> block;
    if (!cache_->SearchCachedEffects(ToCStr(name), block)) {
        return Result::Missing;
    }
    auto found = UnpackCachedEffect(name, block.Addr(0), static_cast<std::size_t>(block.Count()));
    if (!found) {
        return Result::Damaged;
    }
    effect = std::move(*found);
    return Result::Found;
}

void HostCache::Store(const std::string& name, const CachedEffect& effect, bool permanent) {
    const Stopwatch watch(storeTime_);
    const Bytes block = PackCachedEffect(name, effect);
    cache_->CacheCompiledEffect(ToCStr(name), block.data(), block.size(), permanent);
}

void HostCache::Save() {
    const Stopwatch watch(storeTime_);
    cache_->ForceSaveToFile();
    RequireUsable("saving failed; is the disk full, or the file damaged?");
}

std::size_t HostCache::EffectsInFile() const {
    return static_cast<std::size_t>(cache_->GetNumberOfEffectsInFile());
}

// The cache writes the listing without a word when it can't, hence the look beforehand.
void HostCache::WriteListing(const std::filesystem::path& file) {
    if (!std::ofstream(file)) {
        throw Failure(ExitCode::BadUsage, fmt::format("can't write {}", file.string()));
    }
    cache_->ListCachedEffects(file.string().c_str());
}

void HostCache::RequireUsable(const char* problem) const {
    if (!cache_->IsEnabled()) {
        throw Failure(ExitCode::UnusableCache,
                      fmt::format("the cache in {} can't be used: {}", directory_, problem));
    }
}

}  // namespace EffectHost
