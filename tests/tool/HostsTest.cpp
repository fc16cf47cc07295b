#include "quorvel/EffectCacheSystem.h"
#include "support/Agent.h"
#include "support/ChildProcess.h"
#include "tool/ToolTest.h"
#include "vornutil/RefPtr.h"

namespace Quorvel::Tool {
namespace {

using Testing::ChildProcess;

// Saves, again and again, until it is killed. Arguments: the directory, a prefix for names.
QUORVEL_AGENT(SavingHost) {
    const Util::RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(arguments[0].c_str()));
    for (unsigned i = 0;; ++i) {
        const std::string name = arguments[1] + std::to_string(i % 200);
        const std::vector<unsigned char> code(1 + i * 7919 % 20000, static_cast<unsigned char>(i));
        cache->CacheCompiledEffect(name.c_str(), code.data(), code.size(), false);
        if (i % 20 == 19) { cache->ForceSaveToFile(); }
        if (i == 200) { Testing::AgentSend("ready"); }
    }
}

class HostsTest : public ToolTest {};

TEST_F(HostsTest, CommandsThatReadFindNoFaultWhileHostsSave) {
    ChildProcess one("SavingHost", {cache_, "one "});
    ChildProcess other("SavingHost", {cache_, "other "});
    ASSERT_EQ(one.Receive(), "ready");
    ASSERT_EQ(other.Receive(), "ready");
    const Format::Bytes before = FileBytes();
    for (int i = 0; i < 30; ++i) {
        for (const char* const command : {"check", "info", "list", "map"}) {
            ASSERT_EQ(Run({command, cache_}), kDone) << command << out_ << err_;
        }
    }
    EXPECT_NE(FileBytes(), before);
}

}  // namespace
}  // namespace Quorvel::Tool
