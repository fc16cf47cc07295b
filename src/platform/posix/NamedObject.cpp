#include "platform/posix/NamedObject.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

namespace Quorvel::Platform {

namespace {

constexpr std::size_t kLongestFileName = 200;

// A file descriptor that closes itself and leaves errno alone.
class FileDescriptor {
public:
    explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() {
        if (IsOpen()) {
            const int error = errno;
            ::close(descriptor_);
            errno = error;
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
    if (::fstat(descriptor, &status) != 0) {
        return false;
    }
    if ((status.st_mode & S_IFMT) != type || status.st_uid != ::geteuid() ||
        (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        errno = EACCES;
        return false;
    }
    return true;
}

template <std::size_t Size>
void FormatFolder(char (&path)[Size]) {
    std::snprintf(path, Size, "/dev/shm/quorvel-%u", static_cast<unsigned>(::geteuid()));
}

// Allocates nothing, so that a destructor can call it.
int OpenFolder() {
    char path[64];
    FormatFolder(path);
    if (::mkdir(path, S_IRWXU) != 0 && errno != EEXIST) {
        return -1;
    }
    FileDescriptor folder(::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
    if (!folder.IsOpen() || !BelongsToUs(folder.Get(), S_IFDIR)) {
        return -1;
    }
    return folder.Detach();
}

// Opens the gate of a folder and waits until it is ours; closing it lets the next one in.
int EnterGate(int folder) {
    FileDescriptor gate(
        ::openat(folder, "gate", O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
    if (!gate.IsOpen() || !BelongsToUs(gate.Get(), S_IFREG) || !Flock(gate.Get(), LOCK_EX)) {
        return -1;
    }
    return gate.Detach();
}

// Gives a file of which we are the only holder its bytes, all zero and backed by memory.
bool StartFromZeroes(int descriptor, std::size_t bytes) {
    if (::ftruncate(descriptor, 0) != 0) {
        return false;
    }
    int error;
    do {
        error = ::posix_fallocate(descriptor, 0, static_cast<off_t>(bytes));
    } while (error == EINTR);
    errno = error;
    return error == 0;
}

// FNV-1a, 64 bits, from a start value of the caller's.
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

// Letters, digits and underscores stand for themselves, any other byte for its hexadecimal code. A
// name that would be too long for a file keeps its beginning, which helps people, and ends in its
// length and two hashes, which keep it apart from others.
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
        char digest[64];
        std::snprintf(digest, sizeof digest, "~%zu~%016llx%016llx", std::strlen(name),
                      static_cast<unsigned long long>(Hash(name, 0xCBF29CE484222325)),
                      static_cast<unsigned long long>(Hash(name, 0x9E3779B97F4A7C15)));
        encoded.resize(kLongestFileName - std::strlen(digest));
        encoded += digest;
    }
    return encoded;
}

std::unique_ptr<NamedObject> NamedObject::Open(const char* kind, const char* name,
                                               IfAbsent ifAbsent, std::size_t bytes,
                                               const std::function<bool(int)>& initialise) {
    const std::string fileName = FileName(kind, name);
    const FileDescriptor folder(OpenFolder());
    const FileDescriptor gate(folder.IsOpen() ? EnterGate(folder.Get()) : -1);
    if (!gate.IsOpen()) {
        return nullptr;
    }
    const int create = ifAbsent == IfAbsent::Create ? O_CREAT : 0;
    FileDescriptor file(::openat(folder.Get(), fileName.c_str(),
                                 O_RDWR | O_CLOEXEC | O_NOFOLLOW | create, S_IRUSR | S_IWUSR));
    if (!file.IsOpen() || !BelongsToUs(file.Get(), S_IFREG)) {
        return nullptr;
    }

    if (Flock(file.Get(), LOCK_EX | LOCK_NB)) {
        if (ifAbsent == IfAbsent::Fail) {
            ::unlinkat(folder.Get(), fileName.c_str(), 0);
            errno = ENOENT;
            return nullptr;
        }
        if (!StartFromZeroes(file.Get(), bytes) || (initialise && !initialise(file.Get()))) {
            const int error = errno;
            ::unlinkat(folder.Get(), fileName.c_str(), 0);
            errno = error;
            return nullptr;
        }
    }
    struct stat status {};
    if (!Flock(file.Get(), LOCK_SH | LOCK_NB) || ::fstat(file.Get(), &status) != 0) {
        return nullptr;
    }
    return std::unique_ptr<NamedObject>(
        new NamedObject(fileName, file.Detach(), static_cast<std::size_t>(status.st_size)));
}

NamedObject::~NamedObject() {
    const FileDescriptor folder(OpenFolder());
    const FileDescriptor gate(folder.IsOpen() ? EnterGate(folder.Get()) : -1);
    // Closed before the gate, so that of two holders who leave together one sees that it is the
    // last.
    const FileDescriptor file(descriptor_);
    // Without the gate the file stays behind, and the next opener starts it from zeroes.
    if (gate.IsOpen() && Flock(file.Get(), LOCK_EX | LOCK_NB)) {
        ::unlinkat(folder.Get(), fileName_.c_str(), 0);
    }
}

bool NamedObject::IsOnlyHolder() const {
    const FileDescriptor folder(OpenFolder());
    const FileDescriptor gate(folder.IsOpen() ? EnterGate(folder.Get()) : -1);
    if (!gate.IsOpen()) {
        return false;
    }
    // Asking for another kind of lock drops the one we have, also when the request is refused.
    const bool alone = Flock(descriptor_, LOCK_EX | LOCK_NB);
    Flock(descriptor_, LOCK_SH | LOCK_NB);
    return alone;
}

}  // namespace Quorvel::Platform
