// Log files. Any thread may write; qv_zlog_init belongs to the main thread.
#pragma once

extern "C" {

struct qv_zlog_category;

// Level numbers.
inline constexpr int QV_ZLOG_DEBUG = 20;
inline constexpr int QV_ZLOG_INFO = 40;
inline constexpr int QV_ZLOG_WARN = 80;
inline constexpr int QV_ZLOG_ERROR = 100;
inline constexpr int QV_ZLOG_FATAL = 120;

// Opens the log file of a process and returns its category, valid for the life of the process, or
// null when it cannot be opened.
qv_zlog_category* qv_zlog_init(const char* name);

// Writes one line unchanged (a missing line end is added). A null category or a level outside
// 1 to 254 is dropped.
void qvdf_zlog(qv_zlog_category* category, const char* file, const char* function, long line,
               int level, const char* text);

}  // extern "C"
