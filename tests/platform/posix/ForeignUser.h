#pragma once

#include <sys/types.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "support/ChildProcess.h"

namespace Quorvel::Testing {

// An unused user id with its own folder for named objects, for tests that need a second user or
// tamper with the folder. Both require root. The folder is removed on destruction.
class ForeignUser {
public:
    explicit ForeignUser(int number = 0);  // below 8: distinguishes the users of a test
    ForeignUser(const ForeignUser&) = delete;
    ForeignUser& operator=(const ForeignUser&) = delete;
    ~ForeignUser();

    uid_t Id() const { return id_; }
    const std::filesystem::path& Folder() const { return folder_; }

    // Make the folder, or a file in it, and give it to the user.
    void MakeFolder(mode_t mode) const;
    void MakeFile(const std::filesystem::path& path, mode_t mode) const;
    void GiveAway(const std::filesystem::path& path) const;

    // Starts an ObjectUser that runs as this user.
    std::unique_ptr<ChildProcess> StartObjectUser() const;

private:
    uid_t id_;
    std::filesystem::path folder_;
};

// Starts an ObjectUser that runs as the user of the test.
std::unique_ptr<ChildProcess> StartObjectUser();

// An ObjectUser opens and uses named objects by commands. It answers as stated at the right; an
// error is the system's number, or 0:
//
//     memory NAME      creates or opens a block of one page              error
//     attach NAME      opens a block                                     error
//     mutex NAME       creates or opens a mutex                          error
//     acquire          acquires the last mutex without waiting           result of the wait
//     release          releases the last mutex                           "released"
//     write VALUE      writes the first byte of the last block           "written"
//     read             reads it                                          value
//     close            closes everything                                 "closed"
//     look PATH        opens a file for reading                          error
//     descriptors N    limits itself to N more open files                error
//     bytes N          limits the files it writes to N bytes             error
//     inherited PATH   counts the files below PATH it had open at start  number of files

}  // namespace Quorvel::Testing
