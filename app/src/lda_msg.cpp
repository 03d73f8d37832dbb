// Records and settings of the loop state. Main thread, except that the delivery thread also calls
// lda_loop_result_get, under the loop lock. No function here takes the lock.
#include "lda_msg.h"

#include <cstring>

#include <qv/bridge.h>
#include "app_debug.h"

lda_loop_set_t* g_lda_loop_set;
lda_recover_time_t g_lda_recover_time;
int32_t g_lda_clear_interval = 60;

lda_intf_t lda_intf_copy(const lda_intf_t* record) {
    constexpr size_t AT = offsetof(lda_intf_t, is_shutdown);
    const auto* from = reinterpret_cast<const char*>(record);
    lda_intf_t copy;
    auto* to = reinterpret_cast<char*>(&copy);
    memcpy(to, from, AT);
    copy.is_shutdown = lda_intf_is_shutdown(record);
    memcpy(to + AT + 1, from + AT + 1, sizeof copy - AT - 1);
    return copy;
}

void lda_loop_detect_ptype_set(uint32_t policy) {
    g_lda_loop_set->policy = policy;
}

uint32_t lda_loop_detect_ptype_get(void) {
    return g_lda_loop_set->policy;
}

bool lda_policy_shuts_mode(uint32_t policy, uint32_t mode) {
    if (mode == SWPORT_MODE_ACCESS) {
        return policy == LDA_POLICY_SHUT_ACCESS || policy == LDA_POLICY_SHUT_ACCESS_HYBRID;
    }
    if (mode == SWPORT_MODE_HYBRID) {
        return policy == LDA_POLICY_SHUT_HYBRID || policy == LDA_POLICY_SHUT_ACCESS_HYBRID;
    }
    return false;
}

bool lda_mode_is_shuttable(uint32_t mode) {
    return mode == SWPORT_MODE_ACCESS || mode == SWPORT_MODE_HYBRID;
}

uint32_t lda_intf_policy_get(const lda_intf_t* record) {
    return lda_policy_shuts_mode(lda_loop_detect_ptype_get(), record->mode) ? 1 : 0;
}

void lda_cli_recover_time_set(uint32_t time, uint8_t enabled) {
    g_lda_recover_time.time = time;
    g_lda_recover_time.enabled = enabled;
}

uint32_t lda_cli_recover_time_get(void) {
    return g_lda_recover_time.enabled ? g_lda_recover_time.time : 0;
}

void lda_intf_link(lda_intf_t* record) {
    g_lda_loop_set->index.add_tail(&g_lda_loop_set->list, record);
    g_lda_loop_set->intf_num++;
}

void lda_intf_unlink(lda_intf_t* record) {
    g_lda_loop_set->index.remove(record);
    g_lda_loop_set->intf_num--;
}

lda_intf_t* lda_loop_result_get(uint32_t ifx) {
    return g_lda_loop_set->index.find(ifx);
}

static void fill_snapshot(lda_loop_result_t* entry, const lda_intf_t* record) {
    memcpy(entry->name, record->name, sizeof entry->name);
    entry->tarn_result = record->tarn_result;
    entry->storm_result = record->storm_result;
    entry->is_shutdown = lda_intf_is_shutdown(record);
    entry->policy = lda_intf_policy_get(record);
}

int lda_all_loop_result_get(lda_loop_result_t* array) {
    const uint32_t policy = lda_loop_detect_ptype_get();
    if (policy == LDA_POLICY_DISABLED || g_lda_loop_set->loop_num == 0) {
        APP_INFO("return 0:policy type=%d, loop_num=%d", policy, g_lda_loop_set->loop_num);
        return 0;
    }
    int num = 0;
    for (const lda_intf_t& record : lda_records<lda_intf_t>(&g_lda_loop_set->list)) {
        if (num == LDA_LOOP_MAX) {
            break;
        }
        if (!record.total_result) {
            continue;
        }
        fill_snapshot(&array[num], &record);
        num++;
        APP_INFO("num=%d, is_shutdown=%d", num, array[num - 1].is_shutdown);
    }
    return num;
}
