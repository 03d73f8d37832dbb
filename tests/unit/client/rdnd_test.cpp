#include "tests/unit/client/rdnd_fixture.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/base/supervisor.h"
#include "tests/support/watch_refusal.h"

namespace qv {
namespace {

using namespace rdnd_test;

// Another process that holds the file of a lock.
class FileHolder {
 public:
    FileHolder(const std::string& file, const std::string& text)
        : fd_(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
        EXPECT_EQ(flock(fd_, LOCK_EX | LOCK_NB), 0);
        EXPECT_EQ(write(fd_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    ~FileHolder() { close(fd_); }
    FileHolder(const FileHolder&) = delete;
    FileHolder& operator=(const FileHolder&) = delete;

 private:
    int fd_;
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

TEST_F(RdndTest, StandbyTakesOverWithinASecondOfTheMastersEnd) {
    platform.settings.role = PlatformConfig::Role::kLease;
    Holder other(cli_lock());
    const rdnd_reg record = reg();
    EXPECT_EQ(rdnd_lib_mom_reg(&record), 0);
    run_for(std::chrono::seconds(30));
    EXPECT_EQ(g_master_calls, 0);
    EXPECT_EQ(platform.log.lines(), Lines{}) << "standing by is no fault";

    other.end();
    run_for(std::chrono::seconds(1));
    EXPECT_EQ(g_master_calls, 1);
    run_for(std::chrono::seconds(30));
    EXPECT_EQ(g_master_calls, 1);
    EXPECT_EQ(g_switch_calls, 0);
}

TEST_F(RdndTest, StandbyHoldsNothingWhileItWaits) {
    use_bridge();
    platform.settings.role = PlatformConfig::Role::kLease;
    const Holder other(cli_lock());
    const rdnd_reg record = reg();
    EXPECT_EQ(rdnd_lib_mom_reg(&record), 0);
    run_for(std::chrono::seconds(3));
    EXPECT_EQ(g_master_calls, 0);
    EXPECT_TRUE(Holder(bridge_lock()).holds());
}

TEST_F(RdndTest, MasterKeepsOthersOutWhateverHappensToItsFiles) {
    use_bridge();
    const rdnd_reg record = reg();
    EXPECT_EQ(rdnd_lib_mom_reg(&record), 0);
    std::filesystem::remove_all(directory.path());
    run_for(std::chrono::seconds(5));
    EXPECT_EQ(g_master_calls, 1);
    EXPECT_FALSE(loop.next_timer()) << "the master does not wake up for its locks";
    EXPECT_FALSE(Holder(cli_lock()).holds());
    EXPECT_FALSE(Holder(bridge_lock()).holds());
}

using RdndDeathTest = RdndTest;

TEST_F(RdndDeathTest, SecondAgentOnTheSameCommandLineSocketNamesTheFirstAndEnds) {
    const Holder other(cli_lock());
    const rdnd_reg record = reg();
    EXPECT_EXIT(rdnd_lib_mom_reg(&record), testing::ExitedWithCode(1),
                "^lda: process " + std::to_string(getpid()) +
                    " already runs on command-line socket " + platform.settings.cli_socket +
                    ": stop it first\n$");
}

TEST_F(RdndDeathTest, SecondAgentOnTheSameBridgeNamesTheFirstAndEnds) {
    use_bridge();
    const Holder other(bridge_lock());
    const rdnd_reg record = reg();
    EXPECT_EXIT(rdnd_lib_mom_reg(&record), testing::ExitedWithCode(1),
                "^lda: process " + std::to_string(getpid()) + " already runs on bridge " +
                    platform.settings.bridge + ": stop it first\n$");
}

TEST_F(RdndDeathTest, SecondAgentThatFindsOnlyTheFileNamesTheFirstAndEnds) {
    use_bridge();
    std::filesystem::create_directory(directory.file("run"));
    const FileHolder other(bridge_lock_file(), "4711\n");
    const rdnd_reg record = reg();
    EXPECT_EXIT(rdnd_lib_mom_reg(&record), testing::ExitedWithCode(1),
                "^lda: process 4711 already runs on bridge " + platform.settings.bridge +
                    ": stop it first\n$");
}

TEST_F(RdndDeathTest, HolderThatCannotBeFoundOutIsAnotherProcess) {
    const FileHolder other(cli_lock_file(), "");
    const rdnd_reg record = reg();
    EXPECT_EXIT(rdnd_lib_mom_reg(&record), testing::ExitedWithCode(1),
                "^lda: another process already runs on command-line socket " +
                    platform.settings.cli_socket + ": stop it first\n$");
}

TEST_F(RdndDeathTest, FileThatCannotBeOpenedEndsTheStart) {
    std::filesystem::create_directory(cli_lock_file());
    const rdnd_reg record = reg();
    EXPECT_EXIT(rdnd_lib_mom_reg(&record), testing::ExitedWithCode(1),
                "^lda: cannot lock command-line socket " + platform.settings.cli_socket +
                    " with the file " + cli_lock_file() + ": Is a directory\n$");
}

// An address that is bound, where nobody listens: no agent does that.
TEST_F(RdndTest, AddressThatNobodyAnswersForDoesNotCount) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string name = cli_lock();
    ASSERT_LT(name.size(), sizeof address.sun_path);
    name.copy(address.sun_path + 1, sizeof address.sun_path - 1);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), size), 0);
    const rdnd_reg record = reg();
    EXPECT_EQ(rdnd_lib_mom_reg(&record), 0);
    run_for(Duration::zero());
    EXPECT_EQ(g_master_calls, 1);
    EXPECT_EQ(platform.log.lines(),
              Lines{"RDND-4-LOCK: The address of the lock on command-line socket " +
                    platform.settings.cli_socket +
                    " is held by another user, or by a process that does not answer: only the "
                    "file " +
                    cli_lock_file() + " keeps a second agent out."});
    EXPECT_EQ(NameLock::holder(cli_lock(), cli_lock_file()), getpid());
    close(fd);
}

TEST_F(RdndTest, OtherUsersCannotKeepTheAgentFromItsRole) {
    constexpr uid_t kNobody = 65534;
    const Process stranger([this] {
        return setresuid(kNobody, kNobody, kNobody) == 0 &&
               (new Holder(cli_lock()))->holds() &&  // held until the process ends
               open(cli_lock_file().c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600) < 0;
    });
    if (!stranger.set_up()) {
        GTEST_SKIP() << "only root can become another user";
    }
    const rdnd_reg record = reg();
    EXPECT_EQ(rdnd_lib_mom_reg(&record), 0);
    run_for(Duration::zero());
    EXPECT_EQ(g_master_calls, 1);
    ASSERT_EQ(platform.log.lines().size(), 1U);
    struct stat file {};
    ASSERT_EQ(stat(cli_lock_file().c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 0777, 0600U) << "who can open it can lock it";
}

TEST_F(RdndTest, SocketWrittenInAnotherWayIsTheSame) {
    platform.settings.role = PlatformConfig::Role::kLease;
    const Holder other(cli_lock());
    platform.settings.cli_socket = directory.file("./gone/../cli.sock");
    const rdnd_reg record = reg();
    EXPECT_EQ(rdnd_lib_mom_reg(&record), 0);
    run_for(std::chrono::seconds(3));
    EXPECT_EQ(g_master_calls, 0);
}

TEST_F(RdndTest, SimulatedSwitchNeedsNoBridgeOfItsOwn) {
    use_bridge();
    platform.settings.switch_kind = PlatformConfig::Switch::kEmbedded;
    const Holder other(bridge_lock());
    const rdnd_reg record = reg();
    EXPECT_EQ(rdnd_lib_mom_reg(&record), 0);
    run_for(Duration::zero());
    EXPECT_EQ(g_master_calls, 1);
}

// Denies the process further descriptors.
class NoDescriptors {
 public:
    NoDescriptors() {
        getrlimit(RLIMIT_NOFILE, &before_);
        const rlimit none{.rlim_cur = 0, .rlim_max = before_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

 private:
    rlimit before_{};
};

TEST_F(RdndTest, LocksThatCannotBeTriedAreLoggedOnceAndTriedAgain) {
    platform.settings.role = PlatformConfig::Role::kLease;
    const rdnd_reg record = reg();
    EXPECT_EQ(rdnd_lib_mom_reg(&record), 0);
    {
        const NoDescriptors none;
        run_for(std::chrono::seconds(10));
    }
    EXPECT_EQ(g_master_calls, 0);
    EXPECT_EQ(platform.log.lines(),
              Lines{"RDND-3-LEASE: Cannot become the master, trying again: cannot lock "
                    "command-line socket " +
                    platform.settings.cli_socket + " with the file " + cli_lock_file() +
                    ": Too many open files"});
    run_for(std::chrono::seconds(1));
    EXPECT_EQ(g_master_calls, 1);
}

// Descriptors of this process.
size_t descriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

TEST_F(RdndTest, HolderOfALockAnswersAnyNumberOfProcesses) {
    NameLock lock;
    ASSERT_EQ(lock.take(loop, test_lock(), test_file()), 0);
    const size_t before = descriptors();
    for (int i = 0; i < 5000; ++i) {
        ASSERT_EQ(NameLock::holder(test_lock(), test_file()), getpid()) << "process " << i;
        run_for(Duration::zero());
    }
    EXPECT_EQ(descriptors(), before);
    lock.release();
    EXPECT_EQ(NameLock::holder(test_lock(), test_file()), 0);
}

TEST_F(RdndTest, LockIsValidEvenIfItsHolderCannotAnswer) {
    test::g_no_watch = true;
    NameLock lock;
    EXPECT_EQ(lock.take(loop, test_lock(), test_file()), 0);
    test::g_no_watch = false;
    NameLock other;
    EXPECT_EQ(other.take(loop, test_lock(), test_file()), EADDRINUSE);
}

TEST_F(RdndTest, EachHalfOfALockKeepsOthersOut) {
    NameLock lock;
    ASSERT_EQ(lock.take(loop, test_lock(), test_file()), 0);
    EXPECT_FALSE(lock.address_is_taken());
    NameLock other;
    EXPECT_EQ(other.take(loop, test_lock(), directory.file("other")), EADDRINUSE);
    EXPECT_EQ(other.take(loop, test_lock() + " other", test_file()), EADDRINUSE);
    std::filesystem::remove(test_file());
    EXPECT_EQ(other.take(loop, test_lock(), test_file()), EADDRINUSE);
    EXPECT_EQ(NameLock::holder(test_lock(), test_file()), getpid());
}

TEST_F(RdndTest, LockOfAKilledProcessIsFree) {
    Process other([this] {
        auto* const held = new NameLock;  // until the process ends
        return held->take(loop, test_lock(), test_file()) == 0;
    });
    ASSERT_TRUE(other.set_up());
    NameLock lock;
    EXPECT_EQ(lock.take(loop, test_lock(), test_file()), EADDRINUSE);
    EXPECT_EQ(NameLock::holder(test_lock(), test_file()), other.pid());
    other.end();
    EXPECT_EQ(NameLock::holder(test_lock(), test_file()), 0) << "its number is in the file";
    EXPECT_EQ(lock.take(loop, test_lock(), test_file()), 0);
}

TEST_F(RdndTest, LockTakenAgainReleasesItsOldName) {
    const size_t before = descriptors();
    NameLock lock;
    ASSERT_EQ(lock.take(loop, test_lock(), test_file()), 0);
    ASSERT_EQ(lock.take(loop, test_lock() + " anew", directory.file("anew")), 0);
    EXPECT_EQ(descriptors(), before + 2);
    NameLock other;
    EXPECT_EQ(other.take(loop, test_lock(), test_file()), 0);
}

TEST_F(RdndTest, RefusedLockKeepsNoDescriptor) {
    NameLock lock;
    ASSERT_EQ(lock.take(loop, test_lock(), test_file()), 0);
    const size_t before = descriptors();
    NameLock other;
    EXPECT_EQ(other.take(loop, test_lock(), test_file()), EADDRINUSE);
    EXPECT_EQ(other.take(loop, test_lock(), directory.file("other")), EADDRINUSE);
    EXPECT_EQ(descriptors(), before);
}

TEST_F(RdndTest, ReleasedLockLeavesLaterDescriptorsAlone) {
    NameLock lock;
    ASSERT_EQ(lock.take(loop, test_lock(), test_file()), 0);
    lock.release();
    const size_t before = descriptors();
    const FileHolder file(test_file(), "");  // the two have the numbers that the lock had
    const Holder address(test_lock());
    EXPECT_TRUE(address.holds());
    lock.release();
    EXPECT_EQ(descriptors(), before + 2);
}

TEST_F(RdndTest, LongestNameIsUnchanged) {
    const std::string name = test_lock() + std::string(107 - test_lock().size(), 'x');
    const Holder other(name);
    ASSERT_TRUE(other.holds());
    NameLock lock;
    EXPECT_EQ(lock.take(loop, name, test_file()), EADDRINUSE);
}

TEST_F(RdndTest, LongNamesOfLocksDifferByTheirEnds) {
    const std::string name = test_lock() + std::string(200, 'x');
    NameLock first;
    NameLock second;
    NameLock third;
    EXPECT_EQ(first.take(loop, name + "1", directory.file("1")), 0);
    EXPECT_EQ(second.take(loop, name + "2", directory.file("2")), 0);
    EXPECT_EQ(third.take(loop, name + "1", directory.file("3")), EADDRINUSE);
    EXPECT_EQ(NameLock::holder(name + "1", directory.file("1")), getpid());
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
    record.module = nullptr;
    EXPECT_EQ(rdnd_lib_mom_reg(&record), EINVAL);
    record = reg();
    record.module = "";
    EXPECT_EQ(rdnd_lib_mom_reg(&record), EINVAL);
    record = reg();
    record.dbs = nullptr;
    EXPECT_EQ(rdnd_lib_mom_reg(&record), EINVAL);
    record.db_num = 0;
    EXPECT_EQ(rdnd_lib_mom_reg(&record), 0) << "a service without databases";
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

// With a socket in place of the supervisor.
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

TEST_F(SupervisionTest, WithoutAWatchdogNothingIsReported) {
    app_public_init_dead_detection(master);
    run_for(std::chrono::seconds(60));
    EXPECT_EQ(received(), Lines{});
    EXPECT_FALSE(loop.next_timer()) << "an idle process must not wake up for this";
}

TEST_F(SupervisionTest, WithoutALoopNothingIsReported) {
    setenv("WATCHDOG_USEC", "10000000", 1);
    app_public_init_dead_detection(nullptr);
    EXPECT_EQ(received(), Lines{});
}

TEST_F(SupervisionTest, WatchdogIsFedAtHalfItsInterval) {
    setenv("WATCHDOG_USEC", "10000000", 1);
    app_public_init_dead_detection(master);
    EXPECT_EQ(received(), Lines{"WATCHDOG=1"});
    run_for(std::chrono::milliseconds(4999));
    EXPECT_EQ(received(), Lines{});
    run_for(std::chrono::milliseconds(1));
    EXPECT_EQ(received(), Lines{"WATCHDOG=1"});
    run_for(std::chrono::seconds(20));
    EXPECT_EQ(received(), Lines(4, "WATCHDOG=1"));
}

TEST_F(SupervisionTest, StandbyIsReadyAndWaitsForNothing) {
    report_database(4, true);
    EXPECT_EQ(received(), Lines{"STATUS=waiting for database 4"});
    report_standby(true);
    EXPECT_EQ(received(), Lines{"READY=1\nSTATUS=standing by for the master"});
    report_database(22, true);
    EXPECT_EQ(received(), Lines{});
    report_standby(false);
    EXPECT_EQ(received(), Lines{"STATUS=waiting for databases 4, 22"});
    report_database(4, false);
    report_database(22, false);
    EXPECT_EQ(received(), (Lines{"STATUS=waiting for database 22", "STATUS=starting"}));
}

TEST_F(SupervisionTest, StatusNamesMissingServicesUntilTheProcessIsReady) {
    report_database(22, true);
    EXPECT_EQ(received(), Lines{"STATUS=waiting for database 22"});
    report_database(4, true);
    report_bridge("br0", true);
    EXPECT_EQ(received(), (Lines{"STATUS=waiting for databases 4, 22",
                                 "STATUS=waiting for bridge br0 and databases 4, 22"}));
    report_database(4, true);
    EXPECT_EQ(received(), Lines{}) << "nothing new";
    report_database(4, false);
    report_database(22, false);
    report_bridge("br0", false);
    EXPECT_EQ(received(), (Lines{"STATUS=waiting for bridge br0 and database 22",
                                 "STATUS=waiting for bridge br0", "STATUS=starting"}));
    report_ready("running");
    EXPECT_EQ(received(), Lines{"READY=1\nSTATUS=running"});
    report_database(4, true);
    report_database(4, false);
    EXPECT_EQ(received(), (Lines{"STATUS=waiting for database 4", "STATUS=running"}));
}

}  // namespace
}  // namespace qv
