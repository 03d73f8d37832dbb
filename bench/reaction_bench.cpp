// The reaction of the whole agent on a simulated switch: from a loop report, set in memory, until
// the port is administratively down.
//
//     reaction_bench PORTS ROUNDS
//
// In each round ten ports loop one after another; between the rounds detection is switched off and
// on again, which brings them up. Standard output has the nanoseconds of each reaction.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <vector>

#include "bench/agent_host.h"
#include "p_bridge.pb-c.h"
#include "platform/client/port_model.h"
#include "platform/client/thread_master.h"
#include "qv/mom.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kLoops = 10;                     // the capacity of the loop table
constexpr std::chrono::milliseconds kPause{100};  // between two loops

// Notes when the awaited port is down. Main thread of the agent only.
class DownWatch final : public qv::PortObserver {
 public:
    std::future<Clock::time_point> await(uint32_t ifx) {
        ifx_ = ifx;
        down_ = {};
        return down_.get_future();
    }

    void on_changed(const qv::Port& before, const qv::Port& after) override {
        if (after.ifx == ifx_ && before.admin_up && !after.admin_up) {
            ifx_ = 0;
            down_.set_value(Clock::now());
        }
    }
    void on_added(const qv::Port&) override {}
    void on_removed(const qv::Port&) override {}
    void on_default(const qv::Port&) override {}
    void on_left_bridge(const qv::Port&) override {}
    void on_complete() override {}

 private:
    uint32_t ifx_ = 0;  // 0: none is awaited
    std::promise<Clock::time_point> down_;
};

void set_report(qv_mom_client* client, uint32_t ifx) {
    PBridge__TarnLoopIndex index = P_BRIDGE__TARN_LOOP_INDEX__INIT;
    PBridge__TarnLoopInfo record = P_BRIDGE__TARN_LOOP_INFO__INIT;
    index.ifx = ifx;
    record.index = &index;
    record.vid = 1;
    record.is_loop = 1;
    record.src_ifx = ifx;
    qv_mom_set(client, QV_MOM_APP_DB, &record.base, 0, 0);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: reaction_bench PORTS ROUNDS\n");
        return 2;
    }
    bench::AgentHost agent(static_cast<unsigned>(std::strtoul(argv[1], nullptr, 10)), {});
    qv_mom_client* client = nullptr;
    DownWatch watch;
    std::vector<uint32_t> ports;
    agent.on_main([&] {
        for (const auto& [ifx, port] : agent.ports().ports()) {
            ports.push_back(ifx);
        }
        client = qv_mom_client_init("bench", qv::master_of(agent.loop()), nullptr);
        qv_mom_client_connect(
            client, QV_MOM_APP_DB, [](void*) { return 0; }, nullptr);
        qv::platform().ports().add_observer(watch);
    });
    for (unsigned long round = std::strtoul(argv[2], nullptr, 10); round > 0; round--) {
        agent.configure({"loop-detect enable shutdown access-mode"});
        for (size_t n = 0; n < kLoops; n++) {
            std::this_thread::sleep_for(kPause);
            std::future<Clock::time_point> down;
            Clock::time_point start;
            agent.on_main([&] {
                down = watch.await(ports[n * (ports.size() / kLoops)]);
                start = Clock::now();
                set_report(client, ports[n * (ports.size() / kLoops)]);
            });
            const std::chrono::nanoseconds took = down.get() - start;
            std::printf("%lld ", static_cast<long long>(took.count()));
        }
        agent.configure({"no loop-detect enable"});
    }
    std::puts("");
}
