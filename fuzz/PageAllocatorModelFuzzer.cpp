// Runs a sequence of operations on a page allocator and on a plain model of it, and compares the
// two after each. Also saves the state, loads it into another allocator, and loads arbitrary links.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <set>
#include <vector>

#include "fuzz/Require.h"
#include "package/MemoryStream.h"
#include "pagestore/PageAllocator.h"
#include "quorvel/Exceptions.h"

namespace Quorvel::Fuzz {

namespace {

constexpr int kMostOperations = 300;
constexpr std::uint64_t kMostMarkedAhead = 40;
constexpr std::size_t kMostLoadedLinks = 40;

class Runner {
public:
    explicit Runner(FuzzedDataProvider& input) : input_(input), allocator_(new PageAllocator) {}

    void Run() {
        for (int step = 0; step < kMostOperations && input_.remaining_bytes() > 0; ++step) {
            Step();
            Compare();
        }
        Reload();
        Compare();
    }

private:
    std::uint8_t Number() { return input_.ConsumeIntegral<std::uint8_t>(); }
    std::uint64_t End() const { return kHeadPageNumber + links_.size(); }
    bool IsFree(std::uint64_t page) const {
        return page >= End() || links_[page - kHeadPageNumber] == kFreePage;
    }

    void Step();
    void Allocate();
    void Free();
    void Mark();
    void Ask();
    void Reload();
    void LoadLinks();
    std::uint64_t AnyPage();
    std::uint64_t TakeFree();
    void Rebuild();
    void Compare();

    FuzzedDataProvider& input_;
    Util::RefPtr<PageAllocator> allocator_;

