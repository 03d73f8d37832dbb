// The relay of standard input, with a socket in its place.
#include "services/netconf/stdin_relay.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <thread>

#include "services/netconf/client_quirks.h"
#include "tests/unit/netconf/intercepted.h"

using namespace netconf::test;
using netconf::StdinRelay;

namespace {

const std::string kBase = "urn:ietf:params:xml:ns:netconf:base:1.0";
const std::string kHello = "<hello>urn:ietf:params:netconf:base:1.1</hello>]]>]]>";

std::string framed(const std::string& text) {
    return "\n#" + std::to_string(text.size()) + "\n" + text + "\n##\n";
}

// Blocked signals of a thread, as in its status file.
uint64_t blocked_in(const std::filesystem::path& task) {
    std::ifstream status(task / "status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("SigBlk:")) {
            return std::stoull(line.substr(7), nullptr, 16);
        }
    }
    return 0;
}

class StdinRelayTest : public testing::Test {
 protected:
    void SetUp() override {
        reset_interception();
        std::array<int, 2> ends{};
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
        client_ = ends[0];
        usual_ = dup(STDIN_FILENO);
        dup2(ends[1], STDIN_FILENO);
        close(ends[1]);
    }
    void TearDown() override {
        hang_up();
        relay_.reset();
        dup2(usual_, STDIN_FILENO);
        close(usual_);
    }

