// One control session: the session thread's body with its admission check, the command loop that
// waits, reads, recognises and dispatches one command at a time, what the control connection's
// input means while a transfer runs, and the end sequence that gives everything back.
#include "control/loop.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <utility>
#include <cerrno>
#include <cstring>

#include "base/settings.h"
#include "control/commands.h"
#include "control/listener.h"
#include "files/cmds.h"
#include "ftp_platform.h"
#include "ftp_tls.h"
#include "net/proxy_header.h"
#include "login/login.h"
#include "session/session.h"

namespace {

const char kReadOnly[] = "550 Permission denied.\r\n";

// How long a balancer has for the PROXY header that opens its connection.
constexpr int kProxyWaitMs = 10 * 1000;

// Device: one receive is one command. A closed peer or a line that fills the whole buffer is a
// bad line; a peer that closed its side is answered once, not once per wake-up.
int receive_one(ftp_session &s) {
    ssize_t n = recv(s.ctl.stream.fd(), s.line, FTP_BUF_SIZE, 0);
    if (n < 0 && errno != EINTR && errno != EAGAIN) {
        // A failing connection stays readable: waiting again would spin until the time-out.
        s.peer_closed = true;
        return -1;
    }
    if (n < 0) return -1;
    if (n == 0) s.peer_closed = true;
    if (n == 0 || n >= FTP_BUF_SIZE) return 1;
    s.line[n] = '\0';
    FTPD_LOG_PRO("(RECV)   %s", s.line);
    return 0;
}

// RFC 854's escapes of a control line into out: IAC IAC is one 0xFF, other IAC commands (with
// their option byte for WILL, WONT, DO and DONT) are dropped, CR NUL is a CR. The length.
size_t telnet_decode(const char *in, size_t len, char *out) {
    constexpr unsigned char kIac = 0xff, kWill = 251, kDont = 254, kFirstCommand = 240;
    size_t o = 0;
    // What is left of an interrupt and synch before the word (its urgent byte out of the stream).
    size_t i = 0;
    while (i < len && static_cast<unsigned char>(in[i]) >= kFirstCommand && static_cast<unsigned char>(in[i]) != kIac)
        i++;
    for (; i < len; i++) {
        auto c = static_cast<unsigned char>(in[i]);
        if (c == kIac && i + 1 < len) {
            auto cmd = static_cast<unsigned char>(in[i + 1]);
            if (cmd == kIac) {
                out[o++] = static_cast<char>(kIac);
                i++;
            } else if (cmd >= kFirstCommand) {
                i += cmd >= kWill && cmd <= kDont ? 2 : 1;
            }
            // A lone IAC (its data mark sent urgent, and so taken out of the stream) is dropped.
            continue;
        }
        out[o++] = static_cast<char>(c);
        if (c == '\r' && i + 1 < len && in[i + 1] == '\0') i++;
    }
    return o;
}

// Standard profile: takes the next whole line out of the session's input, CR LF or LF ended,
// into s.line. 0 a line, 1 a line too long (answered once and dropped up to its LF), -1 none yet.
int take_line(ftp_session &s) {
    ftp_line_input &in = s.input;
    for (;;) {
        char *lf = static_cast<char *>(memchr(in.buf, '\n', in.len));
        if (lf == nullptr) {
            if (in.discarding) {
                in.len = 0;
                return -1;
            }
            if (in.len < sizeof in.buf - 1) return -1;
            in.len = 0;
            in.discarding = true;
            return 1;
        }
        size_t n = static_cast<size_t>(lf - in.buf) + 1;
        // An empty line is no command; the rest of an over-long line is dropped.
        size_t len = n - 1;
        if (len > 0 && in.buf[len - 1] == '\r') len--;
        bool skip = in.discarding || len == 0;
        in.discarding = false;
        if (!skip) {
            len = s.policy.telnet_lines ? telnet_decode(in.buf, len, s.line) : len;
            if (!s.policy.telnet_lines) memcpy(s.line, in.buf, len);
            s.line[len] = '\0';
        }
        memmove(in.buf, in.buf + n, in.len - n);
        in.len -= n;
        if (skip) continue;
        FTPD_LOG_PRO("(RECV)   %s\n", s.line);
        return 0;
    }
}

// Standard profile: receives what the control connection has into the session's input. False
// when nothing came.
bool receive_more(ftp_session &s) {
    ftp_line_input &in = s.input;
    size_t room = sizeof in.buf - 1 - in.len;
    if (room == 0) return false;
    ssize_t n = s.ctl.stream.read_some(in.buf + in.len, room);
    if (n > 0) {
        in.len += static_cast<size_t>(n);
        return true;
    }
    if (n < 0 && errno == EAGAIN) return false;
    // A closed or failing connection: what is left of a line is answered once, then the end.
    s.peer_closed = true;
    return false;
}

// The row of the line in s.line (nullptr: unknown), its argument in s.arg; bad lines get the
// row-less code kBadLine.
const ftp_command kBadLine = {"", nullptr, ftp_needs::nothing, 0, 0, 0, 0, false, "", nullptr, false};

void recognise(ftp_session &s, int taken) {
    memset(s.arg, 0, FTP_BUF_SIZE);
    s.cmd = taken == 1 ? &kBadLine : ftpd_parse_cmd(s.line, s.arg, s.policy);
    s.recognised_any = true;
}

// Standard profile: the next command from what has arrived, reading more while TLS holds
// protected bytes that no wait announces. False when no whole line is there.
// SECURITY: a PROXY header from anyone but a balancer of the platform file would let a client
// choose its address: its connection is closed without a word. True as well while the first
// bytes could still be the start of one (no line is taken from them yet).
bool stray_proxy_header(ftp_session &s) {
    static const char kV1[] = "PROXY ";
    static const char kV2[] = "\r\n\r\n\0\r\nQUIT\n";
    const ftp_line_input &in = s.input;
    if (s.recognised_any || !s.policy.proxy_protocol || in.len == 0) return false;
    for (const auto &sig : {std::pair<const char *, size_t>{kV1, 6}, {kV2, 12}}) {
        if (memcmp(in.buf, sig.first, in.len < sig.second ? in.len : sig.second) != 0) continue;
        if (in.len >= sig.second) s.peer_closed = true;
        return true;
    }
    return false;
}

bool next_line(ftp_session &s) {
    for (;;) {
        if (stray_proxy_header(s)) return false;
        int taken = take_line(s);
        if (taken >= 0) {
            recognise(s, taken);
            return true;
        }
        if (s.peer_closed || !s.ctl.stream.buffered() || !receive_more(s)) return false;
    }
}

// Takes the stop message; false when the session must end (the service is disabled, or the
// channel failed).
bool take_stop_message(ftp_session &s) {
    ssize_t got = recvfrom(s.stop_fd, s.stop_msg, sizeof(s.stop_msg) - 1, 0, nullptr, nullptr);
    if (got < 0) {
        FTPD_LOG_ERR("%s: domain socket recvfrom error when waiting command.%d\n", FTPD_MODULE, errno);
        // Another reader took the message: only a disabled service ends the session.
        bool taken = errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        if (!taken || !is_ftp_server_start()) return false;
        got = 0;
    }
    s.stop_msg[got] = '\0';
    FTPD_LOG_PRO("stop tcp link [%s]\n", s.stop_msg);
    return is_ftp_server_start();
}

// Waits for the next command and recognises it into s.cmd (nullptr: an unknown word; unchanged:
// nothing to serve). False when the session must end.
bool wait_command(ftp_session &s, bool *have) {
    *have = false;
    if (get_ftp_server_root_dir() == nullptr) s.has_topdir = false;
    // The deadline does not move for a wake that brings no command (a partial line, TLS records
    // alone): neither a trickle nor a flood keeps a session past its time-out.
    long long left_ms = s.command_deadline_ms - ftp_now_ms();
    if (left_ms <= 0) {
        FTPD_LOG_PRO("Time out.\n");
        return false;
    }
    s.waiter->timeout = static_cast<int>((left_ms + 999) / 1000);
    if (s.policy.line_input && next_line(s)) {
        *have = true;
        return true;
    }
    // The control connection is waited on for what its stream needs: a protected connection may
    // have to write before it can read again.
    s.waiter->mode[0] = s.ctl.stream.wait_events() == POLLOUT ? FTP_EPOLL_OUT : FTP_EPOLL_IN;
    int n = ftpd_epoll(s.waiter.get(), FTP_EPOLL_IN);
    if (n < 0) {
        FTPD_LOG_ERR("%s: Epoll error when waiting command.errno=%d\n", FTPD_MODULE, errno);
        return false;
    }
    if (n == 0) {
        FTPD_LOG_PRO("Time out.\n");
        return false;
    }
    if (ftpd_epoll_event(s.waiter.get(), s.stop_fd, FTP_EPOLL_IN) && !take_stop_message(s)) return false;
    bool ready = ftpd_epoll_event(s.waiter.get(), s.ctl.stream.fd(), FTP_EPOLL_IN | FTP_EPOLL_OUT);
    if (s.policy.line_input) {
        if (!ready) return true;
        receive_more(s);
        *have = next_line(s);
        if (!*have && s.peer_closed && s.input.len > 0 && !stray_proxy_header(s)) {
            s.cmd = &kBadLine;
            *have = true;
        }
        return true;
    }
    // Device: when only the control channel woke the session and the service stays enabled, the
    // previous command is dispatched again with its argument; that repetition is intended.
    *have = s.policy.stop_wakeup_repeats && s.recognised_any;
    if (ready) {
        int r = receive_one(s);
        if (r >= 0) recognise(s, r);
        *have = r >= 0;
    }
    return true;
}

}  // namespace

