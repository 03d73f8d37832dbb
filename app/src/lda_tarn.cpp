// Loop reports of the peer protocol. Each message of the subscription that carries a report is
// recorded as a result of source 0 (lda_state.cpp), for the reporting port and for the port on
// which the loop was found.
#include "lda_tarn.h"

#include "app_debug.h"
#include "lda_main.h"
#include "lda_state.h"
#include "p_bridge.pb-c.h"

// A record of the type with an empty key, for the calls that address all records.
struct tarn_template {
    PBridge__TarnLoopIndex index = P_BRIDGE__TARN_LOOP_INDEX__INIT;
    PBridge__TarnLoopInfo info = P_BRIDGE__TARN_LOOP_INFO__INIT;
    tarn_template() { info.index = &index; }
};

int lda_tarn_mom_reg_subscribe(void) {
    const tarn_template key;
    qv_mom_subscribe(g_lda_global, QV_MOM_APP_DB, &key.info.base, 0,
                     lda_tarn_mom_subscribe_callback, nullptr);
    return 0;
}

// Records that existed before the subscription arrive as ordinary messages.
static void scan_existing_reports() {
    const tarn_template key;
    qv_mom_scan(g_lda_global, QV_MOM_APP_DB, &key.info.base, 0, lda_tarn_mom_subscribe_callback,
                nullptr);
}

int lda_tarn_mom_subscribe_callback(qv_mom_client* client, const qv_mom_msg* message) {
    if (client == nullptr || message == nullptr) {
        APP_ERROR("global[%p] mom_msg[%p]", static_cast<const void*>(client),
                  static_cast<const void*>(message));
        return -1;
    }
    APP_INFO("recv mom msg, cmd[%d]", message->cmd);
    if (message->cmd == QV_MOM_CMD_SUBSCRIBED) {
        APP_INFO("mom subscribe success");
        scan_existing_reports();
        return 0;
    }
    if (message->oper == QV_MOM_OPER_DELETE) {
        return 0;
    }
    const auto* report = reinterpret_cast<const PBridge__TarnLoopInfo*>(message->value);
    if (report == nullptr || report->index == nullptr) {
        APP_ERROR("value is null err!");
        return -1;
    }
    APP_INFO("recv tarn msg, ifx[%d] vid[%d] is_loop[%d] src_ifx[%d]", report->index->ifx,
             report->vid, report->is_loop, report->src_ifx);
    if (lda_loop_detect_ptype_get() == LDA_POLICY_DISABLED) {
        APP_INFO("current lda is disable, thus does not process the relevant business logic.");
        return 0;
    }
    const uint8_t result = report->is_loop != 0 ? 1 : 0;
    lda_loop_result_set(LDA_SOURCE_TARN, result, report->index->ifx);
    if (report->src_ifx == report->index->ifx) {
        return 0;
    }
    lda_loop_result_set(LDA_SOURCE_TARN, result, report->src_ifx);
    APP_INFO("lda_loop_result_set src loop");
    return 0;
}
