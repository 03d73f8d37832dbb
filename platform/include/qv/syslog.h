// System log. Any thread. A message is shown as "%FACILITY-SEVERITY-MNEMONIC: text".
#pragma once

extern "C" {

inline constexpr int SYSLOG_SEVERITY_ERROR = 3;
inline constexpr int SYSLOG_SEVERITY_WARNING = 4;
inline constexpr int SYSLOG_SEVERITY_INFO = 6;

// Writes one message to the system log.
void printk_syslog(int severity, const char* facility, const char* mnemonic, const char* format,
                   ...) __attribute__((format(printf, 4, 5)));

// The same, and shows it on every terminal that monitors.
void printk_syslog_ext(int severity, const char* facility, const char* mnemonic, const char* format,
                       ...) __attribute__((format(printf, 4, 5)));

}  // extern "C"
