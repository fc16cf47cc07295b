#pragma once

#include "EffectLibrary.h"
#include "HostCache.h"
#include "Options.h"
#include "Progress.h"
#include "ShaderCompiler.h"
#include "Summary.h"

namespace EffectHost {

// Gets every effect of a library from the cache, or compiles it and adds it to the cache.
class Session {
public:
    Session(const Options& options, const EffectLibrary& library, const ShaderCompiler& compiler);

    // Does all the work and saves. Throws Failure: CompileError, unless it is to keep going;
    // UnusableCache; or Interrupted, after saving, when asked to stop.
    void GetAllEffects(Progress& progress);

    // Takes note of effects that other processes could not compile.
    void SkipBroken(const Summary& others) { summary_.broken = others.broken; }

    // Looks up every effect again, except broken ones. Throws Failure(UnusableCache) when some are
    // missing: the cache silently drops effects when its volume has no room.
    void RequireAllSaved();

    // Recompiles a number of effects, spread evenly over those that are not broken, and compares
    // the bytes with those from the cache. Throws Failure: VerificationFailed at the first
    // difference, UnusableCache when the cache no longer has all of them, or Interrupted.
    void Verify(std::size_t count);

    HostCache& Cache() { return cache_; }

    // What was done so far, without wallTime.
    Summary Result() const;

private:
    bool GetEffect(std::size_t index);
    std::vector<const EffectVariant*> Whole() const;
    void UseFound(const std::string& name, CachedEffect& effect);
    void CompileAndStore(const EffectVariant& variant, const std::string& name);
    void KeepTimes();
    [[noreturn]] void SaveAndStop(std::size_t done);
    bool IsPermanent(const std::string& name) const;
    bool IsSame(const EffectVariant& variant, const std::string& name);

    const Options& options_;
    const EffectLibrary& library_;
    const ShaderCompiler& compiler_;
    HostCache cache_;
    Summary summary_;
    TimeAccount compileTime_;
    TimeAccount checkTime_;
};

}  // namespace EffectHost
