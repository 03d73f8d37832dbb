// Logging facility.
//
// Any thread may log. One line is formatted into g_dbg_print_buf and written out under
// g_dbg_lock, so lines never mix and the syslog budget is counted exactly. The two thresholds and
// the budget are also set by debug commands, which do not take the lock; these fields go through
// app_shared.h. User-visible events are not logged through this source: the modules that own them
// write them to the system log directly, outside the budget.
#include "app_debug.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <limits>
#include <string_view>

#include <qv/syslog.h>
#include "app_shared.h"
#include "app_string.h"

pthread_mutex_t g_dbg_lock;  // made by app_debug_init
char g_dbg_print_buf[APP_DBG_PRINT_BYTES + 1];

int32_t g_app_zlog_level = APP_ZLOG_LEVEL_DEFAULT;
int32_t g_dbg_slog_level = APP_SLOG_LEVEL_DEFAULT;
uint32_t g_dbg_slog_cnt;
uint32_t g_dbg_slog_max = APP_SLOG_MAX_DEFAULT;

qv_zlog_category* g_app_zlog_category;
char app_dbg_module[APP_DBG_TEXT_BYTES];
char app_dbg_path[APP_DBG_TEXT_BYTES];

const char* const g_logfile_level_str[6] = {"fatal", "error", "warn", "notice", "info", "debug"};
const char* const g_slog_level_str[4] = {"none", "error", "info", "debug"};

// The meaning of a level on each side. FATAL passes every log-file threshold.
struct level_rule {
    const char* name;
    int zlog_number;
    int32_t zlog_min;  // written to the log file from this threshold on
    int32_t slog_min;  // written to the system log from this threshold on
};
static constexpr level_rule LEVEL_RULES[] = {
    /* APP_DBG_FATAL */ {"FATAL", QV_ZLOG_FATAL, INT32_MIN, 1},
    /* APP_DBG_ERROR */ {"ERROR", QV_ZLOG_ERROR, 1, 1},
    /* APP_DBG_WARN  */ {"WARN", QV_ZLOG_WARN, 2, 1},
    /* APP_DBG_INFO  */ {"INFO", QV_ZLOG_INFO, 4, 2},
    /* APP_DBG_DEBUG */ {"DEBUG", QV_ZLOG_DEBUG, 5, 3},
};
static_assert(std::size(LEVEL_RULES) == APP_DBG_DEBUG + 1);

static constexpr int DEBUG_INIT_FAILED = -17;

const char* app_logfile_level_name(int32_t level) {
    const bool known = level >= 0 && level < static_cast<int32_t>(std::size(g_logfile_level_str));
    return known ? g_logfile_level_str[level] : "unknown";
}

const char* app_slog_level_name(int32_t level) {
    const bool known = level >= 0 && level < static_cast<int32_t>(std::size(g_slog_level_str));
    return known ? g_slog_level_str[level] : "unknown";
}

int app_dbg_slog_num_reach_max(void) {
    const uint32_t max = app_shared_get(g_dbg_slog_max);
    if (max == 0 || max > app_shared_get(g_dbg_slog_cnt)) {
        return 0;
    }
    app_shared_set(g_dbg_slog_cnt, 0U);
    app_shared_set(g_dbg_slog_level, 0);
    printk_syslog(SYSLOG_SEVERITY_INFO, "APP", "DEBUG",
                  "app number of debugs reach the maximum %d\n", max);
    return 1;
}

// Appends `text` to the first `used` bytes of the shared buffer, cut to fit, and returns the new
// length.
static size_t add_to_line(size_t used, std::string_view text) APP_REQUIRES(app_dbg_capability) {
    text = text.substr(0, APP_DBG_PRINT_BYTES - used);
    memcpy(g_dbg_print_buf + used, text.data(), text.size());
    return used + text.size();
}

// Formats "<function:line> " and the message into the shared buffer. The prefix is built without
// snprintf, which took as long as the rest of the call.
static void format_line(const char* function, int line, const char* format, va_list args)
    APP_REQUIRES(app_dbg_capability) {
    char number[std::numeric_limits<int>::digits10 + 2];
    const char* const end = std::to_chars(std::begin(number), std::end(number), line).ptr;
    size_t used = add_to_line(0, "<");
    used = add_to_line(used, function);
    used = add_to_line(used, ":");
    used = add_to_line(used, {number, end});
    used = add_to_line(used, "> ");
    vsnprintf(g_dbg_print_buf + used, sizeof g_dbg_print_buf - used, format, args);
}

