// Opening one data connection from what the address commands left in the session record: accept
// on a waiting passive socket, reuse an open active connection, or connect out to the client; then
// announce it on the control connection; under PROT P, its TLS handshake. Every data socket is
// put in the VRF of the control connection.
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "ftp_tls.h"
#include "base/ftpd.h"
#include "data/dataconn.h"
#include "net/waiter.h"
#include "net/reply.h"
#include "vrf.h"

namespace {

constexpr int kIpTosThroughput = 8;
constexpr int kConnectRetrySeconds = 90;
constexpr unsigned kConnectRetrySleep = 5;

const char kCantOpen[] = "425 Can't open data connection.\r\n";

bool is_scoped_v6(const struct in6_addr *a) {
    return a->s6_addr[0] == 0xfe && ((a->s6_addr[1] & 0xc0) == 0x80 || (a->s6_addr[1] & 0xc0) == 0xc0);
}

// Family of the next data connection. After a transfer the session clears data_type; the default
// address is then the control peer's, so its family is the control connection's.
int data_family(const struct credentials *pcred) {
    int t = pcred->cnt.data_type;
    if (t == AF_INET || t == AF_INET6) return t;
    return pcred->cnt.contrl_type == AF_INET6 ? AF_INET6 : AF_INET;
}

int reply_opening(int control_fd, const struct credentials *pcred) {
    return ftpd_reply(control_fd, "150", "Opening %s mode data connection.",
                      pcred->cnt.tran_type == 1 ? "ASCII" : "BINARY", nullptr);
}

double seconds_since(const struct timespec *start) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec - start->tv_sec) + (now.tv_nsec - start->tv_nsec) / 1e9;
}

// SECURITY: the data connection must come from the client's own address; another host that
// reaches the passive port first would otherwise receive or supply the file. When the families
// differ (EPSV 2 on an IPv4 control connection) there is no address to compare.
bool from_control_peer(const struct sockaddr_storage &peer, const struct credentials *pcred) {
    const struct ftp_connect_addr &ctl = pcred->cnt.def_addr;
    if (peer.ss_family == AF_INET && pcred->cnt.contrl_type == AF_INET) {
        const auto *p4 = reinterpret_cast<const struct sockaddr_in *>(&peer);
        return p4->sin_addr.s_addr == ctl.his_addr.sin_addr.s_addr;
    }
    if (peer.ss_family == AF_INET6 && pcred->cnt.contrl_type == AF_INET6) {
        const auto *p6 = reinterpret_cast<const struct sockaddr_in6 *>(&peer);
        return memcmp(&p6->sin6_addr, &ctl.his_addrv6.sin6_addr, sizeof p6->sin6_addr) == 0;
    }
    return true;
}

