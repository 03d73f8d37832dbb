// A session from its hello to its end: sockets replace standard input and output, and each time the
// session sleeps the client takes its next step.
#include "services/netconf/session.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/unit/netconf/database_peer.h"
#include "tests/unit/netconf/intercepted.h"
#include "tests/unit/netconf/notification_records.h"
#include "tests/unit/netconf/served_session.h"

using namespace netconf::test;
using namespace std::chrono_literals;
using netconf::Context;
using netconf::Options;
using netconf::SessionNumber;
using qv::File;

namespace {

using Lines = std::vector<LogLine>;

const std::string kGet = "<get-config><source><running/></source></get-config>";
const std::string kClose = "<close-session/>";
const std::string kSubscribe =
    "<create-subscription xmlns=\"urn:ietf:params:xml:ns:netconf:notification:1.0\"/>";
const std::string kReplayUntilSecond9 =
    "<create-subscription xmlns=\"urn:ietf:params:xml:ns:netconf:notification:1.0\"><startTime>"
    "1970-01-01T00:00:00Z</startTime><stopTime>1970-01-01T00:00:09Z</stopTime>"
    "</create-subscription>";
const LogLine kBegins{LOG_INFO, "begins"};
const LogLine kClosed{LOG_INFO, "closed"};
const LogLine kWentAway{LOG_INFO, "ended: the client went away"};

// The descriptors and the time that a sleeping session waits for.
struct Sleep {
    short input;
    short output;
    bool notices;
    int limit_ms;
    bool operator==(const Sleep&) const = default;
};
constexpr Sleep kIdle{POLLIN, 0, false, 1'800'000};
constexpr Sleep kListening{POLLIN, 0, true, -1};
constexpr Sleep kBlocked{0, POLLOUT, true, -1};

class SessionOfAClient : public testing::Test {
 protected:
    // Returns whether something arrives for the session; if not, its sleep times out.
    using Action = std::function<bool()>;

    void SetUp() override {
        reset_interception();
        connect(STDIN_FILENO, 0);
        connect(STDOUT_FILENO, 1);
        peer_ = std::make_unique<DatabasePeer>(folder_.path("redis.sock"));
        options_.redis.socket = peer_->socket();
        options_.runtime_dir = folder_.path("run");
        number_ = std::make_unique<SessionNumber>(options_.runtime_dir, getuid());
        on_poll([this](pollfd* watched, nfds_t count, int timeout_ms) {
            if (++looks_ > kMostLooks) {
                throw std::runtime_error("the session spins");
            }
            return count == 1 ? look_at_output(watched) : sleep(watched, timeout_ms);
        });
        // A session that writes while nobody reads would block.
        on_alarm([this] {
            pollfd output{.fd = servers_[1].fd(), .events = POLLOUT, .revents = 0};
            if (output_.open() && poll_for(&output, 1, 0s) == 0) {
                throw std::runtime_error("the session writes to a client that does not read");
            }
        });
    }

    void TearDown() override { nc_server_destroy(); }

    void send(const std::string& bytes) {
        ASSERT_EQ(::write(input_.fd(), bytes.data(), bytes.size()),
                  static_cast<ssize_t>(bytes.size()));
    }
    void then(Action action) { actions_.push_back(std::move(action)); }
    void then_send(const std::string& bytes) {
        then([this, bytes] {
            send(bytes);
            return true;
        });
    }
    void then_publish(const std::vector<std::string>& ports) {
        then([this, ports] {
            publish(ports);
            return true;
        });
    }
    void then_hang_up() {
        then([this] {
            input_ = File();
            return true;
        });
    }
    void then_read() {
        then([this] {
            read_output();
            return true;
        });
    }
    // A few at a time: the test would wait for the session while the session waits for the test.
    void then_leave_a_thousand_unread() {
        for (int n = 0; n < 10; n++) {
            then([this] {
                stuff_output();
                publish(std::vector<std::string>(100, "swp1"));
                return true;
            });
        }
    }
    void publish(const std::vector<std::string>& ports) {
        for (const std::string& port : ports) {
            peer_->publish("mom/3/p_nc.notification", '\2' + loop_on(port));
        }
    }

