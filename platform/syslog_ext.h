// Log service: one line per call, "%MODULE-PRIORITY-TAG: text", to the targets of the platform file.
#pragma once

#include <cstdarg>

// Classes of printk_syslog_ext: switch-gated lines and lines that are always written.
#define LOG_CLASS_ALWAYS 1
#define LOG_CLASS_DEBUG 2

// Formats the text, strips its trailing CR and LF and writes the line to every enabled target
// (syslog(3), the log file, standard error). Thread-safe. Returns 0.
int printk_syslog_ext(int priority, const char *module, const char *tag, int cls, const char *fmt, ...)
    __attribute__((format(printf, 5, 6)));
int vprintk_syslog_ext(int priority, const char *module, const char *tag, int cls, const char *fmt, va_list ap);

// After log rotation (SIGHUP, through the event master): opens the log targets again and writes
// the notice "%LOG-6-REOPEN: log reopened" to them, which starts a moved-away log file anew.
// Returns 0.
int syslog_reopen(void);

// Local time "YYYY-MM-DD HH:MM:SS" into buf (mode is the device's format selector; ignored here).
// Returns 0, or -1 when buf is too small.
int syslog_get_current_time(char *buf, int len, int mode);

struct zq_thread_master;
// Syslog client start-up of the device; on Linux they only succeed.
int syslog_multi_thread_client_init(int timer, int count);
int syslog_single_thread_client_init(struct zq_thread_master *master);
