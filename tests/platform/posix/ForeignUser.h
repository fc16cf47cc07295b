#pragma once

#include <sys/types.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "support/ChildProcess.h"

namespace Quorvel::Testing {

// A user whom nobody else uses, with a folder for named objects of his own, for tests that need a
// second user or want to meddle with the folder. Both want the privilege of the superuser. The
// folder is removed at the end of the scope.
class ForeignUser {
public:
    ForeignUser();
    ForeignUser(const ForeignUser&) = delete;
    ForeignUser& operator=(const ForeignUser&) = delete;
    ~ForeignUser();

    uid_t Id() const { return id_; }
    const std::filesystem::path& Folder() const { return folder_; }

    // Makes the folder, or something in it, as the user would.
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

// An ObjectUser has named objects open and does as it is told; where it answers with a number, that
// is 0 or the system's error:
//
//     memory NAME      makes or opens a block of a page                  number
//     attach NAME      opens a block                                     number
//     mutex NAME       makes or opens a mutex                            number
//     acquire          acquires the last mutex without waiting           result of the wait
//     write VALUE      writes the first byte of the last block           "written"
//     read             reads it                                          value
//     close            closes everything                                 "closed"
//     look PATH        opens a file for reading                          number
//     descriptors N    may open N more files from now on                 number
//     bytes N          may make files of up to N bytes from now on       number
//     inherited PATH   how many files below PATH it had open at start    number of files

}  // namespace Quorvel::Testing