    // Runs the session to its end. Its exit status; -1 when it threw, see thrown_.
    int run() {
        fflush(stdout);
        const File usual_input(dup(STDIN_FILENO));
        const File usual_output(dup(STDOUT_FILENO));
        dup2(servers_[0].fd(), STDIN_FILENO);
        dup2(servers_[1].fd(), STDOUT_FILENO);
        int status = -1;
        try {
            status = run_session(options_, context_.get(), *number_, "admin");
        } catch (const std::runtime_error& error) {
            thrown_ = error.what();
        }
        dup2(usual_output.fd(), STDOUT_FILENO);
        dup2(usual_input.fd(), STDIN_FILENO);
        servers_ = {};
        input_ = File();
        read_output();
        return status;
    }

    // Reads what the session has written so far.
    void read_output() {
        std::array<char, 65536> bytes;
        ssize_t length = 0;
        while (output_.open() &&
               (length = recv(output_.fd(), bytes.data(), bytes.size(), MSG_DONTWAIT)) > 0) {
            written_.append(bytes.data(), static_cast<size_t>(length));
        }
    }

    // The names of the ports in the notifications that were written.
    std::vector<std::string> notified_ports() const {
        std::vector<std::string> ports;
        for (size_t at = 0; (at = written_.find("<name>", at)) != std::string::npos; at += 6) {
            ports.push_back(written_.substr(at + 6, written_.find('<', at + 6) - at - 6));
        }
        return ports;
    }
    size_t replies() const {
        size_t count = 0;
        for (size_t at = 0; (at = written_.find("<rpc-reply", at)) != std::string::npos; at++) {
            count++;
        }
        return count;
    }

    // Fills the connection to the client completely.
    void stuff_output() {
        const std::string junk(1024, ' ');
        while (::send(servers_[1].fd(), junk.data(), junk.size(), MSG_DONTWAIT) > 0) {
        }
    }

    Folder folder_;
    std::unique_ptr<DatabasePeer> peer_;
    const Context context_ = netconf::load_modules(YANG_DIR);
    Options options_;
    std::unique_ptr<SessionNumber> number_;
    File input_;  // the client's ends
    File output_;
    std::vector<Sleep> sleeps_;
    std::string written_;
    std::string thrown_;
    bool output_breaks_ = false;

 private:
    void connect(int fd, size_t index) {
        std::array<int, 2> ends{};
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
        (fd == STDIN_FILENO ? input_ : output_) = File(ends[0]);
        servers_[index] = File(ends[1]);
    }

    // The client may leave unnoticed, right after this check.
    int look_at_output(pollfd* watched) {
        const int ready = poll_for(watched, 1, 0s);
        if (output_breaks_) {
            output_ = File();
        }
        return ready;
    }

    static int poll_for(pollfd* watched, nfds_t count, std::chrono::seconds limit) {
        const timespec time{.tv_sec = limit.count(), .tv_nsec = 0};
        return ppoll(watched, count, &time, nullptr);
    }

    int sleep(pollfd* watched, int limit_ms) {
        const int ready = poll_for(watched, 3, 0s);
        if (ready != 0) {
            return ready;
        }
        sleeps_.push_back({.input = watched[0].events,
                           .output = watched[1].events,
                           .notices = watched[2].fd >= 0,
                           .limit_ms = limit_ms});
        if (actions_.empty()) {
            if (poll_for(watched, 3, 10s) > 0) {  // sent, but not arrived yet
                return 1;
            }
            throw std::runtime_error("the session sleeps for ever");
        }
        const Action action = std::move(actions_.front());
        actions_.pop_front();
        return action() ? poll_for(watched, 3, 10s) : 0;
    }

    static constexpr int kMostLooks = 20'000;  // far more than any test needs

