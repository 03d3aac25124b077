// The listener thread: both listening sockets of the control port, the accept loop that hands
// each connection to a session thread, the connection counter and the pause/resume pair that
// parks the listener while the service is disabled.
#include "control/listener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "app_init.h"
#include "ftp_platform.h"
#include "base/ftpd.h"
#include "base/policy.h"
#include "base/path.h"
#include "control/loop.h"
#include "base/testhooks.h"
#include "base/users.h"

#if defined(__SANITIZE_ADDRESS__)
#define FTPD_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define FTPD_ASAN 1
#endif
#endif
#ifdef FTPD_ASAN
#include <sanitizer/asan_interface.h>
#endif

std::atomic<int> no_version{0};

static bool ftp_pthread_pause = false;
static pthread_mutex_t ftp_mutex_pause = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t ftp_cond_pause;

constexpr size_t kSessionStack = 256 * 1024;
#define FTP_SELECT_TIMEOUT 120
#define FTP_PAUSE_WAKEUP 60
#define FTP_RETRY_SLEEP 100
// Stale stop messages taken at most when listening starts; the kernel's queue is far shorter.
#define FTP_STALE_STOP_MAX 4096

void ftp_listener_sync_init(void) {
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&ftp_cond_pause, &attr);
    pthread_condattr_destroy(&attr);
}

void ftp_pthread_suspend(void) {
    pthread_mutex_lock(&ftp_mutex_pause);
    // The enabled flag is looked at under the lock: an enable that came after the caller saw the
    // service disabled but before the listener parked found nothing to resume, and would
    // otherwise leave the listener parked while the service is enabled.
    if (!ftp_pthread_pause && !is_ftp_server_start()) {
        ftp_pthread_pause = true;
        FTPD_LOG_PRO(" pthread suspend\n");
    }
    while (ftp_pthread_pause && !is_ftp_server_start()) {
        struct timespec deadline;
        clock_gettime(CLOCK_MONOTONIC, &deadline);
        deadline.tv_sec += FTP_PAUSE_WAKEUP;
        pthread_cond_timedwait(&ftp_cond_pause, &ftp_mutex_pause, &deadline);
        // The wake-ups only keep the liveness monitor fed while the service is disabled.
        app_ham_client_reset_thread_notify();
    }
    ftp_pthread_pause = false;
    pthread_mutex_unlock(&ftp_mutex_pause);
}

void ftp_pthread_resume(void) {
    pthread_mutex_lock(&ftp_mutex_pause);
    if (ftp_pthread_pause) {
        ftp_pthread_pause = false;
        pthread_cond_broadcast(&ftp_cond_pause);
        FTPD_LOG_PRO(" pthread resume\n");
    }
    pthread_mutex_unlock(&ftp_mutex_pause);
}

int domain_server(void) {
    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (fd < 0) {
        FTPD_LOG_ERR("domain server socket failed %d:%s.\n", errno, strerror(errno));
        return -1;
    }
    char path[FTP_NAME_LEN];
    if (ftp_make_path(path, sizeof(path), FTP_SERVER_SOCK_PATH) == nullptr) {
        close(fd);
        FTPD_LOG_ERR(" make %s path fail.\n", FTP_SERVER_SOCK_PATH);
        return -1;
    }
    unlink(path);
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path, 107);
    if (bind(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) < 0) {
        FTPD_LOG_ERR(" domain server bind failed %d:%s.\n", errno, strerror(errno));
        close(fd);
        unlink(path);
        return -1;
    }
    int on = 1;
    ioctl(fd, FIONBIO, &on);
    return fd;
}

