#include "tool/TarFile.h"

#include <archive.h>
#include <archive_entry.h>

#include <sstream>
#include <stdexcept>

namespace Quorvel::Tool {

namespace {

using Kind = TarMember::Kind;

void Require(bool holds) {
    if (!holds) { throw std::runtime_error("the archive can't be made or read"); }
}

la_ssize_t WriteBlock(archive* /*archive*/, void* out, const void* data, std::size_t size) {
    static_cast<std::string*>(out)->append(static_cast<const char*>(data), size);
    return static_cast<la_ssize_t>(size);
}

void SetKind(archive_entry* entry, Kind kind) {
    archive_entry_set_filetype(entry, kind == Kind::Directory      ? AE_IFDIR
                                      : kind == Kind::SymbolicLink ? AE_IFLNK
                                      : kind == Kind::Device       ? AE_IFCHR
                                                                   : AE_IFREG);
    if (kind == Kind::SymbolicLink) { archive_entry_set_symlink(entry, "/etc/passwd"); }
    if (kind == Kind::HardLink) { archive_entry_set_hardlink(entry, "/etc/passwd"); }
}

}  // namespace

std::string Pack(const std::vector<TarMember>& members) {
    std::string result;
    archive* const writer = archive_write_new();
    archive_write_set_format_pax_restricted(writer);
    archive_write_set_bytes_in_last_block(writer, 1);
    Require(archive_write_open(writer, &result, nullptr, WriteBlock, nullptr) == ARCHIVE_OK);
    for (const TarMember& member : members) {
        archive_entry* const entry = archive_entry_new();
        archive_entry_set_pathname(entry, member.path.c_str());
        archive_entry_set_size(entry, static_cast<la_int64_t>(member.data.size()));
        archive_entry_set_perm(entry, 0644);
        SetKind(entry, member.kind);
        Require(archive_write_header(writer, entry) == ARCHIVE_OK);
        archive_entry_free(entry);
        Require(archive_write_data(writer, member.data.data(), member.data.size()) >= 0);
    }
    archive_write_close(writer);
    archive_write_free(writer);
    return result;
}

std::vector<TarMember> Unpack(const std::string& archive) {
    std::vector<TarMember> members;
    ::archive* const reader = archive_read_new();
    archive_read_support_format_tar(reader);
    archive_read_support_filter_all(reader);
    Require(archive_read_open_memory(reader, archive.data(), archive.size()) == ARCHIVE_OK);
    archive_entry* entry = nullptr;
    while (archive_read_next_header(reader, &entry) == ARCHIVE_OK) {
        TarMember member;
        member.path = archive_entry_pathname(entry);
        member.data.resize(static_cast<std::size_t>(archive_entry_size(entry)));
        Require(archive_read_data(reader, member.data.data(), member.data.size()) >= 0);
        members.push_back(member);
    }
    archive_read_free(reader);
    return members;
}

}  // namespace Quorvel::Tool
