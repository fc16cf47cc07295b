#include "faults/DamagedFile.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <ostream>

#include "faults/Memory.h"
#include "format/EffectCacheWriter.h"
#include "quorvel/Quorvel.h"
#include "support/StdioFaults.h"
#include "torture/EffectBytes.h"

namespace Quorvel::Faults {

namespace {

using Format::Bytes;
using Testing::CountStdioCalls;
using Testing::LibraryCall;
using Testing::MemoryWatch;

constexpr std::size_t kUsualSize = 8700;  // with the length in front: a page and a tail
constexpr std::uint64_t kOldVersion = 1;
constexpr std::uint64_t kNewVersion = 2;

// Names that are saved to a damaged file: one that is there, and others.
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

Bytes SampleCache(unsigned seed) {
    std::vector<Format::NewEffect> effects;
    for (int index = 0; index < 10; ++index) {
        Format::NewEffect effect;
        effect.name = "effect-" + std::to_string(index);
        const std::size_t size = index < 7 ? kUsualSize : index < 9 ? 300 : 20000;
        effect.data = Torture::MakeEffect(effect.name, kOldVersion, size);
        effect.permanent = index % 3 == 0;
        effects.push_back(effect);
    }
    Format::EffectCacheLayout layout;
    layout.package.pageOrder = Format::PageOrder::kShuffled;
    layout.package.freePages = 3;
    layout.package.freePagesAtEnd = 1000;
    layout.package.seed = seed;
    return Format::WriteEffectCache(effects, layout);
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
    ExaminePackage(damaged);
    ExamineCache(damaged);
}

void Examiner::Problem(const std::string& text) {
    findings_.problems.push_back(name_ + ": " + text);
}

// Runs something with an eye on the memory that it takes and the calls that it makes.
template <typename Operation>
void Examiner::Watch(const char* what, const Operation& operation) {
    const Testing::StdioCounts before = CountStdioCalls();
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
    if (CountStdioCalls().openFiles != before.openFiles) {
        Problem(std::string(what) + " leaves a file open");
    }
}

// Reads what can be read, deletes every other stream, adds some and commits. Any of it may fail.
void Examiner::ExaminePackage(const Bytes& damaged) {
    const std::string path = directory_.File("package");
    Format::WriteWholeFile(path, damaged);
    bool isOpen = false;
    Watch("a package", [&] {
        const LibraryCall call;
        const auto package = OpenFilePackage({path.c_str(), 64, Format::kHighestId});
        isOpen = static_cast<bool>(package);
        if (!package) {
            return;
        }
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
            } catch (const std::exception&) {
            }
        }
        for (std::size_t index = 0; index < ids.size(); ++index) {
            try {
                if (index % 2 == 0) {
                    package->DeleteDataStream(ids[index]);
                } else {
                    const std::uint64_t id = package->CreateDataStream(kUsualSize);
                    const auto stream = package->OpenDataStream(id);
                    if (stream) {
                        stream->Write(buffer.data(), kUsualSize);
                    }
                }
            } catch (const std::exception&) {
            }
        }
        try {
            package->Commit();
        } catch (const std::exception&) {
        }
    });
    findings_.opened += isOpen ? 1 : 0;
    bool isReadable = true;
    try {
        Format::ReadPackage(damaged);
    } catch (const Format::FormatError&) {
        isReadable = false;
    }
    if (isOpen != isReadable) {
        Problem(isOpen ? "opens, which it must not" : "does not open, which it must");
    }
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

// Opens the cache, searches it, saves something, and searches it again.
void Examiner::SearchAll(const Bytes& damaged, bool isSaved, const std::string& when) {
    const CStr text = ToCStr(directory_.Path().string());
    std::vector<std::string> names = kSavedNames;
    for (const FileMap::Entry& entry : map_.Entries()) {
        names.push_back(entry.name);
    }
    std::uint64_t found = 0;
    Watch("a cache", [&] {
        Util::RefPtr<EffectCacheSystem> cache;
        {
            const LibraryCall call;
            cache = new EffectCacheSystem(text);
        }
        if (!cache->IsEnabled()) {
            Problem("makes no cache, " + when);
            return;
        }
        for (int round = 0; round < 2; ++round) {
            const bool hasNew = isSaved || round > 0;
            for (const std::string& name : names) {
                const CStr key = ToCStr(name);
                Tab<unsigned char> data;
                bool isFound;
                {
                    const LibraryCall call;
                    isFound = cache->SearchCachedEffects(key, data);
                }
                const auto entry = std::find_if(map_.Entries().begin(), map_.Entries().end(),
                                                [&](const auto& one) { return one.name == name; });
                const bool isNew = hasNew && std::count(kSavedNames.begin(), kSavedNames.end(),
                                                        name) != 0;
                const bool mustBeRight =
                    isNew || (entry != map_.Entries().end() && IsUntouched(*entry, damaged));
                std::uint64_t version = 0;
                const bool isRight =
                    isFound &&
                    Torture::CheckEffect(
                        name, {data.Addr(0), static_cast<std::size_t>(data.Count())}, version) ==
                        Torture::Verdict::Intact &&
                    version == (isNew ? kNewVersion : kOldVersion);
                if (isFound && mustBeRight && !isRight) {
                    Problem("wrong bytes for " + name + ", " + when + ", round " +
                            std::to_string(round));
                }
                if (round == 0 && !isSaved && entry != map_.Entries().end()) {
                    std::uint64_t& count = isRight                       ? findings_.found
                                           : !mustBeRight                ? findings_.damaged
                                                                         : findings_.missed;
                    ++count;
                }
                found += isFound ? 1 : 0;
            }
            if (round == 0 && !isSaved) {
                for (const std::string& name : kSavedNames) {
                    const Bytes bytes = Torture::MakeEffect(name, kNewVersion, kUsualSize);
                    const CStr key = ToCStr(name);
                    const LibraryCall call;
                    cache->CacheCompiledEffect(key, bytes.data(), bytes.size(), false);
                }
                const LibraryCall call;
                cache->ForceSaveToFile();
            } else if (round == 0) {
                break;
            }
        }
        const LibraryCall call;
        cache.Reset();
    });
    findings_.emptied += !isSaved && found <= kSavedNames.size() ? 1 : 0;
}

// Whether nothing was done to the bytes of an effect nor to its name, and no other entry of the
// index has taken the name: of two entries of one name the later counts.
bool Examiner::IsUntouched(const FileMap::Entry& entry, const Bytes& damaged) const {
    const Bytes& sound = Sound();
    const auto isSame = [&](std::uint64_t stream, std::uint64_t position, std::uint64_t size) {
        for (std::uint64_t index = 0; index < size; ++index) {
            const std::size_t offset = map_.StreamOffset(stream, position + index);
            if (offset >= damaged.size() || damaged[offset] != sound[offset]) {
                return false;
            }
        }
        return true;
    };
    for (const FileMap::Entry& other : map_.Entries()) {
        std::string name;
        for (std::size_t index = 0; index < other.name.size(); ++index) {
            const std::size_t offset =
                map_.StreamOffset(map_.IndexStream(), other.position + 52 + index);
            name += offset < damaged.size() ? static_cast<char>(damaged[offset]) : '\0';
        }
        if ((other.name == entry.name) != (name == entry.name)) {
            return false;
        }
    }
    return isSame(entry.stream, 0, entry.size + Format::kLengthPrefixSize);
}

}  // namespace Quorvel::Faults
