// The TLS module (ftps-tls.so): explicit TLS with OpenSSL. The server context made from the
// platform file's [tls] keys (made again on SIGHUP), the handshake of a control or data connection
// within a deadline, record I/O on non-blocking descriptors, and the count of the library's
// allocations. The daemon loads it only when [tls] names a certificate (platform/tls.cpp).
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>

#include "modules.h"
#include "platform_conf.h"

namespace {

// What a ticket names in its application data: who may resume it on a data connection. A kind
// and 32 bytes: a control connection's own random token, or a login's binding (user and client
// address, keyed).
constexpr size_t kGrantLen = 33;
constexpr unsigned char kGrantConnection = 'C';
constexpr unsigned char kGrantLogin = 'L';
constexpr unsigned char kGrantNobody = 'N';
// A data connection's records are gathered up to this many bytes (nearly four full records)
// before they go to the socket: one send and one hold of the socket instead of four.
constexpr long kWriteGather = 64 * 1024;
// A data connection's read buffer: nearly four full records per system call. Larger buffers
// no longer stay in the processor's cache while a record is decrypted and copied out, and cost
// more than they save on a small file's connection.
constexpr size_t kDataReadBuffer = 64 * 1024;

}  // namespace

struct ftp_tls {
    SSL *ssl = nullptr;
    // Data connection: the control connection whose tickets it may resume.
    const ftp_tls *control = nullptr;
    // Control connection: what the tickets of its handshake name (its own random token, or, when
    // it resumed a ticket, what that ticket named: the client proved it holds it), and after a
    // login what the login's tickets name.
    unsigned char handshake_grant[kGrantLen] = {};
    unsigned char login_grant[kGrantLen] = {};
    unsigned char offered[kGrantLen] = {};  // what the ticket it resumes names, if well formed
    bool offered_ok = false;
    bool grant_settled = false;
    bool bound = false;
    // Data connection: the ticket it resumes is one its control connection granted.
    bool granted = false;
    bool want_write = false;
    bool gathering = false;     // data connection: its records are gathered (once it sends)
    bool failed = false;        // no closing alert after a failure
    bool close_notify = false;  // the peer's closing alert came
};

