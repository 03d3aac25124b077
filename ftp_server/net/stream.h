// One connection's byte stream, plain or protected by TLS, chosen once: the control connection
// and every data connection go through it. It owns the socket and its TLS state; every wait it
// makes asks for what the stream needs (readable or writable) and carries a deadline.
#pragma once

#include <poll.h>
#include <sys/types.h>

#include <cstddef>

#include "base/raii.h"

struct ftp_tls;

class ftp_stream {
  public:
    ftp_stream() = default;
    explicit ftp_stream(int fd) : fd_(fd) {}
    ~ftp_stream() { close(); }
    ftp_stream(const ftp_stream &) = delete;
    ftp_stream &operator=(const ftp_stream &) = delete;

    int fd() const { return fd_.get(); }
    explicit operator bool() const { return static_cast<bool>(fd_); }
    // Takes fd over, closing what the stream held; nonblocking: fd is already in that mode.
    void reset(int fd = -1, bool nonblocking = false);
    // Gives the TLS state back (a closing alert only where it goes out at once), then closes the
    // socket without lingering: a client that stopped reading cannot hold the close.
    void close();

    ftp_tls *tls() const { return tls_; }
    bool is_protected() const { return tls_ != nullptr; }
    // From now on the stream's bytes go through t, which it owns.
    void protect(ftp_tls *t);
    // Gives the TLS state back and goes on in plain text (the end of a session's protection).
    void unprotect();

    // As recv and send: bytes moved, 0 when the peer closed (read), or -1 with errno; EAGAIN
    // says to wait for wait_events() before the next call. Plain sends never raise SIGPIPE.
    ssize_t read_some(void *buf, size_t len);
    ssize_t write_some(const void *buf, size_t len);
    short wait_events() const;
    // Bytes the TLS layer holds that no wait on the socket would announce.
    bool buffered() const;
    // All len bytes, each wait until the deadline (milliseconds from now, for the whole call):
    // 0, or -1.
    int write_all(const void *buf, size_t len, int timeout_ms);
    // The next plain write stays in the kernel until the write after it (or, at the latest, the
    // kernel's retransmission time-out), so that the two leave in one segment and wake the peer
    // once; flush() sends it on at once.
    void hold_next() { hold_next_ = true; }
    void flush();
    // Waits until the stream can go on with what wait_events() names, or fd extra (when >= 0)
    // has input: 1 the stream, 2 the extra descriptor, 0 time-out, -1 failure.
    int wait(int timeout_ms, int extra = -1) const;

  private:
    unique_fd fd_;
    bool nonblocking_ = false;
    ftp_tls *tls_ = nullptr;
    bool want_write_ = false;  // the last plain call that had to wait was a send
    bool hold_next_ = false;
    bool held_ = false;  // the kernel holds bytes back for the next write
};

// Milliseconds of the monotonic clock, for deadlines.
long long ftp_now_ms(void);
// poll() that is resumed after a signal, with the time already waited taken off.
int ftp_poll(struct pollfd *fds, nfds_t n, int timeout_ms);
