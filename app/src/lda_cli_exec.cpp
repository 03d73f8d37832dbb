// Executors of the delivery thread.
//
// Each executor opens and closes its own session. A port that joins an aggregate is
// configured directly on the main thread, where lines run inline. The loop lock is taken only to
// list the ports and to mark a port whose recovery was refused, never with another lock held. A
// line is executed once; only the refusal of "no shutdown" has a consequence.
#include "lda_cli_exec.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "app_debug.h"
#include "app_string.h"
#include "lda_cli_delivery.h"
#include "lda_main.h"
#include "lda_state.h"

// The blanks before the line ends belong to the lines.
static constexpr char LINE_SHUT[] = "shutdown \r\n";
static constexpr char LINE_RECOVERY_CLEAR[] = "errdisable recovery \r\n";
static constexpr char LINE_NO_SHUT[] = "no shutdown  \r\n";
static constexpr char LINE_APPLY[] = "loop-detect apply shutdown-port \r\n";
static constexpr char LINE_NO_APPLY[] = "no loop-detect apply shutdown-port \r\n";

static constexpr char LINE_TARN[] = "tarn enable\r\n";
static constexpr char LINE_TARN_RECOVER[] = "tarn error-recover interval 90\r\n";
static constexpr char LINE_TARN_PORT[] = "tarn port loop-detect warning\r\n";
static constexpr char LINE_STORM_PORT[] = "storm-loop-detect enable\r\n";
static constexpr char LINE_NO_TARN[] = "no tarn enable\r\n";
static constexpr char LINE_NO_TARN_RECOVER[] = "no tarn error-recover interval\r\n";
static constexpr char LINE_NO_TARN_PORT[] = "no tarn port loop-detect\r\n";
static constexpr char LINE_NO_STORM_PORT[] = "no storm-loop-detect enable\r\n";
static constexpr char LINE_NO_STORM_RATE[] = "no storm-loop-rate ratelimit\r\n";

// ---- Sessions and lines ----

void lda_cli_mode_set(uint32_t ifx, uint32_t mode, cli_mode* descriptor) {
    *descriptor = {};
    if (mode == LDA_CLI_MODE_CONFIG) {
        app_text_copy(descriptor->name, sizeof descriptor->name, "config");
    } else if (mode == LDA_CLI_MODE_INTERFACE) {
        app_text_copy(descriptor->name, sizeof descriptor->name, "interface");
        descriptor->ifx = static_cast<int32_t>(ifx);
    }
}

void cmd_exec_out_cback(const char* text, size_t length, void* user) {
    memcpy(user, text, std::min(length, LDA_CLI_OUTPUT_BYTES - 1));
}

int32_t lda_loop_cmd_execute(int session, const char* line, const cli_mode* mode) {
    char output[LDA_CLI_OUTPUT_BYTES] = {};
    int32_t rv = cli_execute_cmd_buf_fd(session, line, mode, cmd_exec_out_cback, output);
    if (rv < 0) {
        APP_ERROR("cli_execute_cmd_buf fail:cmd=%s, ret=%d", line, rv);
    }
    if (output[0] != '\0') {
        rv = LDA_CLI_REFUSED;
    }
    APP_INFO("ifx %lu cmd %s out ret=%d %s", static_cast<unsigned long>(mode->ifx), line, rv,
             output);
    return rv;
}

// Opens a session for an executor; negative, and logged under its name, on failure.
static int open_session(const char* executor) {
    const int session = cli_sub_create_session();
    if (session < 0) {
        APP_ERROR_AS(executor, "LDA cli_sub_create_session fail, fd=%d", session);
    }
    return session;
}

static void execute_in_config(int session, std::initializer_list<const char*> lines) {
    cli_mode mode;
    lda_cli_mode_set(0, LDA_CLI_MODE_CONFIG, &mode);
    for (const char* line : lines) {
        lda_loop_cmd_execute(session, line, &mode);
    }
}

static int32_t execute_on_port(int session, uint32_t ifx, const char* line) {
    cli_mode mode;
    lda_cli_mode_set(ifx, LDA_CLI_MODE_INTERFACE, &mode);
    return lda_loop_cmd_execute(session, line, &mode);
}

// ---- Shutdown and recovery ----

int cli_exec_shutdown(uint32_t ifx, uint8_t is_shutdown) {
    APP_INFO("enter ifx=%d, is_shutdown=%d", ifx, is_shutdown);
    const int session = open_session(__func__);
    if (session < 0) {
        return -1;
    }
    if (is_shutdown == 1) {
        execute_on_port(session, ifx, LINE_SHUT);
    } else if (is_shutdown == 0) {
        execute_on_port(session, ifx, LINE_RECOVERY_CLEAR);
        if (execute_on_port(session, ifx, LINE_NO_SHUT) == LDA_CLI_REFUSED) {
            APP_INFO("EXECUTE THE NOT SHUT FAILED, IFX=%d", ifx);
            lda_intf_recovery_refused(ifx);
        }
    }
    close(session);
    return 0;
}

