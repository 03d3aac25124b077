// One control session: the session thread's body with its admission check, the session record
// and its buffers, the command loop that waits, reads, recognises and dispatches one command at a
// time, and the end sequence that gives everything back.
#include "control/session.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "app_dbg.h"
#include "ftp_tls.h"
#include "base/ftpd.h"
#include "files/cmds.h"
#include "data/dataconn.h"
#include "net/waiter.h"
#include "control/help.h"
#include "transfer/list.h"
#include "control/listener.h"
#include "login/login.h"
#include "control/parser.h"
#include "net/reply.h"
#include "login/security.h"
#include "base/settings.h"
#include "admin/techsupport.h"
#include "data/transfer.h"
#include "base/users.h"

#define FTP_RENAME_LEN 256
#define FTP_RESERVED_PORT 1024  // IPPORT_RESERVED
#define FTP_PASSIVE_MARK 1025

bool is_logged_in(const struct credentials *pcred) {
    return pcred->logged_in != 0;
}

bool is_access(const struct credentials *pcred) {
    return pcred->rwdir_flag;
}

bool is_data_empty(const char *s) {
    return s == nullptr || s[0] == '\0';
}

int init_cred(struct credentials *pcred, int contrl_type) {
    memset(pcred, 0, sizeof(*pcred));
    pcred->guest = 0;
    pcred->rwdir_flag = false;
    pcred->logged_in = 0;
    pcred->cnt.tran_type = 1;
    pcred->usedefault = 1;
    pcred->listen_pdata = -1;
    pcred->pdata = -1;
    pcred->data = -1;
    pcred->timeout = static_cast<int32_t>(get_ftp_timeout());
    pcred->cnt.contrl_type = contrl_type;
    pcred->cnt.data_type = 0;
    pcred->epsv_all = false;
    pcred->cnt_index = -1;
    pcred->message = nullptr;

    pcred->rootdir = static_cast<char *>(ftpd_malloc(FTPD_M_PCRED_DIR, FTP_ROOTDIR_LEN));
    if (pcred->rootdir != nullptr) pcred->name = static_cast<char *>(ftpd_malloc(FTPD_M_PCRED_NAME, FTP_NAME_LEN));
    if (pcred->name != nullptr) pcred->passwd = static_cast<char *>(ftpd_malloc(FTPD_M_PCRED_PWD, FTP_PASSWD_LEN));
    if (pcred->passwd == nullptr) {
        FTPD_LOG_ERR("%s: malloc fail.\n", FTPD_MODULE);
        ftpd_free(FTPD_M_PCRED_NAME, pcred->name);
        ftpd_free(FTPD_M_PCRED_DIR, pcred->rootdir);
        pcred->name = nullptr;
        pcred->rootdir = nullptr;
        return -1;
    }
    return 0;
}

void clear_cred(struct credentials *pcred) {
    FTPD_LOG_PRO("%s.\n", "clear_cred");
    if (pcred->rootdir != nullptr) ftpd_free(FTPD_M_PCRED_DIR, pcred->rootdir);
    if (pcred->name != nullptr) {
        ftp_set_userinfo_disconnect(pcred);
        ftpd_free(FTPD_M_PCRED_NAME, pcred->name);
    }
    if (pcred->passwd != nullptr) ftpd_free(FTPD_M_PCRED_PWD, pcred->passwd);
    if (pcred->message != nullptr) ftpd_free(FTPD_M_PCRED_MSG, pcred->message);
}

int get_command(int control_fd, char *recvbuff, char *databuff, int buffsize, bool *peer_closed) {
    ssize_t n = recv(control_fd, recvbuff, static_cast<size_t>(buffsize), 0);
    if (n < 0 && errno != EINTR && errno != EAGAIN && peer_closed != nullptr) {
        // A failing connection stays readable: waiting again would spin until the time-out.
        *peer_closed = true;
        return -1;
    }
    if (n < 0) return -1;
    // SECURITY: a peer that closed its side is answered once, not once per wake-up.
    if (n == 0 && peer_closed != nullptr) *peer_closed = true;
    // One recv is one command: a closed peer or a line that fills the whole buffer is a bad line.
    if (n == 0 || n >= buffsize) return FTP_CMD_BADLINE;
    recvbuff[n] = '\0';
    FTPD_LOG_PRO("(RECV)   %s", recvbuff);
    return ftpd_parse_cmd(recvbuff, databuff);
}

