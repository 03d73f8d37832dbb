// Agreements of sessions by locks on files. A lock belongs to its descriptor, so that two
// sessions of one process differ as those of two processes do.
#include "services/netconf/shared_state.h"
#include "platform/base/running_lock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/close_range.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/unit/netconf/database_peer.h"
#include "tests/unit/netconf/intercepted.h"
#include "tests/unit/netconf/other_session.h"

using namespace netconf::test;
using netconf::EditTurn;
using netconf::EventTime;
using netconf::Kill;
using netconf::SessionNumber;
using qv::File;
using qv::RunningLock;

namespace {

using std::chrono::milliseconds;

constexpr long kNow_s = 1767323045;
constexpr const char* kNow = "2026-01-02T03:04:05Z";

std::string text_of(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

mode_t mode_of(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
}

long real_time_ms() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec * 1000 + now.tv_nsec / 1'000'000;
}

// A child of the test that takes a lock in its own way, then sleeps until it is killed.
class Process {
 public:
    explicit Process(const std::function<bool()>& prepare) {
        std::array<int, 2> ends{};
        EXPECT_EQ(pipe(ends.data()), 0);
        pid_ = fork();
        if (pid_ == 0) {
            _exit(prepare() && write(ends[1], "+", 1) == 1 && pause() == 0 ? 1 : 0);
        }
        close(ends[1]);
        char ready = 0;
        EXPECT_EQ(::read(ends[0], &ready, 1), 1);
        close(ends[0]);
    }
    ~Process() {
        ::kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    bool alive() const { return waitpid(pid_, nullptr, WNOHANG) == 0; }

 private:
    pid_t pid_ = 0;
};

bool lock_bytes(const std::string& path, off_t first, off_t count, int command = F_SETLK) {
    struct flock bytes {};
    bytes.l_type = F_WRLCK;
    bytes.l_start = first;
    bytes.l_len = count;
    return fcntl(open(path.c_str(), O_RDWR | O_CLOEXEC), command, &bytes) == 0;
}

void close_everything(int /*signal*/) {
    close_range(3, ~0U, 0);
}

class Peers : public testing::Test {
 protected:
    void SetUp() override {
        reset_interception();
        set_time_of_day(kNow_s);
        old_mask_ = umask(0007);
    }
    void TearDown() override { umask(old_mask_); }

