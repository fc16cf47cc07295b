#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "share/ShareTest.h"
#include "tools/quorvel/StoreValue.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using Effects = std::vector<Format::NewEffect>;

class PushPullTest : public ShareTest {
protected:
    // Makes three caches with different effects, and lets each one share them twice.
    void ExpectThreeCachesToBecomeEqual(const std::string& url) {
        const std::string a = MakeIn("a", ManyEffects(0, 500));
        const std::string b = MakeIn("b", ManyEffects(300, 500));
        const std::string c = Empty("c");
        const std::string all = MakeIn("all", ManyEffects(0, 800));
        for (const std::string& cache : {a, b, c, a, b, c}) {
            ASSERT_EQ(Run({"sync", cache, url}), kDone) << err_;
        }
        for (const std::string& cache : {a, b, c}) {
            EXPECT_EQ(Run({"diff", "--time", cache, all}), kDone) << out_;
        }
    }

    // The number of values that the server was sent.
    static std::uint64_t Writes(const RedisServer& server) {
        return server.Info("commandstats", "cmdstat_set:calls=");
    }
};

// ---- Servers ------------------------------------------------------------------------------------

TEST_F(PushPullTest, ThreeCachesBecomeEqual) {
    const RedisServer server;
    ExpectThreeCachesToBecomeEqual(server.Url());
}

TEST_F(PushPullTest, ThreeCachesBecomeEqualThroughAPort) {
    const int port = FreePort();
    const RedisServer server({}, port);
    ExpectThreeCachesToBecomeEqual("redis://localhost:" + std::to_string(port) + "/3");
    EXPECT_EQ(server.Info("keyspace", "db3:keys="), 800U);
}

TEST_F(PushPullTest, ThreeCachesBecomeEqualThroughAProxy) {
    if (!HasProgram("nutcracker")) { GTEST_SKIP() << "no nutcracker is installed"; }
    const RedisServer one;
    const RedisServer other;
    const RedisServer proxy = RedisServer::ProxyOf(one, other);
    ExpectThreeCachesToBecomeEqual(proxy.Url("?proxy=1"));
    EXPECT_GT(one.EffectKeys().size(), 200U);
    EXPECT_GT(other.EffectKeys().size(), 200U);
}

TEST_F(PushPullTest, AProxyThatIsNotNamedAsOneIsAnError) {
    if (!HasProgram("nutcracker")) { GTEST_SKIP() << "no nutcracker is installed"; }
    const RedisServer one;
    const RedisServer proxy = RedisServer::ProxyOf(one, one);
    EXPECT_EQ(Run({"pull", Empty("a"), proxy.Url()}), kFailed);
    EXPECT_THAT(err_, HasSubstr("if it is a proxy, give ?proxy=1"));
}

TEST_F(PushPullTest, AUserOfTheServerNeedsFewRights) {
    const RedisServer server({"--user", "default", "off", "--user", "team", "on", ">secret",
                              "~quorvel:*", "&quorvel:*", "+get", "+getrange", "+set", "+eval",
                              "+scan", "+expire", "+publish", "+subscribe"});
    const std::string url = "unix://team:secret@" + server.Socket();
    ExpectThreeCachesToBecomeEqual(url);
    EXPECT_EQ(Run({"push", File("a"), url, "--ttl", "52000w"}), kDone) << err_;
}

TEST_F(PushPullTest, AReaderNeedsTwoRights) {
    const RedisServer server(
        {"--user", "reader", "on", ">secret", "~quorvel:*", "resetchannels", "+getrange", "+scan"});
    EXPECT_EQ(Run({"push", MakeIn("a", ThreeEffects()), server.Url()}), kDone);
    server.Ask({"SETRANGE", KeyOf("bb"), "2", "x"});
    const Json pull = RunJson({"pull", Empty("b"), "unix://reader:secret@" + server.Socket()}, kNo);
    EXPECT_EQ(pull["added"], 2);
    EXPECT_EQ(pull["damaged"], 1);
}