namespace {

// Gives back what the session record holds when the session ends: its strings and its user's
// connection slot, then any data connection a handler left open (a passive listener never used).
class record_release {
  public:
    explicit record_release(struct credentials *pcred) : pcred_(pcred) {}
    ~record_release() {
        if (!armed_) return;
        clear_cred(pcred_);
        ftpd_data_release(pcred_);
        ftpd_security_release(pcred_);
    }
    record_release(const record_release &) = delete;
    record_release &operator=(const record_release &) = delete;
    // From the moment the record is set up, whatever happens.
    void arm() { armed_ = true; }

  private:
    struct credentials *pcred_;
    bool armed_ = false;
};

// The session's event waiter; a null waiter is given back as well.
class waiter_owner {
  public:
    waiter_owner() = default;
    ~waiter_owner() { ftpd_epoll_destroy(ep_); }
    waiter_owner(const waiter_owner &) = delete;
    waiter_owner &operator=(const waiter_owner &) = delete;
    bool create() { return (ep_ = ftpd_epoll_create()) != nullptr; }
    struct ftp_epoll_s *operator->() const {
        return ep_;
    }
    struct ftp_epoll_s *get() const {
        return ep_;
    }

  private:
    struct ftp_epoll_s *ep_ = nullptr;
};

// Everything a session owns; the loop's dispatch helpers work on it.
struct session {
    int control_fd;
    int domain_fd;
    struct credentials pcred {};
    int cmd = -1;
    int logn = 0;
    int logpwd = 0;
    int login = 0;
    int client_port = -1;
    char *data_buff = nullptr;
    char *read_buff = nullptr;
    char *reply_buff = nullptr;
    char client_addr[FTP_CLIENT_ADDR_LEN] = {};
    char rename_from[FTP_RENAME_LEN] = {};
    char client_name[FTP_NAME_LEN] = {};
    char sdata[FTP_DOMAIN_MSG_LEN] = {};
    char currentdir[FTP_CURRENTDIR_LEN] = {};
    bool peer_closed = false;  // the client closed its sending side: the session ends after this command
    // Standard profile: bytes received but not yet taken as a command line.
    char inbuf[FTP_BUF_SIZE] = {};
    size_t inlen = 0;
    bool discarding = false;  // the rest of a line too long for the buffer is dropped up to its LF
    // The owners, destroyed in the reverse order of their declaration, which is the order in
    // which a session gives things back: the waiter, the command buffers, the record.
    record_release record{&pcred};
    ftpd_block whole_buff;
    waiter_owner epoll;
};

// Standard profile: takes the next whole line out of the session's input, CR LF or LF ended,
// parses it and returns its code; -1 when no whole line is there yet.
int take_line(session &s) {
    for (;;) {
        char *lf = static_cast<char *>(memchr(s.inbuf, '\n', s.inlen));
        if (lf == nullptr) {
            if (s.discarding) {
                s.inlen = 0;
                return -1;
            }
            if (s.inlen < sizeof s.inbuf - 1) return -1;
            // A line over the command buffer is answered once and dropped up to its LF.
            s.inlen = 0;
            s.discarding = true;
            return FTP_CMD_BADLINE;
        }
        size_t n = static_cast<size_t>(lf - s.inbuf) + 1;
        // An empty line is no command; the rest of an over-long line is dropped.
        size_t len = n - 1;
        if (len > 0 && s.inbuf[len - 1] == '\r') len--;
        bool skip = s.discarding || len == 0;
        s.discarding = false;
        if (!skip) {
            memcpy(s.read_buff, s.inbuf, len);
            s.read_buff[len] = '\0';
        }
        memmove(s.inbuf, s.inbuf + n, s.inlen - n);
        s.inlen -= n;
        if (skip) continue;
        FTPD_LOG_PRO("(RECV)   %s\n", s.read_buff);
        // Command words are not case-sensitive for stock clients.
        for (char *p = s.read_buff; *p >= 'a' && *p <= 'z'; p++) *p = static_cast<char>(*p - 'a' + 'A');
        return ftpd_parse_cmd(s.read_buff, s.data_buff);
    }
}

// Standard profile: receives what the control connection has into the session's input. False
// when nothing came.
bool receive_more(session &s) {
    size_t room = sizeof s.inbuf - 1 - s.inlen;
    ssize_t n = s.pcred.tls != nullptr ? ftp_tls_read(s.pcred.tls, s.inbuf + s.inlen, room)
                                       : recv(s.control_fd, s.inbuf + s.inlen, room, 0);
    if (n > 0) {
        s.inlen += static_cast<size_t>(n);
        return true;
    }
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) return false;
    // A closed or failing connection: what is left of a line is answered once, then the end.
    s.peer_closed = true;
    return false;
}

