#include "platform/NamedMutex.h"

#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>

#include "platform/Assert.h"
#include "platform/posix/NamedObject.h"

namespace Quorvel::Platform {

namespace {

constexpr char kKind[] = "mutex";
constexpr std::uint32_t kAcquired = 0;
constexpr std::uint32_t kAbandoned = 128;
constexpr std::uint32_t kTimedOut = 258;
constexpr std::uint32_t kFailed = 0xFFFFFFFF;
constexpr std::uint32_t kForever = 0xFFFFFFFF;
constexpr std::uint32_t kLongestSleep = 250;  // in milliseconds
void* const kInvalidHandle = reinterpret_cast<void*>(~std::uintptr_t{0});

bool InitialiseNativeMutex(pthread_mutex_t* mutex) {
    pthread_mutexattr_t attributes;
    ::pthread_mutexattr_init(&attributes);
    ::pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    ::pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    ::pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    const int error = ::pthread_mutex_init(mutex, &attributes);
    ::pthread_mutexattr_destroy(&attributes);
    errno = error;
    return error == 0;
}

pthread_mutex_t* MapNativeMutex(int descriptor, int flags) {
    void* view =
        ::mmap(nullptr, sizeof(pthread_mutex_t), PROT_READ | PROT_WRITE, flags, descriptor, 0);
    return view == MAP_FAILED ? nullptr : static_cast<pthread_mutex_t*>(view);
}

void UnmapNativeMutex(pthread_mutex_t* mutex) {
    ::munmap(mutex, sizeof(pthread_mutex_t));
}

// A mutex that this process has open. However often it is opened, it is mapped at one address: for
// each thread the C library keeps a list of the addresses of the robust mutexes that it owns.
//
// Only the owner writes owner_ and depth_. An owner that ends without releasing the mutex leaves
// both unchanged, and the next owner in this process overwrites them.
class NamedMutex {
public:
    NamedMutex() = default;
    NamedMutex(const NamedMutex&) = delete;
    NamedMutex& operator=(const NamedMutex&) = delete;
    ~NamedMutex() {
        if (native_) { UnmapNativeMutex(native_); }
    }

    // Returns false, with errno set, when the system refuses.
    bool OpenUnnamed() {
        native_ = MapNativeMutex(-1, MAP_SHARED | MAP_ANONYMOUS);
        return native_ && InitialiseNativeMutex(native_);
    }
    // Maps the mutex if it is new.
    bool OpenObject(const char* name) {
        object_ = NamedObject::Open(kKind, name, NamedObject::IfAbsent::Create,
                                    sizeof(pthread_mutex_t), [this](int descriptor) {
                                        native_ = MapNativeMutex(descriptor, MAP_SHARED);
                                        return native_ && InitialiseNativeMutex(native_);
                                    });
        return object_ != nullptr;
    }
    bool Map() {
        if (!native_) { native_ = MapNativeMutex(object_->Descriptor(), MAP_SHARED); }
        return native_;
    }

    // Leaves the object to other processes; the mapping stays, because the owner needs it. Returns
    // true if no other process has the object.
    bool LeaveObject() { return !object_ || object_->Leave(); }

    // True if this mutex has left the object that `other` has opened since, and so can take it
    // over.
    bool HasLeftObjectOf(const NamedMutex& other) const {
        QUORVEL_ASSERT(other.object_);
        return object_ && object_->IsSameFileAs(*other.object_);
    }
    bool HasNameOf(const NamedMutex& other) const {
        return object_ && object_->HasNameOf(*other.object_);
    }
    void ComeBackThrough(NamedMutex& other) {
        object_ = std::move(other.object_);
        openCount = 1;
    }

    std::uint32_t Acquire(std::uint32_t timeout) {
        switch (Wait(timeout)) {
            case 0:
                Deepen();
                return kAcquired;
            case EOWNERDEAD:
                ::pthread_mutex_consistent(native_);
                depth_.store(0, std::memory_order_relaxed);
                Deepen();
                return kAbandoned;
            case EBUSY:
            case ETIMEDOUT:
                return kTimedOut;
            default:
                return kFailed;
        }
    }

