// A program that holds ports shut as the agent does, at a known time, with its settings in the
// running configuration.
#pragma once

#include <string>

#include "platform/cli/command_trees.h"
#include "platform/cli/held_ports.h"
#include "tests/unit/cli/held_ports.h"
#include "tests/unit/cli/wall_clock.h"

namespace qv::test {

inline std::string g_setting = "loop-detect enable shutdown access-mode";  // a global line

class Errdisable : public HeldPorts {
 protected:
    Errdisable() {
        stop_wall_clock();
        cli::attach(CLI_CHAIN_CONFIG,
                    cli::keyword("loop-detect", "",
                                 cli::print_config(
                                     [](cli_pcdb* pcdb) {
                                         c2p_printf(pcdb, 1, "%s", g_setting.c_str());
                                         return 0;
                                     },
                                     cli::end_of_line([](cli_pcdb*) { return 0; }))),
                    "test");
    }

    // The program shuts a port that it has marked, brings one up whose mark it has removed.
    void hold(uint32_t ifx) {
        g_held.insert(ifx);
        program(ifx, "shutdown \r\n");
    }
    void bring_back(uint32_t ifx) {
        g_held.erase(ifx);
        program(ifx, "errdisable recovery \r\n");
        if (program(ifx, "no shutdown  \r\n") != 0) {
            g_held.insert(ifx);  // as the agent does
        }
    }
    // Both clocks.
    void pass(std::chrono::seconds time) {
        *g_wall_time += time;
        rig.platform.run_for(time);
    }
    // The row of a port that a show command prints, with single blanks; empty without one.
    std::string row(const std::string& line, const std::string& port) {
        const std::string text = rig.type(line);
        const size_t start = text.find("\n" + port + " ");
        std::string words;
        for (size_t at = start == std::string::npos ? text.size() : start + 1;
             at < text.size() && text[at] != '\n'; ++at) {
            if (text[at] != ' ' || words.back() != ' ') {
                words += text[at];
            }
        }
        return words;
    }

    cli::HeldPorts& held = cli::held_ports();
};

}  // namespace qv::test
