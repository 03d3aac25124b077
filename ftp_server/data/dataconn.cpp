// The data connection: a passive listener or an active target, opening exactly one connection
// from them (accepting only the client's own, connecting within the idle time-out), its TLS
// takeover under PROT P, the loops that move a file's bytes over it, and the sequence that frames
// them with the 150 and the final reply. Nothing else in the daemon touches a data socket.
//
// Binary downloads of regular files go from the page cache to the socket by sendfile (or by
// kernel TLS); everything else is read a chunk at a time and converted block by block in ASCII
// type, so the bytes on the wire are those of converting one block per call. Uploads are spliced
// into the file in binary type where the kernel allows it. Between chunks the stop message and the
// control connection are looked at; every wait watches both and lasts at most the idle time-out.
#include "data/dataconn.h"

#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <sys/random.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <random>

#include "base/settings.h"
#include "base/xferlog.h"
#include "data/ascii.h"
#include "net/waiter.h"
#include "ftp_platform.h"
#include "ftp_tls.h"
#include "net/proxy_header.h"
#include "vrf.h"

const ftp_data_replies kDownloadReplies = {"226 Closing data connection.\r\n",
                                           "426 Connection closed; transfer aborted.\r\n"};
const ftp_data_replies kUploadReplies = {"226 Transfer complete.\r\n", "426 Data Connection.\r\n"};