    // Returns false when the calling thread does not own the mutex.
    bool Release() {
        const std::uint32_t depth = depth_.load(std::memory_order_relaxed);
        if (owner_.load(std::memory_order_relaxed) != ThisThread() || depth == 0) { return false; }
        depth_.store(depth - 1, std::memory_order_relaxed);
        return ::pthread_mutex_unlock(native_) == 0;
    }

    // True if a thread of this process owns the mutex, or owned it when the thread ended.
    bool IsOwned() const { return depth_ != 0; }

    // Releases the mutex if its owner has ended or is the calling thread. Returns false when
    // another thread owns it.
    bool TakeFromOwner() {
        while (Release()) {}
        if (Acquire(0) == kTimedOut) { return false; }
        return Release();
    }

    // How often this process has the mutex open, and the next mutex in the list of those that are
    // closed but must stay mapped. Guarded by the table's lock.
    int openCount = 1;
    std::unique_ptr<NamedMutex> next;

private:
    // The number of the calling thread. Numbers are never reused within the process.
    static std::uint64_t ThisThread() {
        static std::atomic<std::uint64_t> threads{0};
        static thread_local const std::uint64_t number = ++threads;
        return number;
    }

    // Records another acquisition by the calling thread.
    void Deepen() {
        const std::uint64_t thread = ThisThread();
        const bool isOwner = owner_.load(std::memory_order_relaxed) == thread;
        owner_.store(thread, std::memory_order_relaxed);
        depth_.store(isOwner ? depth_.load(std::memory_order_relaxed) + 1 : 1,
                     std::memory_order_relaxed);
    }

    // Waits in slices, because a wake-up can get lost: a release wakes one waiter, and if another
    // thread acquires the mutex first and the woken process is killed, the next release does not
    // know that others are waiting.
    int Wait(std::uint32_t timeout) {
        int result = ::pthread_mutex_trylock(native_);
        while ((result == EBUSY || result == ETIMEDOUT) && timeout != 0) {
            const std::uint32_t slice = std::min(timeout, kLongestSleep);
            result = WaitFor(slice);
            if (timeout != kForever) { timeout -= slice; }
        }
        return result;
    }

    // Uses the system's clock, since ThreadSanitizer does not know the function that takes another
    // one. If the clock is set back meanwhile, the sleep takes longer, but a release still ends it.
    int WaitFor(std::uint32_t milliseconds) {
        timespec deadline{};
        ::clock_gettime(CLOCK_REALTIME, &deadline);
        const long nanoseconds = deadline.tv_nsec + static_cast<long>(milliseconds) * 1'000'000;
        deadline.tv_sec += nanoseconds / 1'000'000'000;
        deadline.tv_nsec = nanoseconds % 1'000'000'000;
        return ::pthread_mutex_timedlock(native_, &deadline);
    }

    pthread_mutex_t* native_ = nullptr;
    std::unique_ptr<NamedObject> object_;  // null for a mutex without a name
    std::atomic<std::uint64_t> owner_{0};
    std::atomic<std::uint32_t> depth_{0};
};

// The named mutexes that this process has open, by user and name, and those that it closed while
// one of its threads owned them. Never destroyed, because a destructor that runs at exit may close
// a mutex.
struct OpenMutexes {
    std::mutex lock;
    std::map<std::pair<UserId, std::string>, std::unique_ptr<NamedMutex>> mutexes;
    std::unique_ptr<NamedMutex> leftBehind;

    // If the object of a mutex left behind has been opened again, removes that mutex from the list
    // and returns it; otherwise null. Destroys mutexes of the same name whose object and owner are
    // gone.
    std::unique_ptr<NamedMutex> TakeLeftBehind(const NamedMutex& opened) {
        for (auto* place = &leftBehind; *place;) {
            const bool isSame = (*place)->HasLeftObjectOf(opened);
            if (!isSame && !((*place)->HasNameOf(opened) && (*place)->TakeFromOwner())) {
                place = &(*place)->next;
                continue;
            }
            std::unique_ptr<NamedMutex> taken = std::move(*place);
            *place = std::move(taken->next);
            if (isSame) { return taken; }
        }
        return nullptr;
    }

