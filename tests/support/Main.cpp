#include <gtest/gtest.h>

#include "support/Agent.h"

int main(int argc, char** argv) {
    int exitCode = 0;
    if (Quorvel::Testing::RunRequestedAgent(argc, argv, exitCode)) { return exitCode; }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
