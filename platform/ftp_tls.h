// Explicit TLS for the daemon's connections: the server context made from the platform file's
// [tls] keys, and one connection's TLS state behind an opaque handle. The library (in the TLS
// module) is loaded by ftp_tls_init only when [tls] names a certificate; it then counts its
// allocations and keeps its exit handler off (session threads may still use it at exit).
#pragma once

#include <sys/types.h>

#include <cstddef>

enum platform_tls_require_e {
    PLATFORM_TLS_REQUIRE_NO = 0,     // AUTH TLS offered, plain text accepted
    PLATFORM_TLS_REQUIRE_LOGIN = 1,  // no USER or PASS before AUTH TLS
    PLATFORM_TLS_REQUIRE_ALL = 2,    // and every data connection protected
};

// A protected upload whose connection ends without the client's closing alert.
enum platform_tls_upload_eof_e {
    PLATFORM_TLS_UPLOAD_EOF_STRICT = 0,   // refused: the end may have been a cut
    PLATFORM_TLS_UPLOAD_EOF_LENIENT = 1,  // taken as complete
};

// Allocations, failed allocations and releases of the TLS library so far.
void ftp_tls_memory(unsigned *allocs, unsigned *fails, unsigned *frees);

// Builds the server context when the platform file names a certificate. 0 on success or when
// TLS is not configured; -1 with "FILE:LINE: key 'KEY': reason" in err otherwise.
int ftp_tls_init(char *err, size_t err_len);
// Builds the context again from the same files (SIGHUP); a failure keeps the one in use.
int ftp_tls_reload(char *err, size_t err_len);
// Whether a context is in use.
bool ftp_tls_enabled(void);
int ftp_tls_require(void);  // one of PLATFORM_TLS_REQUIRE_*
bool ftp_tls_require_reuse(void);
int ftp_tls_upload_eof(void);  // one of PLATFORM_TLS_UPLOAD_EOF_*

struct ftp_tls;

// The server side of a handshake on fd, finished within timeout_ms. No session is stored: sessions
// are resumed from tickets, each naming whom it grants (a control connection's handshake hands out
// one naming that connection, its login, in TLS 1.3, one naming the login), or, by a TLS 1.2
// client without tickets, from the control connection's own session by identifier. For a data
// connection, control is the session's control connection: the data connection uses its context,
// issues no ticket and, when reuse is required, must resume a ticket that control grants or its
// session, after its login. nullptr on failure, with the reason in why (for the debug log).
ftp_tls *ftp_tls_accept(int fd, int timeout_ms, const ftp_tls *control, char *why, size_t why_len);
// After a login on a protected control connection: from now on its data connections may resume
// its tickets, and (TLS 1.3) a ticket naming the login (user and client address, so that a
// client's several connections of one login may share it) goes out with the next reply. 0, or -1
// when the login could not be bound (its data connections are then refused).
int ftp_tls_bind_login(ftp_tls *t, const char *user);
// Like recv and send without flags on a non-blocking descriptor: bytes moved, 0 when the peer
// closed (read), or -1 with errno EAGAIN when the caller must wait for ftp_tls_wants_write()
// ? writable : readable, any other errno on failure.
ssize_t ftp_tls_read(ftp_tls *t, void *buf, size_t len);
ssize_t ftp_tls_write(ftp_tls *t, const void *buf, size_t len);
bool ftp_tls_wants_write(const ftp_tls *t);
// All len bytes on a non-blocking descriptor, waiting for room until timeout_ms in all: 0, or -1.
int ftp_tls_write_all(ftp_tls *t, const void *buf, size_t len, int timeout_ms);
// Whether the kernel encrypts what is sent (kernel TLS): a file can then go out by
// ftp_tls_sendfile, without a copy through the daemon. Results as ftp_tls_write.
bool ftp_tls_kernel_send(const ftp_tls *t);
ssize_t ftp_tls_sendfile(ftp_tls *t, int fd, off_t offset, size_t len);
// Bytes the library holds (decrypted or not yet) that no wait on the descriptor would announce.
// A record still incomplete counts too: only a read that makes no progress says to wait.
bool ftp_tls_pending(const ftp_tls *t);
// After a read returned 0: whether the peer ended with its closing alert. Without it the
// connection was cut (a bare close), and bytes may be missing.
bool ftp_tls_clean_end(const ftp_tls *t);
// Sends the closing alert, waiting for room until timeout_ms: the end of a protected data
// connection's bytes. 0 when it went out.
int ftp_tls_finish(ftp_tls *t, int timeout_ms);
// Sends the closing alert when it goes out at once, and frees the state; the descriptor stays
// open. nullptr is accepted.
void ftp_tls_free(ftp_tls *t);
// Releases what the TLS library keeps for the calling thread (a session thread's last step).
void ftp_tls_thread_end(void);
// Negotiated protocol version, e.g. "TLSv1.3", for the debug log.
const char *ftp_tls_version(const ftp_tls *t);
