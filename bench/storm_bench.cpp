// One poll of the storm detector and one counter report for each of its records.
//
//     storm_bench RECORDS [Google Benchmark options]
//
// The agent's storm modules on the platform's client library, with this program's own forwarding
// plane: it accepts every rule and reports on request. Each record has its own rate setting. A
// report counts from the driver's call on, a poll is the agent's timer "loop_check" on a clock that
// the program moves.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include "app_debug.h"
#include "platform/client/port_model.h"
#include "platform/driver/embedded/embedded_switch.h"
#include "platform/driver/forwarding_driver.h"
#include "storm_detect.h"
#include "tests/support/test_platform.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint64_t kFrameBytes = 64;

// Accepts everything at once and keeps the rules that count.
class Plane final : public qv::ForwardingDriver {
 public:
    void start(qv::ForwardingSink& sink) override { sink_ = &sink; }
    void reserve(qv::ForwardingId id, Table) override { sink_->done(id); }
    void install(qv::ForwardingId id, std::optional<uint32_t>,
                 const qv::ForwardingRule& rule) override {
        if (rule.counted) {
            counters_.push_back(id);
        }
        sink_->done(id);
    }
    void remove(qv::ForwardingId id) override { std::erase(counters_, id); }
    void remove_leftovers() override {}

    size_t counters() const { return counters_.size(); }
    void report_all() {
        for (const qv::ForwardingId id : counters_) {
            sink_->counted(id, 1, kFrameBytes);
        }
    }

 private:
    qv::ForwardingSink* sink_ = nullptr;
    std::vector<qv::ForwardingId> counters_;
};

// The detector with a rule on every port of a switch.
class Detector {
 public:
    Detector(unsigned records, const std::filesystem::path& folder) {
        platform_.settings.log_dir = folder.string();
        app_debug_init("lda", "LDA");
        qv_thread_master* const master = qv_thread_master_create();
        switch_ = std::make_unique<qv::EmbeddedSwitch>(platform_.loop(), records);
        ports_ = std::make_unique<qv::PortModel>(*switch_);
        platform_.port_model = ports_.get();
        platform_.forwarding_plane = &plane_;
        ports_->start();
        storm_init(
            master, qv_mom_client_init("bench", master, nullptr),
            [](const storm_loop_msg*) { return 0; }, [] {});
        platform_.run_ready();
        uint32_t rate = 100000;
        for (const auto& [ifx, port] : ports_->ports()) {
            storm_set_burst_limit(ifx, ++rate, 0, true);
            storm_set(ifx, true);
        }
        platform_.run_ready();
    }

    bool complete(unsigned records) const {
        return storm_port_num == records && plane_.counters() == records;
    }

    void report_all() { plane_.report_all(); }

    // The one piece of work that becomes due.
    void poll() {
        platform_.manual_clock.advance(std::chrono::seconds(STORM_POLL_PERIOD_S));
        qv_thread work;
        qv_thread_call(qv_thread_fetch(g_storm_master, &work));
    }

 private:
    qv::test::TestPlatform platform_;
    Plane plane_;
    std::unique_ptr<qv::EmbeddedSwitch> switch_;
    std::unique_ptr<qv::PortModel> ports_;
};

void reports_and_poll(benchmark::State& state, Detector& detector) {
    double reporting_s = 0;
    for (auto _ : state) {
        const int64_t polls = std_opt_statics.get_cnt_times;
        const auto start = Clock::now();
        detector.report_all();
        const auto reported = Clock::now();
        detector.poll();
        const auto end = Clock::now();
        if (std_opt_statics.get_cnt_times - polls != storm_port_num) {
            state.SkipWithError("not every record was polled once");
            return;
        }
        reporting_s += std::chrono::duration<double>(reported - start).count();
        state.SetIterationTime(std::chrono::duration<double>(end - start).count());
    }
    state.counters["reports_s"] =
        benchmark::Counter(reporting_s, benchmark::Counter::kAvgIterations);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    const unsigned records =
        argc == 2 ? static_cast<unsigned>(std::strtoul(argv[1], nullptr, 10)) : 0;
    if (records == 0) {
        std::fprintf(stderr, "usage: storm_bench RECORDS [Google Benchmark options]\n");
        return 2;
    }
    std::string pattern = (std::filesystem::temp_directory_path() / "lda-bench-XXXXXX").string();
    const std::filesystem::path folder = mkdtemp(pattern.data());
    {
        Detector detector(records, folder);
        if (!detector.complete(records)) {
            std::fprintf(stderr, "storm_bench: only %u rules\n", storm_port_num);
            return 1;
        }
        benchmark::RegisterBenchmark(
            "reports_and_poll", [&](benchmark::State& state) { reports_and_poll(state, detector); })
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
        benchmark::RunSpecifiedBenchmarks();
    }
    std::filesystem::remove_all(folder);
}
