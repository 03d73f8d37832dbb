// Measures the report rate of a subscriber: sets loop reports as fast as Redis takes them, the last
// one with a loop, and waits until the subscriber announces a loop entry.
//
//     report_flood REDIS_SOCKET COUNT FIRST_IFX PORTS LOOP_IFX [PID]
//
// The reports cycle through PORTS interfaces from FIRST_IFX on. With a process number the
// subscriber is stopped while the reports are sent, so that the time, counted from its
// continuation, is its own and not that of Redis. Standard output: the nanoseconds.
#include <signal.h>

#include <chrono>

#include "bench/redis_link.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr uint32_t kReportsPerWrite = 64;

void send_reports(redisContext* connection, uint32_t count, uint32_t first, uint32_t ports,
                  uint32_t loop_ifx) {
    for (uint32_t sent = 0; sent < count;) {
        uint32_t batch = 0;
        for (; batch < kReportsPerWrite && sent < count; batch++, sent++) {
            const bool last = sent + 1 == count;
            bench::append_report(connection, last ? loop_ifx : first + sent % ports, last ? 1 : 0);
        }
        for (uint32_t n = 0; n < batch; n++) {
            bench::take_replies(connection);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 6) {
        std::fprintf(stderr,
                     "usage: report_flood REDIS_SOCKET COUNT FIRST_IFX PORTS LOOP_IFX [PID]\n");
        return 2;
    }
    const auto number = [argv](int n) {
        return static_cast<uint32_t>(std::strtoul(argv[n], nullptr, 10));
    };
    const auto subscriber = static_cast<pid_t>(argc > 6 ? number(6) : 0);
    const bench::Connection reports = bench::connect(argv[1]);
    const bench::Connection entries = bench::connect(argv[1]);
    bench::subscribe(entries.get(), bench::kEntries);
    if (subscriber > 0) {
        ::kill(subscriber, SIGSTOP);
    }
    auto start = Clock::now();
    send_reports(reports.get(), number(2), number(3), number(4), number(5));
    if (subscriber > 0) {
        start = Clock::now();
        ::kill(subscriber, SIGCONT);
    }
    // The first notice that announces an entry; earlier ones withdraw.
    while (true) {
        const bench::Reply message = bench::next_reply(entries.get());
        const std::string_view notice = bench::payload(message);
        if (!notice.empty() && notice[0] == 0) {
            break;
        }
    }
    const std::chrono::nanoseconds took = Clock::now() - start;
    std::printf("%lld\n", static_cast<long long>(took.count()));
}
