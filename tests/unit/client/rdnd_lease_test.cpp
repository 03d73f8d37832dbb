// The master role by a lease in the store: what the process does with it. The rules of the lease
// itself are in lease_test.cpp.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/client/lease.h"
#include "platform/client/role.h"
#include "tests/unit/client/rdnd_fixture.h"

namespace qv {
namespace {

using namespace rdnd_test;

// A store for one agent, which answers at once unless it is silent.
class LeaseStore final : public LeaseDriver {
 public:
    explicit LeaseStore(EventLoop& loop) : loop_(loop) {}

    void connect(LeaseListener& listener) override {
        listener_ = &listener;
        loop_.post([this] { listener_->lease_reached(); });
    }
    void read(Answer answer) override { reply(std::move(answer)); }
    void replace(const std::string& expected, const std::string& wanted, Answer answer) override {
        if (text == expected) {
            text = wanted;
        }
        reply(std::move(answer));
    }
    void fail(const std::string& reason) const { listener_->lease_unreachable(reason); }

    std::string text;
    bool silent = false;

 private:
    void reply(Answer answer) {
        if (!silent) {
            loop_.post([answer = std::move(answer), now = text] { answer(now); });
        }
    }

    EventLoop& loop_;
    LeaseListener* listener_ = nullptr;
};

std::string this_host() {
    char name[65] = "";
    EXPECT_EQ(gethostname(name, sizeof name - 1), 0);
    return name;
}

struct RdndLeaseTest : RdndTest {
    LeaseStore store{loop};