    // Removes a mutex from `mutexes`, if it has a name.
    std::unique_ptr<NamedMutex> Remove(NamedMutex* mutex) {
        for (auto entry = mutexes.begin(); entry != mutexes.end(); ++entry) {
            if (entry->second.get() == mutex) { return std::move(mutexes.extract(entry).mapped()); }
        }
        return std::unique_ptr<NamedMutex>(mutex);
    }
};

OpenMutexes& Table() {
    static OpenMutexes& table = *new OpenMutexes;
    return table;
}

NamedMutex* OpenUnnamed() {
    auto mutex = std::make_unique<NamedMutex>();
    return mutex->OpenUnnamed() ? mutex.release() : nullptr;
}

NamedMutex* Open(const std::string& name) {
    OpenMutexes& table = Table();
    const std::lock_guard guard(table.lock);
    const std::pair key(CurrentUser(), name);
    if (const auto found = table.mutexes.find(key); found != table.mutexes.end()) {
        ++found->second->openCount;
        return found->second.get();
    }
    auto opened = std::make_unique<NamedMutex>();
    if (!opened->OpenObject(name.c_str())) { return nullptr; }
    const auto entry = table.mutexes.emplace(key, std::move(opened)).first;
    std::unique_ptr<NamedMutex>& mutex = entry->second;
    if (std::unique_ptr<NamedMutex> former = table.TakeLeftBehind(*mutex)) {
        former->ComeBackThrough(*mutex);
        mutex = std::move(former);
    }
    if (!mutex->Map()) {
        table.mutexes.erase(entry);
        return nullptr;
    }
    return mutex.get();
}

// The UTF-8 form of a wide name, so that both forms of a name denote one mutex.
std::string ToUtf8(const wchar_t* name) {
    std::string text;
    for (; *name != L'\0'; ++name) {
        const auto code = static_cast<char32_t>(*name);
        if (code < 0x80) {
            text += static_cast<char>(code);
            continue;
        }
        const int more = code < 0x800 ? 1 : code < 0x10000 ? 2 : 3;
        const std::uint32_t lead = more == 1 ? 0xC0 : more == 2 ? 0xE0 : 0xF0;
        text += static_cast<char>(lead | (code >> (6 * more) & 0x3F));
        for (int shift = 6 * (more - 1); shift >= 0; shift -= 6) {
            text += static_cast<char>(0x80 | (code >> shift & 0x3F));
        }
    }
    return text;
}

template <typename Opener>
void* OpenOrNull(const Opener& opener) noexcept {
    try {
        return opener();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return nullptr;
    }
}

}  // namespace

void* OpenNamedMutex(const char* name) noexcept {
    // not reached in tests: branches for exceptions, which gcov does not mark as such
    return OpenOrNull([name] { return name ? Open(name) : OpenUnnamed(); });
}

void* OpenNamedMutex(const wchar_t* name) noexcept {
    // not reached in tests: branches for exceptions, which gcov does not mark as such
    return OpenOrNull([name] { return name ? Open(ToUtf8(name)) : OpenUnnamed(); });
}

std::uint32_t AcquireNamedMutex(void* handle, std::uint32_t timeout) noexcept {
    return static_cast<NamedMutex*>(handle)->Acquire(timeout);
}

void ReleaseNamedMutex(void* handle) noexcept {
    static_cast<NamedMutex*>(handle)->Release();
}

// Closing the last handle in this process closes the mutex, even if a thread of this process owns
// it. While other processes have the mutex open, the thread owns it until the thread ends. The
// thread's list of owned mutexes still points to this one, so the mapping stays. Ownership can be
// taken from the thread only once no other process has the object.
void CloseNamedMutex(void* handle) noexcept {
    if (handle == kInvalidHandle) { return; }
    auto* const mutex = static_cast<NamedMutex*>(handle);
    OpenMutexes& table = Table();
    const std::lock_guard guard(table.lock);
    QUORVEL_ASSERT(mutex->openCount > 0);
    if (--mutex->openCount > 0) { return; }
    std::unique_ptr<NamedMutex> closed = table.Remove(mutex);
    if (closed->IsOwned() && !(closed->LeaveObject() && closed->TakeFromOwner())) {
        closed->next = std::move(table.leftBehind);
        table.leftBehind = std::move(closed);
    }
}

}  // namespace Quorvel::Platform
