// The control socket and its clients, among them hostile ones. Port 1 is the machine's interface
// "lo", which always has that number; other numbers have no name here.
#include "services/tarnd/control.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/manual_clock.h"
#include "tests/support/temporary_directory.h"

namespace qv::tarnd {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr uint32_t kLo = 1;

// A client on the loop's own thread: it never waits.
class Client {
 public:
    explicit Client(const std::string& path) : fd_(socket(AF_UNIX, SOCK_STREAM, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        EXPECT_EQ(connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    ~Client() { close(fd_); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void send(const std::string& bytes) const {
        // The service may have closed the connection.
        static_cast<void>(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT));
    }
    std::string receive() {
        std::string text;
        std::array<char, 65536> bytes;
        for (;;) {
            const ssize_t size = recv(fd_, bytes.data(), bytes.size(), MSG_DONTWAIT);
            closed_ = closed_ || size == 0 || (size < 0 && errno != EAGAIN);
            if (size <= 0) {
                return text;
            }
            text.append(bytes.data(), static_cast<size_t>(size));
        }
    }
    bool is_closed() {
        receive();
        return closed_;
    }
    void end_output() const { shutdown(fd_, SHUT_WR); }

 private:
    int fd_;
    bool closed_ = false;
};

struct ControlTest : testing::Test {
    ControlTest() {
        board.enable(true);
        add_port(kLo);
    }

    void add_port(uint32_t ifx) {
        board.configure(ifx, {.watched = true, .vlan_mode = 1, .guard_ms = ifx == kLo ? 30u : 0u});
        board.take({.kind = Report::Kind::kPort, .ifx = ifx, .present = true, .forwarding = true});
    }
    void loop_of_lo() {
        board.take({.kind = Report::Kind::kLoop,
                    .ifx = kLo,
                    .src_ifx = kLo,
                    .trigger = Trigger::kCarrier,
                    .path = microseconds(41)});
    }
    std::string ask(Client& client, const std::string& line) {
        client.send(line + "\n");
        turn();
        return client.receive();
    }
    void turn() { test::run_ready(loop, clock); }
    void pass(Duration time) { test::run_for(loop, clock, time); }

    test::ManualClock clock;
    EventLoop loop{clock};
    test::TemporaryDirectory folder;
    StatusBoard board;
    bool thread_is_busy = false;
    std::vector<uint32_t> asked;
    const std::string path = folder.file("control");
    std::unique_ptr<Control> control = std::make_unique<Control>(
        loop, path, board,
        Control::Sources{.counters =
                             [] {
                                 PBridge__TarnCounters counters = P_BRIDGE__TARN_COUNTERS__INIT;
                                 counters.sent = 5;
                                 counters.duplicate = 20;
                                 return counters;
                             },
                         .ask =
                             [this](uint32_t ifx) {
                                 asked.push_back(ifx);
                                 return !thread_is_busy;
                             }});
};

TEST_F(ControlTest, SocketIsForItsOwnerOnlyAndGoneAtTheEnd) {
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    control.reset();
    EXPECT_NE(stat(path.c_str(), &status), 0);
}

TEST_F(ControlTest, ReplacesTheSocketOfAnEarlierProcess) {
    EXPECT_NO_THROW(Control(loop, path, board, {}));
    EXPECT_THROW(Control(loop, folder.file(std::string(200, 'x')), board, {}), std::runtime_error);
}

TEST_F(ControlTest, ARemovedSocketIsPutBackAndItsClientsStay) {
    Client early(path);
    turn();
    ASSERT_EQ(unlink(path.c_str()), 0);
    pass(seconds(10));
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFSOCK | S_IRUSR | S_IWUSR);
    Client late(path);
    turn();
    EXPECT_NE(ask(late, R"({"do":"counters"})"), "");
    EXPECT_NE(ask(early, R"({"do":"counters"})"), "");
}

TEST_F(ControlTest, ASocketThatCannotBePutBackIsTriedAgain) {
    ASSERT_EQ(unlink(path.c_str()), 0);
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    pass(seconds(20));
    ASSERT_EQ(rmdir(path.c_str()), 0);
    pass(seconds(10));
    Client client(path);
    turn();
    EXPECT_NE(ask(client, R"({"do":"counters"})"), "");
}

TEST_F(ControlTest, ShowsEveryPort) {
    add_port(4000001);
    Client client(path);
    EXPECT_EQ(
        ask(client, R"({"do":"show"})"),
        R"({"port":"lo","index":1,"state":"probing","role":"access","guard_ms":30,"loop":null})"
        "\n"
        R"({"port":"interface 4000001","index":4000001,"state":"probing","role":"access",)"
        R"("guard_ms":null,"loop":null})"
        "\n"
        R"({"done":true})"
        "\n");
}

TEST_F(ControlTest, ShowsOnePortWithItsLoop) {
    loop_of_lo();
    Client client(path);
    const std::string text = ask(client, R"({"do":"show","port":"lo"})");
    EXPECT_EQ(text.substr(0, text.find(R"(,"time")")),
              R"({"port":"lo","index":1,"state":"looped","role":"access","guard_ms":30,)"
              R"("loop":{"port":"lo","src_port":"lo","vid":1,"src_vid":1,"path_us":41,)"
              R"("found_by":"carrier")");
    EXPECT_TRUE(text.ends_with("Z\"}}\n{\"done\":true}\n")) << text;
    EXPECT_EQ(ask(client, R"({"do":"show","port":"no-such"})"),
              R"({"error":"no-such: the port is not in the bridge"})"
              "\n");
}

TEST_F(ControlTest, ReportsTheCounters) {
    Client client(path);
    EXPECT_EQ(ask(client, R"({"do":"counters"})"),
              R"({"counters":{"sent":5,"not_sent":0,"returned":0,"loops_period":0,"loops_move":0,)"
              R"("loops_carrier":0,"loops_overrun":0,"cuts":0,"cuts_failed":0,"given_back":0,)"
              R"("malformed":0,"forged":0,"foreign":0,"blocked":0,"stale":0,"duplicate":20,)"
              R"("leaked":0,"late":0}})"
              "\n"
              R"({"done":true})"
              "\n");
}

TEST_F(ControlTest, AWatcherReceivesEachEvent) {
    Client client(path);
    Client other(path);
    EXPECT_EQ(ask(client, R"({"do":"watch"})"), "{\"watching\":true}\n");
    loop_of_lo();
    board.take({.kind = Report::Kind::kCut, .ifx = kLo});
    board.take({.kind = Report::Kind::kCut, .ifx = kLo, .error = EPERM});
    board.give_back(kLo, 0);
    board.take({.kind = Report::Kind::kEnd, .ifx = kLo, .src_ifx = kLo});
    turn();
    std::vector<std::string> events;
    const std::string text = client.receive();
    for (size_t at = 0; at < text.size(); at = text.find('\n', at) + 1) {
        const std::string line = text.substr(at, text.find('\n', at) - at);
        events.push_back(line.substr(0, line.find(R"(,"time")")));
    }
    EXPECT_EQ(events, (std::vector<std::string>{
                          R"({"event":"loop","port":"lo","src_port":"lo","vid":1,"src_vid":1,)"
                          R"("path_us":41,"found_by":"carrier")",
                          R"({"event":"cut","port":"lo")",
                          R"({"event":"cut-failed","port":"lo","reason":"Operation not permitted")",
                          R"({"event":"given-back","port":"lo","reason":null)",
                          R"({"event":"end","port":"lo","src_port":"lo","vid":1,"src_vid":1)"}));
    EXPECT_EQ(other.receive(), "");
}

TEST_F(ControlTest, AProbeIsAnsweredWithWhatComesBackWithinASecond) {
    Client client(path);
    EXPECT_EQ(ask(client, R"({"do":"probe","port":"lo"})"), "");
    EXPECT_EQ(asked, std::vector<uint32_t>{kLo});
    board.take({.kind = Report::Kind::kAsked, .ifx = kLo});
    board.take(
        {.kind = Report::Kind::kReturned, .ifx = kLo, .src_ifx = kLo, .path = microseconds(38)});
    turn();
    EXPECT_EQ(client.receive(), "{\"returned\":\"lo\",\"path_us\":38}\n");
    pass(milliseconds(999));
    EXPECT_EQ(client.receive(), "");
    pass(milliseconds(1));
    EXPECT_EQ(client.receive(), "{\"done\":true}\n");
    board.take({.kind = Report::Kind::kReturned, .ifx = kLo, .src_ifx = kLo});
    turn();
    EXPECT_EQ(client.receive(), "");
}

TEST_F(ControlTest, AProbeThatCannotBeSentIsRefusedWithTheReason) {
    Client client(path);
    const auto refusal_of = [&](int error) {
        EXPECT_EQ(ask(client, R"({"do":"probe","port":"lo"})"), "");
        board.take({.kind = Report::Kind::kAsked, .ifx = kLo, .error = error});
        turn();
        return client.receive();
    };
    EXPECT_EQ(refusal_of(EPERM), "{\"error\":\"lo: loop detection is off on the port\"}\n");
    EXPECT_EQ(refusal_of(ENETDOWN),
              "{\"error\":\"lo: the bridge does not forward on the port\"}\n");
    EXPECT_EQ(refusal_of(EBUSY), "{\"error\":\"lo: the switch sends too many probes already\"}\n");
    EXPECT_EQ(refusal_of(EIO), "{\"error\":\"lo: the kernel did not take the frame\"}\n");
    EXPECT_EQ(ask(client, R"({"do":"probe"})"),
              "{\"error\":\": the port is not in the bridge\"}\n");
    thread_is_busy = true;
    EXPECT_EQ(ask(client, R"({"do":"probe","port":"lo"})"),
              "{\"error\":\"lo: the probing thread is too busy\"}\n");
}

TEST_F(ControlTest, AThreadThatDoesNotAnswerIsReported) {
    Client client(path);
    ask(client, R"({"do":"probe","port":"lo"})");
    pass(seconds(1));
    EXPECT_EQ(client.receive(), "{\"error\":\"lo: the probing thread does not answer\"}\n");
}

TEST_F(ControlTest, OneProbeOfAPortAtATimeAlsoWhenItsClientHasGone) {
    auto first = std::make_unique<Client>(path);
    ask(*first, R"({"do":"probe","port":"lo"})");
    first.reset();
    turn();
    Client second(path);
    EXPECT_EQ(ask(second, R"({"do":"probe","port":"lo"})"),
              "{\"error\":\"lo: another client's probe is under way\"}\n");
    board.take({.kind = Report::Kind::kAsked, .ifx = kLo});
    board.take({.kind = Report::Kind::kReturned, .ifx = kLo, .src_ifx = kLo});
    pass(seconds(1));
    EXPECT_EQ(second.receive(), "");
    EXPECT_EQ(ask(second, R"({"do":"probe","port":"lo"})"), "");
    EXPECT_EQ(asked.size(), 2u);
}

TEST_F(ControlTest, InvalidRequestsAreRefusedAndTheClientStays) {
    const std::string refusal =
        R"({"error":"the request has no \"do\" of \"show\", \"counters\", \"watch\" or \"probe\""})"
        "\n";
    Client client(path);
    for (const char* const line : {"", "show", "[]", "{", R"({"do":1})", R"({"do":null})",
                                   R"({"do":"shutdown"})", "{\"do\":\"\xff\xfe\"}", "\"do\""}) {
        EXPECT_EQ(ask(client, line), refusal) << line;
    }
    EXPECT_EQ(ask(client, R"({"do":"show","port":17})"),
              "{\"error\":\": the port is not in the bridge\"}\n");
    EXPECT_EQ(ask(client, "{\"do\":\"show\",\"port\":\"\xff\"}"), refusal) << "no UTF-8";
    EXPECT_FALSE(client.is_closed());
}

TEST_F(ControlTest, ALineThatIsTooLongEndsTheClient) {
    Client whole(path);
    whole.send(std::string(1025, ' ') + "\n");
    turn();
    EXPECT_EQ(whole.receive(), "{\"error\":\"the request is too long\"}\n");
    EXPECT_TRUE(whole.is_closed());

    Client endless(path);
    endless.send(std::string(1025, '{'));
    turn();
    EXPECT_EQ(endless.receive(), "{\"error\":\"the request is too long\"}\n");
    EXPECT_TRUE(endless.is_closed());

    Client nested(path);
    EXPECT_NE(ask(nested, std::string(1024, '[')), "");
    EXPECT_FALSE(nested.is_closed());
}

TEST_F(ControlTest, RequestsInPiecesAndInOnePieceAreAnsweredInOrder) {
    Client client(path);
    client.send(R"({"do":)");
    turn();
    EXPECT_EQ(client.receive(), "");
    client.send("\"show\",\"port\":\"lo\"}\n{\"do\":\"x\"}\n{\"do\":\"probe\",\"port\":\"lo\"}\n");
    client.send("{\"do\":\"y\"}\n");
    turn();
    std::string text = client.receive();
    EXPECT_TRUE(text.starts_with(R"({"port":"lo")")) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3);
    pass(seconds(1));  // what follows the probe waits for it
    text = client.receive();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
}