int reply(const session &s, const char *text) {
    return ftpd_reply_text(s.control_fd, text);
}

// Resolves the configured top directory into the current directory and the record.
void set_top_directory(session &s) {
    const char *root = get_true_ftp_server_root_dir();
    if (root == nullptr) {
        printk_syslog_ext(4, FTPD_MODULE, "DIR_CONF", LOG_CLASS_ALWAYS, "FTP server root dir is not configured.\n");
    } else if (strlen(root) <= 255) {
        (void)ftpd_strlcpy(s.currentdir, root, sizeof(s.currentdir));
        size_t len = strlen(s.currentdir);
        if (len > 1 && s.currentdir[len - 1] == '/') s.currentdir[len - 1] = '\0';
    } else {
        const char *conf = get_ftp_server_root_dir();
        printk_syslog_ext(4, FTPD_MODULE, "DIR_ERR", LOG_CLASS_ALWAYS, "Failed to set root dir '%s'\n",
                          conf != nullptr ? conf : "");
    }
    if (s.currentdir[0] != '\0') {
        s.pcred.rwdir_flag = true;
        (void)ftpd_strlcpy(s.pcred.rootdir, s.currentdir, FTP_ROOTDIR_LEN);
    } else {
        s.pcred.rootdir[0] = '\0';
    }
    s.currentdir[sizeof(s.currentdir) - 1] = '\0';
}

// LIST, NLST and MLSD share their admission; the loop checks it itself. False when the stop
// message aborted the listing.
bool list_or_nlst(session &s, int cmd) {
    struct credentials *pcred = &s.pcred;
    bool nlst = cmd == FTP_CMD_NLST;
    int r = 0;
    if (ftpd_standard() && is_logged_in(pcred) && ftpd_data_needs_tls(s.control_fd, pcred)) return true;
    if (!is_logged_in(pcred)) {
        reply(s, FTP_REPLY_530);
    } else if (is_access(pcred) && s.client_port > FTP_RESERVED_PORT) {
        auto *run = cmd == FTP_CMD_NLST ? nlst_fun : cmd == FTP_CMD_MLSD ? mlsd_fun : list_fun;
        r = run(s.control_fd, s.currentdir, s.data_buff, s.client_port, s.client_addr, pcred, s.domain_fd);
    } else {
        if (!nlst) {
            if (!is_access(pcred)) FTPD_LOG_ERR("%s:topdir is not access.\n", FTPD_MODULE);
            if (s.client_port < FTP_PASSIVE_MARK)
                FTPD_LOG_ERR("%s:client_port(%d) is small then IPPORT_RESERVED(%d).\n", FTPD_MODULE, s.client_port,
                             FTP_RESERVED_PORT);
        }
        reply(s, FTP_REPLY_451);
    }
    pcred->cnt.data_type = 0;
    return r != -2;
}

// RETR, STOR and APPE: a stop message during the transfer ends the session. A REST offset
// serves only the transfer that follows it.
bool file_transfer(session &s) {
    if (ftpd_standard() && is_logged_in(&s.pcred) && ftpd_data_needs_tls(s.control_fd, &s.pcred)) {
        s.pcred.rest_offset = 0;
        return true;
    }
    auto *run = s.cmd == FTP_CMD_RETR ? command_retr : s.cmd == FTP_CMD_STOR ? command_stor : command_appe;
    int rc = run(s.control_fd, s.data_buff, s.client_addr, &s.client_port, s.currentdir, &s.pcred, s.domain_fd);
    s.pcred.rest_offset = 0;
    if (rc != 0) return false;
    s.pcred.cnt.data_type = 0;
    return true;
}