    std::vector<std::uint64_t> links_;
    std::deque<std::uint64_t> queue_;  // each page once for each time it became free
    std::uint64_t highest_ = kHeadPageNumber;
};

template <typename Action>
void RequireRefusal(const Action& action, const char* what) {
    try {
        action();
    } catch (const InvalidParameterException&) { return; }
    Require(false, what);
}

void Runner::Step() {
    switch (Number() % 12) {
        case 0:
        case 1:
        case 2:
        case 3:
            Allocate();
            break;
        case 4:
        case 5:
        case 6:
            Free();
            break;
        case 7:
            Mark();
            break;
        case 8:
            Ask();
            break;
        case 9:
        case 10:
            Reload();
            break;
        default:
            LoadLinks();
            break;
    }
}

// Usually a page of the table.
std::uint64_t Runner::AnyPage() {
    static constexpr std::uint64_t kOthers[] = {0,        1,          9,    kPageNumberLimit,
                                                1u << 30, 1ull << 63, ~0ull};
    const std::uint8_t number = Number();
    if (number < 16) { return kOthers[number % std::size(kOthers)]; }
    return kHeadPageNumber + number % (links_.size() + 2);
}

std::uint64_t Runner::TakeFree() {
    while (!queue_.empty()) {
        const std::uint64_t page = queue_.front();
        queue_.pop_front();
        if (IsFree(page)) { return page; }
    }
    return End();
}

void Runner::Allocate() {
    const std::uint64_t previous = Number() % 4 == 0 ? 0 : AnyPage();
    const std::uint64_t page = TakeFree();
    if (page == End()) { links_.push_back(kFreePage); }
    links_[page - kHeadPageNumber] = kEndOfChain;
    if (IsValidPageNumber(previous)) {
        if (previous >= End() || links_[previous - kHeadPageNumber] != kEndOfChain) {
            RequireRefusal([&] { allocator_->AllocatePage(previous); },
                           "a page has no second successor");
            return;
        }
        links_[previous - kHeadPageNumber] = page;
    }
    Require(allocator_->AllocatePage(previous) == page, "the page allocated");
    highest_ = std::max(highest_, page);
}

void Runner::Free() {
    const std::uint64_t page = AnyPage();
    if (!IsValidPageNumber(page) || page >= End()) {
        RequireRefusal([&] { allocator_->FreePage(page); }, "only known pages can be freed");
        return;
    }
    allocator_->FreePage(page);
    links_[page - kHeadPageNumber] = kFreePage;
    queue_.push_back(page);
}

void Runner::Mark() {
    std::uint64_t page = AnyPage();
    if (!IsValidPageNumber(page)) {
        RequireRefusal([&] { allocator_->MarkPageAllocated(page); }, "only pages can be marked");
        return;
    }
    page += Number() % kMostMarkedAhead;
    Require(allocator_->MarkPageAllocated(page) == IsFree(page), "marked if it was free");
    highest_ = std::max(highest_, page);
    while (End() <= page) {
        if (End() < page) { queue_.push_back(End()); }
        links_.push_back(kFreePage);
    }
    if (links_[page - kHeadPageNumber] == kFreePage) {
        links_[page - kHeadPageNumber] = kEndOfChain;
    }
}

void Runner::Ask() {
    const std::uint64_t page = AnyPage();
    if (IsValidPageNumber(page)) {
        Require(allocator_->IsPageAllocated(page) == !IsFree(page), "allocated unless free");
        Require(allocator_->GetNextPage(page) ==
                    (page < End() ? links_[page - kHeadPageNumber] : kFreePage),
                "a page's successor");
        return;
    }
    RequireRefusal([&] { allocator_->IsPageAllocated(page); }, "only pages can be in use");
    RequireRefusal([&] { allocator_->GetNextPage(page); }, "only pages have successors");
}

Format::Bytes StateOf(const std::vector<std::uint64_t>& links) {
    Format::Bytes state;
    Format::AppendInteger(state, 8, links.size());
    for (const std::uint64_t link : links) {
        Format::AppendInteger(state, 8, link);
    }
    return state;
}

// True if no page follows two others, and every page that follows one is in the table.
bool AreChains(const std::vector<std::uint64_t>& links) {
    std::set<std::uint64_t> successors;
    return std::all_of(links.begin(), links.end(), [&](std::uint64_t link) {
        return !IsValidPageNumber(link) ||
               (link < kHeadPageNumber + links.size() && successors.insert(link).second);
    });
}

// Loads a state into a new allocator; null if it is refused.
Util::RefPtr<PageAllocator> Loaded(const Format::Bytes& state) {
    const Util::RefPtr<PageAllocator> allocator(new PageAllocator);
    try {
        Require(allocator->LoadState(Util::RefPtr<IDataStream>(new Testing::MemoryStream(state))),
                "a state can be loaded");
        return allocator;
    } catch (const FileDataCorruptException&) { return {}; }
}

// Derives the rest of the model from the links, as a load does.
void Runner::Rebuild() {
    queue_.clear();
    highest_ = kHeadPageNumber;
    for (std::uint64_t page = kHeadPageNumber; page < End(); ++page) {
        if (IsFree(page)) {
            queue_.push_back(page);
        } else {
            highest_ = page;
        }
    }
}

// Freeing and reusing a page that is another's successor can leave two pages with one successor.
// Such a state can be saved, but not loaded.
void Runner::Reload() {
    const Util::RefPtr<Testing::MemoryStream> stream(
        new Testing::MemoryStream(Format::Bytes(allocator_->GetStateSize())));
    Require(allocator_->SaveState(stream), "the state can be saved");
    Require(stream->Content() == StateOf(links_), "the state saved");
    const Util::RefPtr<PageAllocator> loaded = Loaded(stream->Content());
    Require(static_cast<bool>(loaded) == AreChains(links_), "chains can be loaded");
    if (loaded) {
        allocator_ = loaded;
        Rebuild();
    }
}

void Runner::LoadLinks() {
    std::vector<std::uint64_t> links;
    for (std::size_t count = Number() % kMostLoadedLinks; count > 0; --count) {
        const std::uint8_t number = Number();
        links.push_back(number < 250 ? number % 64u : input_.ConsumeIntegral<std::uint64_t>());
    }
    Format::Bytes state = StateOf(links);
    const std::uint8_t cut = Number();
    bool whole = true;
    if (cut % 8 == 0) {
        whole = cut / 8 == 0;
        state.resize(state.size() - std::min<std::size_t>(cut / 8, state.size()));
    }
    const Util::RefPtr<PageAllocator> loaded = Loaded(state);
    Require(static_cast<bool>(loaded) == (whole && AreChains(links)), "only chains can be loaded");
    if (loaded) {
        allocator_ = loaded;
        links_ = links;
        Rebuild();
    }
}

void Runner::Compare() {
    Require(allocator_->GetStateSize() == 8 * (links_.size() + 1), "the state's size");
    for (std::uint64_t page = kHeadPageNumber; page < End(); ++page) {
        const std::uint64_t link = links_[page - kHeadPageNumber];
        Require(allocator_->GetNextPage(page) == link, "a page's link");
        Require(allocator_->IsPageAllocated(page) == (link != kFreePage),
                "whether a page is in use");
    }
    Require(!allocator_->IsPageAllocated(End()), "nothing past the table");
    Require(allocator_->HighestPage() == highest_, "the highest page");
}

}  // namespace

}  // namespace Quorvel::Fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    Quorvel::Fuzz::Runner(input).Run();
    return 0;
}
