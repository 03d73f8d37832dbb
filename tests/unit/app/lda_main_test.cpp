// The process: start-up, main loop and its ends.
#include "lda_main.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "tests/support/fake_qv/fake_qv.h"
#include "tests/unit/app/call_lists.h"

extern "C" int lda_main();

using fake::error;
using fake::info;
using fake::Lines;

namespace {

const Lines kLoggingStart = {
    "pthread_mutex_init default",
    "qv_zlog_init \"lda\"",
    "fopen \"/data/lda/lda.dbg\" \"r\"",
    "fclose",
};

const Lines kMainStart =
    join(kLoggingStart, {
                            "app_public_instance_init \"lda\"",
                            info("main", "LDA:qv_thread_master_create start.\n"),
                            "qv_thread_master_create",
                            info("main", "LDA:qv_thread_master_create end.\n"),
                            info("main", "qv_mom_client_init\n"),
                            "qv_mom_client_init \"LDA\"",
                            info("main", "qv_mom_client_init end\n"),
                        });

const Lines kMainLoop = {
    "app_public_init_dead_detection",
    info("main", "LDA:qv_thread_fetch start.\n"),
    "qv_thread_fetch",
    "qv_thread_master_finish",
};

// main() with every log line in the list of calls.
class Main : public ::testing::Test {
 protected:
    Main() {
        fake::file("/data/lda/lda.dbg", "5 0");
        fake::clear_calls();
    }
};

}  // namespace

TEST_F(Main, RunsItsStepsInOrderAndNeverReturnsZero) {
    EXPECT_EQ(lda_main(), -1);
    EXPECT_EQ(fake::calls(),
              join(join(kMainStart, {"rdnd_lib_mom_reg \"lda\" 4 22 3"}), kMainLoop));
    EXPECT_EQ(g_lda_master, fake::master());
    EXPECT_EQ(g_lda_global, fake::mom_client());
}

TEST_F(Main, RegistersTheRoleCallbackForBothRoles) {
    lda_main();
    fake::Registration registration = fake::rdnd_registration();
    EXPECT_EQ(registration.reg.master, fake::master());
    EXPECT_STREQ(registration.reg.module, "lda");
    EXPECT_EQ(registration.reg.mom, fake::mom_client());
    EXPECT_EQ(registration.reg.master_cb, hot_standby_callback);
    EXPECT_EQ(registration.reg.switch_cb, hot_standby_callback);
    EXPECT_EQ(registration.reg.reserved[0], 0u);
    EXPECT_EQ(registration.reg.reserved[1], 0u);
    EXPECT_EQ(registration.reg.flags, 0u);
    EXPECT_EQ(registration.dbs, (std::vector<uint32_t>{4, 22, 3}));
    EXPECT_EQ(registration.reg.db_num, 3u);
}

TEST_F(Main, IgnoresBrokenPipesBeforeTheLoopExists) {
    bool ignored = false;
    fake::on_call("qv_thread_master_create", [&] {
        struct sigaction action {};
        sigaction(SIGPIPE, nullptr, &action);
        ignored = action.sa_handler == SIG_IGN;
    });
    lda_main();
    EXPECT_TRUE(ignored);
}

TEST_F(Main, RunsOneThreadAtATimeUntilNoneIsLeft) {
    std::string order;
    fake::queue_work([&] { order += "a"; });
    fake::queue_work([&] {
        order += "b";
        fake::queue_work([&] { order += "d"; });
    });
    fake::queue_work([&] { order += "c"; });
    EXPECT_EQ(lda_main(), -1);
    EXPECT_EQ(order, "abcd");
    EXPECT_EQ(fake::calls_of({"qv_thread_fetch", "qv_thread_call"}),
              (Lines{"qv_thread_fetch", "qv_thread_call", "qv_thread_fetch", "qv_thread_call",
                     "qv_thread_fetch", "qv_thread_call", "qv_thread_fetch", "qv_thread_call",
                     "qv_thread_fetch"}));
}

TEST_F(Main, FillsTheGlobalThreadRecord) {
    qv_thread_master* seen = nullptr;
    fake::queue_work([&] { seen = g_thread.master; });
    lda_main();
    EXPECT_EQ(seen, fake::master());
}

