#include "quorvel/EffectCacheSystem.h"

#include "effectcache/EffectCacheImpl.h"

namespace Quorvel {

namespace {

// Runs an operation that must not throw. An exception yields the result of failure.
template <typename Result, typename Operation>
Result Absorb(Result failure, const Operation& operation) noexcept {
    try {
        return operation();
    } catch (...) { return failure; }
}

}  // namespace

EffectCacheSystem::EffectCacheSystem(const CStr& directory)
    : impl_(new EffectCacheImpl(directory)) {}

EffectCacheSystem::~EffectCacheSystem() {
    delete impl_;
}

void EffectCacheSystem::CacheCompiledEffect(const CStr& name, const unsigned char* data,
                                            std::uint64_t size, bool permanent) {
    Absorb(false, [&] {
        impl_->CacheCompiledEffect(name, data, size, permanent);
        return true;
    });
}

bool EffectCacheSystem::SearchCachedEffects(const CStr& name, Tab<unsigned char>& data) {
    return Absorb(false, [&] { return impl_->SearchCachedEffects(name, data); });
}

void EffectCacheSystem::ForceSaveToFile() {
    impl_->SaveToFile();
}

void EffectCacheSystem::ListCachedEffects(const char* fileName) {
    Absorb(false, [&] {
        impl_->ListCachedEffects(fileName);
        return true;
    });
}

bool EffectCacheSystem::IsEnabled() const {
    return impl_->IsEnabled();
}

void EffectCacheSystem::SetEnabled(bool enabled) {
    impl_->SetEnabled(enabled);
}

std::uint64_t EffectCacheSystem::GetNumberOfEffectsInFile() const {
    return impl_->GetNumberOfEffectsInFile();
}

std::uint64_t EffectCacheSystem::GetNumberOfEffectsInMemory() const {
    return impl_->GetNumberOfEffectsInMemory();
}

const CStr& EffectCacheSystem::GetCacheFilePath() const {
    return impl_->GetDirectory();
}

}  // namespace Quorvel
