#include "tools/quorvel/Report.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "effectcache/EffectRecord.h"
#include "effectcache/SpaceBudget.h"
#include "quorvel/Version.h"
#include "tools/quorvel/ReportPage.h"
#include "tools/quorvel/Session.h"
#include "tools/quorvel/Statistics.h"
#include "tools/quorvel/Text.h"

namespace Quorvel::Tool {
namespace {

// JSON for use inside an HTML page. Without a '<' it can't end the element that contains it.
std::string ToPageText(const Json& json) {
    std::string text = json.dump(-1, ' ', false, Json::error_handler_t::replace);
    for (std::size_t at = 0; (at = text.find('<', at)) != std::string::npos;) {
        text.replace(at, 1, "\\u003c");
    }
    return text;
}

// The data of the page, which report.js reads: one JSON object. It is written piece by piece, since
// it may be large. The effects are followed by the other streams; positions in this list identify
// them.
class ReportData {
public:
    ReportData(const Snapshot& snapshot, std::ostream& out) : snapshot_(snapshot), out_(out) {
        FindThings();
    }

    void Write(const std::string& path) {
        out_ << "{\"facts\":" << ToPageText(Facts(path)) << ",\n\"runs\":[";
        const char* separator = "";
        for (const PageRun& run : FindPageRuns(snapshot_)) {
            out_ << separator << static_cast<int>(run.kind) << ',' << PositionOf(run) << ','
                 << run.count;
            separator = ",";
        }
        out_ << "],\n\"index\":"
             << (snapshot_.HoldsEffects() ? PositionOf(streams_, snapshot_.Header().indexStream)
                                          : -1);
        WriteBlocks();
        WriteThings();
        out_ << "}\n";
    }

private:
    using Positions = std::unordered_map<std::uint64_t, std::int64_t>;

    struct Thing {
        const Format::StreamRecord* stream;
        const Format::IndexEntry* effect;  // null for a stream that is no effect
        std::int64_t block;                // of its tail, counted from 1; 0 if there is none
    };

    static std::int64_t PositionOf(const Positions& positions, std::uint64_t id) {
        const auto found = positions.find(id);
        return found == positions.end() ? -1 : found->second;
    }

    std::int64_t PositionOf(const PageRun& run) const {
        switch (run.kind) {
            case PageKind::kIndex:
            case PageKind::kEffects:
                return PositionOf(streams_, run.owner);
            case PageKind::kTails:
                return PositionOf(blocks_, run.owner);
            default:
                return 0;
        }
    }

    void FindThings();
    Json Facts(const std::string& path) const;
    void WriteBlocks();
    void WriteThings();

    // Writes a list with one item for each thing from `first` up to `end`.
    template <typename Item>
    void WriteList(const char* name, std::size_t first, std::size_t end, const Item& item) {
        out_ << ",\n\"" << name << "\":[";
        for (std::size_t i = first; i < end; ++i) {
            StopIfAsked();
            if (i > first) { out_ << ','; }
            out_ << item(things_[i]);
        }
        out_ << ']';
    }