TEST_F(Main, ReturnsTheErrorOfTheLoggingLock) {
    fake::fail("pthread_mutex_init", 12);
    EXPECT_EQ(lda_main(), -17);
    EXPECT_EQ(fake::calls(), (Lines{"pthread_mutex_init default"}));
}

TEST_F(Main, ReturnsTheErrorOfTheLogFile) {
    fake::fail("qv_zlog_init");
    EXPECT_EQ(lda_main(), -17);
    EXPECT_EQ(fake::calls(), (Lines{"pthread_mutex_init default", "qv_zlog_init \"lda\""}));
}

TEST_F(Main, ExitsWithOneWhenTheInstanceIsRefused) {
    fake::fail("app_public_instance_init");
    fake::Ending ending = fake::run_in_child([] { lda_main(); });
    EXPECT_EQ(ending.status, 1);
    EXPECT_FALSE(ending.returned);
    EXPECT_EQ(ending.calls, join(kLoggingStart, {"app_public_instance_init \"lda\""}));
}

TEST_F(Main, ExitStatusOneIsThatOfTheProcess) {
    fake::fail("app_public_instance_init", 22);
    EXPECT_EXIT(lda_main(), ::testing::ExitedWithCode(1), "");
}

TEST_F(Main, EndsWhenTheThreadMasterCannotBeCreated) {
    fake::fail("qv_thread_master_create");
    EXPECT_EQ(lda_main(), -1);
    EXPECT_EQ(fake::calls(),
              join(kLoggingStart, {
                                      "app_public_instance_init \"lda\"",
                                      info("main", "LDA:qv_thread_master_create start.\n"),
                                      "qv_thread_master_create",
                                      error("main", "LDA: Failed to create thread master.\n"),
                                      "qv_thread_master_finish null",
                                  }));
}

TEST_F(Main, FinishesTheThreadMasterWhenTheDatabaseClientCannotBeCreated) {
    fake::fail("qv_mom_client_init");
    EXPECT_EQ(lda_main(), -1);
    EXPECT_EQ(fake::calls(), join(up_to(kMainStart, "qv_mom_client_init \"LDA\""),
                                  {
                                      error("main", "qv_mom_client_init fail!\n"),
                                      "qv_thread_master_finish",
                                  }));
    EXPECT_EQ(g_lda_global, nullptr);
}

TEST_F(Main, SkipsTheRedundancyRegistrationWithFlagBitFour) {
    g_flag = 16;
    EXPECT_EQ(lda_main(), -1);
    EXPECT_EQ(fake::calls(), join(kMainStart, kMainLoop));
    EXPECT_EQ(g_lda_loop_set, nullptr);
}

TEST_F(Main, OtherFlagBitsArePassedToTheRegistration) {
    g_flag = 0xffffffef;
    lda_main();
    EXPECT_EQ(fake::rdnd_registration().reg.flags, 0xffffffefu);
}

TEST_F(Main, RegistrationResultIsIgnored) {
    fake::fail("rdnd_lib_mom_reg", 5);
    EXPECT_EQ(lda_main(), -1);
    EXPECT_EQ(fake::calls(),
              join(join(kMainStart, {"rdnd_lib_mom_reg \"lda\" 4 22 3"}), kMainLoop));
}

TEST(MainDefaults, ModuleNameAndDatabases) {
    EXPECT_STREQ(module_name, "lda");
    EXPECT_EQ(db_array[0], 4u);
    EXPECT_EQ(db_array[1], 22u);
    EXPECT_EQ(db_array[2], 3u);
    EXPECT_EQ(db_num, 3u);
    EXPECT_EQ(g_flag, 0u);
    EXPECT_EQ(g_lda_master, nullptr);
    EXPECT_EQ(g_lda_global, nullptr);
    EXPECT_EQ(cli_ready, 0);
    EXPECT_EQ(mom_cfg_ready, 0);
    EXPECT_EQ(mom_local_ready, 0);
    EXPECT_EQ(mom_app_ready, 0);
    EXPECT_EQ(lsm_port_ready, 0);
    EXPECT_EQ(mom_storm_ready, 0);
}
