// Logging: one line goes to the log file and, within a budget, to the system log.
//
// Each side has its own level threshold. The line is formatted into one shared buffer under
// g_dbg_lock, which also guards the budget's counting. The lock is not recursive and always
// innermost: nothing is logged while it is held. Any thread may log.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include <qv/zlog.h>
#include "app_lock.h"

inline constexpr size_t APP_DBG_TEXT_BYTES = 64;
inline constexpr size_t APP_DBG_PRINT_BYTES = 1024;  // without the terminator

// Levels and budget at the start and after "no"; the numbers are explained at the fields below.
inline constexpr int32_t APP_ZLOG_LEVEL_DEFAULT = 2;
inline constexpr int32_t APP_SLOG_LEVEL_DEFAULT = 0;
inline constexpr uint32_t APP_SLOG_MAX_DEFAULT = 1000;

enum app_dbg_level_t : uint8_t {
    APP_DBG_FATAL,
    APP_DBG_ERROR,
    APP_DBG_WARN,
    APP_DBG_INFO,
    APP_DBG_DEBUG,
};

// ---- Guarded by g_dbg_lock ----
extern pthread_mutex_t g_dbg_lock;
inline app_lock_t app_dbg_capability;  // the same lock, for the analysis
extern char g_dbg_print_buf[APP_DBG_PRINT_BYTES + 1] APP_GUARDED_BY(app_dbg_capability);

// ---- Shared through atomics: read under the lock, set by debug commands without it ----
extern int32_t g_app_zlog_level;  // log file: 0 fatal, 1 error, 2 warn, 3 notice, 4 info, 5 debug
extern int32_t g_dbg_slog_level;  // system log: 0 none, 1 error, 2 info, 3 debug
extern uint32_t g_dbg_slog_cnt;   // system-log lines since the budget was last reset
extern uint32_t g_dbg_slog_max;   // the budget in lines, 0 for no limit

// ---- Constant after app_debug_init ----
extern qv_zlog_category* g_app_zlog_category;     // null: nothing goes to the log file
extern char app_dbg_module[APP_DBG_TEXT_BYTES];   // facility of the system-log lines
extern char app_dbg_path[APP_DBG_TEXT_BYTES];     // the level file
extern const char* const g_logfile_level_str[6];  // names of the log-file levels
extern const char* const g_slog_level_str[4];     // names of the system-log levels

// Name of a level, "unknown" for any other number (the stored levels are not clamped).
const char* app_logfile_level_name(int32_t level);
const char* app_slog_level_name(int32_t level);

// Sets up logging for the program `name` and reads the levels from /data/<name>/<name>.dbg, where
// that file exists and holds two numbers. Main thread; call it first. 0, or -17 when the lock or
// the log file cannot be set up.
int app_debug_init(const char* name, const char* upper_name);

// Opens the log file. 0 or -17.
int app_zlog_init(const char* name);

// 1 when the budget of system-log lines is used up, which resets the count, turns debug lines in
// the system log off and logs that there; else 0.
int app_dbg_slog_num_reach_max(void) APP_REQUIRES(app_dbg_capability);

// Writes one line, "<function:line> " and the message. Returns the result of releasing the lock.
int app_dbg_log(app_dbg_level_t level, const char* file, const char* function, int line,
                const char* format, ...) __attribute__((format(printf, 5, 6)));

#define APP_LOG_AS(level, operation, ...) \
    app_dbg_log(level, __FILE__, operation, __LINE__, __VA_ARGS__)

#define APP_FATAL(...) APP_LOG_AS(APP_DBG_FATAL, __func__, __VA_ARGS__)
#define APP_ERROR(...) APP_LOG_AS(APP_DBG_ERROR, __func__, __VA_ARGS__)
#define APP_WARN(...) APP_LOG_AS(APP_DBG_WARN, __func__, __VA_ARGS__)
#define APP_INFO(...) APP_LOG_AS(APP_DBG_INFO, __func__, __VA_ARGS__)
#define APP_DEBUG(...) APP_LOG_AS(APP_DBG_DEBUG, __func__, __VA_ARGS__)

// The same under the name of an operation: a log line names its operation, which may consist of
// several functions.
#define APP_ERROR_AS(operation, ...) APP_LOG_AS(APP_DBG_ERROR, operation, __VA_ARGS__)
#define APP_INFO_AS(operation, ...) APP_LOG_AS(APP_DBG_INFO, operation, __VA_ARGS__)
