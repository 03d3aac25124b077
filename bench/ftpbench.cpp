// The benchmark's FTP client: one measurement per run against a server on loopback, printing its
// figures as "key=value" words on one line for bench/run.py.
//
// By default the client moves plain data without copying it: a download is spliced from the
// socket through a pipe into /dev/null, and an upload is sent with sendfile from a memory file
// (memfd, tmpfs pages) filled once before the timed part, so that the client is never what
// limits the server being measured. With --copy it reads into and writes from a buffer of its
// own instead, as ordinary clients do. Each run also prints the client's own CPU time
// (client_cpu=), so that the report can show how much of the machine the client took.
//
// With --active the data connections are active (PORT: the server connects to the client);
// otherwise passive (PASV).
//
// With --tls before the command, every connection is protected: AUTH TLS and the handshake
// before USER, PBSZ 0 and PROT P after the login, and each data connection's handshake resumes
// the control connection's session (servers that require reuse refuse one that does not). The
// certificate is not verified: the bench makes a self-signed one. Protected bytes are encrypted
// and decrypted in the client, so these always pass through its buffers.
//
//   ftpbench retr   PORT USER PASS TYPE PATH [OFFSET]        one download (from OFFSET: REST first)
//   ftpbench stor   PORT USER PASS TYPE NAME BYTES           one upload (TYPE A sends CR LF text)
//   ftpbench files  PORT USER PASS retr|stor DIR COUNT BYTES SESSIONS
//                                                            COUNT small files per session, each
//                                                            session one login: retr reads
//                                                            DIR/f-NNNN, stor writes DIR/sK-NNNN
//   ftpbench logins PORT USER PASS CLIENTS SECONDS           connect+USER+PASS+QUIT in a loop
//   ftpbench mretr  PORT USER PASS CLIENTS PATH              concurrent downloads
//   ftpbench list   PORT USER PASS VERB PATH                 one LIST, NLST or MLSD
//   ftpbench hold   PORT USER PASS CLIENTS                   logged-in sessions until stdin closes
//   ftpbench handshakes PORT USER PASS CLIENTS SECONDS   --tls logins: connect+AUTH TLS+handshake+
//                                                        USER+PASS+QUIT in a loop
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;

// Large reads and writes keep the client's share of the work small: kChunk per call, and with
// TLS up to kTlsBuffer of records per system call.
constexpr size_t kChunk = 1 << 20;
constexpr size_t kTlsBuffer = 256 << 10;
// The memory file an upload is sent from without --copy: its pattern repeated up to this size.
constexpr size_t kSourceBytes = 32 << 20;

// The client context with --tls; nullptr: plain FTP.
SSL_CTX *g_tls = nullptr;
// --copy: plain data through the client's own buffers instead of splice and sendfile.
bool g_copy = false;
// --active: PORT instead of PASV.
bool g_active = false;

// The client's own CPU seconds so far (all its threads).
double client_cpu() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

// A pipe and /dev/null, one per thread: downloads are spliced through the pipe and dropped.
struct sink {
    int p[2] = {-1, -1};
    int null = -1;
    size_t size = 0;
    sink() {
        if (pipe2(p, O_CLOEXEC) != 0) return;
        int got = fcntl(p[1], F_SETPIPE_SZ, static_cast<int>(kChunk));
        if (got < 0) got = fcntl(p[1], F_GETPIPE_SZ);
        size = got > 0 ? static_cast<size_t>(got) : 0;
        null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    }
    ~sink() {
        for (int fd : {p[0], p[1], null})
            if (fd >= 0) close(fd);
    }
    sink(const sink &) = delete;
    sink &operator=(const sink &) = delete;
    bool ok() const { return p[0] >= 0 && null >= 0 && size > 0; }
};

// The bytes an upload sends, in a memory file that sendfile can send from: a whole number of
// repetitions of the upload's pattern, sent again and again.
class source {
  public:
    source(const std::vector<char> &pattern, size_t at_least) {
        fd_ = memfd_create("ftpbench-source", MFD_CLOEXEC);
        if (fd_ < 0 || pattern.empty()) return;
        size_t reps = (at_least + pattern.size() - 1) / pattern.size();
        for (size_t i = 0; i < reps; i++) {
            if (::write(fd_, pattern.data(), pattern.size()) != static_cast<ssize_t>(pattern.size())) return;
        }
        size_ = reps * pattern.size();
    }
    ~source() {
        if (fd_ >= 0) close(fd_);
    }
    source(const source &) = delete;
    source &operator=(const source &) = delete;
    bool ok() const { return fd_ >= 0 && size_ > 0; }
    int fd() const { return fd_; }
    size_t size() const { return size_; }