namespace {

std::atomic<unsigned> g_allocs{0};
std::atomic<unsigned> g_fails{0};
std::atomic<unsigned> g_frees{0};

void *count_malloc(size_t n, const char *, int) {
    void *p = malloc(n);
    (p != nullptr ? g_allocs : g_fails).fetch_add(1, std::memory_order_relaxed);
    return p;
}

void count_free(void *p, const char *, int) {
    if (p == nullptr) return;
    g_frees.fetch_add(1, std::memory_order_relaxed);
    free(p);
}

// The library hands every resize here, taking a block (from nothing) and giving one back (to
// nothing) included.
void *count_realloc(void *p, size_t n, const char *file, int line) {
    if (p == nullptr) return count_malloc(n, file, line);
    if (n == 0) {
        count_free(p, file, line);
        return nullptr;
    }
    return realloc(p, n);
}

// One session context for every connection: who may resume a session is the ticket's own
// application data, looked at when the ticket is opened.
const unsigned char kSessionContext[] = "ftps";

// Key of the login bindings, drawn once per process.
std::once_flag g_binding_once;
unsigned char g_binding_key[32];

std::mutex g_ctx_mutex;
SSL_CTX *g_ctx = nullptr;  // guarded by g_ctx_mutex; sessions hold references of their own

void put_error(char *err, size_t err_len, const std::string &text) {
    if (err != nullptr && err_len > 0) snprintf(err, err_len, "%s", text.c_str());
}

// The library's last reason, as one line.
std::string library_reason() {
    unsigned long code = ERR_peek_last_error();
    char text[256];
    if (code == 0) return "unknown error";
    ERR_error_string_n(code, text, sizeof text);
    ERR_clear_error();
    return text;
}

std::string located(const std::string &at, const char *key, const std::string &reason) {
    return (at.empty() ? std::string("platform file") : at) + ": key '" + key + "': " + reason;
}

ftp_tls *of(const SSL *ssl) {
    return static_cast<ftp_tls *>(SSL_get_app_data(ssl));
}

// A control connection's handshake names its own token unless it resumed a ticket: then it goes on
// naming what that ticket named, so that clients which share one ticket between the connections of
// one login keep resuming it. Settled once the handshake has proved the client holds the ticket.
void settle_handshake_grant(ftp_tls *t) {
    if (t->grant_settled) return;
    if (SSL_session_reused(t->ssl) == 1 && t->offered_ok) memcpy(t->handshake_grant, t->offered, kGrantLen);
    t->grant_settled = true;
}

// SECURITY: a data connection resumes only a ticket its own control connection granted, and only
// after that connection's login.
bool grants(const ftp_tls &control, const unsigned char *grant) {
    if (!control.bound) return false;
    return CRYPTO_memcmp(grant, control.handshake_grant, kGrantLen) == 0 ||
           CRYPTO_memcmp(grant, control.login_grant, kGrantLen) == 0;
}

// A ticket is being made: it names whom its connection grants resumption.
int on_ticket_made(SSL *ssl, void *) {
    ftp_tls *t = of(ssl);
    SSL_SESSION *session = SSL_get0_session(ssl);
    if (t == nullptr || session == nullptr) return 0;
    // A data connection hands out no ticket: TLS 1.3 issues none on it, and in TLS 1.2 the ticket
    // callback renews none and answers no empty ticket extension. Should one be made all the same,
    // it grants nothing.
    if (t->control != nullptr) return SSL_SESSION_set1_ticket_appdata(session, &kGrantNobody, 1);
    settle_handshake_grant(t);
    const unsigned char *grant = t->bound ? t->login_grant : t->handshake_grant;
    return SSL_SESSION_set1_ticket_appdata(session, grant, kGrantLen);
}

// A client offers a ticket. A data connection takes it only when its control connection grants
// it; a control connection takes any ticket of this context and notes what it names.
SSL_TICKET_RETURN on_ticket_opened(SSL *ssl, SSL_SESSION *session, const unsigned char *, size_t,
                                   SSL_TICKET_STATUS status, void *) {
    ftp_tls *t = of(ssl);
    bool opened = status == SSL_TICKET_SUCCESS || status == SSL_TICKET_SUCCESS_RENEW;
    if (t == nullptr) return SSL_TICKET_RETURN_ABORT;
    // A control connection without a usable ticket gets one of its own.
    if (!opened || session == nullptr)
        return t->control != nullptr ? SSL_TICKET_RETURN_IGNORE : SSL_TICKET_RETURN_IGNORE_RENEW;
    void *data = nullptr;
    size_t len = 0;
    bool well_formed = SSL_SESSION_get0_ticket_appdata(session, &data, &len) == 1 && len == kGrantLen &&
                       (static_cast<const unsigned char *>(data)[0] == kGrantConnection ||
                        static_cast<const unsigned char *>(data)[0] == kGrantLogin);
    if (t->control == nullptr) {
        t->offered_ok = well_formed;
        if (well_formed) memcpy(t->offered, data, kGrantLen);
        return SSL_TICKET_RETURN_USE;
    }
    if (!well_formed || !grants(*t->control, static_cast<const unsigned char *>(data)))
        return SSL_TICKET_RETURN_IGNORE;
    t->granted = true;
    // Data connections hand out no tickets, a renewed one neither.
    return SSL_TICKET_RETURN_USE;
}

// A TLS 1.2 client offers a session identifier (clients without tickets resume so). There is no
// store of sessions: a data connection finds only its control connection's own session, after the
// login; a control connection finds none.
SSL_SESSION *on_session_asked(SSL *ssl, const unsigned char *id, int id_len, int *copy) {
    *copy = 1;  // the library takes its own reference
    ftp_tls *t = of(ssl);
    if (t == nullptr || t->control == nullptr || !t->control->bound) return nullptr;
    SSL_SESSION *session = SSL_get_session(t->control->ssl);
    unsigned int own_len = 0;
    const unsigned char *own = session != nullptr ? SSL_SESSION_get_id(session, &own_len) : nullptr;
    if (own == nullptr || own_len == 0 || static_cast<int>(own_len) != id_len ||
        SSL_SESSION_get_protocol_version(session) != TLS1_2_VERSION || CRYPTO_memcmp(own, id, own_len) != 0)
        return nullptr;
    t->granted = true;
    return session;
}

// Notes the peer's closing alert: an end of the stream without it is a cut.
void on_info(const SSL *ssl, int where, int value) {
    if ((where & SSL_CB_READ_ALERT) == 0 || (value & 0xff) != SSL_AD_CLOSE_NOTIFY) return;
    ftp_tls *t = of(ssl);
    if (t != nullptr) t->close_notify = true;
}

SSL_CTX *make_context(const platform_conf &c, std::string *err) {
    SSL_CTX *ctx = SSL_CTX_new(TLS_server_method());
    if (ctx == nullptr) {
        *err = "TLS: " + library_reason();
        return nullptr;
    }
    SSL_CTX_set_min_proto_version(ctx, c.tls_min_version == 1 ? TLS1_3_VERSION : TLS1_2_VERSION);
    // Kernel TLS where the kernel offers it (the library falls back by itself where not).
    SSL_CTX_set_options(ctx, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION | SSL_OP_CIPHER_SERVER_PREFERENCE |
                                 SSL_OP_IGNORE_UNEXPECTED_EOF | SSL_OP_ENABLE_KTLS);
    // SECURITY: no store of sessions. Sessions are resumed from tickets (TLS 1.2 and 1.3), each
    // naming whom it grants resumption, or by a data connection from its own control connection's
    // session (TLS 1.2 clients without tickets): nothing a stranger can fill, evict or leave behind.
    SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_SERVER | SSL_SESS_CACHE_NO_INTERNAL |
                                            SSL_SESS_CACHE_NO_AUTO_CLEAR);
    SSL_CTX_sess_set_get_cb(ctx, on_session_asked);
    (void)SSL_CTX_set_session_id_context(ctx, kSessionContext, sizeof kSessionContext);
    (void)SSL_CTX_set_session_ticket_cb(ctx, on_ticket_made, on_ticket_opened, nullptr);
    // TLS 1.3: one ticket at a control connection's handshake (clients that keep the session of
    // that handshake resume it), and one more at its login.
    SSL_CTX_set_num_tickets(ctx, 1);
    SSL_CTX_set_info_callback(ctx, on_info);
    const std::string &key = c.tls_key.empty() ? c.tls_certificate : c.tls_key;
    const std::string &key_at = c.tls_key.empty() ? c.tls_certificate_at : c.tls_key_at;
    if (SSL_CTX_use_certificate_chain_file(ctx, c.tls_certificate.c_str()) != 1) {
        *err = located(c.tls_certificate_at, "certificate", c.tls_certificate + ": " + library_reason());
    } else if (SSL_CTX_use_PrivateKey_file(ctx, key.c_str(), SSL_FILETYPE_PEM) != 1) {
        *err = located(key_at, c.tls_key.empty() ? "certificate" : "key", key + ": " + library_reason());
    } else if (SSL_CTX_check_private_key(ctx) != 1) {
        *err = located(key_at, c.tls_key.empty() ? "certificate" : "key",
                       key + ": the key does not match the certificate");
    } else if (!c.tls_ca.empty() && SSL_CTX_load_verify_locations(ctx, c.tls_ca.c_str(), nullptr) != 1) {
        *err = located(c.tls_ca_at, "ca", c.tls_ca + ": " + library_reason());
    } else if (!c.tls_ciphers.empty() && SSL_CTX_set_cipher_list(ctx, c.tls_ciphers.c_str()) != 1) {
        *err = located("", "ciphers", "no usable cipher in '" + c.tls_ciphers + "'");
    } else {
        return ctx;
    }
    SSL_CTX_free(ctx);
    return nullptr;
}

