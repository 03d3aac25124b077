// The transfer engine: moves one file's bytes between an open file and an open data connection,
// converting line ends in ASCII type, counting bytes into the session record and watching for a
// stalled data connection and for the stop message of the local control channel. Also the TYPE
// command and the names of the representation types.
//
// Bytes move in chunks of many blocks per system call, and in binary type a regular file is
// spliced through a kernel pipe. Line ends are still converted block by block (512-byte file blocks when sending,
// received blocks of at most 1024 bytes when receiving), so the output is byte for byte that of
// converting one block per call. The stop message and the idle time-out are checked per chunk.
#include "data/transfer.h"

#include <fcntl.h>
#include <poll.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ftp_tls.h"
#include "base/ftpd.h"
#include "net/waiter.h"
#include "control/listener.h"
#include "net/reply.h"

const char *typenames[] = {"0", "ASCII", "EBCDIC", "BINARY", "Local"};

namespace {

constexpr size_t FTP_RECV_BLOCK = 1024;  // conversion block of received bytes
// Bytes read from the file per call when sending, and taken from the data connection per call
// when receiving. They bound a transfer's buffers: send 3 x kSendChunk (the conversion buffer is
// doubled), receive 2 x kRecvChunk.
constexpr size_t kSendChunk = 64 * 1024;
constexpr size_t kRecvChunk = 64 * 1024;
// Pipe of a binary download: file pages move through it by reference, a chunk at a time, and the
// stop message is looked at between chunks. One MiB per chunk gave the least CPU per byte
// (sendfile pushes the socket every 64 KiB; 4 MiB pipes cost more again).
constexpr int kSendPipe = 1024 * 1024;
// Pipe of a binary upload spliced from the connection into the file: bytes per chunk.
constexpr int kReceivePipe = 256 * 1024;

const char kReply426Send[] = "426 Connection closed; transfer aborted.\r\n";
const char kReply226[] = "226 Closing data connection.\r\n";

bool type_is_served(int type) {
    return type == 1 || type == 3 || type == 4;
}

// Owner of the transfer's event waiter. The descriptors are registered once for the whole
// transfer (not once per wait), and a wait lasts the session's idle time-out.
class xfer_waiter {
  public:
    explicit xfer_waiter(int timeout_minutes) : ep_(ftpd_epoll_create()), timeout_ms_(timeout_minutes * 60 * 1000) {
        if (timeout_ms_ < 0) timeout_ms_ = 0;
    }
    ~xfer_waiter() { reset(); }
    xfer_waiter(const xfer_waiter &) = delete;
    xfer_waiter &operator=(const xfer_waiter &) = delete;

    explicit operator bool() const { return ep_ != nullptr; }
    void reset() {
        if (ep_ != nullptr) ftpd_epoll_destroy(ep_);
        ep_ = nullptr;
    }
    bool add(int fd, uint32_t events) {
        struct epoll_event ev {};
        ev.events = events;
        ev.data.fd = fd;
        return epoll_ctl(ep_->efd, EPOLL_CTL_ADD, fd, &ev) == 0;
    }
    // Number of ready descriptors, 0 on time-out, negative on failure.
    int wait() {
        int n;
        do {
            n = epoll_wait(ep_->efd, ep_->ev, FTP_EPOLL_MAX, timeout_ms_);
        } while (n < 0 && errno == EINTR);
        ep_->wait_n = n;
        return n;
    }
    bool ready(int fd) const { return ftpd_epoll_event(ep_, fd, FTP_EPOLL_IN | FTP_EPOLL_OUT); }

  private:
    struct ftp_epoll_s *ep_;
    int timeout_ms_;
};

// Puts a descriptor in non-blocking mode for the life of the guard (splice into a socket follows
// the socket's own flag).
class nonblocking_guard {
  public:
    explicit nonblocking_guard(int fd) : fd_(fd), old_(fcntl(fd, F_GETFL)) {
        if (old_ >= 0 && (old_ & O_NONBLOCK) == 0) fcntl(fd_, F_SETFL, old_ | O_NONBLOCK);
    }
    ~nonblocking_guard() {
        if (old_ >= 0 && (old_ & O_NONBLOCK) == 0) fcntl(fd_, F_SETFL, old_);
    }
    nonblocking_guard(const nonblocking_guard &) = delete;
    nonblocking_guard &operator=(const nonblocking_guard &) = delete;

