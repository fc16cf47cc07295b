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

    // Makes an empty directory, or one with a cache of these effects. Returns its path.
    std::string Empty(const std::string& name) const;
    std::string Make(const std::string& name, const std::vector<Format::NewEffect>& effects) const;

    // "name year flag bytes" for each effect of an intact cache.
    static std::vector<std::string> Content(const std::string& directory);

    static Format::EntryTime Year(unsigned year);

    // A number of effects with different names, sizes, bytes, flags and times.
    static std::vector<Format::NewEffect> ManyEffects(unsigned first, unsigned count);

    // Waits until something holds; false if that takes a minute.
    static bool Eventually(const std::function<bool()>& holds);

    // Runs the program in a process of its own, which ends with the object.
    static std::unique_ptr<Testing::ChildProcess> Start(const std::vector<std::string>& arguments);
};

}  // namespace Quorvel::Tool
