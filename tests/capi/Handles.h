#pragma once

#include <quorvel.h>

#include <memory>
#include <optional>
#include <string>

// The C functions with standard types.
namespace Quorvel::Testing {

struct CloseHandle {
    void operator()(quorvel_cache* cache) const { quorvel_cache_close(cache); }
    void operator()(quorvel_package* package) const { quorvel_package_close(package); }
    void operator()(quorvel_stream* stream) const { quorvel_stream_close(stream); }
};
using CacheHandle = std::unique_ptr<quorvel_cache, CloseHandle>;
using PackageHandle = std::unique_ptr<quorvel_package, CloseHandle>;
using StreamHandle = std::unique_ptr<quorvel_stream, CloseHandle>;

inline CacheHandle OpenCache(const std::string& directory) {
    quorvel_cache* cache = nullptr;
    quorvel_cache_open(directory.c_str(), &cache);
    return CacheHandle(cache);
}

inline quorvel_status AddEffect(const CacheHandle& cache, const std::string& name,
                                const std::string& code, bool permanent = false) {
    return quorvel_cache_add(cache.get(), name.data(), name.size(), code.data(), code.size(),
                             permanent ? 1 : 0);
}

// An effect's bytes; empty if quorvel_cache_find fails.
inline std::optional<std::string> FindEffect(const CacheHandle& cache, const std::string& name) {
    std::string code(QUORVEL_LARGEST_EFFECT, '\0');
    std::size_t size = 0;
    const quorvel_status status =
        quorvel_cache_find(cache.get(), name.data(), name.size(), code.data(), code.size(), &size);
    if (status != QUORVEL_OK) { return std::nullopt; }
    code.resize(size);
    return code;
}

inline StreamHandle OpenStream(const PackageHandle& package, std::uint64_t id) {
    quorvel_stream* stream = nullptr;
    quorvel_stream_open(package.get(), id, &stream);
    return StreamHandle(stream);
}

}  // namespace Quorvel::Testing
