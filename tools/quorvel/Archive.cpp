#include "tools/quorvel/Archive.h"

#include <archive.h>
#include <archive_entry.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "effectcache/EffectRecord.h"
#include "effectcache/SpaceBudget.h"
#include "tools/quorvel/CacheEditor.h"
#include "tools/quorvel/Terminal.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {

namespace {

constexpr char kManifestName[] = "manifest.jsonl";
constexpr char kFormat[] = "quorvel effects";
constexpr unsigned kVersion = 1;

// An archive that was written while its cache changed may hold slightly more than fits in a cache.
constexpr std::uint64_t kMostArchived = 2 * kStreamLimit;
constexpr std::uint64_t kMostArchivedBytes = 2 * kLargestSpaceBudget;
constexpr std::size_t kLongestLine = 5 * kLongestName + 1024;  // a byte may become \\xNN

constexpr std::size_t kLongestPath = 255;

constexpr std::size_t kBlockSize = 65536;

struct FreeEntry {
    void operator()(archive_entry* entry) const { archive_entry_free(entry); }
};

// The name of an effect's file: legal on every system, and made unique by its number.
std::string FileName(std::uint64_t number, const std::string& name) {
    constexpr std::size_t kLongest = 80;
    std::string path = fmt::format("effects/{:06}-", number);
    for (const char c : std::string_view(name).substr(0, kLongest)) {
        const bool isPlain = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') ||
                             (c >= 'A' && c <= 'Z') || (c != '\0' && std::strchr("._-", c));
        path += isPlain ? c : '_';
    }
    return path;
}

}  // namespace

// ---- Writing ------------------------------------------------------------------------------------

ArchiveWriter::ArchiveWriter(std::ostream& out, const std::string& name, Compression compression)
    : out_(out), name_(name), archive_(archive_write_new(), archive_write_free) {
    if (!archive_) { throw std::bad_alloc(); }
    AddLine({{"format", kFormat}, {"version", kVersion}});
    Try(archive_write_set_format_pax_restricted(archive_.get()));
    Try(archive_write_set_bytes_per_block(archive_.get(), kBlockSize));
    Try(archive_write_set_bytes_in_last_block(archive_.get(), 1));
    if (compression == Compression::Gzip) {
        Try(archive_write_add_filter_gzip(archive_.get()));
        // Without a time stamp, the same cache always gives the same archive.
        Try(archive_write_set_filter_option(archive_.get(), "gzip", "timestamp", nullptr));
    }
    if (compression == Compression::Zstd) { Try(archive_write_add_filter_zstd(archive_.get())); }
    // Never reports an error: libarchive would not free an archive whose output has failed.
    const auto writeBlock = [](archive* /*archive*/, void* self, const void* data,
                               std::size_t size) {
        static_cast<ArchiveWriter*>(self)->WriteBlock(data, size);
        return static_cast<la_ssize_t>(size);
    };
    Try(archive_write_open(archive_.get(), this, nullptr, writeBlock, nullptr));
}

ArchiveWriter::~ArchiveWriter() {
    isOutputUsed_ = false;  // an unfinished archive gets no end
}

void ArchiveWriter::WriteBlock(const void* data, std::size_t size) {
    if (!isOutputUsed_ || !out_) { return; }
    errno = 0;
    out_.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
    error_ = errno;
}

void ArchiveWriter::Try(int result) {
    const char* why = nullptr;
    if (!out_) {
        why = error_ != 0 ? std::strerror(error_) : "write error";
    } else if (result != ARCHIVE_OK) {
        why = archive_error_string(archive_.get());
    } else {
        return;
    }
    throw Failure(
        fmt::format("{}: the output can't be written: {}", name_, why ? why : "unknown error"));
}

void ArchiveWriter::AddFile(const std::string& path, std::uint64_t size, std::time_t time) {
    constexpr unsigned kPermissions = 0644;
    const std::unique_ptr<archive_entry, FreeEntry> entry(archive_entry_new());
    if (!entry) { throw std::bad_alloc(); }
    archive_entry_set_pathname(entry.get(), path.c_str());
    archive_entry_set_size(entry.get(), static_cast<la_int64_t>(size));
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    archive_entry_set_perm(entry.get(), kPermissions);
    archive_entry_set_mtime(entry.get(), time, 0);
    Try(archive_write_header(archive_.get(), entry.get()));
}

void ArchiveWriter::Write(const void* data, std::size_t size) {
    const la_ssize_t written = archive_write_data(archive_.get(), data, size);
    Try(written < 0 ? static_cast<int>(written) : ARCHIVE_OK);
}

void ArchiveWriter::Add(const EffectBytes& effect) {
    const auto& [name, record] = effect.entry;
    const std::string path = FileName(++effects_, name);
    const std::time_t time = ToUnixTime(record.time);
    newest_ = std::max(newest_, time);
    AddFile(path, effect.data.size(), time);
    Write(effect.data.data(), effect.data.size());
    AddLine({{"member", path},
             {"name", Escape(name)},
             {"size", effect.data.size()},
             {"permanent", record.permanent != 0},
             {"time", Time(record.time)},
             {"xxh128", ChecksumOf(effect.data.data(), effect.data.size()).Text()}});
}