  private:
    int fd_ = -1;
    size_t size_ = 0;
};

double seconds_since(clock_type::time_point t0) {
    return std::chrono::duration<double>(clock_type::now() - t0).count();
}

// The longest a connection's connect, send or receive may block: a stuck server fails the
// measurement instead of hanging it.
constexpr double kStuckSeconds = 60;

int connect_to(int port, double timeout = kStuckSeconds) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return -1;
    timeval tv{static_cast<time_t>(timeout), static_cast<suseconds_t>((timeout - static_cast<time_t>(timeout)) * 1e6)};
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
    // Every server is measured with the same protocol version: one that cannot speak it fails.
    SSL_CTX_set_min_proto_version(ctx, TLS1_3_VERSION);
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
    // Plain and without --copy: the connection's bytes go through the thread's pipe into /dev/null
    // by reference. Bytes received, or -1 on failure.
    long long drain_spliced(sink &k) {
        long long total = 0;
        for (;;) {
            ssize_t n = splice(fd_, nullptr, k.p[1], nullptr, k.size, SPLICE_F_MOVE);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) return -1;
            if (n == 0) return total;
            total += n;
            while (n > 0) {
                ssize_t m = splice(k.p[0], nullptr, k.null, nullptr, static_cast<size_t>(n), SPLICE_F_MOVE);
                if (m < 0 && errno == EINTR) continue;
                if (m <= 0) return -1;
                n -= m;
            }
        }
    }
    // Plain and without --copy: total bytes of src's pages, from its start again and again.
    bool send_file(const source &src, long long total) {
        off_t off = 0;
        while (total > 0) {
            if (static_cast<size_t>(off) == src.size()) off = 0;
            size_t left_in_src = src.size() - static_cast<size_t>(off);
            size_t n = static_cast<long long>(left_in_src) < total ? left_in_src : static_cast<size_t>(total);
            ssize_t w = sendfile(fd_, src.fd(), &off, n);
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) return false;
            total -= w;
        }
        return true;
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
    explicit control(int port, double timeout = kStuckSeconds) : c_(connect_to(port, timeout)) {}
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
    // Before the transfer's command: a passive data connection (PASV, then connect), or with
    // --active a listening socket announced by PORT. The descriptor, or -1 with the reason in why.
    int open_data(std::string *why) {
        if (g_active) return listen_port(why);
        std::string text;
        if (cmd("PASV", &text) != 227) {
            *why = "PASV: " + last();
            return -1;
        }
        size_t l = text.find('(');
        unsigned h1, h2, h3, h4, p1, p2;
        if (l == std::string::npos ||
            sscanf(text.c_str() + l + 1, "%u,%u,%u,%u,%u,%u", &h1, &h2, &h3, &h4, &p1, &p2) != 6) {
            *why = "PASV: " + last();
            return -1;
        }
        int fd = connect_to(static_cast<int>(p1 * 256 + p2));
        if (fd < 0) *why = "PASV: no connection to the server's port";
        return fd;
    }
    // After the transfer's command is sent: the data connection itself. In active mode the
    // server's connection is accepted (within 30 s) and the listening socket closed.
    int take_data(int fd) {
        if (!g_active || fd < 0) return fd;
        pollfd p{fd, POLLIN, 0};
        int r = poll(&p, 1, 30000);
        int d = r > 0 ? accept4(fd, nullptr, nullptr, SOCK_CLOEXEC) : -1;
        close(fd);
        if (d >= 0) {
            timeval tv{60, 0};
            setsockopt(d, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
            setsockopt(d, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
        }
        return d;
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
    int listen_port(std::string *why) {
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || listen(fd, 1) != 0 ||
            getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) != 0) {
            if (fd >= 0) close(fd);
            *why = "PORT: no listening socket";
            return -1;
        }
        unsigned port = ntohs(a.sin_port);
        char line[64];
        snprintf(line, sizeof line, "PORT 127,0,0,1,%u,%u", port / 256, port % 256);
        if (cmd(line) != 200) {
            close(fd);
            *why = std::string("PORT: ") + last();
            return -1;
        }
        return fd;
    }
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

// Everything the data connection brings, thrown away; -1 on failure.
long long drain(link &d) {
    if (d.ssl() == nullptr && !g_copy) {
        thread_local sink k;
        if (k.ok()) return d.drain_spliced(k);
    }
    thread_local std::vector<char> b(kChunk);
    long long total = 0;
    ssize_t n;
    while ((n = d.read(b.data(), b.size())) > 0) total += n;
    return n < 0 ? -1 : total;
}

// The thread's memory file of the pattern's repetitions (at least kSourceBytes), made on the
// first call for that pattern: callers make it before their timed part.
source *thread_source(const std::vector<char> &pattern) {
    thread_local std::unique_ptr<source> src;
    thread_local std::vector<char> made_for;
    if (!src || made_for != pattern) {
        src = std::make_unique<source>(pattern, kSourceBytes / pattern.size() * pattern.size());
        made_for = pattern;
    }
    return src->ok() ? src.get() : nullptr;
}

// Sends total bytes of the pattern's repetitions: from the thread's memory file with sendfile,
// or with --copy (and over TLS) from a buffer of whole repetitions.
bool send_pattern(link &d, const std::vector<char> &pattern, long long total) {
    if (d.ssl() == nullptr && !g_copy) {
        source *src = thread_source(pattern);
        if (src != nullptr) return d.send_file(*src, total);
    }
    thread_local std::vector<char> block;
    if (block.size() < kChunk || block.size() % pattern.size() != 0 ||
        memcmp(block.data(), pattern.data(), pattern.size()) != 0) {
        block.clear();
        while (block.size() < kChunk) block.insert(block.end(), pattern.begin(), pattern.end());
    }
    while (total > 0) {
        size_t n = total < static_cast<long long>(block.size()) ? static_cast<size_t>(total) : block.size();
        if (!d.write(block.data(), n)) return false;
        total -= static_cast<long long>(n);
    }
    return true;
}

// What an upload sends: binary, a repeating byte pattern; ASCII, the wire form of lines of 63
// characters, so that the stored file has whole 64-byte LF lines.
std::vector<char> upload_pattern(bool text) {
    std::vector<char> p;
    if (text) {
        for (int i = 0; i < 63; i++) p.push_back(static_cast<char>('a' + i % 26));
        p.push_back('\r');
        p.push_back('\n');
    } else {
        p.resize(kChunk);
        for (size_t i = 0; i < p.size(); i++) p[i] = static_cast<char>(i * 131 + 7);
    }
    return p;
}

// Why a data connection's handshake failed: the library's reason and the server's reply.
std::string handshake_failure(control &c) {
    std::string reason = tls_errors();
    std::string why = "TLS handshake on the data connection failed (" +
                      (reason.empty() ? std::string("the server ended the connection") : reason) + ")";
    if (c.reply() > 0) why += ", then: " + c.last();
    return why;
}

// One transfer on a logged-in session: the data connection (passive or active), the command,
// with TLS the data connection's handshake, the bytes, the final reply. With pattern, an upload
// of total bytes of it; without, a download drained. Returns the bytes moved, or -1 with the
// reason in why; the protocol and cipher of a protected data connection go into negotiated.
long long transfer(control &c, const std::string &command, const std::vector<char> *pattern, long long total,
                   std::string *why, std::string *negotiated = nullptr) {
    int fd = c.open_data(why);
    if (fd < 0) return -1;
    if (!c.send_line(command)) {
        close(fd);
        *why = command + ": cannot send";
        return -1;
    }
    link d(c.take_data(fd));
    if (!d.ok()) {
        *why = command + ": no data connection";
        if (c.reply() > 0) *why += ", then: " + c.last();
        return -1;
    }
    if (!c.protect(d)) {
        *why = handshake_failure(c);
        return -1;
    }
    int code = c.reply();
    if (code != 150 && code != 125) {
        *why = command + ": " + c.last();
        return -1;
    }
    if (negotiated != nullptr) *negotiated = d.negotiated();
    long long moved = total;
    if (pattern != nullptr) {
        if (!send_pattern(d, *pattern, total)) {
            *why = command + ": the data connection ended " + tls_errors();
            return -1;
        }
        d.finish_upload();
    } else {
        moved = drain(d);
        d.reset();
        if (moved < 0) {
            *why = command + ": receiving failed";
            return -1;
        }
    }
    if (c.reply() != 226) {
        *why = "after the transfer: " + c.last();
        return -1;
    }
    return moved;
}

// Logs in; false with the reason in why.
bool log_in(control &c, const char *user, const char *pass, std::string *why, bool data = true) {
    if (c.ok() && c.login(user, pass, data)) return true;
    *why = "login: " + (c.ok() ? c.last() : std::string("no connection")) + " " + tls_errors();
    return false;
}

// One download, from offset when it is not empty (REST right before RETR); returns the seconds
// from REST (or the data connection) to the final reply, or a negative value with the reason in
// why.
double do_retr(int port, const char *user, const char *pass, const char *type, const char *path, long long *bytes,
               std::string *why, const char *offset = "", std::string *negotiated = nullptr) {
    control c(port);
    if (!log_in(c, user, pass, why)) return -1;
    if (c.cmd(std::string("TYPE ") + type) != 200) {
        *why = "TYPE: " + c.last();
        return -2;
    }
    auto t0 = clock_type::now();
    if (*offset != '\0' && c.cmd(std::string("REST ") + offset) != 350) {
        *why = "REST: " + c.last();
        return -7;
    }
    *bytes = transfer(c, std::string("RETR ") + path, nullptr, 0, why, negotiated);
    if (*bytes < 0) return -5;
    double s = seconds_since(t0);
    c.cmd("QUIT");
    return s;
}

int cmd_retr(int port, char **a, int n) {
    long long bytes = 0;
    std::string why, negotiated;
    double c0 = client_cpu();
    double s = do_retr(port, a[0], a[1], a[2], a[3], &bytes, &why, n > 4 ? a[4] : "", &negotiated);
    if (s < 0) {
        fprintf(stderr, "retr failed (%g) %s\n", s, why.c_str());
        return 1;
    }
    printf("seconds=%.6f bytes=%lld client_cpu=%.6f%s\n", s, bytes, client_cpu() - c0, negotiated.c_str());
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
    std::vector<char> pattern = upload_pattern(text);
    long long wire_total = text ? want / 64 * 65 : want;
    // The memory file is filled before the timed part.
    if (!g_copy && g_tls == nullptr) thread_source(pattern);
    control c(port);
    std::string why, negotiated;
    if (!log_in(c, a[0], a[1], &why)) return fail("login", why);
    if (c.cmd(std::string("TYPE ") + type) != 200) return fail("TYPE", c.last());
    double c0 = client_cpu();
    auto t0 = clock_type::now();
    if (transfer(c, std::string("STOR ") + a[3], &pattern, wire_total, &why, &negotiated) < 0) return fail("STOR", why);
    double s = seconds_since(t0);
    double cpu = client_cpu() - c0;
    c.cmd("QUIT");
    printf("seconds=%.6f bytes=%lld client_cpu=%.6f%s\n", s, want, cpu, negotiated.c_str());
    return 0;
}

// Small files: each of sessions threads logs in once and moves count files of bytes each, one
// data connection per file; files/s counts them all from the first login's end to the last
// session's last reply.
int cmd_files(int port, char **a) {
    bool upload = strcmp(a[2], "stor") == 0;
    std::string dir = a[3];
    int count = atoi(a[4]);
    long long size = atoll(a[5]);
    int sessions = atoi(a[6]);
    std::vector<char> pattern = upload_pattern(false);
    std::atomic<long long> bytes{0};
    std::atomic<int> failed{0}, ready{0};
    std::atomic<bool> go{false};
    std::string first_failure;
    std::mutex failure_lock;
    auto failure = [&](const std::string &why) {
        std::lock_guard<std::mutex> g(failure_lock);
        if (first_failure.empty()) first_failure = why;
        failed++;
    };
    std::vector<std::thread> threads;
    for (int k = 0; k < sessions; k++) {
        threads.emplace_back([&, k]() {
            if (upload && !g_copy && g_tls == nullptr) thread_source(pattern);
            control c(port);
            std::string why;
            bool ok = log_in(c, a[0], a[1], &why) && c.cmd("TYPE I") == 200;
            ready++;
            while (!go.load()) std::this_thread::yield();
            if (!ok) {
                failure(why.empty() ? "TYPE: " + c.last() : why);
                return;
            }
            for (int i = 0; i < count; i++) {
                char name[64];
                if (upload)
                    snprintf(name, sizeof name, "/s%d-%04d", k, i);
                else
                    snprintf(name, sizeof name, "/f-%04d", i);
                std::string command = std::string(upload ? "STOR " : "RETR ") + dir + name;
                long long n = transfer(c, command, upload ? &pattern : nullptr, size, &why);
                if (n < 0) {
                    failure(why);
                    return;
                }
                bytes += n;
            }
            c.cmd("QUIT");
        });
    }
    while (ready.load() < sessions) std::this_thread::yield();
    double c0 = client_cpu();
    auto t0 = clock_type::now();
    go = true;
    for (auto &t : threads) t.join();
    double s = seconds_since(t0);
    double cpu = client_cpu() - c0;
    if (failed.load() != 0) return fail("files", first_failure);
    long long files = static_cast<long long>(count) * sessions;
    printf("seconds=%.6f files=%lld bytes=%lld rate=%.1f client_cpu=%.6f\n", s, files, bytes.load(), files / s, cpu);
    return 0;
}

// Sessions still under way when the time is up get this long to end; one that does not (a
// connection the server has not accepted yet, a login it has not answered) is cut and counts
// neither as done nor as failed. A server whose listen queue overflows would otherwise hold the
// run for a minute per client, while the kernel retries the dropped connections.
constexpr double kLoginGraceSeconds = 5;

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
                double left = seconds + kLoginGraceSeconds - seconds_since(t0);
                control c(port, left > 0.1 ? left : 0.1);
                if (c.ok() && c.login(a[0], a[1], false) && c.cmd("QUIT") == 221) {
                    c.wait_closed();
                    done++;
                } else if (!stop.load()) {
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
    std::string why;
    if (!log_in(c, a[0], a[1], &why)) return fail("login", why);
    if (c.cmd("TYPE A") != 200) return fail("TYPE", c.last());
    auto t0 = clock_type::now();
    long long bytes = transfer(c, std::string(a[2]) + " " + a[3], nullptr, 0, &why);
    if (bytes < 0) return fail(a[2], why);
    double s = seconds_since(t0);
    c.cmd("QUIT");
    printf("seconds=%.6f bytes=%lld\n", s, bytes);
    return 0;
}

int cmd_hold(int port, char **a) {
    int clients = atoi(a[2]);
    std::vector<std::unique_ptr<control>> held(static_cast<size_t>(clients));
    // A few logins at a time: a thousand one after the other take half a minute with a server
    // that forks a process per session.
    constexpr int kOpeners = 4;
    std::atomic<int> next{0}, failed{-1};
    std::vector<std::thread> openers;
    for (int k = 0; k < kOpeners; k++) {
        openers.emplace_back([&]() {
            for (int i; failed.load() < 0 && (i = next++) < clients;) {
                auto &c = held[static_cast<size_t>(i)] = std::make_unique<control>(port);
                if (!c->ok() || !c->login(a[0], a[1])) failed = i;
            }
        });
    }
    for (auto &t : openers) t.join();
    if (failed.load() >= 0) {
        fprintf(stderr, "hold: login %d failed\n", failed.load());
        return 1;
    }
    printf("ready\n");
    fflush(stdout);
    char b[64];
    while (read(0, b, sizeof b) > 0) {
    }
    for (auto &c : held) c->cmd("QUIT");
    return 0;
}

}  // namespace

