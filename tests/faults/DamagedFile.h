#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "faults/FormatFields.h"
#include "format/Bytes.h"
#include "quorvel/EffectCacheSystem.h"
#include "support/TemporaryDirectory.h"

// What the library makes of a damaged file.
namespace Quorvel::Faults {

// A file of 1 MiB never makes the library hold more memory than this, whatever it says.
constexpr std::uint64_t kMostMemory = std::uint64_t{64} << 20;

// Nor make more calls of the file system than this, to open it, read it all, change it and save it.
constexpr std::uint64_t kMostCalls = 40000;

// An effect cache of ten effects, most of one size, in shuffled pages, with a head file of two
// pages. Different seeds make different files.
Format::Bytes SampleCache(unsigned seed = 1);

// What came of the damaged files looked at so far.
struct Findings {
    std::uint64_t files = 0;
    std::uint64_t opened = 0;   // as a package
    std::uint64_t emptied = 0;  // as an effect cache, in which nothing was found any more
    std::uint64_t found = 0;    // effects, with the right bytes
    std::uint64_t missed = 0;   // effects whose bytes were in the file
    std::uint64_t damaged = 0;  // effects whose bytes had been damaged, found with these or not
    std::uint64_t peakMemory = 0;
    std::uint64_t peakCalls = 0;
    std::vector<std::string> problems;  // what must not be

    bool IsGood() const { return problems.empty(); }
    void Add(const Findings& other);
};
std::ostream& operator<<(std::ostream& stream, const Findings& findings);

// Opens damaged variants of one sound effect cache, as packages and as caches.
class Examiner {
public:
    explicit Examiner(const Format::Bytes& sound);

    // Opens a damaged file, reads all of it, changes it, saves it and opens it again, and puts what
    // it finds to the rest. The name stands in the texts of problems.
    void Examine(const Format::Bytes& damaged, const std::string& name);

    const FileMap& Map() const { return map_; }
    const Format::Bytes& Sound() const { return map_.Image().file; }
    const Findings& Result() const { return findings_; }

private:
    void ExaminePackage(const Format::Bytes& damaged);
    void ExamineCache(const Format::Bytes& damaged);
    enum class Verdict { Right, Missed, Wrong };

    void SearchAll(const Format::Bytes& damaged, bool isSaved, const std::string& when);
    void SearchAll(EffectCacheSystem& cache, const Format::Bytes& damaged, bool isSaved,
                   const std::string& when);
    Verdict Search(EffectCacheSystem& cache, const std::string& name, bool isReplaced);
    bool IsUntouched(const FileMap::Entry& entry, const Format::Bytes& damaged) const;
    void Problem(const std::string& text);

    template <typename Operation>
    void Watch(const char* what, const Operation& operation);

    const Testing::TemporaryDirectory directory_;
    const FileMap map_;
    struct Named {
        std::vector<std::size_t> name;  // where each byte of an effect's name stands
    };
    std::vector<Named> named_;
    Findings findings_;
    std::string name_;
};

}  // namespace Quorvel::Faults
