// Loop reports handled per second by the whole agent, records in memory.
//
//     engine_bench PORTS [Google Benchmark options]
//
// A batch of reports is set first; then the time counts until the agent's main thread has handled
// the last one: taken from the loop, unpacked, looked up and judged.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <vector>

#include "bench/agent_host.h"
#include "p_bridge.pb-c.h"
#include "platform/client/thread_master.h"
#include "qv/mom.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kBatch = 10000;
constexpr size_t kLoops = 10;  // the capacity of the loop table

struct Input {
    uint32_t ifx;
    uint32_t is_loop;
};

class Reporter {
 public:
    explicit Reporter(bench::AgentHost& agent) : agent_(agent) {
        agent_.on_main([this] {
            for (const auto& [ifx, port] : agent_.ports().ports()) {
                ports_.push_back(ifx);
            }
            client_ = qv_mom_client_init("bench", qv::master_of(agent_.loop()), nullptr);
            qv_mom_client_connect(
                client_, QV_MOM_APP_DB, [](void*) { return 0; }, nullptr);
        });
    }

    // The n-th of the ports that loop, spread over the list.
    uint32_t looped(size_t n) const { return ports_[n * (ports_.size() / kLoops)]; }

    const std::vector<uint32_t>& ports() const { return ports_; }

    // Sets the reports and returns the agent's time for them.
    std::chrono::duration<double> handle(const std::vector<Input>& reports) {
        Clock::time_point start;
        std::promise<Clock::time_point> end;
        agent_.on_main([&] {
            for (const Input& report : reports) {
                set(report);
            }
            start = Clock::now();
            // After the notices of these records in the loop's queue.
            agent_.loop().post([&end] { end.set_value(Clock::now()); });
        });
        return end.get_future().get() - start;
    }

 private:
    void set(const Input& report) {
        PBridge__TarnLoopIndex index = P_BRIDGE__TARN_LOOP_INDEX__INIT;
        PBridge__TarnLoopInfo record = P_BRIDGE__TARN_LOOP_INFO__INIT;
        index.ifx = report.ifx;
        record.index = &index;
        record.vid = 1;
        record.is_loop = report.is_loop;
        record.src_ifx = report.ifx;
        qv_mom_set(client_, QV_MOM_APP_DB, &record.base, 0, 0);
    }

    bench::AgentHost& agent_;
    qv_mom_client* client_ = nullptr;
    std::vector<uint32_t> ports_;  // ascending, as in the agent's list
};

Reporter* g_reporter;

void measure(benchmark::State& state, const std::vector<std::vector<Input>>& batches) {
    size_t next = 0;
    for (auto _ : state) {
        state.SetIterationTime(g_reporter->handle(batches[next]).count());
        next = (next + 1) % batches.size();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kBatch);
}

// Nothing changes: every port in turn repeats a report that the agent knows; ten of them loop.
void steady(benchmark::State& state) {
    std::vector<Input> reports;
    for (uint32_t n = 0; n < kBatch; n++) {
        const uint32_t ifx = g_reporter->ports()[n % g_reporter->ports().size()];
        uint32_t is_loop = 0;
        for (size_t loop = 0; loop < kLoops; loop++) {
            is_loop |= g_reporter->looped(loop) == ifx ? 1 : 0;
        }
        reports.push_back({ifx, is_loop});
    }
    measure(state, {reports});
}

// Every report changes something: ten ports loop and recover, so that the clear timer is armed and
// cancelled repeatedly.
void changing(benchmark::State& state) {
    std::vector<Input> reports;
    for (uint32_t n = 0; n < kBatch; n++) {
        reports.push_back({g_reporter->looped(n % kLoops), n / kLoops % 2 == 0 ? 0U : 1U});
    }
    measure(state, {reports});
}

BENCHMARK(steady)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(changing)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: engine_bench PORTS [Google Benchmark options]\n");
        return 2;
    }
    bench::AgentHost agent(static_cast<unsigned>(std::strtoul(argv[1], nullptr, 10)),
                           {"loop-detect enable"});
    Reporter reporter(agent);
    g_reporter = &reporter;
    std::vector<Input> loops;
    for (size_t n = 0; n < kLoops; n++) {
        loops.push_back({reporter.looped(n), 1});
    }
    reporter.handle(loops);
    benchmark::RunSpecifiedBenchmarks();
}