// REST STREAM: the offset of the next RETR or STOR.
bool command_rest(session &s) {
    if (!is_logged_in(&s.pcred)) return reply(s, FTP_REPLY_530) >= 0;
    const char *p = s.data_buff;
    char *end = nullptr;
    errno = 0;
    long long v = *p >= '0' && *p <= '9' ? strtoll(p, &end, 10) : -1;
    if (v < 0 || errno != 0 || end == nullptr || *end != '\0') return reply(s, FTP_REPLY_501) >= 0;
    s.pcred.rest_offset = static_cast<off_t>(v);
    char text[96];
    (void)ftpd_snprintf(text, sizeof text, "350 Restarting at %lld. Send STORE or RETRIEVE to initiate transfer.\r\n",
                        v);
    return reply(s, text) >= 0;
}

// AUTH, PBSZ and PROT: 502 as on the device unless TLS is configured.
bool tls_command(session &s) {
    if (!ftp_tls_enabled()) return reply(s, FTP_REPLY_502) >= 0;
    if (s.cmd == FTP_CMD_PBSZ) {
        ftpd_command_pbsz(s.control_fd, s.data_buff, &s.pcred);
    } else if (s.cmd == FTP_CMD_PROT) {
        ftpd_command_prot(s.control_fd, s.data_buff, &s.pcred);
    } else {
        // SECURITY: what followed AUTH in the same segment was sent in clear text and is never
        // taken as a protected command.
        s.inlen = 0;
        s.discarding = false;
        return ftpd_command_auth(s.control_fd, s.data_buff, &s.pcred, s.epoll->timeout);
    }
    return true;
}

// The commands only the standard profile serves; the others answer 502 as on the device.
bool dispatch_standard(session &s) {
    struct credentials *pcred = &s.pcred;
    const int fd = s.control_fd;
    switch (s.cmd) {
        case FTP_CMD_NOOP:
            return reply(s, "200 NOOP ok.\r\n") >= 0;
        case FTP_CMD_FEAT: {
            char text[FTP_BUF_SIZE];
            (void)ftpd_snprintf(
                text, sizeof text,
                "211-Features:\r\n%s EPRT\r\n EPSV\r\n MDTM\r\n MLST type*;size*;modify*;perm*;unique*;\r\n"
                " REST STREAM\r\n SIZE\r\n UTF8\r\n TVFS\r\n211 End\r\n",
                ftpd_security_features());
            return reply(s, text) >= 0;
        }
        case FTP_CMD_OPTS:
            if (strcasecmp(s.data_buff, "UTF8 ON") == 0 || strcasecmp(s.data_buff, "UTF8") == 0)
                return reply(s, "200 Always in UTF8 mode.\r\n") >= 0;
            // Every fact is always sent; clients pick the ones they asked for.
            if (strncasecmp(s.data_buff, "MLST", 4) == 0 && (s.data_buff[4] == '\0' || s.data_buff[4] == ' '))
                return reply(s, "200 MLST OPTS type;size;modify;perm;unique;\r\n") >= 0;
            return reply(s, "501 Option not understood.\r\n") >= 0;
        case FTP_CMD_ABOR:
            // Commands are served one at a time: a transfer has always ended before ABOR is read.
            return reply(s, "225 No transfer to abort.\r\n") >= 0;
        case FTP_CMD_REST:
            return command_rest(s);
        case FTP_CMD_APPE:
            return file_transfer(s);
        case FTP_CMD_MLSD:
            return list_or_nlst(s, s.cmd);
        case FTP_CMD_MLST:
            return command_mlst(fd, s.data_buff, s.currentdir, pcred) == 0;
        case FTP_CMD_AUTH:
        case FTP_CMD_PBSZ:
        case FTP_CMD_PROT:
            return tls_command(s);
        default:
            return reply(s, FTP_REPLY_502) >= 0;
    }
}