bool ftp_dispatch(ftp_session &s) {
    const ftp_command *c = s.cmd;
    if (c == &kBadLine) return reply(s, FTP_REPLY_500) >= 0;
    // An unknown word is a syntax error where the profile follows RFC 959's replies; commands it
    // knows but does not serve are not implemented.
    if (c == nullptr) return reply(s, s.policy.rfc_replies ? FTP_REPLY_500 : FTP_REPLY_502) >= 0;
    if (!ftp_command_served(*c, s.policy)) return reply(s, FTP_REPLY_502) >= 0;
    if (c->needs != ftp_needs::nothing && !is_logged_in(s)) {
        bool quirk = c->needs == ftp_needs::login_pwd_quirk && s.policy.profile == ftp_profile::device;
        return reply(s, quirk ? FTP_REPLY_550 : FTP_REPLY_530) >= 0;
    }
    if (c->modifies && !s.may_write) return reply(s, kReadOnly) >= 0;
    return c->handler(s);
}

namespace {

// What input on the control connection means during a data connection's waits. The device reads
// no command meanwhile and only notices a client that left while its connection is awaited; the
// standard profile takes what arrives, acts on ABOR (after the Telnet interrupt and synch that
// BSD clients send before it) and keeps every other line for after the transfer.
class control_watch final : public ftp_data_watch {
  public:
    explicit control_watch(ftp_session &s) : s_(s) {}

