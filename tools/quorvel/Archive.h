#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <istream>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "tools/quorvel/Cache.h"
#include "tools/quorvel/Checksum.h"
#include "tools/quorvel/Incoming.h"

struct archive;

// Effects in a tar archive. Each one is a file in the folder "effects". The file's name begins with
// a number and resembles the effect's name. The last file, "manifest.jsonl", holds everything else,
// one JSON value on each line:
//
//   {"format":"quorvel effects","version":1}
//   {"member":"effects/000001-fog","name":"fog","size":812,"permanent":true,
//    "time":"2026-11-22T13:05:07.250","xxh128":"..."}    for each effect, in the order of names
//   {"effects":1,"xxh128":"..."}                         of all lines before this one
//
// Names and times are spelled as Escape and Time do. A checksum is what xxh128sum prints. The
// manifest comes last because effects come and go while an archive is written; it also proves that
// the archive is complete.
namespace Quorvel::Tool {

enum class Compression { None, Gzip, Zstd };

// Writes an archive into a stream. Throws Failure if that fails; `name` is the archive's name in
// the message.
class ArchiveWriter {
public:
    ArchiveWriter(std::ostream& out, const std::string& name, Compression compression);
    ArchiveWriter(const ArchiveWriter&) = delete;
    ArchiveWriter& operator=(const ArchiveWriter&) = delete;
    ~ArchiveWriter();

    // REQUIRES: effects are added in the order of their names.
    void Add(const EffectBytes& effect);

    // Completes the archive. Must be the last call.
    void Finish();

private:
    void WriteBlock(const void* data, std::size_t size);
    void AddFile(const std::string& path, std::uint64_t size, std::time_t time);
    void Write(const void* data, std::size_t size);
    void AddLine(const Json& json);
    void Try(int result);

    std::ostream& out_;
    bool isOutputUsed_ = true;
    int error_ = 0;  // errno when the output failed
    const std::string name_;
    std::unique_ptr<archive, int (*)(archive*)> archive_;
    std::uint64_t effects_ = 0;
    std::time_t newest_ = 0;

    std::vector<std::string> manifest_;  // in blocks
    std::uint64_t manifestSize_ = 0;
    ChecksumBuilder checksum_;  // of the manifest
};

// Reads an archive to its end, and adds the effects whose names match a pattern. Returns their
// number. Throws Failure, with the exit code kNo, if the archive is damaged or incomplete, or was
// not written by ArchiveWriter. `advance` is called between files, with the number of bytes read
// since its last call.
std::uint64_t ReadArchive(std::istream& in, const std::string& name, const std::string& match,
                          Incoming& incoming, const std::function<void(std::uint64_t)>& advance);

}  // namespace Quorvel::Tool
