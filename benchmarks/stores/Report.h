#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "stores/Workload.h"

namespace Quorvel::Benchmarks {

// All samples for one number of effects.
struct WorkloadResults {
    std::size_t count;
    std::uint64_t effectBytes;
    std::uint64_t nameBytes;
    std::map<std::string, Samples> byStore;  // by StoreKind::name
};

// Prints tables of medians, each followed by half the interquartile range in percent.
void PrintTables(const WorkloadResults& results);

// Writes every sample to a JSON file, with descriptions of the effects and the machine. Throws
// std::runtime_error when it can't be written.
void WriteJson(const std::string& path, const std::vector<WorkloadResults>& results,
               const std::string& effects, const nlohmann::ordered_json& machine);

}  // namespace Quorvel::Benchmarks
