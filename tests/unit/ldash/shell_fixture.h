// The shell on a terminal, with a scripted switch at its socket.
#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/ldash/scripted_switch.h"

namespace ldash::test {

using Lines = std::vector<std::string>;

// A shell on a terminal that has shown its first prompt.
struct ShellTest : testing::Test {
    ShellTest() {
        peer.accept();
        peer.say(R"({"output":"","prompt":"sw# ","result":0})");
        EXPECT_EQ(peer.request(), R"({"exec":""})");
        terminal.until("sw# ");
    }

    // Types a line and its answer, up to the next prompt.
    std::string line(const std::string& keys, const std::string& reply,
                     const std::string& prompt = "sw# ") {
        terminal.type(keys + "\n");
        requested.push_back(peer.request());
        peer.say(reply);
        return terminal.until(prompt);
    }
    // Leaves the shell; returns the executed lines in order.
    Lines leave() {
        terminal.type("exit\n");
        requested.push_back(peer.request());
        peer.say(R"({"output":"","prompt":"sw# ","result":0,"end":true})");
        EXPECT_EQ(terminal.wait(), 0);
        return requested;
    }

    ScriptedSwitch peer;
    Terminal terminal{peer.path()};
    Lines requested;
};

inline constexpr const char* kDone = R"({"output":"","prompt":"sw# ","result":0})";

}  // namespace ldash::test
