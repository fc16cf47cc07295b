#include <quorvel/Quorvel.h>

#include <stdexcept>

#include "stores/Store.h"

namespace Quorvel::Benchmarks {

namespace {

// The effect cache, which makes its own batches.
class QuorvelStore : public Store {
public:
    explicit QuorvelStore(const std::string& directory)
        : cache_(new EffectCacheSystem(CStr(directory.c_str()))) {
        Check();
    }

    void Save(const Effect& effect) override {
        cache_->CacheCompiledEffect(effect.name, effect.bytes.data(), effect.bytes.size(), false);
    }

    void Flush() override {
        cache_->ForceSaveToFile();
        Check();
    }

    std::optional<std::span<const unsigned char>> Find(const CStr& name) override {
        if (!cache_->SearchCachedEffects(name, found_)) { return std::nullopt; }
        return std::span<const unsigned char>(found_.Addr(0),
                                              static_cast<std::size_t>(found_.Count()));
    }

private:
    void Check() const {
        if (!cache_->IsEnabled()) { throw std::runtime_error("the cache is inert"); }
    }

    Util::RefPtr<EffectCacheSystem> cache_;
    Tab<unsigned char> found_;
};

}  // namespace

std::unique_ptr<Store> OpenQuorvelStore(const std::string& directory) {
    return std::make_unique<QuorvelStore>(directory);
}

}  // namespace Quorvel::Benchmarks
