#pragma once

#include "EffectLibrary.h"
#include "HostCache.h"
#include "Options.h"
#include "Progress.h"
#include "ShaderCompiler.h"
#include "Summary.h"

namespace EffectHost {

// Gets every effect of a library out of the cache, or compiles it and puts it there.
class Session {
public:
    Session(const Options& options, const EffectLibrary& library, const ShaderCompiler& compiler);

    // Does all the work and saves. Throws Failure: CompileError, UnusableCache, and Interrupted
    // after saving when it is asked to stop.
    void GetAllEffects(Progress& progress);

    // Looks every effect up once more. Throws Failure(UnusableCache) when some are not there: the
    // cache drops effects without a word when its volume has no room.
    void RequireAllSaved();

    // Recompiles a number of effects, spread evenly over the library, and compares the bytes with
    // what the cache returns. Throws Failure: VerificationFailed at the first difference,
    // UnusableCache when the cache no longer has all of them, Interrupted.
    void Verify(std::size_t count);

    HostCache& Cache() { return cache_; }

    // What was done so far, but for wallTime.
    Summary Result() const;

private:
    bool GetEffect(std::size_t index);
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