    std::array<File, 2> servers_;  // the session's ends
    int looks_ = 0;                // calls of poll(2) by the session
    std::deque<Action> actions_;
};

TEST_F(SessionOfAClient, SaysHelloWithItsNumberAndServesUntilItIsClosed) {
    send(hello());
    then_send(request(kGet, "one"));
    then_send(request(kClose, "two"));
    EXPECT_EQ(run(), 0);
    EXPECT_NE(written_.find("<session-id>" + std::to_string(number_->id()) + "</session-id>"),
              std::string::npos)
        << written_;
    EXPECT_EQ(replies(), 2U);
    const size_t first = written_.find("message-id=\"one\"");
    ASSERT_NE(first, std::string::npos);
    EXPECT_NE(written_.find("message-id=\"two\"", first), std::string::npos);
    EXPECT_EQ(logged(), (Lines{kBegins, kClosed}));
    EXPECT_EQ(sleeps_, (std::vector<Sleep>{kIdle, kIdle}));
}

TEST_F(SessionOfAClient, LockIsHeldUnderItsNumber) {
    send(hello());
    then_send(request("<lock><target><running/></target></lock>"));
    then_send(request("<lock><target><running/></target></lock>"));
    then_send(request(kClose));
    EXPECT_EQ(run(), 0);
    EXPECT_NE(written_.find("<session-id>" + std::to_string(number_->id()) +
                            "</session-id></error-info>"),
              std::string::npos)
        << written_;
}

TEST_F(SessionOfAClient, EndsWhenTheClientDisconnects) {
    send(hello());
    then_send(request(kGet));
    then_hang_up();
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(replies(), 1U);
    const Lines lines = logged();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0], kBegins);
    EXPECT_EQ(lines[1].priority, LOG_INFO);  // the library's own text
    EXPECT_TRUE(lines[1].text.ends_with(" unexpectedly closed.")) << lines[1].text;
    EXPECT_EQ(lines[2], kWentAway);
}

TEST_F(SessionOfAClient, EndsWhenNobodyReadsItsAnswers) {
    send(hello());
    then_send(request(kGet));
    then([this] {
        output_ = File();
        return true;
    });
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(logged(), (Lines{kBegins, kWentAway}));
}

TEST_F(SessionOfAClient, RequestsBeforeTheHangUpAreServed) {
    send(hello() + request(kGet) + request(kGet));
    input_ = File();
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(replies(), 2U);
}

TEST_F(SessionOfAClient, RequestThatIsRefusedDoesNotEndIt) {
    send(hello());
    then_send(request("<lock><target/></lock>"));
    then_send(request(kGet));
    then_send(request(kClose));
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(replies(), 3U);
    EXPECT_NE(written_.find("<error-tag>bad-element</error-tag>"), std::string::npos);
}

TEST_F(SessionOfAClient, RequestThatCannotBeParsedIsAnsweredInItsPlace) {
    send(hello() + request(kGet, "1") + request("<no-such/>", "2") + request(kGet, "3") +
         request(kClose, "4"));
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(replies(), 4U);
    const size_t refused = written_.find("<error-tag>operation-not-supported</error-tag>");
    ASSERT_NE(refused, std::string::npos);
    EXPECT_LT(written_.find("message-id=\"1\""), written_.find("message-id=\"2\""));
    EXPECT_LT(written_.find("message-id=\"2\""), refused);
    EXPECT_LT(refused, written_.find("message-id=\"3\""));
}

TEST_F(SessionOfAClient, RequestThatIsTooLongIsAnsweredBeforeTheEnd) {
    send(hello("urn:ietf:params:netconf:base:1.1") + "\n#99999\n<rpc message-id=\"5\">");
    EXPECT_EQ(run(), 1);
    EXPECT_NE(written_.find("message-id=\"5\"><rpc-error>"), std::string::npos) << written_;
    EXPECT_NE(written_.find("<error-tag>too-big</error-tag>"), std::string::npos);
    EXPECT_EQ(logged().back(), (LogLine{LOG_WARNING, "ended: a message is longer than 64 KiB"}));
}

