#include "effectcache/CacheClient.h"

#include <fstream>
#include <iterator>
#include <thread>

#include "quorvel/MutexObject.h"
#include "vornutil/Tab.h"

namespace Quorvel::Testing {

CStr ToCStr(const std::string& text) {
    return CStr(text.data(), text.size());
}

Bytes EffectBytes(const std::string& label, std::size_t size) {
    Bytes bytes(size);
    for (std::size_t index = 0; index < size; ++index) {
        bytes[index] = static_cast<unsigned char>(label[index % label.size()]);
    }
    return bytes;
}

CacheClient::CacheClient(const std::string& directory)
    : cache_(new EffectCacheSystem(ToCStr(directory))) {}

CacheClient::CacheClient(const TemporaryDirectory& directory)
    : CacheClient(directory.Path().string()) {}

void CacheClient::Add(const std::string& name, const Bytes& bytes, bool permanent) {
    cache_->CacheCompiledEffect(ToCStr(name), bytes.data(), bytes.size(), permanent);
}

std::optional<Bytes> CacheClient::Find(const std::string& name) {
    Tab<unsigned char> data;
    if (!cache_->SearchCachedEffects(ToCStr(name), data)) { return std::nullopt; }
    return Bytes(data.Addr(0), data.Addr(0) + data.Count());
}

std::string CacheFilePath(const TemporaryDirectory& directory) {
    return directory.File("vornFxoCache.dat");
}

std::string SharedObjectName(const std::string& filePath) {
    static const std::string plain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    std::string name = filePath;
    for (char& byte : name) {
        if (plain.find(byte) == std::string::npos) { byte = '_'; }
    }
    return name;
}

std::string SharedObjectName(const TemporaryDirectory& directory) {
    return SharedObjectName(CacheFilePath(directory));
}

bool IsFileMutexFree(const TemporaryDirectory& directory) {
    constexpr std::uint32_t kOneMinute = 60000;
    std::uint32_t result = kWaitTimedOut;
    std::thread other([&] {
        MutexObject mutex((SharedObjectName(directory) + "_mutex").c_str());
        result = mutex.Acquire(kOneMinute);
        if (result == kWaitAcquired) { mutex.Release(); }
    });
    other.join();
    return result == kWaitAcquired;
}

Bytes ReadWholeFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

void WriteWholeFile(const std::string& path, const Bytes& bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

}  // namespace Quorvel::Testing