void ArchiveWriter::AddLine(const Json& json) {
    const std::string line = json.dump() + '\n';
    checksum_.Add(line.data(), line.size());
    if (manifest_.empty() || manifest_.back().size() + line.size() > kBlockSize) {
        manifest_.emplace_back().reserve(kBlockSize);
    }
    manifest_.back() += line;
    manifestSize_ += line.size();
}

void ArchiveWriter::Finish() {
    AddLine({{"effects", effects_}, {"xxh128", checksum_.Get().Text()}});
    AddFile(kManifestName, manifestSize_, newest_);
    for (const std::string& block : manifest_) {
        Write(block.data(), block.size());
    }
    Try(archive_write_close(archive_.get()));
}

// ---- Reading ------------------------------------------------------------------------------------

namespace {

struct Input {
    std::istream& stream;
    std::array<char, kBlockSize> block;
};

la_ssize_t ReadBlock(archive* archive, void* client, const void** data) {
    errno = 0;
    auto& input = *static_cast<Input*>(client);
    input.stream.read(input.block.data(), kBlockSize);
    if (input.stream.bad() || IsStopRequested()) {
        archive_set_error(archive, errno, "%s", errno != 0 ? std::strerror(errno) : "read error");
        return -1;
    }
    *data = input.block.data();
    return static_cast<la_ssize_t>(input.stream.gcount());
}

// True if a path leaves the folder that it begins in, or may do so on some system.
bool IsOutside(std::string_view path) {
    if (path.find_first_of("\\:") != std::string_view::npos || path.substr(0, 1) == "/") {
        return true;
    }
    for (std::size_t at = 0; at <= path.size();) {
        const std::size_t end = std::min(path.find('/', at), path.size());
        if (path.substr(at, end - at) == "..") { return true; }
        at = end + 1;
    }
    return false;
}

class ArchiveReader {
public:
    ArchiveReader(std::istream& in, const std::string& name, const std::string& match,
                  Incoming& incoming)
        : input_{in, {}},
          name_(name),
          match_(match),
          incoming_(incoming),
          archive_(archive_read_new()) {
        if (!archive_) { throw std::bad_alloc(); }
        Try(archive_read_support_format_tar(archive_.get()));
        Try(archive_read_support_filter_gzip(archive_.get()));
        Try(archive_read_support_filter_zstd(archive_.get()));
        Try(archive_read_open(archive_.get(), &input_, nullptr, ReadBlock, nullptr));
    }

    std::uint64_t Run(const std::function<void(std::uint64_t)>& advance) {
        std::uint64_t bytes = 0;
        archive_entry* entry = nullptr;
        for (;;) {
            const int result = archive_read_next_header(archive_.get(), &entry);
            if (result == ARCHIVE_EOF) { break; }
            Try(result == ARCHIVE_WARN ? ARCHIVE_OK : result);
            ReadMember(entry);
            const auto now = static_cast<std::uint64_t>(archive_filter_bytes(archive_.get(), -1));
            advance(now - bytes);
            bytes = now;
        }
        Require(isComplete_, "it has no complete manifest");
        if (!members_.empty()) {
            Refuse(fmt::format("\"{}\" is not in the manifest", Escape(members_.begin()->first)));
        }
        return matching_;
    }

private:
    struct Member {
        std::fpos_t place;
        std::uint64_t size;
        Checksum checksum;
    };

    struct Free {
        void operator()(archive* archive) const { archive_read_free(archive); }
    };

    [[noreturn]] void Refuse(const std::string& why) const {
        throw Failure(fmt::format("{}: no intact archive of \"quorvel export\": {}; nothing was "
                                  "changed",
                                  name_, why),
                      kNo);
    }

    void Require(bool holds, const char* otherwise) const {
        if (!holds) { Refuse(otherwise); }
    }

    void Try(int result) const {
        if (result == ARCHIVE_OK) { return; }
        StopIfAsked();
        const char* const text = archive_error_string(archive_.get());
        const std::string why = text ? Escape(text) : "it is damaged or cut short";
        if (input_.stream.bad()) {
            throw Failure(fmt::format("{}: can't be read: {}; nothing was changed", name_, why));
        }
        Refuse(why);
    }

    void ReadMember(archive_entry* entry) {
        const char* const path = archive_entry_pathname(entry);
        Require(path, "a file in it has a name that can't be read");
        Require(std::strlen(path) <= kLongestPath, "a file in it has a name that is too long");
        const std::string shown = Escape(path);
        if (IsOutside(path)) { Refuse(fmt::format("\"{}\" lies outside of it", shown)); }
        if (archive_entry_filetype(entry) == AE_IFDIR) { return; }
        if (archive_entry_filetype(entry) != AE_IFREG || archive_entry_hardlink(entry)) {
            Refuse(fmt::format("\"{}\" is not a file", shown));
        }
        if (isComplete_) { Refuse(fmt::format("\"{}\" comes after the manifest", shown)); }
        if (path == std::string_view(kManifestName)) {
            ReadManifest();
        } else {
            ReadEffect(path, static_cast<std::uint64_t>(archive_entry_size(entry)));
        }
    }

