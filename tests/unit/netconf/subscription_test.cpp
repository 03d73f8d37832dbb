// Notifications from the object database to a client, and the time without a database.
#include "services/netconf/subscription.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "services/netconf/rpc_error.h"
#include "tests/unit/netconf/database_peer.h"
#include "tests/unit/netconf/intercepted.h"
#include "tests/unit/netconf/notification_records.h"

using namespace netconf::test;
using namespace std::chrono_literals;
using netconf::Context;
using netconf::DatabaseLost;
using netconf::EventTime;
using netconf::Filter;
using netconf::Replay;
using netconf::Subscription;
using netconf::Tree;

namespace {

constexpr const char* kChannel = "mom/3/p_nc.notification";
const std::string& kModule = kNotificationModule;
const std::string& kName = kNotificationName;
const std::string kDropped = "an invalid notification of the switch is dropped: ";

// What begins the events of the protocol at the end of a replay and of a subscription.
const std::string kComplete =
    "2026-01-02T03:04:05.000Z <replayComplete "
    "xmlns=\"urn:ietf:params:xml:ns:netmod:notification\"/>";
constexpr uint64_t kNow_ms = 1767323045000;

EventTime at(uint64_t time_ms) {
    return EventTime(std::chrono::milliseconds(time_ms));
}

class Notifications : public testing::Test {
 protected:
    void SetUp() override {
        reset_interception();
        freeze_clock();
        set_time_of_day(kNow_ms / 1000);
        peer_.emplace(folder_.path("redis.sock"));
    }

    Subscription subscribe(Filter filter = {}, const std::optional<Replay>& replay = {}) {
        return {context_.get(), {peer_->socket()}, std::move(filter), replay};
    }
    Subscription replay_from(uint64_t from_ms, const std::optional<EventTime>& until = {}) {
        return subscribe({}, Replay{.from = at(from_ms), .until = until});
    }

    // One notice: published unless told otherwise.
    void publish(const std::string& record, char operation = '\2') {
        peer_->publish(kChannel, operation + record);
    }

    // The next event as its time and its XML; "none" when there is none.
    static std::string next(Subscription& subscription) {
        const auto event = subscription.next();
        if (!event) {
            return "none";
        }
        char* printed = nullptr;
        lyd_print_mem(&printed, event->tree.get(), LYD_XML, LYD_PRINT_SHRINK);
        const std::string text = event->time + " " + printed;
        free(printed);
        return text;
    }

    // The name of the port of the next event.
    static std::string next_port(Subscription& subscription) {
        const std::string text = next(subscription);
        const size_t at = text.find("<name>");
        return at == std::string::npos ? text : text.substr(at + 6, text.find("</name>") - at - 6);
    }

    // The filter in a <create-subscription>.
    Filter filter_of(const std::string& element) {
        const std::string text =
            "<create-subscription xmlns=\"urn:ietf:params:xml:ns:netconf:notification:1.0\">" +
            element + "</create-subscription>";
        ly_in* in = nullptr;
        ly_in_new_memory(text.c_str(), &in);
        lyd_node* root = nullptr;
        EXPECT_EQ(
            lyd_parse_op(context_.get(), nullptr, in, LYD_XML, LYD_TYPE_RPC_YANG, &root, nullptr),
            LY_SUCCESS);
        ly_in_free(in, 0);
        const Tree rpc(root);
        return Filter::of(*rpc);
    }

