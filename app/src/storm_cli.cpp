// Per-interface storm configuration: two lists and two commands, which install the rules.
//
// The command handlers, the port-manager handler and storm_del_list change the lists, all under
// g_libstorm_mutex. The mutex is recursive because a change calls the forwarding plane while it
// holds the mutex, and a rule that fails calls storm_del_list. The commands of one interface may be
// given in any order: a rate set before detection is enabled is stored until then.
#include "storm_cli.h"

#include <cstdio>
#include <cstring>

#include "app_cli_nodes.h"
#include "app_debug.h"
#include "lda_cli.h"
#include "storm_detect.h"

pthread_mutex_t g_libstorm_mutex;  // made by std_cli_init
lda_list_t g_libstorm_head = {&g_libstorm_head, &g_libstorm_head};
lda_list_t g_libstorm_rate_head = {&g_libstorm_rate_head, &g_libstorm_rate_head};
lda_list_t storm_port_head = {&storm_port_head, &storm_port_head};
uint32_t storm_port_num;
lda_index<storm_ifx_info> g_libstorm_index;
lda_index<storm_rate_info> g_libstorm_rate_index;
lda_index<storm_port_info> storm_port_index;

// The port manager's configuration event that removes an interface. It shares its number with the
// LSM's default event but is unrelated.
static constexpr uint32_t CONFIG_EVENT_REMOVE = 2;

static constexpr uint32_t RATE_SLOT = 0;
static constexpr uint32_t BURST_SLOT = 1;

class APP_SCOPED_LOCK storm_guard {
 public:
    storm_guard() APP_ACQUIRE(storm_capability) { pthread_mutex_lock(&g_libstorm_mutex); }
    ~storm_guard() APP_RELEASE() { pthread_mutex_unlock(&g_libstorm_mutex); }
    storm_guard(const storm_guard&) = delete;
    storm_guard& operator=(const storm_guard&) = delete;
};

static bool is_default_rate(uint32_t rate, uint32_t burst) {
    return burst == STORM_DEFAULT_BURST && rate == g_pps_value;
}

// A change of a setting that exists.
static void change_rate_info(storm_rate_info* info, bool enabled, uint32_t rate, uint32_t burst,
                             bool set) APP_REQUIRES(storm_capability) {
    const uint32_t ifx = info->ifx;
    if (!set) {
        g_libstorm_rate_index.drop(info);
        if (enabled) {
            storm_set_rate_burst(ifx, g_pps_value, STORM_DEFAULT_BURST, true);
        } else {
            storm_set_rate_burst(ifx, rate, burst, false);
        }
        return;
    }
    if (enabled && is_default_rate(rate, burst)) {
        g_libstorm_rate_index.drop(info);
        storm_set_rate_burst(ifx, g_pps_value, STORM_DEFAULT_BURST, true);
        return;
    }
    info->rate = rate;
    info->burst = burst;
    if (enabled) {
        storm_set_rate_burst(ifx, rate, burst, true);
    }
}

// Adds a setting, even one that equals the defaults. Returns false without memory.
static bool add_rate_info(uint32_t ifx, uint32_t rate, uint32_t burst)
    APP_REQUIRES(storm_capability) {
    storm_rate_info* info = g_libstorm_rate_index.add(&g_libstorm_rate_head, ifx);
    if (info == nullptr) {
        return false;
    }
    info->rate = rate;
    info->burst = burst;
    info->ifx = ifx;
    return true;
}

storm_rate_info* storm_find_rate(uint32_t ifx) {
    return g_libstorm_rate_index.find(ifx);
}

void storm_set(uint32_t ifx, bool enable) {
    const storm_guard lock;
    storm_rate_info* rate_info = storm_find_rate(ifx);
    storm_ifx_info* ifx_info = g_libstorm_index.find(ifx);
    if (ifx_info != nullptr) {
        if (!enable) {
            g_libstorm_index.drop(ifx_info);
            storm_set_rate_burst(ifx, 0, 0, false);
        }
        return;
    }
    if (!enable) {
        return;
    }
    ifx_info = g_libstorm_index.add(&g_libstorm_head, ifx);
    // Kept on purpose: without memory the rule is installed but the interface is not listed.
    if (ifx_info != nullptr) {
        ifx_info->ifx = ifx;
    }
    uint32_t rate = g_pps_value;
    uint32_t burst = STORM_DEFAULT_BURST;
    if (rate_info != nullptr) {
        rate = rate_info->rate;
        burst = rate_info->burst;
        if (is_default_rate(rate, burst)) {
            g_libstorm_rate_index.drop(rate_info);
        }
    }
    storm_set_rate_burst(ifx, rate, burst, true);
}