TEST_F(SessionOfAClient, EndWithinAMessageIsTheClientsFault) {
    send(hello());
    then_send(request(kGet));
    then([this] {
        send("<rpc");
        input_ = File();
        return true;
    });
    EXPECT_EQ(run(), 1);
    ASSERT_FALSE(logged().empty());
    EXPECT_EQ(logged().back(), (LogLine{LOG_WARNING, "ended: the input ends within a message"}));
}

TEST_F(SessionOfAClient, BrokenFrameEndsIt) {
    send(hello("urn:ietf:params:netconf:base:1.1"));
    then_send("\n#x\n");
    EXPECT_EQ(run(), 1);
    ASSERT_FALSE(logged().empty());
    EXPECT_EQ(
        logged().back(),
        (LogLine{LOG_WARNING, "ended: the framing is broken: no chunk begins where one should"}));
}

TEST_F(SessionOfAClient, InvalidXmlIsAnsweredWithAnError) {
    send(hello("urn:ietf:params:netconf:base:1.1"));
    then_send("\n#10\nno request\n##\n");
    const std::string close = request(kClose);
    const std::string text = close.substr(0, close.size() - 6);
    then_send("\n#" + std::to_string(text.size()) + "\n" + text + "\n##\n");
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(replies(), 2U);
    EXPECT_NE(written_.find("<error-tag>malformed-message</error-tag>"), std::string::npos);
    EXPECT_EQ(logged(), (Lines{kBegins, kClosed}));
}

TEST_F(SessionOfAClient, ReasonWhyItNeverBeganIsLogged) {
    send(hello("urn:ietf:params:netconf:base:2.0"));
    EXPECT_EQ(run(), 1);
    ASSERT_FALSE(logged().empty());
    EXPECT_EQ(logged().back(), (LogLine{LOG_WARNING, "ended: the client's hello is invalid"}));
}

TEST_F(SessionOfAClient, ClientWithoutAHelloHasGone) {
    input_ = File();
    EXPECT_EQ(run(), 1);
    ASSERT_FALSE(logged().empty());
    EXPECT_EQ(logged().back(),
              (LogLine{LOG_WARNING, "ended: the client went before its hello was complete"}));
}

TEST_F(SessionOfAClient, HelloThatBreaksOffIsNamed) {
    send("<hello");
    input_ = File();
    EXPECT_EQ(run(), 1);
    ASSERT_FALSE(logged().empty());
    EXPECT_EQ(logged().back(), (LogLine{LOG_WARNING, "ended: the input ends within a message"}));
}

TEST_F(SessionOfAClient, ClientHasHalfAMinuteForItsHello) {
    std::vector<std::string> users;
    on_accept([&](const std::string& user) -> std::optional<NC_MSG_TYPE> {
        if (user == "nobody") {
            return std::nullopt;
        }
        users.push_back(user);
        return NC_MSG_WOULDBLOCK;
    });
    input_ = File();
    EXPECT_EQ(run(), 1);
    EXPECT_EQ(users, std::vector<std::string>{"admin"});
    EXPECT_EQ(hello_limit_s(), 30);
    EXPECT_EQ(alarms(), (std::vector<unsigned>{60, 0}));
    EXPECT_EQ(logged(), (Lines{{LOG_WARNING, "ended: the client sent no hello in time"}}));
}

TEST_F(SessionOfAClient, EachAnswerHasHalfAMinute) {
    send(hello());
    then_send(request(kGet));
    then_send(request(kClose));
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(alarms(), (std::vector<unsigned>{60, 0, 30, 0, 30, 0}));
}

TEST_F(SessionOfAClient, WithoutASubscriptionItEndsAfterHalfAnHour) {
    send(hello());
    then_send(request(kGet));
    then([] { return false; });
    EXPECT_EQ(run(), 1);
    EXPECT_EQ(sleeps_, (std::vector<Sleep>{kIdle, kIdle}));
    EXPECT_EQ(logged(), (Lines{kBegins, {LOG_WARNING, "ended: no request for 30 minutes"}}));
}

