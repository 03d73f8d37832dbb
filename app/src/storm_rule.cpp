// Storm detection: the rules in the forwarding plane and the port records.
//
// A watched port has an ACL with its forwarding-plane id, with one entry (destination not known)
// and one apply (meter, counter). While any port is watched, ACL 0 with an entry for MPLS unicast
// frames is applied to the whole switch. The operations are asynchronous and their return values
// are ignored; among their results only a failed apply has an effect. When an entry or apply cannot
// be built, the installation ends, and the objects created before stay.
#include <cstring>

#include <qv/ddm.h>
#include "app_debug.h"
#include "storm_detect.h"

static constexpr uint32_t MPLS_ACL_ID = 0;
static constexpr uint32_t MPLS_PORT = 0;
static constexpr uint16_t ETYPE_MPLS = 0x8847;
static constexpr uint32_t ENTRY_INDEX = 0;  // every ACL here has one entry

static constexpr size_t METER_BYTES = 48;
static constexpr size_t METER_BURST_OFFSET = 24;
static constexpr size_t L3_UC_BYTES = 8;

static fp_acl_key acl_key_of(uint32_t acl_id, uint32_t flags) {
    fp_acl_key key = {};
    memcpy(key.app, STORM_APP_NAME, sizeof(STORM_APP_NAME));
    key.acl_id = acl_id;
    key.flags = flags;
    return key;
}

static fp_apply_point apply_point_of(uint32_t port, uint32_t type) {
    fp_apply_point point = {};
    memcpy(point.app, STORM_APP_NAME, sizeof(STORM_APP_NAME));
    point.port = port;
    point.type = type;
    return point;
}

// Builds an item and adds it to an entry or an apply, which both copy it. False when the service
// refuses the item; the rule must not be installed without it.
template <class Target>
static bool add_item(Target* target, const char* name, uint32_t item_class, const void* value,
                     size_t length) {
    fp_item item = {};
    int rv = target->build_item(&item, name, item_class, value, static_cast<uint32_t>(length));
    if (rv == 0) {
        rv = target->add_item(target, &item);
    }
    if (rv != 0) {
        APP_ERROR("item %s error[%d]", name, rv);
    }
    return rv == 0;
}

static fp_entry* std_ace_alloc() {
    if (storm_udp_mgr == nullptr) {
        APP_ERROR("storm_udp_mgr is NULL !");
        return nullptr;
    }
    fp_entry* entry = storm_udp_mgr->entry_alloc();
    if (entry != nullptr) {
        entry->control = 1;
    }
    return entry;
}

static fp_apply* std_apply_alloc(const fp_acl_key* key) {
    if (storm_udp_mgr == nullptr) {
        APP_ERROR("storm_udp_mgr is NULL !");
        return nullptr;
    }
    return storm_udp_mgr->apply_alloc(key);
}

// Adds the entry to its ACL and frees it.
static void install_entry(uint32_t acl_id, fp_entry* entry) {
    const fp_acl_key key = acl_key_of(acl_id, 0);
    storm_udp_mgr->entry_add(g_storm_global, &key, entry);
    storm_udp_mgr->entry_free(entry);
}

// Applies at the point and frees the apply.
static void install_apply(uint32_t port, uint32_t type, fp_apply* apply) {
    const fp_apply_point point = apply_point_of(port, type);
    storm_udp_mgr->apply_add(g_storm_global, &point, FP_APPLY_PRIORITY, apply);
    storm_udp_mgr->apply_free(apply);
}