int cli_exec_loop_apply_shutdown(uint32_t ifx, uint8_t is_shutdown) {
    APP_INFO("enter ifx=%d, is_shutdown=%d", ifx, is_shutdown);
    const int session = open_session(__func__);
    if (session < 0) {
        return -1;
    }
    if (is_shutdown == 1) {
        execute_on_port(session, ifx, LINE_APPLY);
    } else if (is_shutdown == 0) {
        execute_on_port(session, ifx, LINE_NO_APPLY);
    }
    close(session);
    return 0;
}

// ---- Detection features ----

uint32_t* lda_all_intf_ifx_get(uint16_t* count) {
    const lda_loop_guard guard;
    *count = 0;
    const uint16_t intf_num = g_lda_loop_set->intf_num;
    if (intf_num == 0) {
        APP_INFO("The interface number is %d", intf_num);
        return nullptr;
    }
    auto* array = static_cast<uint32_t*>(calloc(intf_num, sizeof(uint32_t)));
    if (array == nullptr) {
        APP_ERROR("Malloc p_ifx error.");
        return nullptr;
    }
    for (const lda_intf_t& record : lda_records<lda_intf_t>(&g_lda_loop_set->list)) {
        if (*count == intf_num) {
            break;
        }
        array[(*count)++] = record.ifx;
    }
    return array;
}

// Executes the peer protocol's line, the storm detector's, or both on every port, according to
// `mid`.
static void execute_on_all_ports(int session, uint32_t mid, const char* tarn, const char* storm) {
    uint16_t count = 0;
    uint32_t* ports = lda_all_intf_ifx_get(&count);
    for (uint16_t i = 0; i < count; i++) {
        if (mid != LDA_MID_STORM) {
            execute_on_port(session, ports[i], tarn);
        }
        if (mid != LDA_MID_TARN) {
            execute_on_port(session, ports[i], storm);
        }
    }
    free(ports);
}

int lda_loop_cmd_enable(uint32_t mid) {
    APP_INFO("LDA:***lda_loop_cmd_enable mid[%d] start .", mid);
    const int session = open_session(__func__);
    if (session < 0) {
        return -1;
    }
    if (mid == LDA_MID_TARN || mid == LDA_MID_BOTH) {
        execute_in_config(session, {LINE_TARN, LINE_TARN_RECOVER});
    }
    execute_on_all_ports(session, mid, LINE_TARN_PORT, LINE_STORM_PORT);
    close(session);
    APP_INFO("LDA:***lda_loop_cmd_enable mid[%d] end.", mid);
    return 0;
}

int lda_loop_cmd_disable(uint32_t mid) {
    APP_INFO("LDA:***lda_loop_cmd_disable mid[%d] start.", mid);
    const int session = open_session(__func__);
    if (session < 0) {
        return -1;
    }
    if (mid == LDA_MID_TARN || mid == LDA_MID_BOTH) {
        execute_in_config(session, {LINE_NO_TARN, LINE_NO_TARN_RECOVER});
    }
    execute_on_all_ports(session, mid, LINE_NO_TARN_PORT, LINE_NO_STORM_PORT);
    close(session);
    APP_INFO("LDA:***lda_loop_cmd_disable mid[%d] end.", mid);
    return 0;
}

int lda_intf_loop_cmd_enable(uint32_t mid, uint32_t ifx) {
    const int session = open_session(__func__);
    if (session < 0) {
        return -1;
    }
    if (mid == LDA_MID_TARN || mid == LDA_MID_BOTH) {
        execute_in_config(session, {LINE_TARN, LINE_TARN_RECOVER});
    }
    if (mid != LDA_MID_STORM) {
        execute_on_port(session, ifx, LINE_TARN_PORT);
    }
    if (mid != LDA_MID_TARN) {
        execute_on_port(session, ifx, LINE_STORM_PORT);
        APP_INFO("storm-loop-detect enable ifx=%d", ifx);
    }
    close(session);
    return 0;
}

int lda_intf_default_cmd(uint32_t mid, uint32_t ifx) {
    const int session = open_session(__func__);
    if (session < 0) {
        return -1;
    }
    if (mid != LDA_MID_STORM) {
        execute_on_port(session, ifx, LINE_NO_TARN_PORT);
        APP_INFO("no tarn port loop-detect ifx=%d", ifx);
    }
    if (mid != LDA_MID_TARN) {
        execute_on_port(session, ifx, LINE_NO_STORM_PORT);
        APP_INFO("no storm-loop-detect enable ifx=%d", ifx);
        execute_on_port(session, ifx, LINE_NO_STORM_RATE);
        APP_INFO("no storm-loop-rate ratelimit ifx=%d", ifx);
    }
    close(session);
    return 0;
}