    const Context context_ = netconf::load_modules(YANG_DIR);
    Folder folder_;
    std::optional<DatabasePeer> peer_;
};

TEST_F(Notifications, RecordBecomesDataOfTheModelWithItsTime) {
    Subscription subscription = subscribe();
    EXPECT_GE(subscription.fd(), 0);
    EXPECT_EQ(subscription.wait_ms(true), -1);
    publish(packed(kName,
                   {{path_of("swp1", "notify-type"), 20, 2},
                    {path_of("swp1", "vid"), 20, 4294967295},
                    {path_of("swp1", "policy"), 20, 1},
                    {path_of("swp1", "src-port"), 8, 1}},
                   {.time_ms = 1767323045678}));
    EXPECT_EQ(next(subscription),
              "2026-01-02T03:04:05.678Z <loop-detect-state xmlns=\"urn:qv:yang:" + kModule +
                  "\"><loop-notify><notify-entry><name>swp1</name><notify-type>2</notify-type>"
                  "<vid>4294967295</vid><policy>1</policy><src-port>1</src-port></notify-entry>"
                  "</loop-notify></loop-detect-state>");
    EXPECT_EQ(next(subscription), "none");
}

TEST_F(Notifications, MillisecondsHaveThreeDigits) {
    Subscription subscription = subscribe();
    publish(packed(kName, {{path_of("swp1", "vid"), 20, 0}}, {.time_ms = 1007}));
    EXPECT_EQ(next(subscription).substr(0, 24), "1970-01-01T00:00:01.007Z");
}

TEST_F(Notifications, ArriveInTheOrderOfTheSwitch) {
    Subscription subscription = subscribe();
    publish(loop_on("swp1"));
    publish(loop_on("swp2"));
    subscription.receive();
    publish(loop_on("swp3"));
    for (const char* const name : {"swp1", "swp2", "swp3", "none"}) {
        EXPECT_EQ(next_port(subscription), name);
    }
}

TEST_F(Notifications, OnlyPublishedRecordsAreNotifications) {
    Subscription subscription = subscribe();
    for (const char operation : {'\0', '\1', '\3', '\xff'}) {
        publish(loop_on("swp1"), operation);
    }
    publish(loop_on("swp2"));
    EXPECT_EQ(next_port(subscription), "swp2");
    EXPECT_EQ(next_port(subscription), "none");
    EXPECT_EQ(logged_texts(), std::vector<std::string>{});
}

TEST_F(Notifications, RecordThatFitsNoNotificationIsDroppedWithItsReason) {
    Subscription subscription = subscribe();
    const std::string path = path_of("swp1", "vid");
    const std::vector<std::pair<std::string, std::string>> records{
        {"garbage", "does not unpack"},
        {"", "does not unpack"},
        {packed(kName, {}), "does not unpack"},
        {packed(kName, {{path, 7, 1}}), "unknown type code 7"},
        {packed(kName, {{"/" + kModule + ":other/vid", 20, 1}}),
         "\"/" + kModule + ":other/vid\" is not of " + kName},
        {packed("", {{path, 20, 1}}), "\"" + path + "\" is not of "},
        {packed("qv-loop-detect-server:loop-detect",
                {{"/qv-loop-detect-server:loop-detect/loop-policy", 20, 1}}),
         "qv-loop-detect-server:loop-detect is not a notification"},
        {packed("ietf-netconf:get-schema", {{"/ietf-netconf:get-schema/x", 20, 1}}),
         "/ietf-netconf:get-schema/x = \"1\": "},
        {packed(kName, {{path_of("swp1", "src-port"), 8, 4294967295}}),
         path_of("swp1", "src-port") + " = \"-1\": "},
        {packed(kName, {{path_of("swp1", "notify-type"), 20, 3}}),
         path_of("swp1", "notify-type") + " = \"3\": "},
        {packed(kName, {{path, 20, 1}, {path, 20, 2}}), path + " = \"2\": "},
    };
    for (const auto& [record, reason] : records) {
        reset_interception();
        publish(record);
        publish(loop_on("good"));
        EXPECT_EQ(next_port(subscription), "good");
        const auto lines = logged();
        ASSERT_EQ(lines.size(), 1U) << reason;
        EXPECT_EQ(lines[0].priority, LOG_WARNING);
        EXPECT_EQ(lines[0].text.substr(0, kDropped.size() + reason.size()), kDropped + reason);
    }
}

TEST_F(Notifications, ControlBytesOfARecordDoNotReachTheLog) {
    Subscription subscription = subscribe();
    publish(packed("x\n<3>lda-netconf: closed\r\x1b[2J\x7f", {{"/y\n", 20, 1}}));
    EXPECT_EQ(next(subscription), "none");
    EXPECT_EQ(logged_texts(), std::vector<std::string>{
                                  kDropped + "\"/y \" is not of x <3>lda-netconf: closed??[2J?"});
}

TEST_F(Notifications, FilterChooses) {
    Subscription subscription =
        subscribe(filter_of("<filter type=\"xpath\" xmlns:n=\"urn:qv:yang:" + kModule +
                            "\" select=\"//n:notify-entry[n:notify-type = 2]\"/>"));
    publish(loop_on("swp1", 1));
    publish(loop_on("swp2", 2));
    publish(loop_on("swp3", 1));
    EXPECT_EQ(next_port(subscription), "swp2");
    EXPECT_EQ(next_port(subscription), "none");
}

TEST_F(Notifications, AThousandWaitAndTheRestIsLeftWithTheDatabase) {
    Subscription subscription = subscribe();
    for (int n = 0; n < 1000; n++) {
        EXPECT_FALSE(subscription.full());
        publish(loop_on("port" + std::to_string(n)));
        subscription.receive();
    }
    EXPECT_TRUE(subscription.full());
    publish(loop_on("port1000"));
    publish(loop_on("port1001"));
    subscription.receive();
    EXPECT_EQ(next_port(subscription), "port0");
    EXPECT_FALSE(subscription.full());  // only a thousand were taken
    for (int n = 1; n < 1002; n++) {
        EXPECT_EQ(next_port(subscription), "port" + std::to_string(n));
    }
    EXPECT_EQ(next_port(subscription), "none");
}

TEST_F(Notifications, WithoutADatabaseThereIsNoSubscription) {
    peer_.reset();
    EXPECT_THROW(Subscription(context_.get(), {folder_.path("redis.sock")}, {}, {}), DatabaseLost);
}

TEST_F(Notifications, ReconnectsBecomeRarerWhileTheDatabaseStaysAway) {
    Subscription subscription = subscribe();
    peer_.reset();
    subscription.receive();
    EXPECT_EQ(subscription.fd(), -1);
    for (const int wait_ms : {100, 200, 400, 800, 1600, 3200, 5000, 5000}) {
        EXPECT_EQ(subscription.wait_ms(true), wait_ms);
        advance_clock(std::chrono::milliseconds(wait_ms - 1));
        subscription.receive();  // too early: nothing happens
        EXPECT_EQ(subscription.wait_ms(true), 1);
        advance_clock(1ms);
        EXPECT_EQ(subscription.wait_ms(true), 0);
        subscription.receive();
        EXPECT_EQ(subscription.fd(), -1);
    }
    EXPECT_EQ(logged(), (std::vector<LogLine>{
                            {LOG_WARNING,
                             "notifications pause, the object database is away: Server closed the "
                             "connection"}}));
}

TEST_F(Notifications, RetryIsNeverWokenForTooEarly) {
    Subscription subscription = subscribe();
    peer_.reset();
    subscription.receive();
    advance_clock(98'500us);
    EXPECT_EQ(subscription.wait_ms(true), 2);
    advance_clock(1ms);
    EXPECT_EQ(subscription.wait_ms(true), 1);
}

TEST_F(Notifications, RetryThatIsOverdueIsDueNow) {
    Subscription subscription = subscribe();
    peer_.reset();
    subscription.receive();
    advance_clock(1h);
    EXPECT_EQ(subscription.wait_ms(true), 0);
}

TEST_F(Notifications, NoReconnectBeforeItIsDue) {
    Subscription subscription = subscribe();
    peer_->hang_up();
    subscription.receive();
    advance_clock(99ms);
    subscription.receive();
    EXPECT_EQ(subscription.fd(), -1);
    EXPECT_EQ(peer_->connections(), 1);
    advance_clock(1ms);
    subscription.receive();
    EXPECT_GE(subscription.fd(), 0);
    EXPECT_EQ(peer_->connections(), 2);
}

TEST_F(Notifications, ContinueWhenTheDatabaseIsBack) {
    Subscription subscription = subscribe();
    publish(loop_on("before"));
    peer_.reset();
    subscription.receive();
    for (const auto wait : {100ms, 200ms}) {
        advance_clock(wait);
        subscription.receive();
    }
    peer_.emplace(folder_.path("redis.sock"));
    advance_clock(400ms);
    subscription.receive();
    EXPECT_EQ(subscription.wait_ms(true), -1);
    publish(loop_on("after"));
    EXPECT_EQ(next_port(subscription), "before");
    EXPECT_EQ(next_port(subscription), "after");
    const auto lines = logged();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[1], (LogLine{LOG_INFO, "notifications continue, the object database is back"}));
    // The next time the search begins with short steps again.
    peer_.reset();
    subscription.receive();
    EXPECT_EQ(subscription.wait_ms(true), 100);
}

TEST_F(Notifications, LossNoticedInNextIsNotAnEvent) {
    Subscription subscription = subscribe();
    peer_->hang_up();
    EXPECT_EQ(next(subscription), "none");
    EXPECT_EQ(subscription.fd(), -1);
    EXPECT_EQ(next(subscription), "none");
    EXPECT_EQ(logged().size(), 1U);
}

TEST_F(Notifications, NumberIsALeafOfItsOwn) {
    Subscription subscription = subscribe();
    publish(loop_on("swp1", 1, {.sequence = 18446744073709551615U}));
    EXPECT_NE(next(subscription).find("<sequence>18446744073709551615</sequence>"),
              std::string::npos);
}

TEST_F(Notifications, KeptOnesAreReplayedFromATimeOnBeforeLiveOnes) {
    keep(*peer_, "early", {.time_ms = 999, .sequence = 5});
    keep(*peer_, "first", {.time_ms = 1000, .sequence = 6});
    keep(*peer_, "second", {.time_ms = 1001, .sequence = 7});
    Subscription subscription = replay_from(1000);
    publish(loop_on("live", 1, {.time_ms = 1002, .sequence = 8}));
    EXPECT_EQ(subscription.wait_ms(true), -1);
    EXPECT_EQ(next_port(subscription), "first");
    EXPECT_EQ(next_port(subscription), "second");
    EXPECT_EQ(next(subscription), kComplete);
    EXPECT_EQ(next_port(subscription), "live");
    EXPECT_EQ(next_port(subscription), "none");
    EXPECT_FALSE(subscription.over());
}

TEST_F(Notifications, OrderOfAReplayIsThatOfTheNumbers) {
    for (const uint64_t sequence : {1001, 998, 1000, 999}) {
        keep(*peer_, "swp" + std::to_string(sequence), {.time_ms = 1000, .sequence = sequence});
    }
    Subscription subscription = replay_from(0);
    for (const char* const port : {"swp998", "swp999", "swp1000", "swp1001"}) {
        EXPECT_EQ(next_port(subscription), port);
    }
}

TEST_F(Notifications, NoticeOfAReplayedOneIsNotSentAgain) {
    keep(*peer_, "early", {.time_ms = 900, .sequence = 6});
    keep(*peer_, "replayed", {.time_ms = 1000, .sequence = 7});
    Subscription subscription = replay_from(1000);
    publish(loop_on("early", 1, {.time_ms = 900, .sequence = 6}));
    publish(loop_on("replayed", 1, {.time_ms = 1000, .sequence = 7}));
    publish(loop_on("live", 1, {.time_ms = 1000, .sequence = 8}));
    EXPECT_EQ(next_port(subscription), "replayed");
    EXPECT_EQ(next(subscription), kComplete);
    EXPECT_EQ(next_port(subscription), "live");
}

TEST_F(Notifications, ClockThatIsSetBackMakesNoDouble) {
    keep(*peer_, "first", {.time_ms = 2000, .sequence = 1});
    keep(*peer_, "second", {.time_ms = 1000, .sequence = 2});
    Subscription subscription = replay_from(0);
    publish(loop_on("first", 1, {.time_ms = 2000, .sequence = 1}));
    EXPECT_EQ(next_port(subscription), "first");
    EXPECT_EQ(next_port(subscription), "second");
    EXPECT_EQ(next(subscription), kComplete);
    EXPECT_EQ(next(subscription), "none");
}

TEST_F(Notifications, NumbersThatBeginAgainDoNotHoldBackLiveOnes) {
    keep(*peer_, "replayed", {.time_ms = 1000, .sequence = 700});
    Subscription subscription = replay_from(0);
    publish(loop_on("live", 1, {.time_ms = 1001, .sequence = 1}));
    EXPECT_EQ(next_port(subscription), "replayed");
    EXPECT_EQ(next(subscription), kComplete);
    EXPECT_EQ(next_port(subscription), "live");
}

TEST_F(Notifications, EmptyReplayIsCompleteAtOnce) {
    Subscription subscription = replay_from(0);
    EXPECT_EQ(next(subscription), kComplete);
    EXPECT_EQ(next(subscription), "none");
}

TEST_F(Notifications, KeptRecordThatDoesNotUnpackIsLeftOut) {
    keep(*peer_, "good", {.time_ms = 1000, .sequence = 3});
    peer_->store(3, "p_nc.kept_notification/slot=1", "garbage");
    peer_->store(3, "p_nc.kept_notification/slot=2", "");
    Subscription subscription = replay_from(0);
    EXPECT_EQ(next_port(subscription), "good");
    EXPECT_EQ(logged_texts(),
              std::vector<std::string>(2, "an invalid kept notification is left out"));
}

TEST_F(Notifications, FilterChoosesAmongKeptOnesAndKeepsNoMarkBack) {
    keep(*peer_, "swp1", {.time_ms = 1000, .sequence = 1});
    keep(*peer_, "swp2", {.time_ms = 1000, .sequence = 2});
    Subscription subscription =
        subscribe(filter_of("<filter type=\"xpath\" select=\"//*[. = 'swp2']\"/>"),
                  Replay{.from = at(0), .until = at(2000)});
    EXPECT_EQ(next_port(subscription), "swp2");
    EXPECT_EQ(next(subscription), kComplete);
    EXPECT_NE(next(subscription).find(" <notificationComplete "), std::string::npos);
}

TEST_F(Notifications, PastEndEndsTheSubscriptionAfterTheReplay) {
    keep(*peer_, "before", {.time_ms = 1000, .sequence = 1});
    keep(*peer_, "at the end", {.time_ms = 2000, .sequence = 2});
    keep(*peer_, "after", {.time_ms = 2001, .sequence = 3});
    Subscription subscription = replay_from(0, at(2000));
    EXPECT_EQ(subscription.wait_ms(true), 0);
    EXPECT_EQ(next_port(subscription), "before");
    EXPECT_EQ(next_port(subscription), "at the end");
    EXPECT_EQ(next(subscription), kComplete);
    EXPECT_FALSE(subscription.over());
    EXPECT_EQ(next(subscription),
              "2026-01-02T03:04:05.000Z <notificationComplete "
              "xmlns=\"urn:ietf:params:xml:ns:netmod:notification\"/>");
    EXPECT_TRUE(subscription.over());
}

TEST_F(Notifications, FutureEndIsWaitedFor) {
    Subscription subscription = replay_from(0, at(kNow_ms + 3000));
    EXPECT_EQ(next(subscription), kComplete);
    EXPECT_EQ(subscription.wait_ms(true), 3001);
    publish(loop_on("in time", 1, {.time_ms = kNow_ms + 3000, .sequence = 1}));
    publish(loop_on("late", 1, {.time_ms = kNow_ms + 3001, .sequence = 2}));
    EXPECT_EQ(next_port(subscription), "in time");
    EXPECT_EQ(next(subscription), "none");
    advance_clock(3000ms);
    EXPECT_EQ(next(subscription), "none");
    EXPECT_EQ(subscription.wait_ms(true), 1);
    advance_clock(1ms);
    EXPECT_EQ(subscription.wait_ms(true), 0);
    EXPECT_EQ(next(subscription).substr(0, 46), "2026-01-02T03:04:08.001Z <notificationComplete");
    EXPECT_TRUE(subscription.over());
}

TEST_F(Notifications, EndWaitsForAClientThatDoesNotRead) {
    Subscription subscription = replay_from(0, at(2000));
    EXPECT_EQ(subscription.wait_ms(false), -1);
    peer_.reset();
    subscription.receive();
    EXPECT_EQ(subscription.wait_ms(false), 100);
}

TEST_F(Notifications, EndFarAwayIsLookedForEveryMinute) {
    const Subscription subscription = replay_from(0, at(kNow_ms + 3'600'000));
    EXPECT_EQ(subscription.wait_ms(true), 60'000);
}

TEST_F(Notifications, EndComesWithoutADatabaseToo) {
    Subscription subscription = replay_from(0, at(kNow_ms + 50));
    EXPECT_EQ(next(subscription), kComplete);
    peer_.reset();
    subscription.receive();
    EXPECT_EQ(subscription.wait_ms(true), 51);
    advance_clock(51ms);
    EXPECT_NE(next(subscription).find(" <notificationComplete "), std::string::npos);
    EXPECT_TRUE(subscription.over());
}

TEST_F(Notifications, FilterThatTakesTooMuchIsNotAskedAgain) {
    Subscription subscription = subscribe(filter_of("<filter type=\"xpath\" select=\"//*\"/>"));
    publish(loop_on("swp1"));
    EXPECT_EQ(next_port(subscription), "swp1");
    publish(loop_on("swp2"));
    on_fork([] { return false; });
    try {
        next(subscription);
        FAIL() << "not refused";
    } catch (const netconf::RpcError& error) {
        EXPECT_EQ(error.tag, NC_ERR_RES_DENIED);
    }
}

}  // namespace
