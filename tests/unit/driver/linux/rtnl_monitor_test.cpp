// The reader of rtnetlink with a scripted kernel and scripted neighbours.
#include "platform/driver/linux/rtnl_monitor.h"

#include <cstring>
#include <functional>
#include <optional>

#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <sched.h>
#include <sys/socket.h>

#include "tests/support/test_platform.h"
#include "tests/support/watch_refusal.h"
#include "tests/unit/driver/linux/rtnl_script.h"

namespace qv {
namespace {

using namespace std::chrono_literals;
using test::g_rtnl;
using test::send_rtnl;
using test::send_rtnl_done;
using Lines = std::vector<std::string>;

constexpr uint16_t kMessage = RTM_NEWLINK;

class Listener final : public RtnlMonitor::Listener {
 public:
    void on_dump_begin() override { heard.emplace_back("begin"); }
    bool on_dump_end() override {
        heard.emplace_back("end");
        return lists_refused-- <= 0;
    }
    void on_message(nlmsghdr* header) override {
        const char* const payload = reinterpret_cast<const char*>(header) + sizeof(nlmsghdr);
        heard.emplace_back(payload, header->nlmsg_len - sizeof(nlmsghdr));
        if (on_each) {
            on_each();
        }
    }
    Lines take() { return std::exchange(heard, {}); }

    Lines heard;
    int lists_refused = 0;
    std::function<void()> on_each;  // runs after each message
};

struct RtnlMonitorTest : testing::Test {
    void SetUp() override {
        if (unshare(CLONE_NEWNET) != 0) {
            GTEST_SKIP() << "no network namespace of our own: " << std::strerror(errno);
        }
        g_rtnl = {.silent = true, .trusted = true};
        monitor.emplace(loop, RtnlMonitor::Subject{.name = "links",
                                                   .group = RTNLGRP_LINK,
                                                   .list_request = RTM_GETLINK,
                                                   .family = AF_UNSPEC,
                                                   .request_bytes = sizeof(ifinfomsg),
                                                   .receive_buffer = 1 << 20});
    }

    // The calls to the listener so far.
    Lines heard() {
        test::run_ready(loop, platform.manual_clock);
        return listener.take();
    }
    void pass(Duration time) { test::run_for(loop, platform.manual_clock, time); }

    Lines log() { return platform.log.lines(); }

