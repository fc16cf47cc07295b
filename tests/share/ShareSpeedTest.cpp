#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>

#include "quorvel/EffectCacheSystem.h"
#include "share/ShareTest.h"
#include "vornutil/RefPtr.h"

namespace Quorvel::Tool {
namespace {

constexpr std::size_t kEffectSize = 2500;

// Transfers of many effects. QUORVEL_SHARE_EFFECTS sets their number, and then the rates are
// printed, beside those of redis-benchmark with values of the same size.
class ShareSpeedTest : public ShareTest {
protected:
    static unsigned EffectCount() { return Setting("QUORVEL_SHARE_EFFECTS", 3000); }

    // Effects whose bytes hardly compress.
    static void Fill(const std::string& directory) {
        const Util::RefPtr<EffectCacheSystem> cache(new EffectCacheSystem(directory.c_str()));
        std::mt19937 random(1);
        std::vector<unsigned char> code(kEffectSize);
        for (unsigned i = 0; i < EffectCount(); ++i) {
            std::generate(code.begin(), code.end(),
                          [&] { return static_cast<unsigned char>(random()); });
            const std::string name = "lighting.hlsl:PixelMain:ps_4_0:LIGHTS=" + std::to_string(i);
            cache->CacheCompiledEffect(name.c_str(), code.data(), code.size(), false);
        }
    }

    // Prints what redis-benchmark reaches through one connection.
    static void PrintBenchmark(const RedisServer& server, int pipelined) {
        server.Ask({"FLUSHALL"});
        std::printf("redis-benchmark, %d pipelined:\n", pipelined);
        std::fflush(stdout);
        const std::string count = std::to_string(EffectCount());
        const std::string command = "redis-benchmark -s " + server.Socket() +
                                    " -t set,get -q -c 1 -d " + std::to_string(kEffectSize) +
                                    " -n " + count + " -r " + count + " -P " +
                                    std::to_string(pipelined) + " | tr '\\r' '\\n' | grep per";
        EXPECT_EQ(std::system(command.c_str()), 0);
    }

    // Runs the real program. Returns the most memory that it took, in MiB.
    double RunAlone(const std::vector<std::string>& arguments) {
        const std::string program =
            std::filesystem::read_symlink("/proc/self/exe").parent_path() / "quorvel";
        const std::string output = File("output");
        const pid_t child = ::fork();
        if (child == 0) {
            ::dup2(::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
            std::vector<char*> argv = {const_cast<char*>(program.c_str())};
            for (const std::string& argument : arguments) {
                argv.push_back(const_cast<char*>(argument.c_str()));
            }
            argv.push_back(nullptr);
            ::execv(program.c_str(), argv.data());
            ::_exit(127);
        }
        int status = 0;
        rusage usage = {};
        ::wait4(child, &status, 0, &usage);
        EXPECT_EQ(status, 0);
        const Format::Bytes bytes = Format::ReadWholeFile(output);
        out_.assign(bytes.begin(), bytes.end());
        return static_cast<double>(usage.ru_maxrss) / 1024;
    }
};

TEST_F(ShareSpeedTest, ManyEffectsGoThroughLittleMemory) {
    const RedisServer server;
    const std::string a = Empty("a");
    const std::string b = Empty("b");
    Fill(a);
    const double pushMemory = RunAlone({"push", a, server.Url(), "--json"});
    const Json push = Json::parse(out_);
    const double pullMemory = RunAlone({"pull", b, server.Url(), "--json"});
    const Json pull = Json::parse(out_);
    const double againMemory = RunAlone({"sync", b, server.Url(), "--json"});
    const Json again = Json::parse(out_);
    EXPECT_EQ(push["sent"], EffectCount());
    EXPECT_EQ(pull["added"], EffectCount());
    EXPECT_EQ(again["pulled"]["bytes"], 0);
    EXPECT_EQ(again["pushed"]["equal"], EffectCount());
    EXPECT_LT(pushMemory, MOST_MEMORY_IN_MIB);
    EXPECT_LT(pullMemory, MOST_MEMORY_IN_MIB);
    EXPECT_LT(againMemory, MOST_MEMORY_IN_MIB);
    EXPECT_EQ(Run({"diff", "--time", a, b}), kDone);
    if (!std::getenv("QUORVEL_SHARE_EFFECTS")) { return; }
    std::printf("push %.0f/s in %.1f MiB, pull %.0f/s in %.1f MiB, sync again %.2f s in %.1f MiB\n",
                EffectCount() / push["seconds"].get<double>(), pushMemory,
                EffectCount() / pull["seconds"].get<double>(), pullMemory,
                again["pulled"]["seconds"].get<double>() + again["pushed"]["seconds"].get<double>(),
                againMemory);
    for (const int pipelined : {16, 64}) {
        PrintBenchmark(server, pipelined);
    }
}

}  // namespace
}  // namespace Quorvel::Tool
