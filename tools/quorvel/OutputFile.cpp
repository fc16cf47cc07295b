#include "tools/quorvel/OutputFile.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "format/Path.h"
#include "platform/PlainFile.h"
#include "platform/Process.h"

namespace Quorvel::Tool {

namespace fs = std::filesystem;

OutputFile::OutputFile(const std::string& name, const Cache& cache) : name_(name), path_(name) {
    std::error_code ignored;
    if (fs::equivalent(Format::ToPath(name), Format::ToPath(cache.Path()), ignored)) {
        throw Failure(name + ": the output would replace the cache; name another file", kUsage);
    }
    const fs::file_status status = fs::status(Format::ToPath(name), ignored);
    if (fs::is_directory(status)) { throw Failure(name + ": a directory; name a file"); }
    if (fs::exists(status) && !fs::is_regular_file(status)) {
        Open(name);
        return;
    }
    if (fs::exists(status)) { path_ = fs::canonical(Format::ToPath(name)).string(); }
    unfinished_ = fmt::format("{}.part-{}", path_, Platform::CurrentProcessId());
    std::remove(unfinished_.c_str());  // left by an earlier process with the same number
    std::FILE* const file = Platform::CreateNewFile(unfinished_.c_str());
    if (!file) { Fail(); }
    std::fclose(file);
    Open(unfinished_);
}

OutputFile::~OutputFile() {
    stream_.close();
    if (!unfinished_.empty()) { std::remove(unfinished_.c_str()); }
}

void OutputFile::Finish() {
    if (stream_) { errno = 0; }  // otherwise errno says why a write failed
    stream_.close();
    if (!stream_) { Fail(); }
    if (unfinished_.empty()) { return; }
    std::error_code error;
    const fs::file_status old = fs::status(Format::ToPath(path_), error);
    if (fs::exists(old)) { fs::permissions(Format::ToPath(unfinished_), old.permissions(), error); }
    fs::rename(Format::ToPath(unfinished_), Format::ToPath(path_), error);
    if (error) { throw Failure(fmt::format("{}: {}", name_, error.message())); }
    unfinished_.clear();
}

void OutputFile::Open(const std::string& path) {
    errno = 0;
    stream_.open(path, std::ios::binary | std::ios::out);
    if (!stream_) { Fail(); }
}

void OutputFile::Fail() const {
    throw Failure(fmt::format("{}: the output can't be written: {}", name_,
                              errno != 0 ? std::strerror(errno) : "write error"));
}

}  // namespace Quorvel::Tool
