// Measures how long the agent's main thread lets other work wait, from outside: an empty line on an
// operator's session runs there and is answered at once when the thread is idle.
//
//     wait_probe CLI_SOCKET
//
// Standard input has a number of milliseconds on each line. For that time an empty line is sent
// every millisecond, whether or not the last one has been answered; standard output then has the
// nanoseconds from each line to its answer. Runs with real-time priority, so that the probe itself
// never waits for a processor.
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::string_view kRequest = "{\"exec\":\"\"}\n";
constexpr std::chrono::milliseconds kPeriod{1};

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

int connect_to(const char* path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        fail(path);
    }
    return fd;
}

// Waits until `until` at most. Returns the number of answers received.
long take_answers(int fd, Clock::time_point until) {
    const auto wait = std::chrono::duration_cast<std::chrono::nanoseconds>(until - Clock::now());
    const long ns = std::max<long>(0, wait.count());
    const timespec timeout{.tv_sec = ns / 1'000'000'000, .tv_nsec = ns % 1'000'000'000};
    pollfd waiting{.fd = fd, .events = POLLIN, .revents = 0};
    if (::ppoll(&waiting, 1, &timeout, nullptr) <= 0) {
        return 0;
    }
    char bytes[16384];
    const ssize_t size = ::recv(fd, bytes, sizeof bytes, MSG_DONTWAIT);
    if (size <= 0) {
        fail("the session");
    }
    return std::count(bytes, bytes + size, '\n');
}

std::vector<std::chrono::nanoseconds> probe(int fd, std::chrono::milliseconds length) {
    std::vector<Clock::time_point> sent;
    std::vector<std::chrono::nanoseconds> waits;
    const auto start = Clock::now();
    auto next = start;
    while (next < start + length || waits.size() < sent.size()) {
        const bool sending = next < start + length;
        if (sending && Clock::now() >= next) {
            sent.push_back(Clock::now());
            next += kPeriod;
            if (::send(fd, kRequest.data(), kRequest.size(), MSG_NOSIGNAL) < 0) {
                fail("the session");
            }
        }
        const auto until = sending ? next : Clock::now() + std::chrono::seconds(1);
        for (long answers = take_answers(fd, until); answers > 0; answers--) {
            waits.push_back(Clock::now() - sent[waits.size()]);
        }
    }
    return waits;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: wait_probe CLI_SOCKET\n");
        return 2;
    }
    const int fd = connect_to(argv[1]);
    const sched_param priority{.sched_priority = 1};
    if (::sched_setscheduler(0, SCHED_RR, &priority) != 0) {
        fail("real-time priority");
    }
    std::puts("ready");
    std::fflush(stdout);
    unsigned length_ms = 0;
    while (std::scanf("%u", &length_ms) == 1) {
        for (const auto wait : probe(fd, std::chrono::milliseconds(length_ms))) {
            std::printf("%lld ", static_cast<long long>(wait.count()));
        }
        std::puts("");
        std::fflush(stdout);
    }
    ::close(fd);
}