    const Snapshot& snapshot_;
    std::ostream& out_;
    std::vector<Thing> things_;
    Positions streams_;  // in things_, by id
    Positions blocks_;   // in the state, by id
};

void ReportData::FindThings() {
    const Format::PackageState& state = snapshot_.State();
    std::unordered_map<std::uint64_t, const Format::StreamRecord*> streams;
    for (const Format::StreamRecord& stream : state.streams) {
        streams.emplace(stream.id, &stream);
    }
    const auto add = [&](const Format::StreamRecord& stream, const Format::IndexEntry* effect) {
        streams_.emplace(stream.id, static_cast<std::int64_t>(things_.size()));
        things_.push_back({&stream, effect, 0});
    };
    things_.reserve(state.streams.size());
    for (const Format::IndexEntry& effect : snapshot_.Effects()) {
        add(*streams.at(effect.record.streamId), &effect);
    }
    for (const Format::StreamRecord& stream : state.streams) {
        if (PositionOf(streams_, stream.id) < 0) { add(stream, nullptr); }
    }
    for (std::size_t i = 0; i < state.blocks.size(); ++i) {
        blocks_.emplace(state.blocks[i].id, static_cast<std::int64_t>(i));
    }
    for (const Format::Fragment& fragment : state.fragments) {
        const std::int64_t position = PositionOf(streams_, fragment.streamId);
        if (position < 0) { continue; }
        things_[static_cast<std::size_t>(position)].block =
            PositionOf(blocks_, fragment.blockId) + 1;
    }
}

Json ReportData::Facts(const std::string& path) const {
    Json facts = {{"path", EscapePath(path)},        {"time", Time(Now())},
                  {"version", QUORVEL_VERSION},      {"damage", snapshot_.Damage()},
                  {"pageSize", Format::kPageSize},   {"blockSize", Format::kTailBlockSize},
                  {"effectLimit", kStreamLimit - 1}, {"byteLimit", kLargestSpaceBudget}};
    facts.update(ToJson(MakeStatistics(snapshot_), snapshot_.HoldsEffects()));
    return facts;
}

// The bytes in use of each tail block.
void ReportData::WriteBlocks() {
    out_ << ",\n\"blocks\":[";
    const char* separator = "";
    for (const Format::TailBlock& block : snapshot_.State().blocks) {
        out_ << separator << Format::kTailBlockSize - block.freeBytes;
        separator = ",";
    }
    out_ << ']';
}

void ReportData::WriteThings() {
    const std::size_t effects = snapshot_.Effects().size();
    const std::size_t all = things_.size();
    WriteList("names", 0, effects,
              [](const Thing& thing) { return ToPageText(Escape(thing.effect->name)); });
    WriteList("times", 0, effects,
              [](const Thing& thing) { return ToPageText(Time(thing.effect->record.time)); });
    WriteList("permanent", 0, effects,
              [](const Thing& thing) { return thing.effect->record.permanent != 0 ? 1 : 0; });
    WriteList("sizes", 0, all, [](const Thing& thing) {
        return thing.effect ? thing.effect->record.size : thing.stream->size;
    });
    WriteList("tails", 0, all, [](const Thing& thing) { return thing.block; });
    WriteList("streams", effects, all, [](const Thing& thing) { return thing.stream->id; });
}

// ---- The picture alone --------------------------------------------------------------------------

constexpr std::array<const char*, kPageKinds.size()> kLabels = {
    "Head file", "Index", "Effects", "Tail blocks", "Free", "Unowned", "Dead"};
constexpr std::uint64_t kWidth = 980;   // of the picture
constexpr std::uint64_t kHeight = 560;  // unless the squares can't get smaller
constexpr std::uint64_t kLargestSide = 20;
constexpr std::uint64_t kMargin = 16;
constexpr std::uint64_t kLegendHeight = 56;

// The strokes of each kind, in squares from the picture's corner.
using Strokes = std::array<std::string, kPageKinds.size()>;

Strokes DrawRuns(const std::vector<PageRun>& runs, std::uint64_t columns) {
    Strokes strokes;
    std::uint64_t page = 0;
    for (std::size_t i = 0; i < runs.size();) {
        const PageKind kind = runs[i].kind;
        std::uint64_t end = page;
        for (; i < runs.size() && runs[i].kind == kind; ++i) {
            end += runs[i].count;
        }
        while (page < end) {
            StopIfAsked();
            const std::uint64_t length = std::min(end - page, columns - page % columns);
            strokes[static_cast<std::size_t>(kind)] +=
                fmt::format("M{} {}h{}", page % columns, page / columns, length);
            page += length;
        }
    }
    return strokes;
}

void WriteLegend(const Statistics& figures, bool holdsEffects, std::uint64_t y, std::ostream& out) {
    constexpr std::uint64_t kStep = kWidth / kPageKinds.size();
    for (std::size_t i = 0; i < kPageKinds.size(); ++i) {
        const std::uint64_t x = kMargin + i * kStep;
        const char* const label = i == static_cast<std::size_t>(PageKind::kEffects) && !holdsEffects
                                      ? "Streams"
                                      : kLabels[i];
        out << fmt::format(
            "<rect class=\"{}\" x=\"{}\" y=\"{}\" width=\"11\" height=\"11\" rx=\"2\" "
            "fill=\"currentColor\"/>\n"
            "<text class=\"ink\" x=\"{}\" y=\"{}\" fill=\"currentColor\">{}"
            "<tspan class=\"muted\" x=\"{}\" dy=\"18\" fill=\"currentColor\">{}</tspan></text>\n",
            kPageKinds[i], x, y, x + 18, y + 10, label, x + 18, figures.pages[i]);
    }
}

}  // namespace

void WriteReport(const Snapshot& snapshot, const std::string& path, std::ostream& out) {
    out << kReportStart;
    ReportData(snapshot, out).Write(path);
    out << kReportEnd;
}

void WritePicture(const Snapshot& snapshot, std::ostream& out) {
    const Statistics figures = MakeStatistics(snapshot);
    std::uint64_t side = kLargestSide;  // of a page's square
    const auto columns = [&] { return kWidth / side; };
    const auto rows = [&] { return (figures.filePages + columns() - 1) / columns(); };
    while (side > 1 && rows() * side > kHeight) {
        --side;
    }
    const std::uint64_t height = rows() * side;
    out << fmt::format(
        "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0}\" height=\"{1}\" "
        "viewBox=\"0 0 {0} {1}\" font-family=\"system-ui, sans-serif\" font-size=\"13\">\n"
        "<title>The {2} of the file</title>\n<style>\n{3}</style>\n"
        "<rect class=\"paper\" width=\"{0}\" height=\"{1}\" fill=\"currentColor\"/>\n"
        "<g transform=\"translate({4} {4}) scale({5}) translate(0 .5)\" stroke=\"currentColor\" "
        "shape-rendering=\"crispEdges\">\n",
        kWidth + 2 * kMargin, height + 2 * kMargin + kLegendHeight,
        Count(figures.filePages, "page"), kReportPalette, kMargin, side);
    const Strokes strokes = DrawRuns(FindPageRuns(snapshot), columns());
    for (std::size_t i = 0; i < strokes.size(); ++i) {
        if (strokes[i].empty()) { continue; }
        out << fmt::format("<path class=\"{}\" d=\"{}\"/>\n", kPageKinds[i], strokes[i]);
    }
    out << "</g>\n";
    WriteLegend(figures, snapshot.HoldsEffects(), kMargin + height + 20, out);
    out << "</svg>\n";
}

}  // namespace Quorvel::Tool
