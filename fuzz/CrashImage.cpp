#include "fuzz/CrashImage.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <vector>

#include "fuzz/Require.h"
#include "pagestore/RollbackJournal.h"

namespace Quorvel::Fuzz {

namespace {

using Format::Bytes;

constexpr std::size_t kPiecePages = 32;  // a header and 31 pages
constexpr int kMostDamages = 3;

// Keeps the head page and then others in a journal, whose file stays. Stores their numbers in
// `pages`, in that order, and returns the journal's mark.
HeadPageMark KeepPages(const std::string& path, const Bytes& before,
                       std::vector<std::uint64_t>& pages, FuzzedDataProvider& input) {
    const std::size_t pageCount = before.size() / kPageSize;
    RollbackJournal journal(path.c_str(), before.size(), std::vector<bool>(pageCount, true));
    const auto keep = [&](std::uint64_t page) {
        journal.KeepPage(page, before.data() + (page - kHeadPageNumber) * kPageSize);
        if (journal.KeptPages() > pages.size()) { pages.push_back(page); }
    };
    keep(kHeadPageNumber);
    const std::uint64_t first = input.ConsumeIntegral<std::uint16_t>();
    const std::uint64_t step = input.ConsumeIntegral<std::uint8_t>() + std::uint64_t{1};
    const std::uint64_t count = input.ConsumeIntegral<std::uint8_t>();
    for (std::uint64_t index = 0; index < count; ++index) {
        keep(kHeadPageNumber + (first + index * step) % pageCount);
    }
    for (const std::uint64_t page : pages) {
        Require(journal.PrepareWrite(page), "a page that was kept");
    }
    journal.BeginOverwriting();
    return journal.Mark();
}

std::size_t EndInJournal(std::size_t index) {
    const std::size_t slot = index % (kPiecePages - 1);
    return (index / (kPiecePages - 1) * kPiecePages + slot + 2) * kPageSize;
}

void Mark(Bytes& file, const HeadPageMark& mark) {
    Format::StoreInteger(file, 0, 8, mark.pageCount);
    Format::StoreInteger(file, 8, 8, mark.nonce);
}

void Damage(Bytes& bytes, FuzzedDataProvider& input) {
    for (int count = 0; count < kMostDamages; ++count) {
        // Half of the damage is in the first header.
        const auto place = input.ConsumeIntegral<std::uint32_t>();
        const std::size_t size = place % 2 == 0 ? 600 : bytes.size();
        bytes[place / 2 % size] ^= input.ConsumeIntegral<std::uint8_t>();
    }
}

}  // namespace

CrashImage MakeCrashImage(const std::string& path, const Bytes& before, CrashImage::Kind kind,
                          FuzzedDataProvider& input) {
    CrashImage image = {CrashImage::Kind::NoSave, before, {}};
    if (kind == CrashImage::Kind::NoSave || before.size() < kPageSize) { return image; }
    std::vector<std::uint64_t> pages;
    HeadPageMark mark = KeepPages(path, before, pages, input);
    image.kind = kind;
    image.journal = Format::ReadWholeFile(path + "-journal");
    if (kind == CrashImage::Kind::AnothersJournal) {
        ++mark.nonce;
        if (input.ConsumeBool()) { Mark(image.file, mark); }
        return image;
    }

    // A process that died while it wrote to the journal had not overwritten the pages that are
    // missing there.
    const std::size_t end = EndInJournal(0) + input.ConsumeIntegral<std::uint32_t>();
    if (input.ConsumeBool()) { image.journal.resize(std::min(image.journal.size(), end)); }
    const std::uint8_t filler = input.ConsumeIntegral<std::uint8_t>();
    for (std::size_t index = 0; index < pages.size(); ++index) {
        if (EndInJournal(index) > image.journal.size()) { break; }
        const std::size_t offset = (pages[index] - kHeadPageNumber) * kPageSize;
        const auto place = image.file.begin() + static_cast<std::ptrdiff_t>(offset);
        std::fill_n(place, kPageSize, filler);
    }
    Mark(image.file, mark);
    image.file.resize(image.file.size() + input.ConsumeIntegral<std::uint16_t>());
    if (kind == CrashImage::Kind::DamagedJournal) { Damage(image.journal, input); }
    return image;
}

Bytes Recover(const std::string& path, const Bytes& before, const CrashImage& image) {
    WriteFiles(path, image);
    RollbackJournal::Recover(path.c_str());
    Require(!std::filesystem::exists(path + "-journal"), "a journal is used once");
    const Bytes file = Format::ReadWholeFile(path);
    const bool isRestored =
        file.size() == image.file.size() && std::equal(before.begin(), before.end(), file.begin());
    const bool isUntouched = file == image.file;
    Require(isRestored || image.kind != CrashImage::Kind::Unfinished, "a save is undone");
    Require(isUntouched || image.kind != CrashImage::Kind::AnothersJournal, "nothing is undone");
    Require(isRestored || isUntouched, "a save is undone as a whole or not at all");
    return file;
}

void WriteFiles(const std::string& path, const CrashImage& image) {
    Format::WriteWholeFile(path, image.file);
    std::filesystem::remove(path + "-journal");
    if (!image.journal.empty()) { Format::WriteWholeFile(path + "-journal", image.journal); }
}

}  // namespace Quorvel::Fuzz
