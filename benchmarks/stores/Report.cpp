#include "stores/Report.h"

#include <cstdio>
#include <fstream>
#include <initializer_list>
#include <stdexcept>

#include "support/Statistics.h"

namespace Quorvel::Benchmarks {

namespace {

const FigureDescription& Describe(Figure figure) {
    for (const FigureDescription& description : Figures()) {
        if (description.figure == figure) { return description; }
    }
    throw std::logic_error("a figure without a description");
}

std::string Cell(const Samples& samples, const FigureDescription& description) {
    const auto found = samples.find(description.figure);
    if (found == samples.end() || found->second.empty()) { return "-"; }
    const double median = Median(found->second);
    char text[48];
    if (found->second.size() < 2) {
        std::snprintf(text, sizeof text, "%.*f", description.digits, median);
    } else {
        const double halfRange =
            (Quantile(found->second, 0.75) - Quantile(found->second, 0.25)) / 2;
        std::snprintf(text, sizeof text, "%.*f \u00b1%2.0f%%", description.digits, median,
                      median != 0 ? 100 * halfRange / median : 0);
    }
    return text;
}

// The plus-minus sign between a median and its spread takes two bytes but one column.
int Width(const std::string& cell, int columns) {
    return columns + (cell.find("\u00b1") != std::string::npos ? 1 : 0);
}

void PrintTable(const WorkloadResults& results, const char* title,
                std::initializer_list<Figure> figures) {
    constexpr int kColumn = 15;
    std::printf("\n%s\n%-10s", title, "");
    for (const Figure figure : figures) {
        std::printf("%*s", kColumn, Describe(figure).title);
    }
    std::printf("\n");
    for (const StoreKind& kind : StoreKinds()) {
        const auto samples = results.byStore.find(kind.name);
        if (samples == results.byStore.end()) { continue; }
        std::printf("%-10s", kind.title.c_str());
        for (const Figure figure : figures) {
            const std::string cell = Cell(samples->second, Describe(figure));
            std::printf("%*s", Width(cell, kColumn), cell.c_str());
        }
        std::printf("\n");
    }
}

}  // namespace

void PrintTables(const WorkloadResults& results) {
    std::printf("\n%zu effects, %.1f MiB, names of %.0f bytes\n", results.count,
                static_cast<double>(results.effectBytes) / 0x100000,
                static_cast<double>(results.nameBytes) / static_cast<double>(results.count));
    PrintTable(results, "Nanoseconds per effect (median, half the interquartile range)",
               {Figure::Save, Figure::Open, Figure::AllOnce, Figure::Hot20, Figure::Hot200,
                Figure::Absent, Figure::AbsentOnce});
    PrintTable(results, "With other processes (nanoseconds per effect)",
               {Figure::AfterSave, Figure::SearchBesideSave, Figure::SaveBesideSearch});
    PrintTable(results, "Bytes on disk per cached byte; memory peaks, bytes per effect",
               {Figure::DiskRatio, Figure::SavePeak, Figure::SaveHeapPeak, Figure::SearchPeak,
                Figure::SearchHeapPeak});
    PrintTable(results, "System calls per effect",
               {Figure::SaveCalls, Figure::AllOnceCalls, Figure::Hot20Calls, Figure::AbsentCalls});
    std::fflush(stdout);
}

void WriteJson(const std::string& path, const std::vector<WorkloadResults>& results,
               const std::string& effects, const nlohmann::ordered_json& machine) {
    nlohmann::ordered_json document;
    document["machine"] = machine;
    document["effects"] = effects;
    for (const WorkloadResults& result : results) {
        nlohmann::ordered_json entry;
        entry["count"] = result.count;
        entry["effect_bytes"] = result.effectBytes;
        entry["name_bytes"] = result.nameBytes;
        for (const StoreKind& kind : StoreKinds()) {
            const auto samples = result.byStore.find(kind.name);
            if (samples == result.byStore.end()) { continue; }
            nlohmann::ordered_json store;
            store["title"] = kind.title;
            for (const FigureDescription& description : Figures()) {
                const auto found = samples->second.find(description.figure);
                if (found != samples->second.end()) { store[description.name] = found->second; }
            }
            entry["stores"][kind.name] = store;
        }
        document["results"].push_back(entry);
    }
    std::ofstream file(path);
    file << document.dump(1) << '\n';
    if (!file.flush()) { throw std::runtime_error("can't write " + path); }
}

}  // namespace Quorvel::Benchmarks
