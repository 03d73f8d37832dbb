// Storm detection: start-up, session with the forwarding plane, counter reports and judgement.
//
// storm_init runs once, from the role callback. When database 8 connects, the session callbacks
// register with the forwarding-plane service and report readiness. A record is made when its rule
// is installed and dropped with it (storm_rule.cpp). Its judgement has two states:
//
//   quiet    three polls in a row over the rate: is_loop is set, and the verdict is reported.
//   in loop  the verdict is repeated about every 90 seconds; after ten polls without a run of three
//            over the rate, is_loop is cleared, and the end is reported.
//
// The receiver of a verdict may drop any record, including the one being judged; poll_next and
// the results of notify_verdict are there for that. The poll arms its timer again at its end, so
// the period runs from the end of one poll to the start of the next. Records and their counters
// belong to the main thread and have no lock.
#include "storm_detect.h"

#include <cstring>

#include <qv/cap.h>
#include <qv/ddm.h>
#include "app_debug.h"
#include "lda_main.h"

qv_thread_master* g_storm_master;
qv_mom_client* g_storm_global;
qv_thread* g_storm_thread;
storm_notify_msg_proc notify_msg_proc;
storm_notify_ready_msg notify_ready_msg;
uint32_t g_pps_value = 8000;
fp_udp_acl_handler g_storm_udp_handler;
const fp_udp_mgr* storm_udp_mgr;
storm_opt_statics std_opt_statics;

static constexpr char CLIENT_NAME[] = "LDA";
static constexpr char CAPABILITY_KEY[] = "p_cmps_sln/lda/storm_dct_ratelimit/default_value";

static constexpr uint32_t LOOP_POLLS = 3;     // in a row over the rate
static constexpr uint32_t UNLOOP_POLLS = 10;  // counted while in loop
static constexpr int32_t REPEAT_POLLS = 22;   // about 90 seconds

static int arm_poll_timer() {
    return qv_thread_insert_timer(g_storm_master, &g_storm_thread, storm_deal_counter_timeout,
                                  nullptr, STORM_POLL_PERIOD_S, "loop_check");
}

// Opens the session with database 8; the first failure ends the registration.
static void storm_mom_udp_db_reg_callback() {
    APP_INFO("QV_MOM_APP_DB reg start\n");
    int rv = qv_mom_client_connect(g_storm_global, QV_MOM_FP_DB, storm_mom_udp_db_connect, nullptr);
    if (rv != 0) {
        APP_ERROR("qv_mom_client_connect error[%d]\n", rv);
        return;
    }
    rv = qv_mom_client_set_reconnect_cb(g_storm_global, QV_MOM_FP_DB, storm_mom_udp_db_reconnect,
                                        nullptr);
    if (rv != 0) {
        APP_ERROR("qv_mom_client_set_reconnect_cb error[%d]\n", rv);
        return;
    }
    rv = qv_mom_client_set_disconnect_cb(g_storm_global, QV_MOM_FP_DB, storm_mom_udp_db_disconnect,
                                         nullptr);
    if (rv != 0) {
        // Kept on purpose: reported in the words of the reconnect registration.
        APP_ERROR("qv_mom_client_set_reconnect_cb error[%d]\n", rv);
        return;
    }
    APP_INFO("QV_MOM_APP_DB reg end\n");
}

// ---- Start-up ----

int storm_init(qv_thread_master* master, qv_mom_client* client, storm_notify_msg_proc verdict,
               storm_notify_ready_msg ready) {
    g_storm_master = master;
    g_storm_global = client;
    notify_msg_proc = verdict;
    notify_ready_msg = ready;
    std_load_cap_value();
    lda_list_init(&storm_port_head);
    storm_port_index.init();
    g_storm_udp_handler.acl_success = storm_install_on_acl_success;
    g_storm_udp_handler.acl_failed = storm_install_on_acl_failed;
    g_storm_udp_handler.entry_success = storm_install_on_ace_success;
    g_storm_udp_handler.entry_failed = storm_install_on_ace_failed;
    g_storm_udp_handler.apply_success = storm_install_on_apply_success;
    g_storm_udp_handler.apply_failed = storm_install_on_apply_failed;
    g_storm_udp_handler.counter = std_counter_msg;
    storm_mom_udp_db_reg_callback();
    std_cli_init();
    const int rv = arm_poll_timer();
    if (rv != 0) {
        APP_ERROR("storm_init qv_thread_insert_timer error %d\n", rv);
    }
    APP_WARN("storm init done.");
    return 0;
}

void std_load_cap_value(void) {
    int rv = libqv_cap_init(CLIENT_NAME, CAPABILITY_KEY);
    if (rv != 0) {
        APP_ERROR("libqv_cap_init, failed rv %d", rv);
        return;
    }
    int32_t value = -1;
    rv = libqv_cap_get_capacity_int32(CLIENT_NAME, CAPABILITY_KEY, &value, -1);
    if (rv == 0 && value >= 0) {
        g_pps_value = static_cast<uint32_t>(value);
    }
    APP_INFO("url %s, value %d", CAPABILITY_KEY, g_pps_value);
}