TEST_F(ControlTest, AClientThatSendsNoMoreStillGetsItsAnswers) {
    Client client(path);
    client.send("{\"do\":\"probe\",\"port\":\"lo\"}\n");
    client.end_output();
    turn();
    board.take({.kind = Report::Kind::kAsked, .ifx = kLo});
    pass(seconds(1));
    EXPECT_EQ(client.receive(), "{\"done\":true}\n");
    EXPECT_TRUE(client.is_closed());
    EXPECT_EQ(control->clients(), 0u);
}

TEST_F(ControlTest, AWatcherThatDoesNotReadIsDropped) {
    Client idle(path);
    Client reading(path);
    ask(idle, R"({"do":"watch"})");
    ask(reading, R"({"do":"watch"})");
    size_t events = 0;
    for (; control->clients() == 2 && events < 100000; ++events) {
        loop_of_lo();
        reading.receive();
    }
    EXPECT_EQ(control->clients(), 1u);
    // A line has some 120 bytes; the kernel keeps some hundred thousand bytes, too.
    EXPECT_GE(events, Control::kMaxQueue / 150);
    EXPECT_FALSE(reading.is_closed());
}

TEST_F(ControlTest, AnUnreadListIsNotBuiltAheadAndItsClientDropped) {
    for (uint32_t ifx = 4000000; ifx < 4010000; ++ifx) {
        add_port(ifx);
    }
    Client client(path);
    client.send("{\"do\":\"show\"}\n");
    turn();
    EXPECT_EQ(control->clients(), 1u);
    pass(Control::kIdleTimeout);
    EXPECT_EQ(control->clients(), 0u);
    EXPECT_LT(client.receive().size(), 900000u) << "of some 1,100,000 bytes";
}

