// <lock>, <unlock>, <kill-session> and <create-subscription>.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "tests/unit/netconf/intercepted.h"
#include "tests/unit/netconf/other_session.h"
#include "tests/unit/netconf/served_session.h"

using namespace netconf::test;
using netconf::EditTurn;
using qv::RunningLock;

namespace {

const std::string kLock = "<lock><target><running/></target></lock>";
const std::string kUnlock = "<unlock><target><running/></target></unlock>";

std::string protocol_error(const std::string& tag, const std::string& message,
                           const std::string& info = "") {
    return ErrorText{.type = "protocol", .tag = tag, .message = message, .info = info}.xml();
}

std::string denied_by(const std::string& session) {
    return protocol_error("lock-denied", "session " + session + " holds the lock",
                          "<session-id>" + session + "</session-id>");
}

std::string kill(const std::string& id) {
    return "<kill-session><session-id>" + id + "</session-id></kill-session>";
}

std::string subscribe(const std::string& parameters = "") {
    return "<create-subscription xmlns=\"urn:ietf:params:xml:ns:netconf:notification:1.0\">" +
           parameters + "</create-subscription>";
}

class Locks : public ServedSession {};

TEST_F(Locks, LockIsHeldUntilItIsReleased) {
    const RunningLock other(runtime_dir(), 300, "eve");
    EXPECT_EQ(reply_to(kLock), "<ok/>");
    EXPECT_EQ(std::to_string(other.holder()->session), id());
    EXPECT_EQ(reply_to(kUnlock), "<ok/>");
    EXPECT_FALSE(other.holder());
    EXPECT_EQ(reply_to(kLock), "<ok/>");
}

TEST_F(Locks, LockThatIsHeldIsDenied) {
    EXPECT_EQ(reply_to(kLock), "<ok/>");
    EXPECT_EQ(reply_to(kLock), denied_by(id()));
    EXPECT_EQ(reply_to(kUnlock), "<ok/>");
    RunningLock other(runtime_dir(), 300, "eve");
    other.take();
    EXPECT_EQ(reply_to(kLock), denied_by("300"));
}

TEST_F(Locks, LockOfTheShellIsDeniedAsSessionZero) {
    RunningLock shell(runtime_dir(), 0, "root (uid 0, pid 812)");
    shell.take();
    EXPECT_EQ(reply_to(kLock),
              protocol_error("lock-denied", "the operator root (uid 0, pid 812) holds the lock",
                             "<session-id>0</session-id>"));
    shell.release();
    EXPECT_EQ(reply_to(kLock), "<ok/>");
    EXPECT_EQ(shell.holder()->name, "admin");
}

TEST_F(Locks, OnlyTheHolderUnlocks) {
    const std::string refusal =
        protocol_error("operation-failed", "this session does not hold the lock");
    EXPECT_EQ(reply_to(kUnlock), refusal);
    RunningLock other(runtime_dir(), 300, "eve");
    other.take();
    EXPECT_EQ(reply_to(kUnlock), refusal);
    EXPECT_EQ(other.holder()->session, 300U);
}

TEST_F(Locks, AreRefusedWhileAnotherSessionEdits) {
    EXPECT_EQ(reply_to(kLock), "<ok/>");
    const auto other = std::make_unique<EditTurn>(runtime_dir());
    const std::string refusal = protocol_error("in-use", "another session is editing");
    EXPECT_EQ(reply_to(kUnlock), refusal);
    EXPECT_TRUE(session().lock.mine());
    session().lock.release();
    EXPECT_EQ(reply_to(kLock), refusal);
    EXPECT_FALSE(session().lock.mine());
}

TEST_F(Locks, AreTakenInTheSessionsTurn) {
    std::vector<bool> free;
    on_time([&] { free.push_back(EditTurn(runtime_dir()).ours()); });  // the lock notes the time
    EXPECT_EQ(reply_to(kLock), "<ok/>");
    EXPECT_EQ(free, std::vector<bool>{false});
}

TEST_F(Locks, LeaveTheTurnToOthers) {
    EXPECT_EQ(reply_to(kLock), "<ok/>");
    EXPECT_TRUE(EditTurn(runtime_dir()).ours());
    EXPECT_EQ(reply_to(kUnlock), "<ok/>");
    EXPECT_TRUE(EditTurn(runtime_dir()).ours());
}

class Kills : public ServedSession {
 protected:
    void SetUp() override {
        ServedSession::SetUp();
        other_ = std::make_unique<OtherSession>(runtime_dir());
    }

