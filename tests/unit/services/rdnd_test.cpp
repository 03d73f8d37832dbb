#include "qv/rdnd.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "tests/support/test_platform.h"
#include "tests/unit/services/temporary_directory.h"

namespace qv {
namespace {

using Lines = std::vector<std::string>;

int g_master_calls = 0;
int g_switch_calls = 0;

int take_master() {
    ++g_master_calls;
    return 0;
}

int take_switch() {
    ++g_switch_calls;
    return 0;
}

// A process registers once, so each of these runs in a process of its own.
struct RdndTest : testing::Test {
    test::TestPlatform platform;
    test::TemporaryDirectory directory;
    qv_thread_master* master = qv_thread_master_create();
    EventLoop& loop = loop_of(master);
    const uint32_t dbs[3] = {4, 22, 3};

    RdndTest() { platform.settings.cli_socket = directory.file("cli.sock"); }
    ~RdndTest() override { qv_thread_master_finish(master); }

    rdnd_reg reg() {
        return {.master = master,
                .module = "lda",
                .mom = nullptr,
                .master_cb = take_master,
                .switch_cb = take_switch,
                .reserved = {0, 0},
                .flags = 0,
                .dbs = dbs,
                .db_num = 3};
    }
    void run_for(Duration time) { test::run_for(loop, platform.manual_clock, time); }
};

TEST_F(RdndTest, SoloTakesTheMasterRoleOnceThroughTheLoop) {
    const rdnd_reg record = reg();
    EXPECT_EQ(rdnd_lib_mom_reg(&record), 0);
    EXPECT_EQ(g_master_calls, 0) << "not from inside the call";
    run_for(std::chrono::seconds(5));
    EXPECT_EQ(rdnd_lib_mom_reg(&record), EALREADY);
    run_for(std::chrono::seconds(5));
    EXPECT_EQ(g_master_calls, 1);
    EXPECT_EQ(g_switch_calls, 0);
}

TEST_F(RdndTest, StandbyTakesOverWithinASecondOfTheLeaseComingFree) {
    platform.settings.role = PlatformConfig::Role::kLease;
    const int holder = open(directory.file("lda.lease").c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_EQ(flock(holder, LOCK_EX), 0);
    const rdnd_reg record = reg();
    EXPECT_EQ(rdnd_lib_mom_reg(&record), 0);
    run_for(std::chrono::seconds(30));
    EXPECT_EQ(g_master_calls, 0);
    EXPECT_EQ(platform.log.lines(), Lines{}) << "standing by is no fault";

    close(holder);  // as when the holder dies
    run_for(std::chrono::seconds(1));
    EXPECT_EQ(g_master_calls, 1);
    run_for(std::chrono::seconds(30));
    EXPECT_EQ(g_master_calls, 1);
    EXPECT_EQ(g_switch_calls, 0);
}

TEST_F(RdndTest, HolderOfTheLeaseKeepsOthersOut) {
    platform.settings.role = PlatformConfig::Role::kLease;
    const rdnd_reg record = reg();
    EXPECT_EQ(rdnd_lib_mom_reg(&record), 0);
    run_for(Duration::zero());
    EXPECT_EQ(g_master_calls, 1);
    EXPECT_FALSE(loop.next_timer()) << "the master does not wake up for its lease";
    const int other = open(directory.file("lda.lease").c_str(), O_RDWR);
    EXPECT_NE(flock(other, LOCK_SH | LOCK_NB), 0) << "not even beside the holder";
    EXPECT_EQ(errno, EWOULDBLOCK);
    close(other);
}

TEST_F(RdndTest, LeaseThatCannotBeOpenedIsSaidOnceAndTriedAgain) {
    platform.settings.role = PlatformConfig::Role::kLease;
    platform.settings.cli_socket = directory.file("later/cli.sock");
    const rdnd_reg record = reg();
    EXPECT_EQ(rdnd_lib_mom_reg(&record), 0);
    run_for(std::chrono::seconds(10));
    EXPECT_EQ(g_master_calls, 0);
    EXPECT_EQ(platform.log.lines(),
              Lines{"RDND-3-LEASE: Cannot take lease " + directory.file("later/lda.lease") +
                    ": No such file or directory"});
    std::filesystem::create_directory(directory.file("later"));
    run_for(std::chrono::seconds(1));
    EXPECT_EQ(g_master_calls, 1);
}

TEST_F(RdndTest, IncompleteRegistrationIsRefusedAndMayBeRepeated) {
    EXPECT_EQ(rdnd_lib_mom_reg(nullptr), EINVAL);
    rdnd_reg record = reg();
    record.master = nullptr;
    EXPECT_EQ(rdnd_lib_mom_reg(&record), EINVAL);
    record = reg();
    record.module = "../lda";
    EXPECT_EQ(rdnd_lib_mom_reg(&record), EINVAL);
    record = reg();
    record.master_cb = nullptr;
    EXPECT_EQ(rdnd_lib_mom_reg(&record), EINVAL);
    record = reg();
    record.dbs = nullptr;
    EXPECT_EQ(rdnd_lib_mom_reg(&record), EINVAL);
    record = reg();
    EXPECT_EQ(rdnd_lib_mom_reg(&record), 0);
}

TEST(AppPublic, InstanceNameBecomesTheProcessName) {
    app_public_instance instance{};
    EXPECT_EQ(app_public_instance_init(nullptr), EINVAL);
    EXPECT_EQ(app_public_instance_init(&instance), EINVAL);
    std::memset(instance.name, 'x', sizeof instance.name);
    EXPECT_EQ(app_public_instance_init(&instance), EINVAL) << "no terminator";
    std::strcpy(instance.name, "lda-test");
    EXPECT_EQ(app_public_instance_init(&instance), 0);
    char name[16] = {};
    ASSERT_EQ(prctl(PR_GET_NAME, name), 0);
    EXPECT_STREQ(name, "lda-test");
}

// With a socket that stands in for the supervisor.
struct SupervisionTest : RdndTest {
    int supervisor = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);

    SupervisionTest() {
        const std::string path = directory.file("notify");
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(supervisor, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
        unsetenv("WATCHDOG_USEC");
        unsetenv("WATCHDOG_PID");
    }
    ~SupervisionTest() override {
        close(supervisor);
        unsetenv("NOTIFY_SOCKET");
        unsetenv("WATCHDOG_USEC");
    }
    Lines received() const {
        Lines messages;
        char text[256];
        for (ssize_t size; (size = recv(supervisor, text, sizeof text, 0)) > 0;) {
            messages.emplace_back(text, static_cast<size_t>(size));
        }
        return messages;
    }
};

TEST_F(SupervisionTest, WithoutAWatchdogOnlyReadinessIsReported) {
    app_public_init_dead_detection(master);
    run_for(std::chrono::seconds(60));
    EXPECT_EQ(received(), Lines{"READY=1"});
    EXPECT_FALSE(loop.next_timer()) << "an idle process must not wake up for this";
}

TEST_F(SupervisionTest, WatchdogHearsOfTheLoopAtHalfItsInterval) {
    setenv("WATCHDOG_USEC", "10000000", 1);
    app_public_init_dead_detection(master);
    EXPECT_EQ(received(), (Lines{"READY=1", "WATCHDOG=1"}));
    run_for(std::chrono::milliseconds(4999));
    EXPECT_EQ(received(), Lines{});
    run_for(std::chrono::milliseconds(1));
    EXPECT_EQ(received(), Lines{"WATCHDOG=1"});
    run_for(std::chrono::seconds(20));
    EXPECT_EQ(received(), Lines(4, "WATCHDOG=1"));
}

}  // namespace
}  // namespace qv