TEST_F(ControlTest, AListThatIsReadSlowlyIsWhole) {
    for (uint32_t ifx = 4000000; ifx < 4010000; ++ifx) {
        add_port(ifx);
    }
    Client client(path);
    client.send("{\"do\":\"show\"}\n");
    std::string text;
    for (int n = 0; n < 10000 && !text.ends_with("{\"done\":true}\n"); ++n) {
        turn();
        text += client.receive();
    }
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 10002);
}

TEST_F(ControlTest, ClientsAreLimitedAndIdleOnesDropped) {
    std::vector<std::unique_ptr<Client>> clients;
    for (size_t n = 0; n < Control::kMaxClients; ++n) {
        clients.push_back(std::make_unique<Client>(path));
        turn();
    }
    ask(*clients[0], R"({"do":"watch"})");
    Client late(path);
    turn();
    EXPECT_EQ(late.receive(), "{\"error\":\"too many clients\"}\n");
    EXPECT_TRUE(late.is_closed());
    pass(Control::kIdleTimeout);
    EXPECT_EQ(control->clients(), 1u) << "the one that watches";
    EXPECT_FALSE(clients[0]->is_closed());
    clients[0].reset();
    turn();
    EXPECT_EQ(control->clients(), 0u);
}

}  // namespace
}  // namespace qv::tarnd
