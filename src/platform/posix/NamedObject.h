#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "platform/Impersonation.h"

namespace Quorvel::Platform {

// A file that processes of one user share by name. It lives exactly as long as any process holds
// it, like a named kernel object of Windows.
//
// The files lie in a folder of the user, "/dev/shm/quorvel-<user id>", mode 0700, so that no other
// user can reach or plant anything. Root reaches the objects of a user by Impersonation. Every
// holder keeps a shared flock on the object's file; the system drops it when the process ends,
// however it ends. A process that gets an exclusive flock is the only one with the file. When it
// opens an object, that means a killed holder has left the file, and a new file replaces it. When
// it closes one, it is the last holder and removes the file. Both decisions are made under an
// exclusive flock on another file of the folder, the gate, so that no process opens an object while
// another one decides.
//
// A process that creates its first object removes all files that no process holds: those that
// killed processes left and that have not been opened since.
class NamedObject {
public:
    enum class IfAbsent { Create, Fail };

    // Opens the object of a kind and a name. A new one gets the given number of zero bytes and is
    // passed to initialise before any other process can open it; initialise returns whether it
    // succeeded. Returns null on failure, with errno set: ENOENT when the object does not exist and
    // ifAbsent is Fail, EACCES when its file is not a private file of this user.
    static std::unique_ptr<NamedObject> Open(const char* kind, const char* name, IfAbsent ifAbsent,
                                             std::size_t bytes,
                                             const std::function<bool(int)>& initialise = {});

    NamedObject(const NamedObject&) = delete;
    NamedObject& operator=(const NamedObject&) = delete;

    // Calls Leave.
    ~NamedObject();

    // Stops holding the object; the last holder removes it. Returns true if this was the last
    // holder, false if it was not or if that can't be determined. Preserves errno. A second call
    // does nothing. In a forked process, the parent keeps holding the object.
    bool Leave();

    // True if both hold the same object, or held it before Leave.
    bool IsSameFileAs(const NamedObject& other) const;

    // True if both have the same kind, name and user: the same object or one that replaced it.
    bool HasNameOf(const NamedObject& other) const;

    int Descriptor() const { return descriptor_; }
    std::size_t Size() const { return size_; }

    // The folder of the files, and the name of an object's file in it.
    static std::string Folder();
    static std::string FileName(const char* kind, const char* name);

private:
    NamedObject(std::string fileName, int descriptor, const struct stat& status) noexcept;

    std::string fileName_;
    int descriptor_;  // -1 after Leave
    std::size_t size_;
    UserId user_;    // whose folder has the file
    pid_t process_;  // the process that opened the object
    dev_t device_;
    ino_t inode_;
};

}  // namespace Quorvel::Platform
