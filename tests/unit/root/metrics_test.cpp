// The page of the metrics, and the server behind it.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>

#include "platform/root/metrics_page.h"
#include "platform/root/metrics_server.h"
#include "tests/support/test_platform.h"

namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

// A page without the lines of its help.
std::string page_of(const qv::Metrics& figures) {
    std::string page = prometheus::TextSerializer().Serialize(qv::MetricsPage(figures).Collect());
    for (size_t at; (at = page.find("# ")) != std::string::npos;) {
        page.erase(at, page.find('\n', at) + 1 - at);
    }
    return page;
}

TEST(MetricsPage, ShowsEachFigureUnderItsName) {
    qv::Metrics figures;
    figures.looped_ports = 1;
    figures.held_ports = 2;
    figures.loops_by_probe = 3;
    figures.loops_by_storm = 4;
    figures.shutdowns = 5;
    figures.shutdowns_refused = 6;
    figures.recoveries = 7;
    figures.recoveries_refused = 8;
    figures.deferred_tasks = 9;
    figures.databases_away = 10;
    figures.database_reconnects = 11;
    figures.records_set_again = 12;
    figures.config_saves = 13;
    figures.config_save_failures = 14;
    const std::string page = page_of(figures);
    for (const char* line :
         {"lda_build_info{version=\"" LDA_VERSION "\"} 1\n", "lda_looped_ports 1\n",
          "lda_held_ports 2\n", "lda_loops_found_total{source=\"tarn\"} 3\n",
          "lda_loops_found_total{source=\"storm\"} 4\n", "lda_shutdowns_total 5\n",
          "lda_shutdowns_refused_total 6\n", "lda_recoveries_total 7\n",
          "lda_recoveries_refused_total 8\n", "lda_deferred_tasks 9\n", "lda_databases_away 10\n",
          "lda_database_reconnects_total 11\n", "lda_records_set_again_total 12\n",
          "lda_config_saves_total 13\n", "lda_config_save_failures_total 14\n"}) {
        EXPECT_NE(page.find(line), std::string::npos) << line << page;
    }
}

TEST(MetricsPage, HistogramCountsEachBucketWithThoseBelow) {
    qv::Metrics figures;
    figures.reaction.observe(2ms);
    figures.reaction.observe(20ms);
    figures.reaction.observe(20ms);
    figures.reaction.observe(10s);
    const std::string page = page_of(figures);
    const std::string expected =
        "lda_reaction_seconds_count 4\n"
        "lda_reaction_seconds_sum 10.042\n"
        "lda_reaction_seconds_bucket{le=\"0.001\"} 0\n"
        "lda_reaction_seconds_bucket{le=\"0.0025\"} 1\n"
        "lda_reaction_seconds_bucket{le=\"0.005\"} 1\n"
        "lda_reaction_seconds_bucket{le=\"0.01\"} 1\n"
        "lda_reaction_seconds_bucket{le=\"0.025\"} 3\n"
        "lda_reaction_seconds_bucket{le=\"0.05\"} 3\n"
        "lda_reaction_seconds_bucket{le=\"0.1\"} 3\n"
        "lda_reaction_seconds_bucket{le=\"0.25\"} 3\n"
        "lda_reaction_seconds_bucket{le=\"0.5\"} 3\n"
        "lda_reaction_seconds_bucket{le=\"1\"} 3\n"
        "lda_reaction_seconds_bucket{le=\"5\"} 3\n"
        "lda_reaction_seconds_bucket{le=\"+Inf\"} 4\n";
    EXPECT_NE(page.find(expected), std::string::npos) << page;
}

// A socket bound to a free port of the loopback interface.
class Holder {
 public:
    Holder() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), size), 0);
        EXPECT_EQ(listen(fd_, 1), 0);
        EXPECT_EQ(getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size), 0);
        port_ = ntohs(address.sin_port);
    }
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;
    ~Holder() { release(); }

    void release() {
        if (fd_ >= 0) {
            close(fd_);
            fd_ = -1;
        }
    }
    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }
    uint16_t port() const { return port_; }

 private:
    int fd_;
    uint16_t port_ = 0;
};

// Sends a request and returns everything that arrives; empty when nobody listens.
std::string ask(uint16_t port, const std::string& request) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    std::string reply;
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        send(fd, request.data(), request.size(), MSG_NOSIGNAL);
        char bytes[4096];
        for (ssize_t got; (got = recv(fd, bytes, sizeof bytes, 0)) > 0;) {
            reply.append(bytes, static_cast<size_t>(got));
        }
    }
    close(fd);
    return reply;
}

class MetricsServer : public ::testing::Test {
 protected:
    MetricsServer() { platform.attach_loop(loop); }

    Holder holder;
    qv::test::TestPlatform platform;
    qv::EventLoop loop{platform.manual_clock};
};

TEST_F(MetricsServer, ServesThePresentFigures) {
    holder.release();
    qv::MetricsServer server(loop, holder.address());
    server.metrics().held_ports = 41;
    server.metrics().held_ports++;
    const std::string reply = ask(holder.port(), "GET /metrics HTTP/1.0\r\n\r\n");
    EXPECT_TRUE(reply.starts_with("HTTP/1.1 200 OK\r\n")) << reply;
    EXPECT_NE(reply.find("\nlda_held_ports 42\n"), std::string::npos) << reply;
    EXPECT_EQ(platform.log.lines(), Lines{});
}

TEST_F(MetricsServer, OtherPathsAndNonsenseAreRefused) {
    holder.release();
    const qv::MetricsServer server(loop, holder.address());
    EXPECT_TRUE(ask(holder.port(), "GET / HTTP/1.0\r\n\r\n").starts_with("HTTP/1.0 404 "));
    EXPECT_TRUE(
        ask(holder.port(), "GET /../../etc/passwd HTTP/1.0\r\n\r\n").starts_with("HTTP/1.0 404 "));
    EXPECT_EQ(ask(holder.port(), "\x16\x03\x01 nonsense\r\n\r\n").find("lda_"), std::string::npos);
    EXPECT_EQ(ask(holder.port(), std::string(5000, 'a') + "\r\n\r\n").find("lda_"),
              std::string::npos);
}

TEST_F(MetricsServer, AddressInUseIsLoggedOnceAndTriedAgain) {
    qv::MetricsServer server(loop, holder.address());
    const std::string refusal = "METRICS-4-LISTEN: The metrics are not served on " +
                                holder.address() + ": Address already in use.";
    EXPECT_EQ(platform.log.lines(), Lines{refusal});
    platform.run_for(60s);
    EXPECT_EQ(platform.log.lines(), Lines{refusal});
    holder.release();
    platform.run_for(29s);
    EXPECT_EQ(platform.log.lines(), Lines{refusal});
    platform.run_for(1s);
    EXPECT_EQ(platform.log.lines(), (Lines{refusal, "METRICS-6-LISTEN: The metrics are served on " +
                                                        holder.address() + "."}));
    EXPECT_NE(ask(holder.port(), "GET /metrics HTTP/1.0\r\n\r\n").find("lda_build_info"),
              std::string::npos);
}

TEST_F(MetricsServer, AddressThatIsNotLoopbackIsNeverServed) {
    const qv::MetricsServer server(loop, "0.0.0.0:9464");
    EXPECT_EQ(platform.log.lines(),
              Lines{"METRICS-4-LISTEN: The metrics are not served on 0.0.0.0:9464: not a loopback "
                    "address."});
}

}  // namespace