TEST_F(PushPullTest, AReplicaServesReadersOnly) {
    const int port = FreePort();
    const RedisServer server({}, port);
    const RedisServer replica(
        {"--replicaof", "127.0.0.1 " + std::to_string(port), "--repl-diskless-sync-delay", "0"});
    const std::string a = MakeIn("a", ManyEffects(0, 100));
    EXPECT_EQ(Run({"push", a, server.Url()}), kDone);
    EXPECT_TRUE(Eventually([&] { return replica.EffectKeys().size() == 100; }));
    EXPECT_EQ(Run({"pull", Empty("b"), replica.Url()}), kDone) << err_;
    EXPECT_EQ(Run({"diff", "--time", a, File("b")}), kDone);
    EXPECT_EQ(Run({"push", MakeIn("c", ThreeEffects()), replica.Url()}), kFailed);
    EXPECT_THAT(err_, HasSubstr("the server refuses SET: READONLY"));
}

TEST_F(PushPullTest, AServerThatEvictsKeepsWhatIsWhole) {
    const RedisServer server({"--maxmemory", "3mb", "--maxmemory-policy", "allkeys-lru"});
    const std::string a = MakeIn("a", ManyEffects(0, 2000));
    EXPECT_EQ(Run({"push", a, server.Url()}), kDone) << err_;
    const Json pulled = RunJson({"pull", Empty("b"), server.Url()});
    EXPECT_GT(pulled["added"], 10);
    EXPECT_LT(pulled["added"], 2000);
    EXPECT_EQ(pulled["damaged"], 0);
    EXPECT_EQ(Run({"sync", File("b"), server.Url()}), kDone) << err_;
    EXPECT_EQ(Run({"merge", a, File("b"), "--prefer", "source"}), kDone);
    EXPECT_EQ(Run({"diff", a, MakeIn("again", ManyEffects(0, 2000))}), kDone);
}

TEST_F(PushPullTest, AFullServerIsAnErrorAndTakesTheRestLater) {
    const RedisServer server({"--maxmemory", "3mb"});
    const std::string a = MakeIn("a", ManyEffects(0, 2000));
    EXPECT_EQ(Run({"push", a, server.Url()}), kFailed);
    EXPECT_THAT(err_, HasSubstr("the server refuses SET: OOM"));
    const std::size_t some = server.EffectKeys().size();
    EXPECT_LT(some, 2000U);
    server.Ask({"CONFIG", "SET", "maxmemory", "0"});
    EXPECT_EQ(RunJson({"push", a, server.Url()})["sent"], 2000 - some);
    EXPECT_EQ(server.EffectKeys().size(), 2000U);
}

// ---- Passwords ----------------------------------------------------------------------------------

TEST_F(PushPullTest, ThePasswordMayComeFromAFileOrTheEnvironment) {
    const RedisServer server({"--requirepass", "p:s w@rd"});
    const std::string a = MakeIn("a", ThreeEffects());
    EXPECT_EQ(Run({"push", a, "unix://:p%3As%20w%40rd@" + server.Socket()}), kDone) << err_;
    std::ofstream(File("password")) << "p:s w@rd\nmore\n";
    EXPECT_EQ(Run({"push", a, server.Url(), "--password-file", File("password")}), kDone) << err_;
    ::setenv("QUORVEL_REDIS_PASSWORD", "p:s w@rd", 1);
    EXPECT_EQ(Run({"push", a, server.Url()}), kDone) << err_;
    ::unsetenv("QUORVEL_REDIS_PASSWORD");
}

TEST_F(PushPullTest, AWrongPasswordIsAnErrorThatDoesNotShowIt) {
    const RedisServer server({"--requirepass", "right"});
    const std::string a = MakeIn("a", ThreeEffects());
    EXPECT_EQ(Run({"push", a, "unix://:wrong@" + server.Socket()}), kFailed);
    EXPECT_THAT(err_, HasSubstr("the server refuses AUTH: WRONGPASS"));
    EXPECT_THAT(err_, Not(HasSubstr("wrong@")));
    EXPECT_THAT(err_, Not(HasSubstr("no password was given")));
    EXPECT_EQ(Run({"push", a, "unix://default@" + server.Socket()}), kFailed);
    EXPECT_THAT(err_, HasSubstr("no password was given"));
    EXPECT_EQ(Run({"push", a, server.Url()}), kFailed);
    EXPECT_THAT(err_, HasSubstr("NOAUTH"));
    std::ofstream(File("empty"));
    EXPECT_EQ(Run({"push", a, server.Url(), "--password-file", File("empty")}), kFailed);
    EXPECT_THAT(err_, HasSubstr("no password in its first line"));
    EXPECT_EQ(Run({"push", a, server.Url(), "--password-file", File("missing")}), kFailed);
    EXPECT_THAT(err_, HasSubstr("missing: the password can't be read"));
}

