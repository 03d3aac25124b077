// The data-address commands: PORT and EPRT name the client's data address for the next active
// connection; PASV and EPSV open a passive listener on the control connection's own local address
// and tell the client its port. Each parses into its own values first: a refused command changes
// nothing. None of them makes the data connection itself; that happens when a transfer runs.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <strings.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/ftpd.h"
#include "session/session.h"
#include "transfer/transfer.h"

namespace {

const char kActiveDisabled[] = "Active mode is disabled.\r\n";
const char kBadIpAddr[] = "Syntax error in IP address.\r\n";
const char kCantOpen[] = "425 Can't open data connection.\r\n";

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

// SECURITY (standard profile): an active data connection may only go back to the client's own
// address, so the server cannot be used to reach a third host.
bool is_control_peer(const ftp_session &s, const struct sockaddr_storage &a) {
    const struct sockaddr_storage &c = s.client;
    if (a.ss_family == AF_INET) {
        const struct in_addr &a4 = reinterpret_cast<const struct sockaddr_in *>(&a)->sin_addr;
        if (c.ss_family == AF_INET) return a4.s_addr == reinterpret_cast<const struct sockaddr_in *>(&c)->sin_addr.s_addr;
        // An IPv4 client reaching the IPv6 socket through a mapped address.
        const struct in6_addr &peer = reinterpret_cast<const struct sockaddr_in6 *>(&c)->sin6_addr;
        return IN6_IS_ADDR_V4MAPPED(&peer) && memcmp(peer.s6_addr + 12, &a4.s_addr, 4) == 0;
    }
    const struct in6_addr &a6 = reinterpret_cast<const struct sockaddr_in6 *>(&a)->sin6_addr;
    return c.ss_family == AF_INET6 &&
           memcmp(&a6, &reinterpret_cast<const struct sockaddr_in6 *>(&c)->sin6_addr, sizeof a6) == 0;
}

struct sockaddr_storage v4_target(struct in_addr addr, int port) {
    struct sockaddr_storage t {};
    auto *a = reinterpret_cast<struct sockaddr_in *>(&t);
    a->sin_family = AF_INET;
    a->sin_addr = addr;
    a->sin_port = htons(static_cast<uint16_t>(port));
    return t;
}

// RFC 959's h1,h2,h3,h4,p1,p2: six decimal numbers of 0 to 255.
bool six_bytes(const char *arg) {
    unsigned v[6];
    int used = 0;
    if (sscanf(arg, "%3u,%3u,%3u,%3u,%3u,%3u%n", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &used) != 6 ||
        arg[used] != '\0' || strspn(arg, "0123456789,") != strlen(arg))
        return false;
    for (unsigned x : v)
        if (x > 255) return false;
    return true;
}

// What PORT or EPRT parsed, taken over only once the command is accepted.
void take_target(ftp_session &s, const struct sockaddr_storage &t, int port) {
    s.data.set_target(t);
    s.data.set_family(t.ss_family);
    s.client_port = port;
}

// EPRT's IPv4 form; the reply sent (0) or not (-1) as the result.
int eprt_v4(ftp_session &s, const char *p, char delim) {
    unsigned a[4];
    if (sscanf(p, "%u,%u,%u,%u", &a[0], &a[1], &a[2], &a[3]) != 4 && sscanf(p, "%u.%u.%u.%u", &a[0], &a[1], &a[2], &a[3]) != 4)
        return reply_code(s, "501", kBadIpAddr);
    if (a[0] > 255 || a[1] > 255 || a[2] > 255 || a[3] > 255 || (a[0] | a[1] | a[2] | a[3]) == 0)
        return reply_code(s, "501", kBadIpAddr);
    p += strspn(p, "0123456789.,");
    int port = 0;
    if (*p == delim) {
        p++;
        port = atoi(p);
        while (isdigit(static_cast<unsigned char>(*p))) p++;
    }
    if (*p != delim || port < 1 || port > 65535) return reply_code(s, "501", kBadIpAddr);
    struct in_addr addr;
    addr.s_addr = htonl(a[0] << 24 | a[1] << 16 | a[2] << 8 | a[3]);
    struct sockaddr_storage t = v4_target(addr, port);
    if (s.policy.data_peer_only && (!is_control_peer(s, t) || port <= kReservedPort))
        return reply_code(s, "500", "Illegal EPRT Command.");
    take_target(s, t, port);
    return reply(s, "200 EPRT Command okay.\r\n");
}

// EPRT's IPv6 form: the address, an optional zone (only on scoped addresses; the scope used is the
// control connection's), the port.
int eprt_v6(ftp_session &s, char *p, char delim) {
    char *text = p;
    p += strspn(p, "0123456789abcdefABCDEF:");
    if (*p == '%') {
        *p++ = '\0';
        struct in6_addr a6 {};
        inet_pton(AF_INET6, text, &a6);
        if (atoi(p) == 0 || !is_scoped_v6(&a6)) return reply_code(s, "501", kBadIpAddr);
        while (isdigit(static_cast<unsigned char>(*p))) p++;
    }
    if (*p != delim || atoi(p + 1) == 0) return reply_code(s, "501", kBadIpAddr);
    *p = '\0';
    int port = atoi(p + 1);
    struct sockaddr_storage t {};
    auto *a = reinterpret_cast<struct sockaddr_in6 *>(&t);
    a->sin6_family = AF_INET6;
    inet_pton(AF_INET6, text, &a->sin6_addr);
    a->sin6_port = htons(static_cast<uint16_t>(port));
    if (s.policy.data_peer_only) {
        // A client that names the unspecified address (lftp in active mode) means its own.
        if (IN6_IS_ADDR_UNSPECIFIED(&a->sin6_addr) && s.family == AF_INET6) a->sin6_addr = s.addr.his_addrv6.sin6_addr;
        if (!is_control_peer(s, t) || port <= kReservedPort) return reply_code(s, "500", "Illegal EPRT Command.");
    }
    take_target(s, t, port);
    return reply(s, "200 EPRT Command okay.\r\n");
}

// The control connection's own local address: where a passive listener listens, so that it is
// reachable exactly where the client already reaches the server.
struct sockaddr_storage control_local(const ftp_session &s) {
    struct sockaddr_storage a {};
    if (s.family == AF_INET6)
        memcpy(&a, &s.addr.ctrl_addrv6, sizeof s.addr.ctrl_addrv6);
    else
        memcpy(&a, &s.addr.ctrl_addr, sizeof s.addr.ctrl_addr);
    return a;
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

bool command_port(ftp_session &s) {
    if (s.data.extended_only) return reply_code(s, "501", kActiveDisabled) == 0;
    char copy[FTP_BUF_SIZE];
    char text[FTP_CLIENT_ADDR_LEN];
    (void)ftpd_strlcpy(copy, s.arg, sizeof copy);
    if (s.policy.rfc_replies && !six_bytes(s.arg)) return reply_code(s, "501", "Illegal PORT Command.") == 0;
    int port = parse_port_data(copy, text);
    if (port < kPassiveMark) return reply_code(s, "500", "Illegal PORT Command.") == 0;
    struct in_addr addr {};
    if (s.policy.data_peer_only) {
        // Typed leading zeros are kept in the text; the address is the decimal values.
        unsigned a[4];
        if (sscanf(text, "%u.%u.%u.%u", &a[0], &a[1], &a[2], &a[3]) != 4) return reply_code(s, "500", "Illegal PORT Command.") == 0;
        addr.s_addr = htonl(a[0] << 24 | a[1] << 16 | a[2] << 8 | a[3]);
    } else {
        // The device reads the typed text as inet_aton does.
        inet_aton(text, &addr);
    }
    struct sockaddr_storage t = v4_target(addr, port);
    if (s.policy.data_peer_only && !is_control_peer(s, t)) return reply_code(s, "500", "Illegal PORT Command.") == 0;
    take_target(s, t, port);
    return reply(s, "200 PORT Command okay.\r\n") == 0;
}

bool command_eprt(ftp_session &s) {
    if (s.data.extended_only) return reply_code(s, "501", kActiveDisabled) == 0;
    char copy[FTP_BUF_SIZE];
    (void)ftpd_strlcpy(copy, s.arg, sizeof copy);
    char *p = copy;
    if (*p == '\0') return reply_code(s, "501", kBadIpAddr) == 0;
    char delim = *p++;
    int proto = atoi(p);
    while (isdigit(static_cast<unsigned char>(*p))) p++;
    if (*p != delim) return reply_code(s, "501", kBadIpAddr) == 0;
    p++;
    if (proto == 2) return eprt_v6(s, p, delim) == 0;
    if (proto != 1) return reply(s, "522 Only IPv4 and IPv6 are supported (1,2).\r\n") == 0;
    return eprt_v4(s, p, delim) == 0;
}

bool command_epsv(ftp_session &s) {
    // Every EPSV whose reply went out marks a passive data address, as the device does.
    s.client_port = kPassiveMark;
    const char *arg = s.arg;
    if (strcasecmp(arg, "ALL") == 0) {
        s.data.extended_only = true;
        return reply_code(s, "220", kActiveDisabled) == 0;
    }
    int want = strcmp(arg, "1") == 0 ? AF_INET : strcmp(arg, "2") == 0 ? AF_INET6 : arg[0] == '\0' ? s.family : 0;
    // RFC 2428: a protocol number not served is 522, other text 501.
    if (want == 0 && s.policy.rfc_replies && strspn(arg, "0123456789") == strlen(arg))
        return reply_code(s, "522", "Network protocol not supported, use (%s).", s.family == AF_INET6 ? "2" : "1") == 0;
    if (want == 0) return reply(s, "501 Syntax error in parameters or arguments.\r\n") == 0;
    // A listener of another family than the control connection's could only be reached by
    // another address than the client's.
    if (want != s.family && s.policy.data_peer_only)
        return reply_code(s, "522", "Network protocol not supported, use (%s).", s.family == AF_INET6 ? "2" : "1") == 0;
    int port = s.data.listen(control_local(s), s.ctl.stream.fd(), s.policy.passive_low, s.policy.passive_high);
    if (port < 0) return reply(s, kCantOpen) == 0;
    s.data.set_family(s.family);
    char text[64];
    (void)ftpd_snprintf(text, sizeof text, "Extended Passive mode OK (|||%u|)", static_cast<unsigned>(port));
    if (reply_code(s, "229", "%s", text) == 0) return true;
    s.data.drop_listener();
    return false;
}

bool passive(ftp_session &s) {
    // The wording names active mode although PASV is refused; it is kept as it stands.
    if (s.data.extended_only) return reply_code(s, "501", "Active mode is disabled.\r\n") >= 0;
    s.client_port = kPassiveMark;
    // PASV can only name an IPv4 address: on an IPv6 control connection there is none the client
    // reaches the server on.
    if (s.family != AF_INET) {
        s.data.drop_listener();
        return reply(s, kCantOpen) >= 0;
    }
    int port = s.data.listen(control_local(s), s.ctl.stream.fd(), s.policy.passive_low, s.policy.passive_high);
    if (port < 0) return reply(s, kCantOpen) >= 0;
    s.data.set_family(AF_INET);
    // Behind NAT the reply names the address the platform file gives; the listener stays on ours.
    const auto *a = s.policy.passive_address != nullptr ? s.policy.passive_address
                                                        : reinterpret_cast<const unsigned char *>(&s.addr.ctrl_addr.sin_addr);
    char text[80];
    (void)ftpd_snprintf(text, sizeof text, "Entering Passive Mode (%d,%d,%d,%d,%d,%d).", a[0], a[1], a[2], a[3],
                        (port >> 8) & 0xff, port & 0xff);
    reply_code(s, "227", "%s", text);
    return true;
}
