#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "share/RedisServer.h"
#include "tool/ToolTest.h"

namespace Quorvel::Tool {

// Tests with a real server. They are skipped if none is installed.
class ShareTest : public ToolTest {
protected:
    void SetUp() override;

    // A number from the environment, or the usual one.
    static unsigned Setting(const char* variable, unsigned usual);

    // Makes an empty directory. Returns its path.
    std::string Empty(const std::string& name) const;

    // The name of the key of an effect in the namespace "default".
    static std::string KeyOf(const std::string& effect);

    // A number of effects with different names, sizes, bytes, flags and times.
    static std::vector<Format::NewEffect> ManyEffects(unsigned first, unsigned count);

    // Waits until something holds; false if that takes a minute.
    static bool Eventually(const std::function<bool()>& holds);

    // Runs the program in a process of its own, which ends with the object.
    static std::unique_ptr<Testing::ChildProcess> Start(const std::vector<std::string>& arguments);
};

}  // namespace Quorvel::Tool