namespace {

// Both listening sockets of one accept-loop run; closed (and the listener's count given back)
// on every way out.
struct listen_pair {
    unique_fd v4;
    unique_fd v6;
    bool counted = false;
    ~listen_pair() {
        if (counted) ftp_connect_num_dec();
    }
};

int open_listener(int family, int port, const char *kind) {
    unique_fd fd(socket(family, SOCK_STREAM, 0));
    if (!fd) {
        FTPD_LOG_ERR("%s: %scontrol connection create socket fail. errno=%d\n", FTPD_MODULE, kind, errno);
        return -1;
    }
    int on = 1;
    if (setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) < 0) {
        FTPD_LOG_ERR("%s: %scontrol connection setsockopt fail. errno=%d\n", FTPD_MODULE, kind, errno);
        return -1;
    }
    // Accepting in every VRF needs no socket option on Linux: the kernel's tcp_l3mdev_accept
    // setting decides. The device's own option numbers must never reach setsockopt here.
    int rc;
    if (family == AF_INET) {
        struct sockaddr_in a;
        memset(&a, 0, sizeof(a));
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_ANY);
        a.sin_port = htons(static_cast<uint16_t>(port));
        rc = bind(fd.get(), reinterpret_cast<struct sockaddr *>(&a), sizeof(a));
    } else {
        // IPv4 clients always arrive on the IPv4 socket.
        setsockopt(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on));
        struct sockaddr_in6 a;
        memset(&a, 0, sizeof(a));
        a.sin6_family = AF_INET6;
        a.sin6_addr = in6addr_any;
        a.sin6_port = htons(static_cast<uint16_t>(port));
        rc = bind(fd.get(), reinterpret_cast<struct sockaddr *>(&a), sizeof(a));
    }
    if (rc < 0) {
        FTPD_LOG_ERR("%s: %scontrol connection bind fail. errno=%%\n", FTPD_MODULE,
                     kind);  // the text ends in a bare "%"
        return -1;
    }
    // Room for a burst of clients up to the session limit: with a shorter queue the kernel drops
    // their SYNs and each dropped client waits a second or more for its retry.
    if (listen(fd.get(), ftp_policy_get().max_sessions) < 0) {
        FTPD_LOG_ERR("%s: %scontrol connection listen fail. errno=%d\n", FTPD_MODULE, kind, errno);
        return -1;
    }
    return fd.release();
}

// Stop messages still queued when listening starts were sent for an earlier disable by a sender
// that counted more readers than took one (a session that lost the race ends without taking its
// message). The service is enabled again, so they stop no one; left queued they would wake the
// next sessions for nothing.
void drain_stop_messages(int domain_fd) {
    char msg[FTP_DOMAIN_MSG_LEN];
    for (int i = 0; i < FTP_STALE_STOP_MAX; i++)
        if (recv(domain_fd, msg, sizeof(msg), MSG_DONTWAIT) < 0 && errno != EINTR) break;
}

// Hands one accepted connection to a new detached session thread; on any failure the
// connection is closed.
void start_session(int domain_fd, int fd, int family, const struct ftp_connect_addr *addr) {
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) {
        close(fd);
        return;
    }
    auto *info = static_cast<struct ftp_connect_info *>(ftpd_malloc(FTPD_M_INFO, sizeof(struct ftp_connect_info)));
    if (info == nullptr) {
        FTPD_LOG_ERR("Failed to malloc connect info %d:%s.\n", errno, strerror(errno));
        pthread_attr_destroy(&attr);
        close(fd);
        return;
    }
    info->domain_fd = domain_fd;
    info->fd = fd;
    info->contrl_type = family;
    info->def_addr = *addr;
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    // A session's own data lives on the heap: a small stack keeps a thousand sessions light.
    pthread_attr_setstacksize(&attr, kSessionStack);
    pthread_t tid;
    int rc = pthread_create(&tid, &attr, ftp_connect_thread, info);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        FTPD_LOG_ERR("Failed to create thread %d:%s.\n", rc, strerror(rc));
        ftpd_free(FTPD_M_INFO, info);
        close(fd);
    }
}

// Accepts one connection on a listening socket into the peer and local address pair of its
// family: the descriptor, or -1 (the failure is logged; only that connection is lost).
int accept_connection(int lfd, bool v6, struct ftp_connect_addr *addr) {
    struct sockaddr *peer = v6 ? reinterpret_cast<struct sockaddr *>(&addr->his_addrv6)
                               : reinterpret_cast<struct sockaddr *>(&addr->his_addr);
    struct sockaddr *local = v6 ? reinterpret_cast<struct sockaddr *>(&addr->ctrl_addrv6)
                                : reinterpret_cast<struct sockaddr *>(&addr->ctrl_addr);
    socklen_t len = v6 ? sizeof(addr->his_addrv6) : sizeof(addr->his_addr);
    int c = accept(lfd, peer, &len);
    if (c < 0) {
        if (v6)
            FTPD_LOG_ERR("%s: ipv6 control connection accept fail.\n", FTPD_MODULE);
        else
            FTPD_LOG_ERR("%s: control connection accept fail.\n", FTPD_MODULE);
        return -1;
    }
    len = v6 ? sizeof(addr->ctrl_addrv6) : sizeof(addr->ctrl_addr);
    if (getsockname(c, local, &len) < 0) {
        if (v6)
            FTPD_LOG_ERR("%s: ipv6 get sock name fail.\n", FTPD_MODULE);
        else
            FTPD_LOG_ERR("%s: get sock name fail.\n", FTPD_MODULE);
        close(c);
        return -1;
    }
    return c;
}

}  // namespace