    void ReadEffect(const std::string& path, std::uint64_t size) {
        if (size < kSmallestEffect || size > kLargestEffect) {
            Refuse(fmt::format("\"{}\" has {}; an effect has 1 byte to 1 MiB", Escape(path),
                               Count(size, "byte")));
        }
        Format::Bytes data(size);
        if (ReadData(data.data(), size) != size) {
            Refuse(fmt::format("\"{}\" is cut short", Escape(path)));
        }
        bytes_ += size;
        Require(members_.size() < kMostArchived && bytes_ <= kMostArchivedBytes,
                "it holds more than a cache can");
        const Member member = {incoming_.Keep(data), size, ChecksumOf(data.data(), size)};
        if (!members_.emplace(path, member).second) {
            Refuse(fmt::format("\"{}\" appears twice", Escape(path)));
        }
    }

    std::size_t ReadData(void* to, std::size_t size) {
        std::size_t done = 0;
        while (done < size) {
            const la_ssize_t read =
                archive_read_data(archive_.get(), static_cast<char*>(to) + done, size - done);
            if (read < 0) { Try(static_cast<int>(read)); }
            if (read <= 0) { break; }
            done += static_cast<std::size_t>(read);
        }
        return done;
    }

    void ReadManifest() {
        std::string text;
        std::array<char, kBlockSize> block;
        while (const std::size_t size = ReadData(block.data(), block.size())) {
            text.append(block.data(), size);
            std::size_t begin = 0;
            for (std::size_t end; (end = text.find('\n', begin)) != std::string::npos;) {
                ReadLine(text.substr(begin, end + 1 - begin));
                begin = end + 1;
            }
            text.erase(0, begin);
            if (text.size() > kLongestLine) { RefuseLine("it is too long"); }
        }
        Require(isComplete_ && text.empty(), "its manifest is cut short");
    }

    [[noreturn]] void RefuseLine(const std::string& why) const {
        Refuse(fmt::format("line {} of its manifest: {}", lines_ + 1, why));
    }

    void ReadLine(const std::string& line) {
        try {
            const Json json = Json::parse(line);
            if (isComplete_) { RefuseLine("it comes after the last one"); }
            if (lines_ == 0) {
                ReadFirstLine(json);
            } else if (json.contains("member")) {
                ReadEffectLine(json);
            } else {
                ReadLastLine(json);
            }
        } catch (const Json::exception&) { RefuseLine("it is not what \"quorvel export\" writes"); }
        manifestChecksum_.Add(line.data(), line.size());
        ++lines_;
    }

    void ReadFirstLine(const Json& json) {
        if (json.at("format") != kFormat) { RefuseLine("another format"); }
        if (json.at("version") != kVersion) {
            RefuseLine("it is of another version; use a newer quorvel");
        }
    }

    void ReadEffectLine(const Json& json) {
        const auto member = members_.find(json.at("member").get<std::string>());
        if (member == members_.end()) { RefuseLine("its file is not in the archive"); }
        if (json.at("size") != member->second.size ||
            json.at("xxh128") != member->second.checksum.Text()) {
            RefuseLine(fmt::format("\"{}\" is damaged", Escape(member->first)));
        }
        std::string name;
        Format::EntryTime time;
        try {
            name = Unescape(json.at("name").get<std::string>());
            time = ParseTime(json.at("time").get<std::string>());
        } catch (const Failure& failure) { RefuseLine(failure.what()); }
        if (name.size() < kShortestName || name.size() > kLongestName) {
            RefuseLine(fmt::format("the name has {}", Count(name.size(), "byte")));
        }
        if (lines_ > 1 && !Format::NameOrder()(last_, name)) {
            RefuseLine("the names are not in order");
        }
        if (Matches(match_, name)) {
            incoming_.Add(name,
                          {time, json.at("permanent").get<bool>(),
                           static_cast<std::uint32_t>(member->second.size), member->second.place});
            ++matching_;
        }
        members_.erase(member);
        last_ = name;
    }

    void ReadLastLine(const Json& json) {
        if (json.at("effects") != lines_ - 1 ||
            json.at("xxh128") != manifestChecksum_.Get().Text()) {
            RefuseLine("the lines before it are damaged");
        }
        isComplete_ = true;
    }

    Input input_;
    const std::string& name_;
    const std::string& match_;
    Incoming& incoming_;
    const std::unique_ptr<archive, Free> archive_;

    std::unordered_map<std::string, Member> members_;  // those not found in the manifest yet
    std::uint64_t bytes_ = 0;

    ChecksumBuilder manifestChecksum_;
    std::uint64_t lines_ = 0;  // that were read
    std::string last_;         // name in the manifest
    std::uint64_t matching_ = 0;
    bool isComplete_ = false;  // the last line was read
};

}  // namespace

std::uint64_t ReadArchive(std::istream& in, const std::string& name, const std::string& match,
                          Incoming& incoming, const std::function<void(std::uint64_t)>& advance) {
    return ArchiveReader(in, name, match, incoming).Run(advance);
}

}  // namespace Quorvel::Tool
