// Agreements of sessions by locks on files. A lock belongs to its descriptor, so that two
// sessions of one process differ as those of two processes do.
#include "services/netconf/shared_state.h"
#include "platform/base/running_lock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
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
#include <iterator>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/unit/netconf/database_peer.h"
#include "tests/unit/netconf/intercepted.h"

using namespace netconf::test;
using netconf::EditTurn;
using netconf::Kill;
using netconf::kill_session;
using netconf::live_sessions;
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
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 0777U : 0;
}

class Peers : public testing::Test {
 protected:
    void SetUp() override {
        reset_interception();
        set_time_of_day(kNow_s);
        old_mask_ = umask(0007);
    }
    void TearDown() override {
        for (const pid_t pid : children_) {
            ::kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        umask(old_mask_);
    }

    static std::string fault(const std::function<void()>& call) {
        try {
            call();
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "none";
    }

    std::string session_file(uint32_t id) const { return run_ + "/session-" + std::to_string(id); }

    // A session in another process, which ignores SIGTERM if it is `stubborn`.
    uint32_t start_session(bool stubborn, pid_t* pid) {
        std::array<int, 2> ends{};
        EXPECT_EQ(pipe(ends.data()), 0);
        *pid = fork();
        if (*pid == 0) {
            signal(SIGTERM, stubborn ? SIG_IGN : SIG_DFL);
            const SessionNumber number(run_, "other");
            const uint32_t id = number.id();
            _exit(write(ends[1], &id, sizeof id) == sizeof id && pause() == 0 ? 1 : 0);
        }
        children_.push_back(*pid);
        uint32_t id = 0;
        EXPECT_EQ(::read(ends[0], &id, sizeof id), ssize_t{sizeof id});
        close(ends[0]);
        close(ends[1]);
        return id;
    }

    Folder folder_;
    const std::string run_ = folder_.path("run");
    std::vector<pid_t> children_;
    mode_t old_mask_ = 0;
};

TEST_F(Peers, SessionWritesDownWhoItIsForItsGroup) {
    const SessionNumber number(run_, "admin");
    EXPECT_EQ(number.id(), 1 + static_cast<uint32_t>(getpid()) % 255);
    EXPECT_EQ(text_of(session_file(number.id())),
              std::to_string(getpid()) + " " + kNow + " admin\n");
    EXPECT_EQ(mode_of(run_), 0770U);
    EXPECT_EQ(mode_of(session_file(number.id())), 0660U);
}

TEST_F(Peers, FilesAreTheGroupsWhateverTheMask) {
    umask(0077);
    const SessionNumber number(run_, "admin");
    EXPECT_EQ(mode_of(session_file(number.id())), 0660U);
}

TEST_F(Peers, LineOfAnEarlierSessionIsReplacedWhole) {
    mkdir(run_.c_str(), 0770);
    const uint32_t id = 1 + static_cast<uint32_t>(getpid()) % 255;
    std::ofstream(session_file(id)) << std::string(200, 'x');
    const SessionNumber number(run_, "admin");
    ASSERT_EQ(number.id(), id);
    EXPECT_EQ(text_of(session_file(id)), std::to_string(getpid()) + " " + kNow + " admin\n");
}

TEST_F(Peers, TwoHundredAndFiftyFiveSessionsFit) {
    std::vector<std::unique_ptr<SessionNumber>> sessions;
    std::set<uint32_t> numbers;
    for (int n = 0; n < 255; n++) {
        sessions.push_back(std::make_unique<SessionNumber>(run_, "admin"));
        numbers.insert(sessions.back()->id());
    }
    EXPECT_EQ(numbers.size(), 255U);
    EXPECT_EQ(*numbers.begin(), 1U);
    EXPECT_EQ(*numbers.rbegin(), 255U);
    EXPECT_EQ(live_sessions(run_).size(), 255U);
    EXPECT_EQ(fault([&] { SessionNumber(run_, "admin"); }), "all 255 sessions are in use");
    const uint32_t freed = sessions[100]->id();
    sessions[100].reset();
    EXPECT_EQ(SessionNumber(run_, "admin").id(), freed);
}

TEST_F(Peers, FolderThatCannotBeUsedIsNamed) {
    EXPECT_EQ(fault([&] { SessionNumber(folder_.path("a/b"), "admin"); }),
              folder_.path("a/b") + ": No such file or directory");
    std::ofstream(folder_.path("file")) << "x";
    const uint32_t id = 1 + static_cast<uint32_t>(getpid()) % 255;
    EXPECT_EQ(fault([&] { SessionNumber(folder_.path("file"), "admin"); }),
              folder_.path("file/session-") + std::to_string(id) + ": Not a directory");
    EXPECT_EQ(fault([&] { EditTurn(folder_.path("nowhere")); }),
              folder_.path("nowhere/edit.lock") + ": No such file or directory");
    EXPECT_EQ(fault([&] { RunningLock(folder_.path("nowhere"), 1, "eve").take(); }),
              folder_.path("nowhere/running.lock") + ": No such file or directory");
}

TEST_F(Peers, LinkInPlaceOfAFileIsNotFollowed) {
    mkdir(run_.c_str(), 0770);
    const uint32_t id = 1 + static_cast<uint32_t>(getpid()) % 255;
    std::ofstream(folder_.path("target")) << "precious";
    ASSERT_EQ(symlink(folder_.path("target").c_str(), session_file(id).c_str()), 0);
    EXPECT_EQ(fault([&] { SessionNumber(run_, "admin"); }),
              session_file(id) + ": Too many levels of symbolic links");
    EXPECT_EQ(text_of(folder_.path("target")), "precious");
}

TEST_F(Peers, FileThatCannotBeWrittenIsAFault) {
    rlimit usual{};
    getrlimit(RLIMIT_FSIZE, &usual);
    signal(SIGXFSZ, SIG_IGN);
    const rlimit none{.rlim_cur = 0, .rlim_max = usual.rlim_max};
    setrlimit(RLIMIT_FSIZE, &none);
    const std::string said = fault([&] { SessionNumber(run_, "admin"); });
    setrlimit(RLIMIT_FSIZE, &usual);
    EXPECT_EQ(said, "cannot write a session file: File too large");
}

TEST_F(Peers, LiveSessionsAreListedByNumber) {
    const auto one = std::make_unique<SessionNumber>(run_, "admin");
    const SessionNumber other(run_, "guest");
    std::ofstream(session_file(other.id() % 255 + 1)) << "1 " << kNow << " ghost\n";  // no lock
    auto found = live_sessions(run_);
    const std::filesystem::directory_iterator files(run_);
    EXPECT_EQ(std::distance(begin(files), end(files)), 3);  // looking creates none
    ASSERT_EQ(found.size(), 2U);
    EXPECT_LT(found[0].id, found[1].id);
    const auto& first = found[0].id == one->id() ? found[0] : found[1];
    EXPECT_EQ(first.id, one->id());
    EXPECT_EQ(first.pid, getpid());
    EXPECT_EQ(first.login_time, kNow);
    EXPECT_EQ(first.user, "admin");
    std::ofstream(session_file(one->id())) << "not a session\n";
    found = live_sessions(run_);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].user, "guest");
    EXPECT_EQ(live_sessions(folder_.path("nowhere")).size(), 0U);
}