  private:
    int fd_;
    int old_;
};

// Holds back partial segments while a transfer sends, so that the kernel sends full ones (about a
// tenth less CPU per byte on loopback); the tail goes out when the guard ends.
class cork_guard {
  public:
    explicit cork_guard(int fd) : fd_(fd) { set(1); }
    ~cork_guard() { set(0); }
    cork_guard(const cork_guard &) = delete;
    cork_guard &operator=(const cork_guard &) = delete;

  private:
    void set(int on) { (void)setsockopt(fd_, IPPROTO_TCP, TCP_CORK, &on, sizeof on); }
    int fd_;
};

// A kernel pipe for binary transfers: bytes move between the file and the connection through it
// without a copy into the daemon.
class kernel_pipe {
  public:
    enum result { moved, end_of_data, nothing_yet, unsupported, receive_failed, write_failed };

    explicit kernel_pipe(int size) {
        if (pipe2(fd_, O_CLOEXEC) != 0) {
            fd_[0] = fd_[1] = -1;
            return;
        }
        // A pipe keeps its default size when the larger one is refused.
        int got = fcntl(fd_[1], F_SETPIPE_SZ, size);
        if (got < 0) got = fcntl(fd_[1], F_GETPIPE_SZ);
        size_ = got > 0 ? static_cast<size_t>(got) : 0;
    }
    ~kernel_pipe() {
        for (int fd : fd_)
            if (fd >= 0) close(fd);
    }
    kernel_pipe(const kernel_pipe &) = delete;
    kernel_pipe &operator=(const kernel_pipe &) = delete;
    bool ok() const { return fd_[0] >= 0 && size_ > 0; }
    int out() const { return fd_[0]; }
    int in() const { return fd_[1]; }
    size_t size() const { return size_; }

    // Upload: takes what the connection has, up to the pipe's size, and writes all of it.
    result move(int sock, int file, ssize_t *count) {
        ssize_t n = splice(sock, nullptr, fd_[1], nullptr, size_, SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
        if (n == 0) return end_of_data;
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return nothing_yet;
            if (errno == EINVAL || errno == ENOSYS) return unsupported;
            return receive_failed;
        }
        *count = n;
        while (n > 0) {
            ssize_t m = splice(fd_[0], nullptr, file, nullptr, static_cast<size_t>(n), SPLICE_F_MOVE);
            if (m < 0 && errno == EINTR) continue;
            if (m <= 0) return write_failed;
            n -= m;
        }
        return moved;
    }