// Runs the handler of one command. Returns false when the session must end.
bool dispatch(session &s) {
    struct credentials *pcred = &s.pcred;
    const int fd = s.control_fd;
    switch (s.cmd) {
        case -1:
            return true;
        case FTP_CMD_USER:
            if (ftpd_standard() && ftpd_login_needs_tls(fd, pcred)) return true;
            if (user(fd, s.data_buff, pcred, s.client_name) == -1) {
                ftp_authen_trap_send();
                s.logn++;
            }
            return get_ftp_logintimes() > static_cast<unsigned>(s.logn);
        case FTP_CMD_PASS: {
            if (ftpd_standard() && ftpd_login_needs_tls(fd, pcred)) return true;
            // SECURITY: a PASS out of sequence (503) neither resets the failure counts nor ends
            // the login time-out, or guesses could be interleaved without limit.
            if (ftpd_standard() && (pcred->logged_in != 0 || pcred->askpasswd == 0)) {
                pass(fd, s.data_buff, pcred, s.client_name);
                return true;
            }
            int passed = pass(fd, s.data_buff, pcred, s.client_name);
            if (passed == -2) return false;  // refused for good: the session ends
            if (passed != -1) {
                s.logn = 0;
                s.logpwd = 0;
                s.login = 1;
                return true;
            }
            ftp_authen_trap_send();
            s.logpwd++;
            return get_ftp_logintimes() > static_cast<unsigned>(s.logpwd);
        }
        case FTP_CMD_CWD:
            return command_cwd(fd, s.data_buff, s.reply_buff, s.currentdir, pcred) == 0;
        case FTP_CMD_CDUP:
            if (!is_logged_in(pcred)) return reply(s, FTP_REPLY_530) >= 0;
            if (is_access(pcred)) {
                cwd(fd, s.currentdir, "..", s.reply_buff, pcred);
                return true;
            }
            return reply(s, FTP_REPLY_550) >= 0;
        case FTP_CMD_QUIT:
            reply(s, FTP_REPLY_221);
            return false;
        case FTP_CMD_PORT:
            pcred->cnt.data_type = 2;
            return command_port(fd, s.data_buff, s.client_addr, &s.client_port, pcred) == 0;
        case FTP_CMD_PASV:
            if (!is_logged_in(pcred)) return reply(s, FTP_REPLY_530) >= 0;
            // The wording names active mode although PASV is refused; it is kept as it stands.
            if (pcred->epsv_all) return ftpd_reply(fd, "501", "Active mode is disabled.\r\n", nullptr, nullptr) >= 0;
            pcred->cnt.data_type = 2;
            passive(fd, pcred);
            s.client_port = FTP_PASSIVE_MARK;
            return true;
        case FTP_CMD_TYPE:
            if (!is_logged_in(pcred)) return reply(s, FTP_REPLY_530) >= 0;
            type_fun(fd, s.data_buff, pcred);
            return true;
        case FTP_CMD_RETR:
        case FTP_CMD_STOR:
            return file_transfer(s);
        case FTP_CMD_RNFR:
            return command_rnfr(fd, s.data_buff, s.reply_buff, s.rename_from, s.currentdir, pcred) == 0;
        case FTP_CMD_RNTO:
            return command_rnto(fd, s.data_buff, s.rename_from, s.currentdir, pcred) == 0;
        case FTP_CMD_DELE:
            return command_dele(fd, s.data_buff, s.reply_buff, s.currentdir, pcred) == 0;
        case FTP_CMD_RMD:
            return command_rmd(fd, s.data_buff, s.currentdir, pcred) == 0;
        case FTP_CMD_MKD:
            return command_mkd(fd, s.data_buff, s.currentdir, pcred) == 0;
        case FTP_CMD_PWD:
            // PWD never answers 530: a client that is not logged in gets the 550 too.
            if (is_logged_in(pcred) && is_access(pcred)) {
                pwd_fun(fd, s.currentdir, s.reply_buff, pcred);
                return true;
            }
            return reply(s, FTP_REPLY_550) >= 0;
        case FTP_CMD_LIST:
        case FTP_CMD_NLST:
            return list_or_nlst(s, s.cmd);
        case FTP_CMD_SYST:
            return command_syst(fd) == 0;
        case FTP_CMD_STAT:
            return command_stat(fd, s.data_buff, s.reply_buff, s.currentdir, pcred) == 0;
        case FTP_CMD_HELP:
            command_help(fd, s.data_buff);
            return true;
        case FTP_CMD_BADLINE:
            return reply(s, FTP_REPLY_500) >= 0;
        case FTP_CMD_MDTM:
            return command_mdtm(fd, s.data_buff, s.reply_buff, s.currentdir, pcred) == 0;
        case FTP_CMD_EPRT:
            return command_eprt(fd, s.data_buff, s.client_addr, FTP_CLIENT_ADDR_LEN, &s.client_port, pcred) == 0;
        case FTP_CMD_EPSV:
            if (command_epsv(fd, s.data_buff, pcred) != 0) return false;
            s.client_port = FTP_PASSIVE_MARK;
            return true;
        case FTP_CMD_SIZE:
            return command_size(fd, s.data_buff, s.currentdir, pcred) == 0;
        default:
            if (ftpd_standard()) return dispatch_standard(s);
            // Unrecognised words and every recognised command that is not served, NOOP and STOU
            // included.
            return reply(s, FTP_REPLY_502) >= 0;
    }
}

