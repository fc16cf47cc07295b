#include "platform/posix/ForeignUser.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <functional>
#include <list>
#include <map>

#include "platform/Handles.h"
#include "platform/SystemError.h"
#include "support/Agent.h"

namespace Quorvel::Testing {

namespace {

constexpr std::uint64_t kBlockBytes = 4096;

// Above the ids of all real users.
constexpr uid_t kFirstForeignId = 0x40000000;

bool BecomeUser(uid_t user) {
    if (user == ::geteuid()) { return true; }
    // A process that has changed its user may no longer inspect itself, which a leak checker has to
    // do.
    return ::setgid(user) == 0 && ::setuid(user) == 0 && ::prctl(PR_SET_DUMPABLE, 1) == 0;
}

std::vector<std::string> OpenFiles() {
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        files.push_back(std::filesystem::read_symlink(entry, error).string());
    }
    return files;
}

class ObjectUserAgent {
public:
    ObjectUserAgent() : inherited_(OpenFiles()) {}

    std::string Do(const std::string& command, const std::string& argument) {
        return commands_.at(command)(argument);
    }

private:
    static std::string ErrorUnless(bool success) {
        return std::to_string(success ? 0 : Platform::LastSystemError());
    }

    std::string OpenBlock(const std::string& name, bool create) {
        auto& block = blocks_.emplace_back();
        const bool open = create ? block.Create(name, kBlockBytes) : block.Open(name);
        if (!open) { return ErrorUnless(false); }
        view_ = block.Map(kBlockBytes);
        return ErrorUnless(view_ != nullptr);
    }
    std::string OpenMutex(const std::string& name) {
        return ErrorUnless(mutexes_.emplace_back(name).IsOpen());
    }
    std::string Close() {
        blocks_.clear();
        mutexes_.clear();
        return "closed";
    }
    std::string Look(const std::string& path) {
        const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        const std::string result = ErrorUnless(descriptor >= 0);
        ::close(descriptor);
        return result;
    }
    std::string LimitDescriptors(const std::string& more) {
        rlimit limit{};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
        const int lowestFree = ::dup(STDIN_FILENO);
        ::close(lowestFree);
        limit.rlim_cur = static_cast<rlim_t>(lowestFree) + std::stoul(more);
        return ErrorUnless(::setrlimit(RLIMIT_NOFILE, &limit) == 0);
    }
    std::string LimitBytes(const std::string& bytes) {
        ::signal(SIGXFSZ, SIG_IGN);
        rlimit limit{};
        ::getrlimit(RLIMIT_FSIZE, &limit);
        limit.rlim_cur = std::stoul(bytes);
        return ErrorUnless(::setrlimit(RLIMIT_FSIZE, &limit) == 0);
    }
    std::string CountInherited(const std::string& folder) {
        int count = 0;
        for (const std::string& file : inherited_) {
            count += file.starts_with(folder) ? 1 : 0;
        }
        return std::to_string(count);
    }

    std::vector<std::string> inherited_;
    std::list<MemoryHandle> blocks_;
    std::list<MutexHandle> mutexes_;
    unsigned char* view_ = nullptr;
    const std::map<std::string, std::function<std::string(const std::string&)>> commands_{
        {"memory", [this](const std::string& name) { return OpenBlock(name, true); }},
        {"attach", [this](const std::string& name) { return OpenBlock(name, false); }},
        {"mutex", [this](const std::string& name) { return OpenMutex(name); }},
        {"acquire", [this](auto&) { return std::to_string(mutexes_.back().Acquire(0)); }},
        {"release", [this](auto&) { return mutexes_.back().Release(), "released"; }},
        {"write",
         [this](const std::string& value) {
             view_[0] = static_cast<unsigned char>(std::stoi(value));
             return "written";
         }},
        {"read", [this](auto&) { return std::to_string(view_[0]); }},
        {"close", [this](auto&) { return Close(); }},
        {"look", [this](const std::string& path) { return Look(path); }},
        {"descriptors", [this](const std::string& more) { return LimitDescriptors(more); }},
        {"bytes", [this](const std::string& bytes) { return LimitBytes(bytes); }},
        {"inherited", [this](const std::string& path) { return CountInherited(path); }},
    };
};

QUORVEL_AGENT(ObjectUser) {
    ObjectUserAgent agent;
    if (!BecomeUser(static_cast<uid_t>(std::stoul(arguments[0])))) { return 1; }
    AgentSend("ready");
    for (std::string line = AgentReceive(); !line.empty(); line = AgentReceive()) {
        const std::size_t space = line.find(' ');
        AgentSend(agent.Do(line.substr(0, space),
                           space == std::string::npos ? std::string() : line.substr(space + 1)));
    }
    return 0;
}

std::unique_ptr<ChildProcess> StartObjectUserAs(uid_t user) {
    auto child = std::make_unique<ChildProcess>("ObjectUser",
                                                std::vector<std::string>{std::to_string(user)});
    EXPECT_EQ(child->Receive(), "ready") << "to become another user, run the tests as root";
    return child;
}

}  // namespace

ForeignUser::ForeignUser(int number)
    : id_(kFirstForeignId + static_cast<uid_t>(::getpid() * 8 + number)),
      folder_("/dev/shm/quorvel-" + std::to_string(id_)) {
    std::filesystem::remove_all(folder_);
}

ForeignUser::~ForeignUser() {
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
}

void ForeignUser::MakeFolder(mode_t mode) const {
    EXPECT_EQ(::mkdir(folder_.c_str(), mode), 0);
    EXPECT_EQ(::chmod(folder_.c_str(), mode), 0);
    GiveAway(folder_);
}

void ForeignUser::MakeFile(const std::filesystem::path& path, mode_t mode) const {
    std::ofstream(path) << "untouched";
    EXPECT_EQ(::chmod(path.c_str(), mode), 0);
    GiveAway(path);
}

void ForeignUser::GiveAway(const std::filesystem::path& path) const {
    EXPECT_EQ(::lchown(path.c_str(), id_, id_), 0) << "run the tests as root";
}

std::unique_ptr<ChildProcess> ForeignUser::StartObjectUser() const {
    return StartObjectUserAs(id_);
}

std::unique_ptr<ChildProcess> StartObjectUser() {
    return StartObjectUserAs(::geteuid());
}

}  // namespace Quorvel::Testing
