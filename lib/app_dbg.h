// Key-message files of an application: TMPDIR/app/NAME/.init_msg.txt and .init_err.txt.
#pragma once

// Application name used for the directory (set by app_public_instance_init; "ftps").
void app_dbg_set_name(const char *name);
// Full path of a file of the application's directory, creating the directory when needed. The
// result lives in one process-wide buffer that the next call overwrites (call under the lock).
char *app_dbg_make_path(const char *file);
// Append one line "TIME [FUNCTION/LINE]- text" to the key-message or error file; a file over
// 2 MiB is emptied first.
void app_write_keymsg_impl(const char *function, int line, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
void app_write_errmsg_impl(const char *function, int line, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
#define app_write_keymsg(...) app_write_keymsg_impl(__func__, __LINE__, __VA_ARGS__)
#define app_write_errmsg(...) app_write_errmsg_impl(__func__, __LINE__, __VA_ARGS__)

// Writes a key message and, under the process debug switch, the same text as a KEYMSG line.
#define FTPD_KEYMSG(...)                      \
    do {                                      \
        app_write_keymsg(__VA_ARGS__);        \
        FTPD_LOG_KEY(__VA_ARGS__);            \
    } while (0)
