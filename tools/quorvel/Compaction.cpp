#include "tools/quorvel/Compaction.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "effectcache/EffectIndex.h"
#include "effectcache/SpaceBudget.h"
#include "effectcache/StoredEffect.h"
#include "format/Path.h"
#include "package/PagedFilePackage.h"
#include "pagestore/RollbackJournal.h"
#include "pagestore/StdioFile.h"
#include "platform/PlainFile.h"
#include "platform/ScopeGuard.h"
#include "quorvel/Exceptions.h"
#include "tools/quorvel/CacheEditor.h"
#include "tools/quorvel/Progress.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {

namespace fs = std::filesystem;

namespace {

using Page = std::vector<std::uint8_t>;

[[noreturn]] void FailWith(int error) {
    throw FileIOException(static_cast<std::uint32_t>(error));
}

void OpenFile(StdioFile& file, const std::string& path, const char* mode) {
    if (const int error = file.Open(path.c_str(), mode); error != 0) { FailWith(error); }
}

// Some file systems report only now that bytes which were written are lost.
void CloseFile(StdioFile& file) {
    if (const int error = file.Close(); error != 0) { FailWith(error); }
}

void Read(std::FILE* file, std::uint64_t page, Page& to) {
    if (std::fseek(file, static_cast<long>(page * kPageSize), SEEK_SET) != 0 ||
        std::fread(to.data(), kPageSize, 1, file) != 1) {
        FailWith(errno);
    }
}

void Write(std::FILE* file, std::uint64_t page, const Page& from) {
    if (std::fseek(file, static_cast<long>(page * kPageSize), SEEK_SET) != 0 ||
        std::fwrite(from.data(), kPageSize, 1, file) != 1) {
        FailWith(errno);
    }
}

// Replaces the bytes of the file with those of another one. The journal has all pages that will be
// overwritten before the first of them is; page 0, the head page, is written last.
void ReplaceBytes(Cache& cache, const std::string& by, const Session& session) {
    const std::string& path = cache.Path();
    const std::uint64_t oldSize = fs::file_size(Format::ToPath(path));
    const std::uint64_t pages = fs::file_size(Format::ToPath(by)) / kPageSize;
    const std::uint64_t overwritten = std::min(oldSize / kPageSize, pages);
    StdioFile file;
    StdioFile source;
    OpenFile(file, path, "r+b");
    OpenFile(source, by, "rb");
    Page page(kPageSize);
    RollbackJournal journal(path.c_str(), oldSize, std::vector<bool>(overwritten, true));
    const auto putBack = [&]() noexcept {
        file.Close();
        try {
            journal.Undo();
        } catch (const std::exception&) {
            // The journal stays, and the next process that opens or reloads the file tries again.
            cache.TellOthers();
        }
    };
    Platform::ScopeGuard undo(putBack);
    Progress progress(session, "replacing the file", overwritten + pages);
    for (std::uint64_t i = 0; i < overwritten; ++i) {
        Read(file.Get(), i, page);
        journal.KeepPage(kHeadPageNumber + i, page.data());
        progress.Add();
    }
    if (overwritten > 0) {
        if (!journal.PrepareWrite(kHeadPageNumber + overwritten - 1)) { FailWith(EIO); }
        Read(file.Get(), 0, page);
        const HeadPageMark mark = journal.Mark();
        std::memcpy(page.data(), &mark, sizeof mark);
        journal.BeginOverwriting();
        Write(file.Get(), 0, page);
    }
    for (std::uint64_t i = 1; i < pages; ++i) {
        Read(source.Get(), i, page);
        Write(file.Get(), i, page);
        progress.Add();
    }
    CloseFile(file);
    OpenFile(file, path, "r+b");
    Read(source.Get(), 0, page);
    Write(file.Get(), 0, page);
    CloseFile(file);
    journal.Finish();
    undo.Dismiss();
    std::error_code ignored;  // a longer file only takes more room
    fs::resize_file(Format::ToPath(path), pages * kPageSize, ignored);
}

// Copies the effects of a package and the other blocks of its header data.
void CopyEffects(PagedFilePackage& from, PagedFilePackage& to, CompactionResult& result,
                 const Session& session) {
    EffectIndex effects;
    if (!effects.Load(from)) { throw FileDataCorruptException(); }
    const std::uint64_t headerSize = from.GetHeaderDataSize();
    to.SetHeaderDataSize(headerSize);
    std::memcpy(to.GetHeaderData(), std::as_const(from).GetHeaderData(), headerSize);
    EffectIndex copies;
    copies.Start(to);
    Tab<unsigned char> data;
    Progress progress(session, "copying effects", effects.Size());
    for (const IndexEntry* const effect : effects.Entries()) {
        progress.Add();
        bool isIntact = false;
        try {
            isIntact = ReadEffect(from, effect->record, data);
        } catch (const FileDataCorruptException&) {}
        if (!isIntact) {
            ++result.damaged;
            continue;
        }
        const EffectKey name = effect->Key();
        StoreEffect(to, copies, name, name.Hash(),
                    {data.Addr(0), static_cast<std::size_t>(data.Count())},
                    effect->record.permanent, effect->record.entryTime);
        ++result.effects;
    }
    copies.Write(to);
    to.Commit();
}

// Writes the new file.
void Prepare(const std::string& path, const std::string& newPath, Keep keep,
             CompactionResult& result, const Session& session) {
    std::remove(newPath.c_str());  // what a process that died has left, or something planted
    std::FILE* const file = Platform::CreateNewFile(newPath.c_str());
    if (!file) { FailWith(errno); }
    std::fclose(file);
    const CStr newName(newPath.c_str());
    const Util::RefPtr<PagedFilePackage> copy(new PagedFilePackage(CachePackageConfig(newName)));
    copy->Create();
    if (keep == Keep::Nothing) {
        EffectIndex().Start(*copy);
        copy->Commit();
        return;
    }
    const CStr name(path.c_str());
    const Util::RefPtr<PagedFilePackage> package = PagedFilePackage::Open(CachePackageConfig(name));
    if (!package) { throw FileDataCorruptException(); }
    CopyEffects(*package, *copy, result, session);
}

// The space that the file took is enough for an empty package.
void EmptyInPlace(Cache& cache) {
    fs::resize_file(Format::ToPath(cache.Path()), 0);
    try {
        const CStr name(cache.Path().c_str());
        const Util::RefPtr<PagedFilePackage> package =
            PagedFilePackage::Create(CachePackageConfig(name));
        if (!package) { FailWith(ENOSPC); }
        EffectIndex().Start(*package);
        package->Commit();
    } catch (const std::exception&) {
        cache.TellOthers();
        throw Failure(cache.Path() +
                      ": all effects were removed, but the empty cache can't be written; the next "
                      "host makes it");
    }
}

void Replace(Cache& cache, Keep keep, CompactionResult& result, const Session& session) {
    const std::string newPath = cache.Path() + "-compact";
    const Platform::ScopeGuard removeNewFile([&] { std::remove(newPath.c_str()); });
    Prepare(cache.Path(), newPath, keep, result, session);
    ReplaceBytes(cache, newPath, session);
}

}  // namespace

CompactionResult Compact(Cache& cache, const Cache::Lock& lock, Keep keep, const Session& session) {
    lock.Recover();
    RequireWritable(cache);
    CompactionResult result;
    try {
        result.sizeBefore = fs::file_size(Format::ToPath(cache.Path()));
        try {
            Replace(cache, keep, result, session);
        } catch (const FileIOException& error) {
            if (keep == Keep::Everything || !IsFull(error)) { throw; }
            EmptyInPlace(cache);
        }
    } catch (const Failure&) { throw; } catch (const FileDataCorruptException&) {
        throw Failure(cache.Path() +
                          ": nothing was changed: the file is damaged or holds no effects; "
                          "\"quorvel check\" says more",
                      kNo);
    } catch (const std::exception& error) { throw Failure(DescribeFailure(cache.Path(), error)); }
    cache.TellOthers();
    std::error_code ignored;
    result.sizeAfter = fs::file_size(Format::ToPath(cache.Path()), ignored);
    return result;
}

}  // namespace Quorvel::Tool
