// Registration of the commands and the three trees, node by node. The nodes are visible in their
// own source only, so this test is compiled together with it.
#include "app/src/lda_cli_tree.cpp"

#include "lda_cli.h"
#include "lda_cli_show.h"
#include "lda_main.h"
#include "tests/unit/app/loop_fixture.h"

using namespace loop_test;

namespace {

#define NAME_NODE(node) fake::name(&node, #node)
#define NAME_HANDLER(handler) fake::name(reinterpret_cast<const void*>(&handler), #handler)

class CliTree : public StartedAgent {
 protected:
    CliTree() {
        NAME_HANDLER(cfg_lda_cli_warning_command);
        NAME_HANDLER(cfg_lda_cli_shutdown_access_command);
        NAME_HANDLER(cfg_lda_cli_shutdown_hybrid_command);
        NAME_HANDLER(cfg_lda_cli_shutdown_access_hybrid_command);
        NAME_HANDLER(cfg_lda_cli_recover_command);
        NAME_HANDLER(cfg_lda_cli_apply_shutdown_command);
        NAME_HANDLER(testfunc_cfg_loop_detect_apply_shutdown_kw);
        NAME_HANDLER(lda_show_loop_detect_command);
        NAME_HANDLER(lda_show_loop_detect_detail_command);
        NAME_NODE(Tcfg_loop_detect_cmd);
        NAME_NODE(Tcfg_loop_detect_kw);
        NAME_NODE(Tcfg_loop_detect_enable_kw);
        NAME_NODE(Tcfg_loop_detect_shutdown_kw);
        NAME_NODE(Tcfg_loop_detect_enable_access_kw);
        NAME_NODE(Tcfg_loop_detect_enable_access_eol);
        NAME_NODE(Tcfg_loop_detect_enable_hybrid_kw);
        NAME_NODE(Tcfg_loop_detect_enable_hybrid_eol);
        NAME_NODE(Tcfg_loop_detect_enable_access_hybrid);
        NAME_NODE(Tcfg_loop_detect_enable_access_hybrid_eol);
        NAME_NODE(Tcfg_loop_detect_enable_no);
        NAME_NODE(Tcfg_loop_detect_enable_c2p);
        NAME_NODE(Tcfg_loop_detect_enable_eol);
        NAME_NODE(Tcfg_loop_detect_recover_kw);
        NAME_NODE(Tcfg_loop_detect_recover_c2p);
        NAME_NODE(Tcfg_loop_detect_recover_no);
        NAME_NODE(Tcfg_loop_detect_recover_num);
        NAME_NODE(Tcfg_loop_detect_recover_eol);
        NAME_NODE(Tcfg_loop_detect_apply_cmd);
        NAME_NODE(Tcfg_loop_detect_apply_shutdown_kw);
        NAME_NODE(Tcfg_loop_detect_loop_kw);
        NAME_NODE(Tcfg_loop_detect_apply_kw);
        NAME_NODE(Tcfg_loop_detect_shutdown_port_kw);
        NAME_NODE(Tcfg_loop_detect_shutdown_c2p);
        NAME_NODE(Tcfg_loop_detect_shutdown_no);
        NAME_NODE(Tcfg_loop_detect_shutdown_no_eol);
        NAME_NODE(Tcfg_loop_detect_shutdown_def);
        NAME_NODE(Tcfg_loop_detect_shutdown_def_eol);
        NAME_NODE(Tcfg_loop_detect_shutdown_eol);
        NAME_NODE(Tshow_loop_detect_cmd);
        NAME_NODE(Tshow_loop_detect_detail_interface_kw);
        NAME_NODE(Tcfg_loop_detect_detail_kw);
        NAME_NODE(Tshow_loop_detect_detail_eol);
        NAME_NODE(Tshow_loop_detect_eol);
    }
};

TEST_F(CliTree, GlobalConfiguration) {
    const cli_node* root = fake::command_root(28, "cfg loop detect");
    ASSERT_EQ(root, &Tcfg_loop_detect_cmd);
    EXPECT_EQ(fake::tree(root),
              R"(append Tcfg_loop_detect_cmd
  keyword "loop-detect" ["loop detect config"] 0 14,14 1,2,0,0,0 "loop-detect" 1 Tcfg_loop_detect_kw
    keyword "enable" ["open loop detect"] 0 14,14 1,2,0,0,0 "enable" 1 Tcfg_loop_detect_enable_kw
      keyword "shutdown" ["shutdown"] 0 14,14 1,2,0,0,0 "shutdown" 1 Tcfg_loop_detect_shutdown_kw
        keyword "access-mode" ["add shutdown policy to access port"] 0 14,14 1,2,0,0,0 "access-mode" 1 Tcfg_loop_detect_enable_access_kw
          eol 1 cfg_lda_cli_shutdown_access_command Tcfg_loop_detect_enable_access_eol
        else keyword "hybrid-mode" ["add shutdown policy to hybrid port"] 0 14,14 1,2,0,0,0 "hybrid-mode" 1 Tcfg_loop_detect_enable_hybrid_kw
          eol 1 cfg_lda_cli_shutdown_hybrid_command Tcfg_loop_detect_enable_hybrid_eol
        else keyword "access-hybrid-mode" ["add shutdown policy to access and hybrid port"] 0 14,14 1,2,0,0,0 "access-hybrid-mode" 1 Tcfg_loop_detect_enable_access_hybrid
          eol 1 cfg_lda_cli_shutdown_access_hybrid_command Tcfg_loop_detect_enable_access_hybrid_eol
      else noprefix Tcfg_loop_detect_enable_no
        eol 1 cfg_lda_cli_warning_command Tcfg_loop_detect_enable_eol
      else c2p cfg_lda_cli_warning_command Tcfg_loop_detect_enable_c2p
        eol 1 cfg_lda_cli_warning_command Tcfg_loop_detect_enable_eol
    else keyword "shutdown-recover-time" ["shutdown recover"] 0 14,14 1,2,0,0,0 "shutdown-recover-time" 1 Tcfg_loop_detect_recover_kw
      c2p cfg_lda_cli_recover_command Tcfg_loop_detect_recover_c2p
        noprefix Tcfg_loop_detect_recover_no
          eol 1 cfg_lda_cli_recover_command Tcfg_loop_detect_recover_eol
        else number ["shutdown recover time, default: 300s"] 90..1000000 0 258 slot 0 Tcfg_loop_detect_recover_num
          eol 1 cfg_lda_cli_recover_command Tcfg_loop_detect_recover_eol
)");
}

TEST_F(CliTree, InterfaceConfiguration) {
    const cli_node* root = fake::command_root(57, "show loop detect apply shutdown");
    ASSERT_EQ(root, &Tcfg_loop_detect_apply_cmd);
    EXPECT_EQ(fake::tree(root),
              R"(append Tcfg_loop_detect_apply_cmd
  test testfunc_cfg_loop_detect_apply_shutdown_kw Tcfg_loop_detect_apply_shutdown_kw
    keyword "loop-detect" ["loop detect config"] 0 32782,32782 1,2,0,0,0 "loop-detect" 1 Tcfg_loop_detect_loop_kw
      keyword "apply" ["apply policy"] 0 32782,32782 1,2,0,0,0 "apply" 1 Tcfg_loop_detect_apply_kw
        keyword "shutdown-port" ["exec shutdown policy"] 0 32782,32782 1,2,0,0,0 "shutdown-port" 1 Tcfg_loop_detect_shutdown_port_kw
          c2p cfg_lda_cli_apply_shutdown_command Tcfg_loop_detect_shutdown_c2p
            noprefix Tcfg_loop_detect_shutdown_no
              eol 1 cfg_lda_cli_apply_shutdown_command Tcfg_loop_detect_shutdown_no_eol
            else defaultprefix Tcfg_loop_detect_shutdown_def
              eol 1 cfg_lda_cli_apply_shutdown_command Tcfg_loop_detect_shutdown_def_eol
            else eol 1 cfg_lda_cli_apply_shutdown_command Tcfg_loop_detect_shutdown_eol
)");
}

TEST_F(CliTree, Show) {
    const cli_node* root = fake::command_root(6, "show loop detect");
    ASSERT_EQ(root, &Tshow_loop_detect_cmd);
    EXPECT_EQ(fake::tree(root),
              R"(append Tshow_loop_detect_cmd
  keyword "loop-detect" ["loop detect interface"] 0 14,14 1,2,0,0,0 "loop-detect" 1 Tshow_loop_detect_detail_interface_kw
    keyword "detail" ["detail info"] 0 30,30 1,2,0,0,0 "detail" 1 Tcfg_loop_detect_detail_kw
      eol 1 lda_show_loop_detect_detail_command Tshow_loop_detect_detail_eol
    else eol 1 lda_show_loop_detect_command Tshow_loop_detect_eol
)");
}

TEST_F(CliTree, AlternativesEndWithTheFrameworksEndNode) {
    for (const cli_node* node :
         {&Tcfg_loop_detect_kw, &Tcfg_loop_detect_enable_access_hybrid,
          &Tcfg_loop_detect_recover_kw, &Tcfg_loop_detect_recover_num, &Tcfg_loop_detect_loop_kw,
          &Tcfg_loop_detect_apply_kw, &Tcfg_loop_detect_shutdown_port_kw,
          &Tshow_loop_detect_detail_interface_kw})
        EXPECT_EQ(node->alternative, &Tno_alt);
}

TEST_F(CliTree, RegistrationInOrder) {
    EXPECT_EQ(lda_cli_init(), 0);
    Lines calls = fake::take_calls();
    ASSERT_GE(calls.size(), 7u);
    calls.resize(7);
    EXPECT_EQ(calls, (Lines{"cli_client_init \"LDA\"", "cli_add_param_reload_start_hook",
                            "cli_add_param_reload_end_hook", "cli_interface_show_run_hook",
                            "cli_add_command 57 \"show loop detect apply shutdown\"",
                            "cli_add_command 28 \"cfg loop detect\"",
                            "cli_add_command 6 \"show loop detect\""}));
    EXPECT_EQ(fake::reload_start_hook(), lda_cli_reload_start_handle);
    EXPECT_EQ(fake::reload_end_hook(), lda_cli_reload_end_handle);
    EXPECT_EQ(fake::show_run_hook(), libproxy_cli_interface_walk);
}

TEST_F(CliTree, CommandInitAddsOnlyTheThreeTrees) {
    lda_cmd_init();
    EXPECT_EQ(fake::take_calls(), (Lines{"cli_add_command 57 \"show loop detect apply shutdown\"",
                                         "cli_add_command 28 \"cfg loop detect\"",
                                         "cli_add_command 6 \"show loop detect\""}));
}

TEST_F(CliTree, RefusedTreeDoesNotStopTheRegistration) {
    fake::fail("cli_add_command", -1);
    EXPECT_EQ(lda_cli_init(), 0);
    Lines added = fake::calls_of({"cli_add_command"});
    ASSERT_GE(added.size(), 3u);
    EXPECT_EQ(added[2], "cli_add_command 6 \"show loop detect\"");
}

TEST_F(CliTree, WithoutTheFrameworkNothingIsRegistered) {
    for (int result : {-1, 1}) {
        fake::fail("cli_client_init", result);
        EXPECT_EQ(lda_cli_init(), -1);
        EXPECT_EQ(fake::take_calls(), Lines{"cli_client_init \"LDA\""});
    }
}

}  // namespace