void storm_set_burst_limit(uint32_t ifx, uint32_t rate, uint32_t burst, bool set) {
    const storm_guard lock;
    storm_rate_info* rate_info = storm_find_rate(ifx);
    const bool enabled = g_libstorm_index.find(ifx) != nullptr;
    if (rate_info != nullptr) {
        change_rate_info(rate_info, enabled, rate, burst, set);
        return;
    }
    if (!set) {
        return;
    }
    if (enabled && is_default_rate(rate, burst)) {
        return;
    }
    if (!add_rate_info(ifx, rate, burst)) {
        printf("## [%s] [%d] no mem", __func__, __LINE__);
        return;
    }
    if (enabled) {
        storm_set_rate_burst(ifx, rate, burst, true);
    }
}

void storm_del_list(uint32_t ifx) {
    APP_INFO("enter ifx %d", ifx);
    {
        const storm_guard lock;
        if (storm_ifx_info* info = g_libstorm_index.find(ifx); info != nullptr) {
            g_libstorm_index.drop(info);
            APP_INFO("release storm_ifx_info");
        }
        if (storm_rate_info* info = storm_find_rate(ifx); info != nullptr) {
            g_libstorm_rate_index.drop(info);
            APP_INFO("release storm_rate_info");
        }
    }
    APP_INFO("exit");
}

void libp_policy_std_lsm_msg_handler(uint32_t event, void* msg) {
    if (msg == nullptr) {
        printf("std:receive lsm event=%d, msgp=NULL\n", event);
        return;
    }
    if (event != CONFIG_EVENT_REMOVE) {
        return;
    }
    uint32_t ifx;
    memcpy(&ifx, msg, sizeof(ifx));
    storm_set_burst_limit(ifx, 0, 0, false);
    const storm_guard lock;
    if (storm_ifx_info* info = g_libstorm_index.find(ifx); info != nullptr) {
        g_libstorm_index.drop(info);
        storm_set_rate_burst(ifx, 0, 0, false);
    }
}

int cfg_port_enable_storm(cli_pcdb* pcdb) {
    const auto ifx = static_cast<uint32_t>(pcdb->ifx);
    if (app_cli_is_generating(pcdb)) {
        const storm_guard lock;
        if (g_libstorm_index.find(ifx) != nullptr) {
            c2p_printf(pcdb, 1, "storm-loop-detect enable");
        }
        return 0;
    }
    storm_set(ifx, !app_cli_has_prefix(pcdb));
    return 0;
}

int cfg_port_set_storm_burst_limit(cli_pcdb* pcdb) {
    const auto ifx = static_cast<uint32_t>(pcdb->ifx);
    if (!app_cli_is_generating(pcdb)) {
        storm_set_burst_limit(ifx, static_cast<uint32_t>(pcdb->number[RATE_SLOT]),
                              static_cast<uint32_t>(pcdb->number[BURST_SLOT]),
                              !app_cli_has_prefix(pcdb));
        return 0;
    }
    const storm_guard lock;
    const storm_rate_info* info = storm_find_rate(ifx);
    if (info == nullptr) {
        return 0;
    }
    if (info->burst == 0) {
        c2p_printf(pcdb, 1, "storm-loop-rate ratelimit %d", info->rate);
    } else {
        c2p_printf(pcdb, 1, "storm-loop-rate ratelimit %d burst %d", info->rate, info->burst);
    }
    return 0;
}

int storm_cfg_intf_mode_select(cli_pcdb* pcdb) {
    return lda_cfg_intf_mode_select(pcdb);  // the same ports as the other interface command
}

int testfunc_cfg_storm(cli_pcdb* pcdb) {
    return storm_cfg_intf_mode_select(pcdb);
}

int testfunc_cfg_rate(cli_pcdb* pcdb) {
    return storm_cfg_intf_mode_select(pcdb);
}