// ---- Which effects ------------------------------------------------------------------------------

TEST_F(PushPullTest, TheEffectUsedLastWinsOnBothSides) {
    const RedisServer server;
    const std::string a = MakeIn("a", EffectsOfA());
    const std::string b = MakeIn("b", EffectsOfB());
    EXPECT_EQ(RunJson({"push", a, server.Url()})["sent"], 4);
    const Json sync = RunJson({"sync", b, server.Url()});
    EXPECT_EQ(sync["pulled"]["added"], 1);
    EXPECT_EQ(sync["pulled"]["replaced"], 1);
    EXPECT_EQ(sync["pulled"]["kept"], 2);
    EXPECT_EQ(sync["pushed"]["sent"], 2);
    EXPECT_EQ(sync["pushed"]["kept"], 1);
    EXPECT_EQ(sync["pushed"]["equal"], 2);
    EXPECT_EQ(Run({"pull", a, server.Url()}), kDone);
    EXPECT_THAT(err_, HasSubstr("added 1 effect, replaced 1, 2 bytes in "));
    EXPECT_THAT(EffectsIn(a),
                ElementsAre("1 2002 0 b", "2 2003 0 a", "3 2002 1 a", "4 2002 0 a", "5 2002 1 b"));
    // Effects that were used at the same time stay where they are, as with "merge".
    EXPECT_THAT(EffectsIn(b),
                ElementsAre("1 2002 0 b", "2 2003 0 a", "3 2002 0 b", "4 2002 0 a", "5 2002 1 b"));
}

TEST_F(PushPullTest, EqualBytesAreNotSentAgain) {
    const RedisServer server;
    const std::string a = MakeIn("a", {{"1", {'a'}, false, Year(2001)}});
    const std::string b = MakeIn("b", {{"1", {'a'}, false, Year(2009)}});
    EXPECT_EQ(Run({"push", a, server.Url()}), kDone);
    const std::uint64_t writes = Writes(server);
    const Json push = RunJson({"push", b, server.Url()});
    EXPECT_EQ(push["sent"], 0);
    EXPECT_EQ(push["equal"], 1);
    EXPECT_EQ(Writes(server), writes);
    EXPECT_EQ(server.Info("commandstats", "cmdstat_eval:calls="), 0U);
    // Nor are they fetched again, even if the store's were used last.
    const std::string c = MakeIn("c", {{"1", {'a'}, false, Year(1999)}});
    const Json pull = RunJson({"pull", c, server.Url()});
    EXPECT_EQ(pull["kept"], 1);
    EXPECT_EQ(pull["bytes"], 0);
    EXPECT_THAT(EffectsIn(c), ElementsAre("1 1999 0 a"));
}

TEST_F(PushPullTest, OfTwoPushersAtOnceTheNewerEffectWins) {
    const RedisServer server;
    Effects older;
    Effects newer;
    for (unsigned i = 0; i < 300; ++i) {
        const std::string name = "effect " + std::to_string(i);
        older.push_back({name, {'o'}, false, Year(2001)});
        newer.push_back({name, {'n'}, false, Year(2002)});
    }
    const std::string a = MakeIn("a", older);
    const std::string b = MakeIn("b", newer);
    const std::string url = server.Url();
    const auto push = [&url](const std::string& cache) {
        const char* const argv[] = {"quorvel", "push", cache.c_str(), url.c_str()};
        std::istringstream in;
        std::ostringstream out;
        EXPECT_EQ(RunProgram(4, argv, {in, out, out}), kDone) << out.str();
    };
    for (int i = 0; i < 20; ++i) {
        server.Ask({"FLUSHALL"});
        std::thread other([&] { push(a); });
        push(b);
        other.join();
        EXPECT_EQ(Run({"pull", Empty(std::to_string(i)), url}), kDone);
        EXPECT_EQ(Run({"diff", "--time", File(std::to_string(i)), b}), kDone) << out_;
    }
}

