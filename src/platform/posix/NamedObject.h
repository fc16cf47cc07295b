#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace Quorvel::Platform {

// A file that processes of one user share by name, alive exactly as long as somebody holds it: what
// Windows gives its named kernel objects.
//
// The files stand in a folder of the user's own, "/dev/shm/quorvel-<user id>", mode 0700, so that
// no other user can reach or plant anything. Every holder keeps a shared flock on the object's
// file; the system drops it when the process ends, however it ends. Who can have an exclusive one
// is alone with the file: at opening that shows that the file was left by a holder that was killed,
// and another one takes its place, and at closing it makes the closer the last, who removes the
// file. Both decisions are taken under an exclusive flock on one more file of the folder, the gate,
// so that nobody opens while another decides.
//
// A process that makes its first object removes all files that nobody holds: those of processes
// that were killed, and that nobody has opened since.
class NamedObject {
public:
    enum class IfAbsent { Create, Fail };

    // Opens the object of a kind and a name. A new one gets the given number of bytes, all zero,
    // and is passed to initialise before anybody else can open it; initialise returns whether it
    // succeeded. Returns null on failure, with errno set: ENOENT when there is no such object and
    // none was to be made, EACCES when what is in its place belongs to somebody else.
    static std::unique_ptr<NamedObject> Open(const char* kind, const char* name, IfAbsent ifAbsent,
                                             std::size_t bytes,
                                             const std::function<bool(int)>& initialise = {});

    NamedObject(const NamedObject&) = delete;
    NamedObject& operator=(const NamedObject&) = delete;

    // Leaves.
    ~NamedObject();

    // Lets go of the object; the last holder removes it. Returns whether that was the last one,
    // false also when it can't be told. Keeps errno. Does nothing the second time, and takes
    // nothing from the parent in a process that it forked.
    bool Leave();

    // Whether both are, or were before they left, holders of one object.
    bool IsSameFileAs(const NamedObject& other) const;

    // Whether both are of one kind and name, the same object or one that has taken its place.
    bool HasNameOf(const NamedObject& other) const;

    int Descriptor() const { return descriptor_; }
    std::size_t Size() const { return size_; }

    // The folder of the files, and the name in it of the file that stands for an object.
    static std::string Folder();
    static std::string FileName(const char* kind, const char* name);

private:
    NamedObject(std::string fileName, int descriptor, const struct stat& status) noexcept;

    std::string fileName_;
    int descriptor_;  // -1 once left
    std::size_t size_;
    pid_t process_;  // that opened it
    dev_t device_;
    ino_t inode_;
};

}  // namespace Quorvel::Platform
