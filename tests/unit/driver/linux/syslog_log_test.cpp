// The datagrams of the system log, read from a socket in place of its daemon.
#include <chrono>
#include <future>
#include <regex>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/driver/linux/syslog_log.h"
#include "tests/support/manual_clock.h"
#include "tests/support/temporary_directory.h"

namespace qv {
namespace {

using std::chrono::seconds;
using Lines = std::vector<std::string>;

// Reads only when the test calls it.
class Daemon {
 public:
    explicit Daemon(std::string path) : path_(std::move(path)) { start(); }
    ~Daemon() { stop(); }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    void start() {
        fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path_.copy(address.sun_path, sizeof address.sun_path - 1);
        ASSERT_EQ(bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    void stop() {
        close(std::exchange(fd_, -1));
        unlink(path_.c_str());
    }
    // One datagram; empty when there is none.
    std::string read() const {
        char datagram[4096];
        const ssize_t size = recv(fd_, datagram, sizeof datagram, 0);
        return size > 0 ? std::string(datagram, static_cast<size_t>(size)) : "";
    }
    // The texts of all waiting datagrams.
    Lines read_all() const {
        Lines texts;
        for (std::string datagram; !(datagram = read()).empty();) {
            texts.push_back(datagram.substr(datagram.find("]: ") + 3));
        }
        return texts;
    }

 private:
    const std::string path_;
    int fd_ = -1;
};

struct SyslogSocketTest : testing::Test {
    void write(const std::string& text) {
        log.write({.severity = 6, .facility = "LDA", .mnemonic = "INFO", .text = text});
    }
    void write_numbered(int count) {
        for (int i = 0; i < count; ++i) {
            write(std::to_string(i));
        }
    }
    void pass(Duration time) { test::run_for(loop, clock, time); }

    test::TemporaryDirectory directory;
    test::ManualClock clock;
    EventLoop loop{clock};
    Daemon daemon{directory.file("log")};
    SyslogLog log{directory.file("log")};
};

TEST_F(SyslogSocketTest, DatagramHasPriorityTimeNameProcessAndRenderedText) {
    log.write({.severity = 4, .facility = "LDA", .mnemonic = "RECOVER", .text = "100%s of it\r\n"});
    const std::string datagram = daemon.read();
    // Facility daemon is 3: the priority is 3 * 8 + severity.
    const std::regex expected(
        R"(<28>(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 123][0-9] )"
        R"([0-9]{2}:[0-9]{2}:[0-9]{2} lda\[)" +
        std::to_string(getpid()) + R"(\]: %LDA-4-RECOVER: 100%s of it)");
    EXPECT_TRUE(std::regex_match(datagram, expected)) << datagram;
}

TEST_F(SyslogSocketTest, TimeIsTheLocalOne) {
    setenv("TZ", "UTC+5", 1);
    tzset();
    const std::time_t before = std::time(nullptr);
    write("x");
    const std::string datagram = daemon.read();
    std::tm local{};
    char hour[16];
    const std::time_t there = before - 5 * 3600;
    std::strftime(hour, sizeof hour, "%b %e %H:", gmtime_r(&there, &local));
    const std::time_t later = there + 60;
    char next_hour[16];
    std::strftime(next_hour, sizeof next_hour, "%b %e %H:", gmtime_r(&later, &local));
    EXPECT_TRUE(datagram.substr(4, 10) == hour || datagram.substr(4, 10) == next_hour) << datagram;
}

TEST_F(SyslogSocketTest, SeverityOutOfRangeDoesNotReachTheFacility) {
    log.write({.severity = 999, .facility = "LDA", .mnemonic = "A", .text = "x"});
    EXPECT_EQ(daemon.read().substr(0, 4), "<31>");
    log.write({.severity = -1, .facility = "LDA", .mnemonic = "A", .text = "x"});
    EXPECT_EQ(daemon.read().substr(0, 4), "<24>");
}

TEST_F(SyslogSocketTest, DaemonThatDoesNotReadDoesNotStopTheWriter) {
    auto written = std::async(std::launch::async, [this] { write_numbered(3000); });
    if (written.wait_for(seconds(60)) != std::future_status::ready) {
        ADD_FAILURE() << "still waiting for the daemon";
        std::_Exit(1);  // the writer cannot be stopped
    }
}

TEST_F(SyslogSocketTest, MessagesWaitInOrderAndThoseThatFindNoRoomAreCounted) {
    log.attach(loop);
    write_numbered(3000);
    Lines texts = daemon.read_all();
    const size_t in_the_socket = texts.size();
    ASSERT_GT(in_the_socket, 0u);
    ASSERT_LT(in_the_socket, 2000u) << "the kernel keeps more than this test writes";
    const Time begin = clock.now();
    test::run_ready(loop, clock);
    while (loop.next_timer()) {
        pass(*loop.next_timer() - clock.now());
        const Lines more = daemon.read_all();
        texts.insert(texts.end(), more.begin(), more.end());
    }
    const size_t kept = in_the_socket + 1000;
    ASSERT_EQ(texts.size(), kept + 1);
    for (size_t i = 0; i < kept; ++i) {
        ASSERT_EQ(texts[i], "%LDA-6-INFO: " + std::to_string(i));
    }
    EXPECT_EQ(texts.back(), "%LOG-4-LOST: " + std::to_string(3000 - kept) +
                                " messages were lost while the system log could not take them.");
    EXPECT_LE(clock.now() - begin, seconds(5)) << "a daemon that reads gets them soon";
    write("after it");
    EXPECT_EQ(daemon.read_all(), Lines{"%LDA-6-INFO: after it"}) << "the loss is reported once";
}

TEST_F(SyslogSocketTest, MessagesWaitForThePostThatTheLoopExpects) {
    log.attach(loop);
    write("before");
    loop.expect_post();
    write("a port loops");
    write("and another");
    EXPECT_EQ(daemon.read_all(), Lines{"%LDA-6-INFO: before"});
    std::thread([this] { loop.post([this] { write("its line has been executed"); }); }).join();
    write("and a third");
    EXPECT_EQ(daemon.read_all(), Lines{}) << "the post has come, its turn has not";
    test::run_ready(loop, clock);
    EXPECT_EQ(daemon.read_all(),
              (Lines{"%LDA-6-INFO: a port loops", "%LDA-6-INFO: and another",
                     "%LDA-6-INFO: and a third", "%LDA-6-INFO: its line has been executed"}));
    EXPECT_FALSE(loop.next_timer());
}

TEST_F(SyslogSocketTest, MessagesThatWaitedForAPostAreTriedAgainWithoutADaemon) {
    log.attach(loop);
    daemon.stop();
    loop.expect_post();
    write("a port loops");
    test::run_ready(loop, clock);
    daemon.start();
    pass(seconds(1));
    EXPECT_EQ(daemon.read_all(), Lines{"%LDA-6-INFO: a port loops"});
}

TEST_F(SyslogSocketTest, NextMessageBringsTheWaitingOnes) {
    daemon.stop();
    write("one");
    daemon.start();
    write("two");
    EXPECT_EQ(daemon.read_all(), (Lines{"%LDA-6-INFO: one", "%LDA-6-INFO: two"}));
}

TEST_F(SyslogSocketTest, MessagesOfTheTimeWithoutADaemonArriveOnceItIsBack) {
    log.attach(loop);
    write("before");
    daemon.stop();
    write("one");
    write("two");
    pass(seconds(1));
    daemon.start();
    pass(seconds(2));
    EXPECT_EQ(daemon.read_all(), (Lines{"%LDA-6-INFO: one", "%LDA-6-INFO: two"}));
    EXPECT_FALSE(loop.next_timer()) << "nothing wakes the process up any more";
    daemon.stop();
    write("three");
    daemon.start();
    pass(seconds(1));
    EXPECT_EQ(daemon.read_all(), (Lines{"%LDA-6-INFO: three"}));
}

TEST_F(SyslogSocketTest, MessagesFromBeforeTheLoopAreTriedAgainThroughIt) {
    daemon.stop();
    write("early");
    log.attach(loop);
    daemon.start();
    pass(seconds(1));
    EXPECT_EQ(daemon.read_all(), Lines{"%LDA-6-INFO: early"});
}

TEST_F(SyslogSocketTest, DaemonStartedAgainGetsTheNextMessageAtOnce) {
    write("one");
    EXPECT_EQ(daemon.read_all(), Lines{"%LDA-6-INFO: one"});
    daemon.stop();
    daemon.start();
    write("two");
    EXPECT_EQ(daemon.read_all(), Lines{"%LDA-6-INFO: two"});
}

TEST_F(SyslogSocketTest, PausesGrowToAMinuteWhileThereIsNoDaemon) {
    log.attach(loop);
    daemon.stop();
    write("lost in the end");
    test::run_ready(loop, clock);
    for (const int pause : {1, 2, 4, 8, 16, 32, 60, 60}) {
        ASSERT_TRUE(loop.next_timer());
        EXPECT_EQ(*loop.next_timer() - clock.now(), seconds(pause));
        pass(seconds(pause));
    }
}

TEST_F(SyslogSocketTest, DatagramTooLongForTheSocketIsLostAndBlocksNothing) {
    write(std::string(1 << 20, 'x'));
    write("after it");
    EXPECT_EQ(daemon.read_all(),
              (Lines{"%LOG-4-LOST: 1 message was lost while the system log could not take them.",
                     "%LDA-6-INFO: after it"}));
}

TEST_F(SyslogSocketTest, EveryThreadMayLogAndItsMessagesAreTriedAgain) {
    log.attach(loop);
    daemon.stop();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([this] { write_numbered(100); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    daemon.start();
    size_t read = 0;
    test::run_ready(loop, clock);
    while (loop.next_timer()) {
        pass(*loop.next_timer() - clock.now());
        read += daemon.read_all().size();
    }
    EXPECT_EQ(read, 400u);
}

// ---- Structured messages ----

struct StructuredSyslogTest : SyslogSocketTest {
    void write_about(const std::string& port) {
        const LogSubject subject{.port = port, .cause = "a [b]"};
        structured.write({.severity = 4,
                          .facility = "PORT",
                          .mnemonic = "ADMIN",
                          .text = "text\r\n",
                          .number = 9,
                          .subject = &subject});
    }
    SyslogLog structured{directory.file("log"), directory.file("journal")};
};

TEST_F(StructuredSyslogTest, GoToTheSystemLogAsRfc5424WithoutAJournal) {
    write_about("swp3");
    const std::regex expected(
        R"(<28>1 20[0-9]{2}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z [!-~]+ lda )" +
        std::to_string(getpid()) +
        R"( PORT-ADMIN \[lda@32473 facility="PORT" mnemonic="ADMIN" event="9" port="swp3" )"
        R"(cause="a \[b\\\]"\] %PORT-4-ADMIN: text)");
    const std::string datagram = daemon.read();
    EXPECT_TRUE(std::regex_match(datagram, expected)) << datagram;
}

TEST_F(StructuredSyslogTest, GoToTheJournalWhereItListens) {
    const Daemon journal(directory.file("journal"));
    write_about("swp3");
    EXPECT_EQ(journal.read(),
              "MESSAGE=%PORT-4-ADMIN: text\nPRIORITY=4\nSYSLOG_FACILITY=3\nSYSLOG_IDENTIFIER=lda\n"
              "SYSLOG_PID=" +
                  std::to_string(getpid()) +
                  "\nLDA_FACILITY=PORT\nLDA_MNEMONIC=ADMIN\nLDA_EVENT=9\nLDA_PORT=swp3\n"
                  "LDA_CAUSE=a [b]\n");
    EXPECT_EQ(daemon.read(), "");
}

TEST_F(StructuredSyslogTest, GoToTheSystemLogWhenTheJournalHasEnded) {
    Daemon journal(directory.file("journal"));
    write_about("swp3");
    journal.stop();
    write_about("swp4");
    EXPECT_NE(daemon.read().find("port=\"swp4\""), std::string::npos);
}

TEST_F(StructuredSyslogTest, LossIsReportedInTheSameForm) {
    structured.write(
        {.severity = 6, .facility = "LDA", .mnemonic = "INFO", .text = std::string(1 << 20, 'x')});
    write_about("swp3");
    EXPECT_NE(daemon.read().find(R"( LOG-LOST [lda@32473 facility="LOG" mnemonic="LOST"] %LOG-4-)"),
              std::string::npos);
    EXPECT_NE(daemon.read().find("swp3"), std::string::npos);
}

TEST_F(StructuredSyslogTest, AreOffByDefault) {
    const Daemon journal(directory.file("journal"));
    write("plain");
    EXPECT_EQ(journal.read(), "");
    EXPECT_EQ(daemon.read_all(), Lines{"%LDA-6-INFO: plain"});
}

}  // namespace
}  // namespace qv