TEST_F(Peers, KilledSessionIsAskedToEndAndHasEnded) {
    pid_t pid = 0;
    const uint32_t id = start_session(false, &pid);
    EXPECT_EQ(kill_session(run_, id), Kill::kDone);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, WNOHANG), pid);
    EXPECT_EQ(WTERMSIG(status), SIGTERM);
    children_.clear();
    EXPECT_EQ(kill_session(run_, id), Kill::kNoSuchSession);
}

TEST_F(Peers, SessionThatDoesNotEndIsWaitedForOneSecond) {
    pid_t pid = 0;
    const uint32_t id = start_session(true, &pid);
    int limit_ms = 0;
    on_poll([&](pollfd*, nfds_t, int timeout_ms) {
        limit_ms = timeout_ms;
        return 0;
    });
    EXPECT_EQ(kill_session(run_, id), Kill::kStillThere);
    EXPECT_EQ(limit_ms, 1000);
}

TEST_F(Peers, OnlyASessionIsKilled) {
    pid_t pid = 0;
    const uint32_t id = start_session(false, &pid);
    const uint32_t stale = id % 255 + 1;
    std::ofstream(session_file(stale)) << pid << " " << kNow << " other\n";  // no lock
    EXPECT_EQ(kill_session(run_, stale), Kill::kNoSuchSession);
    EXPECT_EQ(kill_session(run_, 0), Kill::kNoSuchSession);
    // The session ends, and another process has its number by the time of the search.
    auto number = std::make_unique<SessionNumber>(run_, "admin");
    const uint32_t ending = number->id();
    std::ofstream(session_file(ending)) << pid << " " << kNow << " admin\n";
    on_system_call([&](long call) {
        if (call == SYS_pidfd_open) {
            number.reset();
        }
        return 0;
    });
    EXPECT_EQ(kill_session(run_, ending), Kill::kNoSuchSession);
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0);  // it lives
}

