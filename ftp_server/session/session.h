// The per-session record, the connection slot and the addresses of one control connection.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <cstdint>

struct ftp_tls;

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
    int contrl_type;  // AF_INET (2) or AF_INET6 (10)
    struct ftp_connect_addr def_addr;
};

// One connection slot: a snapshot of a session's transfer settings and addresses.
struct ftp_user_cnt_info_s {
    int use_flag;   // 1: held by a session
    int tran_type;  // 1 ASCII, 2 EBCDIC, 3 BINARY, 4 Local
    int data_mode;  // table copy only: 0 none, 1 active, 2 passive data connection
    struct ftp_connect_addr def_addr;
    int contrl_type;  // family of the control connection
    int data_type;    // family of the next data connection: 0, 2 or 10
    struct sockaddr_in data_dest;
    struct sockaddr_in6 data_destv6;
    struct sockaddr_in data_source;
    struct sockaddr_in6 data_sourcev6;
    struct sockaddr_in pasv_dest;
    struct sockaddr_in6 pasv_destv6;
    struct sockaddr_in pasv_addr;
    struct sockaddr_in6 pasv_addrv6;
};

#define FTP_NAME_LEN 65
#define FTP_PASSWD_LEN 53
#define FTP_ROOTDIR_LEN 258

// The session record; lives on the session thread's stack.
struct credentials {
    char *name;        // 65 bytes, FTPD_M_PCRED_NAME
    char *homedir;     // unused
    char *rootdir;     // 258 bytes, FTPD_M_PCRED_DIR: the real top directory, empty when none
    char *shell;       // unused
    char *remotehost;  // unused
    char *passwd;      // 53 bytes, FTPD_M_PCRED_PWD
    char *pass;        // unused
    char *message;     // FTPD_M_PCRED_MSG, may be null
    uint32_t uid;
    uint32_t gid;
    int32_t level;
    int32_t guest;
    int32_t dochroot;
    int32_t logged_in;
    bool logged_local_aaa_in;
    int32_t auth_type;
    int32_t usedefault;    // 1: active connections go to the control peer's port + 1
    int32_t listen_pdata;  // passive listening socket, -1
    int32_t pdata;         // accepted passive data socket, -1
    int32_t data;          // active data socket, -1
    int32_t ctl_fd;
    off_t byte_count;
    int32_t askpasswd;
    int32_t timeout;  // idle time-out, minutes
    uint32_t session_id;
    bool rwdir_flag;
    bool epsv_all;
    int32_t cnt_index;
    struct ftp_user_cnt_info_s cnt;
    uint32_t slot_generation;        // generation of the user-table row the slot was taken from
    char online_name[FTP_NAME_LEN];  // the account whose online count this session took, if any
    bool fail_waited;                // the current PASS has waited out the failed-login delay
    off_t rest_offset;               // standard profile: REST offset for the next transfer, 0 none
    bool at_user_limit;              // the user named by USER had no free connection slot
    // Standard profile with TLS: the control connection's TLS state (nullptr in clear text), the
    // current data connection's, and whether data connections are protected (PROT P).
    struct ftp_tls *tls;
    struct ftp_tls *data_tls;
    bool pbsz_seen;
    bool prot_private;
};