TEST_F(PushPullTest, NamespacesShareNothing) {
    const RedisServer server;
    EXPECT_EQ(Run({"push", MakeIn("a", ThreeEffects()), server.Url("?namespace=x")}), kDone);
    EXPECT_EQ(RunJson({"pull", Empty("b"), server.Url()})["added"], 0);
    EXPECT_EQ(RunJson({"pull", Empty("c"), server.Url(), "--namespace", "x"})["added"], 3);
    EXPECT_EQ(Run({"pull", Empty("d"), server.Url(), "--namespace", ""}), kUsage);
}

TEST_F(PushPullTest, OnlyEffectsThatMatchAreTransferred) {
    const RedisServer server;
    const std::string a = MakeIn("a", ThreeEffects());
    EXPECT_EQ(RunJson({"push", a, server.Url(), "--match", "?"})["sent"], 1);
    EXPECT_EQ(RunJson({"push", a, server.Url()})["sent"], 2);
    EXPECT_EQ(RunJson({"pull", Empty("b"), server.Url(), "--match", "b*"})["added"], 1);
    EXPECT_THAT(EffectsIn(File("b")), ElementsAre("bb 2002 1 \x02\x02"));
}

TEST_F(PushPullTest, OnlyEffectsThatWereUsedLatelyAreTransferred) {
    const RedisServer server;
    const std::string a =
        MakeIn("a", {{"old", {1}, false, TimeBefore(7200)}, {"new", {2}, false, TimeBefore(1800)}});
    EXPECT_EQ(RunJson({"push", a, server.Url(), "--newer-than", "1h"})["sent"], 1);
    EXPECT_EQ(RunJson({"push", a, server.Url()})["sent"], 1);
    EXPECT_EQ(RunJson({"pull", Empty("b"), server.Url(), "--newer-than", "1h"})["added"], 1);
    EXPECT_EQ(RunJson({"pull", File("b"), server.Url(), "--newer-than", "3h"})["added"], 1);
    EXPECT_EQ(Run({"push", a, server.Url(), "--newer-than", "soon"}), kUsage);
}

TEST_F(PushPullTest, NoMoreBytesAreTransferredThanAllowed) {
    const RedisServer server;
    const std::string a = MakeIn("a", ThreeEffects());
    const Json push = RunJson({"push", a, server.Url(), "--max-bytes", "10"}, kNo);
    EXPECT_EQ(push["sent"], 2);
    EXPECT_EQ(push["leftOut"], 1);
    EXPECT_EQ(RunJson({"push", a, server.Url()})["sent"], 1);
    const Json pull = RunJson({"pull", Empty("b"), server.Url(), "--max-bytes", "10"}, kNo);
    EXPECT_EQ(pull["added"], 2);
    EXPECT_EQ(pull["leftOut"], 1);
}

TEST_F(PushPullTest, ADryRunSaysWhatWouldHappen) {
    const RedisServer server;
    const std::string a = MakeIn("a", ThreeEffects());
    EXPECT_EQ(Run({"push", MakeIn("b", {{"a", {7}, false, Year(1999)}}), server.Url()}), kDone);
    EXPECT_EQ(Run({"push", a, server.Url(), "--dry-run"}), kDone);
    EXPECT_EQ(out_, "! a\n+ bb\n+ tab\\x09here\\\\\\xFF\n");
    EXPECT_THAT(err_, HasSubstr("would have sent 3 effects, 9.8 KiB in "));
    EXPECT_EQ(server.EffectKeys().size(), 1U);
    EXPECT_EQ(Run({"push", a, server.Url()}), kDone);
    EXPECT_EQ(Run({"pull", File("b"), server.Url(), "--dry-run"}), kDone);
    EXPECT_EQ(out_, "+ bb\n+ tab\\x09here\\\\\\xFF\n! a\n");
    EXPECT_THAT(EffectsIn(File("b")), ElementsAre("a 1999 0 \x07"));
    EXPECT_EQ(RunJson({"pull", File("b"), server.Url(), "--dry-run"})["added"], 2);
    EXPECT_EQ(RunJson({"pull", Empty("c"), server.Url(), "--dry-run"})["added"], 3);
    EXPECT_TRUE(std::filesystem::is_empty(File("c")));
}