    test::TestPlatform platform;
    EventLoop loop{platform.manual_clock};
    Listener listener;
    std::optional<RtnlMonitor> monitor;
};

TEST_F(RtnlMonitorTest, ListIsDeliveredBeforeChanges) {
    monitor->start(listener);
    EXPECT_EQ(heard(), Lines{"begin"});
    send_rtnl(kMessage, "one", NLM_F_MULTI);
    send_rtnl_done();
    send_rtnl(kMessage, "two!");
    EXPECT_EQ(heard(), (Lines{"one", "end", "two!"}));
    EXPECT_EQ(g_rtnl.requests, 1u);
    EXPECT_EQ(monitor->resyncs(), 0u);
    EXPECT_EQ(log(), Lines{});
}

TEST_F(RtnlMonitorTest, MessagesOfOtherProcessesAreNotBelieved) {
    monitor->start(listener);
    EXPECT_EQ(heard(), Lines{"begin"});
    g_rtnl.trusted = false;
    send_rtnl(kMessage, "lie!");
    send_rtnl_done();
    send_rtnl(NLMSG_ERROR, "lie!");
    EXPECT_EQ(heard(), Lines{});
    g_rtnl.trusted = true;
    send_rtnl(kMessage, "true");
    EXPECT_EQ(heard(), Lines{"true"});
    EXPECT_EQ(monitor->resyncs(), 0u);
}

TEST_F(RtnlMonitorTest, InterruptedListIsRequestedAgain) {
    monitor->start(listener);
    heard();
    send_rtnl(kMessage, "one", NLM_F_MULTI | NLM_F_DUMP_INTR);
    send_rtnl(kMessage, "two", NLM_F_MULTI);
    send_rtnl_done();
    EXPECT_EQ(heard(), (Lines{"one", "two", "begin"}));
    EXPECT_EQ(g_rtnl.requests, 2u);
    // Only that list has the mark.
    send_rtnl_done();
    EXPECT_EQ(heard(), Lines{"end"});
    EXPECT_EQ(g_rtnl.requests, 2u);
    EXPECT_EQ(g_rtnl.sockets, 1u) << "no message of the group was lost";
}

TEST_F(RtnlMonitorTest, ListThatTheListenerRejectsIsRequestedAgain) {
    listener.lists_refused = 1;
    monitor->start(listener);
    heard();
    send_rtnl_done();
    EXPECT_EQ(heard(), (Lines{"end", "begin"}));
    send_rtnl_done();
    EXPECT_EQ(heard(), Lines{"end"});
    EXPECT_EQ(g_rtnl.requests, 2u);
    EXPECT_EQ(g_rtnl.sockets, 1u);
}

TEST_F(RtnlMonitorTest, ListThatBrokeOffIsReadAgainOnAFreshSocket) {
    monitor->start(listener);
    heard();
    send_rtnl(kMessage, "one", NLM_F_MULTI);
    send_rtnl_done(ENOBUFS);
    EXPECT_EQ(heard(), (Lines{"one", "begin"}));
    EXPECT_EQ(g_rtnl.sockets, 2u);
    EXPECT_EQ(monitor->resyncs(), 1u);
    EXPECT_EQ(log(), Lines{"PORT-4-RESYNC: Reading all links again: No buffer space available"});
    send_rtnl_done();
    EXPECT_EQ(heard(), Lines{"end"});
}

TEST_F(RtnlMonitorTest, EndWithoutAnErrorNumberIsAnEnd) {
    monitor->start(listener);
    heard();
    send_rtnl(NLMSG_DONE, "");
    EXPECT_EQ(heard(), Lines{"end"});
}

TEST_F(RtnlMonitorTest, RefusedListIsRequestedAgain) {
    monitor->start(listener);
    heard();
    send_rtnl(NLMSG_ERROR, std::string(20, '\0'));
    send_rtnl(kMessage, "lost");
    EXPECT_EQ(heard(), Lines{"begin"}) << "on a fresh socket, without what came after";
    EXPECT_EQ(log(),
              Lines{"PORT-4-RESYNC: Reading all links again: the kernel refused to list them"});
}

TEST_F(RtnlMonitorTest, RequestThatCannotBeSentIsSentAgain) {
    g_rtnl.refused_requests = 1;
    monitor->start(listener);
    EXPECT_EQ(heard(), (Lines{"begin", "begin"}));
    EXPECT_EQ(g_rtnl.requests, 2u);
    EXPECT_EQ(log(), Lines{"PORT-4-RESYNC: Reading all links again: Object busy"});
}

TEST_F(RtnlMonitorTest, FullReadingsKeepAPause) {
    monitor->start(listener);
    heard();
    send_rtnl_done(ENOBUFS);
    EXPECT_EQ(heard(), Lines{"begin"}) << "the first at once";
    send_rtnl_done(ENOBUFS);
    EXPECT_EQ(heard(), Lines{});
    pass(99ms);
    EXPECT_EQ(heard(), Lines{});
    pass(1ms);
    EXPECT_EQ(heard(), Lines{"begin"});
    EXPECT_EQ(monitor->resyncs(), 2u);
    pass(1s);
    send_rtnl_done(ENOBUFS);
    EXPECT_EQ(heard(), Lines{"begin"}) << "the pause is over";
    EXPECT_EQ(log().size(), 1u) << "said once";
}

TEST_F(RtnlMonitorTest, SocketThatCannotBeOpenedIsTriedEverySecond) {
    monitor->start(listener);
    send_rtnl_done();
    EXPECT_EQ(heard(), (Lines{"begin", "end"}));
    g_rtnl.no_socket = true;
    send_rtnl(NLMSG_ERROR, "");
    EXPECT_EQ(heard(), Lines{});
    pass(10s);
    EXPECT_EQ(heard(), Lines{});
    EXPECT_EQ(log(),
              (Lines{"PORT-4-RESYNC: Reading all links again: the kernel refused to list them",
                     "PORT-4-RESYNC: Reading all links again: rtnetlink: connect: Out of "
                     "memory"}));
    g_rtnl.no_socket = false;
    pass(999ms);
    EXPECT_EQ(heard(), Lines{});
    pass(1ms);
    EXPECT_EQ(heard(), Lines{"begin"});
    send_rtnl(kMessage, "more");
    EXPECT_EQ(heard(), Lines{"more"});
    EXPECT_EQ(monitor->resyncs(), 1u);
}

TEST_F(RtnlMonitorTest, SocketThatCannotBeWatchedIsOpenedAgainASecondLater) {
    test::g_no_watch = true;
    monitor->start(listener);
    EXPECT_EQ(heard(), Lines{}) << "nothing was asked that nobody would read";
    pass(5s);
    EXPECT_EQ(heard(), Lines{});
    EXPECT_EQ(g_rtnl.requests, 0u);
    EXPECT_EQ(log(), Lines{"PORT-4-RESYNC: Reading all links again: the socket cannot be watched"});
    test::g_no_watch = false;
    pass(1s);
    EXPECT_EQ(heard(), Lines{"begin"});
    send_rtnl(kMessage, "more");
    EXPECT_EQ(heard(), Lines{"more"});
}

TEST_F(RtnlMonitorTest, SameTroubleIsSaidAgainAfterACompleteList) {
    monitor->start(listener);
    heard();
    send_rtnl(NLMSG_ERROR, "");
    heard();
    send_rtnl_done();
    pass(1s);
    send_rtnl(NLMSG_ERROR, "");
    heard();
    EXPECT_EQ(log().size(), 2u);
}

TEST_F(RtnlMonitorTest, OtherWorkHasItsTurnAmongManyMessages) {
    monitor->start(listener);
    heard();
    for (int n = 0; n < 600; ++n) {
        send_rtnl(kMessage, "more");
    }
    size_t before_it = 0;
    const auto timer = loop.after(Duration::zero(), [&] { before_it = listener.heard.size(); });
    while (timer && loop.fetch()) {
        loop.run();
    }
    EXPECT_LE(before_it, 256u);
    EXPECT_EQ(heard().size(), 600u);
}

// A message may be a long list.
TEST_F(RtnlMonitorTest, OtherWorkHasItsTurnAfterFiveMilliseconds) {
    monitor->start(listener);
    heard();
    for (int n = 0; n < 20; ++n) {
        send_rtnl(kMessage, "long");
    }
    listener.on_each = [&] {
        platform.manual_clock.advance(1ms);
    };
    size_t before_it = 0;
    const auto timer = loop.after(Duration::zero(), [&] { before_it = listener.heard.size(); });
    while (timer && loop.fetch()) {
        loop.run();
    }
    EXPECT_LE(before_it, 5u);
    EXPECT_EQ(heard().size(), 20u);
}

TEST_F(RtnlMonitorTest, NothingIsReportedOnceItIsDestroyed) {
    monitor->start(listener);
    heard();
    send_rtnl(NLMSG_ERROR, "");
    monitor.reset();
    pass(5s);
    EXPECT_EQ(heard(), Lines{});
    EXPECT_FALSE(loop.next_timer().has_value());
}

}  // namespace
}  // namespace qv
