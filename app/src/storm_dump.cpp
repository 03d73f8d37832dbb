// Storm detection: read-only dumps of records and statistics. None takes a lock.
#include <cstdio>

#include <qv/ddm.h>
#include <qv/lsm.h>
#include "app_cli_nodes.h"
#include "app_debug.h"
#include "lda_debug.h"
#include "storm_detect.h"

constexpr auto Sexec_app_dbg_storm_detect_eol = app_end(app_cli_storm_detect);
constexpr auto Texec_app_dbg_storm_detect_eol = app_node(Sexec_app_dbg_storm_detect_eol);
constexpr auto Sapp_dbg_storm_detect_kw = app_keyword("storm-detect", "storm-detect");
const cli_node Tapp_dbg_storm_detect_kw =
    app_node(Sapp_dbg_storm_detect_kw, Texec_app_dbg_storm_detect_eol);

int app_cli_storm_detect(cli_pcdb* pcdb) {
    if (app_cli_is_help(pcdb)) {
        return 0;
    }
    cli_printf(
        "ifx   intf_name     phyid     rate      burst     packet_count   byte_count   "
        "flow_over_times   unloop_times   poll_times   timer_notify   is_loop\r\n");
    for (const storm_port_info& info : lda_records<storm_port_info>(&storm_port_head)) {
        uint32_t ifx = 0;
        char name[STORM_NAME_BYTES] = "";
        if (storm_get_ifx_by_phyid(info.phyid, &ifx, name) != 0) {
            continue;
        }
        cli_printf("%-6d%-14s%-10x%-10d%-10d%-15ld%-13ld%-18d%-15d%-13d%-15d%-10s\n", ifx, name,
                   info.phyid, info.rate, info.burst, info.packet_count, info.byte_count,
                   info.flow_over_times, info.unloop_times, info.poll_times, info.timer_notify,
                   detect_state_to_dsp(info.is_loop));
    }
    return 0;
}

void storm_dump_all_port_info(void) {
    for (const storm_port_info& info : lda_records<storm_port_info>(&storm_port_head)) {
        uint32_t ifx = 0;
        char name[STORM_NAME_BYTES] = "";
        if (storm_get_ifx_by_phyid(info.phyid, &ifx, name) != 0) {
            continue;
        }
        printf(
            "\n (ifx: %d)phyid = %x , rate = %d, burst = %d, packet_count = %ld, byte_count = %ld,"
            "flow_over_times= %d, unloop_times = %d, poll_times = %d , timer_notify = %d, "
            "is_loop = %d \n",
            ifx, info.phyid, info.rate, info.burst, info.packet_count, info.byte_count,
            info.flow_over_times, info.unloop_times, info.poll_times, info.timer_notify,
            info.is_loop);
    }
}

void storm_dump_all_cnt(void) {
    constexpr char STARS[] = "\n*******************************************";
    puts(STARS);
    printf("flow_over_times = %u \n", std_opt_statics.flow_over_times);
    printf("get_cnt_times = %ld \n", std_opt_statics.get_cnt_times);
    printf("get_fail_times = %ld \n", std_opt_statics.get_fail_times);
    printf("notify_loop_times = %ld \n", std_opt_statics.notify_loop_times);
    printf("notify_unloop_times = %ld\n", std_opt_statics.notify_unloop_times);
    printf("fix_notify_times = %u \n", std_opt_statics.fix_notify_times);
    puts(STARS);
}

int storm_get_ifx_by_phyid(uint32_t phyid, uint32_t* ifx, char* name) {
    const int rv = libddm_get_ifx_by_phyid(phyid, ifx);
    if (rv != 0) {
        APP_ERROR("rv: %d, msg->phyid: 0x%x", rv, phyid);
        return 1;
    }
    lsm_if_get_sname(*ifx, name, STORM_NAME_BYTES);
    return 0;
}