  private:
    int fd_[2];
    size_t size_ = 0;
};

enum class send_outcome { done, input_error, failed, stopped, fall_back, more };

// The sending side looks at the control channel between chunks and aborts only on a datagram it
// actually received while the service is disabled: a message left over from an earlier disable
// is taken and ignored.
bool stop_received(int domain_fd) {
    char msg[FTP_DOMAIN_MSG_LEN];
    return domain_fd >= 0 && recv(domain_fd, msg, sizeof msg, MSG_DONTWAIT) > 0 && !is_ftp_server_start();
}

// Waits until the data connection takes output again: more, or failed on time-out or a failing
// wait. A stop message that arrives meanwhile is taken at once, so that a stalled transfer does
// not sit out the time-out first.
send_outcome wait_for_room(xfer_waiter &w, int domain_fd) {
    int r = w.wait();
    if (r == 0) FTPD_LOG_PRO("Time out\n");
    if (r <= 0) return send_outcome::failed;
    if (domain_fd >= 0 && w.ready(domain_fd) && stop_received(domain_fd)) return send_outcome::stopped;
    return send_outcome::more;
}

// A protected connection that must read before it can write again (a message of the TLS layer
// itself): waits for input within the idle time-out.
send_outcome wait_for_input(int sock, const struct credentials *pcred) {
    struct pollfd p {};
    p.fd = sock;
    p.events = POLLIN;
    int r;
    do {
        r = poll(&p, 1, pcred->timeout * 60 * 1000);
    } while (r < 0 && errno == EINTR);
    return r > 0 ? send_outcome::more : send_outcome::failed;
}

// Sends all len bytes, completing partial sends; each wait for room lasts the idle time-out.
send_outcome send_all(xfer_waiter &w, int sock, const char *p, size_t len, int domain_fd, struct credentials *pcred) {
    while (len > 0) {
        ssize_t n = pcred->data_tls != nullptr ? ftp_tls_write(pcred->data_tls, p, len)
                                               : send(sock, p, len, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            p += n;
            len -= static_cast<size_t>(n);
            pcred->byte_count += n;
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            bool reads = pcred->data_tls != nullptr && !ftp_tls_wants_write(pcred->data_tls);
            send_outcome r = reads ? wait_for_input(sock, pcred) : wait_for_room(w, domain_fd);
            if (r != send_outcome::more) return r;
        } else {
            return send_outcome::failed;
        }
    }
    return send_outcome::more;
}

// Writes all len bytes to the file, completing partial writes.
bool write_all(int fd, const char *p, size_t len) {
    while (len > 0) {
        ssize_t n = write(fd, p, len);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

// One block to CR LF form, by the rule of unix_to_dos: a line feed gets a carriage return unless
// the byte before it in this block is one. Runs between line feeds are copied whole.
size_t block_to_dos(const char *in, size_t len, char *out) {
    const char *p = in;
    const char *end = in + len;
    char *o = out;
    while (p < end) {
        const char *nl = static_cast<const char *>(memchr(p, '\n', static_cast<size_t>(end - p)));
        if (nl == nullptr) {
            memcpy(o, p, static_cast<size_t>(end - p));
            o += end - p;
            break;
        }
        memcpy(o, p, static_cast<size_t>(nl - p));
        o += nl - p;
        if (nl == in || nl[-1] != '\r') *o++ = '\r';
        *o++ = '\n';
        p = nl + 1;
    }
    return static_cast<size_t>(o - out);
}

// One block to LF form, by the rule of dos_to_unix: a carriage return followed by a line feed
// inside this block is dropped; one that ends the block is kept.
size_t block_to_unix(const char *in, size_t len, char *out) {
    const char *p = in;
    const char *end = in + len;
    char *o = out;
    while (p < end) {
        const char *cr = static_cast<const char *>(memchr(p, '\r', static_cast<size_t>(end - p)));
        if (cr == nullptr) {
            memcpy(o, p, static_cast<size_t>(end - p));
            o += end - p;
            break;
        }
        memcpy(o, p, static_cast<size_t>(cr - p));
        o += cr - p;
        if (cr + 1 == end || cr[1] != '\n') *o++ = '\r';
        p = cr + 1;
    }
    return static_cast<size_t>(o - out);
}

// Converts len bytes cut into blocks of blk bytes from the start, each block by itself.
size_t chunk_to_dos(const char *in, size_t len, size_t blk, char *out) {
    size_t k = 0;
    for (size_t off = 0; off < len; off += blk) k += block_to_dos(in + off, len - off < blk ? len - off : blk, out + k);
    return k;
}

size_t chunk_to_unix(const char *in, size_t len, size_t blk, char *out) {
    size_t k = 0;
    for (size_t off = 0; off < len; off += blk)
        k += block_to_unix(in + off, len - off < blk ? len - off : blk, out + k);
    return k;
}

// Binary type, regular file, protected by kernel TLS: the kernel encrypts the file's pages on
// their way out. Falls back like the splice path, with the file offset where the kernel stopped.
send_outcome send_with_kernel_tls(int instr, int outstr, int domain_fd, xfer_waiter &w, struct credentials *pcred) {
    off_t off = lseek(instr, 0, SEEK_CUR);
    struct stat st;
    if (off < 0 || fstat(instr, &st) != 0) return send_outcome::fall_back;
    for (;;) {
        if (off >= st.st_size && (fstat(instr, &st) != 0 || off >= st.st_size)) return send_outcome::done;
        if (stop_received(domain_fd)) return send_outcome::stopped;
        size_t want = static_cast<size_t>(st.st_size - off);
        size_t chunk = static_cast<size_t>(kSendPipe);
        ssize_t n = ftp_tls_sendfile(pcred->data_tls, instr, off, want < chunk ? want : chunk);
        if (n > 0) {
            off += n;
            pcred->byte_count += n;
            continue;
        }
        if (n < 0 && errno == EAGAIN) {
            send_outcome r = ftp_tls_wants_write(pcred->data_tls) ? wait_for_room(w, domain_fd)
                                                                  : wait_for_input(outstr, pcred);
            if (r != send_outcome::more) return r;
            continue;
        }
        return lseek(instr, off, SEEK_SET) < 0 ? send_outcome::input_error : send_outcome::fall_back;
    }
}

// Binary type, regular file: the kernel moves the file's pages through a pipe to the connection.
// Falls back to reading and sending when the file cannot be spliced; the file offset is then where
// the splicing stopped, with every byte before it sent.
send_outcome send_with_splice(int instr, int outstr, int domain_fd, xfer_waiter &w, struct credentials *pcred) {
    off_t off = lseek(instr, 0, SEEK_CUR);
    struct stat st;
    if (off < 0 || fstat(instr, &st) != 0) return send_outcome::fall_back;
    kernel_pipe pipe(kSendPipe);
    if (!pipe.ok()) return send_outcome::fall_back;
    off_t size_hint = st.st_size;
    // splice has no MSG_NOSIGNAL; SIGPIPE is ignored process-wide, so a peer that went away
    // fails the call.
    nonblocking_guard nb(outstr);
    size_t in_pipe = 0;
    for (;;) {
        if (in_pipe == 0) {
            // At the known end, the next read finds end of file before anything else is looked
            // at, as a block read would. A file that grew (or reports no size) just goes on.
            bool at_end = off >= size_hint;
            if (!at_end && stop_received(domain_fd)) return send_outcome::stopped;
            ssize_t n = splice(instr, &off, pipe.in(), nullptr, pipe.size(), SPLICE_F_MOVE);
            if (n == 0) return send_outcome::done;
            if (n < 0) {
                if (errno == EINTR) continue;
                // Let the plain path read the file and report what fails.
                return lseek(instr, off, SEEK_SET) < 0 ? send_outcome::input_error : send_outcome::fall_back;
            }
            in_pipe = static_cast<size_t>(n);
            if (at_end && fstat(instr, &st) == 0) size_hint = st.st_size;
        }
        ssize_t m = splice(pipe.out(), nullptr, outstr, nullptr, in_pipe, SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
        if (m > 0) {
            in_pipe -= static_cast<size_t>(m);
            pcred->byte_count += m;
            continue;
        }
        if (m < 0 && errno == EINTR) continue;
        if (m < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            send_outcome r = wait_for_room(w, domain_fd);
            if (r != send_outcome::more) return r;
            continue;
        }
        return send_outcome::failed;
    }
}

// Reads the file a chunk at a time, converts it block by block in ASCII type and sends it.
send_outcome send_with_copy(int instr, int outstr, size_t blk, char *buf, char *chang_buf, size_t chunk, int domain_fd,
                            xfer_waiter &w, struct credentials *pcred) {
    for (;;) {
        ssize_t n = ftpd_read_some(instr, buf, chunk);
        if (n < 0) return send_outcome::input_error;
        if (n == 0) return send_outcome::done;
        if (stop_received(domain_fd)) return send_outcome::stopped;
        const char *out = buf;
        size_t len = static_cast<size_t>(n);
        if (pcred->cnt.tran_type == 1) {
            len = chunk_to_dos(buf, len, blk, chang_buf);
            out = chang_buf;
        }
        send_outcome r = send_all(w, outstr, out, len, domain_fd, pcred);
        if (r != send_outcome::more) return r;
    }
}

enum class recv_outcome { more, done, write_failed, failed, stopped };

// What one upload moves between its data connection and its file.
struct upload {
    int instr;
    int outstr;
    int domain_fd;
    kernel_pipe *sp;
    bool use_splice;
    char *databuff;  // kRecvChunk bytes as received
    char *buf;       // kRecvChunk bytes converted
    struct credentials *pcred;
    bool starved = false;  // the last protected read made no progress: wait before the next
    bool ended = false;    // the protected connection's closing alert has been read
};

// What a protected connection has, up to len bytes: the layer hands out one record per call, and
// what it already holds is never announced by a wait. *ended: the client's closing alert came
// after the bytes returned.
ssize_t receive_protected(ftp_tls *t, char *buf, size_t len, bool *ended) {
    size_t got = 0;
    while (got < len) {
        ssize_t n = ftp_tls_read(t, buf + got, len - got);
        if (n > 0) {
            got += static_cast<size_t>(n);
            continue;
        }
        if (got == 0) return n;
        *ended = n == 0;
        break;
    }
    return static_cast<ssize_t>(got);
}

// One wake-up of an upload: the stop message first (only while the service is disabled, even if
// another thread took the datagram; a message left over from an earlier disable is taken and the
// transfer goes on), then what the connection has, into the file.
recv_outcome receive_step(xfer_waiter &w, upload &u, bool buffered) {
    if (u.domain_fd >= 0 && w.ready(u.domain_fd)) {
        char msg[FTP_DOMAIN_MSG_LEN];
        if (recv(u.domain_fd, msg, sizeof msg, MSG_DONTWAIT) < 0)
            FTPD_LOG_ERR("%s: domain socket recvfrom error when waiting command.%d\n", FTPD_MODULE, errno);
        if (!is_ftp_server_start()) return recv_outcome::stopped;
    }
    if (!buffered && !w.ready(u.instr)) return recv_outcome::more;
    if (u.use_splice) {
        ssize_t moved = 0;
        kernel_pipe::result r = u.sp->move(u.instr, u.outstr, &moved);
        switch (r) {
            case kernel_pipe::moved:
                u.pcred->byte_count += static_cast<off_t>(moved);
                return recv_outcome::more;
            case kernel_pipe::nothing_yet:
                return recv_outcome::more;
            case kernel_pipe::end_of_data:
                fsync(u.outstr);
                return recv_outcome::done;
            case kernel_pipe::write_failed:
                return recv_outcome::write_failed;
            case kernel_pipe::receive_failed:
                return recv_outcome::failed;
            case kernel_pipe::unsupported:
                u.use_splice = false;  // receive into the buffer from now on
                break;
        }
    }
    ssize_t n = u.pcred->data_tls != nullptr ? receive_protected(u.pcred->data_tls, u.databuff, kRecvChunk, &u.ended)
                                             : recv(u.instr, u.databuff, kRecvChunk, MSG_DONTWAIT);
    u.starved = n < 0;
    if (n < 0)
        return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? recv_outcome::more : recv_outcome::failed;
    if (n == 0) {
        fsync(u.outstr);
        return recv_outcome::done;
    }
    const char *out = u.databuff;
    size_t len = static_cast<size_t>(n);
    if (u.pcred->cnt.tran_type == 1) {
        // Cut where one receive of at most one block at a time would have cut.
        len = chunk_to_unix(u.databuff, len, FTP_RECV_BLOCK, u.buf);
        out = u.buf;
    }
    if (!write_all(u.outstr, out, len)) return recv_outcome::write_failed;
    u.pcred->byte_count += static_cast<off_t>(len);
    if (u.ended) {
        fsync(u.outstr);
        return recv_outcome::done;
    }
    return recv_outcome::more;
}

}  // namespace

int unix_to_dos(const char *buf, char *chang_buf, int cnt) {
    if (cnt <= 0) return 0;
    // Each block stands alone: a line feed opening a block always gets its carriage return.
    int k = 0;
    if (buf[0] == '\n') chang_buf[k++] = '\r';
    chang_buf[k++] = buf[0];
    for (int i = 1; i < cnt; i++) {
        if (buf[i] == '\n' && buf[i - 1] != '\r') chang_buf[k++] = '\r';
        chang_buf[k++] = buf[i];
    }
    return k;
}

int dos_to_unix(const char *databuff, char *buf, int len) {
    if (len <= 0) return 0;
    // Each block stands alone: a carriage return ending a block is always kept.
    int k = 0;
    for (int i = 1; i < len; i++) {
        if (databuff[i - 1] == '\r' && databuff[i] == '\n') continue;
        buf[k++] = databuff[i - 1];
    }
    buf[k++] = databuff[len - 1];
    return k;
}

int send_data(int control_fd, int instr, int outstr, int blksize, struct credentials *pcred, int domain_fd) {
    int type = pcred->cnt.tran_type;
    if (type_is_served(type)) return send_data_with_type(control_fd, instr, outstr, blksize, pcred, domain_fd);
    // The word is chosen as for the 150 reply, so a refused type always reads BINARY.
    ftpd_reply(control_fd, "550", "Unimplemented TYPE %s in send_data.", type == 1 ? "ASCII" : "BINARY", nullptr);
    return -1;
}

int send_data_with_type(int control_fd, int instr, int outstr, int blksize, struct credentials *pcred, int domain_fd) {
    if (blksize <= 0) blksize = FTP_BUF_SIZE;
    size_t blk = static_cast<size_t>(blksize);
    // A whole number of conversion blocks per read, so blocks fall where one read per block would.
    size_t chunk = blk >= kSendChunk ? blk : kSendChunk / blk * blk;
    ftpd_block buf(FTPD_M_BUF, chunk);
    ftpd_block chang_buf(FTPD_M_CHANG_BUF, 2 * chunk);
    if (!buf || !chang_buf) {
        buf.reset();
        chang_buf.reset();
        ftpd_reply(control_fd, "451", "Local resource failure: malloc.", nullptr, nullptr);
        return -1;
    }
    xfer_waiter w(pcred->timeout);
    if (!w) {
        buf.reset();
        chang_buf.reset();
        ftpd_reply(control_fd, "451", "Local resource failure: epoll.", nullptr, nullptr);
        return -1;
    }

    send_outcome r = send_outcome::fall_back;
    if (w.add(outstr, EPOLLOUT) && (domain_fd < 0 || w.add(domain_fd, EPOLLIN))) {
        cork_guard cork(outstr);
        struct stat st;
        if (pcred->data_tls != nullptr)
            FTPD_LOG_PRO("data connection protected, %s TLS.\n",
                         ftp_tls_kernel_send(pcred->data_tls) ? "kernel" : "user-space");
        // Protected bytes are encrypted in the daemon unless the kernel does it: nothing to splice.
        bool binary_file = pcred->cnt.tran_type != 1 && fstat(instr, &st) == 0 && S_ISREG(st.st_mode);
        if (binary_file && pcred->data_tls == nullptr)
            r = send_with_splice(instr, outstr, domain_fd, w, pcred);
        else if (binary_file && ftp_tls_kernel_send(pcred->data_tls))
            r = send_with_kernel_tls(instr, outstr, domain_fd, w, pcred);
        if (r == send_outcome::fall_back)
            r = send_with_copy(instr, outstr, blk, buf.get(), chang_buf.get(), chunk, domain_fd, w, pcred);
    } else {
        r = send_outcome::failed;
    }
    // The closing alert tells the client that it has every byte.
    if (r == send_outcome::done && pcred->data_tls != nullptr &&
        ftp_tls_finish(pcred->data_tls, pcred->timeout * 60 * 1000) != 0)
        r = send_outcome::failed;

    // Buffers and waiter are given back before the final reply on every way out.
    buf.reset();
    chang_buf.reset();
    w.reset();
    switch (r) {
        case send_outcome::done:
            ftpd_reply(control_fd, nullptr, "%s", kReply226, nullptr);
            return 0;
        case send_outcome::input_error:
            ftpd_reply(control_fd, "551", "Error on input file.", nullptr, nullptr);
            return -1;
        case send_outcome::stopped:
            ftpd_reply(control_fd, nullptr, "%s", kReply426Send, nullptr);
            return -2;
        default:
            ftpd_reply(control_fd, nullptr, "%s", kReply426Send, nullptr);
            return -1;
    }
}

int receive_data(int control_fd, int instr, int outstr, struct credentials *pcred, int domain_fd,
                 const char *discard_path) {
    int type = pcred->cnt.tran_type;
    if (type_is_served(type)) return receive_data_with_type(control_fd, instr, outstr, pcred, domain_fd, discard_path);
    char text[64];
    (void)ftpd_snprintf(text, sizeof text, "Unimplemented TYPE %d in receive_data.", type);
    if (discard_path != nullptr) unlink(discard_path);
    ftpd_reply(control_fd, "550", "%s", text, nullptr);
    return -1;
}

int receive_data_with_type(int control_fd, int instr, int outstr, struct credentials *pcred, int domain_fd,
                           const char *discard_path) {
    // A failed upload's file is gone before the client hears of the failure, so that no one can
    // see the partial file after the reply.
    auto fail = [&](const char *code, const char *text) {
        if (discard_path != nullptr) unlink(discard_path);
        ftpd_reply(control_fd, code, text, nullptr, nullptr);
    };
    ftpd_block databuff(FTPD_M_DATA_BUF, kRecvChunk);
    ftpd_block buf(FTPD_M_BUF, kRecvChunk);
    if (!databuff || !buf) {
        databuff.reset();
        buf.reset();
        fail("451", "Local resource failure: malloc.");
        return -1;
    }
    xfer_waiter w(pcred->timeout);
    if (!w) {
        databuff.reset();
        buf.reset();
        fail("451", "Local resource failure: epoll.");
        return -1;
    }

    bool armed = w.add(instr, EPOLLIN) && (domain_fd < 0 || w.add(domain_fd, EPOLLIN));
    // Binary type to a regular file is spliced; otherwise (or when the connection cannot splice)
    // the bytes are received into the buffer. The kernel does not splice into a file opened for
    // appending (the standard profile's APPE), so that one is written from the buffer too.
    kernel_pipe sp(kReceivePipe);
    struct stat st;
    bool use_splice = pcred->cnt.tran_type != 1 && pcred->data_tls == nullptr && fstat(outstr, &st) == 0 &&
                      S_ISREG(st.st_mode) && sp.ok() && !(ftpd_standard() && (fcntl(outstr, F_GETFL) & O_APPEND) != 0);
    upload u{instr, outstr, domain_fd, &sp, use_splice, databuff.get(), buf.get(), pcred};
    recv_outcome r = armed ? recv_outcome::more : recv_outcome::failed;
    while (r == recv_outcome::more) {
        // What the TLS layer read ahead is there without a wait announcing it.
        bool buffered = !u.starved && pcred->data_tls != nullptr && ftp_tls_pending(pcred->data_tls);
        int n_ready = buffered ? 1 : w.wait();
        if (n_ready <= 0) {
            if (n_ready == 0) FTPD_LOG_PRO("Time out.\n");
            r = recv_outcome::failed;
            break;
        }
        r = receive_step(w, u, buffered);
    }
    // Buffers and waiter are given back before the final reply on every way out.
    databuff.reset();
    buf.reset();
    w.reset();
    switch (r) {
        case recv_outcome::done:
            return 0;
        case recv_outcome::stopped:
            fail("426", "Data Connection.");
            return -2;
        case recv_outcome::write_failed:
            fail("452", "Error writing file.");
            return -1;
        default:
            fail("426", "Data Connection.");
            return -1;
    }
}

void type_fun(int control_fd, const char *rev_type, struct credentials *pcred) {
    int type;
    const char *text;
    if (strcmp(rev_type, "A") == 0) {
        type = 1;
        text = "Type set to A.";
    } else if (strcmp(rev_type, "I") == 0) {
        type = 3;
        text = "Type set to I.";
    } else {
        ftpd_reply(control_fd, "504", "Type not implemented.", nullptr, nullptr);
        return;
    }
    // The type changes only once the client has been told.
    if (ftpd_reply(control_fd, "200", text, nullptr, nullptr) == 0) pcred->cnt.tran_type = type;
}

ssize_t ftpd_read_some(int fd, char *p, size_t len) {
    ssize_t n;
    do {
        n = read(fd, p, len);
    } while (n < 0 && errno == EINTR);
    return n;
}
