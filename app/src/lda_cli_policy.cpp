// Changes of the loop policy.
//
// Main thread only, without a lock of its own; the command handlers hold the loop lock over the
// walk. The order matters: publish, store, judge every port again, then post the message that
// switches the detection features, so that the shutdowns and recoveries of the walk are ahead of
// it.
#include "lda_cli_policy.h"

#include "app_debug.h"
#include "lda_cli_post.h"
#include "lda_main.h"
#include "lda_state.h"
#include "p_app.pb-c.h"

// Published even when the value does not change. The database's result is ignored.
static void publish_policy(uint32_t policy) {
    PApp__LdaNcPolicy record = P_APP__LDA_NC_POLICY__INIT;
    record.loop_policy_cli = policy;
    qv_mom_set(g_lda_global, QV_MOM_CFG_DB, &record.base, 0, 0, record.base.descriptor);
}

int lda_cli_policy_set(uint32_t policy) {
    if (policy > LDA_POLICY_LIMIT) {
        APP_ERROR("para wrong type(%d)", policy);
        return -2;
    }
    const uint32_t old = lda_cli_detect_policy_get();
    publish_policy(policy);
    if (policy == old) {
        return 0;
    }
    lda_cli_msg_t change = {};
    change.mid = LDA_MID_BOTH;
    change.new_type = policy;
    change.old_type = old;
    change.type = policy != LDA_POLICY_DISABLED ? LDA_CLI_MSG_ENABLE : LDA_CLI_MSG_DISABLE;
    lda_loop_detect_ptype_set(policy);
    lda_policy_chg_notify_ntf(&change);
    if (policy == LDA_POLICY_DISABLED) {
        lda_all_loop_result_clear();
    }
    lda_cli_cmd_send(&change);
    APP_INFO("old_type=%d, new_type=%d, msg_type=%d", old, policy, change.type);
    return 0;
}

uint32_t lda_cli_detect_policy_get(void) {
    return lda_loop_detect_ptype_get();
}

const char* detect_loop_policy_type(uint32_t policy) {
    switch (policy) {
        case LDA_POLICY_WARNING:
            return "warning";
        case LDA_POLICY_SHUT_ACCESS:
            return "shutdown access";
        case LDA_POLICY_SHUT_HYBRID:
            return "shutdown hybrid";
        case LDA_POLICY_SHUT_ACCESS_HYBRID:
            return "shutdown access-hybrid";
        default:
            return "N/A";
    }
}

// ---- Re-judgement ----

// The walk passes its argument as words; here it is a message.
static const uint32_t* as_words(const lda_cli_msg_t* message) {
    return reinterpret_cast<const uint32_t*>(message);
}

static const lda_cli_msg_t* as_message(const uint32_t* words) {
    return reinterpret_cast<const lda_cli_msg_t*>(words);
}

void lda_policy_chg_notify_ntf(const lda_cli_msg_t* change) {
    lda_loop_result_walk(lda_cfg_policy_chg_cbk, as_words(change));
}

uint32_t lda_cfg_policy_chg_cbk(lda_intf_t* record, const uint32_t* change) {
    const lda_cli_msg_t* message = as_message(change);
    lda_intf_t proposed = lda_intf_copy(record);
    if (message->new_type != message->old_type) {
        const bool looped = record->total_result != 0;
        const bool shuts = looped && lda_policy_shuts_mode(message->new_type, record->mode);
        if (message->is_config_delivery) {
            APP_INFO("is_config_delivery ifx=%d, is_shutdown=%d", record->ifx,
                     proposed.is_shutdown);
            // A port that the saved configuration names as shut down stays shut down.
            if (looped) {
                proposed.is_shutdown = shuts ? 1 : 0;
            }
        } else {
            proposed.is_shutdown = shuts ? 1 : 0;
        }
        lda_intf_ret_proc(record, &proposed);
    }
    APP_INFO("ifx=%d, is_shutdown=%d", record->ifx, proposed.is_shutdown);
    return 0;
}