    std::string other() const { return std::to_string(other_->id()); }
    bool alive() const { return other_->alive(); }

    std::unique_ptr<OtherSession> other_;
};

TEST_F(Kills, OtherSessionEnds) {
    EXPECT_EQ(reply_to(kill(other())), "<ok/>");
    EXPECT_FALSE(alive());
    EXPECT_EQ(logged(), (std::vector<LogLine>{{LOG_NOTICE, "killed session " + other()}}));
}

TEST_F(Kills, SessionThatDoesNotEndIsAnError) {
    on_poll([](pollfd*, nfds_t, int) { return 0; });
    EXPECT_EQ(reply_to(kill(other())),
              protocol_error("operation-failed", "session " + other() + " does not end"));
    EXPECT_EQ(logged(), std::vector<LogLine>{});
}

TEST_F(Kills, SessionDoesNotKillItself) {
    on_system_call([](long number) { return number == SYS_pidfd_send_signal ? EPERM : 0; });
    EXPECT_EQ(reply_to(kill(id())),
              protocol_error("invalid-value", "a session cannot kill itself"));
    EXPECT_EQ(logged(), std::vector<LogLine>{});
}

TEST_F(Kills, SessionThatIsNotThereIsUnknown) {
    const std::string gone = other();
    other_->end();
    EXPECT_EQ(reply_to(kill(gone)), protocol_error("invalid-value", "there is no session " + gone));
    EXPECT_EQ(reply_to(kill("4294967295")),
              protocol_error("invalid-value", "there is no session 4294967295"));
    EXPECT_EQ(logged(), std::vector<LogLine>{});
}

TEST_F(Kills, SessionOfAnotherUserIsNotKilled) {
    on_system_call([](long number) { return number == SYS_pidfd_send_signal ? EPERM : 0; });
    EXPECT_EQ(reply_to(kill(other())),
              protocol_error("access-denied", "session " + other() + " is another user's"));
    EXPECT_TRUE(alive());
    EXPECT_EQ(logged(), std::vector<LogLine>{});
}

class Subscriptions : public ServedSession {
 protected:
    // Whether the client is notified of a loop on this port.
    bool is_notified_of(const std::string& port) {
        database().publish("mom/3/p_nc.notification", '\2' + loop_on(port));
        return session().subscription->next().has_value();
    }

