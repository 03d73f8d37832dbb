// Sessions of programs: lines from a second thread wait for the loop, lines from the loop's thread
// run inline.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/cli/command_trees.h"
#include "platform/cli/engine.h"
#include "platform/driver/embedded/scripted_faults.h"
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
    // Runs `work` on another thread while this one runs the loop.
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
    // The 500th line is in the middle of a round of shutdowns.
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

// While it exists, the process cannot open a single descriptor.
class NoDescriptors {
 public:
    NoDescriptors() {
        getrlimit(RLIMIT_NOFILE, &before_);
        const rlimit none = {.rlim_cur = 0, .rlim_max = before_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

 private:
    rlimit before_{};
};

int execute(int session, const char* line, int64_t ifx) {
    const cli_mode mode = interface_mode(ifx);
    return cli_execute_cmd_buf_fd(session, line, &mode, nullptr, nullptr);
}

TEST_F(Delivery, PortIsShutWithTheSocketFileGone) {
    std::filesystem::remove(rig.platform.settings.cli_socket);
    on_second_thread([&] {
        const int session = cli_sub_create_session();
        EXPECT_EQ(execute(session, "shutdown", 103), 0);
        close(session);
    });
    EXPECT_FALSE(rig.model.find(103U)->admin_up);
}

TEST_F(Delivery, PortIsShutWhenTheProcessHasNoDescriptorLeft) {
    on_second_thread([&] {
        const NoDescriptors none;
        ASSERT_LT(dup(STDIN_FILENO), 0);
        const int session = cli_sub_create_session();
        EXPECT_EQ(execute(session, "shutdown", 103), 0);
        close(session);
    });
    EXPECT_FALSE(rig.model.find(103U)->admin_up);
}

TEST_F(Delivery, EightSessionsAreKeptReadyAndReplacedAsSoonAsPossible) {
    for (int round = 0; round < 2; ++round) {
        std::vector<int> sessions;
        {
            const NoDescriptors none;
            for (int i = 0; i < 8; ++i) {
                sessions.push_back(cli_sub_create_session());
                EXPECT_EQ(execute(sessions.back(), "shutdown", 101), 0);
            }
            EXPECT_LT(cli_sub_create_session(), 0);
        }
        const int session = cli_sub_create_session();
        EXPECT_GE(session, 0);
        close(session);
        for (const int used : sessions) {
            close(used);
        }
    }
}

TEST_F(Delivery, DescriptorOfAProgramIsNotInherited) {
    const int session = cli_sub_create_session();
    EXPECT_EQ(fcntl(session, F_GETFD), FD_CLOEXEC);
    close(session);
}

bool g_program = false;
qv::cli::Completion g_later;

TEST_F(Delivery, LinesOfEveryThreadAreThoseOfAProgram) {
    using namespace qv::cli;
    attach(kChainView, keyword("who", "", end_of_line([](cli_pcdb*) {
                                   g_program = current_session()->program;
                                   return 0;
                               })),
           "test");
    const int session = cli_sub_create_session();
    const auto run = [&] {
        cli_execute_cmd_buf_fd(session, "who", nullptr, nullptr, nullptr);
    };
    run();
    EXPECT_TRUE(g_program);
    g_program = false;
    on_second_thread(run);
    EXPECT_TRUE(g_program);
    close(session);

    // An operator's line is not one, even when its request names a mode.
    for (const char* request :
         {"{\"exec\": \"who\"}\n", "{\"exec\": \"who\", \"mode\": \"exec\", \"ifx\": 0}\n"}) {
        g_program = true;
        qv::test::WireClient client(rig.platform.settings.cli_socket);
        client.send(request);
        qv::test::run_until(rig.platform.loop(), [] { return !g_program; });
        EXPECT_FALSE(g_program) << request;
    }
}

TEST_F(Delivery, LineWaitsForADeferredAnswer) {
    using namespace qv::cli;
    attach(kChainView, keyword("slow", "", end_of_line([](cli_pcdb*) {
                                   g_later = defer();
                                   return 0;
                               })),
           "test");
    int result = 0;
    std::string output;
    const qv::EventLoop::Handle timer = rig.platform.loop().after(std::chrono::seconds(1), [] {
        std::exchange(g_later, nullptr)({4, "late\n"});
    });
    rig.platform.manual_clock.on_idle = [this] {
        if (g_later) {
            rig.platform.manual_clock.advance(std::chrono::seconds(1));
        }
        return static_cast<bool>(g_later);
    };
    on_second_thread([&] {
        const int session = cli_sub_create_session();
        result = cli_execute_cmd_buf_fd(session, "slow", nullptr, keep_output, &output);
        close(session);
    });
    EXPECT_EQ(result, 4);
    EXPECT_EQ(output, "late\n");
}

TEST_F(Delivery, MissingAnswerFailsTheLine) {
    using namespace qv::cli;
    attach(kChainView, keyword("lose", "", end_of_line([](cli_pcdb*) { return defer() ? 0 : 1; })),
           "test");
    int result = 0;
    on_second_thread([&] {
        const int session = cli_sub_create_session();
        result = cli_execute_cmd_buf_fd(session, "lose", nullptr, nullptr, nullptr);
        close(session);
    });
    EXPECT_EQ(result, -1);
}

TEST_F(Delivery, UnknownModeFailsTheLine) {
    int result = 0;
    std::string output;
    cli_mode mode{};
    std::string("kitchen").copy(mode.name, sizeof mode.name - 1);
    const auto run = [&] {
        const int session = cli_sub_create_session();
        result = cli_execute_cmd_buf_fd(session, "shutdown", &mode, keep_output, &output);
        close(session);
    };
    on_second_thread(run);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(output, "% Unknown mode.\n");
    output.clear();
    run();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(output, "% Unknown mode.\n");
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

TEST_F(Delivery, DescriptorOfSomethingElseFails) {
    const int file = memfd_create("not a session", 0);
    ASSERT_GE(file, 0);
    EXPECT_EQ(cli_execute_cmd_buf_fd(file, "show version", nullptr, nullptr, nullptr), -1);
    close(file);
}

int g_outputs = 0;

TEST_F(Delivery, SilentLineHandsNothingOut) {
    const int session = cli_sub_create_session();
    const auto count = [](const char*, size_t, void*) {
        ++g_outputs;
    };
    const cli_mode mode = interface_mode(102);
    EXPECT_EQ(cli_execute_cmd_buf_fd(session, "shutdown", &mode, count, nullptr), 0);
    EXPECT_EQ(g_outputs, 0);
    EXPECT_EQ(cli_execute_cmd_buf_fd(session, "show version", nullptr, count, nullptr), 0);
    EXPECT_EQ(g_outputs, 1);
    close(session);
}

TEST_F(Delivery, ModeWithoutANameIsTheFirstOne) {
    const int session = cli_sub_create_session();
    const cli_mode mode{};
    std::string output;
    EXPECT_EQ(cli_execute_cmd_buf_fd(session, "show version", &mode, keep_output, &output), 0);
    EXPECT_EQ(output, "lda 0.1.0\n");
    close(session);
}

TEST_F(Delivery, NoLineFails) {
    const int session = cli_sub_create_session();
    EXPECT_EQ(cli_execute_cmd_buf_fd(session, nullptr, nullptr, nullptr, nullptr), -1);
    close(session);
}

TEST_F(Delivery, LoopLooksOutForTheLineThatIsAnnounced) {
    qv::EventLoop& loop = rig.platform.loop();
    EXPECT_FALSE(loop.expects_post());
    cli_client_c2p_reform();
    EXPECT_TRUE(loop.expects_post());
    rig.platform.run_ready();
    EXPECT_FALSE(loop.expects_post());
    const int session = cli_sub_create_session();
    EXPECT_TRUE(loop.expects_post());
    close(session);
}

TEST_F(Delivery, ScriptedRefusalSparesLinesOfTheFirstMode) {
    qv::cli::refuse_next_line("", "not now", 3);
    EXPECT_EQ(rig.type("show version"), "lda 0.1.0\n");
    rig.session.mode = "config";
    EXPECT_EQ(rig.type("tarn enable"), "not now\n");
    EXPECT_EQ(rig.code, 3);
}

TEST_F(Delivery, CommandLineStartsOnce) {
    rig.platform.settings.cli_socket = rig.folder.file("another");
    EXPECT_EQ(cli_client_init("again", rig.master), -1);
    EXPECT_FALSE(std::filesystem::exists(rig.folder.file("another")));
}

TEST(DeliveryWithoutClient, SocketThatCannotBeMadeFailsTheStart) {
    const qv::test::TestFolder folder;
    qv::test::write_text(folder.file("file"), "no folder");
    qv::test::TestPlatform platform;
    platform.settings.cli_socket = folder.file("file/cli.sock");
    qv_thread_master* const master = qv_thread_master_create();
    testing::internal::CaptureStderr();
    EXPECT_EQ(cli_client_init("test", master), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "test: command line: cannot listen at " +
                                                          platform.settings.cli_socket +
                                                          ": Not a directory\n");
    EXPECT_LT(cli_sub_create_session(), 0);
    qv_thread_master_finish(master);
}

TEST(DeliveryWithoutClient, HasNoSession) {
    EXPECT_LT(cli_sub_create_session(), 0);
    EXPECT_EQ(cli_client_c2p_reform(), 0);
    EXPECT_EQ(cli_syn_config_notify(), 0);
    EXPECT_EQ(cli_client_init("test", nullptr), -1);
}

}  // namespace
