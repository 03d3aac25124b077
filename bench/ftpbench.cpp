// The benchmark's FTP client: one measurement per run against a server on loopback, in passive
// mode, printing its figures as "key=value" words on one line for bench/run.py. Data received is
// thrown away and data sent is generated in memory, so that the client stays out of the way of
// the server being measured.
//
// With --tls before the command, every connection is protected: AUTH TLS and the handshake
// before USER, PBSZ 0 and PROT P after the login, and each data connection's handshake resumes
// the control connection's session (servers that require reuse refuse one that does not). The
// certificate is not verified: the bench makes a self-signed one.
//
//   ftpbench retr   PORT USER PASS TYPE PATH [OFFSET]        one download (from OFFSET: REST first)
//   ftpbench stor   PORT USER PASS TYPE NAME BYTES           one upload (TYPE A sends CR LF text)
//   ftpbench logins PORT USER PASS CLIENTS SECONDS           connect+USER+PASS+QUIT in a loop
//   ftpbench mretr  PORT USER PASS CLIENTS PATH              concurrent downloads
//   ftpbench list   PORT USER PASS VERB PATH                 one LIST, NLST or MLSD
//   ftpbench hold   PORT USER PASS CLIENTS                   logged-in sessions until stdin closes
//   ftpbench handshakes PORT USER PASS CLIENTS SECONDS   --tls logins: connect+AUTH TLS+handshake+
//                                                        USER+PASS+QUIT in a loop
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;

// Large reads and writes keep the client's share of the work small: kChunk per call, and with
// TLS up to kTlsBuffer of records per system call.
constexpr size_t kChunk = 1 << 20;
constexpr size_t kTlsBuffer = 256 << 10;

// The client context with --tls; nullptr: plain FTP.
SSL_CTX *g_tls = nullptr;

double seconds_since(clock_type::time_point t0) {
    return std::chrono::duration<double>(clock_type::now() - t0).count();
}

