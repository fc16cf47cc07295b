#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "quorvel/EffectCacheSystem.h"
#include "support/TemporaryDirectory.h"
#include "vornutil/CStr.h"
#include "vornutil/RefPtr.h"

namespace Quorvel::Testing {

using Bytes = std::vector<unsigned char>;

CStr ToCStr(const std::string& text);

// Bytes that say whose they are: the label over and over, cut off at the size.
Bytes EffectBytes(const std::string& label, std::size_t size);

// An effect cache as a host uses it, in the types of the tests.
class CacheClient {
public:
    explicit CacheClient(const std::string& directory);
    explicit CacheClient(const TemporaryDirectory& directory);

    EffectCacheSystem* operator->() const { return cache_.Get(); }

    void Add(const std::string& name, const Bytes& bytes, bool permanent = false);
    std::optional<Bytes> Find(const std::string& name);
    std::uint64_t InFile() const { return cache_->GetNumberOfEffectsInFile(); }
    std::uint64_t InMemory() const { return cache_->GetNumberOfEffectsInMemory(); }

    // Releases the cache.
    void Close() { cache_.Reset(); }

private:
    Util::RefPtr<EffectCacheSystem> cache_;
};

// The path of a directory's cache file.
std::string CacheFilePath(const TemporaryDirectory& directory);

// What the names of the objects begin with that processes share for that file.
std::string SharedObjectName(const std::string& filePath);
std::string SharedObjectName(const TemporaryDirectory& directory);

// Whether another thread gets the mutex of the file; a wait of a minute means that it does not.
bool IsFileMutexFree(const TemporaryDirectory& directory);

Bytes ReadWholeFile(const std::string& path);
void WriteWholeFile(const std::string& path, const Bytes& bytes);

}  // namespace Quorvel::Testing
