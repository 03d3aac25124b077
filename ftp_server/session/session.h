// One control session: everything it owns, in one record with owning members (the control
// connection and its TLS state, the data connection, the login and its connection slot, the name
// space, the command buffers), and the few questions every command asks of it.
#pragma once

#include <arpa/inet.h>
#include <sys/types.h>

#include "base/ftpd.h"
#include "base/path.h"
#include "base/peers.h"
#include "base/policy.h"
#include "base/users.h"
#include "data/dataconn.h"
#include "net/reply.h"
#include "net/waiter.h"

struct ftp_command;

// Standard profile: bytes received on the control connection, not yet taken as a command line.
struct ftp_line_input {
    char buf[FTP_BUF_SIZE] = {};
    size_t len = 0;
    bool discarding = false;  // the rest of a line too long for the buffer is dropped up to its LF
};

// The login: who the session is, and how far it got.
struct ftp_login {
    ftpd_block name;     // FTP_NAME_LEN, FTPD_M_PCRED_NAME: the configured user USER named
    ftpd_block passwd;   // FTP_PASSWD_LEN, FTPD_M_PCRED_PWD: that user's password
    ftpd_block message;  // FTPD_M_PCRED_MSG, or none
    char client_name[FTP_NAME_LEN] = {};  // the name as USER gave it
    bool logged_in = false;
    bool asked_password = false;  // USER was answered 331: PASS is awaited
    bool guest = false;
    int32_t level = 0;            // privilege level (AAA)
    uint32_t aaa_session = 0;     // AAA session identifier, 0 when none
    bool local_aaa = false;       // counted in the local user database's online count
    char online_name[FTP_NAME_LEN] = {};  // the account whose online count was taken
    bool fail_waited = false;     // the current PASS has waited out the failed-login delay
    bool at_user_limit = false;   // the user named by USER had no free connection slot
    bool passed_once = false;     // a PASS was taken: the idle time-out replaces the login one
    int failed_users = 0;
    int failed_passwords = 0;
};

struct ftp_session {
    ftp_session(int control_fd, int stop_fd, int family, const ftp_connect_addr &addr, const ftp_policy &policy);
    ~ftp_session();
    ftp_session(const ftp_session &) = delete;
    ftp_session &operator=(const ftp_session &) = delete;

    // The buffers and records the session starts with: false when one could not be allocated.
    bool ready() const;

    // The control connection
    ftp_control ctl;
    int stop_fd;                 // the local control channel (shared, not owned)
    int family;                  // of the control connection: AF_INET or AF_INET6
    ftp_connect_addr addr;       // its peer and local addresses
    // The client: the control connection's peer, or the address a load balancer's PROXY header
    // named. Logs, the per-address limit, AAA and the data-peer checks use it.
    struct sockaddr_storage client {};
    char client_text[INET6_ADDRSTRLEN] = {};
    ftp_address_hold address_hold;
    const ftp_policy &policy;
    ftp_waiter waiter;           // the wait for the next command
    bool peer_closed = false;    // the client closed its side: the session ends after this command

    // The command being served
    ftpd_block buffers;          // FTPD_M_WHOLE_BUF: the argument, then the line as received
    char *arg = nullptr;         // FTP_BUF_SIZE bytes
    char *line = nullptr;        // FTP_BUF_SIZE bytes; also scratch for handlers
    const ftp_command *cmd = nullptr;  // nullptr: an unknown word
    bool recognised_any = false;       // a line has been recognised (cmd means something)
    ftp_line_input input;
    char stop_msg[FTP_DOMAIN_MSG_LEN] = {};

    // The login and its connection slot
    ftp_login login;
    ftp_slot slot;

    // The name space
    ftpd_block rootdir;          // FTP_ROOTDIR_LEN, FTPD_M_PCRED_DIR: the real top directory, empty when none
    bool has_topdir = false;     // a top directory was resolved and is still configured
    char currentdir[FTP_CURRENTDIR_LEN] = {};
    char rename_from[FTP_CURRENTDIR_LEN] = {};

    // What the login may do: change the name space, and KiB/s per transfer (0: the server's).
    bool may_write = true;
    unsigned max_rate = 0;

    // Transfers
    ftp_type type = ftp_type::ascii;
    off_t rest_offset = 0;       // REST: where the next RETR or STOR starts
    int timeout_min;             // idle time-out, copied at session start
    // When the wait for the next command ends the session: the login time-out from the session's
    // start until a PASS is taken, then the idle time-out from the last command.
    long long command_deadline_ms = 0;
    ftp_dataconn data;
    // The data port PORT or EPRT named, or kPassiveMark after PASV or EPSV; -1 before either. A
    // transfer needs one of them above 1024 first.
    int client_port = -1;
    unsigned mlst_facts = 0x1f;  // the MLST and MLSD facts OPTS MLST selected: all at first
    ftp_data_watch *watch = nullptr;  // what the control connection's input means during a transfer

    // Protection of the data connections (the control connection's is in ctl)
    bool pbsz_seen = false;
    bool prot_private = false;
};

constexpr int kReservedPort = 1024;  // IPPORT_RESERVED
constexpr int kPassiveMark = kReservedPort + 1;

inline bool is_logged_in(const ftp_session &s) {
    return s.login.logged_in;
}
inline bool is_access(const ftp_session &s) {
    return s.has_topdir;
}
inline bool is_data_empty(const char *s) {
    return s == nullptr || s[0] == '\0';
}
const char *session_root(const ftp_session &s);
const char *session_name(const ftp_session &s);

// Takes addr as the session's client (its text too).
void set_client(ftp_session &s, const struct sockaddr_storage &addr);

// Replies on the session's control connection.
int reply(ftp_session &s, const char *text);
int reply_code(ftp_session &s, const char *code, const char *fmt, const char *arg1 = nullptr,
               const char *arg2 = nullptr);

// Admission of a command that names a path: not logged in (530), no top directory (550), no
// argument (501). 0 to go on, 1 refused and replied, -1 the refusal could not be sent.
int admit_path_cmd(ftp_session &s, const char *arg);

// The resolution sequence for the session's argument, from its current directory inside its top
// directory; and its current directory as the client sees it (the buffer holds size bytes).
// follow: the command acts on what a last symbolic link names (else on the name itself);
// check_links false: the caller opens the path with ftpd_open_beneath, which confines the walk.
[[nodiscard]] ftpd_resolve_result ftpd_resolve_path(const ftp_session &s, const char *arg, char *inpath,
                                                    char *outpath, bool follow = true, bool check_links = true);
[[nodiscard]] char *ftpd_client_view(const ftp_session &s, char *outpath, int size);

// What the data connection needs of this session for one transfer; with the real path of a file
// and its direction, the transfer is logged in the transfer log (log_name holds FTP_PATH_HALF
// bytes for the name as the client sees it).
ftp_data_env data_env(ftp_session &s, const char *real = nullptr, bool upload = false, char *log_name = nullptr);
// The session's state as its connection slot shows it, and the slot refreshed from it.
struct ftp_user_cnt_info_s slot_snapshot(const ftp_session &s);
void slot_update(ftp_session &s);