// Installs the shared rule for MPLS unicast frames. 0, or -1 with everything removed again.
static int storm_add_mpls_fp() {
    APP_INFO("add mpls entry");
    std_acl_create(MPLS_ACL_ID);
    APP_INFO("set_mpls_ace, acl_id:%d.\n", MPLS_ACL_ID);
    fp_entry* entry = std_ace_alloc();
    if (entry == nullptr) {
        APP_ERROR("alloc ace fail.");
        std_acl_delete(MPLS_ACL_ID);
        APP_ERROR("alloc ace error\n");
        return -1;
    }
    const uint16_t etype[2] = {ETYPE_MPLS, 0xFFFF};
    if (!add_item(entry, "etype", FP_ITEM_MATCH, etype, sizeof(etype))) {
        storm_udp_mgr->entry_free(entry);
        std_acl_delete(MPLS_ACL_ID);
        return -1;
    }
    install_entry(MPLS_ACL_ID, entry);

    APP_INFO("aclid %d\n", MPLS_ACL_ID);
    const fp_acl_key key = acl_key_of(MPLS_ACL_ID, 0);
    fp_apply* apply = std_apply_alloc(&key);
    if (apply == nullptr) {
        APP_ERROR("Error: failed to alloc_apply.");
        std_ace_entry_delete(MPLS_ACL_ID);
        std_acl_delete(MPLS_ACL_ID);
        APP_ERROR("rv: %d", -1);
        return -1;
    }
    install_apply(MPLS_PORT, FP_APPLY_GLOBAL, apply);
    APP_INFO("done");
    return 0;
}

// The matches of a port rule: frames whose destination is not known.
static bool add_port_matches(fp_entry* entry) {
    const uint8_t missed = 0;
    uint8_t l3_uc[L3_UC_BYTES] = {};
    const uint32_t one = 1;
    memcpy(l3_uc, &one, sizeof(one));
    return add_item(entry, "l2_da_hit", FP_ITEM_MATCH, &missed, sizeof(missed)) &&
           add_item(entry, "l3_uc", FP_ITEM_MATCH, l3_uc, sizeof(l3_uc));
}

// The actions of a port rule: meter, count, forward frames within the rate.
static bool add_port_actions(fp_apply* apply, uint32_t rate, uint32_t burst) {
    uint8_t meter[METER_BYTES] = {};
    const uint64_t meter_rate = rate;
    memcpy(meter, &meter_rate, sizeof(meter_rate));
    memcpy(meter + METER_BURST_OFFSET, &burst, sizeof(burst));
    const uint32_t counter = 0;
    const uint8_t fwd[3] = {0x00, 0x06, 0xFF};
    return add_item(apply, "meter", FP_ITEM_ACTION, meter, sizeof(meter)) &&
           add_item(apply, "counter", FP_ITEM_ACTION, &counter, sizeof(counter)) &&
           add_item(apply, "fwd", FP_ITEM_ACTION, fwd, sizeof(fwd));
}

// Notifies the end of a record's loop, if it has one. Returns the port's record, or null when the
// notification has dropped it.
static storm_port_info* end_loop(storm_port_info* info) {
    if (info->is_loop != 1) {
        return info;
    }
    const uint32_t phyid = info->phyid;
    info->is_loop = 0;
    storm_loop_msg msg;
    storm_notify_lda(&msg, info);
    return storm_port_index.find(phyid);
}

static void reset_judgement(storm_port_info* info) {
    // Kept on purpose: the running totals stay, so the next poll measures everything counted since
    // the rule was first installed.
    info->packet_count = 0;
    info->byte_count = 0;
    info->flow_over_times = 0;
    info->unloop_times = 0;
    info->poll_times = 0;
    info->timer_notify = 0;
    info->is_loop = 0;
}

// Replaces the rule of a record, under the same ACL id, for a new rate or burst. A notification or
// a failed apply may drop the record in between; then the rule is not installed.
static void update_port_info(storm_port_info* info, uint32_t rate, uint32_t burst) {
    constexpr char OPERATION[] = "storm_set_rate_burst";
    if (static_cast<uint32_t>(info->rate) == rate && info->burst == burst) {
        APP_INFO_AS(OPERATION, "the same rate = %d and burst = %d", rate, burst);
        return;
    }
    const uint32_t phyid = info->phyid;
    int rv = storm_del_storm_fp(phyid);
    if (rv != 0) {
        APP_ERROR_AS(OPERATION, "rv: %d", rv);
        return;
    }
    info = end_loop(info);
    if (info == nullptr) {
        return;
    }
    reset_judgement(info);
    rv = storm_enable_by_fp(rate, burst, phyid);
    if (rv != 0) {
        APP_ERROR_AS(OPERATION, "rv: %d", rv);
        return;
    }
    info = storm_port_index.find(phyid);
    if (info == nullptr) {
        return;
    }
    info->rate = static_cast<int32_t>(rate);
    info->burst = burst;
    info->acl_id = phyid;
    info->phyid = phyid;
}