// Waits for the next command and reads it into s.cmd. Returns false when the session must end.
bool wait_command(session &s) {
    if (get_ftp_server_root_dir() == nullptr) s.pcred.rwdir_flag = false;
    if (s.login) s.epoll->timeout = s.pcred.timeout * 60;
    if (ftpd_standard()) {
        // Lines that arrived together are served in order without waiting again.
        memset(s.data_buff, 0, FTP_BUF_SIZE);
        s.cmd = take_line(s);
        // Protected bytes the TLS layer already holds are announced by no wait.
        while (s.cmd == -1 && s.pcred.tls != nullptr && !s.peer_closed && ftp_tls_pending(s.pcred.tls) &&
               receive_more(s))
            s.cmd = take_line(s);
        if (s.cmd != -1) return true;
    }

    int n = ftpd_epoll(s.epoll.get(), FTP_EPOLL_IN);
    if (n < 0) {
        FTPD_LOG_ERR("%s: Epoll error when waiting command.errno=%d\n", FTPD_MODULE, errno);
        return false;
    }
    if (n == 0) {
        FTPD_LOG_PRO("Time out.\n");
        return false;
    }
    if (ftpd_epoll_event(s.epoll.get(), s.domain_fd, FTP_EPOLL_IN)) {
        ssize_t got = recvfrom(s.domain_fd, s.sdata, sizeof(s.sdata) - 1, 0, nullptr, nullptr);
        if (got < 0) {
            FTPD_LOG_ERR("%s: domain socket recvfrom error when waiting command.%d\n", FTPD_MODULE, errno);
            // Another reader took the message: only a disabled service ends the session.
            bool taken = errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
            if (!taken || !is_ftp_server_start()) return false;
            got = 0;
        }
        s.sdata[got] = '\0';
        FTPD_LOG_PRO("stop tcp link [%s]\n", s.sdata);
        if (!is_ftp_server_start()) return false;
    }
    if (ftpd_standard()) {
        // The control channel alone, with the service still enabled, means nothing to do.
        s.cmd = -1;
        if (ftpd_epoll_event(s.epoll.get(), s.control_fd, FTP_EPOLL_IN)) {
            receive_more(s);
            memset(s.data_buff, 0, FTP_BUF_SIZE);
            s.cmd = take_line(s);
            if (s.cmd == -1 && s.peer_closed && s.inlen > 0) s.cmd = FTP_CMD_BADLINE;
        }
        return true;
    }
    // When only the control channel woke us and the service stays enabled, the previous command
    // code is dispatched again with its argument; that repetition is intended.
    if (ftpd_epoll_event(s.epoll.get(), s.control_fd, FTP_EPOLL_IN)) {
        memset(s.data_buff, 0, FTP_BUF_SIZE);
        s.cmd = get_command(s.control_fd, s.read_buff, s.data_buff, FTP_BUF_SIZE, &s.peer_closed);
    }
    return true;
}