TEST_F(SessionOfAClient, NumberIsThatOfTheOtherSessionsFile) {
    send(hello());
    on_accept([](const std::string& user) -> std::optional<NC_MSG_TYPE> {
        if (user == "admin") {  // another session has come in between
            const File nobody(open("/dev/null", O_RDWR | O_CLOEXEC));
            nc_session* refused = nullptr;
            nc_accept_inout(nobody.fd(), nobody.fd(), "nobody", &refused);
            nc_session_free(refused, nullptr);
        }
        return std::nullopt;
    });
    input_ = File();
    EXPECT_EQ(run(), -1);
    EXPECT_EQ(thrown_, "libnetconf2 numbers sessions differently");
}

TEST_F(SessionOfAClient, NeverBeginsWithoutTheLibrary) {
    fail_server_start();
    EXPECT_EQ(run(), -1);
    EXPECT_EQ(thrown_, "libnetconf2 does not start");
}

TEST_F(SessionOfAClient, NeverBeginsWithAnUnknownWriteGroup) {
    options_.write_group = "no-such-group";
    send(hello());
    EXPECT_EQ(run(), -1);
    EXPECT_EQ(thrown_, "[netconf] write_group: there is no group \"no-such-group\"");
}

TEST_F(SessionOfAClient, NotificationsAreSentBetweenRequests) {
    send(hello());
    then_send(request(kSubscribe));
    then_publish({"swp1", "swp2", "swp3"});
    then_send(request(kGet));
    then_publish({"swp4"});
    then_send(request(kClose));
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(notified_ports(), (std::vector<std::string>{"swp1", "swp2", "swp3", "swp4"}));
    EXPECT_NE(written_.find("<eventTime>2026-01-02T03:04:05.678Z</eventTime>"), std::string::npos);
    EXPECT_EQ(replies(), 3U);
    EXPECT_EQ(sleeps_, (std::vector<Sleep>{kIdle, kListening, kListening, kListening, kListening}));
    // The hello, three requests and four notifications.
    EXPECT_EQ(alarms(),
              (std::vector<unsigned>{60, 0, 30, 0, 30, 0, 30, 0, 30, 0, 30, 0, 30, 0, 30, 0}));
}

TEST_F(SessionOfAClient, ClientMayDisconnectAmongItsNotifications) {
    send(hello());
    then_send(request(kSubscribe));
    then([this] {
        publish({"swp1", "swp2", "swp3"});
        output_breaks_ = true;
        return true;
    });
    EXPECT_EQ(run(), 0);
    ASSERT_FALSE(logged().empty());
    EXPECT_EQ(logged().back(), kWentAway);
}

TEST_F(SessionOfAClient, NotificationThatCannotBeSentEndsIt) {
    send(hello());
    then_send(request(kSubscribe));
    then([this] {
        fail_notifications();
        publish({"swp1", "swp2"});
        return true;
    });
    EXPECT_EQ(run(), 1);
    EXPECT_EQ(alarms(), (std::vector<unsigned>{60, 0, 30, 0, 30, 0}));  // the second is not tried
    EXPECT_EQ(logged(), (Lines{kBegins, {LOG_WARNING, "ended: the client's input is invalid"}}));
}

TEST_F(SessionOfAClient, ClientThatDoesNotReadIsWaitedForWithItsRequests) {
    send(hello());
    then_send(request(kSubscribe));
    then([this] {
        stuff_output();
        publish({"swp1", "swp2"});
        return true;
    });
    then_read();
    then_send(request(kGet));
    then_send(request(kClose));
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(notified_ports(), (std::vector<std::string>{"swp1", "swp2"}));
    EXPECT_EQ(replies(), 3U);
    EXPECT_EQ(sleeps_, (std::vector<Sleep>{kIdle, kListening, kBlocked, kListening, kListening}));
}

