// "show loop-detect [detail]".
//
// Main thread only. The ports come from a snapshot of the loop results. The columns of the detail
// rows do not line up with their header. Kept on purpose: operators know the table this way.
#include "lda_cli_show.h"

#include "app_debug.h"
#include "lda_cli_policy.h"
#include "lda_debug.h"

int lda_show_loop_detect_command(cli_pcdb*) {
    lda_get_loop_entry(0);
    return 0;
}

int lda_show_loop_detect_detail_command(cli_pcdb*) {
    lda_get_loop_entry(1);
    return 0;
}

void lda_get_loop_entry(uint8_t detail) {
    lda_loop_result_t entries[LDA_LOOP_MAX] = {};
    const int count = lda_all_loop_result_get(entries);
    APP_INFO("lda_get_loop_entry = %d.", count);
    lda_print_loop_info(count, entries, detail);
}

static void print_entry(const lda_loop_result_t* entry, uint8_t detail) {
    const char* policy = detect_intf_policy_name(entry->policy);
    if (!detail) {
        cli_printf("%-27s%s\n", entry->name, policy);
        return;
    }
    cli_printf("%-32s%-30s%-24s%-18s%s\n", entry->name, detect_state_to_dsp(entry->tarn_result),
               detect_state_to_dsp(entry->storm_result), policy,
               detect_intf_status(entry->is_shutdown));
}

void lda_print_loop_info(int count, const lda_loop_result_t* entries, uint8_t detail) {
    const uint32_t policy = lda_loop_detect_ptype_get();
    cli_printf("loop-detect state   : %s\n", policy != LDA_POLICY_DISABLED ? "enable" : "disable");
    cli_printf("loop-detect policy  : %s\n\n", detect_loop_policy_type(policy));
    if (detail) {
        cli_printf(
            "loop interface             tarn-detect state            storm-detect state            "
            "policy            status\n");
    } else {
        cli_printf("loop interface             policy\n");
    }
    cli_printf(
        "----------------------------------------------------------------------"
        "----------------------------------------------- \n");
    for (int i = 0; i < count; i++) {
        print_entry(&entries[i], detail);
    }
}
