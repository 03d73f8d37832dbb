// Executors of the delivery thread and the calls that post to them.
//
// Posting runs on the main thread and only reads the loop state. Executors run on the delivery
// thread (a port that joins an aggregate is configured directly on the main thread, where lines run
// inline); each opens its own session and closes it. They take the loop lock only to list the ports
// and to mark a port whose recovery was refused, never with another lock held. A line is executed
// once; only the refusal of "no shutdown" has a consequence.
#include "lda_cli_exec.h"

#include <unistd.h>

#include <cstdlib>
#include <initializer_list>

#include <qv/cli.h>
#include "app_debug.h"
#include "lda_bridge.h"
#include "lda_cli_delivery.h"
#include "lda_cli_policy.h"
#include "lda_main.h"

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

// Opens a session for an executor; negative, and logged under its name, on failure.
static int open_session(const char* executor) {
    const int session = cli_sub_create_session();
    if (session < 0)
        APP_ERROR_AS(executor, "LDA cli_sub_create_session fail, fd=%d", session);
    return session;
}

static void execute_in_config(int session, std::initializer_list<const char*> lines) {
    cli_mode mode;
    lda_cli_mode_set(0, LDA_CLI_MODE_CONFIG, &mode);
    for (const char* line : lines)
        lda_loop_cmd_execute(session, line, &mode);
}

static int32_t execute_on_port(int session, uint32_t ifx, const char* line) {
    cli_mode mode;
    lda_cli_mode_set(ifx, LDA_CLI_MODE_INTERFACE, &mode);
    return lda_loop_cmd_execute(session, line, &mode);
}

// ---- Shutdown and recovery: posting ----

void lda_send_shutcmd(uint32_t ifx, uint8_t shutdown, lda_intf_t* record) {
    APP_INFO("enter ifx=%d, shutdown=%d", static_cast<int>(ifx), shutdown);
    lda_cli_msg_t message = {};
    message.mid = LDA_MID_BOTH;
    message.ifx = ifx;
    message.type = LDA_CLI_MSG_SHUTDOWN;
    message.shutdown = shutdown;
    // The port's line in the running configuration changes before the command itself runs.
    cli_client_c2p_reform();
    cli_syn_config_notify();
    lda_cli_cmd_send(&message);
    if (record && shutdown == 0)
        lda_clear_loop_timer(record);
}

int lda_cli_intf_shutdown_by_lda_cmd(uint32_t ifx, uint8_t shutdown) {
    lda_intf_t* record = lda_loop_result_get(ifx);
    if (!record) {
        if (shutdown == 1)
            lda_back_node_add(ifx);
        else
            lda_back_node_del(ifx);
        return -1;
    }
    lda_intf_t proposed = lda_intf_copy(record);
    proposed.is_shutdown = shutdown;
    lda_intf_ret_proc(record, &proposed);
    return 0;
}

// ---- Shutdown and recovery: delivery thread ----

// The switch did not bring the port up: it is shut down by the agent as before.
static void revert_recovery(uint32_t ifx) {
    const lda_loop_guard guard;
    lda_intf_t* record = lda_loop_result_get(ifx);
    if (!record)
        return;
    lda_intf_set_shutdown(record, 1);
    APP_INFO_AS("cli_exec_shutdown", "revert no shtudown, force notify");
    cli_client_c2p_reform();
    cli_syn_config_notify();
}

int cli_exec_shutdown(uint32_t ifx, uint8_t is_shutdown) {
    APP_INFO("enter ifx=%d, is_shutdown=%d", static_cast<int>(ifx), is_shutdown);
    const int session = open_session(__func__);
    if (session < 0)
        return -1;
    if (is_shutdown == 1) {
        execute_on_port(session, ifx, LINE_SHUT);
    } else if (is_shutdown == 0) {
        execute_on_port(session, ifx, LINE_RECOVERY_CLEAR);
        if (execute_on_port(session, ifx, LINE_NO_SHUT) == LDA_CLI_REFUSED) {
            APP_INFO("EXECUTE THE NOT SHUT FAILED, IFX=%d", static_cast<int>(ifx));
            revert_recovery(ifx);
        }
    }
    close(session);
    return 0;
}

int cli_exec_loop_apply_shutdown(uint32_t ifx, uint8_t is_shutdown) {
    APP_INFO("enter ifx=%d, is_shutdown=%d", static_cast<int>(ifx), is_shutdown);
    const int session = open_session(__func__);
    if (session < 0)
        return -1;
    if (is_shutdown == 1)
        execute_on_port(session, ifx, LINE_APPLY);
    else if (is_shutdown == 0)
        execute_on_port(session, ifx, LINE_NO_APPLY);
    close(session);
    return 0;
}

// ---- Detection features: posting ----

void lda_loop_config_delivery(uint32_t mid) {
    APP_INFO("enter");
    const uint32_t policy = lda_loop_detect_ptype_get();
    if (policy == LDA_POLICY_DISABLED)
        return;
    lda_cli_msg_t message = {};
    message.mid = mid;
    message.type = LDA_CLI_MSG_ENABLE;
    message.new_type = policy;
    message.old_type = LDA_POLICY_DISABLED;
    message.is_config_delivery = 1;
    lda_policy_chg_notify_ntf(&message);
    lda_cli_cmd_send(&message);
}

