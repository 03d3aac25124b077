// Explicit TLS, the daemon's side: the TLS module (ftps-tls.so, OpenSSL) is loaded when the
// platform file's [tls] names a certificate, and every connection's TLS goes through its table.
// Without [tls], neither the module nor the library is ever mapped, and nothing here is called
// for a connection (no connection is protected).
#include <atomic>
#include <cerrno>
#include <cstdio>

#include "ftp_tls.h"
#include "module.h"
#include "modules.h"
#include "platform_conf.h"

namespace {

// Set once, on the main thread at start-up, before any session exists.
std::atomic<const ftp_tls_ops *> g_ops{nullptr};

const ftp_tls_ops &ops() {
    return *g_ops.load(std::memory_order_acquire);
}

}  // namespace

void ftp_tls_memory(unsigned *allocs, unsigned *fails, unsigned *frees) {
    const ftp_tls_ops *o = g_ops.load(std::memory_order_acquire);
    if (o != nullptr) {
        o->memory(allocs, fails, frees);
        return;
    }
    for (unsigned *p : {allocs, fails, frees})
        if (p != nullptr) *p = 0;
}

int ftp_tls_init(char *err, size_t err_len) {
    const platform_conf &c = platform_get();
    if (c.tls_certificate.empty()) return 0;
    if (g_ops.load(std::memory_order_acquire) == nullptr) {
        char why[400] = {0};
        const void *o = platform_module_load("tls", kTlsModuleVersion, why, sizeof why);
        if (o == nullptr) {
            if (err != nullptr && err_len > 0)
                snprintf(err, err_len, "%s: key 'certificate': TLS cannot be served: %s",
                         c.tls_certificate_at.empty() ? "platform file" : c.tls_certificate_at.c_str(), why);
            return -1;
        }
        g_ops.store(static_cast<const ftp_tls_ops *>(o), std::memory_order_release);
    }
    return ops().build(c, err, err_len);
}

int ftp_tls_reload(char *err, size_t err_len) {
    if (!ftp_tls_enabled()) return 0;
    return ops().build(platform_get(), err, err_len);
}

bool ftp_tls_enabled(void) {
    const ftp_tls_ops *o = g_ops.load(std::memory_order_acquire);
    return o != nullptr && o->enabled();
}

int ftp_tls_require(void) {
    return platform_get().tls_require;
}

bool ftp_tls_require_reuse(void) {
    return platform_get().tls_require_reuse;
}

int ftp_tls_upload_eof(void) {
    return platform_get().tls_upload_eof;
}

ftp_tls *ftp_tls_accept(int fd, int timeout_ms, const ftp_tls *control, char *why, size_t why_len) {
    if (!ftp_tls_enabled()) {
        if (why != nullptr && why_len > 0) snprintf(why, why_len, "TLS is not configured");
        return nullptr;
    }
    return ops().accept(fd, timeout_ms, control, ftp_tls_require_reuse(), why, why_len);
}

// A connection exists only where the module made it: the calls below have the table.
int ftp_tls_bind_login(ftp_tls *t, const char *user) { return ops().bind_login(t, user); }
ssize_t ftp_tls_read(ftp_tls *t, void *buf, size_t len) { return ops().read(t, buf, len); }
ssize_t ftp_tls_write(ftp_tls *t, const void *buf, size_t len) { return ops().write(t, buf, len); }
bool ftp_tls_wants_write(const ftp_tls *t) { return ops().wants_write(t); }
int ftp_tls_write_all(ftp_tls *t, const void *buf, size_t len, int timeout_ms) {
    return ops().write_all(t, buf, len, timeout_ms);
}
bool ftp_tls_kernel_send(const ftp_tls *t) { return ops().kernel_send(t); }
ssize_t ftp_tls_sendfile(ftp_tls *t, int fd, off_t offset, size_t len) { return ops().sendfile(t, fd, offset, len); }
bool ftp_tls_pending(const ftp_tls *t) { return ops().pending(t); }
bool ftp_tls_clean_end(const ftp_tls *t) { return ops().clean_end(t); }
int ftp_tls_finish(ftp_tls *t, int timeout_ms) { return ops().finish(t, timeout_ms); }
const char *ftp_tls_version(const ftp_tls *t) { return ops().version(t); }

void ftp_tls_free(ftp_tls *t) {
    if (t != nullptr) ops().free(t);
}

void ftp_tls_thread_end(void) {
    const ftp_tls_ops *o = g_ops.load(std::memory_order_acquire);
    if (o != nullptr) o->thread_end();
}