int storm_mom_udp_db_connect(void* arg) {
    APP_INFO("storm_mom_local_db_connect\n");
    fp_udp_register_app_type(STORM_APP_NAME);
    fp_udp_cgst_register(g_storm_global, QV_MOM_FP_DB, CLIENT_NAME);
    fp_udp_register_acl_handler(g_storm_global, QV_MOM_FP_DB, &g_storm_udp_handler);
    storm_udp_mgr = fp_udp_get_mgr();
    storm_fp_expire_add(arg);
    notify_ready_msg();
    return 0;
}

int storm_mom_udp_db_reconnect(void* arg) {
    APP_INFO("storm_mom_local_db_reconnect\n");
    if (mom_storm_ready != 0) {
        fp_udp_register_acl_handler(g_storm_global, QV_MOM_FP_DB, &g_storm_udp_handler);
        return 0;
    }
    return storm_mom_udp_db_connect(arg);
}

int storm_mom_udp_db_disconnect(void*) {
    APP_INFO("storm_mom_local_db_disconnect\n");
    return 0;
}

void storm_fp_expire_add(void* arg) {
    if (storm_udp_mgr == nullptr) {
        APP_ERROR("storm_udp_mgr is NULL !");
        return;
    }
    storm_udp_mgr->acl_expire_add(arg, STORM_APP_NAME);
    storm_udp_mgr->entry_expire_add(arg, STORM_APP_NAME);
    storm_udp_mgr->apply_expire_add(arg, STORM_APP_NAME);
}

// ---- Judgement ----

// Returns the first record of the list with this ACL, or null. Every port's ACL has the port's own
// number, so the index finds it. Only an ACL without a record, or a record whose ACL was changed,
// costs a walk.
static storm_port_info* find_by_acl(uint32_t acl_id) {
    storm_port_info* likely = storm_port_index.find(acl_id);
    if (likely != nullptr && likely->acl_id == acl_id) {
        return likely;
    }
    for (storm_port_info& info : lda_records<storm_port_info>(&storm_port_head)) {
        if (info.acl_id == acl_id) {
            return &info;
        }
    }
    return nullptr;
}

void std_counter_msg(qv_mom_client*, const fp_acl_key* acl_key, void*, const fp_counts* counts) {
    // The terminator is compared too: a longer name with the same start is another application.
    if (memcmp(acl_key->app, STORM_APP_NAME, sizeof(STORM_APP_NAME)) != 0) {
        return;
    }
    APP_DEBUG("counter acl id %u, pkts_cnt %lu, bytes_cnt %lu", acl_key->acl_id, counts->packets,
              counts->bytes);
    if (storm_port_info* info = find_by_acl(acl_key->acl_id); info != nullptr) {
        info->cur_packet_count += counts->packets;
        info->cur_byte_count += counts->bytes;
    }
}

// The record that the running poll judges next.
static lda_list_t* poll_next;

void storm_port_drop(storm_port_info* info) {
    if (poll_next == &info->link) {
        poll_next = poll_next->next;
    }
    storm_port_index.drop(info);
    --storm_port_num;
}

int storm_deal_counter_timeout(qv_thread*) {
    for (lda_list_t* node = storm_port_head.next; node != &storm_port_head; node = poll_next) {
        poll_next = node->next;
        storm_deal_counter(lda_list_record<storm_port_info>(node));
    }
    const int rv = arm_poll_timer();
    if (rv != 0) {
        APP_ERROR("storm_init qv_thread_insert_timer error %d\n", rv);
    }
    return 0;
}

// Totals of one poll.
struct poll_totals {
    int64_t old_packets;
    int64_t new_packets;
    int64_t old_bytes;
    int64_t new_bytes;
};

static poll_totals take_totals(storm_port_info* info) {
    const poll_totals totals = {.old_packets = info->packet_count,
                                .new_packets = static_cast<int64_t>(info->cur_packet_count),
                                .old_bytes = info->byte_count,
                                .new_bytes = static_cast<int64_t>(info->cur_byte_count)};
    info->packet_count = totals.new_packets;
    info->byte_count = totals.new_bytes;
    ++std_opt_statics.get_cnt_times;
    return totals;
}

// The configured rate decides, not the one that the rule was installed with.
static uint32_t judged_rate(uint32_t phyid) {
    uint32_t ifx = 0;
    if (libddm_get_ifx_by_phyid(phyid, &ifx) != 0) {
        return g_pps_value;
    }
    const storm_rate_info* rate_info = storm_find_rate(ifx);
    return rate_info != nullptr ? rate_info->rate : g_pps_value;
}