TEST_F(Peers, KillRefusedByTheKernelIsReportedAsSuch) {
    const SessionNumber number(run_, "admin");
    int refused_call = SYS_pidfd_send_signal;
    int error = EPERM;
    on_system_call([&](long call) { return call == refused_call ? error : 0; });
    EXPECT_EQ(kill_session(run_, number.id()), Kill::kNotAllowed);
    error = ESRCH;
    EXPECT_EQ(kill_session(run_, number.id()), Kill::kNoSuchSession);
    refused_call = SYS_pidfd_open;
    EXPECT_EQ(kill_session(run_, number.id()), Kill::kNoSuchSession);
}

TEST_F(Peers, LockIsHeldByOneSessionUntilItReleasesIt) {
    mkdir(run_.c_str(), 0770);
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
    mkdir(run_.c_str(), 0770);
    RunningLock lock(run_, 7, "eve");
    lock.take();
    std::ofstream(run_ + "/running.lock") << "8 2000-01-01T00:00:00Z\n";
    EXPECT_EQ(lock.holder()->session, 7U);
    ASSERT_EQ(unlink((run_ + "/running.lock").c_str()), 0);
    EXPECT_EQ(lock.holder()->since, "2000-01-01T00:00:00Z");
}

TEST_F(Peers, NameOfTheLocksHolderMayHaveBlanksAndNoControlCharacters) {
    mkdir(run_.c_str(), 0770);
    RunningLock shell(run_, 0, "root (uid 0, pid 812)");
    shell.take();
    const RunningLock other(run_, 9, "eve");
    EXPECT_EQ(other.holder()->session, 0U);
    EXPECT_EQ(other.holder()->name, "root (uid 0, pid 812)");
    std::ofstream(run_ + "/running.lock") << "7 \x1b[2J e\xc3\xa9\n8 x y\n";
    EXPECT_EQ(other.holder()->session, 7U);
    EXPECT_EQ(other.holder()->since, "?[2J");
    EXPECT_EQ(other.holder()->name, "e??");
}

TEST_F(Peers, PipeInPlaceOfTheLocksFileIsRefusedAndNotWaitedFor) {
    mkdir(run_.c_str(), 0770);
    ASSERT_EQ(mkfifo((run_ + "/running.lock").c_str(), 0660), 0);
    RunningLock lock(run_, 7, "ann");
    EXPECT_FALSE(lock.holder());
    EXPECT_EQ(fault([&] { lock.take(); }), run_ + "/running.lock: Invalid argument");
}

TEST_F(Peers, TurnToEditIsOneSessionsAtATime) {
    mkdir(run_.c_str(), 0770);
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
    mkdir(run_.c_str(), 0770);
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