    static std::string from(const std::string& time) {
        return "<startTime>" + time + "</startTime>";
    }
    static std::string until(const std::string& time) {
        return "<stopTime>" + time + "</stopTime>";
    }
};

TEST_F(Subscriptions, BeginWithTheReply) {
    EXPECT_EQ(session().subscription, nullptr);
    EXPECT_EQ(reply_to(subscribe()), "<ok/>");
    ASSERT_NE(session().subscription, nullptr);
    EXPECT_TRUE(is_notified_of("swp1"));
    EXPECT_EQ(nc_session_get_notif_status(session().link), 1);
}

TEST_F(Subscriptions, StreamIsTheOneOfTheProtocol) {
    EXPECT_EQ(reply_to(subscribe("<stream>SNMP</stream>")),
              protocol_error("invalid-value", "there is no stream \"SNMP\""));
    EXPECT_EQ(session().subscription, nullptr);
    EXPECT_EQ(reply_to(subscribe("<stream>NETCONF</stream>")), "<ok/>");
}

TEST_F(Subscriptions, FilterChoosesNotifications) {
    EXPECT_EQ(reply_to(subscribe("<filter type=\"xpath\" select=\"//*[. = 'swp2']\"/>")), "<ok/>");
    EXPECT_FALSE(is_notified_of("swp1"));
    EXPECT_TRUE(is_notified_of("swp2"));
}

TEST_F(Subscriptions, FilterThatSelectsNoNodesIsRefused) {
    EXPECT_EQ(reply_to(subscribe("<filter type=\"xpath\" select=\"1 + 1\"/>")),
              protocol_error("invalid-value", "the filter \"1 + 1\" selects no nodes"));
    EXPECT_EQ(session().subscription, nullptr);
    EXPECT_EQ(nc_session_get_notif_status(session().link), 0);
}

TEST_F(Subscriptions, SessionHasOne) {
    EXPECT_EQ(reply_to(subscribe()), "<ok/>");
    const auto* const first = session().subscription.get();
    EXPECT_EQ(reply_to(subscribe()),
              protocol_error("operation-failed", "this session has a subscription already"));
    EXPECT_EQ(session().subscription.get(), first);
    EXPECT_EQ(nc_session_get_notif_status(session().link), 1);
}

TEST_F(Subscriptions, ReplayNeedsALog) {
    const std::string refusal = protocol_error(
        "operation-failed", "there are no notifications to replay: the agent keeps no log yet");
    EXPECT_EQ(reply_to(subscribe(from("2026-01-01T00:00:00Z"))), refusal);
    database().store(3, "p_nc.notification_log/", "garbage");
    EXPECT_EQ(reply_to(subscribe(from("2026-01-01T00:00:00Z"))), refusal);
    EXPECT_EQ(session().subscription, nullptr);
}

TEST_F(Subscriptions, ReplayMayBeginAndEndNow) {
    keep_log(database(), 1000);
    const std::string now = "2026-01-02T03:04:05Z";
    for (const std::string& times :
         {from(now), from("2026-01-02T04:04:05+01:00"), from(now) + until(now),
          from("2026-01-01T00:00:00Z") + until("2026-01-01T00:00:01Z")}) {
        EXPECT_EQ(reply_to(subscribe(times)), "<ok/>");
        session().subscription.reset();
    }
}

TEST_F(Subscriptions, TimesOfAReplayCountToTheMillisecond) {
    keep_log(database(), 1000);
    keep(database(), "early", {.time_ms = 1767225600122, .sequence = 1});
    keep(database(), "wanted", {.time_ms = 1767225600123, .sequence = 2});
    keep(database(), "late", {.time_ms = 1767225600501, .sequence = 3});
    EXPECT_EQ(
        reply_to(subscribe(from("2026-01-01T00:00:00.1234567Z") + until("2026-01-01T00:00:00.5Z"))),
        "<ok/>");
    const auto event = session().subscription->next();
    ASSERT_TRUE(event);
    EXPECT_EQ(event->time, "2026-01-01T00:00:00.123Z");
    EXPECT_STREQ(session().subscription->next()->tree->schema->name, "replayComplete");
}

TEST_F(Subscriptions, TimesOfAReplayMustFitEachOther) {
    EXPECT_EQ(reply_to(subscribe(until("2026-01-01T00:00:00Z"))),
              protocol_error("missing-element", "stopTime needs startTime",
                             "<bad-element>startTime</bad-element>"));
    EXPECT_EQ(reply_to(subscribe(from("2026-01-02T03:04:06Z"))),
              protocol_error("bad-element", "startTime is in the future",
                             "<bad-element>startTime</bad-element>"));
    EXPECT_EQ(reply_to(subscribe(from("2026-01-01T00:00:01Z") + until("2026-01-01T00:00:00Z"))),
              protocol_error("bad-element", "stopTime lies before startTime",
                             "<bad-element>stopTime</bad-element>"));
    EXPECT_EQ(session().subscription, nullptr);
}

TEST_F(Subscriptions, NeedTheDatabase) {
    const std::string reason = lose_database();
    EXPECT_EQ(
        reply_to(subscribe()),
        (ErrorText{.type = "application", .tag = "operation-failed", .message = reason}.xml()));
    EXPECT_EQ(session().subscription, nullptr);
    EXPECT_EQ(nc_session_get_notif_status(session().link), 0);
}

}  // namespace
