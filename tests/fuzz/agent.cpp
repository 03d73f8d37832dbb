#include "tests/fuzz/agent.h"

#include <cstdio>
#include <cstdlib>

#include "app_debug.h"
#include "lda_bridge.h"
#include "lda_cli.h"
#include "lda_cli_delivery.h"
#include "lda_lsm.h"
#include "lda_main.h"
#include "lda_state.h"
#include "platform/root/platform.h"
#include "storm_detect.h"
#include "tests/support/manual_clock.h"

namespace qv::fuzz {
namespace {

class SilentLog final : public SystemLog {
 public:
    void write(const SystemLogMessage& /*message*/) override {}
};

test::ManualClock* g_clock;

void drop_queued() {
    lda_cli_msg_lock();
    lda_list_t* const head = &g_lda_cli_msg_set->list;
    while (head->next != head) {
        lda_list_t* const first = head->next;
        lda_list_unlink(first);
        free(first);
    }
    g_lda_cli_msg_set->count = 0;
    lda_cli_msg_unlock();
}

// The steps of main() and its role callback, in order.
void start() {
    g_lda_master = qv_thread_master_create();
    g_lda_global = qv_mom_client_init("LDA", g_lda_master, nullptr);
    require(g_lda_global != nullptr && lda_init() == 0 && lda_cli_init() == 0, "start");
    lda_loop_policy_timer();
    require(lda_lsm_init() == 0 && lda_bridge_init() == 0, "ports");
    require(lda_mom_cfg_db_reg_callback() == 0 && lda_mom_local_db_reg_callback() == 0 &&
                lda_mom_app_db_reg_callback() == 0,
            "sessions");
    storm_init(g_lda_master, g_lda_global, lda_loop_result_set_for_storm, lda_storm_ready);
}

}  // namespace

void require(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "does not hold: %s\n", what);
        std::abort();
    }
}

void start_agent() {
    if (g_clock != nullptr) {
        return;
    }
    PlatformConfig config;
    config.embedded_ports = 4;
    config.cli_socket = "fuzz.sock";
    auto clock = std::make_unique<test::ManualClock>();
    g_clock = clock.get();
    static auto platform =
        make_platform(std::move(config), std::move(clock), std::make_unique<SilentLog>());
    install_platform(*platform);
    g_dbg_slog_level = 3;  // every line is formatted
    g_dbg_slog_max = 0;
    start();
    let_agent_run();
    require(cli_ready == 1, "ready");
}

void let_agent_run() {
    test::run_for(platform().loop(), *g_clock, std::chrono::seconds(1));
    drop_queued();
}

MemoryStore& store() {
    return dynamic_cast<MemoryStore&>(platform().store());
}

}  // namespace qv::fuzz
