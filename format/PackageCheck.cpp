#include "format/PackageCheck.h"

#include <cstddef>
#include <sstream>
#include <unordered_map>

namespace Quorvel::Format {
namespace {

std::string StreamName(std::uint64_t id) {
    return "stream " + std::to_string(id);
}

std::string BlockName(std::uint64_t id) {
    return "tail block " + std::to_string(id);
}

// What a page belongs to.
struct Owner {
    enum class Kind : std::uint8_t { Nothing, HeadFile, Stream, Block };

    Kind kind = Kind::Nothing;
    std::uint64_t id = 0;
};

std::ostream& operator<<(std::ostream& stream, const Owner& owner) {
    if (owner.kind == Owner::Kind::HeadFile) { return stream << "the head file"; }
    return stream << (owner.kind == Owner::Kind::Stream ? StreamName(owner.id)
                                                        : BlockName(owner.id));
}

class PackageChecker {
public:
    PackageChecker(const PackageState& state, std::uint64_t fileSize, const ProblemSink& problem)
        : state_(state),
          fileSize_(fileSize),
          problem_(problem),
          listings_(state.fragments.size()),
          owners_(state.links.size()) {}

    void Run() {
        IndexRecords();
        CheckHeadFile();
        CheckLinks();
        CheckStreams();
        CheckTailBlocks();
        CheckFragments();
        CheckOwners();
    }

private:
    template <typename... Words>
    void Expect(bool holds, const Words&... otherwise) {
        if (!holds) {
            std::ostringstream line;
            (line << ... << otherwise);
            problem_(line.str());
        }
    }

    void IndexRecords();
    void CheckHeadFile();
    void CheckLinks();
    void CheckStreams();
    void CheckTailBlocks();
    void CheckFragments();
    void CheckOwners();

    // Makes a page belong to an owner. False if it belongs to something already.
    bool Own(std::uint64_t page, const Owner& owner);

    // Makes a chain of count pages belong to an owner, and checks that the chain ends after them.
    // Stops at a page that already belongs to something, because everything after it does too.
    void OwnChain(std::uint64_t first, std::uint64_t count, const Owner& owner);

    const PackageState& state_;
    const std::uint64_t fileSize_;
    const ProblemSink& problem_;
    std::unordered_map<std::uint64_t, const StreamRecord*> streams_;
    std::unordered_map<std::uint64_t, std::size_t> fragments_;  // by stream, in the table
    std::vector<std::uint64_t> listings_;  // how often the list of its block names each fragment
    std::vector<Owner> owners_;            // by page; those past the end own nothing
};

void PackageChecker::IndexRecords() {
    for (const StreamRecord& stream : state_.streams) {
        streams_[stream.id] = &stream;
    }
    for (std::size_t i = 0; i < state_.fragments.size(); ++i) {
        fragments_[state_.fragments[i].streamId] = i;
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
        Own(page.number, {Owner::Kind::HeadFile});
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
        const std::uint64_t length =
            found == fragments_.end() ? 0 : state_.fragments[found->second].length;
        Expect(length == tail, name, " of ", stream.size, " bytes has a fragment of ", length);
        if (stream.firstPage != 0) {
            OwnChain(stream.firstPage, stream.pageCount, {Owner::Kind::Stream, stream.id});
        }
    }
}

void PackageChecker::CheckTailBlocks() {
    for (const TailBlock& block : state_.blocks) {
        const std::string name = BlockName(block.id);
        std::uint64_t end = 0;
        for (std::size_t i = 0; i < block.streams.size(); ++i) {
            const auto found = fragments_.find(block.streams[i]);
            if (found == fragments_.end() || state_.fragments[found->second].blockId != block.id) {
                Expect(false, name, " lists ", StreamName(block.streams[i]),
                       ", which has no fragment in it");
                continue;
            }
            const Fragment& fragment = state_.fragments[found->second];
            ++listings_[found->second];
            Expect(fragment.index == i, name, " lists ", StreamName(fragment.streamId), " as ", i,
                   "; its fragment says ", fragment.index);
            Expect(fragment.offset == end, name, " has used ", end, " bytes; ",
                   StreamName(fragment.streamId), "'s fragment begins at ", fragment.offset);
            end = fragment.offset + fragment.length;
        }
        Expect(end + block.freeBytes == kTailBlockSize, name, " has used ", end, " bytes and has ",
               block.freeBytes, " free");

        OwnChain(block.pages[0], kTailBlockPages, {Owner::Kind::Block, block.id});
        for (std::size_t i = 0; i + 1 < kTailBlockPages; ++i) {
            Expect(state_.Link(block.pages[i]) == block.pages[i + 1], name, "'s page ",
                   block.pages[i + 1], " does not follow its page ", block.pages[i]);
        }
    }
}

void PackageChecker::CheckFragments() {
    for (std::size_t i = 0; i < state_.fragments.size(); ++i) {
        const Fragment& fragment = state_.fragments[i];
        const std::string name = StreamName(fragment.streamId);
        Expect(streams_.count(fragment.streamId) != 0, "there is a fragment of ", name,
               ", but no such stream");
        Expect(fragment.length > 0, name, " has an empty fragment");
        Expect(listings_[i] == 1, BlockName(fragment.blockId), " lists ", name, " ", listings_[i],
               " times");
    }
}

bool PackageChecker::Own(std::uint64_t page, const Owner& owner) {
    const auto index = static_cast<std::size_t>(page - kFirstPage);
    if (index >= owners_.size()) { owners_.resize(index + 1); }
    const bool isNew = owners_[index].kind == Owner::Kind::Nothing;
    Expect(isNew, "page ", page, " belongs to ", owners_[index], " and to ", owner);
    if (isNew) { owners_[index] = owner; }
    Expect(state_.Link(page) != kFreePage, "page ", page, " of ", owner, " is free");
    Expect(PageOffset(page) + kPageSize <= fileSize_, "page ", page, " of ", owner,
           " lies past the end of the file");
    return isNew;
}

void PackageChecker::OwnChain(std::uint64_t first, std::uint64_t count, const Owner& owner) {
    std::uint64_t page = first;
    for (std::uint64_t i = 0; i < count; ++i) {
        if (!IsPageNumber(page)) {
            Expect(false, owner, "'s chain has ", i, " pages instead of ", count);
            return;
        }
        if (!Own(page, owner)) { return; }
        page = state_.Link(page);
    }
    Expect(count == 0 || page == kChainEnd, owner,
           "'s chain does not end, but continues with page ", page);
}

void PackageChecker::CheckOwners() {
    for (std::size_t i = 0; i < state_.links.size(); ++i) {
        const std::uint64_t page = i + kFirstPage;
        Expect(state_.links[i] == kFreePage || owners_[i].kind != Owner::Kind::Nothing, "page ",
               page, " is in use, but belongs to nothing");
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
    std::vector<std::string> problems;
    CheckPackage(image, image.file.size(),
                 [&](const std::string& line) { problems.push_back(line); });
    return problems;
}

void CheckPackage(const PackageState& state, std::uint64_t fileSize, const ProblemSink& problem) {
    PackageChecker(state, fileSize, problem).Run();
}

}  // namespace Quorvel::Format