    static std::string fault(const std::function<void()>& call) {
        try {
            call();
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "none";
    }

    std::string file(const std::string& name) const { return run_ + "/" + name; }

    Process hold(off_t first, off_t count) const {
        return Process([=, path = file("sessions")] { return lock_bytes(path, first, count); });
    }

    // The first session makes the folder.
    void make_folder() const { netconf::prepare_folder(run_, getuid()); }

    Folder folder_;
    const std::string run_ = folder_.path("run");
    mode_t old_mask_ = 0;
};

TEST_F(Peers, FolderAndFilesAreTheGroupsWhateverTheMask) {
    umask(0077);
    const SessionNumber number(run_, getuid());
    EXPECT_EQ(number.id(), 1 + static_cast<uint32_t>(getpid()) % 247);
    EXPECT_EQ(mode_of(run_), 01770U);
    for (const char* const name : {"sessions", "edit.lock", "running.lock"}) {
        EXPECT_EQ(mode_of(file(name)), 0660U) << name;
    }
}

TEST_F(Peers, NumberIsFreeAgainAfterItsSession) {
    make_folder();
    const uint32_t first = 1 + static_cast<uint32_t>(getpid()) % 247;
    {
        const Process other = hold(first, 1);
        EXPECT_EQ(SessionNumber(run_, getuid()).id(), first % 247 + 1);
    }
    EXPECT_EQ(SessionNumber(run_, getuid()).id(), first);
}

TEST_F(Peers, LastEightNumbersAreForRoot) {
    make_folder();
    const Process holder = hold(1, 246);
    EXPECT_EQ(SessionNumber(run_, 65534).id(), 247U);
    const Process last = hold(247, 1);
    EXPECT_EQ(fault([&] { SessionNumber(run_, 65534); }), "all 247 sessions are in use");
    EXPECT_EQ(SessionNumber(run_, 0).id(), 248U);
    const Process reserve = hold(248, 7);
    EXPECT_EQ(SessionNumber(run_, 0).id(), 255U);
    const Process all = hold(255, 1);
    EXPECT_EQ(fault([&] { SessionNumber(run_, 0); }), "all 255 sessions are in use");
}

TEST_F(Peers, UserHasSixteenSessionsAndRootHasMore) {
    if (getuid() != 0) {
        GTEST_SKIP() << "needs root to have sessions of two users";
    }
    std::vector<std::unique_ptr<OtherSession>> others;
    const auto begin_as = [&](uid_t user) {
        others.push_back(
            std::make_unique<OtherSession>(run_, [user] { EXPECT_EQ(setuid(user), 0); }));
    };
    for (int n = 0; n < 15; n++) {
        begin_as(65534);
    }
    for (int n = 0; n < 16; n++) {
        begin_as(0);
    }
    SessionNumber(run_, 65534);
    begin_as(65534);
    forget_users();
    EXPECT_EQ(fault([&] { SessionNumber(run_, 65534); }), "65534 has 16 sessions already");
    SessionNumber(run_, 65533);
    SessionNumber(run_, 0);
    others.pop_back();
    SessionNumber(run_, 65534);
}

TEST_F(Peers, FolderThatCannotBeUsedIsNamed) {
    EXPECT_EQ(fault([&] { SessionNumber(folder_.path("a/b"), getuid()); }),
              folder_.path("a/b") + ": No such file or directory");
    std::ofstream(folder_.path("file")) << "x";
    EXPECT_EQ(fault([&] { SessionNumber(folder_.path("file"), getuid()); }),
              folder_.path("file") + ": Not a directory");
    EXPECT_EQ(fault([&] { EditTurn(folder_.path("nowhere")); }),
              folder_.path("nowhere/edit.lock") + ": No such file or directory");
    EXPECT_EQ(fault([&] { RunningLock(folder_.path("nowhere"), 1, "eve").take(); }),
              folder_.path("nowhere/running.lock") + ": No such file or directory");
}

TEST_F(Peers, FolderThatOthersMayReplaceIsRefused) {
    make_folder();
    for (const mode_t open_to_others : {0770U, 0777U, 0702U}) {
        chmod(run_.c_str(), open_to_others);
        EXPECT_EQ(fault([&] { SessionNumber(run_, getuid()); }),
                  run_ + ": others may replace its files; set the sticky bit (chmod +t)");
    }
    for (const mode_t safe : {0750U, 01770U, 03770U}) {
        chmod(run_.c_str(), safe);
        EXPECT_EQ(fault([&] { SessionNumber(run_, getuid()); }), "none");
    }
    chmod(folder_.path("").c_str(), 0770);
    EXPECT_EQ(fault([&] { SessionNumber(run_, getuid()); }),
              run_ + "/..: others may replace its files; set the sticky bit (chmod +t)");
    chmod(folder_.path("").c_str(), 0700);
    ASSERT_EQ(symlink(run_.c_str(), folder_.path("link").c_str()), 0);
    EXPECT_EQ(fault([&] { SessionNumber(folder_.path("link"), getuid()); }),
              folder_.path("link") + ": Not a directory");
}

TEST_F(Peers, FolderOfAnotherUserIsRefused) {
    make_folder();
    if (getuid() != 0) {
        GTEST_SKIP() << "needs root to give the folder away";
    }
    forget_users();
    ASSERT_EQ(chown(run_.c_str(), 65534, 0), 0);
    EXPECT_EQ(fault([&] { SessionNumber(run_, 0); }),
              run_ + ": is the folder of 65534, not of root");
    EXPECT_EQ(fault([&] { SessionNumber(run_, 65533); }),
              run_ + ": is the folder of 65534, not of root");
    EXPECT_EQ(fault([&] { SessionNumber(run_, 65534); }), "none");
}

// Root is the user by name here: this needs no privilege.
TEST_F(Peers, RootMovesAsideWhatIsNoFileForAllSessions) {
    make_folder();
    const std::string aside = ".foreign-" + std::to_string(getpid());
    const std::vector<std::function<void(const std::string&)>> plants{
        [](const std::string& path) { mkdir(path.c_str(), 0700); },
        [](const std::string& path) { EXPECT_EQ(mkfifo(path.c_str(), 0660), 0); },
        [this](const std::string& path) {
            std::ofstream(folder_.path("target")) << "precious";
            EXPECT_EQ(symlink(folder_.path("target").c_str(), path.c_str()), 0);
        },
        [](const std::string& path) {
            std::ofstream(path) << "mine";
            chmod(path.c_str(), 0600);
        }};
    for (const char* const name : {"sessions", "edit.lock", "running.lock"}) {
        for (const auto& plant : plants) {
            reset_interception();
            std::filesystem::remove(file(name));
            std::filesystem::remove(file(name) + aside);
            plant(file(name));
            EXPECT_EQ(fault([&] { SessionNumber(run_, 0); }), "none");
            EXPECT_EQ(mode_of(file(name)), 0660U);
            EXPECT_EQ(logged_texts(),
                      std::vector<std::string>{file(name) +
                                               " is not a file for all sessions; renamed to " +
                                               file(name) + aside});
        }
    }
    EXPECT_EQ(text_of(folder_.path("target")), "precious");
}

TEST_F(Peers, OtherUserDoesNotFollowALinkNorWaitForAPipe) {
    make_folder();
    std::ofstream(folder_.path("target")) << "precious";
    std::filesystem::remove(file("sessions"));
    ASSERT_EQ(symlink(folder_.path("target").c_str(), file("sessions").c_str()), 0);
    EXPECT_EQ(fault([&] { SessionNumber(run_, 65534); }),
              file("sessions") + ": Too many levels of symbolic links");
    EXPECT_EQ(text_of(folder_.path("target")), "precious");
    std::filesystem::remove(file("sessions"));
    ASSERT_EQ(mkfifo(file("sessions").c_str(), 0660), 0);
    EXPECT_EQ(fault([&] { SessionNumber(run_, 65534); }), file("sessions") + ": Invalid argument");
}

TEST_F(Peers, LiveSessionsAreListedByNumberWithTheirProcess) {
    const auto before = EventTime(std::chrono::milliseconds(real_time_ms() - 1000));
    const OtherSession other(run_);
    const SessionNumber number(run_, getuid());
    const auto found = number.live_sessions();
    ASSERT_EQ(found.size(), 2U);
    EXPECT_LT(found[0].id, found[1].id);
    const auto& mine = found[0].id == number.id() ? found[0] : found[1];
    const auto& others = found[0].id == number.id() ? found[1] : found[0];
    EXPECT_EQ(mine.pid, getpid());
    EXPECT_EQ(others.id, other.id());
    EXPECT_EQ(others.pid, other.pid());
    EXPECT_GE(others.login_time, before);
    EXPECT_LE(others.login_time, before + std::chrono::seconds(10));
    EXPECT_LE(mine.login_time, others.login_time);
}

TEST_F(Peers, NothingWrittenIntoTheFileChangesTheList) {
    const OtherSession other(run_);
    const SessionNumber number(run_, getuid());
    std::ofstream(file("sessions")) << std::string(300, '\xff') << "1 2 3\n";
    EXPECT_EQ(number.live_sessions().size(), 2U);
    std::filesystem::resize_file(file("sessions"), 0);
    EXPECT_EQ(number.live_sessions().size(), 2U);
    mkdir(file("session-1").c_str(), 0700);
    EXPECT_EQ(number.live_sessions().size(), 2U);
}

TEST_F(Peers, KilledSessionIsAskedToEndAndHasEnded) {
    const SessionNumber number(run_, getuid());
    const OtherSession other(run_);
    EXPECT_EQ(number.kill(other.id()), Kill::kDone);
    int status = 0;
    ASSERT_EQ(waitpid(other.pid(), &status, WNOHANG), other.pid());
    EXPECT_EQ(WTERMSIG(status), SIGTERM);
    EXPECT_EQ(number.kill(other.id()), Kill::kNoSuchSession);
}

TEST_F(Peers, SessionThatDoesNotEndWithinASecondIsEndedByForce) {
    const SessionNumber number(run_, getuid());
    const OtherSession other(run_, [] { signal(SIGTERM, SIG_IGN); });
    std::vector<int> limits_ms;
    on_poll([&](pollfd* end, nfds_t, int timeout_ms) {
        limits_ms.push_back(timeout_ms);
        return limits_ms.size() == 1 ? 0 : static_cast<int>(syscall(SYS_poll, end, 1, 20'000));
    });
    EXPECT_EQ(number.kill(other.id()), Kill::kDone);
    EXPECT_EQ(limits_ms, (std::vector<int>{1000, 1000}));
    int status = 0;
    ASSERT_EQ(waitpid(other.pid(), &status, WNOHANG), other.pid());
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
}

TEST_F(Peers, SessionThatNoSignalEndsIsWaitedForTwoSeconds) {
    const SessionNumber number(run_, getuid());
    const OtherSession other(run_);
    int waited_ms = 0;
    on_poll([&](pollfd*, nfds_t, int timeout_ms) {
        waited_ms += timeout_ms;
        return 0;
    });
    EXPECT_EQ(number.kill(other.id()), Kill::kStillThere);
    EXPECT_EQ(waited_ms, 2000);
}

TEST_F(Peers, NumberThatNobodyHasKillsNobody) {
    const SessionNumber number(run_, getuid());
    const OtherSession other(run_);
    const Process beyond = hold(300, 1);
    for (const uint32_t id : {0U, number.id(), other.id() % 255 + 1, 256U, 300U, 4294967295U}) {
        if (id != other.id()) {
            EXPECT_EQ(number.kill(id), Kill::kNoSuchSession) << id;
        }
    }
    EXPECT_TRUE(other.alive());
    EXPECT_TRUE(beyond.alive());
}

TEST_F(Peers, ProcessThatHasTheNumberOfAnEndedSessionsProcessIsNotKilled) {
    const SessionNumber number(run_, getuid());
    const OtherSession other(run_, [] { signal(SIGUSR1, close_everything); });
    const uint32_t ending = other.id();
    bool signalled = false;
    on_system_call([&](long call) {
        signalled = signalled || call == SYS_pidfd_send_signal;
        if (call == SYS_pidfd_open) {
            ::kill(other.pid(), SIGUSR1);
            EXPECT_TRUE(lock_bytes(file("sessions"), ending, 1, F_SETLKW));  // waits for it
        }
        return 0;
    });
    EXPECT_EQ(number.kill(ending), Kill::kNoSuchSession);
    EXPECT_FALSE(signalled);
    EXPECT_TRUE(other.alive());
}

// A clone may share its descriptors with a process that took the lock and has ended. The kernel
// names the ended one then, whose number is free for any process.
TEST_F(Peers, LockThatOutlivesItsProcessNamesNobody) {
    const SessionNumber number(run_, getuid());
    const Process orphan([path = file("sessions")] {
        const long clone = syscall(SYS_clone, CLONE_FILES | SIGCHLD, 0, 0, 0, 0);
        if (clone == 0) {
            _exit(lock_bytes(path, 200, 1) ? 0 : 1);
        }
        int status = 1;
        waitpid(static_cast<pid_t>(clone), &status, 0);
        return status == 0;
    });
    EXPECT_EQ(number.kill(200), Kill::kNoSuchSession);
    EXPECT_TRUE(orphan.alive());
    EXPECT_EQ(number.live_sessions().size(), 1U);
}

TEST_F(Peers, KillRefusedByTheKernelIsReportedAsSuch) {
    const SessionNumber number(run_, getuid());
    const OtherSession other(run_);
    int refused_call = SYS_pidfd_send_signal;
    int error = EPERM;
    on_system_call([&](long call) { return call == refused_call ? error : 0; });
    EXPECT_EQ(number.kill(other.id()), Kill::kNotAllowed);
    error = ESRCH;
    EXPECT_EQ(number.kill(other.id()), Kill::kNoSuchSession);
    refused_call = SYS_pidfd_open;
    EXPECT_EQ(number.kill(other.id()), Kill::kNoSuchSession);
}

TEST_F(Peers, LockWithoutAProcessIsNoSession) {
    const SessionNumber number(run_, getuid());
    const uint32_t id = number.id() % 255 + 1;
    const Process other([id, path = file("sessions")] {
        return lock_bytes(path, id, 1, F_OFD_SETLK);  // a lock that belongs to the descriptor
    });
    EXPECT_EQ(number.live_sessions().size(), 1U);
    EXPECT_EQ(number.kill(id), Kill::kNoSuchSession);
}

TEST_F(Peers, LockIsHeldByOneSessionUntilItReleasesIt) {
    make_folder();
    RunningLock one(run_, 7, "ann");
    RunningLock other(run_, 9, "eve");
    EXPECT_FALSE(one.holder());
    one.take();
    EXPECT_TRUE(one.mine());
    EXPECT_FALSE(other.mine());
    for (const RunningLock* lock : {&one, &other}) {
        ASSERT_TRUE(lock->holder());
        EXPECT_EQ(lock->holder()->session, 7U);
        EXPECT_EQ(lock->holder()->since, kNow);
        EXPECT_EQ(lock->holder()->name, "ann");
    }
    EXPECT_EQ(fault([&] { other.take(); }),
              run_ + "/running.lock: Resource temporarily unavailable");
    EXPECT_FALSE(other.mine());
    one.release();
    EXPECT_FALSE(one.mine());
    EXPECT_FALSE(other.holder());
    other.take();
    EXPECT_EQ(one.holder()->session, 9U);
}

TEST_F(Peers, HolderKnowsItsOwnLockWhateverTheFileSays) {
    make_folder();
    RunningLock lock(run_, 7, "eve");
    lock.take();
    std::ofstream(run_ + "/running.lock") << "8 2000-01-01T00:00:00Z\n";
    EXPECT_EQ(lock.holder()->session, 7U);
    ASSERT_EQ(unlink((run_ + "/running.lock").c_str()), 0);
    EXPECT_EQ(lock.holder()->since, "2000-01-01T00:00:00Z");
}

TEST_F(Peers, NameOfTheLocksHolderMayHaveBlanksAndNoControlCharacters) {
    make_folder();
    RunningLock shell(run_, 0, "root (uid 0, pid 812)");
    shell.take();
    const RunningLock other(run_, 9, "eve");
    EXPECT_EQ(other.holder()->session, 0U);
    EXPECT_EQ(other.holder()->name, "root (uid 0, pid 812)");
    std::ofstream(run_ + "/running.lock") << "7 \x1b[2J e\xc3\xa9\n8 x y\n";
    EXPECT_EQ(other.holder()->session, 7U);
    EXPECT_EQ(other.holder()->since, "");
    EXPECT_EQ(other.holder()->name, "e\xc3\xa9");
}

TEST_F(Peers, PipeInPlaceOfTheLocksFileIsRefusedAndNotWaitedFor) {
    mkdir(run_.c_str(), 01770);
    ASSERT_EQ(mkfifo((run_ + "/running.lock").c_str(), 0660), 0);
    RunningLock lock(run_, 7, "ann");
    EXPECT_FALSE(lock.holder());
    EXPECT_EQ(fault([&] { lock.take(); }), run_ + "/running.lock: Invalid argument");
}

TEST_F(Peers, TurnToEditIsOneSessionsAtATime) {
    make_folder();
    freeze_clock();
    {
        const EditTurn turn(run_);
        EXPECT_TRUE(turn.ours());
        EXPECT_EQ(clock_advance(), milliseconds(0));
        const EditTurn other(run_);
        EXPECT_FALSE(other.ours());
        EXPECT_EQ(clock_advance(), milliseconds(905));  // in steps of 5
    }
    EXPECT_TRUE(EditTurn(run_).ours());
}

TEST_F(Peers, TurnReleasedWhileWaitingIsTaken) {
    make_folder();
    freeze_clock();
    auto first = std::make_unique<EditTurn>(run_);
    on_sleep([&] {
        if (clock_advance() >= milliseconds(895)) {
            first.reset();
        }
    });
    EXPECT_TRUE(EditTurn(run_).ours());
    EXPECT_EQ(clock_advance(), milliseconds(895));
}

TEST_F(Peers, FileClosesItsDescriptorOnce) {
    const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    {
        File file(fd);
        File moved(std::move(file));
        EXPECT_FALSE(file.open());  // NOLINT(bugprone-use-after-move)
        EXPECT_EQ(moved.fd(), fd);
    }
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_FALSE(File().open());
}

}  // namespace
