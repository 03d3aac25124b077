// Shared types of the FTP daemon: limits, the session record, log lines and the wire profile.
// Each subsystem declares its entry points in a header of its own; see the README's layout.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "bounded_text.h"
#include "session/session.h"
#include "base/memory.h"
#include "base/raii.h"
#include "syslog_ext.h"

struct zq_thread_master;
struct zq_thread;
struct cli_cmd;

// ---------------------------------------------------------------------------------------------
// Limits
#define FTP_MAX_CONNECT 20       // sessions (the listener counts itself in the same counter)
#define FTP_MAX_USERS 10         // rows of the user table
#define FTP_MAX_USER_CONNECT 20  // slots per user, upper bound of ftpd_user_max_connect
#define FTP_DEF_USER_CONNECT 10
#define FTP_USERNAME_MAX 64
#define FTP_PASSWORD_MAX 52
#define FTP_PLAIN_PASSWORD_MAX 25
#define FTP_BUF_SIZE 512
#define FTP_WHOLE_BUF_SIZE 1024
#define FTP_CURRENTDIR_LEN 256
#define FTP_CLIENT_ADDR_LEN 48
#define FTP_DOMAIN_MSG_LEN 20
#define FTP_DEF_TIMEOUT 10
#define FTP_DEF_LOGINTIMEOUT 2
#define FTP_DEF_LOGINTIMES 3

#define FTPD_MODULE "FTPSRV"
#define FTP_SERVER_SOCK_PATH "/app/ftps/.server_ftp"
#define FTP_CLIENT_SOCK_PATH "/app/ftps/.client_ftp"
#define FTP_TEMP_TEMPLATE "/app/ftps/.ftptemp-XXXXXX"
#define FTP_STOP_MSG "stop ftp server"

// ---------------------------------------------------------------------------------------------
// Debug switches and log lines
void set_ftp_debug_pro(int v);
int get_ftp_debug_pro(void);
void set_ftp_debug_err(int v);
int get_ftp_debug_err(void);

// Process lines (tag DEBUG), key-message log lines (tag KEYMSG) and error lines (tag ERROR).
#define FTPD_LOG_PRO(fmt, ...)                                                                           \
    do {                                                                                                 \
        if (get_ftp_debug_pro() == 1)                                                                    \
            printk_syslog_ext(7, FTPD_MODULE, "DEBUG", LOG_CLASS_DEBUG, fmt __VA_OPT__(, ) __VA_ARGS__); \
    } while (0)
#define FTPD_LOG_KEY(fmt, ...)                                                                            \
    do {                                                                                                  \
        if (get_ftp_debug_pro() == 1)                                                                     \
            printk_syslog_ext(7, FTPD_MODULE, "KEYMSG", LOG_CLASS_DEBUG, fmt __VA_OPT__(, ) __VA_ARGS__); \
    } while (0)
#define FTPD_LOG_ERR(fmt, ...)                                                                           \
    do {                                                                                                 \
        if (get_ftp_debug_err() == 1)                                                                    \
            printk_syslog_ext(7, FTPD_MODULE, "ERROR", LOG_CLASS_DEBUG, fmt __VA_OPT__(, ) __VA_ARGS__); \
    } while (0)
// Assertion line: written always, execution goes on.
#define FTPD_ASSERT_LOG(cond, file)                                                                                  \
    do {                                                                                                             \
        if (!(cond))                                                                                                 \
            printk_syslog_ext(7, "UNKNOW_MODULE", "DEBUG", LOG_CLASS_DEBUG, "ASSERT fail! - %s: %d, " #cond ".\r\n", \
                              file, __LINE__);                                                                       \
    } while (0)

// ---------------------------------------------------------------------------------------------
// Wire profile (ftpd_profile.cpp): false for the device's behaviour byte for byte, true for the
// standard profile of stock clients on plain Linux.
void ftpd_profile_init(void);
bool ftpd_standard(void);
void ftpd_profile_set(bool standard);  // tests
