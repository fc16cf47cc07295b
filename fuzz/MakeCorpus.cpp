// make-corpus FOLDER: writes the seeds of the two file harnesses into the folder of corpora. From
// each seed TakeFile makes a sound file, unchanged or with one field changed.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "format/EffectCacheWriter.h"
#include "format/TestData.h"
#include "fuzz/CrashImage.h"
#include "fuzz/FileBases.h"

namespace Quorvel::Fuzz {

namespace {

using Format::Bytes;

// An input for a FuzzedDataProvider, which takes runs of bytes from the front, and numbers
// backwards from the end.
class Input {
public:
    Input& Byte(std::uint8_t number) {
        back_.push_back(number);
        return *this;
    }
    Input& Word(std::uint16_t number) {
        return Byte(static_cast<std::uint8_t>(number)).Byte(static_cast<std::uint8_t>(number >> 8));
    }
    Input& Run(const Bytes& bytes) {
        front_.insert(front_.end(), bytes.begin(), bytes.end());
        return *this;
    }

    // A page of a plain file, without the unused bytes at its end.
    Input& Page(const Bytes& page) {
        constexpr std::uint8_t kUnused = 0xEE;
        std::size_t size = page.size();
        while (size > 0 && page[size - 1] == kUnused) {
            --size;
        }
        for (std::size_t index = 0; index < size; ++index) {
            front_.push_back(page[index]);
            if (page[index] == '\\') { front_.push_back('\\'); }
        }
        if (size < page.size()) {
            front_.push_back('\\');
            front_.push_back('/');
        }
        return *this;
    }

    Bytes Get() const {
        Bytes bytes = front_;
        bytes.insert(bytes.end(), back_.rbegin(), back_.rend());
        return bytes;
    }

private:
    Bytes front_;
    Bytes back_;
};

// The input that a harness takes before the file, its bases, and the file for its plain seed.
struct Harness {
    Input start;
    const std::vector<FileBase>& bases;
    Bytes smallFile;
};

void Save(const std::filesystem::path& folder, const std::string& name, const Input& input) {
    Format::WriteWholeFile((folder / name).string(), input.Get());
}

void WriteSeeds(const std::filesystem::path& folder, const Harness& harness) {
    constexpr std::uint8_t kNoEdits = 0;
    constexpr std::uint8_t kPatchField = 2;
    constexpr std::uint8_t kBorderValue = 5;
    constexpr std::size_t kPatchesOfBase = 12;
    std::filesystem::create_directories(folder);

    Input plain = harness.start;
    plain.Byte(kPlainFile).Byte(0).Byte(0);
    for (std::size_t page = 0; page < harness.smallFile.size(); page += Format::kPageSize) {
        const auto start = harness.smallFile.begin() + static_cast<std::ptrdiff_t>(page);
        plain.Page(Bytes(start, start + Format::kPageSize));
    }
    Save(folder, "plain", plain);

    for (std::size_t base = 0; base < harness.bases.size(); ++base) {
        const std::string name = "base-" + std::to_string(base);
        Input sound = harness.start;
        sound.Byte(static_cast<std::uint8_t>(kFirstBase + base)).Byte(kNoEdits);
        Save(folder, name, sound);
        const std::size_t fields = harness.bases[base].fields.size();
        for (std::size_t patch = 0; patch < kPatchesOfBase; ++patch) {
            const std::size_t field = patch * fields / kPatchesOfBase;
            Input patched = sound;
            patched.Byte(kPatchField).Word(static_cast<std::uint16_t>(field)).Byte(kBorderValue);
            patched.Byte(static_cast<std::uint8_t>(patch * 4));
            Save(folder, name + "-field-" + std::to_string(field), patched);
        }
    }
}

// Sound files that a process saved when it died, with each kind of journal.
void WriteCrashSeeds(const std::filesystem::path& folder) {
    constexpr int kKinds = static_cast<int>(CrashImage::Kind::CountOfKinds);
    for (int kind = 1; kind < kKinds; ++kind) {
        for (std::size_t base = 0; base < EffectCacheBases().size(); ++base) {
            Input crash;
            crash.Byte(static_cast<std::uint8_t>(1 + 4 * kind));
            crash.Run(Bytes(12)).Run(Format::Pattern(kCrashInput, base));
            crash.Byte(static_cast<std::uint8_t>(kFirstBase + base)).Byte(0);
            Save(folder, "crash-" + std::to_string(kind) + "-base-" + std::to_string(base), crash);
        }
    }
}

void WriteAll(const std::filesystem::path& folder) {
    WriteSeeds(
        folder / "PackageFile",
        {Input().Byte(0).Byte(6), PackageBases(),
         Format::WritePackage({{0, Format::Pattern(20, 1)}, {1, {}}, {5, Format::Pattern(9, 2)}},
                              Format::Pattern(12, 3))});
    WriteSeeds(folder / "EffectCacheFile",
               {Input().Byte(1).Run(Bytes(12)), EffectCacheBases(),
                Format::WriteEffectCache(
                    {{"a", Format::Pattern(9, 1)}, {"b", Format::Pattern(9, 2), true}})});
    WriteCrashSeeds(folder / "EffectCacheFile");
}

}  // namespace

}  // namespace Quorvel::Fuzz

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: make-corpus FOLDER\n", stderr);
        return 2;
    }
    Quorvel::Fuzz::WriteAll(argv[1]);
    return 0;
}
