// The stream of one connection: plain socket calls or the TLS service's record calls behind one
// interface, and the waits both need.
#include "net/stream.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>

#include <cerrno>

#include "ftp_tls.h"

long long ftp_now_ms(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int ftp_poll(struct pollfd *fds, nfds_t n, int timeout_ms) {
    long long deadline = timeout_ms < 0 ? -1 : ftp_now_ms() + timeout_ms;
    for (;;) {
        int left = timeout_ms;
        if (deadline >= 0) {
            long long rest = deadline - ftp_now_ms();
            left = rest > 0 ? static_cast<int>(rest) : 0;
        }
        int r = poll(fds, n, left);
        if (r >= 0 || errno != EINTR) return r;
    }
}

void ftp_stream::reset(int fd, bool nonblocking) {
    close();
    fd_.reset(fd);
    nonblocking_ = nonblocking;
    hold_next_ = held_ = false;
}

void ftp_stream::close() {
    ftp_tls_free(tls_);
    tls_ = nullptr;
    if (!fd_) return;
    int on = 1;
    if (!nonblocking_) ioctl(fd_.get(), FIONBIO, &on);
    fd_.reset();
}

void ftp_stream::protect(ftp_tls *t) {
    ftp_tls_free(tls_);
    tls_ = t;
}

void ftp_stream::unprotect() {
    protect(nullptr);
}

ssize_t ftp_stream::read_some(void *buf, size_t len) {
    if (tls_ != nullptr) return ftp_tls_read(tls_, buf, len);
    ssize_t n;
    do {
        n = recv(fd_.get(), buf, len, MSG_DONTWAIT);
    } while (n < 0 && errno == EINTR);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        errno = EAGAIN;
        want_write_ = false;
    }
    return n;
}

ssize_t ftp_stream::write_some(const void *buf, size_t len) {
    bool hold = hold_next_;
    hold_next_ = false;
    if (tls_ != nullptr) return ftp_tls_write(tls_, buf, len);
    ssize_t n;
    do {
        n = send(fd_.get(), buf, len, MSG_DONTWAIT | MSG_NOSIGNAL | (hold ? MSG_MORE : 0));
    } while (n < 0 && errno == EINTR);
    if (n > 0) held_ = hold;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        errno = EAGAIN;
        want_write_ = true;
    }
    return n;
}

void ftp_stream::flush() {
    if (!held_) return;
    held_ = false;
    // Taking a cork off pushes whatever the kernel holds, corked or not.
    int off = 0;
    (void)setsockopt(fd_.get(), IPPROTO_TCP, TCP_CORK, &off, sizeof off);
}

short ftp_stream::wait_events() const {
    bool write = tls_ != nullptr ? ftp_tls_wants_write(tls_) : want_write_;
    return write ? POLLOUT : POLLIN;
}

bool ftp_stream::buffered() const {
    return tls_ != nullptr && ftp_tls_pending(tls_);
}

int ftp_stream::write_all(const void *buf, size_t len, int timeout_ms) {
    long long deadline = ftp_now_ms() + (timeout_ms > 0 ? timeout_ms : 1000);
    const char *p = static_cast<const char *>(buf);
    while (len > 0) {
        ssize_t n = write_some(p, len);
        if (n > 0) {
            p += n;
            len -= static_cast<size_t>(n);
            continue;
        }
        if (n == 0 || errno != EAGAIN) return -1;
        long long left = deadline - ftp_now_ms();
        if (left <= 0 || wait(static_cast<int>(left)) != 1) return -1;
    }
    return 0;
}

int ftp_stream::wait(int timeout_ms, int extra) const {
    struct pollfd p[2] = {};
    p[0].fd = fd_.get();
    p[0].events = wait_events();
    p[1].fd = extra;
    p[1].events = POLLIN;
    int r = ftp_poll(p, extra >= 0 ? 2 : 1, timeout_ms);
    if (r <= 0) return r;
    if (p[0].revents != 0) return 1;
    return 2;
}
