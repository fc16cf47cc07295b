#include "share/ShareTest.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <random>
#include <streambuf>
#include <thread>

#include "support/Agent.h"
#include "tools/quorvel/StoreValue.h"
#include "tools/quorvel/Terminal.h"

namespace Quorvel::Tool {

namespace {

// Swallows what is written.
class Nowhere : public std::streambuf {
protected:
    int_type overflow(int_type byte) override { return traits_type::not_eof(byte); }
};

// Runs the program. Its output goes nowhere.
QUORVEL_AGENT(RunSharing) {
    CatchStopRequests();
    std::vector<const char*> argv = {"quorvel"};
    for (const std::string& argument : arguments) {
        argv.push_back(argument.c_str());
    }
    Nowhere buffer;
    std::ostream nowhere(&buffer);
    return RunProgram(static_cast<int>(argv.size()), argv.data(), {std::cin, nowhere, nowhere});
}

}  // namespace

void ShareTest::SetUp() {
    if (RedisProgram().empty()) { GTEST_SKIP() << "no Redis server is installed"; }
}

unsigned ShareTest::Setting(const char* variable, unsigned usual) {
    const char* const text = std::getenv(variable);
    return text ? static_cast<unsigned>(std::stoul(text)) : usual;
}

std::string ShareTest::Empty(const std::string& name) const {
    std::filesystem::create_directory(File(name));
    return File(name);
}

std::string ShareTest::KeyOf(const std::string& effect) {
    const StoreSpace space("default");
    return space.Name(space.KeyOf(effect));
}

std::vector<Format::NewEffect> ShareTest::ManyEffects(unsigned first, unsigned count) {
    std::vector<Format::NewEffect> effects;
    for (unsigned i = first; i < first + count; ++i) {
        Format::Bytes data(1 + i * 7919 % 9000, static_cast<std::uint8_t>(i));
        std::mt19937 random(i);
        for (std::uint8_t& byte : data) {
            // Every other effect can't be compressed.
            if (i % 2 == 0) { byte = static_cast<std::uint8_t>(random()); }
        }
        effects.push_back(
            {"effect " + std::to_string(i), std::move(data), i % 10 == 0, Year(2000 + i % 20)});
    }
    return effects;
}

bool ShareTest::Eventually(const std::function<bool()>& holds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (std::chrono::steady_clock::now() < end) {
        if (holds()) { return true; }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

std::unique_ptr<Testing::ChildProcess> ShareTest::Start(const std::vector<std::string>& arguments) {
    return std::make_unique<Testing::ChildProcess>("RunSharing", arguments);
}

}  // namespace Quorvel::Tool
