#include "support/EffectSource.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <numbers>
#include <stdexcept>

#include "support/Random.h"

namespace Quorvel::Benchmarks {

namespace {

constexpr double kMedianSize = 2048;
constexpr double kSizeSigma = 0.67;
constexpr double kSmallestSize = 300;
constexpr double kLargestSize = 20480;
constexpr std::uintmax_t kLargestFile = 0x100000;

template <std::size_t count>
const char* Pick(Random& random, const std::array<const char*, count>& words) {
    return words[random.Below(count)];
}

std::string SyntheticName(Random& random, std::size_t number) {
    static constexpr std::array kFolders = {
        "shaders/deferred", "shaders/forward", "shaders/shadows", "shaders/post/bloom",
        "shaders/post",     "shaders/terrain", "shaders/water",   "shaders/characters/skin",
        "shaders/ui",       "shaders/effects", "shaders/sky",     "shaders/vegetation"};
    static constexpr std::array kSources = {
        "lighting",   "gbuffer_fill", "cascade_blur", "tone_mapping", "ambient_occlusion",
        "reflection", "particles",    "subsurface",   "decals",       "light_scattering"};
    static constexpr std::array kEntries = {"mainVertex",     "mainPixel",      "shadeTile",
                                            "resolveSamples", "blurHorizontal", "blurVertical"};
    static constexpr std::array kProfiles = {"vs_5_0", "ps_5_0", "cs_5_0", "gs_5_0", "ps_4_1"};
    static constexpr std::array kMacros = {
        "SHADOWS=", "MSAA=", "FOG=", "SKINNING=", "CASCADES=", "LIGHTS=", "HDR=", "ALPHA_TEST="};
    std::string name = Pick(random, kFolders);
    name.append("/").append(Pick(random, kSources)).append(".hlsl ");
    name.append(Pick(random, kEntries)).append(" ").append(Pick(random, kProfiles));
    name.append(" VARIANT=").append(std::to_string(number));
    const std::size_t length = 60 + random.Below(50);
    while (name.size() < length) {
        name.append(";").append(Pick(random, kMacros)).append(std::to_string(random.Below(8)));
    }
    return name;
}

std::size_t SyntheticSize(Random& random) {
    const double normal = std::sqrt(-2 * std::log(random.Fraction())) *
                          std::cos(2 * std::numbers::pi * random.Fraction());
    const double size = kMedianSize * std::exp(kSizeSigma * normal);
    return static_cast<std::size_t>(std::clamp(size, kSmallestSize, kLargestSize));
}

std::vector<unsigned char> SyntheticBytes(Random& random) {
    std::vector<unsigned char> bytes(SyntheticSize(random));
    for (std::size_t start = 0; start < bytes.size(); start += sizeof(std::uint64_t)) {
        const std::uint64_t word = random.Next();
        std::memcpy(bytes.data() + start, &word, std::min(sizeof word, bytes.size() - start));
    }
    return bytes;
}

std::vector<unsigned char> ReadFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::vector<unsigned char> bytes{std::istreambuf_iterator<char>(file), {}};
    if (!file || bytes.empty()) { throw std::runtime_error("can't read " + path.string()); }
    return bytes;
}

bool IsUsable(const std::filesystem::path& path) {
    if (!std::filesystem::is_regular_file(path)) { return false; }
    const std::uintmax_t size = std::filesystem::file_size(path);
    return size > 0 && size <= kLargestFile;
}

}  // namespace

EffectSource::EffectSource(const std::string& path, std::uint64_t seed) : path_(path), seed_(seed) {
    if (path.empty()) { return; }
    if (std::filesystem::is_directory(path)) {
        ListDirectory(path);
    } else {
        ReadList(path);
    }
    if (files_.empty()) { throw std::runtime_error("no effects in " + path); }
}

void EffectSource::ListDirectory(const std::filesystem::path& directory) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
        if (IsUsable(entry.path())) {
            files_.push_back(
                {entry.path(), entry.path().lexically_relative(directory).generic_string()});
        }
    }
    std::sort(files_.begin(), files_.end(),
              [](const File& left, const File& right) { return left.name < right.name; });
}

void EffectSource::ReadList(const std::filesystem::path& list) {
    std::ifstream lines(list);
    if (!lines) { throw std::runtime_error("can't read " + list.string()); }
    for (std::string line; std::getline(lines, line);) {
        const std::size_t tab = line.find('\t');
        const std::string file = line.substr(0, tab);
        const std::filesystem::path path = list.parent_path() / file;
        if (!file.empty() && IsUsable(path)) {
            files_.push_back({path, tab == std::string::npos ? file : line.substr(tab + 1)});
        }
    }
}

Effect EffectSource::Make(std::size_t number) const {
    if (files_.empty()) {
        Random random(seed_ + number);
        const std::string name = SyntheticName(random, number);
        return {CStr(name.data(), name.size()), SyntheticBytes(random)};
    }
    const File& file = files_[number % files_.size()];
    const std::size_t repetition = number / files_.size();
    const std::string name =
        repetition == 0 ? file.name : file.name + '#' + std::to_string(repetition);
    return {CStr(name.data(), name.size()), ReadFile(file.path)};
}

std::vector<Effect> EffectSource::Make(std::size_t first, std::size_t count) const {
    std::vector<Effect> effects;
    effects.reserve(count);
    for (std::size_t number = first; number < first + count; ++number) {
        effects.push_back(Make(number));
    }
    return effects;
}

CStr EffectSource::AbsentName(std::size_t number) const {
    CStr name = Make(number).name;
    name[name.Length() - 1] = '~';
    return name;
}

std::string EffectSource::Description() const {
    return files_.empty() ? "synthetic, seed " + std::to_string(seed_)
                          : std::to_string(files_.size()) + " files";
}

std::uint64_t TotalBytes(const std::vector<Effect>& effects) {
    std::uint64_t bytes = 0;
    for (const Effect& effect : effects) {
        bytes += effect.bytes.size();
    }
    return bytes;
}

}  // namespace Quorvel::Benchmarks
