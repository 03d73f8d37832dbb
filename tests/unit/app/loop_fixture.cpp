#include "tests/unit/app/loop_fixture.h"

#include <cstdlib>
#include <thread>

#include "lda_state.h"
#include "tests/support/fake_qv/fake_internal.h"

namespace loop_test {
namespace {

std::string logged(int level, const std::string& function, const std::string& text) {
    return "zlog " + std::to_string(level) + " " + function + " " +
           fake::quoted("<" + function + ":#> " + text);
}

}  // namespace

std::string debug_line(const std::string& function, const std::string& text) {
    return logged(20, function, text);
}
std::string info(const std::string& function, const std::string& text) {
    return logged(40, function, text);
}
std::string warn(const std::string& function, const std::string& text) {
    return logged(80, function, text);
}
std::string error(const std::string& function, const std::string& text) {
    return logged(100, function, text);
}

std::string notification(const std::string& name, int kind, int policy, int src_port) {
    std::string base =
        "/qv-loop-detect-server-notification:loop-detect-state/loop-notify/notify-entry[name='" +
        name + "']/";
    return "nc_lib_notification_send [" + base + "notify-type 20 " + std::to_string(kind) + "] [" +
           base + "vid 20 0] [" + base + "policy 20 " + std::to_string(policy) + "] [" + base +
           "src-port 8 " + std::to_string(src_port) + "]";
}

std::string entry_set(const std::string& name, int policy, int src_port) {
    return "qv_mom_set db=4 p_app.lda_loop_entry index{name=\"" + name + "\"}" +
           (policy == 0 ? "" : " policy=1") + (src_port == 0 ? "" : " src_port=1");
}

std::string entry_del(const std::string& name) {
    return "qv_mom_del db=4 p_app.lda_loop_entry index{name=\"" + name + "\"}";
}

std::string detected(const std::string& name) {
    return "syslog 3 LOOP_DETECT ERROR \"Detected loop error on interface " + name + ".\\r\\n\"";
}

std::string recovered(const std::string& name) {
    return "syslog 3 LOOP_DETECT RECOVER \"Interface " + name +
           " recovered from loop error.\\r\\n\"";
}

std::string executed(int session, const std::string& line) {
    return "cli_execute_cmd_buf_fd " + std::to_string(session) + " " + fake::quoted(line) +
           " config";
}

std::string executed(int session, const std::string& line, uint32_t ifx) {
    return "cli_execute_cmd_buf_fd " + std::to_string(session) + " " + fake::quoted(line) +
           " interface " + std::to_string(ifx);
}

Lines joined(std::initializer_list<Lines> parts) {
    Lines result;
    for (const Lines& part : parts)
        result.insert(result.end(), part.begin(), part.end());
    return result;
}

std::vector<lda_intf_t*> records() {
    std::vector<lda_intf_t*> result;
    lda_list_t* head = &g_lda_loop_set->list;
    for (lda_list_t* node = head->next; node != head; node = node->next)
        result.push_back(reinterpret_cast<lda_intf_t*>(node));
    return result;
}

bool free_for_others(pthread_mutex_t* mutex) {
    bool free = false;
    std::thread([&] {
        free = pthread_mutex_trylock(mutex) == 0;
        if (free)
            pthread_mutex_unlock(mutex);
    }).join();
    return free;
}

StartedAgent::StartedAgent() {
    g_app_zlog_level = 2;
}

lda_intf_t* StartedAgent::add(uint32_t ifx, uint32_t mode) {
    lda_intf_t* record = add_record(ifx, mode);
    EXPECT_NE(record, nullptr);
    return record;
}

lda_intf_t* StartedAgent::looped(uint32_t ifx, uint32_t mode, uint32_t policy) {
    lda_intf_t* record = add(ifx, mode);
    lda_loop_detect_ptype_set(LDA_POLICY_WARNING);
    lda_loop_result_set(LDA_SOURCE_TARN, 1, ifx);
    EXPECT_EQ(record->total_result, 1);
    lda_loop_detect_ptype_set(policy);
    fake::clear_calls();
    return record;
}

Lines StartedAgent::take_posted() {
    Lines result = queued();
    pthread_mutex_lock(&g_lda_cli_msg_set->lock);
    lda_list_t* head = &g_lda_cli_msg_set->list;
    EXPECT_EQ(g_lda_cli_msg_set->count, result.size()) << "the count is not the queue's length";
    while (head->next != head) {
        lda_list_t* node = head->next;
        lda_list_unlink(node);
        free(node);
    }
    g_lda_cli_msg_set->count = 0;
    pthread_mutex_unlock(&g_lda_cli_msg_set->lock);
    return result;
}

void StartedAgent::log_everything() {
    g_app_zlog_level = 5;
}

void StartedAgent::pend(uint32_t ifx) {
    lda_back_node_add(ifx);
    fake::clear_calls();
}

}  // namespace loop_test
