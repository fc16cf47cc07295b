#include "format/PackageWriter.h"

#include <algorithm>
#include <random>
#include <stdexcept>

namespace Quorvel::Format {
namespace {

// Fills unused bytes, so that a reader that takes them for data is noticed.
constexpr std::uint8_t kFiller = 0xEE;

std::uint64_t HeadPagesFor(std::uint64_t size) {
    const std::uint64_t first = kPageSize - kFirstHeadPageHeader;
    const std::uint64_t later = kPageSize - kHeadPageHeader;
    return size <= first ? 1 : 1 + (size - first + later - 1) / later;
}

class PackageComposer {
public:
    PackageComposer(const std::map<std::uint64_t, Bytes>& streams, const Bytes& headerData,
                    const PackageLayout& layout)
        : streams_(streams), layout_(layout), random_(layout.seed) {
        image_.headerData = headerData;
    }

    PackageImage Compose() {
        PlaceTails();
        MakeRecords();
        DealPages();
        FillPages();
        if (layout_.shuffleRecords) {
            Shuffle(image_.streams);
            Shuffle(image_.blocks);
            Shuffle(image_.fragments);
        }
        return std::move(image_);
    }

private:
    using Chain = std::vector<std::uint64_t>;

    template <typename Container>
    void Shuffle(Container& items) {
        std::shuffle(items.begin(), items.end(), random_);
    }

    void PlaceTails();
    TailBlock& ChooseBlock(std::uint64_t length);
    TailBlock& NewBlock();
    void MakeRecords();
    void DealPages();
    std::vector<std::uint64_t> ChoosePageNumbers(std::uint64_t used, std::uint64_t free);
    void Deal(const std::vector<std::uint64_t>& numbers, std::vector<Chain*> chains);
    void FillPages();
    void Fill(std::uint64_t page, std::uint64_t offset, const Bytes& from, std::uint64_t begin,
              std::uint64_t size);