void storm_set_rate_burst(uint32_t ifx, uint32_t rate, uint32_t burst, bool is_add) {
    uint32_t phyid = 0;
    if (libddm_get_phyid_by_ifx(ifx, &phyid) != 0) {
        APP_ERROR("ifx convert is failed");
        return;
    }
    APP_INFO("phyid = %x , rate = %d, burst = %d, is_add = %d", phyid, rate, burst, is_add);
    if (burst == 0) {
        burst = STORM_DEFAULT_BURST;
    }
    if (storm_port_info* info = storm_port_index.find(phyid); info != nullptr) {
        if (is_add) {
            update_port_info(info, rate, burst);
        } else if (storm_del_storm_detect(phyid) != 0) {
            APP_ERROR("del storm detect is failed");
        } else if (storm_port_num == 0) {
            storm_del_mpls_fp();
        }
        return;
    }
    if (!is_add) {
        return;
    }
    if (storm_port_num == 0 && storm_add_mpls_fp() != 0) {
        APP_ERROR("add mpls entry failed");
        return;
    }
    if (storm_add_by_fp(rate, burst, phyid) != 0) {
        APP_ERROR("add fp table is failed");
        if (storm_port_num == 0) {
            storm_del_mpls_fp();
        }
    }
}

int storm_enable_by_fp(uint32_t rate, uint32_t burst, uint32_t phyid) {
    APP_INFO("rate:%d , burst: %d phyid: %x", rate, burst, phyid);
    std_acl_create(phyid);
    APP_INFO("set_ace, acl_id:%d.\n", phyid);
    fp_entry* entry = std_ace_alloc();
    if (entry == nullptr) {
        APP_ERROR("alloc ace fail.");
        APP_ERROR("alloc ace error\n");
        return -1;
    }
    if (!add_port_matches(entry)) {
        storm_udp_mgr->entry_free(entry);
        return -1;
    }
    install_entry(phyid, entry);

    APP_INFO("phyid %d, aclid %d\n", phyid, phyid);
    const fp_acl_key key = acl_key_of(phyid, 0);
    fp_apply* apply = std_apply_alloc(&key);
    if (apply == nullptr) {
        APP_ERROR("Error: failed to alloc_apply.");
        APP_ERROR("rv: %d", -1);
        return -1;
    }
    if (!add_port_actions(apply, rate, burst)) {
        storm_udp_mgr->apply_free(apply);
        return -1;
    }
    install_apply(phyid, FP_APPLY_PORT, apply);
    APP_INFO("done");
    return 0;
}

int storm_add_by_fp(uint32_t rate, uint32_t burst, uint32_t phyid) {
    const int rv = storm_enable_by_fp(rate, burst, phyid);
    if (rv != 0) {
        APP_ERROR("rv: %d", rv);
        return rv;
    }
    storm_port_info* info = storm_port_index.add(&storm_port_head, phyid);
    if (info == nullptr) {
        APP_ERROR("rv: %d", -2);
        return -2;
    }
    info->rate = static_cast<int32_t>(rate);
    info->burst = burst;
    info->acl_id = phyid;
    info->phyid = phyid;
    ++storm_port_num;
    return 0;
}

int storm_del_storm_detect(uint32_t phyid) {
    const int rv = storm_del_storm_fp(phyid);
    if (rv != 0) {
        APP_ERROR("rv: %d", rv);
        return rv;
    }
    storm_port_info* info = storm_port_index.find(phyid);
    if (info == nullptr) {
        return 0;
    }
    info = end_loop(info);
    if (info != nullptr) {
        storm_port_drop(info);
    }
    return 0;
}

int storm_del_storm_fp(uint32_t phyid) {
    APP_INFO("phyid: 0x%x\n", phyid);
    std_acl_unapply(phyid, phyid, FP_APPLY_PORT);
    std_ace_entry_delete(phyid);
    std_acl_delete(phyid);
    return 0;
}

