// Sessions of one's own: from a second thread through the socket, from the loop's thread inline.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "platform/cli/command_trees.h"
#include "platform/cli/scripted_faults.h"
#include "qv/cli.h"
#include "tests/unit/cli/cli_rig.h"
#include "tests/unit/cli/wire_client.h"

namespace {

void keep_output(const char* text, size_t length, void* user) {
    static_cast<std::string*>(user)->append(text, length);
}

cli_mode interface_mode(int64_t ifx) {
    cli_mode mode{};
    std::string("interface").copy(mode.name, sizeof mode.name - 1);
    mode.ifx = ifx;
    return mode;
}

class Delivery : public ::testing::Test {
 protected:
    // Runs `work` on a thread of its own while this one runs the loop.
    void on_second_thread(const std::function<void()>& work) {
        std::atomic<bool> done = false;
        std::thread thread([&] {
            work();
            done = true;
            rig.platform.loop().post([] {});
        });
        qv::test::run_until(rig.platform.loop(), [&] { return done.load(); });
        thread.join();
    }

    qv::test::CliRig rig;
};

TEST_F(Delivery, LineRunsInThePortsModeAndIsSilent) {
    int result = -5;
    std::string output;
    on_second_thread([&] {
        const int session = cli_sub_create_session();
        ASSERT_GE(session, 0);
        const cli_mode mode = interface_mode(103);
        result = cli_execute_cmd_buf_fd(session, "shutdown \r\n", &mode, keep_output, &output);
        close(session);
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(output, "");
    EXPECT_FALSE(rig.model.find(103U)->admin_up);
}

TEST_F(Delivery, RefusedLineHandsOutItsReason) {
    int result = 0;
    std::string output;
    rig.hardware.refusal = "the port is burnt";
    on_second_thread([&] {
        const int session = cli_sub_create_session();
        const cli_mode mode = interface_mode(103);
        result = cli_execute_cmd_buf_fd(session, "no shutdown  \r\n", &mode, keep_output, &output);
        close(session);
    });
    EXPECT_EQ(result, 1);
    EXPECT_EQ(output, "% the port is burnt\n");
}

TEST_F(Delivery, LongOutputArrivesWhole) {
    std::string output;
    qv::cli::attach(qv::cli::kChainView,
                    qv::cli::keyword("much", "", qv::cli::end_of_line([](cli_pcdb*) {
                                         for (int i = 0; i < 10000; ++i) {
                                             cli_printf("%099d\n", i);
                                         }
                                         return 0;
                                     })),
                    "test");
    on_second_thread([&] {
        const int session = cli_sub_create_session();
        EXPECT_EQ(cli_execute_cmd_buf_fd(session, "much", nullptr, keep_output, &output), 0);
        close(session);
    });
    EXPECT_EQ(output.size(), 1000000U);
}

TEST_F(Delivery, ManyLinesOnOneSessionRunInOrder) {
    on_second_thread([&] {
        const int session = cli_sub_create_session();
        for (int i = 0; i < 500; ++i) {
            const cli_mode mode = interface_mode(101 + i % 4);
            const char* line = i % 8 < 4 ? "shutdown" : "no shutdown";
            EXPECT_EQ(cli_execute_cmd_buf_fd(session, line, &mode, nullptr, nullptr), 0);
        }
        close(session);
    });
    // 500 lines end in the middle of a round of shutdowns.
    for (uint32_t ifx = 101; ifx <= 104; ++ifx) {
        EXPECT_FALSE(rig.model.find(ifx)->admin_up);
    }
}

TEST_F(Delivery, FromTheLoopsThreadTheLineRunsInline) {
    const int session = cli_sub_create_session();
    ASSERT_GE(session, 0);
    const cli_mode mode = interface_mode(102);
    EXPECT_EQ(cli_execute_cmd_buf_fd(session, "shutdown", &mode, nullptr, nullptr), 0);
    EXPECT_FALSE(rig.model.find(102U)->admin_up);
    close(session);
}

TEST_F(Delivery, FromTheLoopsThreadALineWithoutAModeRunsInTheFirstOne) {
    const int session = cli_sub_create_session();
    std::string output;
    EXPECT_EQ(cli_execute_cmd_buf_fd(session, "show version", nullptr, keep_output, &output), 0);
    EXPECT_EQ(output, "lda 0.1.0\n");
    close(session);
}

TEST_F(Delivery, SessionCanBeMadeToFail) {
    qv::cli::fail_next_sessions(2);
    EXPECT_LT(cli_sub_create_session(), 0);
    EXPECT_LT(cli_sub_create_session(), 0);
    const int session = cli_sub_create_session();
    EXPECT_GE(session, 0);
    close(session);
}

TEST_F(Delivery, ScriptedRefusalHitsTheNextFittingConfigurationLineOnce) {
    qv::cli::refuse_next_line("no shutdown", "% The port is held down.", 0);
    const int session = cli_sub_create_session();
    const cli_mode mode = interface_mode(102);
    std::string output;
    EXPECT_EQ(cli_execute_cmd_buf_fd(session, "shutdown", &mode, keep_output, &output), 0);
    EXPECT_EQ(output, "");
    EXPECT_EQ(cli_execute_cmd_buf_fd(session, "no  shutdown \r\n", &mode, keep_output, &output), 0);
    EXPECT_EQ(output, "% The port is held down.\n");
    EXPECT_FALSE(rig.model.find(102U)->admin_up);
    EXPECT_EQ(cli_execute_cmd_buf_fd(session, "no shutdown", &mode, keep_output, &output), 0);
    EXPECT_TRUE(rig.model.find(102U)->admin_up);
    close(session);
}

TEST_F(Delivery, ScriptedFailureIsSilentAndNegative) {
    qv::cli::refuse_next_line("", "", -3);
    const int session = cli_sub_create_session();
    const cli_mode mode = interface_mode(102);
    std::string output;
    EXPECT_EQ(cli_execute_cmd_buf_fd(session, "shutdown", &mode, keep_output, &output), -3);
    EXPECT_EQ(output, "");
    EXPECT_TRUE(rig.model.find(102U)->admin_up);
    close(session);
}

TEST_F(Delivery, ClosedOrNegativeDescriptorFails) {
    int result = 0;
    on_second_thread([&] {
        const int session = cli_sub_create_session();
        close(session);
        result = cli_execute_cmd_buf_fd(session, "show version", nullptr, nullptr, nullptr);
    });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(cli_execute_cmd_buf_fd(-1, "show version", nullptr, nullptr, nullptr), -1);
}

TEST(DeliveryWithoutClient, HasNoSession) {
    EXPECT_LT(cli_sub_create_session(), 0);
    EXPECT_EQ(cli_client_c2p_reform(), 0);
    EXPECT_EQ(cli_syn_config_notify(), 0);
    EXPECT_EQ(cli_client_init("test", nullptr), -1);
}

}  // namespace
