// Syslog, log files, capabilities, redundancy and NETCONF notifications.
#include <cstdarg>
#include <cstring>
#include <map>
#include <mutex>

#include "qv/cap.h"
#include "qv/syslog.h"
#include "tests/support/fake_qv/fake_internal.h"
#include "tests/support/fake_qv/fake_qv.h"

struct qv_zlog_category {
    int unused;
};

namespace fake {
namespace {

struct State {
    Registration registration;
    std::map<std::string, int32_t> capabilities;
    std::mutex mutex;  // guards the log lines: any thread writes them
    std::vector<ZlogLine> zlog;
};

State& state() {
    static auto* instance = new State;
    return *instance;
}

void write_syslog(const char* call, int severity, const char* facility, const char* mnemonic,
                  const char* format, va_list arguments) {
    std::string text = mask_line_number(vformat(format, arguments));
    enter(call, "syslog " + std::to_string(severity) + " " + facility + " " + mnemonic + " " +
                    quoted(text));
}

}  // namespace

std::vector<ZlogLine> zlog_lines() {
    std::lock_guard lock(state().mutex);
    return state().zlog;
}

std::string zlog(int level, const std::string& function, const std::string& text) {
    return "zlog " + std::to_string(level) + " " + function + " " +
           quoted("<" + function + ":#> " + text);
}

std::string info(const std::string& function, const std::string& text) {
    return zlog(QV_ZLOG_INFO, function, text);
}

std::string warn(const std::string& function, const std::string& text) {
    return zlog(QV_ZLOG_WARN, function, text);
}

std::string error(const std::string& function, const std::string& text) {
    return zlog(QV_ZLOG_ERROR, function, text);
}

qv_zlog_category* zlog_category() {
    static qv_zlog_category category{0};
    return &category;
}

Registration rdnd_registration() {
    return state().registration;
}

void capability(const std::string& key, int32_t value) {
    state().capabilities[key] = value;
}

}  // namespace fake

using fake::state;

extern "C" {

void printk_syslog(int severity, const char* facility, const char* mnemonic, const char* format,
                   ...) {
    va_list arguments;
    va_start(arguments, format);
    fake::write_syslog("printk_syslog", severity, facility, mnemonic, format, arguments);
    va_end(arguments);
}

void printk_syslog_ext(int severity, const char* facility, const char* mnemonic, const char* format,
                       ...) {
    va_list arguments;
    va_start(arguments, format);
    fake::write_syslog("printk_syslog_ext", severity, facility, mnemonic, format, arguments);
    va_end(arguments);
}

qv_zlog_category* qv_zlog_init(const char* name) {
    bool refused = fake::enter_refused("qv_zlog_init", "qv_zlog_init " + fake::quoted(name));
    return refused ? nullptr : fake::zlog_category();
}

void qvdf_zlog(qv_zlog_category* category, const char* file, const char* function, long line,
               int level, const char* text) {
    {
        std::lock_guard lock(state().mutex);
        state().zlog.push_back({file, function, line, level, text});
    }
    fake::enter("qvdf_zlog", "zlog " + std::to_string(level) + " " + function + " " +
                                 fake::quoted(fake::mask_line_number(text)) +
                                 (category == fake::zlog_category() ? "" : " wrong category"));
}

int libqv_cap_init(const char* client, const char* key) {
    return static_cast<int>(fake::enter(
        "libqv_cap_init", "libqv_cap_init " + fake::quoted(client) + " " + fake::quoted(key)));
}

int libqv_cap_get_capacity_int32(const char* client, const char* key, int32_t* value,
                                 int32_t fallback) {
    long result = fake::enter("libqv_cap_get_capacity_int32",
                              "libqv_cap_get_capacity_int32 " + fake::quoted(client) + " " +
                                  fake::quoted(key) + " " + std::to_string(fallback));
    // The value is written on failure too, as by a store that found an invalid one.
    auto found = state().capabilities.find(key);
    *value = found == state().capabilities.end() ? fallback : found->second;
    return static_cast<int>(result);
}

int rdnd_lib_mom_reg(const rdnd_reg* reg) {
    auto& kept = state().registration;
    kept.reg = *reg;
    kept.dbs.assign(reg->dbs, reg->dbs + reg->db_num);
    std::string line = "rdnd_lib_mom_reg " + fake::quoted(reg->module);
    for (uint32_t db : kept.dbs)
        line += " " + std::to_string(db);
    line += fake::unusual("reserved0", reg->reserved[0]) +
            fake::unusual("reserved1", reg->reserved[1]) + fake::unusual("flags", reg->flags);
    return static_cast<int>(fake::enter("rdnd_lib_mom_reg", line));
}

int app_public_instance_init(const app_public_instance* instance) {
    bool terminated = memchr(instance->name, '\0', sizeof instance->name) != nullptr;
    return static_cast<int>(
        fake::enter("app_public_instance_init",
                    "app_public_instance_init " +
                        (terminated ? fake::quoted(instance->name) : "not terminated")));
}

void app_public_init_dead_detection(qv_thread_master* master) {
    fake::enter("app_public_init_dead_detection",
                master == fake::master() ? "app_public_init_dead_detection"
                                         : "app_public_init_dead_detection wrong master");
}

int nc_lib_notification_send(qv_mom_client* client, const nc_lib_leaf* leaves, int count,
                             int flags) {
    std::string line = "nc_lib_notification_send";
    line += client == fake::mom_client() ? "" : " wrong client";
    for (int i = 0; i < count; i++)
        line += std::string(" [") + leaves[i].path + " " + std::to_string(leaves[i].type) + " " +
                std::to_string(leaves[i].value) + "]";
    return static_cast<int>(
        fake::enter("nc_lib_notification_send", line + fake::unusual("flags", flags)));
}

}  // extern "C"