TEST_F(PushPullTest, TheServerForgetsEffectsThatAreNotUsed) {
    const RedisServer server;
    const std::string a =
        MakeIn("a", {{"old", {1}, false, TimeBefore(7200)}, {"new", {2}, false, TimeBefore(60)}});
    EXPECT_EQ(RunJson({"push", a, server.Url(), "--ttl", "1h"})["sent"], 1);
    const std::vector<std::string> keys = server.EffectKeys();
    ASSERT_EQ(keys, std::vector{KeyOf("new")});
    EXPECT_GT(server.Ask({"TTL", keys[0]}).number, 3000);
    server.Ask({"EXPIRE", keys[0], "100"});
    EXPECT_EQ(RunJson({"push", a, server.Url(), "--ttl", "1h"})["sent"], 0);
    EXPECT_GT(server.Ask({"TTL", keys[0]}).number, 3000);
    const std::string b = MakeIn("b", {{"new", {3}, false, TimeBefore(10)}});
    EXPECT_EQ(RunJson({"push", b, server.Url(), "--ttl", "2h"})["sent"], 1);
    EXPECT_GT(server.Ask({"TTL", keys[0]}).number, 7000);
    EXPECT_EQ(Run({"push", a, server.Url(), "--ttl", "0s"}), kUsage);
}

TEST_F(PushPullTest, AFullCacheKeepsWhatWasUsedLast) {
    const RedisServer server;
    Effects mine;
    for (unsigned i = 0; i < 65534; ++i) {
        mine.push_back({std::to_string(i), {1}, false, Year(i == 7 ? 1990 : 2010)});
    }
    const std::string a = MakeIn("a", mine);
    EXPECT_EQ(
        Run({"push",
             MakeIn("b", {{"newer", {1}, false, Year(2011)}, {"older", {1}, false, Year(1980)}}),
             server.Url()}),
        kDone);
    const Json pull = RunJson({"pull", a, server.Url()}, kNo);
    EXPECT_EQ(pull["added"], 1);
    EXPECT_EQ(pull["evicted"], 1);
    EXPECT_EQ(pull["leftOut"], 1);
    EXPECT_EQ(Run({"get", a, "newer"}), kDone);
    EXPECT_EQ(Run({"get", a, "7"}), kNo);
}

// ---- Damage -------------------------------------------------------------------------------------

TEST_F(PushPullTest, ADamagedValueIsNeverTakenAndPushingMendsWhatWasCutShort) {
    const RedisServer server;
    const std::string a = MakeIn("a", ThreeEffects());
    ASSERT_EQ(Run({"push", a, server.Url()}), kDone);
    const std::string key = KeyOf("bb");
    const std::string value = server.Ask({"GET", key}).text;
    const std::string other = server.Ask({"GET", KeyOf("a")}).text;
    std::string wrongBit = value;
    wrongBit[3] ^= 1;
    const struct {
        std::string what;
        std::vector<std::string> command;
        bool isMended;
    } rows[] = {
        {"cut short", {"SET", key, value.substr(0, value.size() - 1)}, true},
        {"foreign", {"SET", key, "hello"}, true},
        {"of another key", {"SET", key, other}, true},
        {"oversized", {"SETRANGE", key, "3000000", "x"}, true},
        {"with a wrong bit", {"SET", key, wrongBit}, false},
        {"another type", {"LPUSH", key, "x"}, true},
    };
    for (const auto& row : rows) {
        server.Ask({"DEL", key});
        server.Ask(row.command);
        const std::string b = Empty(row.what);
        const Json pull =
            RunJson({"pull", b, server.Url()}, row.what == "another type" ? kDone : kNo);
        EXPECT_EQ(pull["added"], 2) << row.what;
        EXPECT_EQ(pull["damaged"], row.what == "another type" ? 0 : 1) << row.what;
        EXPECT_EQ(EffectsIn(b).size(), 2U);
        EXPECT_EQ(RunJson({"push", a, server.Url()})["sent"], row.isMended ? 1 : 0) << row.what;
        EXPECT_EQ(server.Ask({"TYPE", key}).text, "string") << row.what;
        EXPECT_EQ(server.Ask({"GET", key}).text == value, row.isMended) << row.what;
    }
}

TEST_F(PushPullTest, KeysOfOthersAreLeftAlone) {
    const RedisServer server;
    const std::string a = MakeIn("a", ThreeEffects());
    ASSERT_EQ(Run({"push", a, server.Url()}), kDone);
    for (const char* const name : {"x", "quorvel:1", "quorvel:1:0", "quorvel:2:a:b"}) {
        server.Ask({"SET", name, "x"});
    }
    server.Ask({"SET", KeyOf("bb") + "0", "x"});
    EXPECT_EQ(RunJson({"pull", Empty("b"), server.Url()})["damaged"], 0);
    EXPECT_EQ(Run({"diff", "--time", a, File("b")}), kDone);
}