TEST_F(SessionOfAClient, ClientThatLeavesAThousandUnreadHasFiveSeconds) {
    send(hello());
    then_send(request(kSubscribe));
    then_leave_a_thousand_unread();
    then([] { return false; });
    EXPECT_EQ(run(), 1);
    ASSERT_EQ(sleeps_.size(), 12U);
    EXPECT_EQ(sleeps_[10], kBlocked);
    EXPECT_EQ(sleeps_[11], (Sleep{0, POLLOUT, false, 5000}));
    EXPECT_EQ(
        logged(),
        (Lines{kBegins, {LOG_WARNING, "ended: the client leaves 1000 notifications unread"}}));
}

TEST_F(SessionOfAClient, ClientThatReadsInTimeMissesNothing) {
    send(hello());
    then_send(request(kSubscribe));
    then_leave_a_thousand_unread();
    then([this] {
        publish({"last"});
        read_output();
        return true;
    });
    for (int n = 0; n < 100; n++) {
        then([this] {
            read_output();
            return notified_ports().size() < 1001;
        });
    }
    then_send(request(kClose));
    EXPECT_EQ(run(), 0);
    ASSERT_EQ(notified_ports().size(), 1001U);
    EXPECT_EQ(notified_ports().back(), "last");
}

TEST_F(SessionOfAClient, FilterOfNotificationsThatTakesTooMuchEndsIt) {
    send(hello());
    then_send(
        request("<create-subscription "
                "xmlns=\"urn:ietf:params:xml:ns:netconf:notification:1.0\"><filter "
                "xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\" nc:type=\"xpath\" "
                "nc:select=\"//*\"/></create-subscription>"));
    then_publish({"swp1"});
    then([this] {
        on_fork([] { return false; });
        publish({"swp2"});
        return true;
    });
    EXPECT_EQ(run(), 1);
    EXPECT_EQ(notified_ports(), std::vector<std::string>{"swp1"});
    EXPECT_EQ(logged(),
              (Lines{kBegins, {LOG_WARNING, "ended: the filter takes too much time or memory"}}));
}

TEST_F(SessionOfAClient, RestartedDatabaseIsSubscribedToAgain) {
    freeze_clock();
    send(hello());
    then_send(request(kSubscribe));
    then([this] {
        peer_->hang_up();
        return true;
    });
    then([] {
        advance_clock(100ms);
        return false;
    });
    then_publish({"swp1"});
    then_send(request(kClose));
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(notified_ports(), std::vector<std::string>{"swp1"});
    EXPECT_EQ(sleeps_, (std::vector<Sleep>{
                           kIdle, kListening, {POLLIN, 0, false, 100}, kListening, kListening}));
}

TEST_F(SessionOfAClient, EndOfASubscriptionWaitsForAClientThatDoesNotRead) {
    freeze_clock();
    set_time_of_day(8);  // a second before the end
    keep_log(*peer_, 1000);
    send(hello());
    then_send(request(kReplayUntilSecond9));
    then([this] {
        stuff_output();
        advance_clock(2s);
        return false;
    });
    then_read();
    then_send(request(kClose));
    EXPECT_EQ(run(), 0);
    EXPECT_NE(written_.find("<notificationComplete"), std::string::npos);
    EXPECT_EQ(sleeps_, (std::vector<Sleep>{kIdle, {POLLIN, 0, true, 1001}, kBlocked, kIdle}));
}

TEST_F(SessionOfAClient, SubscriptionThatIsOverMakesRoomForAnother) {
    keep_log(*peer_, 1000);
    keep(*peer_, "swp1", {.time_ms = 1000, .sequence = 1});
    send(hello());
    then_send(request(kReplayUntilSecond9));
    then_send(request(kGet));
    then_send(request(kSubscribe));
    then_publish({"swp2"});
    then_send(request(kClose));
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(notified_ports(), (std::vector<std::string>{"swp1", "swp2"}));
    EXPECT_EQ(replies(), 4U);
    EXPECT_EQ(sleeps_, (std::vector<Sleep>{kIdle, kIdle, kIdle, kListening, kListening}));
    EXPECT_LT(written_.find("<replayComplete"), written_.find("<notificationComplete"));
    EXPECT_NE(written_.find("<notificationComplete"), std::string::npos);
}

}  // namespace