namespace {

constexpr int kIpTosThroughput = 8;
constexpr int kPassiveBacklog = 2;
constexpr int kMaxBindTries = 64;
constexpr long long kConnectRetryMs = 90 * 1000;
constexpr int kConnectRetrySleepMs = 5 * 1000;
// Bytes read from the file per call when sending, and taken from the connection per call when
// receiving: send buffers 3 x kSendChunk (the conversion doubles), receive 2 x the chunk.
constexpr size_t kSendChunk = 64 * 1024;
constexpr size_t kRecvChunk = 64 * 1024;
// When lean: an upload that passes through the daemon (ASCII, protected, appended) took about a
// third less CPU per byte on loopback with 256 KiB per call than with 64 KiB; 1 MiB added little.
// The device keeps its smaller blocks, taken up front for every upload.
constexpr size_t kLeanRecvChunk = 256 * 1024;
// A received chunk is converted as blocks of at most this many bytes were.
constexpr size_t kRecvBlock = 1024;
// Bytes of a binary download handed to the kernel per call; the stop message and the control
// connection are looked at between calls. A download of more than one call is corked meanwhile:
// the end of every call pushes a partial segment otherwise, half as many segments again as the
// bytes need, each waking the receiver. Corked, 4 MiB per call took less CPU per byte on
// loopback than 256 KiB or 1 MiB, with zero-copy and copying clients alike.
constexpr size_t kSendfileChunk = 4 * 1024 * 1024;
// Pipe of a binary upload spliced from the connection into the file, once an upload passes the
// pipe's default size: 1 MiB took a tenth to a fifth less CPU per byte than 256 KiB on loopback
// (fewer, fuller splices), with both clients. Where the account's pipe pages run out, the pipe
// keeps its default size and still splices.
constexpr int kReceivePipe = 1024 * 1024;
// Bytes moved between looks at the control connection while the client never makes the daemon
// wait (a wait watches it); also the bytes per kernel TLS sendfile call.
constexpr size_t kLookEvery = 256 * 1024;

const char kCantOpen[] = "425 Can't open data connection.\r\n";

bool is_scoped_v6(const struct in6_addr *a) {
    return a->s6_addr[0] == 0xfe && ((a->s6_addr[1] & 0xc0) == 0x80 || (a->s6_addr[1] & 0xc0) == 0xc0);
}

// The IPv4 address a peer stands for, also behind an IPv4-mapped IPv6 address; false for others.
bool as_v4(const struct sockaddr_storage &a, struct in_addr *out) {
    if (a.ss_family == AF_INET) {
        *out = reinterpret_cast<const struct sockaddr_in *>(&a)->sin_addr;
        return true;
    }
    const auto *a6 = reinterpret_cast<const struct sockaddr_in6 *>(&a);
    if (a.ss_family != AF_INET6 || !IN6_IS_ADDR_V4MAPPED(&a6->sin6_addr)) return false;
    memcpy(&out->s_addr, a6->sin6_addr.s6_addr + 12, 4);
    return true;
}

// The two name one address, whatever their families and ports. SECURITY: a passive data
// connection must come from the client's own: another host, or another address of this one, that
// reaches the passive port first would otherwise receive or supply the file.
bool same_host(const struct sockaddr_storage &peer, const struct sockaddr_storage &ctl) {
    struct in_addr a{}, b{};
    bool pv4 = as_v4(peer, &a);
    bool cv4 = as_v4(ctl, &b);
    if (pv4 || cv4) return pv4 && cv4 && a.s_addr == b.s_addr;
    const auto *p6 = reinterpret_cast<const struct sockaddr_in6 *>(&peer);
    const auto *c6 = reinterpret_cast<const struct sockaddr_in6 *>(&ctl);
    return memcmp(&p6->sin6_addr, &c6->sin6_addr, sizeof p6->sin6_addr) == 0;
}

// Each session thread draws from its own generator, seeded from the kernel: sessions that open
// passive ports at the same moment must not draw the same sequence.
uint32_t draw_port_number() {
    thread_local std::minstd_rand gen = [] {
        uint32_t seed = 0;
        if (getrandom(&seed, sizeof seed, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof seed))
            seed = static_cast<uint32_t>(time(nullptr)) ^ static_cast<uint32_t>(gettid());
        return std::minstd_rand(seed == 0 ? 1 : seed);
    }();
    return static_cast<uint32_t>(gen());
}

in_port_t *port_of(struct sockaddr_storage &a) {
    return a.ss_family == AF_INET6 ? &reinterpret_cast<struct sockaddr_in6 *>(&a)->sin6_port
                                   : &reinterpret_cast<struct sockaddr_in *>(&a)->sin_port;
}

socklen_t length_of(const struct sockaddr_storage &a) {
    return a.ss_family == AF_INET6 ? sizeof(struct sockaddr_in6) : sizeof(struct sockaddr_in);
}

// On Linux a VRF is a device: the control connection's binding is read and given to fd.
void copy_vrf(int ctl_fd, int fd, int family) {
    bool v6 = family == AF_INET6;
    char name[IF_NAMESIZE + 1] = {0};
    if (vrf_get_socket_vrf(ctl_fd, name, sizeof name) != 0) {
        int err = errno;
        if (v6)
            FTPD_LOG_ERR("%s: getdatasock get ipv6 receive vrf failed %d errno=%d\r\n", __func__, -1, err);
        else
            FTPD_LOG_ERR("%s: getdatasock get ip receive vrf failed fd%d, ret %d errno=%d\r\n", __func__, ctl_fd, -1,
                         err);
        return;
    }
    // The VRF's number is its device's interface index; the default VRF is 0.
    int vrf_id = name[0] != '\0' ? static_cast<int>(if_nametoindex(name)) : 0;
    if (v6)
        FTPD_LOG_PRO("%s: getdatasock receive ipv6 vrf is %d\r\n", __func__, vrf_id);
    else
        FTPD_LOG_PRO("%s: getdatasock fd %d receive ip vrf is %d\r\n", __func__, fd, vrf_id);
    if (name[0] == '\0' || vrf_set_socket_vrf(fd, name) == 0) return;
    int err = errno;
    if (v6)
        FTPD_LOG_ERR("%s: setdatasock setsockopt IPV6_PRIVATE_SEND_VRF error. errno=%d\r\n", __func__, err);
    else
        FTPD_LOG_ERR("%s: setdatasock setsockopt IP_VRF_SEND error. errno=%d\r\n", __func__, err);
}

void set_int(int fd, int level, int name, int value) {
    (void)setsockopt(fd, level, name, &value, sizeof value);
}

// Writes all len bytes to the file, completing partial writes.
bool write_file(int fd, const char *p, size_t len) {
    while (len > 0) {
        ssize_t n = write(fd, p, len);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

ssize_t read_file(int fd, char *p, size_t len) {
    ssize_t n;
    do {
        n = read(fd, p, len);
    } while (n < 0 && errno == EINTR);
    return n;
}

// Holds back a connection's partial segments while it lasts; taking the cork off sends them.
class cork_guard {
  public:
    cork_guard(int fd, bool on) : fd_(on ? fd : -1) {
        if (fd_ >= 0) set_int(fd_, IPPROTO_TCP, TCP_CORK, 1);
    }
    ~cork_guard() {
        if (fd_ >= 0) set_int(fd_, IPPROTO_TCP, TCP_CORK, 0);
    }
    cork_guard(const cork_guard &) = delete;
    cork_guard &operator=(const cork_guard &) = delete;

  private:
    int fd_;
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// Upload pipe

bool ftp_upload_pipe::ready() {
    if (in_) return true;
    int fd[2];
    if (pipe2(fd, O_CLOEXEC) != 0) return false;
    out_.reset(fd[0]);
    in_.reset(fd[1]);
    int got = fcntl(fd[1], F_GETPIPE_SZ);
    base_ = size_ = got > 0 ? static_cast<size_t>(got) : 0;
    if (size_ == 0) close();
    return static_cast<bool>(in_);
}

void ftp_upload_pipe::widen(int size) {
    if (size_ != base_ || static_cast<size_t>(size) <= size_) return;
    int got = fcntl(in_.get(), F_SETPIPE_SZ, size);
    if (got > 0) size_ = static_cast<size_t>(got);
}

void ftp_upload_pipe::settle(bool empty) {
    // A pipe that may still hold bytes of this upload is not the next one's.
    if (!empty) {
        close();
        return;
    }
    // Between uploads the pipe holds no more of the account's pipe pages than a new one would.
    if (size_ != base_ && fcntl(in_.get(), F_SETPIPE_SZ, static_cast<int>(base_)) > 0) size_ = base_;
}

void ftp_upload_pipe::close() {
    out_.reset();
    in_.reset();
    size_ = base_ = 0;
}

// One phase's event waiter (an accounted block of its own).
class ftp_xfer_waiter {
  public:
    explicit ftp_xfer_waiter(bool made = true) : ep_(made ? ftpd_epoll_create() : nullptr) {}
    ~ftp_xfer_waiter() { ftpd_epoll_destroy(ep_); }
    ftp_xfer_waiter(const ftp_xfer_waiter &) = delete;
    ftp_xfer_waiter &operator=(const ftp_xfer_waiter &) = delete;
    explicit operator bool() const { return ep_ != nullptr; }

    // Ready descriptors of the wait (each of fds[] with its events; fd -1 or events 0: none), 0
    // on time-out, -1 on failure; ready[i] tells which.
    int wait(const int *fds, const uint32_t *events, int n, int timeout_ms, bool *ready) {
        for (int i = 0; i < n; i++)
            if (ftpd_epoll_watch(ep_, i, events[i] != 0 ? fds[i] : -1, events[i]) != 0) return -1;
        int r;
        do {
            r = epoll_wait(ep_->efd, ep_->ev, FTP_EPOLL_MAX, timeout_ms);
        } while (r < 0 && errno == EINTR);
        for (int i = 0; i < n; i++) ready[i] = false;
        for (int k = 0; k < r; k++)
            for (int i = 0; i < n; i++)
                if (ep_->armed_fd[i] >= 0 && ep_->ev[k].data.fd == ep_->armed_fd[i]) ready[i] = true;
        return r;
    }

  private:
    struct ftp_epoll_s *ep_;
};

// ---------------------------------------------------------------------------------------------
// Listener and target

int ftp_dataconn::listen(const struct sockaddr_storage &local, int ctl_fd, int low, int high) {
    bool range = low > 0 && high >= low;
    // SECURITY: a connection already waiting on the kept port was made before the client could
    // know it was wanted: somebody else has found the port. It is dropped with the listener, and
    // the client gets a new port.
    if (kept_ && !range && same_host(bound_, local)) {
        int early = accept4(kept_.get(), nullptr, nullptr, SOCK_CLOEXEC);
        if (early < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            listener_ = std::move(kept_);
            return ntohs(*port_of(bound_));
        }
        if (early >= 0) ::close(early);
    }
    kept_.reset();
    // A listener of an earlier PASV/EPSV that was never used is replaced, not leaked.
    listener_.reset(socket(local.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_TCP));
    if (!listener_) return -1;
    set_int(listener_.get(), SOL_SOCKET, SO_REUSEADDR, 1);
    // Every connection it accepts inherits these.
    set_int(listener_.get(), IPPROTO_IP, IP_TOS, kIpTosThroughput);
    set_int(listener_.get(), SOL_SOCKET, SO_KEEPALIVE, 1);
    copy_vrf(ctl_fd, listener_.get(), local.ss_family);
    struct sockaddr_storage addr = local;
    // Any unprivileged port is drawn at random; within a configured range (a firewall's or a
    // balancer's), every port of it is tried from a random one on.
    int span = range ? high - low + 1 : 64512;
    int first = static_cast<int>(draw_port_number() % static_cast<uint32_t>(span));
    int max_tries = range ? span : kMaxBindTries;
    for (int tries = 1;; tries++) {
        int port = range ? low + (first + tries - 1) % span : static_cast<int>(draw_port_number() % 64512) + 1024;
        *port_of(addr) = htons(static_cast<uint16_t>(port));
        if (bind(listener_.get(), reinterpret_cast<struct sockaddr *>(&addr), length_of(addr)) == 0) {
            if (::listen(listener_.get(), kPassiveBacklog) != 0) break;
            bound_ = addr;
            ranged_ = range;
            refused_ = false;
            return port;
        }
        if (errno != EADDRINUSE || tries >= max_tries) {
            FTPD_LOG_ERR("%s:data connection, bind fail(errno=%d).\n", __func__, errno);
            break;
        }
    }
    listener_.reset();
    return -1;
}

void ftp_dataconn::set_target(const struct sockaddr_storage &dest) {
    target_ = dest;
    has_target_ = true;
    kept_.reset();  // the client has gone active
}

void ftp_dataconn::release() {
    listener_.reset();
    kept_.reset();
    stream_.close();
    pipe_.close();
}

// ---------------------------------------------------------------------------------------------
// Waits

ftp_move ftp_dataconn::wait_fd(int fd, short events, bool transferring, int pause_ms) {
    const ftp_data_env &env = *env_;
    unseen_ = 0;
    int fds[3] = {fd, env.control->stream.fd(), env.stop_fd};
    short want[3] = {events, env.watch != nullptr ? env.watch->events(transferring) : static_cast<short>(0),
                     static_cast<short>(env.stop_fd >= 0 ? POLLIN : 0)};
    int timeout = fd == -1 ? 0 : fd == -2 ? pause_ms : env.idle_ms;
    // A client that waits for the held 150 before it reads would wait out the kernel's hold.
    if (timeout != 0) env.control->stream.flush();
    bool ready[3] = {false, false, false};
    int r;
    if (waiter_ != nullptr) {
        // poll and epoll share the values of these event bits.
        uint32_t ev[3] = {static_cast<uint32_t>(want[0]), static_cast<uint32_t>(want[1]),
                          static_cast<uint32_t>(want[2])};
        r = waiter_->wait(fds, ev, 3, timeout, ready);
    } else {
        struct pollfd p[3] = {};
        for (int i = 0; i < 3; i++) p[i] = {want[i] != 0 ? fds[i] : -1, want[i], 0};
        r = ftp_poll(p, 3, timeout);
        for (int i = 0; i < 3; i++) ready[i] = p[i].revents != 0;
    }
    if (r < 0) return ftp_move::failed;
    if (r == 0) {
        if (fd < 0) return ftp_move::done;  // a look between chunks, or a pause
        FTPD_LOG_PRO("Time out.\n");
        return ftp_move::failed;
    }
    // The stop message aborts only while the service is disabled: a message left over from an
    // earlier disable is taken and ignored (another thread may have taken this one).
    if (ready[2]) {
        char msg[FTP_DOMAIN_MSG_LEN];
        (void)recv(env.stop_fd, msg, sizeof msg, MSG_DONTWAIT);
        if (!is_ftp_server_start()) return ftp_move::stopped;
    }
    if (ready[1]) {
        switch (env.watch->on_control()) {
            case ftp_watch::abort:
                return ftp_move::aborted;
            case ftp_watch::gone:
                return ftp_move::control_gone;
            case ftp_watch::go_on:
                break;
        }
    }
    // Whatever else woke the wait, the caller tries again.
    return ftp_move::done;
}

// A wait for the client watches the control connection and the stop channel too; a look without
// one is due only once enough has moved since, so that a small transfer costs no extra call and a
// stream that never pauses still hears ABOR.
ftp_move ftp_dataconn::between_chunks(size_t moved) {
    unseen_ += moved;
    return unseen_ < kLookEvery ? ftp_move::done : wait_fd(-1, 0, true);
}

// With a rate limit: the pause the bytes just moved call for, the control connection and the stop
// channel watched meanwhile. Nothing when there is none.
ftp_move ftp_dataconn::keep_rate(size_t bytes) {
    long long ms = rate_.wait_ms(bytes);
    if (ms <= 0) return ftp_move::done;
    return wait_fd(-2, 0, true, static_cast<int>(ms));
}

ftp_move ftp_dataconn::wait_stream(bool transferring) {
    return wait_fd(stream_.fd(), stream_.wait_events(), transferring);
}

// ---------------------------------------------------------------------------------------------
// Opening

int ftp_dataconn::accept_passive() {
    const ftp_data_env &env = *env_;
    long long deadline = ftp_now_ms() + env.idle_ms;
    unique_fd fd;
    struct sockaddr_storage peer {};
    // As for the transfer that follows: the device waits through a waiter of its own, lean by poll.
    ftp_xfer_waiter waiter(!env.lean);
    waiter_ = env.lean ? nullptr : &waiter;
    // Lean, the connection is taken first if it is there: clients mostly connect before they
    // send the command.
    for (bool wait = !env.lean; (env.lean || waiter) && !fd; wait = true) {
        long long left = deadline - ftp_now_ms();
        if (left <= 0) {
            FTPD_LOG_PRO("Time out.\n");
            break;
        }
        ftp_data_env limited = env;
        limited.idle_ms = static_cast<int>(left);
        env_ = &limited;
        ftp_move w = wait ? wait_fd(listener_.get(), POLLIN, false) : ftp_move::done;
        env_ = &env;
        if (w == ftp_move::stopped || w == ftp_move::control_gone) {
            waiter_ = nullptr;
            listener_.reset();
            return -1;
        }
        if (w != ftp_move::done) break;
        socklen_t plen = sizeof peer;
        int got = accept4(listener_.get(), reinterpret_cast<struct sockaddr *>(&peer), &plen, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (got < 0) {
            if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) continue;
            break;
        }
        fd.reset(got);
        // A connection the balancer relays names the client in its PROXY header.
        if (env.proxy && platform_ftp_proxy_required(reinterpret_cast<const struct sockaddr *>(&peer)) == 1) {
            struct sockaddr_storage src {}, dst {};
            long long rest = deadline - ftp_now_ms();
            if (ftp_proxy_read(fd.get(), rest > 0 ? static_cast<int>(rest) : 0, &src, &dst) != 0) {
                fd.reset();
                continue;
            }
            if (src.ss_family != AF_UNSPEC) peer = src;
        }
        if (!same_host(peer, *env.client)) {
            FTPD_LOG_ERR("%s: passive connection from another address refused.\n", FTPD_MODULE);
            fd.reset();
            refused_ = true;
        }
    }
    waiter_ = nullptr;
    if (!fd) {
        // A listener serves one connection, or none when the wait failed.
        listener_.reset();
        ftpd_reply_text(*env.control, kCantOpen);
        return -2;
    }
    // The connection's own address is the listener's.
    if (peer.ss_family == AF_INET6) {
        memcpy(&addrs_.pasv_destv6, &peer, sizeof addrs_.pasv_destv6);
        memcpy(&addrs_.pasv_addrv6, &bound_, sizeof addrs_.pasv_addrv6);
    } else {
        memcpy(&addrs_.pasv_dest, &peer, sizeof addrs_.pasv_dest);
        memcpy(&addrs_.pasv_addr, &bound_, sizeof addrs_.pasv_addr);
    }
    stream_.reset(fd.release(), true);
    return 0;
}

// Once the client has its opening reply: the listener is closed or kept.
void ftp_dataconn::settle_passive() {
    // A new listener per PASV costs a socket, its port, a bind and a listen, as much again as the
    // rest of a small file's transfer. Not kept: a port of a configured range (each session would
    // hold one between its transfers), nor one that another address has found.
    if (env_->keep_listener && stream_.fd() >= 0 && !ranged_ && !refused_) kept_ = std::move(listener_);
    listener_.reset();
}

int ftp_dataconn::connect_active() {
    const ftp_data_env &env = *env_;
    int family = has_target_ ? target_.ss_family : env.family;
    struct sockaddr_storage dest {};
    if (has_target_) {
        dest = target_;
    } else if (family == AF_INET6) {
        // The default data port is the client's control port plus one.
        memcpy(&dest, &env.addr->his_addrv6, sizeof env.addr->his_addrv6);
        *port_of(dest) = htons(static_cast<uint16_t>(ntohs(env.addr->his_addrv6.sin6_port) + 1));
    } else {
        memcpy(&dest, &env.addr->his_addr, sizeof env.addr->his_addr);
        *port_of(dest) = htons(static_cast<uint16_t>(ntohs(env.addr->his_addr.sin_port) + 1));
    }
    if (family == AF_INET6) {
        auto *d6 = reinterpret_cast<struct sockaddr_in6 *>(&dest);
        // The zone the client typed is not trusted: the scope is the control connection's.
        if (is_scoped_v6(&d6->sin6_addr)) d6->sin6_scope_id = env.addr->his_addrv6.sin6_scope_id;
        addrs_.data_destv6 = *d6;
    } else {
        addrs_.data_dest = *reinterpret_cast<struct sockaddr_in *>(&dest);
    }
    // The next transfer without a new PORT/EPRT goes to the default address.
    has_target_ = false;

    unique_fd fd(socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    int on = 1;
    if (!fd || setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
        ftpd_reply_text(*env.control, kCantOpen);
        return -2;
    }
    copy_vrf(env.control->stream.fd(), fd.get(), env.family);
    if (family == AF_INET) set_int(fd.get(), IPPROTO_IP, IP_TOS, kIpTosThroughput);

    long long start = ftp_now_ms();
    for (;;) {
        int rc = ::connect(fd.get(), reinterpret_cast<struct sockaddr *>(&dest), length_of(dest));
        int err = rc == 0 ? 0 : errno;
        if (err == EINPROGRESS) {
            ftp_move w = wait_fd(fd.get(), POLLOUT, false);
            if (w == ftp_move::stopped || w == ftp_move::control_gone) return -1;
            socklen_t elen = sizeof err;
            if (w != ftp_move::done || getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &err, &elen) != 0) err = ETIMEDOUT;
            // Woken by something else: the connection is still on its way.
            if (w == ftp_move::done && err == 0) {
                struct pollfd p = {fd.get(), POLLOUT, 0};
                if (poll(&p, 1, 0) == 0) err = EINPROGRESS;
            }
            if (err == EINPROGRESS) continue;
        }
        // Only a local address still in use is worth waiting for.
        if (err == EADDRINUSE && ftp_now_ms() - start < kConnectRetryMs) {
            ftp_move w = wait_fd(-2, 0, false, kConnectRetrySleepMs);
            if (w == ftp_move::stopped || w == ftp_move::control_gone) return -1;
            continue;
        }
        if (err != 0) {
            ftpd_reply(*env.control, "425", "Can't build data connection.", nullptr, nullptr);
            return -2;
        }
        break;
    }
    struct sockaddr_storage local {};
    socklen_t llen = sizeof local;
    if (getsockname(fd.get(), reinterpret_cast<struct sockaddr *>(&local), &llen) != 0) {
        ftpd_reply(*env.control, "425", "Can't build data connection.", nullptr, nullptr);
        return -2;
    }
    if (family == AF_INET6)
        memcpy(&addrs_.data_sourcev6, &local, sizeof addrs_.data_sourcev6);
    else
        memcpy(&addrs_.data_source, &local, sizeof addrs_.data_source);
    stream_.reset(fd.release(), true);
    return 0;
}

// Under PROT P the opened connection is taken over by TLS within the idle time-out; a connection
// that fails the handshake (plain text, or not resuming a session its control connection granted)
// is closed and the transfer refused.
int ftp_dataconn::protect() {
    const ftp_data_env &env = *env_;
    if (!env.protect || env.control_tls == nullptr) return 0;
    char why[160] = {0};
    ftp_tls *t = ftp_tls_accept(stream_.fd(), env.idle_ms, env.control_tls, why, sizeof why);
    if (t != nullptr) {
        // The client's Finished is acknowledged at once: a client that keeps Nagle's algorithm on
        // holds its first bytes until then, and the kernel would delay that acknowledgement.
        set_int(stream_.fd(), IPPROTO_TCP, TCP_QUICKACK, 1);
        stream_.protect(t);
        return 0;
    }
    FTPD_LOG_PRO("data connection TLS: %s\n", why);
    stream_.close();
    kept_.reset();  // what came was not the client, or not only: it knows the port
    ftpd_reply(*env.control, "425", "TLS handshake on the data connection failed.", nullptr, nullptr);
    return -2;
}

int ftp_dataconn::open(const ftp_data_env &env) {
    env_ = &env;
    bytes_ = 0;
    unseen_ = 0;
    rate_ = ftp_rate_limit(env.max_rate);
    opened_ms_ = ftp_now_ms();
    open_mode_ = listening() ? ftp_data_mode::passive : ftp_data_mode::active;
    int r = listening() ? accept_passive() : connect_active();
    // A protected connection's handshake waits for a client that may wait for the 150.
    if (r == 0 && env.small && !env.upload && !env.protect) env.control->stream.hold_next();
    if (r == 0 && ftpd_reply(*env.control, "150", "Opening %s mode data connection.",
                             env.type == ftp_type::ascii ? "ASCII" : "BINARY", nullptr) != 0) {
        stream_.close();
        r = -1;
    }
    if (open_mode_ == ftp_data_mode::passive) settle_passive();
    if (r == 0) r = protect();
    if (r == 0 && env.slot_update != nullptr) env.slot_update(env.ctx);
    if (r != 0) env_ = nullptr;
    return r;
}

int ftp_dataconn::finish(ftp_move how, const ftp_data_replies &replies) {
    const ftp_data_env &env = *env_;
    // The closing alert tells the client that it has every byte. Records go out with Nagle's
    // algorithm on, so that four records fill one segment on loopback (TCP_NODELAY made every
    // record a push of its own and cost a quarter more CPU per byte); the last bytes and the
    // alert go out now, without waiting for an acknowledgement.
    if (stream_.is_protected()) set_int(stream_.fd(), IPPROTO_TCP, TCP_NODELAY, 1);
    if (how == ftp_move::done && stream_.is_protected() && ftp_tls_finish(stream_.tls(), env.idle_ms) != 0)
        how = ftp_move::failed;
    if (stream_.is_protected())
        FTPD_LOG_PRO("data connection protected, %s TLS.\n", ftp_tls_kernel_send(stream_.tls()) ? "kernel" : "user-space");
    // A complete upload's connection, which the client has ended, is closed after the reply the
    // client waits for.
    if (!env.upload || how != ftp_move::done) stream_.close();
    // Logged before the client hears the end, so that what it reads next is in the log.
    if (env.log_name != nullptr) {
        ftp_xferlog_record rec{time(nullptr), ftp_now_ms() - opened_ms_, env.client_text, bytes_, env.log_name,
                               env.type != ftp_type::ascii, env.upload, env.user, how == ftp_move::done};
        (void)ftp_xferlog_write(&rec);
    }
    ftp_control &c = *env.control;
    switch (how) {
        case ftp_move::done:
            ftpd_reply_text(c, replies.done);
            break;
        case ftp_move::input_error:
            ftpd_reply(c, "551", "Error on input file.", nullptr, nullptr);
            break;
        case ftp_move::write_error:
            ftpd_reply(c, "452", "Error writing file.", nullptr, nullptr);
            break;
        case ftp_move::local_error:
            ftpd_reply_text(c, "451 Requested action aborted. Local error in processing.\r\n");
            break;
        case ftp_move::no_buffer:
            ftpd_reply(c, "451", "Local resource failure: malloc.", nullptr, nullptr);
            break;
        case ftp_move::no_waiter:
            ftpd_reply(c, "451", "Local resource failure: epoll.", nullptr, nullptr);
            break;
        case ftp_move::aborted:
            if (ftpd_reply_text(c, replies.failed) == 0) ftpd_reply_text(c, "226 Abort successful.\r\n");
            break;
        case ftp_move::failed:
        case ftp_move::stopped:
            ftpd_reply_text(c, replies.failed);
            break;
        case ftp_move::replied:
        case ftp_move::control_gone:
            break;
    }
    c.stream.flush();
    stream_.close();
    if (env.slot_update != nullptr) env.slot_update(env.ctx);
    env_ = nullptr;
    return how == ftp_move::stopped || how == ftp_move::control_gone ? -1 : 0;
}

int ftp_dataconn::transfer(const ftp_data_env &env, const ftp_data_replies &replies, ftp_mover mover, void *ctx) {
    int r = open(env);
    if (r != 0) return r;
    return finish(mover(*this, ctx), replies);
}

// ---------------------------------------------------------------------------------------------
// Sending

ftp_move ftp_dataconn::send_all(const char *p, size_t len) {
    while (len > 0) {
        ssize_t n = stream_.write_some(p, len);
        if (n > 0) {
            p += n;
            len -= static_cast<size_t>(n);
            bytes_ += n;
            continue;
        }
        if (n == 0 || errno != EAGAIN) return ftp_move::failed;
        ftp_move w = wait_stream(true);
        if (w != ftp_move::done) return w;
    }
    return ftp_move::done;
}

// Binary type, regular file, plain connection: the kernel sends the file's pages (sendfile).
// Falls back (ftp_move::replied, nothing sent for the rest) when the file cannot be sent this way;
// the file offset is then where sending stopped, with every byte before it sent.
ftp_move ftp_dataconn::send_pages(int file, off_t off, off_t size_hint) {
    struct stat st;
    // sendfile has no MSG_NOSIGNAL; SIGPIPE is ignored process-wide, so a peer that went away
    // fails the call.
    size_t sent = 0;  // by the last call
    // Not under a rate limit, whose pauses would hold a partial segment each.
    cork_guard cork(stream_.fd(), !rate_.on() && size_hint - off > static_cast<off_t>(kSendfileChunk));
    for (;;) {
        // At the known end, the next call finds end of file before anything else is looked at,
        // as a block read would. A file that grew (or reports no size) just goes on.
        bool at_end = off >= size_hint;
        if (!at_end) {
            ftp_move w = between_chunks(sent);
            if (w != ftp_move::done) return w;
        }
        size_t want = at_end ? kSendfileChunk : static_cast<size_t>(size_hint - off);
        ssize_t n = sendfile(stream_.fd(), file, &off, rate_.chunk(want < kSendfileChunk ? want : kSendfileChunk));
        if (n > 0) {
            bytes_ += n;
            sent = static_cast<size_t>(n);
            if (at_end && fstat(file, &st) == 0) size_hint = st.st_size;
            ftp_move w = keep_rate(static_cast<size_t>(n));
            if (w != ftp_move::done) return w;
            continue;
        }
        if (n == 0) return ftp_move::done;
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            ftp_move w = wait_fd(stream_.fd(), POLLOUT, true);
            if (w != ftp_move::done) return w;
            sent = 0;
            continue;
        }
        // A connection that failed fails again in the copying path, which reports it; a file
        // that cannot be sent this way is read there from where this stopped.
        return lseek(file, off, SEEK_SET) < 0 ? ftp_move::input_error : ftp_move::replied;
    }
}

// Binary type, regular file, kernel TLS: the kernel encrypts the file's pages on their way out.
// Falls back like the sendfile path.
ftp_move ftp_dataconn::send_kernel_tls(int file) {
    off_t off = lseek(file, 0, SEEK_CUR);
    struct stat st;
    if (off < 0 || fstat(file, &st) != 0) return ftp_move::replied;
    for (;;) {
        if (off >= st.st_size && (fstat(file, &st) != 0 || off >= st.st_size)) return ftp_move::done;
        ftp_move w = between_chunks(kLookEvery);  // a look before every call
        if (w != ftp_move::done) return w;
        size_t want = static_cast<size_t>(st.st_size - off);
        size_t chunk = rate_.chunk(kLookEvery);
        ssize_t n = ftp_tls_sendfile(stream_.tls(), file, off, want < chunk ? want : chunk);
        if (n > 0) {
            off += n;
            bytes_ += n;
            w = keep_rate(static_cast<size_t>(n));
            if (w != ftp_move::done) return w;
            continue;
        }
        if (n < 0 && errno == EAGAIN) {
            w = wait_stream(true);
            if (w != ftp_move::done) return w;
            continue;
        }
        return lseek(file, off, SEEK_SET) < 0 ? ftp_move::input_error : ftp_move::replied;
    }
}

// Reads the file a chunk at a time, converts it block by block in ASCII type and sends it.
ftp_move ftp_dataconn::send_copied(int file, size_t blk, bool ascii, char *buf, char *converted, size_t chunk) {
    for (;;) {
        ssize_t n = read_file(file, buf, rate_.chunk(chunk));
        if (n < 0) return ftp_move::input_error;
        if (n == 0) return ftp_move::done;
        ftp_move w = between_chunks(static_cast<size_t>(n));
        if (w == ftp_move::done) w = keep_rate(static_cast<size_t>(n));
        if (w != ftp_move::done) return w;
        const char *out = buf;
        size_t len = static_cast<size_t>(n);
        if (ascii) {
            len = ftp_chunk_to_dos(buf, len, blk, converted);
            out = converted;
        }
        w = send_all(out, len);
        if (w != ftp_move::done) return w;
    }
}

namespace {
// The conversion buffer only where there is something to convert (always on the device).
bool take_send_buffers(ftpd_block *buf, ftpd_block *converted, size_t chunk, bool convert) {
    *buf = ftpd_block(FTPD_M_BUF, chunk);
    if (convert) *converted = ftpd_block(FTPD_M_CHANG_BUF, 2 * chunk);
    return *buf && (*converted || !convert);
}
}  // namespace

ftp_move ftp_dataconn::send_file(int file, size_t blk, bool raw, const known_file *known) {
    if (blk == 0) blk = FTP_BUF_SIZE;
    // A whole number of conversion blocks per read, so blocks fall where one read per block would.
    size_t chunk = blk >= kSendChunk ? blk : kSendChunk / blk * blk;
    // The device takes the buffers and the waiter up front, whichever way the bytes then go; a lean
    // transfer takes buffers only where the bytes pass through the daemon, and waits by poll.
    ftpd_block buf, converted;
    if (!env_->lean && !take_send_buffers(&buf, &converted, chunk, true)) return ftp_move::no_buffer;
    ftp_xfer_waiter waiter(!env_->lean);
    if (!env_->lean && !waiter) return ftp_move::no_waiter;
    waiter_ = env_->lean ? nullptr : &waiter;
    bool ascii = !raw && env_->type == ftp_type::ascii;
    struct stat st;
    bool regular = known != nullptr || (fstat(file, &st) == 0 && S_ISREG(st.st_mode));
    ftp_move r = ftp_move::replied;  // not sent yet
    if (!ascii && regular && !stream_.is_protected()) {
        off_t off = known != nullptr ? known->offset : lseek(file, 0, SEEK_CUR);
        if (off >= 0) r = send_pages(file, off, known != nullptr ? known->size : st.st_size);
    }
    else if (!ascii && regular && ftp_tls_kernel_send(stream_.tls()))
        r = send_kernel_tls(file);
    if (r == ftp_move::replied && !buf && !take_send_buffers(&buf, &converted, chunk, ascii)) r = ftp_move::no_buffer;
    if (r == ftp_move::replied) r = send_copied(file, blk, ascii, buf.get(), converted.get(), chunk);
    waiter_ = nullptr;
    return r;
}

// ---------------------------------------------------------------------------------------------
// Receiving

ftp_move ftp_dataconn::receive_file(int file, bool plain) {
    // Binary type into a regular file is spliced; the kernel does not splice into a file opened
    // for appending, and protected bytes are decrypted in the daemon.
    struct stat st;
    bool splicing = env_->type != ftp_type::ascii && !stream_.is_protected() &&
                    (plain || (fstat(file, &st) == 0 && S_ISREG(st.st_mode) && (fcntl(file, F_GETFL) & O_APPEND) == 0)) &&
                    pipe_.ready();
    // As for sending: up front on the device; when lean, the receive loop takes them where the
    // bytes pass through the daemon.
    ftpd_block buf, converted;
    if (!env_->lean) {
        buf = ftpd_block(FTPD_M_DATA_BUF, kRecvChunk);
        converted = ftpd_block(FTPD_M_BUF, kRecvChunk + 1);
        if (!buf || !converted) return ftp_move::no_buffer;
    }
    ftp_xfer_waiter waiter(!env_->lean);
    if (!env_->lean && !waiter) return ftp_move::no_waiter;
    waiter_ = env_->lean ? nullptr : &waiter;
    ftp_move r = receive_loop(file, splicing, buf, converted);
    waiter_ = nullptr;
    if (splicing) pipe_.settle(r == ftp_move::done);
    return r;
}

ftp_move ftp_dataconn::receive_loop(int file, bool splicing, ftpd_block &buf, ftpd_block &converted) {
    bool ascii = env_->type == ftp_type::ascii;
    const size_t chunk = env_->lean ? kLeanRecvChunk : kRecvChunk;
    auto buffers = [&]() {
        if (!buf) buf = ftpd_block(FTPD_M_DATA_BUF, chunk);
        if (!converted && ascii) converted = ftpd_block(FTPD_M_BUF, chunk + 1);
        return buf && (converted || !ascii);
    };
    if (!splicing && !buffers()) return ftp_move::no_buffer;
    // Clients send once they have the 150, just sent: a first receive would find nothing.
    if (splicing) {
        ftp_move w = wait_fd(stream_.fd(), POLLIN, true);
        if (w != ftp_move::done) return w;
    }
    ftp_ascii_in carry;
    for (size_t got = 0;; ) {
        ftp_move look = between_chunks(got);
        if (look != ftp_move::done) return look;
        got = 0;
        ssize_t n;
        if (splicing) {
            n = splice(stream_.fd(), nullptr, pipe_.in(), nullptr, rate_.chunk(pipe_.size()), SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
            if (n < 0 && (errno == EINVAL || errno == ENOSYS)) {
                splicing = false;  // receive into the buffer from now on
                if (!buffers()) return ftp_move::no_buffer;
                continue;
            }
        } else {
            n = stream_.read_some(buf.get(), rate_.chunk(chunk));
        }
        if (n == 0) {
            // SECURITY: a protected upload that ends without the client's closing alert may have
            // been cut short by anyone who can end the TCP connection.
            if (stream_.is_protected() && !ftp_tls_clean_end(stream_.tls()) &&
                ftp_tls_upload_eof() == PLATFORM_TLS_UPLOAD_EOF_STRICT) {
                FTPD_LOG_PRO("data connection TLS: the upload ended without a closing alert.\n");
                return ftp_move::failed;
            }
            if (ascii && env_->ascii_carry && carry.cr_pending && !write_file(file, "\r", 1))
                return ftp_move::write_error;
            fsync(file);
            return ftp_move::done;
        }
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) return ftp_move::failed;
            ftp_move w = wait_fd(stream_.fd(), splicing ? POLLIN : stream_.wait_events(), true);
            if (w != ftp_move::done) return w;
            continue;
        }
        got = static_cast<size_t>(n);
        if (splicing) {
            for (ssize_t left = n; left > 0;) {
                ssize_t m = splice(pipe_.out(), nullptr, file, nullptr, static_cast<size_t>(left), SPLICE_F_MOVE);
                if (m < 0 && errno == EINTR) continue;
                if (m <= 0) return ftp_move::write_error;
                left -= m;
            }
            bytes_ += n;
            // An upload past the pipe's default size is a large one. (A splice may fill every
            // slot of the pipe with less than its size in bytes.)
            if (static_cast<size_t>(bytes_) >= pipe_.size()) pipe_.widen(kReceivePipe);
            ftp_move w = keep_rate(static_cast<size_t>(n));
            if (w != ftp_move::done) return w;
            continue;
        }
        const char *out = buf.get();
        size_t len = static_cast<size_t>(n);
        if (ascii) {
            // Cut where one receive of at most one block at a time would have cut, unless a CR LF
            // split between two blocks is still to be one line end.
            len = env_->ascii_carry ? ftp_stream_to_unix(buf.get(), len, &carry, converted.get())
                                    : ftp_chunk_to_unix(buf.get(), len, kRecvBlock, converted.get());
            out = converted.get();
        }
        if (!write_file(file, out, len)) return ftp_move::write_error;
        bytes_ += static_cast<off_t>(len);
        ftp_move w = keep_rate(static_cast<size_t>(n));
        if (w != ftp_move::done) return w;
    }
}
