// The C functions of qv/cli.h when operator new fails.
#include <new>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

#include "platform/cli/command_trees.h"
#include "platform/cli/running_config.h"
#include "qv/cli.h"
#include "tests/support/memory_shortage.h"
#include "tests/unit/cli/cli_rig.h"

namespace {

using namespace std::chrono_literals;
using qv::test::without_memory;

bool g_short_of_memory = false;
bool g_handler_came_to_its_end = false;

int print_a_line(cli_pcdb* pcdb) {
    if (g_short_of_memory) {
        without_memory([pcdb] {
            c2p_printf(pcdb, 0, "hostname switch");
            return 0;
        });
    } else {
        c2p_printf(pcdb, 0, "hostname switch");
    }
    g_handler_came_to_its_end = true;
    return 0;
}

int do_nothing(cli_pcdb* /*pcdb*/) {
    return 0;
}

void control(int /*operation*/) {}

struct CliMemoryShortage : testing::Test {
    CliMemoryShortage() {
        rig.announce_ready();
        rig.platform.run_for(10s);
    }
    qv::test::CliRig rig;
};

TEST_F(CliMemoryShortage, RegistrationsAreRefusedAndCanBeRepeated) {
    const cli_node* const tree = qv::cli::keyword("hello", "", qv::cli::end_of_line(do_nothing));
    EXPECT_EQ(without_memory([&] { return cli_add_command(CLI_CHAIN_SHOW, tree, "test"); }), -1);
    EXPECT_EQ(rig.type("show hello"), "% Unknown command: 'hello'.\n");
    EXPECT_EQ(cli_add_command(CLI_CHAIN_SHOW, tree, "test"), 0);
    EXPECT_EQ(rig.type("show hello"), "");

    EXPECT_EQ(without_memory([] { return sys_add_debug("test-debug", control); }), -1);
    EXPECT_EQ(sys_add_debug("test-debug", control), 0);
}

TEST_F(CliMemoryShortage, ChangeThatCannotBeAnnouncedIsSavedWithTheNextOne) {
    rig.hardware.set_admin(102, true);
    rig.platform.run_for(1s);
    EXPECT_EQ(without_memory([] { return cli_syn_config_notify(); }), -1);
    rig.session.mode = "interface";
    rig.session.ifx = 103;
    rig.type("shutdown");
    rig.platform.run_for(1s);
    EXPECT_NE(qv::test::read_text(rig.saved()).find("interface swp3\n shutdown\n"),
              std::string::npos);
}

TEST_F(CliMemoryShortage, LineOfAProgramFails) {
    const int session = cli_sub_create_session();
    cli_mode mode{};
    std::string("interface").copy(mode.name, sizeof mode.name - 1);
    mode.ifx = 102;
    const auto run = [&] {
        return cli_execute_cmd_buf_fd(session, "shutdown", &mode, nullptr, nullptr);
    };
    EXPECT_EQ(without_memory(run), -1);
    EXPECT_TRUE(rig.model.find(102U)->admin_up);
    EXPECT_EQ(run(), 0);
    EXPECT_FALSE(rig.model.find(102U)->admin_up);
    close(session);
}

// The handler belongs to a program and cannot pass an exception on; and an incomplete configuration
// must not pass for a whole one.
TEST_F(CliMemoryShortage, IncompleteConfigurationFails) {
    qv::cli::attach(
        CLI_CHAIN_CONFIG,
        qv::cli::print_config(print_a_line,
                              qv::cli::keyword("hostname", "", qv::cli::end_of_line(do_nothing))),
        "test");
    const std::string whole = qv::cli::section_text(qv::cli::generate_global());
    EXPECT_NE(whole.find("hostname switch\n"), std::string::npos);
    g_short_of_memory = true;
    g_handler_came_to_its_end = false;
    EXPECT_THROW(qv::cli::generate_global(), std::bad_alloc);
    EXPECT_TRUE(g_handler_came_to_its_end);
    g_short_of_memory = false;
    EXPECT_EQ(qv::cli::section_text(qv::cli::generate_global()), whole);
}

}  // namespace
