#pragma once

#include <gtest/gtest.h>

#include <string>

#include "Failure.h"

namespace EffectHost {

// Runs a function that must fail with the code, and returns the message.
template <typename Function>
std::string FailureOf(ExitCode code, Function function) {
    try {
        function();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.Code(), code) << failure.what();
        return failure.what();
    }
    ADD_FAILURE() << "nothing failed";
    return {};
}

}  // namespace EffectHost