// Kept on purpose: the threshold is a 32-bit product and wraps for rates of 2^30 and more.
static bool is_over_rate(const poll_totals& totals, uint32_t rate) {
    const uint64_t packets =
        static_cast<uint64_t>(totals.new_packets) - static_cast<uint64_t>(totals.old_packets);
    const uint32_t threshold = rate * static_cast<uint32_t>(STORM_POLL_PERIOD_S);
    return packets > threshold;
}

// Reports the verdict of a record. Returns false when the receiver has dropped the record.
static bool notify_verdict(storm_port_info* info) {
    const uint32_t phyid = info->phyid;
    storm_loop_msg msg;
    storm_notify_lda(&msg, info);
    return storm_port_index.find(phyid) == info;
}

// Handles the third poll in a row over the rate. Returns false when the record has been dropped.
static bool enter_loop(storm_port_info* info, const poll_totals& totals) {
    constexpr char OPERATION[] = "storm_deal_counter";
    APP_INFO_AS(OPERATION, "***the time poll = %d", info->timer_notify);
    APP_INFO_AS(OPERATION, "[phyid = %x] old packet_count = %ld, new packet_count = %ld",
                info->phyid, totals.old_packets, totals.new_packets);
    APP_INFO_AS(OPERATION, "[phyid = %x] old byte_count = %ld, new byte_count = %ld", info->phyid,
                totals.old_bytes, totals.new_bytes);
    APP_INFO_AS(OPERATION, "!!!!!!! phyid = %x notity to lda loop ", info->phyid);
    info->is_loop = 1;
    ++std_opt_statics.notify_loop_times;
    return notify_verdict(info);
}

// One poll of a record in loop: repeats the verdict once a cycle, and counts towards its end.
// Kept on purpose: one or two polls over the rate count towards the end like quiet ones; only a run
// of three starts the count again.
static void poll_in_loop(storm_port_info* info) {
    constexpr char OPERATION[] = "storm_deal_counter";
    if (info->timer_notify == REPEAT_POLLS) {
        APP_INFO_AS(OPERATION, "!!!!!!! 90s notity to lda loop phyid = %x", info->phyid);
        ++std_opt_statics.fix_notify_times;
        if (!notify_verdict(info)) {
            return;
        }
        // The engine may have changed the record meanwhile.
        if (info->timer_notify == REPEAT_POLLS) {
            info->timer_notify = 0;
        }
    }
    if (info->is_loop == 0) {
        return;
    }
    if (info->flow_over_times >= LOOP_POLLS) {
        info->unloop_times = 0;
        return;
    }
    if (++info->unloop_times == UNLOOP_POLLS) {
        APP_INFO_AS(OPERATION, "!!!!! phyid = %x notity to lda loop remove", info->phyid);
        info->unloop_times = 0;
        info->is_loop = 0;
        ++std_opt_statics.notify_unloop_times;
        notify_verdict(info);
    }
}

void storm_deal_counter(storm_port_info* info) {
    const poll_totals totals = take_totals(info);
    APP_DEBUG("***the time poll = %d", info->timer_notify);
    APP_DEBUG("[phyid = %x] old packet_count = %ld, new packet_count = %ld", info->phyid,
              totals.old_packets, totals.new_packets);
    APP_DEBUG("[phyid = %x] old byte_count = %ld, new byte_count = %ld", info->phyid,
              totals.old_bytes, totals.new_bytes);
    if (is_over_rate(totals, judged_rate(info->phyid))) {
        ++info->flow_over_times;
        ++info->timer_notify;
        ++std_opt_statics.flow_over_times;
        // Exactly three: a storm that lasts is reported once.
        if (info->flow_over_times == LOOP_POLLS && info->is_loop == 0 &&
            !enter_loop(info, totals)) {
            return;
        }
    } else {
        info->flow_over_times = 0;
        std_opt_statics.flow_over_times = 0;
        ++info->timer_notify;
    }
    if (info->is_loop == 1) {
        poll_in_loop(info);
    } else if (info->timer_notify == REPEAT_POLLS) {
        info->timer_notify = 0;
    }
}

int storm_constuct_info(storm_loop_msg* msg, uint32_t phyid, uint8_t is_loop) {
    memset(msg, 0, sizeof(*msg));
    msg->is_loop = is_loop;
    uint32_t ifx = 0;
    const int rv = libddm_get_ifx_by_phyid(phyid, &ifx);
    if (rv != 0) {
        APP_ERROR("rv: %d, msg->phyid: 0x%x", rv, phyid);
        return -1;
    }
    msg->ifx = ifx;
    return 0;
}

int storm_notify_lda(storm_loop_msg* msg, storm_port_info* info) {
    if (storm_constuct_info(msg, info->phyid, info->is_loop) != 0) {
        APP_ERROR("phyid to ifx is failed \n");
        return -1;
    }
    return notify_msg_proc(msg);
}
