#include "tool/DamagedFiles.h"

#include <gtest/gtest.h>

#include "faults/RandomDamage.h"
#include "format/SalvageReader.h"
#include "tools/quorvel/Session.h"

namespace Quorvel::Tool {
namespace {

TEST(DamagedFiles, GetAnAnswerFromEveryCommand) {
    const DamagedFileRuns runs = RunOnDamagedFiles(1, 50, CommandsForDamagedFiles());
    EXPECT_TRUE(runs.problems.empty()) << runs;
    for (const auto& [command, codes] : runs.exitCodes) {
        EXPECT_EQ(codes.count(kNo), 1U) << command;
    }
    EXPECT_GT(runs.saved, 0U);
}

// Damage to one field of the tables or of the index never mixes up effects.
TEST(DamagedFiles, NeverMakeSalvageTakeWrongBytes) {
    const Format::Bytes cache = Faults::SampleCache();
    const Faults::FileMap map(cache);
    const Format::Effects effects = Format::ReadEffectCache(Format::ReadPackage(cache));
    constexpr std::uint64_t kShare = 8;  // all would take minutes under the sanitizers
    std::uint64_t files = 0;
    std::uint64_t whole = 0;
    for (int table = 0; table < static_cast<int>(Faults::Table::TimeStamp); ++table) {
        const auto examine = [&](const Format::Bytes& damaged, const std::string& name) {
            if (++files % kShare != 0) { return; }
            const Format::MemorySource source(damaged);
            Format::SalvageReader(source).ForEach(
                [&](const Format::IndexEntry& entry, const Format::Bytes& data) {
                    ++whole;
                    const auto original =
                        std::find_if(map.Entries().begin(), map.Entries().end(),
                                     [&](const auto& one) { return one.name == entry.name; });
                    if (original != map.Entries().end() && map.IsUntouched(*original, damaged)) {
                        EXPECT_TRUE(data == effects.at(entry.name).data)
                            << name << ", " << entry.name;
                    }
                },
                [](const Format::IndexEntry&, const std::string&) {});
        };
        Faults::ForEachDamagedField(map, static_cast<Faults::Table>(table), examine);
    }
    EXPECT_GT(files, 1000U);
    // Most damage costs an effect or two.
    EXPECT_GT(whole, files / kShare * map.Entries().size() / 2);
    RecordProperty("files", static_cast<int>(files));
    RecordProperty("whole", static_cast<int>(whole));
}

}  // namespace
}  // namespace Quorvel::Tool
