#include "SharedEffects.h"

#include <fmt/format.h>

#include <ostream>

#include "Failure.h"
#include "Paths.h"
#include "Processes.h"

namespace EffectHost {

SharedEffects::SharedEffects(const std::filesystem::path& cacheDirectory, const std::string& url,
                             const std::string& compiler, std::ostream& err)
    : cacheDirectory_(ToText(cacheDirectory)),
      url_(url),
      space_(fmt::format("effecthost {}", compiler)),
      err_(err) {}

void SharedEffects::Run(const std::string& command) {
    const std::filesystem::path self = ExecutablePath();
    std::string problem;
    try {
        ChildProcess process((self.parent_path() / "quorvel").replace_extension(self.extension()),
                             {command, cacheDirectory_, url_, "--namespace", space_, "--quiet"},
                             ChildProcess::Errors::Captured);
        problem = process.ReadOutput();
        if (process.Wait() == 0) { return; }
    } catch (const Failure& failure) { problem = failure.what(); }
    err_ << kMessagePrefix << "the effects can't be shared: " << problem << std::endl;
}

}  // namespace EffectHost