int server_mode(int domain_fd) {
    no_version = 1;
    const int port = platform_ftp_control_port();

    // Not yet counted, so no disable from here on has sent a message meant for this run.
    drain_stop_messages(domain_fd);

    listen_pair lp;
    lp.v4.reset(open_listener(AF_INET, port, ""));
    if (!lp.v4) return -1;
    lp.v6.reset(open_listener(AF_INET6, port, "ipv6 "));
    if (!lp.v6) return -1;

    ftp_connect_num_add();
    lp.counted = true;

    struct ftp_connect_addr addr;
    for (;;) {
        // Only a connection accepted in this iteration is handed on: a descriptor handed on
        // before belongs to its session, which may have closed it since.
        int family = 0;
        int fd = -1;
        if (!is_ftp_server_start()) return 0;

        memset(&addr, 0, sizeof(addr));
        // poll, not select: with hundreds of sessions a listener opened again may get a
        // descriptor above FD_SETSIZE.
        struct pollfd pfd[3] = {{lp.v4.get(), POLLIN, 0}, {lp.v6.get(), POLLIN, 0}, {domain_fd, POLLIN, 0}};
        int n = poll(pfd, 3, FTP_SELECT_TIMEOUT * 1000);
        app_ham_client_reset_thread_notify();
        if (n == 0) continue;
        if (n < 0 || std::any_of(pfd, pfd + 3, [](const pollfd &p) { return (p.revents & (POLLERR | POLLNVAL)) != 0; })) {
            FTPD_LOG_ERR("%s: select error when waiting client connect. %d\n", FTPD_MODULE, errno);
            return -1;
        }

        if (pfd[2].revents & POLLIN) {
            char msg[FTP_DOMAIN_MSG_LEN];
            // The channel is shared: a session that was woken by the same message may have taken
            // it first. That is no failure of the socket, and the flag below decides all the same.
            if (recvfrom(domain_fd, msg, sizeof(msg), MSG_DONTWAIT, nullptr, nullptr) < 0 && errno != EAGAIN &&
                errno != EWOULDBLOCK && errno != EINTR) {
                FTPD_LOG_ERR("%s: domain recvfrom error when waiting client connect. %d\n", FTPD_MODULE, errno);
                return -1;
            }
            if (!is_ftp_server_start()) {
                FTPD_LOG_ERR(" domain socket receive[server_mode].\n");
                return 0;
            }
        }

        if (pfd[0].revents & POLLIN) {
            fd = accept_connection(lp.v4.get(), false, &addr);
            family = AF_INET;
        } else if (pfd[1].revents & POLLIN) {
            fd = accept_connection(lp.v6.get(), true, &addr);
            family = AF_INET6;
        }
        if (fd < 0) continue;

        start_session(domain_fd, fd, family, &addr);
    }
}

namespace {
// Shutdown cancels the listener. Under the address checker the frames that cancellation unwinds
// skip their epilogues and leave their stack guards marked, which the thread's own teardown would
// then trip over; clearing them here keeps a real report from being buried under a false one.
void listener_cancelled(void * /*unused*/) {
#ifdef FTPD_ASAN
    __asan_handle_no_return();
#endif
}
}  // namespace

void *ftps_main(void * /*argv*/) {
    prctl(PR_SET_NAME, "ftps_main", 0, 0, 0);
    pthread_detach(pthread_self());

    int domain_fd = domain_server();
    if (domain_fd < 0) {
        FTPD_LOG_ERR("create domain socket fail. errno=%d\n", errno);
        return nullptr;
    }
    app_ham_client_reg_thread_notify();
    ftpd_testhooks_listener_started();
    if (!is_ftp_server_start()) ftp_pthread_suspend();

    int retries = 0;
    pthread_cleanup_push(listener_cancelled, nullptr);
    for (;;) {
        if (server_mode(domain_fd) >= 0) {
            retries = 0;
            if (!is_ftp_server_start()) ftp_pthread_suspend();
            continue;
        }
        app_ham_client_reset_thread_notify();
        if (++retries >= 5) {
            retries = 0;
            sleep(1);
        }
        sleep(FTP_RETRY_SLEEP);
    }
    pthread_cleanup_pop(0);
    return nullptr;
}