int storm_del_mpls_fp(void) {
    APP_INFO("del mpls entry");
    std_acl_unapply(MPLS_PORT, MPLS_ACL_ID, FP_APPLY_GLOBAL);
    std_ace_entry_delete(MPLS_ACL_ID);
    std_acl_delete(MPLS_ACL_ID);
    return 0;
}

// ---- Service operations ----

void std_acl_create(uint32_t acl_id) {
    if (storm_udp_mgr == nullptr) {
        APP_ERROR("storm_udp_mgr is NULL !");
        return;
    }
    const fp_acl_key key = acl_key_of(acl_id, FP_ACL_CREATE_FLAGS);
    storm_udp_mgr->acl_create(g_storm_global, &key);
}

void std_acl_delete(uint32_t acl_id) {
    APP_INFO("aclid 0x%x\n", acl_id);
    if (storm_udp_mgr == nullptr) {
        APP_ERROR("storm_udp_mgr is NULL !");
        return;
    }
    const fp_acl_key key = acl_key_of(acl_id, 0);
    storm_udp_mgr->acl_delete(g_storm_global, &key);
}

void std_ace_entry_delete(uint32_t acl_id) {
    const fp_acl_key key = acl_key_of(acl_id, 0);
    APP_INFO("del_ace, acl_id:0x%x, acl_app:%s", key.acl_id, key.app);
    if (storm_udp_mgr == nullptr) {
        APP_ERROR("storm_udp_mgr is NULL !");
        return;
    }
    storm_udp_mgr->entry_delete(g_storm_global, &key, ENTRY_INDEX);
}

int std_acl_unapply(uint32_t phyid, uint32_t acl_id, uint32_t type) {
    APP_INFO("phyid: 0x%x, aclid: 0x%x\n", phyid, acl_id);
    if (storm_udp_mgr == nullptr) {
        APP_ERROR("storm_udp_mgr is NULL !");
        return -1;
    }
    const fp_acl_key key = acl_key_of(acl_id, 0);
    const fp_apply_point point = apply_point_of(phyid, type);
    storm_udp_mgr->apply_delete(g_storm_global, &key, &point);
    return 0;
}

// ---- Results ----

void storm_install_on_acl_success(qv_mom_client*, const fp_acl_key* acl_key) {
    APP_INFO("aclid:0x%x, acl_app:%s\n", acl_key->acl_id, acl_key->app);
}

void storm_install_on_acl_failed(qv_mom_client*, const fp_acl_key* acl_key, int error) {
    APP_INFO("aclid:0x%x, acl_app:%s, err:%d\n", acl_key->acl_id, acl_key->app, error);
}

void storm_install_on_ace_success(qv_mom_client*, const fp_acl_key* acl_key) {
    APP_INFO("aclid:0x%x, acl_app:%s\n", acl_key->acl_id, acl_key->app);
}

void storm_install_on_ace_failed(qv_mom_client*, const fp_acl_key* acl_key, int error) {
    APP_INFO("aclid:0x%x, acl_app:%s, err:%d\n", acl_key->acl_id, acl_key->app, error);
}

void storm_install_on_apply_success(qv_mom_client*, const fp_acl_key* acl_key) {
    APP_INFO("aclid:0x%x, acl_app:%s\n", acl_key->acl_id, acl_key->app);
}

void storm_install_on_apply_failed(qv_mom_client*, const fp_acl_key* acl_key, int error) {
    APP_INFO("aclid:0x%x, acl_app:%s, err:%d\n", acl_key->acl_id, acl_key->app, error);
    if (storm_del_storm_detect(acl_key->acl_id) != 0) {
        APP_ERROR("del storm detect is failed");
        return;
    }
    uint32_t ifx = 0;
    const int rv = libddm_get_ifx_by_phyid(acl_key->acl_id, &ifx);
    if (rv != 0) {
        APP_ERROR("rv: %d, acl_key->acl_id: 0x%x", rv, acl_key->acl_id);
        return;
    }
    storm_del_list(ifx);
}
