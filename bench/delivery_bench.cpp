// Lines that the delivery thread executes per second through real sessions, and how long other work
// of the main thread waits meanwhile.
//
//     delivery_bench PORTS SECONDS
//
// Detection is switched off and on again until the time is over; each switch makes the delivery
// thread execute two lines for each port and two global ones. This program posts a probe to the
// main loop every millisecond; its delay is the wait of any other event. Standard output: one JSON
// object, times in nanoseconds.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "bench/agent_host.h"
#include "lda_cli_delivery.h"
#include "lda_cli_post.h"
#include "qv/cli.h"
#include "qv/thread.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::nanoseconds;

std::atomic<uint64_t> g_lines = 0;
std::atomic<int64_t> g_longest_work_ns = 0;  // one piece of work of the main loop

void keep_longest(nanoseconds took) {
    if (took.count() > g_longest_work_ns) {
        g_longest_work_ns = took.count();
    }
}

}  // namespace

extern "C" {

int __real_cli_execute_cmd_buf_fd(int session, const char* line, const cli_mode* mode,
                                  cli_output_cb output, void* user);
void __real_qv_thread_call(qv_thread* thread);

int __wrap_cli_execute_cmd_buf_fd(int session, const char* line, const cli_mode* mode,
                                  cli_output_cb output, void* user) {
    g_lines++;
    return __real_cli_execute_cmd_buf_fd(session, line, mode, output, user);
}

void __wrap_qv_thread_call(qv_thread* thread) {
    const auto start = Clock::now();
    __real_qv_thread_call(thread);
    keep_longest(Clock::now() - start);
}

}  // extern "C"

namespace {

// How long the main loop lets posted work wait, once every millisecond until `done`.
std::vector<nanoseconds> probe(bench::AgentHost& agent, const std::atomic<bool>& done) {
    std::vector<nanoseconds> delays;
    while (!done) {
        const auto posted = Clock::now();
        nanoseconds delay{};
        agent.on_main([&] { delay = Clock::now() - posted; });
        delays.push_back(delay);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return delays;
}

void switch_detection(bench::AgentHost& agent, uint32_t type) {
    agent.on_main([type] {
        lda_cli_msg_t message = {};
        message.mid = LDA_MID_BOTH;
        message.type = type;
        lda_cli_cmd_send(&message);
    });
    agent.wait_delivered();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: delivery_bench PORTS SECONDS\n");
        return 2;
    }
    bench::AgentHost agent(static_cast<unsigned>(std::strtoul(argv[1], nullptr, 10)),
                           {"loop-detect enable"});
    const auto limit = std::chrono::duration<double>(std::strtod(argv[2], nullptr));

    std::atomic<bool> done = false;
    std::vector<nanoseconds> delays;
    std::thread prober([&] { delays = probe(agent, done); });
    g_lines = 0;
    g_longest_work_ns = 0;
    const auto start = Clock::now();
    while (Clock::now() - start < limit) {
        switch_detection(agent, LDA_CLI_MSG_DISABLE);
        switch_detection(agent, LDA_CLI_MSG_ENABLE);
    }
    const std::chrono::duration<double> took = Clock::now() - start;
    const uint64_t lines = g_lines;
    const int64_t longest_work_ns = g_longest_work_ns;
    done = true;
    prober.join();

    std::sort(delays.begin(), delays.end());
    const auto at = [&](double part) {
        return static_cast<long long>(
            delays[static_cast<size_t>(part * static_cast<double>(delays.size() - 1))].count());
    };
    std::printf(
        "{\"lines\": %llu, \"seconds\": %.3f, \"delay_p50\": %lld, \"delay_p99\": %lld, "
        "\"delay_longest\": %lld, \"work_longest\": %lld}\n",
        static_cast<unsigned long long>(lines), took.count(), at(0.5), at(0.99), at(1.0),
        static_cast<long long>(longest_work_ns));
}