TEST_F(PushPullTest, DamagedEffectsOfTheCacheAreNotSent) {
    const RedisServer server;
    MakeCacheWithDamagedEffect();
    const Json push = RunJson({"push", cache_, server.Url()}, kNo);
    EXPECT_EQ(push["sent"], 2);
    EXPECT_EQ(push["damaged"], 1);
    EXPECT_THAT(err_, HasSubstr("\"a\" is damaged"));
    // One that the store has takes its place.
    EXPECT_EQ(Run({"push", MakeIn("b", {{"a", {9}, false, Year(2020)}}), server.Url()}), kDone);
    EXPECT_EQ(RunJson({"pull", cache_, server.Url()})["replaced"], 1);
    EXPECT_EQ(Run({"get", cache_, "a"}), kDone);
    EXPECT_EQ(out_, "\x09");
}

// ---- Refusals -----------------------------------------------------------------------------------

TEST_F(PushPullTest, AServerThatCannotBeReachedIsAnError) {
    const std::string a = MakeIn("a", ThreeEffects());
    for (const char* const command : {"push", "pull", "sync"}) {
        EXPECT_EQ(Run({command, a, "unix://" + File("nothing")}), kFailed);
        EXPECT_THAT(err_, HasSubstr("nothing: can't be reached: No such file")) << command;
        EXPECT_EQ(Run({command, a, "redis://127.0.0.1:" + std::to_string(FreePort())}), kFailed);
        EXPECT_THAT(err_, HasSubstr("can't be reached: Connection refused")) << command;
        EXPECT_EQ(Run({command, a, "redis:/x"}), kUsage);
        EXPECT_EQ(Run({command, a}), kUsage);
    }
}

TEST_F(PushPullTest, AFrozenServerIsAnErrorAfterItsTime) {
    const RedisServer server;
    server.Freeze();
    EXPECT_EQ(Run({"push", MakeIn("a", ThreeEffects()), server.Url(), "--server-timeout", "1"}),
              kFailed);
    EXPECT_THAT(err_, HasSubstr("the server does not answer"));
    EXPECT_EQ(Run({"pull", Empty("b"), server.Url(), "--server-timeout", "1"}), kFailed);
    EXPECT_TRUE(std::filesystem::is_empty(File("b")));
    server.Thaw();
    EXPECT_EQ(Run({"push", File("a"), server.Url(), "--server-timeout", "0"}), kUsage);
}

TEST_F(PushPullTest, ACacheThatIsMissingOrDamagedIsAnError) {
    const RedisServer server;
    EXPECT_EQ(Run({"push", Empty("a"), server.Url()}), kNo);
    EXPECT_THAT(err_, HasSubstr("there is no vornFxoCache.dat"));
    EXPECT_EQ(Run({"push", File("missing"), server.Url()}), kNo);
    Format::WriteWholeFile(CacheFile(), Format::Bytes(9000, 1));
    EXPECT_EQ(Run({"pull", cache_, server.Url()}), kNo);
    EXPECT_THAT(err_, HasSubstr("damaged"));
    EXPECT_EQ(RunJson({"sync", File("a"), server.Url()})["pushed"], nullptr);
}

TEST_F(PushPullTest, ARightThatIsMissingIsNamed) {
    const struct {
        const char* missing;
        const char* command;
    } rows[] = {{"getrange", "push"}, {"set", "push"}, {"publish", "push"}, {"scan", "pull"}};
    const std::string a = MakeIn("a", ThreeEffects());
    for (const auto& row : rows) {
        const RedisServer server({"--user", "default", "on", "nopass", "~*", "&*", "+@all",
                                  std::string("-") + row.missing});
        EXPECT_EQ(Run({row.command, a, server.Url()}), kFailed);
        std::string upper = row.missing;
        std::transform(upper.begin(), upper.end(), upper.begin(), [](char c) {
            return static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        });
        EXPECT_THAT(err_, HasSubstr("the server refuses " + upper + ": NOPERM"));
    }
}

}  // namespace
}  // namespace Quorvel::Tool
