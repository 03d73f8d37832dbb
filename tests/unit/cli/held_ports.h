// A program that, like the agent, holds ports shut and says so in the running configuration, and
// helpers that read the saved file and the journal.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "platform/cli/journal.h"
#include "tests/unit/cli/cli_rig.h"

namespace qv::test {

extern std::set<uint64_t> g_held;  // indexes of the ports that the program holds
extern bool g_refuses;             // the program does not want to hold anything
extern bool g_keeps;               // the program does not let go of anything, and does not say so
// Called in place of taking a port at once, when set.
extern std::function<void(uint64_t ifx)> g_take;

class HeldPorts : public ::testing::Test {
 protected:
    HeldPorts();

    // Writes a configuration as an earlier process saved it.
    void was_saved(const std::string& text, uint64_t journal = 0);
    // Writes records after `last`, as an earlier process did.
    void was_journalled(uint64_t last,
                        const std::vector<std::pair<std::string, std::vector<std::string>>>& all);
    void start();
    // Executes a line as the program does.
    int program(uint32_t ifx, const char* line);
    void operator_types(uint32_t ifx, const std::string& line);
    // Changes a port from outside the switch's own commands.
    void change(uint32_t ifx, const std::function<void(Port&)>& how);
    // The section of a port in the saved file: "none" when there is no section.
    std::string saved(const std::string& port) const;
    // "PORT: LINE, LINE" of the newest record.
    std::string last_record() const;
    static std::string text_of(const cli::JournalRecord& record);
    bool up(uint32_t ifx) const { return rig.model.find(ifx)->admin_up; }

    CliRig rig;
};

}  // namespace qv::test
