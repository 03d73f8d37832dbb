// A started storm detector on the fake platform: its session with database 8 is up,
// every log line is in the list of calls, the list is empty. Ports are swp1, swp2, ... with
// forwarding-plane ids 101, 102, ... (0x65, 0x66, ...).
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "app_debug.h"
#include "lda_main.h"
#include "storm_detect.h"
#include "tests/support/fake_qv/fake_fp_udp.h"
#include "tests/support/fake_qv/fake_qv.h"

using fake::Lines;

inline int storm_verdict(const storm_loop_msg* msg) {
    fake::record("verdict is_loop=" + std::to_string(msg->is_loop) + " ifx=" +
                 std::to_string(msg->ifx) + (msg->reserved == 0 ? "" : " reserved word set"));
    return 7;
}

inline void storm_ready() {
    fake::record("ready");
}

class StormTest : public ::testing::Test {
 protected:
    StormTest() {
        fake::no_file("/data/lda/lda.dbg");
        app_debug_init("lda", "LDA");
        g_app_zlog_level = 5;
        fake::add_port(1);
        fake::add_port(2);
    }

    static void start() {
        storm_init(fake::master(), fake::mom_client(), storm_verdict, storm_ready);
    }

    // The calls since the last take_calls(), without log lines and look-ups.
    static Lines take_calls() {
        const Lines lines = fake::calls_without(
            {"zlog", "libddm_get_phyid_by_ifx", "libddm_get_ifx_by_phyid", "lsm_if_get_sname"});
        fake::clear_calls();
        return lines;
    }

    static Lines take_log() {
        const Lines lines = fake::calls_of({"zlog"});
        fake::clear_calls();
        return lines;
    }

    static storm_port_info* record(uint32_t phyid) {
        for (lda_list_t* node = storm_port_head.next; node != &storm_port_head; node = node->next) {
            auto* info = lda_list_record<storm_port_info>(node);
            if (info->phyid == phyid) {
                return info;
            }
        }
        return nullptr;
    }

    // "swp1, swp2" as indexes, in list order.
    static std::string enabled() {
        std::string text;
        for (lda_list_t* node = g_libstorm_head.next; node != &g_libstorm_head; node = node->next) {
            text += (text.empty() ? "" : " ") +
                    std::to_string(lda_list_record<storm_ifx_info>(node)->ifx);
        }
        return text;
    }

    // "ifx:rate/burst" of every rate setting, in list order.
    static std::string rates() {
        std::string text;
        for (lda_list_t* node = g_libstorm_rate_head.next; node != &g_libstorm_rate_head;
             node = node->next) {
            const auto* info = lda_list_record<storm_rate_info>(node);
            text += (text.empty() ? "" : " ") + std::to_string(info->ifx) + ":" +
                    std::to_string(info->rate) + "/" + std::to_string(info->burst);
        }
        return text;
    }

    static void count(uint32_t phyid, uint64_t packets, uint64_t bytes = 0) {
        const fp_acl_key key = fake::fp_key(phyid);
        const fp_counts counts = {packets, bytes};
        std_counter_msg(nullptr, &key, nullptr, &counts);
    }

    static void poll() { storm_deal_counter_timeout(nullptr); }
};

// Detection is up.
class RunningStormTest : public StormTest {
 protected:
    RunningStormTest() {
        start();
        fake::mom_connect(8);
        fake::clear_calls();
    }
};

// The requests to the plane when a port rule is removed, or installed.
inline Lines port_rule_removed(const std::string& phyid) {
    return {"fp_apply_delete " + phyid + " at type=2 port=" + phyid,
            "fp_entry_delete " + phyid + " entry 0", "fp_acl_delete " + phyid};
}

inline Lines port_rule_installed(const std::string& phyid, const std::string& meter) {
    return {"fp_acl_create " + phyid + " flags=260",
            "fp_entry_alloc",
            "fp_entry_add " + phyid + " control=1 l2_da_hit=00 l3_uc=0100000000000000",
            "fp_entry_free",
            "fp_apply_alloc " + phyid,
            "fp_apply_add " + phyid + " at type=2 port=" + phyid + " with 4 meter=" + meter +
                " counter=00000000 fwd=0006ff",
            "fp_apply_free"};
}

inline Lines shared_rule_removed() {
    return {"fp_apply_delete 0 at type=1 port=0", "fp_entry_delete 0 entry 0", "fp_acl_delete 0"};
}

inline Lines shared_rule_installed() {
    return {"fp_acl_create 0 flags=260",
            "fp_entry_alloc",
            "fp_entry_add 0 control=1 etype=4788ffff",
            "fp_entry_free",
            "fp_apply_alloc 0",
            "fp_apply_add 0 at type=1 port=0 with 4",
            "fp_apply_free"};
}

inline Lines operator+(Lines first, const Lines& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}
