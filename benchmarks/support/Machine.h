#pragma once

#include <nlohmann/json.hpp>

namespace Quorvel::Benchmarks {

// What a result depends on besides the program: processor, number of cores, kernel, compiler, date
// and load. Must be called before the work, which would add to the load.
nlohmann::ordered_json DescribeMachine();

}  // namespace Quorvel::Benchmarks