// The machine's own steadiness: the same CPU-bound work timed `rounds` times, in CPU milliseconds.
// On a steady machine every round takes the same; where a host takes CPU time from a virtual
// machine without saying so, some rounds take more, and so may any figure measured meanwhile.
int cmd_spin(int rounds) {
    for (int r = 0; r < rounds; r++) {
        timespec c0{}, c1{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &c0);
        volatile unsigned long sum = 0;
        for (unsigned long i = 0; i < 100000000UL; i++) sum = sum + i;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &c1);
        printf("cpu_ms=%.1f\n", static_cast<double>(c1.tv_sec - c0.tv_sec) * 1e3 +
                                     static_cast<double>(c1.tv_nsec - c0.tv_nsec) / 1e6);
    }
    return 0;
}

int main(int argc, char **argv) {
    if (argc == 3 && strcmp(argv[1], "spin") == 0) return cmd_spin(atoi(argv[2]));
    bool tls = false;
    // Options before the command, in any order.
    while (argc > 1 && strncmp(argv[1], "--", 2) == 0) {
        if (strcmp(argv[1], "--tls") == 0) {
            tls = true;
        } else if (strcmp(argv[1], "--copy") == 0) {
            g_copy = true;
        } else if (strcmp(argv[1], "--active") == 0) {
            g_active = true;
        } else {
            fprintf(stderr, "unknown option %s\n", argv[1]);
            return 2;
        }
        argv++;
        argc--;
    }
    if (argc < 5) {
        fprintf(stderr,
                "usage: ftpbench [--tls] [--copy] [--active] retr|stor|files|logins|mretr|list|hold|handshakes "
                "PORT USER PASS ...\n       ftpbench spin ROUNDS\n");
        return 2;
    }
    std::string op = argv[1];
    if (op == "handshakes") {
        tls = true;
        op = "logins";
    }
    // A server's early close must fail a send, not kill the client.
    signal(SIGPIPE, SIG_IGN);
    if (tls) {
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
    if (op == "files" && n == 7) return cmd_files(port, a);
    if (op == "logins" && n == 4) return cmd_logins(port, a);
    if (op == "mretr" && n == 4) return cmd_mretr(port, a);
    if (op == "list" && n == 4) return cmd_list(port, a);
    if (op == "hold" && n == 3) return cmd_hold(port, a);
    fprintf(stderr, "bad arguments\n");
    return 2;
}
