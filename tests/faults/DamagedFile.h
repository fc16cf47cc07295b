#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "faults/FormatFields.h"
#include "faults/RandomDamage.h"
#include "format/Bytes.h"
#include "quorvel/EffectCacheSystem.h"
#include "support/TemporaryDirectory.h"

// Checks how the library handles damaged files.
namespace Quorvel::Faults {

// No file of 1 MiB may make the library hold more memory than this.
constexpr std::uint64_t kMostMemory = std::uint64_t{64} << 20;

// Opening, reading, changing and saving such a file may take no more file system calls than this.
constexpr std::uint64_t kMostCalls = 40000;

// The results for the damaged files examined so far.
struct Findings {
    std::uint64_t files = 0;
    std::uint64_t opened = 0;   // files that opened as a package
    std::uint64_t emptied = 0;  // files in which the effect cache found nothing
    std::uint64_t found = 0;    // effects found with the right bytes
    std::uint64_t missed = 0;   // effects not found although the file held their bytes
    std::uint64_t damaged = 0;  // effects whose bytes were damaged, found or not
    std::uint64_t peakMemory = 0;
    std::uint64_t peakCalls = 0;
    std::vector<std::string> problems;  // violations

    bool IsGood() const { return problems.empty(); }
    void Add(const Findings& other);
};
std::ostream& operator<<(std::ostream& stream, const Findings& findings);

// Opens damaged variants of one sound effect cache, as packages and as caches.
class Examiner {
public:
    explicit Examiner(const Format::Bytes& sound);

    // Opens a damaged file, reads all of it, changes it, saves it, opens it again, and adds the
    // results to the findings. `name` identifies the file in messages.
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
    void Problem(const std::string& text);

    template <typename Operation>
    void Watch(const char* what, const Operation& operation);

    const Testing::TemporaryDirectory directory_;
    const FileMap map_;
    Findings findings_;
    std::string name_;
};

}  // namespace Quorvel::Faults
