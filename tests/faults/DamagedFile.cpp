#include "faults/DamagedFile.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <ostream>

#include "faults/Memory.h"
#include "quorvel/Quorvel.h"
#include "support/StdioFaults.h"
#include "torture/EffectBytes.h"

namespace Quorvel::Faults {

namespace {

using Format::Bytes;
using Testing::CountStdioCalls;
using Testing::LibraryCall;
using Testing::MemoryWatch;

constexpr std::size_t kUsualSize = 8700;  // with its length prefix: a page and a tail
constexpr std::size_t kMostChanged = 50;  // streams
constexpr std::uint64_t kOldVersion = kSampleVersion;
constexpr std::uint64_t kNewVersion = 2;

// Names that are saved to a damaged file: one that it has, and others.
const std::vector<std::string> kSavedNames = {"effect-3", "saved--1", "saved--2", "saved--3"};

CStr ToCStr(const std::string& text) {
    return CStr(text.data(), text.size());
}

std::uint64_t Calls() {
    const Testing::StdioCounts counts = CountStdioCalls();
    return counts.opens + counts.closes + counts.seeks + counts.tells + counts.reads +
           counts.writes;
}

}  // namespace

void Findings::Add(const Findings& other) {
    files += other.files;
    opened += other.opened;
    emptied += other.emptied;
    found += other.found;
    missed += other.missed;
    damaged += other.damaged;
    peakMemory = std::max(peakMemory, other.peakMemory);
    peakCalls = std::max(peakCalls, other.peakCalls);
    problems.insert(problems.end(), other.problems.begin(), other.problems.end());
}

std::ostream& operator<<(std::ostream& stream, const Findings& findings) {
    stream << findings.files << " files: " << findings.opened << " opened as packages, "
           << findings.emptied << " emptied as caches; effects: " << findings.found << " found, "
           << findings.missed << " missed, " << findings.damaged << " damaged; at most "
           << (findings.peakMemory >> 10) << " KiB and " << findings.peakCalls << " calls; "
           << findings.problems.size() << " problems\n";
    for (const std::string& problem : findings.problems) {
        stream << problem << '\n';
    }
    return stream;
}

Examiner::Examiner(const Bytes& sound) : map_(sound) {}

void Examiner::Examine(const Bytes& damaged, const std::string& name) {
    name_ = name;
    ++findings_.files;
    const std::uint64_t openFiles = CountStdioCalls().openFiles;
    ExaminePackage(damaged);
    ExamineCache(damaged);
    if (CountStdioCalls().openFiles != openFiles) { Problem("leaves a file open"); }
}

void Examiner::Problem(const std::string& text) {
    findings_.problems.push_back(name_ + ": " + text);
}

// Runs an operation and checks the memory that it takes and the calls that it makes.
template <typename Operation>
void Examiner::Watch(const char* what, const Operation& operation) {
    const std::uint64_t callsBefore = Calls();
    std::uint64_t memory;
    {
        const MemoryWatch watch;
        operation();
        memory = watch.Peak();
    }
    const std::uint64_t calls = Calls() - callsBefore;
    findings_.peakMemory = std::max(findings_.peakMemory, memory);
    findings_.peakCalls = std::max(findings_.peakCalls, calls);
    if (memory > kMostMemory) {
        Problem(std::string(what) + " takes " + std::to_string(memory) + " bytes");
    }
    if (calls > kMostCalls) {
        Problem(std::string(what) + " takes " + std::to_string(calls) + " calls");
    }
}

// Reads all streams, deletes every other one, adds some and commits. Any of these steps may fail.
void Examiner::ExaminePackage(const Bytes& damaged) {
    const std::string path = directory_.File("package");
    Format::WriteWholeFile(path, damaged);
    bool isOpen = false;
    Watch("a package", [&] {
        const LibraryCall call;
        const auto package = OpenFilePackage({path.c_str(), 64, Format::kHighestId});
        isOpen = static_cast<bool>(package);
        if (!package) { return; }
        static Bytes buffer(std::size_t{1} << 20);
        std::vector<std::uint64_t> ids;
        for (std::uint64_t index = 0; index < package->GetNumberOfDataStreams(); ++index) {
            ids.push_back(package->GetDataStreamId(index));
        }
        for (const std::uint64_t id : ids) {
            try {
                const auto stream = package->OpenDataStream(id);
                if (stream) {
                    stream->Read(buffer.data(), buffer.size());
                    stream->Seek(kSeekFromEnd, -1);
                    stream->Read(buffer.data(), 1);
                }
            } catch (const std::exception&) {}
        }
        for (std::size_t index = 0; index < std::min(ids.size(), kMostChanged); ++index) {
            try {
                if (index % 2 == 0) {
                    package->DeleteDataStream(ids[index]);
                } else {
                    const std::uint64_t id = package->CreateDataStream(kUsualSize);
                    const auto stream = package->OpenDataStream(id);
                    if (stream) { stream->Write(buffer.data(), kUsualSize); }
                }
            } catch (const std::exception&) {}
        }
        try {
            package->Commit();
        } catch (const std::exception&) {}
    });
    findings_.opened += isOpen ? 1 : 0;
    bool isReadable = true;
    try {
        Format::ReadPackage(damaged);
    } catch (const Format::FormatError&) { isReadable = false; }
    if (isOpen != isReadable) { Problem(isOpen ? "opens but must not" : "does not open but must"); }
    Watch("a package, again", [&] {
        const LibraryCall call;
        OpenFilePackage({path.c_str(), 64, Format::kHighestId});
    });
}

void Examiner::ExamineCache(const Bytes& damaged) {
    const std::string path = directory_.File("vornFxoCache.dat");
    Format::WriteWholeFile(path, damaged);
    SearchAll(damaged, false, "first");
    SearchAll(damaged, true, "after a save");
}

// Opens the cache and searches it. If nothing is saved yet, it then saves and searches again.
void Examiner::SearchAll(const Bytes& damaged, bool isSaved, const std::string& when) {
    const CStr text = ToCStr(directory_.Path().string());
    Util::RefPtr<EffectCacheSystem> cache;
    Watch("opening a cache", [&] {
        const LibraryCall call;
        cache = new EffectCacheSystem(text);
    });
    if (!cache->IsEnabled()) { Problem("the cache is not enabled, " + when); }
    const std::uint64_t foundBefore = findings_.found;
    SearchAll(*cache, damaged, isSaved, when);
    if (!isSaved) {
        findings_.emptied += findings_.found == foundBefore ? 1 : 0;
        Watch("a save", [&] {
            for (const std::string& name : kSavedNames) {
                const Bytes bytes = Torture::MakeEffect(name, kNewVersion, kUsualSize);
                const CStr key = ToCStr(name);
                const LibraryCall call;
                cache->CacheCompiledEffect(key, bytes.data(), bytes.size(), false);
            }
            const LibraryCall call;
            cache->ForceSaveToFile();
        });
        SearchAll(*cache, damaged, true, when + ", before it was closed");
    }
    const LibraryCall call;
    cache.Reset();
}

void Examiner::SearchAll(EffectCacheSystem& cache, const Bytes& damaged, bool isSaved,
                         const std::string& when) {
    for (const FileMap::Entry& entry : map_.Entries()) {
        const bool mustBeRight = map_.IsUntouched(entry, damaged);
        const bool isReplaced =
            isSaved && std::count(kSavedNames.begin(), kSavedNames.end(), entry.name) != 0;
        const Verdict verdict = Search(cache, entry.name, isReplaced);
        if (verdict == Verdict::Wrong && mustBeRight) {
            Problem("wrong bytes for " + entry.name + ", " + when);
        }
        if (!isSaved) {
            ++(verdict == Verdict::Right ? findings_.found
               : mustBeRight             ? findings_.missed
                                         : findings_.damaged);
        }
    }
    for (const std::string& name : kSavedNames) {
        if (isSaved && Search(cache, name, true) == Verdict::Wrong &&
            std::none_of(map_.Entries().begin(), map_.Entries().end(),
                         [&](const auto& entry) { return entry.name == name; })) {
            Problem("wrong bytes for " + name + ", " + when);
        }
    }
}

// A save may have dropped the new effect. In that case the effect that it was to replace is right
// too.
Examiner::Verdict Examiner::Search(EffectCacheSystem& cache, const std::string& name,
                                   bool isReplaced) {
    const CStr key = ToCStr(name);
    Tab<unsigned char> data;
    bool isFound = false;
    Watch("a search", [&] {
        const LibraryCall call;
        isFound = cache.SearchCachedEffects(key, data);
    });
    if (!isFound) { return Verdict::Missed; }
    std::uint64_t version = 0;
    const auto bytes =
        Torture::CheckEffect(name, {data.Addr(0), static_cast<std::size_t>(data.Count())}, version);
    return bytes == Torture::Verdict::Intact &&
                   (version == kOldVersion || (isReplaced && version == kNewVersion))
               ? Verdict::Right
               : Verdict::Wrong;
}

}  // namespace Quorvel::Faults
