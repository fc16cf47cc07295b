#include "faults/Mutation.h"

#include <memory>
#include <string>
#include <vector>

namespace Quorvel::Faults {

Findings ExamineMutations(std::uint64_t seed, std::uint64_t count) {
    std::vector<std::unique_ptr<Examiner>> examiners;
    for (unsigned sample = 0; sample < kSampleSeeds; ++sample) {
        examiners.push_back(std::make_unique<Examiner>(SampleCache(sample)));
    }
    for (std::uint64_t number = 0; number < count; ++number) {
        Examiner& examiner = *examiners[number % kSampleSeeds];
        examiner.Examine(DamageRandomly(examiner.Map(), seed, number),
                         "mutation " + std::to_string(number));
    }
    Findings all;
    for (const auto& examiner : examiners) {
        all.Add(examiner->Result());
    }
    return all;
}

}  // namespace Quorvel::Faults
