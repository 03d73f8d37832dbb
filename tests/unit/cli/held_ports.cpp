#include "tests/unit/cli/held_ports.h"

#include <unistd.h>

#include "platform/cli/command_trees.h"
#include "qv/cli.h"

namespace qv::test {

std::set<uint64_t> g_held;
bool g_refuses = false;
bool g_keeps = false;
std::function<void(uint64_t ifx)> g_take;

namespace {

int hold(cli_pcdb* pcdb) {
    if (pcdb->prefix & CLI_PREFIX_NO) {
        if (!g_keeps) {
            g_held.erase(pcdb->ifx);
        }
    } else if (g_take) {
        g_take(pcdb->ifx);
    } else if (!g_refuses) {
        g_held.insert(pcdb->ifx);
    }
    return 0;
}

int print_held(cli_pcdb* pcdb) {
    if (g_held.contains(pcdb->ifx)) {
        c2p_printf(pcdb, 1, "loop-detect apply shutdown-port");
    }
    return 0;
}

std::string section_in(const std::string& text, const std::string& port) {
    const size_t start = text.find("interface " + port + "\n");
    if (start == std::string::npos) {
        return "none";
    }
    const size_t first = text.find('\n', start) + 1;
    return text.substr(first, text.find("!\n", first) - first);
}

}  // namespace

HeldPorts::HeldPorts() {
    g_held.clear();
    g_refuses = false;
    g_keeps = false;
    g_take = nullptr;
    const cli_node* end = cli::end_of_line(hold);
    const cli_node* tree =
        cli::print_config(print_held, cli::with_no(end, cli::with_default(end, end)));
    cli::attach(CLI_CHAIN_INTERFACE,
                cli::keyword("loop-detect", "",
                             cli::keyword("apply", "", cli::keyword("shutdown-port", "", tree))),
                "test");
}

void HeldPorts::was_saved(const std::string& text, uint64_t journal) {
    write_text(rig.saved(), cli::seal_config(text + "end\n", journal));
}

void HeldPorts::was_journalled(
    uint64_t last, const std::vector<std::pair<std::string, std::vector<std::string>>>& all) {
    cli::Journal journal(rig.saved() + ".journal");
    ASSERT_EQ(journal.open(last), "");
    for (const auto& [port, lines] : all) {
        cli::ConfigSection section;
        section.port = port;
        for (const std::string& line : lines) {
            section.lines.push_back({0, line});
        }
        ASSERT_EQ(journal.append(section), "");
    }
}

void HeldPorts::start() {
    rig.announce_ready();
    rig.platform.run_for(std::chrono::seconds(1));
}

int HeldPorts::program(uint32_t ifx, const char* line) {
    const int session = cli_sub_create_session();
    cli_mode mode{};
    std::string("interface").copy(mode.name, sizeof mode.name - 1);
    mode.ifx = ifx;
    const int result = cli_execute_cmd_buf_fd(session, line, &mode, nullptr, nullptr);
    ::close(session);
    return result;
}

void HeldPorts::operator_types(uint32_t ifx, const std::string& line) {
    rig.session.mode = "interface";
    rig.session.ifx = ifx;
    rig.type(line);
    rig.session.mode = "exec";
}

void HeldPorts::change(uint32_t ifx, const std::function<void(Port&)>& how) {
    Port port = *rig.model.find(ifx);
    how(port);
    rig.model.port_changed(port);
}

std::string HeldPorts::saved(const std::string& port) const {
    const auto config = cli::unseal_config(read_text(rig.saved()));
    EXPECT_TRUE(config.intact);
    return section_in(config.text, port);
}

std::string HeldPorts::last_record() const {
    const auto records = cli::read_journal(rig.saved() + ".journal");
    return records.empty() ? "none" : text_of(records.back());
}

std::string HeldPorts::text_of(const cli::JournalRecord& record) {
    std::string text = record.section.port + ":";
    for (const auto& line : record.section.lines) {
        text += " " + line.text + ",";
    }
    return text;
}

}  // namespace qv::test
