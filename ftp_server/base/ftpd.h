// Shared types of the FTP daemon: limits, log lines, the representation types and the addresses of
// a control connection.
// Each subsystem declares its entry points in a header of its own; see the README's layout.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <netinet/in.h>

#include <cstdint>

#include "bounded_text.h"
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
#define FTP_MAX_USER_CONNECT 20  // the management command's upper bound of the slots per user
#define FTP_MAX_SLOTS 4096       // slots per user, upper bound of any profile's limit
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
// Shared types

#define FTP_NAME_LEN 65
#define FTP_PASSWD_LEN 53
#define FTP_ROOTDIR_LEN 258

// Representation types, numbered as the status report and STAT show them (typenames).
enum class ftp_type : int { none = 0, ascii = 1, ebcdic = 2, binary = 3, local = 4 };
extern const char *typenames[];

// How the next (or current) data connection is made.
enum class ftp_data_mode : int { none = 0, active = 1, passive = 2 };

// Addresses of one control connection; only the pair of its family is filled.
struct ftp_connect_addr {
    struct sockaddr_in his_addr;      // peer, IPv4
    struct sockaddr_in6 his_addrv6;   // peer, IPv6
    struct sockaddr_in ctrl_addr;     // local, IPv4
    struct sockaddr_in6 ctrl_addrv6;  // local, IPv6
};

// Hand-off record from the listener to a session thread (category FTPD_M_INFO).
struct ftp_connect_info {
    int domain_fd;    // local control-channel socket (shared, not owned)
    int fd;           // accepted control connection (owned by the session thread)
    int contrl_type;  // AF_INET or AF_INET6
    struct ftp_connect_addr def_addr;
};
