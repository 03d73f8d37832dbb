// Storm detection: the configuration of each interface, and its commands.
//
// Owns two lists, both guarded by g_libstorm_mutex (recursive): the interfaces on which detection
// is enabled (g_libstorm_head) and the rate settings (g_libstorm_rate_head), one entry per
// interface index each, new entries in front. It also declares the detection records of
// storm_port_head, one per forwarding-plane port whose rule is installed, which storm_detect.h
// creates and judges. Everything runs on the main thread; the mutex is taken anyway.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include <qv/cli.h>
#include "app_lock.h"
#include "lda_index.h"
#include "lda_list.h"

// Records of all three lists are zero-filled heap blocks that begin with their links, owned by
// their list.

// An interface on which storm detection is enabled.
struct storm_ifx_info {
    lda_list_t link;
    uint32_t ifx;
    uint32_t reserved;  // 0
};
static_assert(sizeof(storm_ifx_info) == 24);

// A "storm-loop-rate" setting of an interface.
struct storm_rate_info {
    lda_list_t link;
    uint32_t rate;   // packets per second, 1 to 1000000
    uint32_t burst;  // packets, 32 to 10000; 0 when the command gave none
    uint32_t ifx;
    uint32_t reserved;  // 0
};
static_assert(sizeof(storm_rate_info) == 32);

// A forwarding-plane port whose counting rule is installed. Main thread only, no lock.
struct storm_port_info {
    lda_list_t link;
    // The rule, as installed.
    int32_t rate;     // packets per second
    uint32_t burst;   // packets, never 0
    uint32_t acl_id;  // always equal to phyid
    uint32_t phyid;
    // The judgement, advanced by the poll.
    int64_t packet_count;      // packet total at the previous poll
    int64_t byte_count;        // byte total at the previous poll
    uint32_t flow_over_times;  // consecutive polls over the rate
    uint32_t unloop_times;     // polls counted towards loop removal while in loop
    int32_t poll_times;        // kept at 0, shown by the diagnostics
    int32_t timer_notify;      // position in the 22-poll repetition cycle
    uint8_t is_loop;           // 1 while the port is judged in loop
    // Running totals, advanced by counter reports; unsigned, they wrap.
    uint64_t cur_packet_count;
    uint64_t cur_byte_count;
};
static_assert(sizeof(storm_port_info) == 88);
static_assert(offsetof(storm_port_info, rate) == 16);
static_assert(offsetof(storm_port_info, packet_count) == 32);
static_assert(offsetof(storm_port_info, flow_over_times) == 48);
static_assert(offsetof(storm_port_info, is_loop) == 64);
static_assert(offsetof(storm_port_info, cur_packet_count) == 72);

// Defaults of an interface without a rate setting: the rate is g_pps_value (storm_detect.h).
inline constexpr uint32_t STORM_DEFAULT_BURST = 1024;

extern pthread_mutex_t g_libstorm_mutex;
inline app_lock_t storm_capability;  // the same mutex, for the analysis
extern lda_list_t g_libstorm_head APP_GUARDED_BY(storm_capability);       // of storm_ifx_info
extern lda_list_t g_libstorm_rate_head APP_GUARDED_BY(storm_capability);  // of storm_rate_info
extern lda_list_t storm_port_head;                                        // of storm_port_info
extern uint32_t storm_port_num;  // records in storm_port_head

// The indexes make and drop all records of the lists: each poll looks them up many times.
extern lda_index<storm_ifx_info> g_libstorm_index APP_GUARDED_BY(storm_capability);  // by ifx
// By ifx. Changed under the mutex, read by the poll without it, on the same thread.
extern lda_index<storm_rate_info> g_libstorm_rate_index;
extern lda_index<storm_port_info> storm_port_index;  // by phyid

// Registers the two command trees at attachment point 59, then makes the mutex and, only when that
// succeeds, the two empty configuration lists. A refused tree is reported on the command line and
// does not stop the rest. Once, from storm_init.
void std_cli_init(void);

// Handlers of the two commands: print the configuration line of the interface when the running
// configuration is generated, otherwise execute. Return 0.
int cfg_port_enable_storm(cli_pcdb* pcdb);
int cfg_port_set_storm_burst_limit(cli_pcdb* pcdb);

// Enables or disables detection on an interface, unless it is so already. A rule that cannot be
// installed leaves the interface listed as enabled. Takes the lock.
void storm_set(uint32_t ifx, bool enable);

// Sets (`set`) or removes the rate setting of an interface and updates the forwarding plane where
// detection is enabled. Without memory nothing changes. Takes the lock.
void storm_set_burst_limit(uint32_t ifx, uint32_t rate, uint32_t burst, bool set);

// The rate setting of an interface, or null. Takes no lock; valid until the setting is removed.
storm_rate_info* storm_find_rate(uint32_t ifx);

// Removes an interface's enabled entry and rate setting; its rule stays. Takes the lock.
void storm_del_list(uint32_t ifx);

// Port-manager event handler, for clients that want event 2 to remove an interface's storm
// configuration and detection; `msg` begins with the interface index. Other events do nothing.
void libp_policy_std_lsm_msg_handler(uint32_t event, void* msg);

// Visibility of the trees: non-zero offers the commands to the interface, or to the range.
int testfunc_cfg_storm(cli_pcdb* pcdb);
int testfunc_cfg_rate(cli_pcdb* pcdb);
int storm_cfg_intf_mode_select(cli_pcdb* pcdb);
