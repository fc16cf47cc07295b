#include "share/RedisServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "support/Agent.h"

namespace Quorvel::Tool {

namespace {

// Becomes another program: the first argument is its file, the others are its command line.
QUORVEL_AGENT(ExecProgram) {
    std::vector<char*> argv;
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    ::execvp(argv[0], argv.data() + 1);
    return 127;
}

StoreUrl UrlOf(const std::string& socket) {
    StoreUrl url;
    url.socket = socket;
    return url;
}

}  // namespace

bool HasProgram(const std::string& name) {
    std::istringstream folders(std::getenv("PATH"));
    for (std::string folder; std::getline(folders, folder, ':');) {
        if (::access((folder + '/' + name).c_str(), X_OK) == 0) { return true; }
    }
    return false;
}

std::string RedisProgram() {
    for (const char* const name : {"redis-server", "redis-check-rdb"}) {
        if (HasProgram(name)) { return name; }
    }
    return {};
}

RedisServer::RedisServer(const std::vector<std::string>& options, int port)
    : socket_(directory_.File("socket")),
      command_({RedisProgram(), "redis-server", "--port", std::to_string(port), "--bind",
                "127.0.0.1", "--unixsocket", socket_, "--dir", directory_.Path().string(), "--save",
                "", "--logfile", directory_.File("log")}) {
    command_.insert(command_.end(), options.begin(), options.end());
    Start();
}

RedisServer::RedisServer(const RedisServer& one, const RedisServer& other)
    : socket_(directory_.File("socket")),
      command_({"nutcracker", "nutcracker", "-c", directory_.File("configuration"), "-o",
                directory_.File("log"), "-s", std::to_string(FreePort()), "-a", "127.0.0.1"}) {
    std::ofstream file(directory_.File("configuration"));
    file << "test:\n  listen: " << socket_
         << "\n  hash: fnv1a_64\n  distribution: ketama\n  redis: true\n  servers:\n";
    file << "   - " << one.Socket() << ":1 one\n   - " << other.Socket() << ":1 other\n";
    file.close();
    Start();
}

void RedisServer::Start() {
    std::filesystem::remove(socket_);
    process_ = std::make_unique<Testing::ChildProcess>("ExecProgram", command_);
    AwaitAnswer();
}

void RedisServer::AwaitAnswer() const {
    for (int i = 0; i < 1000; ++i) {
        try {
            // Even a refusal is an answer.
            RedisConnection(UrlOf(socket_), std::chrono::seconds(5)).Send({"PING"});
            return;
        } catch (const ServerFailure&) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    throw std::runtime_error(command_[1] + " does not answer");
}

Reply RedisServer::Ask(const std::vector<std::string>& words) const {
    RedisConnection connection(UrlOf(socket_), std::chrono::seconds(10));
    switch (words.size()) {
        case 1:
            return connection.Ask({words[0]});
        case 2:
            return connection.Ask({words[0], words[1]});
        case 3:
            return connection.Ask({words[0], words[1], words[2]});
        case 4:
            return connection.Ask({words[0], words[1], words[2], words[3]});
        default:
            throw std::invalid_argument("too many words");
    }
}

std::vector<std::string> RedisServer::EffectKeys() const {
    std::vector<std::string> keys;
    for (const Reply& reply : Ask({"KEYS", "quorvel:1:*:*"}).list) {
        keys.push_back(reply.text);
    }
    return keys;
}

std::uint64_t RedisServer::Info(const std::string& section, const std::string& text) const {
    const std::string info = Ask({"INFO", section}).text;
    const std::size_t at = info.find(text);
    std::uint64_t number = 0;
    if (at != std::string::npos) {
        std::from_chars(info.data() + at + text.size(), info.data() + info.size(), number);
    }
    return number;
}

void RedisServer::Kill() {
    process_->Kill();
}

void RedisServer::Freeze() const {
    ::kill(static_cast<pid_t>(process_->Id()), SIGSTOP);
}

void RedisServer::Thaw() const {
    ::kill(static_cast<pid_t>(process_->Id()), SIGCONT);
}

int FreePort() {
    const int descriptor = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const plain = reinterpret_cast<sockaddr*>(&address);
    const bool isBound =
        ::bind(descriptor, plain, size) == 0 && ::getsockname(descriptor, plain, &size) == 0;
    ::close(descriptor);
    if (!isBound) { throw std::runtime_error("no free port"); }
    return ntohs(address.sin_port);
}

}  // namespace Quorvel::Tool
