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

// `size` bytes that repeat the label.
Bytes EffectBytes(const std::string& label, std::size_t size);

// An effect cache as a host uses it, with standard types in the interface.
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

// The prefix of the names of the objects that processes share for that file.
std::string SharedObjectName(const std::string& filePath);
std::string SharedObjectName(const TemporaryDirectory& directory);

// True if another thread can acquire the file's mutex within a minute.
bool IsFileMutexFree(const TemporaryDirectory& directory);

Bytes ReadWholeFile(const std::string& path);
void WriteWholeFile(const std::string& path, const Bytes& bytes);

}  // namespace Quorvel::Testing
