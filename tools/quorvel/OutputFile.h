#pragma once

#include <fstream>
#include <ostream>
#include <string>

#include "tools/quorvel/Cache.h"

namespace Quorvel::Tool {

// A file that a command writes. It gets its name when it is complete; until then it has a temporary
// name in the same folder. A device or a pipe is written in place.
class OutputFile {
public:
    // Throws Failure; with the exit code kUsage if the name is that of the cache's own file.
    OutputFile(const std::string& name, const Cache& cache);
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    // Removes a file that is not complete.
    ~OutputFile();

    std::ostream& Stream() { return stream_; }

    // Throws Failure.
    void Finish();

private:
    void Open(const std::string& path);
    [[noreturn]] void Fail() const;

    const std::string name_;
    std::string path_;
    std::string unfinished_;  // the temporary name; empty if there is none
    std::ofstream stream_;
};

}  // namespace Quorvel::Tool
