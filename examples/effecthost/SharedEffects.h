#pragma once

#include <filesystem>
#include <iosfwd>
#include <string>

namespace EffectHost {

// Shares the effects of a cache with other machines through a Redis server. This takes the program
// quorvel, in the folder of this one. Sharing only saves time, so a server that can't be reached is
// reported, but is not an error.
class SharedEffects {
public:
    // The effects are shared among machines with the same compiler.
    SharedEffects(const std::filesystem::path& cacheDirectory, const std::string& url,
                  const std::string& compiler, std::ostream& err);

    // Takes what other machines have compiled.
    void Take() { Run("pull"); }

    // Sends what they lack.
    void Send() { Run("push"); }

private:
    void Run(const std::string& command);

    const std::string cacheDirectory_;
    const std::string url_;
    const std::string space_;
    std::ostream& err_;
};

}  // namespace EffectHost