static void write_log_file(const level_rule& rule, const char* file, const char* function, int line)
    APP_REQUIRES(app_dbg_capability) {
    if (app_shared_get(g_app_zlog_level) < rule.zlog_min || g_app_zlog_category == nullptr) {
        return;
    }
    char text[sizeof g_dbg_print_buf];
    app_text_copy(text, sizeof text, g_dbg_print_buf);
    qvdf_zlog(g_app_zlog_category, file, function, line, rule.zlog_number, text);
}

static void write_syslog(const level_rule& rule) APP_REQUIRES(app_dbg_capability) {
    if (app_shared_get(g_dbg_slog_level) < rule.slog_min || app_dbg_slog_num_reach_max()) {
        return;
    }
    printk_syslog_ext(SYSLOG_SEVERITY_INFO, app_dbg_module, rule.name, "%s", g_dbg_print_buf);
    app_shared_set(g_dbg_slog_cnt, app_shared_get(g_dbg_slog_cnt) + 1);
}

static void lock_output() APP_ACQUIRE(app_dbg_capability) APP_NOT_ANALYSED {
    pthread_mutex_lock(&g_dbg_lock);
}

static int unlock_output() APP_RELEASE(app_dbg_capability) APP_NOT_ANALYSED {
    return pthread_mutex_unlock(&g_dbg_lock);
}

int app_dbg_log(app_dbg_level_t level, const char* file, const char* function, int line,
                const char* format, ...) {
    const level_rule& rule = LEVEL_RULES[level];
    lock_output();
    va_list args;
    va_start(args, format);
    format_line(function, line, format, args);
    va_end(args);
    write_log_file(rule, file, function, line);
    write_syslog(rule);
    return unlock_output();
}

int app_zlog_init(const char* name) {
    g_app_zlog_category = qv_zlog_init(name);
    if (g_app_zlog_category != nullptr) {
        return 0;
    }
    APP_FATAL("snp_ds_ser zlog init fail.");
    return DEBUG_INIT_FAILED;
}

// Reads the next decimal number of the file, after any white space. Returns false when there is
// none or it does not fit.
static bool read_level(FILE* file, int32_t* level) {
    int next = getc(file);
    while (isspace(next)) {
        next = getc(file);
    }
    const bool negative = next == '-';
    if (next == '-' || next == '+') {
        next = getc(file);
    }
    const bool found = isdigit(next) != 0;
    int64_t number = 0;
    for (; isdigit(next); next = getc(file)) {
        number = std::min<int64_t>(number * 10 + (next - '0'), UINT32_MAX);
    }
    ungetc(next, file);
    if (negative) {
        number = -number;
    }
    if (!found || number < INT32_MIN || number > INT32_MAX) {
        return false;
    }
    *level = static_cast<int32_t>(number);
    return true;
}

// The level file holds two numbers, for the log file and for the system log. With any other
// content, or a number that does not fit, both levels stay at their defaults.
static void read_level_file(FILE* file) {
    int32_t zlog_level = 0;
    int32_t slog_level = 0;
    const bool both = read_level(file, &zlog_level) && read_level(file, &slog_level);
    app_shared_set(g_app_zlog_level, both ? zlog_level : APP_ZLOG_LEVEL_DEFAULT);
    app_shared_set(g_dbg_slog_level, both ? slog_level : APP_SLOG_LEVEL_DEFAULT);
}

int app_debug_init(const char* name, const char* upper_name) {
    if (pthread_mutex_init(&g_dbg_lock, nullptr) != 0) {
        return DEBUG_INIT_FAILED;
    }
    app_text_copy(app_dbg_module, sizeof app_dbg_module, upper_name);
    const int rv = app_zlog_init(name);
    if (rv != 0) {
        return rv;
    }
    snprintf(app_dbg_path, sizeof app_dbg_path, "/data/%s/%s.dbg", name, name);
    FILE* file = fopen(app_dbg_path, "r");
    if (file == nullptr) {
        return 0;
    }
    read_level_file(file);
    fclose(file);
    return 0;
}
