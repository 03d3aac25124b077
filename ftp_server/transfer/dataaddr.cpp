// The data-address commands: PORT and EPRT record where the next active data connection goes,
// PASV and EPSV open the passive listening socket and tell the client its address. None of them
// makes the data connection itself; that happens when a transfer or listing runs.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>

#include "base/ftpd.h"
#include "data/dataconn.h"
#include "net/reply.h"
#include "control/session.h"

namespace {

constexpr int kMaxBindTries = 64;
constexpr int kPassiveBacklog = 2;

const char kNotLoggedIn[] = "530 Not logged in.\r\n";
const char kActiveDisabled[] = "Active mode is disabled.\r\n";
const char kBadIpAddr[] = "Syntax error in IP address.\r\n";
const char kCantOpen[] = "425 Can't open data connection.\r\n";

int reply_text(int control_fd, const char *text) {
    return ftpd_reply(control_fd, nullptr, "%s", text, nullptr);
}

// Cuts the next ","-separated field off *rest; nullptr when there is none left.
char *next_field(char **rest) {
    char *field = *rest;
    if (field == nullptr) return nullptr;
    char *comma = strchr(field, ',');
    if (comma != nullptr) {
        *comma = '\0';
        *rest = comma + 1;
    } else {
        *rest = nullptr;
    }
    return field;
}

bool in_range(int v, int lo, int hi) {
    return v >= lo && v <= hi;
}

// First 10 bits of fe80:: (link-local) or fec0:: (site-local).
bool is_scoped_v6(const struct in6_addr *a) {
    return a->s6_addr[0] == 0xfe && ((a->s6_addr[1] & 0xc0) == 0x80 || (a->s6_addr[1] & 0xc0) == 0xc0);
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

// Draws random ports from 1024 to 65535 and binds; a port in use is replaced by another draw at
// once. Returns the bound port, or -1 with the error in *err.
int bind_random_port(int fd, struct sockaddr *addr, socklen_t len, in_port_t *port_field, int *err) {
    for (int tries = 1;; tries++) {
        int port = static_cast<int>(draw_port_number() % 64512) + 1024;
        *port_field = htons(static_cast<uint16_t>(port));
        if (bind(fd, addr, len) == 0) return port;
        *err = errno;
        if (*err != EADDRINUSE || tries >= kMaxBindTries) return -1;
    }
}

// SECURITY (standard profile): an active data connection may only go back to the client's own
// address, so the server cannot be used to reach a third host.
bool is_control_peer(const struct credentials *pcred, const char *addr) {
    const struct ftp_connect_addr &ctl = pcred->cnt.def_addr;
    struct in_addr a4;
    struct in6_addr a6;
    if (inet_pton(AF_INET, addr, &a4) == 1) {
        if (pcred->cnt.contrl_type == AF_INET) return a4.s_addr == ctl.his_addr.sin_addr.s_addr;
        const uint8_t *p = ctl.his_addrv6.sin6_addr.s6_addr;
        // An IPv4 client reaching the IPv6 socket through a mapped address.
        return IN6_IS_ADDR_V4MAPPED(&ctl.his_addrv6.sin6_addr) && memcmp(p + 12, &a4.s_addr, 4) == 0;
    }
    if (inet_pton(AF_INET6, addr, &a6) == 1 && pcred->cnt.contrl_type == AF_INET6)
        return memcmp(&a6, &ctl.his_addrv6.sin6_addr, sizeof a6) == 0;
    return false;
}

}  // namespace

int toint(const char *str, int strict) {
    if (str == nullptr || *str == '\0') return -1;
    int value = 0;
    int place = 1;
    for (size_t i = strlen(str); i-- > 0;) {
        if (place > 9999) return -1;
        char c = str[i];
        if (c >= '0' && c <= '9')
            value += (c - '0') * place;
        else if (strict != 0)
            return -1;
        // A skipped non-digit still takes its decimal place: "1x2" is 102.
        place *= 10;
    }
    return value;
}

int parse_port_data(char *data_buff, char *client_addr) {
    client_addr[0] = '\0';
    char *rest = data_buff;
    char *h[4];
    for (int i = 0; i < 4; i++) {
        h[i] = next_field(&rest);
        if (h[i] == nullptr) return -1;
        int v = toint(h[i], 0);
        if (!in_range(v, i == 0 ? 1 : 0, 254)) return -1;
    }
    // The address is kept as typed (leading zeros included), not rebuilt from the values.
    (void)ftpd_snprintf(client_addr, FTP_CLIENT_ADDR_LEN, "%s.%s.%s.%s", h[0], h[1], h[2], h[3]);
    char *p1 = next_field(&rest);
    if (p1 == nullptr) return -1;
    char *p2 = next_field(&rest);
    if (p2 == nullptr) return -1;
    // The port bytes themselves are not range-checked; the caller's lower bound is the only test.
    return toint(p1, 0) * 256 + toint(p2, 0);
}

int command_port(int control_fd, char *data_buff, char *client_addr, int *client_port, struct credentials *pcred) {
    if (!is_logged_in(pcred)) return reply_text(control_fd, kNotLoggedIn);
    if (pcred->epsv_all) return ftpd_reply(control_fd, "501", kActiveDisabled, nullptr, nullptr);
    pcred->usedefault = 0;
    ftpd_data_close(&pcred->pdata);
    *client_port = parse_port_data(data_buff, client_addr);
    if (*client_port < 1025) return ftpd_reply(control_fd, "500", "Illegal PORT Command.", nullptr, nullptr);
    if (ftpd_standard()) {
        // Typed leading zeros are kept in the text; the comparison needs the plain form.
        unsigned a[4];
        char plain[FTP_CLIENT_ADDR_LEN];
        if (sscanf(client_addr, "%u.%u.%u.%u", &a[0], &a[1], &a[2], &a[3]) != 4 ||
            !ftpd_snprintf(plain, sizeof plain, "%u.%u.%u.%u", a[0], a[1], a[2], a[3]) ||
            !is_control_peer(pcred, plain)) {
            *client_port = -1;
            return ftpd_reply(control_fd, "500", "Illegal PORT Command.", nullptr, nullptr);
        }
    }
    return reply_text(control_fd, "200 PORT Command okay.\r\n");
}

int command_eprt(int control_fd, char *data_buff, char *client_addr, int addr_size, int *client_port,
                 struct credentials *pcred) {
    if (!is_logged_in(pcred)) return reply_text(control_fd, kNotLoggedIn);
    if (pcred->epsv_all) return ftpd_reply(control_fd, "501", kActiveDisabled, nullptr, nullptr);
    pcred->usedefault = 0;
    ftpd_data_close(&pcred->pdata);
    return doeprt(control_fd, data_buff, client_addr, addr_size, client_port, pcred);
}

int doeprt(int control_fd, char *p, char *client_addr, int addr_size, int *client_port, struct credentials *pcred) {
    if (p == nullptr || *p == '\0') return ftpd_reply(control_fd, "501", kBadIpAddr, nullptr, nullptr);
    char delim = *p++;
    int proto = atoi(p);
    while (isdigit(static_cast<unsigned char>(*p))) p++;
    if (*p != delim) return ftpd_reply(control_fd, "501", kBadIpAddr, nullptr, nullptr);
    p++;
    if (proto == 2) {
        pcred->cnt.data_type = AF_INET6;
        return do_ipv6_port(control_fd, p, delim, client_addr, addr_size, client_port, pcred);
    }
    if (proto != 1)
        return ftpd_reply(control_fd, "522", "Only IPv4 and IPv6 are supported (1,2).\r\n", nullptr, nullptr);
    pcred->cnt.data_type = AF_INET;

    unsigned a[4];
    if (sscanf(p, "%u,%u,%u,%u", &a[0], &a[1], &a[2], &a[3]) != 4 &&
        sscanf(p, "%u.%u.%u.%u", &a[0], &a[1], &a[2], &a[3]) != 4)
        return ftpd_reply(control_fd, "501", kBadIpAddr, nullptr, nullptr);
    if (a[0] > 255 || a[1] > 255 || a[2] > 255 || a[3] > 255 || (a[0] | a[1] | a[2] | a[3]) == 0)
        return ftpd_reply(control_fd, "501", kBadIpAddr, nullptr, nullptr);
    p += strspn(p, "0123456789.,");
    int port = 0;
    if (*p == delim) {
        p++;
        port = atoi(p);
        while (isdigit(static_cast<unsigned char>(*p))) p++;
    }
    if (*p != delim || port < 1 || port > 65535) return ftpd_reply(control_fd, "501", kBadIpAddr, nullptr, nullptr);
    (void)ftpd_snprintf(client_addr, static_cast<size_t>(addr_size), "%u.%u.%u.%u", a[0], a[1], a[2], a[3]);
    if (ftpd_standard() && !is_control_peer(pcred, client_addr))
        return ftpd_reply(control_fd, "500", "Illegal EPRT Command.", nullptr, nullptr);
    *client_port = port;
    return reply_text(control_fd, "200 EPRT Command okay.\r\n");
}

int do_ipv6_port(int control_fd, char *p, char delim, char *client_addr, int addr_size, int *client_port,
                 const struct credentials *pcred) {
    char *addr = p;
    p += strspn(p, "0123456789abcdefABCDEF:");
    if (*p == '%') {
        // A zone is allowed only on scoped addresses; the scope actually used comes from the
        // control connection when the data connection is made.
        *p++ = '\0';
        struct in6_addr a6;
        memset(&a6, 0, sizeof a6);
        inet_pton(AF_INET6, addr, &a6);
        if (atoi(p) == 0 || !is_scoped_v6(&a6)) return ftpd_reply(control_fd, "501", kBadIpAddr, nullptr, nullptr);
        while (isdigit(static_cast<unsigned char>(*p))) p++;
    }
    if (*p != delim || atoi(p + 1) == 0) return ftpd_reply(control_fd, "501", kBadIpAddr, nullptr, nullptr);
    *p = '\0';
    char peer[INET6_ADDRSTRLEN];
    if (ftpd_standard()) {
        // A client that names the unspecified address (lftp in active mode) means its own.
        struct in6_addr a6;
        if (inet_pton(AF_INET6, addr, &a6) == 1 && IN6_IS_ADDR_UNSPECIFIED(&a6) &&
            pcred->cnt.contrl_type == AF_INET6 &&
            inet_ntop(AF_INET6, &pcred->cnt.def_addr.his_addrv6.sin6_addr, peer, sizeof peer) != nullptr)
            addr = peer;
        if (!is_control_peer(pcred, addr))
            return ftpd_reply(control_fd, "500", "Illegal EPRT Command.", nullptr, nullptr);
    }
    (void)ftpd_strlcpy(client_addr, addr, static_cast<size_t>(addr_size));
    *client_port = atoi(p + 1);
    return reply_text(control_fd, "200 EPRT Command okay.\r\n");
}

int command_epsv(int control_fd, char *data_buff, struct credentials *pcred) {
    if (!is_logged_in(pcred)) return reply_text(control_fd, kNotLoggedIn);
    const char *arg = data_buff != nullptr ? data_buff : "";
    if (strcasecmp(arg, "ALL") == 0) {
        pcred->epsv_all = true;
        return ftpd_reply(control_fd, "220", kActiveDisabled, nullptr, nullptr);
    }
    if (strcmp(arg, "1") == 0) {
        pcred->cnt.data_type = AF_INET;
    } else if (strcmp(arg, "2") == 0) {
        pcred->cnt.data_type = AF_INET6;
    } else if (arg[0] == '\0') {
        if (pcred->cnt.contrl_type == AF_INET || pcred->cnt.contrl_type == AF_INET6)
            pcred->cnt.data_type = pcred->cnt.contrl_type;
    } else {
        return reply_text(control_fd, "501 Syntax error in parameters or arguments.\r\n");
    }
    dopasv(control_fd, pcred);
    return 0;
}

int dopasv(int control_fd, struct credentials *pcred) {
    ftpd_data_close(&pcred->data);
    // A listener of an earlier PASV/EPSV that was never used is replaced, not leaked.
    ftpd_data_close(&pcred->listen_pdata);
    pcred->listen_pdata = socket(pcred->cnt.data_type, SOCK_STREAM, IPPROTO_TCP);
    if (pcred->listen_pdata < 0) {
        pcred->listen_pdata = -1;
        return ftpd_reply(control_fd, "425", "Unable to open a passive connection.\r\n", nullptr, nullptr);
    }
    int on = 1;
    if (setsockopt(pcred->listen_pdata, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) < 0) {
        ftpd_data_close(&pcred->listen_pdata);
        return ftpd_reply(control_fd, "421", "setsockopt", nullptr, nullptr);
    }
    ftps_set_vrf_option(pcred, pcred->listen_pdata);

    struct sockaddr *addr;
    socklen_t len;
    in_port_t *port_field;
    if (pcred->cnt.data_type == AF_INET6) {
        memset(&pcred->cnt.pasv_addrv6, 0, sizeof pcred->cnt.pasv_addrv6);
        pcred->cnt.pasv_addrv6.sin6_family = AF_INET6;
        addr = reinterpret_cast<struct sockaddr *>(&pcred->cnt.pasv_addrv6);
        len = sizeof pcred->cnt.pasv_addrv6;
        port_field = &pcred->cnt.pasv_addrv6.sin6_port;
    } else {
        memset(&pcred->cnt.pasv_addr, 0, sizeof pcred->cnt.pasv_addr);
        pcred->cnt.pasv_addr.sin_family = AF_INET;
        addr = reinterpret_cast<struct sockaddr *>(&pcred->cnt.pasv_addr);
        len = sizeof pcred->cnt.pasv_addr;
        port_field = &pcred->cnt.pasv_addr.sin_port;
    }
    int err = 0;
    int port = bind_random_port(pcred->listen_pdata, addr, len, port_field, &err);
    if (port < 0) {
        FTPD_LOG_ERR("%s:ipv6 data connection, bind fail(errno=%d).\n", __func__, err);
        ftpd_data_close(&pcred->listen_pdata);
        return reply_text(control_fd, kCantOpen);
    }
    if (listen(pcred->listen_pdata, kPassiveBacklog) < 0) {
        ftpd_data_close(&pcred->listen_pdata);
        return reply_text(control_fd, kCantOpen);
    }
    char text[64];
    (void)ftpd_snprintf(text, sizeof text, "Extended Passive mode OK (|||%u|)", static_cast<unsigned>(port));
    if (ftpd_reply(control_fd, "229", "%s", text, nullptr) < 0) {
        ftpd_data_close(&pcred->listen_pdata);
        return -1;
    }
    return 0;
}

void passive(int control_fd, struct credentials *pcred) {
    // Unlike EPSV, an open active connection is left as it is; an unused listener is replaced.
    ftpd_data_close(&pcred->listen_pdata);
    pcred->listen_pdata = socket(AF_INET, SOCK_STREAM, 0);
    if (pcred->listen_pdata < 0) {
        pcred->listen_pdata = -1;
        reply_text(control_fd, kCantOpen);
        return;
    }
    int on = 1;
    if (setsockopt(pcred->listen_pdata, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) < 0) {
        FTPD_LOG_ERR("%s:data connection, setsockopt fail.\n", __func__);
        ftpd_data_close(&pcred->listen_pdata);
        reply_text(control_fd, kCantOpen);
        return;
    }
    ftps_set_vrf_option(pcred, pcred->listen_pdata);

    // Listen on the address the client already reaches the server on.
    pcred->cnt.pasv_addr = pcred->cnt.def_addr.ctrl_addr;
    int err = 0;
    int port = bind_random_port(pcred->listen_pdata, reinterpret_cast<struct sockaddr *>(&pcred->cnt.pasv_addr),
                                sizeof pcred->cnt.pasv_addr, &pcred->cnt.pasv_addr.sin_port, &err);
    if (port < 0) {
        FTPD_LOG_ERR("%s:data connection, bind fail(errno=%d).\n", __func__, err);
        ftpd_data_close(&pcred->listen_pdata);
        reply_text(control_fd, kCantOpen);
        return;
    }
    if (listen(pcred->listen_pdata, kPassiveBacklog) < 0) {
        FTPD_LOG_ERR("%s:data connection, listen fail.\n", __func__);
        ftpd_data_close(&pcred->listen_pdata);
        reply_text(control_fd, kCantOpen);
        return;
    }
    const unsigned char *a = reinterpret_cast<const unsigned char *>(&pcred->cnt.pasv_addr.sin_addr);
    char text[80];
    (void)ftpd_snprintf(text, sizeof text, "Entering Passive Mode (%d,%d,%d,%d,%d,%d).", a[0], a[1], a[2], a[3],
                  (port >> 8) & 0xff, port & 0xff);
    ftpd_reply(control_fd, "227", "%s", text, nullptr);
}