    const std::map<std::uint64_t, Bytes>& streams_;
    const PackageLayout& layout_;
    std::mt19937 random_;
    PackageImage image_;
    std::map<std::uint64_t, Chain> streamPages_;
    std::vector<Chain> blockPages_;
};

void PackageComposer::PlaceTails() {
    std::vector<std::uint64_t> ids;
    for (const auto& [id, content] : streams_) {
        if (content.size() % kPageSize != 0) { ids.push_back(id); }
    }
    for (unsigned i = 0; i < layout_.emptyBlocks; ++i) {
        NewBlock();
    }
    if (layout_.tails == TailPlacement::kScattered) {
        Shuffle(ids);
        for (std::size_t i = 0; i < ids.size() / 8 + 2; ++i) {
            NewBlock();
        }
    }
    for (const std::uint64_t id : ids) {
        const std::uint64_t length = streams_.at(id).size() % kPageSize;
        TailBlock& block = ChooseBlock(length);
        image_.fragments.push_back(
            {id, block.id, block.streams.size(), kTailBlockSize - block.freeBytes, length});
        block.streams.push_back(id);
        block.freeBytes -= length;
    }
    std::sort(image_.fragments.begin(), image_.fragments.end(),
              [](const Fragment& a, const Fragment& b) { return a.streamId < b.streamId; });
}

TailBlock& PackageComposer::ChooseBlock(std::uint64_t length) {
    std::vector<TailBlock*> withRoom;
    for (std::size_t i = layout_.emptyBlocks; i < image_.blocks.size(); ++i) {
        if (image_.blocks[i].freeBytes >= length) { withRoom.push_back(&image_.blocks[i]); }
    }
    if (withRoom.empty() || layout_.tails == TailPlacement::kBlockEach) { return NewBlock(); }
    const std::size_t which =
        layout_.tails == TailPlacement::kScattered ? random_() % withRoom.size() : 0;
    return *withRoom[which];
}

TailBlock& PackageComposer::NewBlock() {
    image_.blocks.push_back({image_.blocks.size(), {}, kTailBlockSize, {}});
    return image_.blocks.back();
}

void PackageComposer::MakeRecords() {
    for (const auto& [id, content] : streams_) {
        const std::uint64_t pages = content.size() / kPageSize;
        image_.streams.push_back({id, content.size(), 0, pages});
        streamPages_[id].resize(static_cast<std::size_t>(pages));
    }
    blockPages_.assign(image_.blocks.size(), Chain(kTailBlockPages));
}

void PackageComposer::DealPages() {
    std::vector<Chain*> chains;
    std::uint64_t dataPages = 0;
    for (auto& [id, pages] : streamPages_) {
        chains.push_back(&pages);
        dataPages += pages.size();
    }
    for (Chain& pages : blockPages_) {
        chains.push_back(&pages);
        dataPages += pages.size();
    }

    // The state contains the link table, which has entries for the state's own pages.
    std::uint64_t headPages = 0;
    std::uint64_t needed = 1;
    while (needed != headPages) {
        headPages = needed;
        image_.links.assign(static_cast<std::size_t>(headPages + dataPages + layout_.freePages +
                                                     layout_.freePagesAtEnd),
                            kFreePage);
        needed = HeadPagesFor(EncodeState(image_).size());
    }
    Chain headTail(static_cast<std::size_t>(headPages - 1));
    chains.push_back(&headTail);
    Deal(ChoosePageNumbers(headPages - 1 + dataPages, layout_.freePages), chains);

    Chain head{kFirstPage};
    head.insert(head.end(), headTail.begin(), headTail.end());
    chains.back() = &head;
    for (const Chain* chain : chains) {
        for (std::size_t i = 0; i < chain->size(); ++i) {
            image_.links[static_cast<std::size_t>((*chain)[i] - kFirstPage)] =
                i + 1 < chain->size() ? (*chain)[i + 1] : kChainEnd;
        }
    }
    for (const std::uint64_t page : head) {
        image_.headPages.push_back({page, image_.Link(page), 0});
    }
    for (StreamRecord& stream : image_.streams) {
        const Chain& pages = streamPages_[stream.id];
        stream.firstPage = pages.empty() ? 0 : pages.front();
    }
    for (TailBlock& block : image_.blocks) {
        const Chain& pages = blockPages_[static_cast<std::size_t>(block.id)];
        std::copy(pages.begin(), pages.end(), block.pages.begin());
    }
}

// Numbers for the used pages, from the second page on, with random gaps for the free ones.
std::vector<std::uint64_t> PackageComposer::ChoosePageNumbers(std::uint64_t used,
                                                              std::uint64_t free) {
    std::vector<std::uint64_t> numbers;
    for (std::uint64_t number = kFirstPage + 1; number <= kFirstPage + used + free; ++number) {
        numbers.push_back(number);
    }
    for (; free > 0; --free) {
        numbers.erase(numbers.begin() + static_cast<std::ptrdiff_t>(random_() % numbers.size()));
    }
    if (layout_.pageOrder == PageOrder::kDescending) {
        std::reverse(numbers.begin(), numbers.end());
    } else if (layout_.pageOrder == PageOrder::kShuffled) {
        Shuffle(numbers);
    }
    return numbers;
}

void PackageComposer::Deal(const std::vector<std::uint64_t>& numbers, std::vector<Chain*> chains) {
    auto next = numbers.begin();
    if (!layout_.interleaveChains) {
        for (Chain* chain : chains) {
            for (std::uint64_t& page : *chain) {
                page = *next++;
            }
        }
        return;
    }
    for (std::size_t i = 0; next != numbers.end(); ++i) {
        for (Chain* chain : chains) {
            if (i < chain->size()) { (*chain)[i] = *next++; }
        }
    }
}

void PackageComposer::FillPages() {
    const std::size_t pages = image_.links.size() - layout_.freePagesAtEnd;
    image_.file.assign(pages * kPageSize, kFiller);
    for (const auto& [id, content] : streams_) {
        const Chain& chain = streamPages_[id];
        for (std::size_t i = 0; i < chain.size(); ++i) {
            Fill(chain[i], 0, content, i * kPageSize, kPageSize);
        }
    }
    for (const Fragment& fragment : image_.fragments) {
        const Bytes& content = streams_.at(fragment.streamId);
        const TailBlock& block = image_.blocks[static_cast<std::size_t>(fragment.blockId)];
        std::uint64_t begin = content.size() - fragment.length;
        std::uint64_t offset = fragment.offset;
        while (begin < content.size()) {
            const std::uint64_t size =
                std::min(content.size() - begin, kPageSize - offset % kPageSize);
            Fill(block.pages[static_cast<std::size_t>(offset / kPageSize)], offset % kPageSize,
                 content, begin, size);
            begin += size;
            offset += size;
        }
    }
}

void PackageComposer::Fill(std::uint64_t page, std::uint64_t offset, const Bytes& from,
                           std::uint64_t begin, std::uint64_t size) {
    const auto source = from.begin() + static_cast<std::ptrdiff_t>(begin);
    std::copy(source, source + static_cast<std::ptrdiff_t>(size),
              image_.file.begin() + static_cast<std::ptrdiff_t>(PageOffset(page) + offset));
}

}  // namespace

PackageImage LayOutPackage(const std::map<std::uint64_t, Bytes>& streams, const Bytes& headerData,
                           const PackageLayout& layout) {
    return PackageComposer(streams, headerData, layout).Compose();
}

Bytes EncodeState(const PackageImage& image) {
    Bytes state;
    const auto append = [&](std::initializer_list<std::uint64_t> values) {
        for (const std::uint64_t value : values) {
            AppendInteger(state, 8, value);
        }
    };
    append({image.links.size()});
    for (const std::uint64_t link : image.links) {
        append({link});
    }
    append({image.streams.size()});
    for (const StreamRecord& stream : image.streams) {
        append({stream.id, stream.size, stream.firstPage, stream.pageCount});
    }
    append({image.blocks.size()});
    for (const TailBlock& block : image.blocks) {
        append({block.id});
        for (const std::uint64_t page : block.pages) {
            append({page});
        }
        append({block.freeBytes, block.streams.size()});
        for (const std::uint64_t stream : block.streams) {
            append({stream});
        }
    }
    append({image.fragments.size()});
    for (const Fragment& fragment : image.fragments) {
        append({fragment.streamId, fragment.blockId, fragment.index, fragment.offset,
                fragment.length});
    }
    append({image.headerData.size()});
    Append(state, image.headerData);
    return state;
}

Bytes EncodePackage(const PackageImage& image) {
    const Bytes state = EncodeState(image);
    if (HeadPagesFor(state.size()) != image.headPages.size()) {
        throw std::logic_error("the state does not fit the head file's pages");
    }
    Bytes file = image.file;
    std::size_t done = 0;
    for (std::size_t i = 0; i < image.headPages.size(); ++i) {
        const std::size_t start = i == 0 ? kFirstHeadPageHeader : kHeadPageHeader;
        const std::size_t count = std::min<std::size_t>(state.size() - done, kPageSize - start);
        const std::size_t page = PageOffset(image.headPages[i].number);
        const bool last = i + 1 == image.headPages.size();
        if (i == 0) {
            StoreInteger(file, page, 8, image.headPages.size());
            StoreInteger(file, page + 8, 8, state.size());
        }
        StoreInteger(file, page + start - 16, 8, last ? 0 : image.headPages[i + 1].number);
        StoreInteger(file, page + start - 8, 8, start + count);
        const auto from = state.begin() + static_cast<std::ptrdiff_t>(done);
        std::copy(from, from + static_cast<std::ptrdiff_t>(count),
                  file.begin() + static_cast<std::ptrdiff_t>(page + start));
        done += count;
    }
    return file;
}

Bytes WritePackage(const std::map<std::uint64_t, Bytes>& streams, const Bytes& headerData,
                   const PackageLayout& layout) {
    return EncodePackage(LayOutPackage(streams, headerData, layout));
}

}  // namespace Quorvel::Format
