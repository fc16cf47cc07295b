#include "platform/posix/NamedObject.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

#include "platform/Assert.h"

namespace Quorvel::Platform {

namespace {

constexpr std::size_t kLongestFileName = 200;

// A file descriptor that closes itself and preserves errno.
class FileDescriptor {
public:
    explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() {
        if (IsOpen()) {
            const int error = errno;
            ::close(descriptor_);
            errno = error;  // mutation: close changes it only when it fails
        }
    }

    bool IsOpen() const { return descriptor_ >= 0; }
    int Get() const { return descriptor_; }
    int Detach() { return std::exchange(descriptor_, -1); }

private:
    int descriptor_;
};

bool Flock(int descriptor, int operation) {
    int result;
    do {
        result = ::flock(descriptor, operation);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

bool BelongsToUs(int descriptor, mode_t type) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0) { return false; }
    if ((status.st_mode & S_IFMT) != type || status.st_uid != CurrentUser() ||
        (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        errno = EACCES;
        return false;
    }
    return true;
}

template <std::size_t Size>
void FormatFolder(char (&path)[Size]) {
    std::snprintf(path, Size, "/dev/shm/quorvel-%u", static_cast<unsigned>(CurrentUser()));
}

// Allocates nothing, so that a destructor can call it.
int OpenFolder() {
    char path[64];
    FormatFolder(path);
    // not reached in tests: the folder exists, except for processes that the tests kill
    if (::mkdir(path, S_IRWXU) != 0 && errno != EEXIST) { return -1; }
    FileDescriptor folder(::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
    if (!folder.IsOpen() || !BelongsToUs(folder.Get(), S_IFDIR)) { return -1; }
    return folder.Detach();
}

int EnterGate(int folder) {
    FileDescriptor gate(
        ::openat(folder, "gate", O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
    if (!gate.IsOpen() || !BelongsToUs(gate.Get(), S_IFREG) || !Flock(gate.Get(), LOCK_EX)) {
        return -1;
    }
    return gate.Detach();
}

// Locks the gate of a folder. The destructor unlocks it explicitly: a process forked meanwhile has
// the file open too and would keep it locked.
class Gate {
public:
    explicit Gate(int folder) : file_(folder >= 0 ? EnterGate(folder) : -1) {}
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;
    ~Gate() {
        if (IsOpen()) {
            const int error = errno;
            Flock(file_.Get(), LOCK_UN);
            errno = error;
        }
    }

    bool IsOpen() const { return file_.IsOpen(); }

private:
    const FileDescriptor file_;
};

// Fills a new file with zero bytes that are backed by memory.
bool FillWithZeroes(int descriptor, std::size_t bytes) {
    int error;
    do {
        error = ::posix_fallocate(descriptor, 0, static_cast<off_t>(bytes));
    } while (error == EINTR);
    errno = error;
    return error == 0;
}

// Opens and holds the file of an existing object. Returns -1, with errno ENOENT, when there is no
// file or no process holds it. A file that no process holds was left by a killed one. It is
// removed, not reused: a process that has closed the object may still have it mapped.
int OpenHeld(int folder, const char* fileName) {
    FileDescriptor file(::openat(folder, fileName, O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    if (!file.IsOpen() || !BelongsToUs(file.Get(), S_IFREG)) { return -1; }
    if (Flock(file.Get(), LOCK_EX | LOCK_NB)) {
        ::unlinkat(folder, fileName, 0);
        errno = ENOENT;
        return -1;
    }
    return errno == EWOULDBLOCK && Flock(file.Get(), LOCK_SH | LOCK_NB) ? file.Detach() : -1;
}

// Creates and holds the file of a new object.
int MakeNew(int folder, const char* fileName, std::size_t bytes,
            const std::function<bool(int)>& initialise) {
    FileDescriptor file(
        ::openat(folder, fileName, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!file.IsOpen()) { return -1; }
    if (!FillWithZeroes(file.Get(), bytes) || (initialise && !initialise(file.Get())) ||
        !Flock(file.Get(), LOCK_SH | LOCK_NB)) {
        const int error = errno;
        ::unlinkat(folder, fileName, 0);
        errno = error;
        return -1;
    }
    return file.Detach();
}

// Removes the files in a folder that killed processes left and no process holds. REQUIRES: the
// caller holds the gate, so the gate's own file stays.
void RemoveDeadObjects(int folder) {
    FileDescriptor listed(::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // not reached in tests: opening an open folder again fails only without descriptors or memory
    DIR* const directory = listed.IsOpen() ? ::fdopendir(listed.Get()) : nullptr;
    if (!directory) {  // not reached in tests: for the same reason
        return;
    }
    listed.Detach();
    while (const dirent* const entry = ::readdir(directory)) {
        const FileDescriptor file(
            ::openat(folder, entry->d_name, O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW));
        if (file.IsOpen() && BelongsToUs(file.Get(), S_IFREG) &&
            Flock(file.Get(), LOCK_EX | LOCK_NB)) {
            ::unlinkat(folder, entry->d_name, 0);
        }
    }
    ::closedir(directory);
}

// FNV-1a with 64 bits, starting from the given hash.
std::uint64_t Hash(std::string_view bytes, std::uint64_t hash) {
    for (const char byte : bytes) {
        hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001B3;
    }
    return hash;
}

}  // namespace

std::string NamedObject::Folder() {
    char path[64];
    FormatFolder(path);
    return path;
}

// Keeps letters, digits and underscores, and encodes any other byte in hexadecimal. A name that
// would be too long for a file keeps its beginning, to stay readable, and ends in its length and
// two hashes, which distinguish it from other names.
std::string NamedObject::FileName(const char* kind, const char* name) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string encoded = std::string(kind) + '-';
    for (const char* next = name; *next != '\0'; ++next) {
        const auto byte = static_cast<unsigned char>(*next);
        const bool plain = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
                           (byte >= '0' && byte <= '9') || byte == '_';
        if (plain) {
            encoded += *next;
        } else {
            encoded += '%';
            encoded += kDigits[byte >> 4];
            encoded += kDigits[byte & 15];
        }
    }
    if (encoded.size() > kLongestFileName) {
        char digest[64];  // mutation: longer than the longest digest
        std::snprintf(digest, sizeof digest, "~%zu~%016llx%016llx", std::strlen(name),
                      static_cast<unsigned long long>(Hash(name, 0xCBF29CE484222325)),
                      static_cast<unsigned long long>(Hash(name, 0x9E3779B97F4A7C15)));
        encoded.resize(kLongestFileName - std::strlen(digest));
        encoded += digest;
    }
    QUORVEL_ASSERT(encoded.size() <= kLongestFileName);
    return encoded;
}

std::unique_ptr<NamedObject> NamedObject::Open(const char* kind, const char* name,
                                               IfAbsent ifAbsent, std::size_t bytes,
                                               const std::function<bool(int)>& initialise) {
    std::string fileName = FileName(kind, name);
    const FileDescriptor folder(OpenFolder());
    const Gate gate(folder.Get());
    if (!gate.IsOpen()) { return nullptr; }
    FileDescriptor held(OpenHeld(folder.Get(), fileName.c_str()));
    const bool isNew = !held.IsOpen() && errno == ENOENT && ifAbsent == IfAbsent::Create;
    FileDescriptor file(isNew ? MakeNew(folder.Get(), fileName.c_str(), bytes, initialise)
                              : held.Detach());
    struct stat status {};
    if (!file.IsOpen() || ::fstat(file.Get(), &status) != 0) { return nullptr; }
    if (static std::atomic_flag hasTidied; isNew && !hasTidied.test_and_set()) {
        RemoveDeadObjects(folder.Get());
    }
    return std::unique_ptr<NamedObject>(
        new NamedObject(std::move(fileName), file.Detach(), status));
}

NamedObject::NamedObject(std::string fileName, int descriptor, const struct stat& status) noexcept
    : fileName_(std::move(fileName)),
      descriptor_(descriptor),
      size_(static_cast<std::size_t>(status.st_size)),
      user_(CurrentUser()),
      process_(::getpid()),
      device_(status.st_dev),
      inode_(status.st_ino) {}

NamedObject::~NamedObject() {
    Leave();
}

bool NamedObject::Leave() {
    if (descriptor_ < 0) { return false; }
    if (process_ != ::getpid()) {  // not reached in tests: a forked process leaves no counters
        ::close(std::exchange(descriptor_, -1));  // a forked process does not hold the object
        return false;
    }
    const int error = errno;
    bool isGone = false;
    {
        const Impersonation asOwner(user_);
        const FileDescriptor folder(OpenFolder());
        const Gate gate(folder.Get());
        const FileDescriptor file(std::exchange(descriptor_, -1));
        // Without the gate the file stays, and the next process to open it removes it. If the
        // process has changed its user, this is a different folder, which may have another file of
        // that name.
        isGone = gate.IsOpen() && Flock(file.Get(), LOCK_EX | LOCK_NB);
        struct stat status {};
        // not reached in tests: no test process changes its user
        if (isGone &&
            ::fstatat(folder.Get(), fileName_.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            status.st_dev == device_ && status.st_ino == inode_) {
            ::unlinkat(folder.Get(), fileName_.c_str(), 0);
        }
        // Closing does not unlock a file that is still mapped. The file must be unlocked before the
        // gate is, so that if two holders leave at once, one of them sees that it is the last.
        Flock(file.Get(), LOCK_UN);
    }
    errno = error;
    return isGone;
}

bool NamedObject::IsSameFileAs(const NamedObject& other) const {
    // not reached in tests: all objects are on one volume
    return device_ == other.device_ && inode_ == other.inode_;
}

bool NamedObject::HasNameOf(const NamedObject& other) const {
    return fileName_ == other.fileName_ && user_ == other.user_;
}

}  // namespace Quorvel::Platform
