#include "format/PackageCheck.h"

#include <algorithm>
#include <map>
#include <sstream>

namespace Quorvel::Format {
namespace {

class PackageChecker {
public:
    PackageChecker(const PackageState& state, std::uint64_t fileSize)
        : state_(state), fileSize_(fileSize) {}

    std::vector<std::string> Run() {
        IndexRecords();
        CheckHeadFile();
        CheckLinks();
        CheckStreams();
        CheckTailBlocks();
        CheckFragments();
        CheckOwners();
        return std::move(problems_);
    }

private:
    template <typename... Words>
    void Expect(bool holds, const Words&... otherwise) {
        if (!holds) {
            std::ostringstream line;
            (line << ... << otherwise);
            problems_.push_back(line.str());
        }
    }

    void IndexRecords();
    void CheckHeadFile();
    void CheckLinks();
    void CheckStreams();
    void CheckTailBlocks();
    void CheckFragments();
    void CheckOwners();
    void Own(std::uint64_t page, const std::string& owner);

    // Makes a chain of count pages belong to an owner, and checks that it ends there.
    void OwnChain(std::uint64_t first, std::uint64_t count, const std::string& owner);

    const PackageState& state_;
    const std::uint64_t fileSize_;
    std::map<std::uint64_t, const StreamRecord*> streams_;
    std::map<std::uint64_t, const TailBlock*> blocks_;
    std::map<std::uint64_t, const Fragment*> fragments_;  // by stream
    std::map<std::uint64_t, std::string> owners_;         // by page
    std::vector<std::string> problems_;
};

std::string StreamName(std::uint64_t id) {
    return "stream " + std::to_string(id);
}

std::string BlockName(std::uint64_t id) {
    return "tail block " + std::to_string(id);
}

void PackageChecker::IndexRecords() {
    for (const StreamRecord& stream : state_.streams) {
        streams_[stream.id] = &stream;
    }
    for (const TailBlock& block : state_.blocks) {
        blocks_[block.id] = &block;
    }
    for (const Fragment& fragment : state_.fragments) {
        fragments_[fragment.streamId] = &fragment;
    }
}

void PackageChecker::CheckHeadFile() {
    const std::vector<HeadPage>& pages = state_.headPages;
    Expect(pages.size() == state_.headPageCount, "the head file claims ", state_.headPageCount,
           " pages; its state takes up ", pages.size());
    Expect(state_.stateSize == state_.headSize, "the head file claims ", state_.headSize,
           " bytes; its state takes up ", state_.stateSize);
    Expect(pages.back().nextPage == 0, "head page ", pages.back().number,
           " is the last, but names page ", pages.back().nextPage, " as the next");

    std::uint64_t held = pages.front().dataEnd - kFirstHeadPageHeader;
    for (std::size_t i = 1; i < pages.size(); ++i) {
        held += pages[i].dataEnd - kHeadPageHeader;
    }
    Expect(held == state_.headSize, "the head file claims ", state_.headSize,
           " bytes; its pages hold ", held);
    for (const HeadPage& page : pages) {
        Expect(state_.Link(page.number) == page.nextPage, "head page ", page.number, " names page ",
               page.nextPage, " as the next; its link is ", state_.Link(page.number));
        Own(page.number, "the head file");
    }
}

void PackageChecker::CheckLinks() {
    for (std::size_t i = 0; i < state_.links.size(); ++i) {
        const std::uint64_t link = state_.links[i];
        const std::uint64_t page = i + kFirstPage;
        if (IsPageNumber(link)) {
            Expect(state_.Link(link) != kFreePage, "page ", page, " links to the free page ", link);
        } else {
            Expect(link == kChainEnd || link == kFreePage, "page ", page, " has the link ", link);
        }
    }
}

void PackageChecker::CheckStreams() {
    for (const StreamRecord& stream : state_.streams) {
        const std::string name = StreamName(stream.id);
        Expect(stream.pageCount == stream.size / kPageSize, name, " of ", stream.size,
               " bytes has ", stream.pageCount, " whole pages");
        Expect((stream.pageCount == 0) == (stream.firstPage == 0), name, " has ", stream.pageCount,
               " whole pages and the first page ", stream.firstPage);
        const std::uint64_t tail = stream.size % kPageSize;
        const auto found = fragments_.find(stream.id);
        const std::uint64_t length = found == fragments_.end() ? 0 : found->second->length;
        Expect(length == tail, name, " of ", stream.size, " bytes has a fragment of ", length);
        if (stream.firstPage != 0) { OwnChain(stream.firstPage, stream.pageCount, name); }
    }
}

void PackageChecker::CheckTailBlocks() {
    for (const TailBlock& block : state_.blocks) {
        const std::string name = BlockName(block.id);
        std::uint64_t end = 0;
        for (std::size_t i = 0; i < block.streams.size(); ++i) {
            const auto found = fragments_.find(block.streams[i]);
            if (found == fragments_.end() || found->second->blockId != block.id) {
                Expect(false, name, " lists ", StreamName(block.streams[i]),
                       ", which has no fragment in it");
                continue;
            }
            const Fragment& fragment = *found->second;
            Expect(fragment.index == i, name, " lists ", StreamName(fragment.streamId), " as ", i,
                   "; its fragment says ", fragment.index);
            Expect(fragment.offset == end, name, " has used ", end, " bytes; ",
                   StreamName(fragment.streamId), "'s fragment begins at ", fragment.offset);
            end = fragment.offset + fragment.length;
        }
        Expect(end + block.freeBytes == kTailBlockSize, name, " has used ", end, " bytes and has ",
               block.freeBytes, " free");

        OwnChain(block.pages[0], kTailBlockPages, name);
        for (std::size_t i = 0; i + 1 < kTailBlockPages; ++i) {
            Expect(state_.Link(block.pages[i]) == block.pages[i + 1], name, "'s page ",
                   block.pages[i + 1], " does not follow its page ", block.pages[i]);
        }
    }
}

void PackageChecker::CheckFragments() {
    for (const Fragment& fragment : state_.fragments) {
        const std::string name = StreamName(fragment.streamId);
        Expect(streams_.count(fragment.streamId) != 0, "there is a fragment of ", name,
               ", but no such stream");
        Expect(fragment.length > 0, name, " has an empty fragment");
        const std::vector<std::uint64_t>& list = blocks_.at(fragment.blockId)->streams;
        const auto times = std::count(list.begin(), list.end(), fragment.streamId);
        Expect(times == 1, BlockName(fragment.blockId), " lists ", name, " ", times, " times");
    }
}

void PackageChecker::Own(std::uint64_t page, const std::string& owner) {
    const auto [previous, isNew] = owners_.emplace(page, owner);
    Expect(isNew, "page ", page, " belongs to ", previous->second, " and to ", owner);
    Expect(state_.Link(page) != kFreePage, "page ", page, " of ", owner, " is free");
    Expect(PageOffset(page) + kPageSize <= fileSize_, "page ", page, " of ", owner,
           " lies past the end of the file");
}

void PackageChecker::OwnChain(std::uint64_t first, std::uint64_t count, const std::string& owner) {
    std::uint64_t page = first;
    for (std::uint64_t i = 0; i < count; ++i) {
        if (!IsPageNumber(page)) {
            Expect(false, owner, "'s chain has ", i, " pages instead of ", count);
            return;
        }
        Own(page, owner);
        if (owners_.at(page) != owner) { return; }
        page = state_.Link(page);
    }
    Expect(count == 0 || page == kChainEnd, owner,
           "'s chain does not end, but continues with page ", page);
}

void PackageChecker::CheckOwners() {
    for (std::size_t i = 0; i < state_.links.size(); ++i) {
        const std::uint64_t page = i + kFirstPage;
        Expect(state_.links[i] == kFreePage || owners_.count(page) != 0, "page ", page,
               " is in use, but belongs to nothing");
    }
}

}  // namespace

std::vector<std::string> CheckPackage(const Bytes& file, std::uint64_t streamLimit) {
    try {
        return CheckPackage(ReadPackage(file, streamLimit));
    } catch (const FormatError& error) {
        return {std::string("no intact package: ") + error.what()};
    }
}

std::vector<std::string> CheckPackage(const PackageImage& image) {
    return CheckPackage(image, image.file.size());
}

std::vector<std::string> CheckPackage(const PackageState& state, std::uint64_t fileSize) {
    return PackageChecker(state, fileSize).Run();
}

}  // namespace Quorvel::Format