    void start() { relay_ = std::make_unique<StdinRelay>(netconf::adapt_message); }
    void send(const std::string& bytes) {
        ASSERT_EQ(::write(client_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    void hang_up() {
        if (client_ >= 0) {
            close(client_);
            client_ = -1;
        }
    }

    // Whether one of `events` happens on `fd`; ten seconds are more than it takes.
    static bool arrives(int fd, short events) {
        pollfd watched{.fd = fd, .events = events, .revents = 0};
        const timespec limit{.tv_sec = 10, .tv_nsec = 0};
        return ppoll(&watched, 1, &limit, nullptr) == 1;
    }

    // Reads `length` bytes of the relay's output.
    std::string take(size_t length) const {
        std::string text(length, '\0');
        size_t done = 0;
        for (ssize_t got = 0;
             done < length && arrives(relay_->fd(), POLLIN) &&
             (got = ::read(relay_->fd(), text.data() + done, length - done)) > 0;) {
            done += static_cast<size_t>(got);
        }
        text.resize(done);
        return text;
    }
    // Reads everything up to the end.
    std::string rest() const { return take(1 << 20); }

    int client_ = -1;
    int usual_ = -1;
    std::unique_ptr<StdinRelay> relay_;
};

TEST_F(StdinRelayTest, WholeMessagesAreHandedOnInOneChunkEach) {
    start();
    send(kHello + "\n#4\n<rpc\n#2\n/>\n##\n\n#3\n<a");
    EXPECT_EQ(take(kHello.size() + framed("<rpc/>").size()), kHello + framed("<rpc/>"));
    pollfd more{.fd = relay_->fd(), .events = POLLIN, .revents = 0};
    EXPECT_EQ(ppoll(&more, 1, std::array<timespec, 1>{}.data(), nullptr), 0);
    EXPECT_EQ(relay_->fault(), nullptr);
    send(">\n##\n");
    hang_up();
    EXPECT_EQ(rest(), framed("<a>"));
    EXPECT_EQ(relay_->fault(), nullptr);
}

TEST_F(StdinRelayTest, QuirksOfClientsAreCorrected) {
    start();
    const auto edit = [](const std::string& attribute) {
        return framed("<rpc xmlns=\"" + kBase + "\"><edit-config><config><a xmlns=\"urn:a\"" +
                      attribute + "=\"delete\"/></config></edit-config></rpc>");
    };
    send(kHello + edit(" operation"));
    hang_up();
    EXPECT_EQ(rest(), kHello + edit(" xmlns:nc=\"" + kBase + "\" nc:operation"));
}

TEST_F(StdinRelayTest, RequestThatIsTooLongIsReplaced) {
    start();
    send(kHello + "\n#99999\n<rpc message-id=\"7\">");
    const std::string passed = rest();
    EXPECT_TRUE(passed.starts_with(kHello)) << passed;
    EXPECT_NE(passed.find("message-id=\"7\"><get>"), std::string::npos) << passed;
    EXPECT_TRUE(passed.ends_with("</rpc>\n##\n")) << passed;
    EXPECT_STREQ(relay_->fault(), "a message is longer than 64 KiB");
}

TEST_F(StdinRelayTest, HelloIsNotAdapted) {
    relay_ = std::make_unique<StdinRelay>([](std::string& text) { text += "!"; });
    send(kHello + framed("<rpc/>"));
    hang_up();
    EXPECT_EQ(rest(), kHello + framed("<rpc/>!"));
}

TEST_F(StdinRelayTest, NothingIsAdaptedForADestroyedRelay) {
    const auto adapted = std::make_shared<std::atomic<int>>(0);
    relay_ = std::make_unique<StdinRelay>([adapted](std::string&) { ++*adapted; });
    send(kHello + framed("<rpc/>"));
    EXPECT_EQ(take(kHello.size() + framed("<rpc/>").size()), kHello + framed("<rpc/>"));
    relay_.reset();
    EXPECT_EQ(adapted.use_count(), 1) << "the relay still holds the function";
    EXPECT_EQ(*adapted, 1);
}

TEST_F(StdinRelayTest, EndWithinAMessageIsAFault) {
    start();
    send(kHello + framed("<rpc/>") + "\n#4\n<r");
    hang_up();
    EXPECT_EQ(rest(), kHello + framed("<rpc/>"));
    EXPECT_STREQ(relay_->fault(), "the input ends within a message");
}

TEST_F(StdinRelayTest, BrokenFrameEndsTheInputAlthoughTheClientIsThere) {
    start();
    send(kHello + framed("<rpc/>") + "\n#x\n" + framed("<rpc/>"));
    EXPECT_EQ(rest(), kHello + framed("<rpc/>"));
    EXPECT_STREQ(relay_->fault(), "the framing is broken: no chunk begins where one should");
}

TEST_F(StdinRelayTest, InterruptedCallsAreRepeated) {
    interrupt_reads(3);
    interrupt_sends(3);
    limit_sends(7);
    start();
    send(kHello + framed("<rpc>as long as some sevens</rpc>"));
    hang_up();
    EXPECT_EQ(rest(), kHello + framed("<rpc>as long as some sevens</rpc>"));
}

TEST_F(StdinRelayTest, EndLeavesTheOtherDirectionOpen) {
    start();
    send(kHello);
    hang_up();
    ASSERT_TRUE(arrives(relay_->fd(), POLLRDHUP));
    pollfd end{.fd = relay_->fd(), .events = POLLIN, .revents = 0};
    EXPECT_EQ(ppoll(&end, 1, std::array<timespec, 1>{}.data(), nullptr), 1);
    EXPECT_EQ(end.revents, POLLIN);  // no POLLHUP, which would hide the hello
    EXPECT_EQ(rest(), kHello);
}

TEST_F(StdinRelayTest, ReadingEndsWhenNobodyTakesTheMessages) {
    start();
    const qv::File end(dup(relay_->fd()));
    relay_.reset();
    shutdown(end.fd(), SHUT_RD);
    send(kHello);
    EXPECT_TRUE(arrives(end.fd(), 0));  // hung up: the thread has closed its own end
}

TEST_F(StdinRelayTest, ReaderHasAStackForSignalHandlers) {
    start();
    send(kHello);
    EXPECT_EQ(take(kHello.size()), kHello);
    EXPECT_TRUE(reader_has_signal_stack());
}

TEST_F(StdinRelayTest, SignalsAreTheMainThreadsButForThoseOfACrash) {
    std::thread([] {}).join();  // a sanitizer starts another thread with the first one
    const uint64_t main_before = blocked_in("/proc/self/task/" + std::to_string(getpid()));
    std::set<std::string> before;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        before.insert(task.path());
    }
    start();
    send(kHello);
    take(kHello.size());
    EXPECT_EQ(blocked_in("/proc/self/task/" + std::to_string(getpid())), main_before);
    int readers = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        if (before.contains(task.path())) {
            continue;
        }
        readers++;
        const uint64_t blocked = blocked_in(task.path());
        const auto blocks = [&](int number) {
            return (blocked >> (number - 1) & 1) != 0;
        };
        for (const int number : {SIGTERM, SIGHUP, SIGINT, SIGALRM, SIGCHLD, SIGUSR1}) {
            EXPECT_TRUE(blocks(number)) << number;
        }
        for (const int number : {SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL}) {
            EXPECT_FALSE(blocks(number)) << number;
        }
    }
    EXPECT_EQ(readers, 1);
}

}  // namespace