    short events(bool transferring) override {
        if (!s_.policy.line_input) return transferring ? 0 : POLLRDHUP;
        return s_.input.len < sizeof s_.input.buf - 1 ? POLLIN | POLLRDHUP : POLLRDHUP;
    }

    ftp_watch on_control() override {
        if (!s_.policy.line_input) {
            // Only a hang-up is looked for: the client left, so no one waits for the data.
            char b;
            ssize_t n = recv(s_.ctl.stream.fd(), &b, 1, MSG_PEEK | MSG_DONTWAIT);
            return n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR) ? ftp_watch::gone : ftp_watch::go_on;
        }
        receive_more(s_);
        if (abort_requested()) return ftp_watch::abort;
        return s_.peer_closed ? ftp_watch::gone : ftp_watch::go_on;
    }

  private:
    // An ABOR line waiting in the input is taken out of it.
    bool abort_requested() {
        ftp_line_input &in = s_.input;
        for (size_t start = 0; start < in.len;) {
            char *lf = static_cast<char *>(memchr(in.buf + start, '\n', in.len - start));
            if (lf == nullptr) return false;
            size_t end = static_cast<size_t>(lf - in.buf) + 1;
            size_t p = start;
            // Telnet's interrupt and synch go before the word: what is left of them once the urgent
            // byte is out of the stream is bytes of 240 and above, never a command's letters.
            while (p < end && static_cast<unsigned char>(in.buf[p]) >= 240) p++;
            size_t word = end - p;
            if (word >= 5 && strncasecmp(in.buf + p, "ABOR", 4) == 0 &&
                (in.buf[p + 4] == '\r' || in.buf[p + 4] == '\n')) {
                memmove(in.buf + start, in.buf + end, in.len - end);
                in.len -= end - start;
                return true;
            }
            start = end;
        }
        return false;
    }

    ftp_session &s_;
};

// Resolves the configured top directory into the current directory and the record.
void set_top_directory(ftp_session &s) {
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
        s.has_topdir = true;
        (void)ftpd_strlcpy(s.rootdir.get(), s.currentdir, FTP_ROOTDIR_LEN);
    } else {
        s.rootdir.get()[0] = '\0';
    }
}

// Behind a load balancer the client's own address comes first on the connection, in a PROXY
// header; from a balancer's address nothing else is taken, from anyone else no header. Then the
// limit of sessions per client address. False when the session must end (a refused one with 421,
// a broken header without a word).
bool admit_client(ftp_session &s) {
    if (s.policy.proxy_protocol &&
        platform_ftp_proxy_required(reinterpret_cast<const struct sockaddr *>(&s.client)) == 1) {
        struct sockaddr_storage src {}, dst {};
        if (ftp_proxy_read(s.ctl.stream.fd(), kProxyWaitMs, &src, &dst) != 0) {
            FTPD_LOG_ERR("%s: no PROXY header from the balancer at %s.\n", FTPD_MODULE, s.client_text);
            return false;
        }
        if (src.ss_family != AF_UNSPEC) set_client(s, src);
    }
    if (s.address_hold.enter(s.client, s.policy.max_per_address)) return true;
    reply(s, "421 There are too many connections from your internet address.\r\n");
    return false;
}