void lda_send_intfcfg(uint32_t ifx) {
    const uint32_t policy = lda_loop_detect_ptype_get();
    APP_INFO("enter ifx=%u, cli_ready=%d, type=%d", ifx, cli_ready, static_cast<int>(policy));
    if (cli_ready != 1)
        return;
    lda_cli_msg_t message = {};
    message.mid = LDA_MID_BOTH;
    if (policy != LDA_POLICY_DISABLED) {
        message.type = LDA_CLI_MSG_INTF_ENABLE;
        message.ifx = ifx;
    } else {
        message.type = LDA_CLI_MSG_DISABLE;  // about all ports
    }
    message.new_type = policy;
    message.old_type = policy;
    lda_cli_cmd_send(&message);
}

void lda_intf_default_config_delivery(uint32_t mid, uint32_t ifx) {
    APP_INFO("enter");
    lda_cli_msg_t message = {};
    message.mid = mid;
    message.ifx = ifx;
    message.type = LDA_CLI_MSG_INTF_DEFAULT;
    lda_cli_cmd_send(&message);
}

void lda_loop_detect_enable(void) {
    if (cli_ready)
        lda_loop_cmd_send(1, LDA_MID_BOTH, 0);
}

void lda_loop_detect_disable(void) {
    if (cli_ready)
        lda_loop_cmd_send(0, LDA_MID_BOTH, 0);
}

void lda_async_enable_loop(uint32_t flag) {
    if (flag == 0)
        lda_loop_detect_disable();
    else
        lda_loop_detect_enable();
    cli_client_c2p_reform();
    cli_syn_config_notify();
}

// ---- Detection features: delivery thread ----

uint32_t* lda_all_intf_ifx_get(uint16_t* count) {
    const lda_loop_guard guard;
    *count = 0;
    const uint16_t intf_num = g_lda_loop_set->intf_num;
    if (intf_num == 0) {
        APP_INFO("The interface number is %d", intf_num);
        return nullptr;
    }
    auto* array = static_cast<uint32_t*>(calloc(intf_num, sizeof(uint32_t)));
    if (!array) {
        APP_ERROR("Malloc p_ifx error.");
        return nullptr;
    }
    const lda_list_t* head = &g_lda_loop_set->list;
    for (const lda_list_t* link = head->next; link != head && *count < intf_num; link = link->next)
        array[(*count)++] = reinterpret_cast<const lda_intf_t*>(link)->ifx;
    return array;
}

// Executes on every port the peer protocol's line, the storm detector's, or both, as `mid` says.
static void execute_on_all_ports(int session, uint32_t mid, const char* tarn, const char* storm) {
    uint16_t count = 0;
    uint32_t* ports = lda_all_intf_ifx_get(&count);
    for (uint16_t i = 0; i < count; i++) {
        if (mid != LDA_MID_STORM)
            execute_on_port(session, ports[i], tarn);
        if (mid != LDA_MID_TARN)
            execute_on_port(session, ports[i], storm);
    }
    free(ports);
}

int lda_loop_cmd_enable(uint32_t mid) {
    APP_INFO("LDA:***lda_loop_cmd_enable mid[%d] start .", static_cast<int>(mid));
    const int session = open_session(__func__);
    if (session < 0)
        return -1;
    if (mid == LDA_MID_TARN || mid == LDA_MID_BOTH)
        execute_in_config(session, {LINE_TARN, LINE_TARN_RECOVER});
    execute_on_all_ports(session, mid, LINE_TARN_PORT, LINE_STORM_PORT);
    close(session);
    APP_INFO("LDA:***lda_loop_cmd_enable mid[%d] end.", static_cast<int>(mid));
    return 0;
}

int lda_loop_cmd_disable(uint32_t mid) {
    APP_INFO("LDA:***lda_loop_cmd_disable mid[%d] start.", static_cast<int>(mid));
    const int session = open_session(__func__);
    if (session < 0)
        return -1;
    if (mid == LDA_MID_TARN || mid == LDA_MID_BOTH)
        execute_in_config(session, {LINE_NO_TARN, LINE_NO_TARN_RECOVER});
    execute_on_all_ports(session, mid, LINE_NO_TARN_PORT, LINE_NO_STORM_PORT);
    close(session);
    APP_INFO("LDA:***lda_loop_cmd_disable mid[%d] end.", static_cast<int>(mid));
    return 0;
}

int lda_intf_loop_cmd_enable(uint32_t mid, uint32_t ifx) {
    const int session = open_session(__func__);
    if (session < 0)
        return -1;
    if (mid == LDA_MID_TARN || mid == LDA_MID_BOTH)
        execute_in_config(session, {LINE_TARN, LINE_TARN_RECOVER});
    if (mid != LDA_MID_STORM)
        execute_on_port(session, ifx, LINE_TARN_PORT);
    if (mid != LDA_MID_TARN) {
        execute_on_port(session, ifx, LINE_STORM_PORT);
        APP_INFO("storm-loop-detect enable ifx=%d", static_cast<int>(ifx));
    }
    close(session);
    return 0;
}

int lda_intf_default_cmd(uint32_t mid, uint32_t ifx) {
    const int session = open_session(__func__);
    if (session < 0)
        return -1;
    const int port = static_cast<int>(ifx);
    if (mid != LDA_MID_STORM) {
        execute_on_port(session, ifx, LINE_NO_TARN_PORT);
        APP_INFO("no tarn port loop-detect ifx=%d", port);
    }
    if (mid != LDA_MID_TARN) {
        execute_on_port(session, ifx, LINE_NO_STORM_PORT);
        APP_INFO("no storm-loop-detect enable ifx=%d", port);
        execute_on_port(session, ifx, LINE_NO_STORM_RATE);
        APP_INFO("no storm-loop-rate ratelimit ifx=%d", port);
    }
    close(session);
    return 0;
}