// Passive case: accept exactly one connection from the client on listen_pdata, which is closed
// afterwards. Connections from elsewhere are closed and the wait goes on until its deadline.
int accept_passive(int control_fd, struct credentials *pcred) {
    bool ok = false;
    struct ftp_epoll_s *ep = ftpd_epoll_create();
    if (ep != nullptr) {
        ep->fd[0] = pcred->listen_pdata;
        struct timespec start;
        clock_gettime(CLOCK_MONOTONIC, &start);
        const int limit = pcred->timeout * 60;
        for (;;) {
            int left = limit - static_cast<int>(seconds_since(&start));
            ep->timeout = left > 0 ? left : 0;
            int w = left > 0 ? ftpd_epoll(ep, FTP_EPOLL_IN) : 0;
            if (w == 0) FTPD_LOG_PRO("Time out.\n");
            if (w <= 0 || !ftpd_epoll_event(ep, pcred->listen_pdata, FTP_EPOLL_IN)) break;
            struct sockaddr_storage peer;
            socklen_t plen = sizeof peer;
            int fd = accept(pcred->listen_pdata, reinterpret_cast<struct sockaddr *>(&peer), &plen);
            if (fd < 0) break;
            if (!from_control_peer(peer, pcred)) {
                FTPD_LOG_ERR("%s: passive connection from another address refused.\n", FTPD_MODULE);
                close(fd);
                continue;
            }
            pcred->pdata = fd;
            ok = true;
            if (peer.ss_family == AF_INET6)
                memcpy(&pcred->cnt.pasv_destv6, &peer, sizeof pcred->cnt.pasv_destv6);
            else
                memcpy(&pcred->cnt.pasv_dest, &peer, sizeof pcred->cnt.pasv_dest);
            break;
        }
        ftpd_epoll_destroy(ep);
    }
    ftpd_data_close(&pcred->listen_pdata);
    if (!ok) {
        ftpd_reply(control_fd, nullptr, "%s", kCantOpen, nullptr);
        return -1;
    }

    struct sockaddr_storage local;
    socklen_t llen = sizeof local;
    if (getsockname(pcred->pdata, reinterpret_cast<struct sockaddr *>(&local), &llen) < 0) {
        ftpd_reply(control_fd, nullptr, "%s", kCantOpen, nullptr);
        ftpd_data_close(&pcred->pdata);
        return -1;
    }
    if (local.ss_family == AF_INET6)
        memcpy(&pcred->cnt.pasv_addrv6, &local, sizeof pcred->cnt.pasv_addrv6);
    else
        memcpy(&pcred->cnt.pasv_addr, &local, sizeof pcred->cnt.pasv_addr);

    int tos = kIpTosThroughput;
    int on = 1;
    setsockopt(pcred->pdata, IPPROTO_IP, IP_TOS, &tos, sizeof tos);
    setsockopt(pcred->pdata, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    if (reply_opening(control_fd, pcred) < 0) {
        ftpd_data_close(&pcred->pdata);
        return -1;
    }
    return pcred->pdata;
}

// Fills data_dest / data_destv6 for an active connection of the given family.
void set_active_destination(int control_fd, int family, int client_port, const char *client_addr,
                            struct credentials *pcred) {
    struct ftp_user_cnt_info_s *cnt = &pcred->cnt;
    if (pcred->usedefault != 0) {
        // The default data port is the client's control port plus one.
        if (family == AF_INET) {
            cnt->data_dest = cnt->def_addr.his_addr;
            cnt->data_dest.sin_port = htons(static_cast<uint16_t>(ntohs(cnt->def_addr.his_addr.sin_port) + 1));
        } else {
            cnt->data_destv6 = cnt->def_addr.his_addrv6;
            cnt->data_destv6.sin6_port = htons(static_cast<uint16_t>(ntohs(cnt->def_addr.his_addrv6.sin6_port) + 1));
        }
        return;
    }
    if (family == AF_INET) {
        cnt->data_dest.sin_family = AF_INET;
        inet_aton(client_addr, &cnt->data_dest.sin_addr);
        cnt->data_dest.sin_port = htons(static_cast<uint16_t>(client_port));
        return;
    }
    cnt->data_destv6.sin6_family = AF_INET6;
    inet_pton(AF_INET6, client_addr, &cnt->data_destv6.sin6_addr);
    cnt->data_destv6.sin6_port = htons(static_cast<uint16_t>(client_port));
    if (is_scoped_v6(&cnt->data_destv6.sin6_addr)) {
        // The zone the client typed is not trusted: the scope is the control connection's.
        struct sockaddr_in6 peer;
        socklen_t plen = sizeof peer;
        memset(&peer, 0, sizeof peer);
        if (getpeername(control_fd, reinterpret_cast<struct sockaddr *>(&peer), &plen) < 0)
            FTPD_LOG_ERR("getpeername error \n");
        else
            cnt->data_destv6.sin6_scope_id = peer.sin6_scope_id;
    }
}

// Under PROT P the opened connection is taken over by TLS within the idle time-out; a connection
// that fails the handshake (plain text, or not resuming the control connection's session) is
// closed and the transfer refused.
int protect(int control_fd, int dfd, struct credentials *pcred) {
    if (dfd < 0 || !pcred->prot_private || pcred->tls == nullptr) return dfd;
    char why[160] = {0};
    pcred->data_tls = ftp_tls_accept(dfd, pcred->timeout * 60 * 1000, pcred->tls, why, sizeof why);
    if (pcred->data_tls != nullptr) return dfd;
    FTPD_LOG_PRO("data connection TLS: %s\n", why);
    ftpd_data_finish(pcred, dfd);
    ftpd_reply(control_fd, "425", "TLS handshake on the data connection failed.", nullptr, nullptr);
    return -1;
}

}  // namespace

void ftpd_data_close(int32_t *fd) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
}

void ftpd_data_finish(struct credentials *pcred, int dfd) {
    ftp_tls_free(pcred->data_tls);
    pcred->data_tls = nullptr;
    // Closed without lingering: a client that stopped reading cannot hold the close.
    int on = 1;
    if (dfd >= 0) {
        ioctl(dfd, FIONBIO, &on);
        close(dfd);
    }
    // A connection of the other mode left open by an earlier command goes as well.
    if (pcred->data != dfd) ftpd_data_close(&pcred->data);
    if (pcred->pdata != dfd) ftpd_data_close(&pcred->pdata);
    pcred->data = -1;
    pcred->pdata = -1;
}

void ftpd_data_release(struct credentials *pcred) {
    ftp_tls_free(pcred->data_tls);
    pcred->data_tls = nullptr;
    ftpd_data_close(&pcred->listen_pdata);
    ftpd_data_close(&pcred->pdata);
    ftpd_data_close(&pcred->data);
}