// No reply may block longer than the wait for the next command: a client that stops reading
// must not hold its session past its time-out.
void set_send_deadline(int fd, int seconds) {
    struct timeval tv {};
    tv.tv_sec = seconds > 0 ? seconds : 1;
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

void run_session(session &s, int contrl_type, const struct ftp_connect_addr *def_addr) {
    s.record.arm();
    if (init_cred(&s.pcred, contrl_type) != 0) return;

    s.pcred.ctl_fd = s.control_fd;
    // Every reply is one whole send: without this, a reply that follows another with no command in
    // between (150 then 226) waits for the client's delayed acknowledgement.
    int nodelay = 1;
    setsockopt(s.control_fd, IPPROTO_TCP, TCP_NODELAY, &nodelay, sizeof nodelay);
    if (ftp_get_product_name() == nullptr) FTPD_LOG_ERR("sys get product name fail\n");
    // The name is copied: the shared text is released at shutdown while sessions still run.
    char product[FTP_BUF_SIZE];
    ftp_copy_product_name(product, sizeof product);
    s.pcred.cnt.def_addr = *def_addr;
    memset(s.currentdir, 0, sizeof(s.currentdir));
    set_top_directory(s);

    (void)ftpd_snprintf(s.data_buff, FTP_BUF_SIZE, "220 %s FTP server <version 1.00> ready.\r\n", product);
    if (ftpd_reply(s.control_fd, nullptr, "%s", s.data_buff, nullptr) < 0) return;

    if (!s.epoll.create()) {
        FTPD_LOG_ERR("%s: Epoll create errno.\n", FTPD_MODULE);
        return;
    }
    s.epoll->fd[0] = s.control_fd;
    s.epoll->fd[1] = s.domain_fd;
    s.epoll->timeout = static_cast<int>(get_ftp_logintimeout()) * 60;
    set_send_deadline(s.control_fd, s.epoll->timeout);

    for (;;) {
        int before = s.epoll->timeout;
        if (!wait_command(s)) return;
        if (s.epoll->timeout != before) set_send_deadline(s.control_fd, s.epoll->timeout);
        // A rename source survives only until the very next command.
        if (s.cmd != FTP_CMD_RNTO) s.rename_from[0] = '\0';
        memset(s.reply_buff, 0, FTP_BUF_SIZE);
        if (!dispatch(s) || s.peer_closed) return;
    }
}

}  // namespace

namespace {
// Session threads, and those of them serving commands: the others are starting or ending.
std::atomic<int> g_session_threads{0};
std::atomic<int> g_serving{0};
}  // namespace

int ftp_session_threads_ending(void) {
    return g_session_threads.load() - g_serving.load();
}

void ftp_server(int control_fd, int domain_fd, int contrl_type, const struct ftp_connect_addr *def_addr) {
    FTPD_LOG_PRO("ftp user connected. control fd[%d] domain fd[%d].\n", control_fd, domain_fd);
    session s;
    s.control_fd = control_fd;
    s.domain_fd = domain_fd;

    s.whole_buff = ftpd_block(FTPD_M_WHOLE_BUF, FTP_WHOLE_BUF_SIZE);
    if (!s.whole_buff) {
        FTPD_LOG_ERR("%s: malloc fail.\n", FTPD_MODULE);
        return;
    }
    s.data_buff = s.whole_buff.get();
    s.read_buff = s.whole_buff.get() + FTP_BUF_SIZE;
    s.reply_buff = s.read_buff;

    g_serving.fetch_add(1);
    run_session(s, contrl_type, def_addr);
    g_serving.fetch_sub(1);

    // End sequence: every way out of the loop comes here. The counted steps run first; the
    // owners then give back the waiter, the command buffers and the record.
    FTPD_LOG_PRO("FTP_SERVER_END:\n");
    if (s.pcred.logged_local_aaa_in) ftp_update_online_count(s.pcred.online_name, 0);
    ftp_aaa_del_user(&s.pcred);
}

void *ftp_connect_thread(void *arg) {
    g_session_threads.fetch_add(1);
    auto *info = static_cast<struct ftp_connect_info *>(arg);
    prctl(PR_SET_NAME, "ftps_connect", 0, 0, 0);
    FTPD_LOG_PRO("%s \n", __func__);

    if (ftp_connect_num_get() <= FTP_MAX_CONNECT) {
        ftp_connect_num_add();
        ftp_server(info->fd, info->domain_fd, info->contrl_type, &info->def_addr);
        ftp_connect_num_dec();
    } else {
        FTPD_LOG_PRO("Reached the maximum number of connections.\n");
    }
    int on = 1;
    ioctl(info->fd, FIONBIO, &on);
    close(info->fd);
    ftpd_free(FTPD_M_INFO, info);
    // The TLS library's state of this thread goes now, not in a destructor after the thread's
    // last step, which a process ending at that moment would cut short.
    ftp_tls_thread_end();
    g_session_threads.fetch_sub(1);
    return nullptr;
}
