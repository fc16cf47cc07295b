#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <string>

#include "format/Bytes.h"

namespace Quorvel::Fuzz {

// What a process that dies in a save may leave: the cache's file, and perhaps a journal next to it.
struct CrashImage {
    enum class Kind {
        NoSave,           // the file is as before
        Unfinished,       // marked and partly overwritten; the journal may end in the last piece
        DamagedJournal,   // the same, with a damaged journal
        AnothersJournal,  // the journal does not belong to the file
        CountOfKinds
    };

    Kind kind = Kind::NoSave;
    Format::Bytes file;
    Format::Bytes journal;
};

// The number of bytes of input that MakeCrashImage takes.
constexpr std::size_t kCrashInput = 24;

// Lets the library's own journal keep pages of a file of that path and content, and then overwrites
// them. A file without a whole page is left as NoSave.
CrashImage MakeCrashImage(const std::string& path, const Format::Bytes& before,
                          CrashImage::Kind kind, FuzzedDataProvider& input);

// Writes both files, undoes the save and returns the file's new content. Requires that this is the
// content before the save if the journal is intact; otherwise it may also be what the crash left.
Format::Bytes Recover(const std::string& path, const Format::Bytes& before,
                      const CrashImage& image);

void WriteFiles(const std::string& path, const CrashImage& image);

}  // namespace Quorvel::Fuzz
