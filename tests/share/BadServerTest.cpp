#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "share/ShareTest.h"
#include "tools/quorvel/StoreValue.h"

namespace Quorvel::Tool {
namespace {

using testing::HasSubstr;

// A server that answers each transfer of its client with the next text of a list. After the last
// one it repeats that, or closes the connection.
class ScriptedServer {
public:
    enum class End { Repeats, Closes };

    ScriptedServer(const std::string& path, std::vector<std::string> answers,
                   End end = End::Repeats)
        : answers_(std::move(answers)), end_(end), listener_(::socket(AF_UNIX, SOCK_STREAM, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(::listen(listener_, 1), 0);
        thread_ = std::thread([this] { Serve(); });
    }
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    ~ScriptedServer() {
        ::shutdown(listener_, SHUT_RDWR);
        thread_.join();
        ::close(listener_);
    }

private:
    void Serve() {
        const int client = ::accept(listener_, nullptr, nullptr);
        char request[65536];
        for (std::size_t i = 0; ::recv(client, request, sizeof request, 0) > 0; ++i) {
            if (end_ == End::Closes && i == answers_.size()) { break; }
            const std::string& answer = answers_[std::min(i, answers_.size() - 1)];
            for (std::size_t sent = 0; sent < answer.size();) {
                const ssize_t moved =
                    ::send(client, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
                if (moved <= 0) { break; }
                sent += static_cast<std::size_t>(moved);
            }
        }
        ::close(client);
    }

    const std::vector<std::string> answers_;
    const End end_;
    const int listener_;
    std::thread thread_;
};

class BadServerTest : public ShareTest {
protected:
    void SetUp() override {}  // needs no real server

    // Runs a command against a server that sends these answers.
    int RunWith(const std::vector<std::string>& answers, const std::vector<std::string>& arguments,
                const std::string& timeout = "30") {
        const std::string socket = File("socket" + std::to_string(++servers_));
        const ScriptedServer server(socket, answers);
        std::vector<std::string> all = arguments;
        all.insert(all.end(), {"unix://" + socket, "--server-timeout", timeout});
        return Run(all);
    }

private:
    int servers_ = 0;
};

TEST_F(BadServerTest, AnswersThatMakeNoSenseAreAnError) {
    const std::string a = MakeIn("a", ThreeEffects());
    const std::string before = EffectsIn(a)[0];
    const std::string noise(5 << 20, 'x');
    const struct {
        const char* what;
        std::string answer;
        const char* why;
    } rows[] = {
        {"no protocol", "hello\r\n", "does not speak the protocol of Redis"},
        {"HTTP", "HTTP/1.1 400 Bad Request\r\n\r\n", "does not speak the protocol of Redis"},
        {"nothing", "", "the server does not answer"},
        {"half a reply", "*2\r\n$1\r\n", "the server does not answer"},
        {"a text that never ends", "$500000000\r\n" + noise, "the server's reply is too long"},
        {"a line that never ends", "+" + noise, "the server's reply is too long"},
        {"a list that is too long", "*2000000000\r\n", "the server's reply is too long"},
        {"lists in lists", "*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n",
         "does not speak the protocol of Redis"},
        {"a negative length", "$-7\r\n", ""},
        {"a number that is too large", "$99999999999999999999\r\n", ""},
        {"no list of keys", "+OK\r\n", "list of keys makes no sense"},
        {"a list of nothing", "*0\r\n", "list of keys makes no sense"},
    };
    for (const auto& row : rows) {
        const bool isSilent = std::string_view(row.why).ends_with("does not answer") ||
                              std::string_view(row.why).empty();
        EXPECT_EQ(RunWith({row.answer}, {"pull", a}, isSilent ? "1" : "30"), kFailed) << row.what;
        EXPECT_THAT(err_, HasSubstr(row.why)) << row.what;
        EXPECT_EQ(EffectsIn(a)[0], before);
    }
}

TEST_F(BadServerTest, ValuesThatMakeNoSenseAreCountedAsDamaged) {
    const std::string key = KeyOf("x");
    const std::string page =
        "*2\r\n$1\r\n0\r\n*1\r\n$" + std::to_string(key.size()) + "\r\n" + key + "\r\n";
    const std::string zeros(kLargestValue + 1, '\0');
    for (const std::string& value :
         {std::string("+OK\r\n"), std::string("$3\r\nabc\r\n"),
          "$" + std::to_string(zeros.size()) + "\r\n" + zeros + "\r\n"}) {
        EXPECT_EQ(RunWith({page, value, ":0\r\n"}, {"pull", Empty("a"), "--json"}), kNo);
        EXPECT_EQ(Json::parse(out_)["damaged"], 1);
    }
    for (const std::string& value : {std::string("$-1\r\n"), std::string(":7\r\n"),
                                     std::string("*1\r\n:1\r\n"), std::string("-WRONGTYPE\r\n")}) {
        EXPECT_EQ(RunWith({page, value, ":0\r\n"}, {"pull", Empty("a"), "--json"}), kDone) << err_;
        EXPECT_EQ(Json::parse(out_)["damaged"], 0);
    }
}

TEST_F(BadServerTest, AnErrorOfTheServerIsShownOnOneLine) {
    EXPECT_EQ(RunWith({"-ERR \x1B[2J no\r\n"}, {"pull", Empty("a")}), kFailed);
    EXPECT_THAT(err_, HasSubstr("the server refuses SCAN: ERR \\x1B[2J no\n"));
}

TEST_F(BadServerTest, AScanThatNeverEndsIsAnError) {
    // Each page names the same next one.
    EXPECT_EQ(RunWith({"*2\r\n$1\r\n7\r\n*0\r\n"}, {"pull", Empty("a")}), kFailed);
    EXPECT_THAT(err_, HasSubstr("list of keys makes no sense"));
}

TEST_F(BadServerTest, AConnectionThatTheServerClosesIsAnError) {
    const std::string a = MakeIn("a", ThreeEffects());
    const std::string page = "*2\r\n$1\r\n7\r\n*0\r\n";
    const std::string socket = File("socket");
    const ScriptedServer server(socket, {page}, ScriptedServer::End::Closes);
    EXPECT_EQ(Run({"pull", a, "unix://" + socket}), kFailed);
    EXPECT_THAT(err_, HasSubstr("the server has closed the connection"));
}

}  // namespace
}  // namespace Quorvel::Tool
