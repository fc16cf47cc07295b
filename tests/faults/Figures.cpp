#include "faults/Figures.h"

#include <gtest/gtest.h>

#include <iostream>

namespace Quorvel::Testing {

namespace {

class FiguresLine : public ::testing::Environment {
public:
    void TearDown() override {
        const Figures& figures = FiguresOfThisProgram();
        std::cout << figures.callRuns << " runs with failing calls, " << figures.allocationRuns
                  << " runs with failing allocations, " << figures.damagedFiles
                  << " damaged files\n";
    }
};

// GoogleTest owns it.
[[maybe_unused]] const auto* const line = ::testing::AddGlobalTestEnvironment(new FiguresLine);

}  // namespace

Figures& FiguresOfThisProgram() {
    static Figures figures;
    return figures;
}

}  // namespace Quorvel::Testing
