#include "faults/Mutation.h"

#include <gtest/gtest.h>

#include "faults/Figures.h"

namespace Quorvel::Faults {

TEST(Mutation, LeavesTheBytesOfUntouchedEffectsIntact) {
    const Findings findings = ExamineMutations(1, 600 / QUORVEL_FILE_STRIDE);
    Testing::FiguresOfThisProgram().damagedFiles += findings.files;
    EXPECT_TRUE(findings.IsGood()) << findings;
    EXPECT_GT(findings.found, 0U);
    EXPECT_GT(findings.emptied, 0U);
}

}  // namespace Quorvel::Faults