    RdndLeaseTest() {
        platform.settings.role = PlatformConfig::Role::kLease;
        platform.settings.lease_ms = 2000;
        platform.lease_in_use = &store;
    }
    void register_agent() {
        const rdnd_reg record = reg();
        EXPECT_EQ(rdnd_lib_mom_reg(&record), 0);
    }
    // Goes on until the process ends.
    void run_on() {
        for (;;) {
            run_for(std::chrono::milliseconds(100));
        }
    }
    // A process that holds the lock on the socket and whose lease has just ended.
    std::unique_ptr<Process> stopped_master(const std::string& host) {
        auto other = std::make_unique<Process>([this] {
            auto* const held = new NameLock;  // until the process ends
            return held->take(loop, cli_lock(), cli_lock_file()) == 0;
        });
        EXPECT_TRUE(other->set_up());
        store.text = "7 3 2000 token " + host + " " + std::to_string(other->pid());
        return other;
    }
};

TEST_F(RdndLeaseTest, ProcessThatAcquiresTheLeaseIsTheMaster) {
    register_agent();
    run_for(std::chrono::milliseconds(1999));
    EXPECT_EQ(g_master_calls, 0);
    EXPECT_EQ(platform.masters, 0);
    EXPECT_EQ(NameLock::holder(cli_lock(), cli_lock_file()), 0) << "a standby holds nothing";
    run_for(std::chrono::milliseconds(1));
    EXPECT_EQ(g_master_calls, 1);
    EXPECT_EQ(platform.masters, 1);
    EXPECT_EQ(g_switch_calls, 0);
    EXPECT_EQ(NameLock::holder(cli_lock(), cli_lock_file()), getpid());
    const std::optional<LeaseText> lease = parse_lease(store.text);
    ASSERT_TRUE(lease) << store.text;
    EXPECT_EQ(lease->fence, 1U);
    EXPECT_EQ(lease->time_ms, 2000U);
    EXPECT_EQ(lease->host, this_host());
    EXPECT_EQ(lease->pid, static_cast<uint64_t>(getpid()));
    EXPECT_EQ(lease->token.size(), 32U);
    run_for(std::chrono::seconds(60));
    EXPECT_EQ(g_master_calls, 1);
}

TEST_F(RdndLeaseTest, RoleIsReportedWithNumberAndTimeLeft) {
    register_agent();
    run_for(std::chrono::milliseconds(2100));
    const RoleReport report = role_report();
    EXPECT_TRUE(report.leased);
    EXPECT_EQ(report.host, this_host());
    EXPECT_EQ(report.pid, getpid());
    ASSERT_TRUE(report.lease);
    EXPECT_EQ(report.lease->fence, 1U);
    EXPECT_EQ(report.lease->left, std::chrono::milliseconds(1700));
}

TEST_F(RdndTest, SoloRoleHasNoLease) {
    const rdnd_reg record = reg();
    EXPECT_EQ(rdnd_lib_mom_reg(&record), 0);
    run_for(Duration::zero());
    EXPECT_FALSE(role_report().leased);
    EXPECT_FALSE(role_report().lease);
}

// The simulated switch may be faster than real time, and another agent of the same store need not.
TEST_F(RdndLeaseTest, LeaseIsInRealTime) {
    platform.settings.speed = 10;
    register_agent();
    run_for(std::chrono::milliseconds(19999));
    EXPECT_EQ(g_master_calls, 0);
    run_for(std::chrono::milliseconds(1));
    EXPECT_EQ(g_master_calls, 1);
    EXPECT_EQ(role_report().lease->left, std::chrono::milliseconds(1800));
}

TEST_F(RdndLeaseTest, TroubleWithTheStoreIsLogged) {
    register_agent();
    run_for(Duration::zero());
    store.fail("NOPERM this user has no permissions");
    EXPECT_EQ(platform.log.lines(),
              Lines{"RDND-3-LEASE: The lease of the master role cannot be read or renewed, trying "
                    "again: NOPERM this user has no permissions"});
}

TEST_F(RdndLeaseTest, StoppedPredecessorOnThisMachineIsKilled) {
    const std::unique_ptr<Process> other = stopped_master(this_host());
    kill(other->pid(), SIGSTOP);
    register_agent();
    run_for(std::chrono::milliseconds(2000));
    for (int turn = 0; turn < 50 && g_master_calls == 0; ++turn) {
        usleep(10'000);  // the kernel releases the locks in real time
        run_for(std::chrono::milliseconds(5));
    }
    ASSERT_EQ(g_master_calls, 1);
    EXPECT_EQ(NameLock::holder(cli_lock(), cli_lock_file()), getpid());
    int status = 0;
    ASSERT_EQ(waitpid(other->pid(), &status, 0), other->pid());
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_EQ(platform.log.lines(),
              Lines{"RDND-4-LEASE: Process " + std::to_string(other->pid()) +
                    " had the lease before and still runs on command-line socket " +
                    platform.settings.cli_socket + ": it is killed."});
}

using RdndLeaseDeathTest = RdndLeaseTest;

TEST_F(RdndLeaseDeathTest, LostLeaseEndsTheProcessWithItsOwnStatus) {
    register_agent();
    run_for(std::chrono::milliseconds(2000));
    ASSERT_EQ(g_master_calls, 1);
    store.silent = true;
    EXPECT_EXIT(run_on(), testing::ExitedWithCode(75),
                "^lda: the master role is lost: the lease was not renewed in time \\(the server "
                "did not answer, or this process was stopped\\); the next start stands by\n$");
}

TEST_F(RdndLeaseDeathTest, PauseLongerThanTheLeaseEndsTheProcessBeforeAnyWork) {
    register_agent();
    run_for(std::chrono::milliseconds(2000));
    platform.manual_clock.advance(std::chrono::milliseconds(1800));
    loop.post([] {
        std::fputs("worked", stderr);
        std::_Exit(0);
    });
    EXPECT_EXIT(run_on(), testing::ExitedWithCode(75), "^lda: the master role is lost");
}

TEST_F(RdndLeaseDeathTest, LocksOfAnotherProcessThanThePredecessorEndTheStart) {
    const Holder other(cli_lock());  // this process, which the lease does not name
    store.text = "7 3 2000 token " + this_host() + " 1";
    register_agent();
    EXPECT_EXIT(run_on(), testing::ExitedWithCode(1),
                "^lda: process " + std::to_string(getpid()) +
                    " already runs on command-line socket " + platform.settings.cli_socket +
                    ": stop it first\n$");
    EXPECT_EQ(g_master_calls, 0);
}

TEST_F(RdndLeaseDeathTest, ProcessWithTheNumberOfAPredecessorOnAnotherMachineIsLeftAlone) {
    const std::unique_ptr<Process> other = stopped_master("another-host");
    register_agent();
    EXPECT_EXIT(run_on(), testing::ExitedWithCode(1), "already runs on command-line socket");
    EXPECT_EQ(waitpid(other->pid(), nullptr, WNOHANG), 0) << "it still runs";
}

}  // namespace
}  // namespace qv