void run_session(ftp_session &s) {
    // Every reply is one whole send: without this, a reply that follows another with no command in
    // between (150 then 226) waits for the client's delayed acknowledgement.
    int nodelay = 1;
    setsockopt(s.ctl.stream.fd(), IPPROTO_TCP, TCP_NODELAY, &nodelay, sizeof nodelay);
    if (!admit_client(s)) return;
    if (ftp_get_product_name() == nullptr) FTPD_LOG_ERR("sys get product name fail\n");
    // The name is copied: the shared text is released at shutdown while sessions still run.
    char product[FTP_BUF_SIZE];
    ftp_copy_product_name(product, sizeof product);
    set_top_directory(s);

    (void)ftpd_snprintf(s.arg, FTP_BUF_SIZE, "220 %s FTP server <version 1.00> ready.\r\n", product);
    if (reply(s, s.arg) < 0) return;

    if (!s.waiter.create()) {
        FTPD_LOG_ERR("%s: Epoll create errno.\n", FTPD_MODULE);
        return;
    }
    s.waiter->fd[0] = s.ctl.stream.fd();
    s.waiter->fd[1] = s.stop_fd;
    s.command_deadline_ms = ftp_now_ms() + static_cast<long long>(get_ftp_logintimeout()) * 60 * 1000;
    control_watch watch(s);
    s.watch = &watch;

    for (;;) {
        // No reply may block longer than the wait for the next command: a client that stops
        // reading must not hold its session past its time-out.
        bool have = false;
        if (!wait_command(s, &have)) break;
        s.ctl.send_timeout_ms = (s.waiter->timeout > 0 ? s.waiter->timeout : 1) * 1000;
        if (!have) {
            if (s.peer_closed) break;
            continue;
        }
        // A rename source survives only until the very next command.
        if (s.cmd == nullptr || s.cmd->handler != command_rnto) s.rename_from[0] = '\0';
        if (!ftp_dispatch(s) || s.peer_closed) break;
        if (s.login.passed_once) s.command_deadline_ms = ftp_now_ms() + static_cast<long long>(s.timeout_min) * 60 * 1000;
    }
    s.watch = nullptr;
}

// Session threads, and those of them serving commands: the others are starting or ending.
std::atomic<int> g_session_threads{0};
std::atomic<int> g_serving{0};

}  // namespace

int ftp_session_threads_ending(void) {
    return g_session_threads.load() - g_serving.load();
}

bool command_quit(ftp_session &s) {
    reply(s, FTP_REPLY_221);
    return false;
}

bool command_abor(ftp_session &s) {
    // A transfer in progress is aborted by the data connection's watch; here none runs.
    return reply(s, "225 No transfer to abort.\r\n") >= 0;
}

void ftp_server(int control_fd, int domain_fd, int contrl_type, const struct ftp_connect_addr *def_addr) {
    FTPD_LOG_PRO("ftp user connected. control fd[%d] domain fd[%d].\n", control_fd, domain_fd);
    ftp_session s(control_fd, domain_fd, contrl_type, *def_addr, ftp_policy_get());
    if (s.ready()) {
        g_serving.fetch_add(1);
        run_session(s);
        g_serving.fetch_sub(1);
    }
    // End sequence: every way out of the loop comes here. The counted steps run first; the
    // session record then gives back its slot, its connections and its buffers.
    FTPD_LOG_PRO("FTP_SERVER_END:\n");
    ftp_login_release(s);
}

void *ftp_connect_thread(void *arg) {
    g_session_threads.fetch_add(1);
    auto *info = static_cast<struct ftp_connect_info *>(arg);
    prctl(PR_SET_NAME, "ftps_connect", 0, 0, 0);
    FTPD_LOG_PRO("%s \n", __func__);

    if (ftp_connect_num_get() <= ftp_policy_get().max_sessions) {
        ftp_connect_num_add();
        // The session owns the control connection from here and closes it at its end.
        ftp_server(info->fd, info->domain_fd, info->contrl_type, &info->def_addr);
        ftp_connect_num_dec();
    } else {
        FTPD_LOG_PRO("Reached the maximum number of connections.\n");
        ftp_stream refused(info->fd);
    }
    ftpd_free(FTPD_M_INFO, info);
    // The TLS library's state of this thread goes now, not in a destructor after the thread's
    // last step, which a process ending at that moment would cut short.
    ftp_tls_thread_end();
    g_session_threads.fetch_sub(1);
    return nullptr;
}