void ftps_set_vrf_option(struct credentials *pcred, int fd) {
    // On Linux a VRF is a device: the control connection's binding is read and given to fd.
    // The device's numeric VRF options are never used here; their numbers mean other things.
    bool v6 = pcred->cnt.contrl_type == AF_INET6;
    char name[IF_NAMESIZE + 1] = {0};
    if (vrf_get_socket_vrf(pcred->ctl_fd, name, sizeof name) != 0) {
        int err = errno;
        if (v6)
            FTPD_LOG_ERR("%s: getdatasock get ipv6 receive vrf failed %d errno=%d\r\n", __func__, -1, err);
        else
            FTPD_LOG_ERR("%s: getdatasock get ip receive vrf failed fd%d, ret %d errno=%d\r\n", __func__, pcred->ctl_fd,
                         -1, err);
        return;
    }
    // The VRF's number is its device's interface index; the default VRF is 0.
    int vrf_id = name[0] != '\0' ? static_cast<int>(if_nametoindex(name)) : 0;
    if (v6)
        FTPD_LOG_PRO("%s: getdatasock receive ipv6 vrf is %d\r\n", __func__, vrf_id);
    else
        FTPD_LOG_PRO("%s: getdatasock fd %d receive ip vrf is %d\r\n", __func__, fd, vrf_id);
    if (name[0] == '\0') return;
    if (vrf_set_socket_vrf(fd, name) != 0) {
        int err = errno;
        if (v6)
            FTPD_LOG_ERR("%s: setdatasock setsockopt IPV6_PRIVATE_SEND_VRF error. errno=%d\r\n", __func__, err);
        else
            FTPD_LOG_ERR("%s: setdatasock setsockopt IP_VRF_SEND error. errno=%d\r\n", __func__, err);
    }
}

int getdatasock(const char *mode, struct credentials *pcred) {
    (void)mode;
    if (pcred->data >= 0) return pcred->data;
    unique_fd s(socket(data_family(pcred), SOCK_STREAM, 0));
    if (!s) return -1;
    int on = 1;
    if (setsockopt(s.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) < 0) {
        int err = errno;
        s.reset();
        errno = err;
        return -1;
    }
    ftps_set_vrf_option(pcred, s.get());
    int tos = kIpTosThroughput;
    if (data_family(pcred) == AF_INET && setsockopt(s.get(), IPPROTO_IP, IP_TOS, &tos, sizeof tos) < 0) {
        int err = errno;
        FTPD_LOG_ERR("%s:setsockopt (IP_TOS) fail.\n", __func__);
        s.reset();
        errno = err;
        return -1;
    }
    return s.release();
}

namespace {

int open_data_connection(int control_fd, const char *mode, int client_port, const char *client_addr,
                         struct credentials *pcred) {
    pcred->byte_count = 0;
    // While a passive socket waits, an earlier PORT is ignored.
    if (pcred->listen_pdata >= 0) return accept_passive(control_fd, pcred);

    if (pcred->data >= 0) {
        pcred->usedefault = 1;
        if (ftpd_reply(control_fd, "125", "Using existing data connection.", nullptr, nullptr) < 0) {
            ftpd_data_close(&pcred->data);
            return -1;
        }
        return pcred->data;
    }

    int family = data_family(pcred);
    set_active_destination(control_fd, family, client_port, client_addr, pcred);
    pcred->usedefault = 1;  // the next transfer without a new PORT/EPRT goes to the default address

    int s = getdatasock(mode, pcred);
    if (s < 0) {
        ftpd_reply(control_fd, nullptr, "%s", kCantOpen, nullptr);
        return s;
    }
    unique_fd sock(s);
    const struct sockaddr *dest;
    socklen_t dlen;
    if (family == AF_INET) {
        dest = reinterpret_cast<const struct sockaddr *>(&pcred->cnt.data_dest);
        dlen = sizeof pcred->cnt.data_dest;
    } else {
        dest = reinterpret_cast<const struct sockaddr *>(&pcred->cnt.data_destv6);
        dlen = sizeof pcred->cnt.data_destv6;
    }
    struct timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    while (connect(sock.get(), dest, dlen) < 0) {
        // Only a local address still in use is worth waiting for.
        if (errno == EADDRINUSE && seconds_since(&start) < kConnectRetrySeconds) {
            sleep(kConnectRetrySleep);
            continue;
        }
        ftpd_reply(control_fd, "425", "Can't build data connection.", nullptr, nullptr);
        return -1;
    }

    struct sockaddr_storage local;
    socklen_t llen = sizeof local;
    if (getsockname(sock.get(), reinterpret_cast<struct sockaddr *>(&local), &llen) < 0) {
        ftpd_reply(control_fd, "425", "Can't build data connection.", nullptr, nullptr);
        return -1;
    }
    if (family == AF_INET)
        memcpy(&pcred->cnt.data_source, &local, sizeof pcred->cnt.data_source);
    else
        memcpy(&pcred->cnt.data_sourcev6, &local, sizeof pcred->cnt.data_sourcev6);

    pcred->data = sock.release();
    if (reply_opening(control_fd, pcred) < 0) {
        ftpd_data_close(&pcred->data);
        return -1;
    }
    return pcred->data;
}

}  // namespace

int dataconn(int control_fd, off_t size, const char *mode, int client_port, const char *client_addr,
             struct credentials *pcred) {
    (void)size;
    return protect(control_fd, open_data_connection(control_fd, mode, client_port, client_addr, pcred), pcred);
}