int connect_to(int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return -1;
    // A stuck server fails the measurement instead of hanging it.
    timeval tv{60, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

SSL_CTX *make_tls_context() {
    SSL_CTX *ctx = SSL_CTX_new(TLS_client_method());
    if (ctx == nullptr) return nullptr;
    SSL_CTX_set_verify(ctx, SSL_VERIFY_NONE, nullptr);
    // How a server ends a download (close_notify or not) is not what is measured.
    SSL_CTX_set_options(ctx, SSL_OP_IGNORE_UNEXPECTED_EOF);
    // One receive takes whatever records have arrived, not one record per system call.
    SSL_CTX_set_read_ahead(ctx, 1);
    SSL_CTX_set_default_read_buffer_len(ctx, kTlsBuffer);
    return ctx;
}

// The library's reasons for the last failures of this thread, on one line.
std::string tls_errors() {
    std::string out;
    for (unsigned long e; (e = ERR_get_error()) != 0;) {
        char b[256];
        ERR_error_string_n(e, b, sizeof b);
        out += out.empty() ? "" : "; ";
        out += b;
    }
    return out;
}

// One connection, plain, or protected once start_tls() succeeded.
class link {
  public:
    explicit link(int fd) : fd_(fd) {}
    ~link() { reset(); }
    link(const link &) = delete;
    link &operator=(const link &) = delete;
    bool ok() const { return fd_ >= 0; }
    SSL *ssl() const { return ssl_; }

    // The client side of the handshake, resuming session unless it is null. Writes collect in a
    // buffer that each write() flushes: a large write leaves in large sends, not one per record.
    bool start_tls(SSL_SESSION *session) {
        ssl_ = SSL_new(g_tls);
        if (ssl_ == nullptr) return false;
        BIO *sock = BIO_new_socket(fd_, BIO_NOCLOSE);
        BIO *buffer = BIO_new(BIO_f_buffer());
        if (sock == nullptr || buffer == nullptr || BIO_set_write_buffer_size(buffer, kTlsBuffer) != 1) {
            BIO_free(sock);
            BIO_free(buffer);
            return false;
        }
        // The socket BIO is both the read side and the end of the write chain.
        BIO_up_ref(sock);
        BIO_push(buffer, sock);
        SSL_set_bio(ssl_, sock, buffer);
        if (session != nullptr && SSL_set_session(ssl_, session) != 1) return false;
        return SSL_connect(ssl_) == 1;
    }
    // " protocol=... cipher=..." words of a protected connection, or nothing.
    std::string negotiated() const {
        if (ssl_ == nullptr) return "";
        return std::string(" protocol=") + SSL_get_version(ssl_) +
               " cipher=" + SSL_CIPHER_get_name(SSL_get_current_cipher(ssl_));
    }

    // Bytes read, 0 at the end, -1 on failure.
    ssize_t read(char *b, size_t n) {
        if (ssl_ == nullptr) return recv(fd_, b, n, 0);
        size_t got = 0;
        if (SSL_read_ex(ssl_, b, n, &got) == 1) return static_cast<ssize_t>(got);
        return SSL_get_error(ssl_, 0) == SSL_ERROR_ZERO_RETURN ? 0 : -1;
    }
    bool write(const char *b, size_t n) {
        if (ssl_ != nullptr) {
            size_t done = 0;
            return SSL_write_ex(ssl_, b, n, &done) == 1 && BIO_flush(SSL_get_wbio(ssl_)) == 1;
        }
        while (n > 0) {
            ssize_t w = send(fd_, b, n, MSG_NOSIGNAL);
            if (w <= 0) return false;
            b += w;
            n -= static_cast<size_t>(w);
        }
        return true;
    }
    // Ends an upload. With TLS: close_notify, then the server's end is awaited, reading what it
    // sent (a ticket): closing with bytes unread would reset the connection, and the kernel
    // would drop the upload's last bytes still on their way.
    void finish_upload() {
        if (ssl_ != nullptr) {
            SSL_shutdown(ssl_);
            (void)BIO_flush(SSL_get_wbio(ssl_));
            shutdown(fd_, SHUT_WR);
            char b[4096];
            while (recv(fd_, b, sizeof b, 0) > 0) {
            }
        }
        reset();
    }
    void reset() {
        if (ssl_ != nullptr) {
            // Freed without a shutdown, the connection would mark its session, which data
            // connections share with the control connection, as not resumable.
            SSL_set_shutdown(ssl_, SSL_SENT_SHUTDOWN | SSL_RECEIVED_SHUTDOWN);
            SSL_free(ssl_);
            ssl_ = nullptr;
        }
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
    }

  private:
    int fd_;
    SSL *ssl_ = nullptr;
};

// A control connection read reply by reply.
class control {
  public:
    explicit control(int port) : c_(connect_to(port)) {}
    bool ok() const { return c_.ok(); }

    // The code of the next whole reply (multi-line replies up to their last line); -1 on EOF.
    int reply(std::string *text = nullptr) {
        std::string line;
        int code = -1;
        last_.clear();
        for (;;) {
            if (!read_line(line)) return -1;
            if (text != nullptr) *text += line;
            last_ += line;
            if (line.size() >= 4 && isdigit(static_cast<unsigned char>(line[0]))) {
                int c = atoi(line.substr(0, 3).c_str());
                if (code < 0) code = c;
                if (c == code && line[3] == ' ') return code;
            }
        }
    }
    bool send_line(const std::string &s) {
        std::string l = s + "\r\n";
        return c_.write(l.data(), l.size());
    }
    int cmd(const std::string &s, std::string *text = nullptr) { return send_line(s) ? reply(text) : -1; }
    // The last reply's text, for messages.
    std::string last() const {
        std::string t = last_;
        while (!t.empty() && (t.back() == '\n' || t.back() == '\r')) t.pop_back();
        return t.empty() ? "no reply" : t;
    }

    // With --tls, AUTH TLS and the handshake come first, and PBSZ 0 and PROT P after the login
    // unless the session moves no data.
    bool login(const char *user, const char *pass, bool data = true) {
        if (reply() != 220) return false;
        if (g_tls != nullptr && (cmd("AUTH TLS") != 234 || !c_.start_tls(nullptr))) return false;
        int c = cmd(std::string("USER ") + user);
        if (c == 331) c = cmd(std::string("PASS ") + pass);
        if (c != 230) return false;
        return g_tls == nullptr || !data || (cmd("PBSZ 0") == 200 && cmd("PROT P") == 200);
    }
    // Opens a passive data connection; -1 on failure.
    int pasv() {
        std::string text;
        if (cmd("PASV", &text) != 227) return -1;
        size_t l = text.find('(');
        if (l == std::string::npos) return -1;
        unsigned h1, h2, h3, h4, p1, p2;
        if (sscanf(text.c_str() + l + 1, "%u,%u,%u,%u,%u,%u", &h1, &h2, &h3, &h4, &p1, &p2) != 6) return -1;
        return connect_to(static_cast<int>(p1 * 256 + p2));
    }
    // With --tls, the handshake of the data connection d, once the transfer's command is sent
    // and before its first reply (a server may send that only after the handshake). It resumes
    // the control connection's session as it is now: a server sends its TLS 1.3 ticket with
    // some reply after the login.
    bool protect(link &d) {
        if (g_tls == nullptr) return true;
        SSL_SESSION *s = SSL_get1_session(c_.ssl());
        bool ok = s != nullptr && d.start_tls(s);
        SSL_SESSION_free(s);
        return ok;
    }
    // Waits for the server to close the connection (after QUIT).
    void wait_closed() {
        char b[256];
        while (c_.read(b, sizeof b) > 0) {
        }
    }

  private:
    bool read_line(std::string &line) {
        line.clear();
        for (;;) {
            size_t nl = buf_.find('\n');
            if (nl != std::string::npos) {
                line = buf_.substr(0, nl + 1);
                buf_.erase(0, nl + 1);
                return true;
            }
            char b[4096];
            ssize_t n = c_.read(b, sizeof b);
            if (n <= 0) return false;
            buf_.append(b, static_cast<size_t>(n));
        }
    }
    link c_;
    std::string buf_;
    std::string last_;
};

long long drain(link &d) {
    std::vector<char> b(kChunk);
    long long total = 0;
    ssize_t n;
    while ((n = d.read(b.data(), b.size())) > 0) total += n;
    return total;
}

// Why a data connection's handshake failed: the library's reason and the server's reply.
std::string handshake_failure(control &c) {
    std::string reason = tls_errors();
    std::string why = "TLS handshake on the data connection failed (" +
                      (reason.empty() ? std::string("the server ended the connection") : reason) + ")";
    if (c.reply() > 0) why += ", then: " + c.last();
    return why;
}

// One download, from offset when it is not empty (REST right before RETR); returns the seconds
// from REST or RETR to the final reply, or a negative value with the reason in why.
// With TLS, the data connection's protocol and cipher go into negotiated when it is not null.
double do_retr(int port, const char *user, const char *pass, const char *type, const char *path, long long *bytes,
               std::string *why, const char *offset = "", std::string *negotiated = nullptr) {
    control c(port);
    if (!c.ok() || !c.login(user, pass)) {
        *why = "login: " + (c.ok() ? c.last() : std::string("no connection")) + " " + tls_errors();
        return -1;
    }
    if (c.cmd(std::string("TYPE ") + type) != 200) return -2;
    link d(c.pasv());
    if (!d.ok()) {
        *why = "PASV: " + c.last();
        return -3;
    }
    auto t0 = clock_type::now();
    if (*offset != '\0' && c.cmd(std::string("REST ") + offset) != 350) return -7;
    if (!c.send_line(std::string("RETR ") + path)) return -4;
    if (!c.protect(d)) {
        *why = handshake_failure(c);
        return -8;
    }
    int code = c.reply();
    if (code != 150 && code != 125) {
        *why = "RETR: " + c.last();
        return -5;
    }
    if (negotiated != nullptr) *negotiated = d.negotiated();
    *bytes = drain(d);
    d.reset();
    if (c.reply() != 226) {
        *why = "after the transfer: " + c.last();
        return -6;
    }
    double s = seconds_since(t0);
    c.cmd("QUIT");
    return s;
}

int cmd_retr(int port, char **a, int n) {
    long long bytes = 0;
    std::string why, negotiated;
    double s = do_retr(port, a[0], a[1], a[2], a[3], &bytes, &why, n > 4 ? a[4] : "", &negotiated);
    if (s < 0) {
        fprintf(stderr, "retr failed (%g) %s\n", s, why.c_str());
        return 1;
    }
    printf("seconds=%.6f bytes=%lld%s\n", s, bytes, negotiated.c_str());
    return 0;
}

int fail(const char *op, const std::string &why) {
    fprintf(stderr, "%s failed: %s\n", op, why.c_str());
    return 1;
}

int cmd_stor(int port, char **a) {
    const char *type = a[2];
    long long want = atoll(a[4]);
    bool text = strcmp(type, "A") == 0;
    // Binary: a repeating byte pattern. ASCII: the wire form of lines of 63 characters, so that
    // the stored file has `want` bytes of 64-byte LF lines.
    std::vector<char> block;
    long long wire_total = want;
    if (text) {
        std::string line;
        for (int i = 0; i < 63; i++) line += static_cast<char>('a' + i % 26);
        line += "\r\n";
        for (int i = 0; i < 16384; i++) block.insert(block.end(), line.begin(), line.end());
        wire_total = want / 64 * 65;
    } else {
        block.resize(kChunk);
        for (size_t i = 0; i < block.size(); i++) block[i] = static_cast<char>(i * 131 + 7);
    }
    control c(port);
    if (!c.ok() || !c.login(a[0], a[1])) return fail("login", c.ok() ? c.last() + " " + tls_errors() : "no connection");
    if (c.cmd(std::string("TYPE ") + type) != 200) return fail("TYPE", c.last());
    link d(c.pasv());
    if (!d.ok()) return fail("PASV", c.last());
    auto t0 = clock_type::now();
    if (!c.send_line(std::string("STOR ") + a[3])) return fail("STOR", "cannot send");
    if (!c.protect(d)) return fail("STOR", handshake_failure(c));
    int code = c.reply();
    if (code != 150 && code != 125) return fail("STOR", c.last());
    std::string negotiated = d.negotiated();
    long long left = wire_total;
    while (left > 0) {
        size_t n = left < static_cast<long long>(block.size()) ? static_cast<size_t>(left) : block.size();
        if (!d.write(block.data(), n)) return fail("STOR", "the data connection ended " + tls_errors());
        left -= static_cast<long long>(n);
    }
    d.finish_upload();
    if (c.reply() != 226) return fail("STOR", "after the transfer: " + c.last());
    double s = seconds_since(t0);
    c.cmd("QUIT");
    printf("seconds=%.6f bytes=%lld%s\n", s, want, negotiated.c_str());
    return 0;
}

int cmd_logins(int port, char **a) {
    int clients = atoi(a[2]);
    double seconds = atof(a[3]);
    std::atomic<long> done{0}, failed{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    auto t0 = clock_type::now();
    for (int i = 0; i < clients; i++) {
        threads.emplace_back([&]() {
            while (!stop.load()) {
                control c(port);
                if (c.ok() && c.login(a[0], a[1], false) && c.cmd("QUIT") == 221) {
                    c.wait_closed();
                    done++;
                } else {
                    failed++;
                }
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    stop = true;
    for (auto &t : threads) t.join();
    double s = seconds_since(t0);
    printf("seconds=%.6f sessions=%ld failed=%ld rate=%.1f\n", s, done.load(), failed.load(), done.load() / s);
    return 0;
}

int cmd_mretr(int port, char **a) {
    int clients = atoi(a[2]);
    std::atomic<long long> bytes{0};
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    auto t0 = clock_type::now();
    for (int i = 0; i < clients; i++) {
        threads.emplace_back([&]() {
            long long b = 0;
            std::string why;
            double r = do_retr(port, a[0], a[1], "I", a[3], &b, &why);
            if (r < 0) {
                failed++;
                fprintf(stderr, "mretr: a client failed at step %d %s\n", static_cast<int>(-r), why.c_str());
            }
            bytes += b;
        });
    }
    for (auto &t : threads) t.join();
    double s = seconds_since(t0);
    printf("seconds=%.6f bytes=%lld failed=%d\n", s, bytes.load(), failed.load());
    return failed.load() == 0 ? 0 : 1;
}

int cmd_list(int port, char **a) {
    control c(port);
    if (!c.ok() || !c.login(a[0], a[1])) return fail("login", c.ok() ? c.last() + " " + tls_errors() : "no connection");
    if (c.cmd("TYPE A") != 200) return fail("TYPE", c.last());
    link d(c.pasv());
    if (!d.ok()) return fail("PASV", c.last());
    auto t0 = clock_type::now();
    std::string verb = a[2];
    if (!c.send_line(verb + " " + a[3])) return fail(a[2], "cannot send");
    if (!c.protect(d)) return fail(a[2], handshake_failure(c));
    int code = c.reply();
    if (code != 150 && code != 125) return fail(a[2], c.last());
    long long bytes = drain(d);
    d.reset();
    if (c.reply() != 226) return fail(a[2], "after the transfer: " + c.last());
    double s = seconds_since(t0);
    c.cmd("QUIT");
    printf("seconds=%.6f bytes=%lld\n", s, bytes);
    return 0;
}

int cmd_hold(int port, char **a) {
    int clients = atoi(a[2]);
    std::vector<control *> held;
    for (int i = 0; i < clients; i++) {
        auto *c = new control(port);
        if (!c->ok() || !c->login(a[0], a[1])) {
            fprintf(stderr, "hold: login %d failed\n", i);
            return 1;
        }
        held.push_back(c);
    }
    printf("ready\n");
    fflush(stdout);
    char b[64];
    while (read(0, b, sizeof b) > 0) {
    }
    for (control *c : held) {
        c->cmd("QUIT");
        delete c;
    }
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    bool tls = argc > 1 && strcmp(argv[1], "--tls") == 0;
    if (tls) {
        argv++;
        argc--;
    }
    if (argc < 5) {
        fprintf(stderr, "usage: ftpbench [--tls] retr|stor|logins|mretr|list|hold|handshakes PORT USER PASS ...\n");
        return 2;
    }
    std::string op = argv[1];
    if (op == "handshakes") {
        tls = true;
        op = "logins";
    }
    if (tls) {
        // The library writes to its sockets with write(): a server's early close must not kill
        // the client.
        signal(SIGPIPE, SIG_IGN);
        g_tls = make_tls_context();
        if (g_tls == nullptr) {
            fprintf(stderr, "no TLS context: %s\n", tls_errors().c_str());
            return 1;
        }
    }
    int port = atoi(argv[2]);
    char **a = argv + 3;
    int n = argc - 3;
    if (op == "retr" && (n == 4 || n == 5)) return cmd_retr(port, a, n);
    if (op == "stor" && n == 5) return cmd_stor(port, a);
    if (op == "logins" && n == 4) return cmd_logins(port, a);
    if (op == "mretr" && n == 4) return cmd_mretr(port, a);
    if (op == "list" && n == 4) return cmd_list(port, a);
    if (op == "hold" && n == 3) return cmd_hold(port, a);
    fprintf(stderr, "bad arguments\n");
    return 2;
}