int build(const platform_conf &c, char *err, size_t err_len) {
    if (c.tls_certificate.empty()) return 0;
    std::string why;
    SSL_CTX *ctx = make_context(c, &why);
    if (ctx == nullptr) {
        put_error(err, err_len, why);
        return -1;
    }
    std::lock_guard<std::mutex> lock(g_ctx_mutex);
    if (g_ctx != nullptr) SSL_CTX_free(g_ctx);  // sessions that use it keep their references
    g_ctx = ctx;
    return 0;
}

SSL_CTX *context_ref() {
    std::lock_guard<std::mutex> lock(g_ctx_mutex);
    if (g_ctx != nullptr) SSL_CTX_up_ref(g_ctx);
    return g_ctx;
}

long long now_ms() {
    struct timespec ts {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Waits until fd is readable or writable, until the deadline; false on time-out or failure.
bool wait_until(int fd, bool for_write, long long deadline) {
    for (;;) {
        long long left = deadline - now_ms();
        if (left <= 0) return false;
        struct pollfd p {};
        p.fd = fd;
        p.events = for_write ? POLLOUT : POLLIN;
        int r = poll(&p, 1, static_cast<int>(left > 60000 ? 60000 : left));
        if (r > 0) return true;
        if (r < 0 && errno != EINTR) return false;
    }
}

// errno for a failed call; EAGAIN (with the direction) when the caller must wait.
ssize_t io_result(ftp_tls *t, int rc) {
    int e = SSL_get_error(t->ssl, rc);
    if (e == SSL_ERROR_WANT_READ || e == SSL_ERROR_WANT_WRITE) {
        t->want_write = e == SSL_ERROR_WANT_WRITE;
        errno = EAGAIN;
        return -1;
    }
    if (e == SSL_ERROR_ZERO_RETURN) return 0;
    t->failed = true;
    if (e != SSL_ERROR_SYSCALL || errno == 0) errno = EPROTO;
    ERR_clear_error();
    return -1;
}

// Counts the library's allocations and keeps its exit handler off: the daemon does not wait for
// serving sessions when it ends, and the handler would free locks and tables under them. Runs when
// the module is loaded, before anything of the library is used (where another module used it
// first, its allocations are not counted).
void start_library() {
    (void)CRYPTO_set_mem_functions(count_malloc, count_realloc, count_free);
    (void)OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
}

void tls_memory(unsigned *allocs, unsigned *fails, unsigned *frees) {
    if (allocs != nullptr) *allocs = g_allocs.load(std::memory_order_relaxed);
    if (fails != nullptr) *fails = g_fails.load(std::memory_order_relaxed);
    if (frees != nullptr) *frees = g_frees.load(std::memory_order_relaxed);
}

bool tls_enabled(void) {
    std::lock_guard<std::mutex> lock(g_ctx_mutex);
    return g_ctx != nullptr;
}

void tls_free(ftp_tls *t);

// The server side of the handshake within the deadline: 0, or -1 with the reason in why.
int handshake(ftp_tls *t, int fd, int timeout_ms, char *why, size_t why_len) {
    long long deadline = now_ms() + (timeout_ms > 0 ? timeout_ms : 1000);
    for (;;) {
        ERR_clear_error();
        int rc = SSL_accept(t->ssl);
        if (rc == 1) return 0;
        unsigned long code = ERR_peek_last_error();
        if (io_result(t, rc) < 0 && errno == EAGAIN && wait_until(fd, t->want_write, deadline)) continue;
        char reason[160] = "the connection ended";
        if (code != 0) ERR_error_string_n(code, reason, sizeof reason);
        put_error(why, why_len,
                  errno == EAGAIN ? std::string("handshake timed out") : std::string("handshake failed: ") + reason);
        return -1;
    }
}

ftp_tls *tls_accept(int fd, int timeout_ms, const ftp_tls *control, bool require_reuse, char *why,
                    size_t why_len) {
    SSL_CTX *ctx = control != nullptr ? SSL_get_SSL_CTX(control->ssl) : context_ref();
    if (ctx == nullptr) {
        put_error(why, why_len, "TLS is not configured");
        return nullptr;
    }
    if (control != nullptr) SSL_CTX_up_ref(ctx);
    auto *t = new (std::nothrow) ftp_tls;
    SSL *ssl = t != nullptr ? SSL_new(ctx) : nullptr;
    SSL_CTX_free(ctx);  // the connection holds its own reference
    if (ssl == nullptr) {
        delete t;
        put_error(why, why_len, "cannot make a TLS connection: " + library_reason());
        return nullptr;
    }
    t->ssl = ssl;
    t->control = control;
    t->handshake_grant[0] = kGrantConnection;
    int flags = fcntl(fd, F_GETFL);
    if ((control == nullptr && RAND_bytes(t->handshake_grant + 1, kGrantLen - 1) != 1) || flags < 0 ||
        fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0 || SSL_set_fd(ssl, fd) != 1 || SSL_set_app_data(ssl, t) != 1) {
        put_error(why, why_len, "cannot set up the connection");
        t->failed = true;
        tls_free(t);
        return nullptr;
    }
    // A data connection sends no ticket: one lying unread when the client closes an upload's
    // connection makes the client's kernel reset it, dropping bytes still on their way.
    if (control != nullptr) (void)SSL_set_num_tickets(ssl, 0);
    // A data connection reads what has come, several records at a time, in one call rather than
    // each record's header and body apart; nothing but TLS follows on it.
    if (control != nullptr) {
        SSL_set_read_ahead(ssl, 1);
        SSL_set_default_read_buffer_len(ssl, kDataReadBuffer);
    }
    if (handshake(t, fd, timeout_ms, why, why_len) != 0) {
        t->failed = true;
        tls_free(t);
        return nullptr;
    }
    if (control == nullptr) {
        settle_handshake_grant(t);
        return t;
    }
    // SECURITY: a data connection that does not resume a session its control connection granted
    // may come from anyone who reached the port, even from the client's own address.
    if (require_reuse && (!t->granted || SSL_session_reused(ssl) != 1)) {
        put_error(why, why_len, "the data connection did not resume a TLS session of this login");
        tls_free(t);
        return nullptr;
    }
    return t;
}

// Reads on, up to len, while the library holds bytes it has read ahead: a record is at most
// 16 KiB, and an upload written to its file a record at a time costs a system call per record.
ssize_t tls_read(ftp_tls *t, void *buf, size_t len) {
    size_t total = 0;
    for (;;) {
        size_t got = 0;
        ERR_clear_error();
        int rc = SSL_read_ex(t->ssl, static_cast<char *>(buf) + total, len - total, &got);
        if (rc != 1) return total > 0 ? static_cast<ssize_t>(total) : io_result(t, rc);
        total += got;
        if (total == len || SSL_has_pending(t->ssl) != 1) return static_cast<ssize_t>(total);
    }
}

// A data connection that sends in large pieces gathers its records, unless the kernel encrypts
// them; a small file's few records go as they are, without the buffer.
void gather_writes(ftp_tls *t) {
    t->gathering = true;
    BIO *sock = SSL_get_wbio(t->ssl);
    if (BIO_get_ktls_send(sock) != 0) return;
    BIO *gather = BIO_new(BIO_f_buffer());
    if (gather == nullptr || BIO_set_write_buffer_size(gather, kWriteGather) != 1 || BIO_up_ref(sock) != 1) {
        BIO_free(gather);
        return;
    }
    BIO_push(gather, sock);
    SSL_set0_wbio(t->ssl, gather);
}

// Sends what is gathered; false when the connection failed or stayed full until the deadline.
bool flush_gathered(ftp_tls *t, long long deadline) {
    BIO *w = SSL_get_wbio(t->ssl);
    while (BIO_wpending(w) > 0) {
        if (BIO_flush(w) == 1) continue;
        if (!BIO_should_retry(w) || !wait_until(SSL_get_fd(t->ssl), true, deadline)) return false;
    }
    return true;
}

ssize_t tls_write(ftp_tls *t, const void *buf, size_t len) {
    size_t put = 0;
    if (t->control != nullptr && !t->gathering && len >= static_cast<size_t>(kWriteGather)) gather_writes(t);
    ERR_clear_error();
    int rc = SSL_write_ex(t->ssl, buf, len, &put);
    if (rc == 1) return static_cast<ssize_t>(put);
    ssize_t r = io_result(t, rc);
    if (r == 0) {
        // The peer's closing alert: nothing more can be sent.
        t->failed = true;
        errno = EPIPE;
        return -1;
    }
    return r;
}

int tls_write_all(ftp_tls *t, const void *buf, size_t len, int timeout_ms) {
    long long deadline = now_ms() + (timeout_ms > 0 ? timeout_ms : 1000);
    const char *p = static_cast<const char *>(buf);
    while (len > 0) {
        ssize_t n = tls_write(t, p, len);
        if (n > 0) {
            p += n;
            len -= static_cast<size_t>(n);
        } else if (errno != EAGAIN || !wait_until(SSL_get_fd(t->ssl), t->want_write, deadline)) {
            return -1;
        }
    }
    return 0;
}

bool tls_kernel_send(const ftp_tls *t) {
    return BIO_get_ktls_send(SSL_get_wbio(t->ssl)) != 0;
}

ssize_t tls_sendfile(ftp_tls *t, int fd, off_t offset, size_t len) {
    ERR_clear_error();
    ossl_ssize_t n = SSL_sendfile(t->ssl, fd, offset, len, 0);
    if (n > 0) return static_cast<ssize_t>(n);
    return io_result(t, static_cast<int>(n));
}

bool tls_wants_write(const ftp_tls *t) {
    return t->want_write;
}

bool tls_pending(const ftp_tls *t) {
    return SSL_has_pending(t->ssl) == 1;
}

int tls_bind_login(ftp_tls *t, const char *user) {
    std::call_once(g_binding_once, [] {
        if (RAND_bytes(g_binding_key, sizeof g_binding_key) != 1) RAND_priv_bytes(g_binding_key, sizeof g_binding_key);
    });
    // The user and the client's address, keyed: a client's several connections (and their
    // tickets, which clients share between them) bind alike; anyone else's never do.
    struct sockaddr_storage peer {};
    socklen_t plen = sizeof peer;
    if (getpeername(SSL_get_fd(t->ssl), reinterpret_cast<struct sockaddr *>(&peer), &plen) != 0) return -1;
    const void *addr = &reinterpret_cast<const struct sockaddr_in *>(&peer)->sin_addr;
    size_t addr_len = 4;
    if (peer.ss_family == AF_INET6) {
        addr = &reinterpret_cast<const struct sockaddr_in6 *>(&peer)->sin6_addr;
        addr_len = 16;
    }
    std::string text(user);
    text.push_back('\0');
    text.append(static_cast<const char *>(addr), addr_len);
    unsigned int out_len = 0;
    if (HMAC(EVP_sha256(), g_binding_key, sizeof g_binding_key, reinterpret_cast<const unsigned char *>(text.data()),
             text.size(), t->login_grant + 1, &out_len) == nullptr ||
        out_len != kGrantLen - 1)
        return -1;
    t->login_grant[0] = kGrantLogin;
    t->bound = true;
    // TLS 1.3: a ticket naming the login goes out with the next reply. A TLS 1.2 client keeps the
    // ticket of the handshake, which its control connection grants from now on as well.
    if (SSL_version(t->ssl) >= TLS1_3_VERSION && SSL_new_session_ticket(t->ssl) != 1) return -1;
    return 0;
}

bool tls_clean_end(const ftp_tls *t) {
    return t->close_notify;
}

int tls_finish(ftp_tls *t, int timeout_ms) {
    if (t->failed) return -1;
    long long deadline = now_ms() + (timeout_ms > 0 ? timeout_ms : 1000);
    int fd = SSL_get_fd(t->ssl);
    // What is gathered goes before the alert, which the library flushes only as far as the
    // socket takes it at once.
    if (!flush_gathered(t, deadline)) {
        t->failed = true;
        return -1;
    }
    for (;;) {
        ERR_clear_error();
        int rc = SSL_shutdown(t->ssl);
        // 0: our alert is out; the peer's is not waited for.
        if (rc >= 0) break;
        if (io_result(t, rc) < 0 && errno == EAGAIN && wait_until(fd, t->want_write, deadline)) continue;
        t->failed = true;
        return -1;
    }
    t->failed = true;  // nothing more to send
    return flush_gathered(t, deadline) ? 0 : -1;
}

void tls_free(ftp_tls *t) {
    if (t == nullptr) return;
    if (t->ssl != nullptr) {
        if (!t->failed) {
            ERR_clear_error();
            (void)SSL_shutdown(t->ssl);
        }
        SSL_free(t->ssl);
    }
    ERR_clear_error();
    delete t;
}

void tls_thread_end(void) {
    OPENSSL_thread_stop();
}

const char *tls_version(const ftp_tls *t) {
    return SSL_get_version(t->ssl);
}

const ftp_tls_ops kOps = {build,          tls_enabled,    tls_memory,    tls_accept,  tls_bind_login,
                          tls_read,       tls_write,      tls_wants_write, tls_write_all, tls_kernel_send,
                          tls_sendfile,   tls_pending,    tls_clean_end, tls_finish,  tls_free,
                          tls_thread_end, tls_version};

}  // namespace

extern "C" __attribute__((visibility("default"))) const void *ftps_module_entry(unsigned version) {
    if (version != kTlsModuleVersion) return nullptr;
    static std::once_flag started;
    std::call_once(started, start_library);
    return &kOps;
}
