// The PROXY protocol header: a parser of both versions that looks only at the bytes it is given,
// and the reader that takes exactly the header's bytes off a connection, so that the client's
// first command stays in the socket for the session.
#include "net/proxy_header.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <time.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

#include "base/memory.h"

namespace {

const unsigned char kV2Signature[12] = {0x0D, 0x0A, 0x0D, 0x0A, 0x00, 0x0D, 0x0A, 0x51, 0x55, 0x49, 0x54, 0x0A};
const char kV1Prefix[] = "PROXY ";
const size_t kV1PrefixLen = sizeof kV1Prefix - 1;
const size_t kV1Shortest = 15;  // "PROXY UNKNOWN\r\n"
// Version 2 commands and the family and transport nibbles.
const unsigned kV2Local = 0x0;
const unsigned kV2Proxy = 0x1;
const unsigned kFamilyInet = 0x1;
const unsigned kFamilyInet6 = 0x2;
const unsigned kFamilyMax = 0x3;  // AF_UNIX: valid, but its addresses are of no use here
const unsigned kTransportStream = 0x1;
const unsigned kTransportMax = 0x2;

int need(ftp_proxy_header *out, size_t at_least) {
    out->length = at_least;
    return FTP_PROXY_NEED_MORE;
}

int complete_own_endpoints(ftp_proxy_header *out, size_t length) {
    memset(&out->src, 0, sizeof out->src);
    memset(&out->dst, 0, sizeof out->dst);
    out->src.ss_family = AF_UNSPEC;
    out->dst.ss_family = AF_UNSPEC;
    out->length = length;
    return FTP_PROXY_COMPLETE;
}

void set_addr(struct sockaddr_storage *ss, int family, const unsigned char *addr, unsigned port) {
    memset(ss, 0, sizeof *ss);
    if (family == AF_INET) {
        auto *s4 = reinterpret_cast<struct sockaddr_in *>(ss);
        s4->sin_family = AF_INET;
        memcpy(&s4->sin_addr, addr, 4);
        s4->sin_port = htons(static_cast<uint16_t>(port));
    } else {
        auto *s6 = reinterpret_cast<struct sockaddr_in6 *>(ss);
        s6->sin6_family = AF_INET6;
        memcpy(&s6->sin6_addr, addr, 16);
        s6->sin6_port = htons(static_cast<uint16_t>(port));
    }
}

// A version 1 port: decimal 0-65535 without heading zeroes.
bool v1_port(const char *s, size_t n, unsigned *port) {
    if (n == 0 || n > 5 || (s[0] == '0' && n > 1)) return false;
    unsigned v = 0;
    for (size_t i = 0; i < n; i++) {
        if (s[i] < '0' || s[i] > '9') return false;
        v = v * 10 + static_cast<unsigned>(s[i] - '0');
    }
    *port = v;
    return v <= 65535;
}

// A version 1 address of the given family: only the characters of its text form, so that no
// NUL or blank can hide inside; inet_pton refuses heading zeroes in IPv4 itself.
bool v1_address(int family, const char *s, size_t n, unsigned char *addr) {
    char text[INET6_ADDRSTRLEN];
    if (n == 0 || n >= sizeof text) return false;
    for (size_t i = 0; i < n; i++) {
        char c = s[i];
        bool ok = (c >= '0' && c <= '9') || c == '.' ||
                  (family == AF_INET6 && (c == ':' || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F')));
        if (!ok) return false;
    }
    memcpy(text, s, n);
    text[n] = '\0';
    return inet_pton(family, text, addr) == 1;
}

// "TCP4 SRC DST SPORT DPORT" or the same with TCP6: fields separated by exactly one blank.
bool v1_tcp(const char *line, size_t n, ftp_proxy_header *out) {
    const char *field[5];
    size_t len[5];
    size_t count = 0;
    size_t start = 0;
    for (size_t i = 0; i <= n && count < 5; i++) {
        if (i < n && line[i] != ' ') continue;
        field[count] = line + start;
        len[count++] = i - start;
        start = i + 1;
    }
    if (count != 5 || start != n + 1) return false;
    int family = len[0] == 4 && memcmp(field[0], "TCP4", 4) == 0   ? AF_INET
                 : len[0] == 4 && memcmp(field[0], "TCP6", 4) == 0 ? AF_INET6
                                                                   : 0;
    unsigned char src[16];
    unsigned char dst[16];
    unsigned sport = 0;
    unsigned dport = 0;
    if (family == 0 || !v1_address(family, field[1], len[1], src) || !v1_address(family, field[2], len[2], dst) ||
        !v1_port(field[3], len[3], &sport) || !v1_port(field[4], len[4], &dport))
        return false;
    set_addr(&out->src, family, src, sport);
    set_addr(&out->dst, family, dst, dport);
    return true;
}

// Version 1, given that the bytes begin with "PROXY ". Nothing is decoded before the CR LF.
int parse_v1(const unsigned char *p, size_t len, ftp_proxy_header *out) {
    size_t end = 0;
    bool found = false;
    for (size_t i = 0; i < len && i < FTP_PROXY_V1_MAX && !found; i++) {
        if (p[i] == '\n') return FTP_PROXY_MALFORMED;  // a lone LF never ends the line
        if (p[i] != '\r') continue;
        if (i + 1 == len) return i + 2 <= FTP_PROXY_V1_MAX ? need(out, i + 2) : FTP_PROXY_MALFORMED;
        if (p[i + 1] != '\n') return FTP_PROXY_MALFORMED;  // nor a lone CR
        end = i;
        found = true;
    }
    if (!found) return len + 2 <= FTP_PROXY_V1_MAX ? need(out, len + 2) : FTP_PROXY_MALFORMED;
    if (end + 2 > FTP_PROXY_V1_MAX) return FTP_PROXY_MALFORMED;
    const char *rest = reinterpret_cast<const char *>(p) + kV1PrefixLen;
    size_t rest_len = end - kV1PrefixLen;
    // UNKNOWN: whatever follows it up to the CR LF is ignored.
    if (rest_len >= 7 && memcmp(rest, "UNKNOWN", 7) == 0 && (rest_len == 7 || rest[7] == ' '))
        return complete_own_endpoints(out, end + 2);
    if (!v1_tcp(rest, rest_len, out)) return FTP_PROXY_MALFORMED;
    out->length = end + 2;
    return FTP_PROXY_COMPLETE;
}

// Version 2, given that the bytes begin with its signature.
int parse_v2(const unsigned char *p, size_t len, ftp_proxy_header *out) {
    if (len <= 12) return need(out, FTP_PROXY_V2_HEAD);
    unsigned version = p[12] >> 4;
    unsigned command = p[12] & 0xfu;
    if (version != 2 || (command != kV2Local && command != kV2Proxy)) return FTP_PROXY_MALFORMED;
    if (len <= 13) return need(out, FTP_PROXY_V2_HEAD);
    unsigned family = p[13] >> 4;
    unsigned transport = p[13] & 0xfu;
    // A LOCAL command's family is ignored altogether.
    if (command == kV2Proxy && (family > kFamilyMax || transport > kTransportMax)) return FTP_PROXY_MALFORMED;
    if (len < FTP_PROXY_V2_HEAD) return need(out, FTP_PROXY_V2_HEAD);
    size_t body = static_cast<size_t>(p[14]) << 8 | p[15];
    size_t total = FTP_PROXY_V2_HEAD + body;
    bool tcp =
        command == kV2Proxy && transport == kTransportStream && (family == kFamilyInet || family == kFamilyInet6);
    size_t addr_len = !tcp ? 0 : family == kFamilyInet ? 12 : 36;
    if (body < addr_len) return FTP_PROXY_MALFORMED;
    if (len < total) return need(out, total);
    // Everything else falls back to the connection's own endpoints; TLVs after the addresses are
    // skipped.
    if (!tcp) return complete_own_endpoints(out, total);
    const unsigned char *a = p + FTP_PROXY_V2_HEAD;
    size_t n = family == kFamilyInet ? 4 : 16;
    int af = family == kFamilyInet ? AF_INET : AF_INET6;
    const unsigned char *ports = a + 2 * n;
    set_addr(&out->src, af, a, static_cast<unsigned>(ports[0]) << 8 | ports[1]);
    set_addr(&out->dst, af, a + n, static_cast<unsigned>(ports[2]) << 8 | ports[3]);
    out->length = total;
    return FTP_PROXY_COMPLETE;
}

long long now_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// 0 once fd is readable (or closed); -1 when the deadline passed or the wait failed.
int wait_readable(int fd, long long deadline) {
    for (;;) {
        long long left = deadline - now_ms();
        if (left <= 0) return -1;
        struct pollfd pfd = {fd, POLLIN, 0};
        int r = poll(&pfd, 1, static_cast<int>(left));
        if (r > 0) return 0;
        if (r < 0 && errno != EINTR) return -1;
    }
}

// Takes exactly n bytes off fd (bytes already seen by a peek, so they are there).
int take(int fd, unsigned char *buf, size_t n, long long deadline) {
    while (n > 0) {
        ssize_t got = recv(fd, buf, n, MSG_DONTWAIT);
        if (got > 0) {
            buf += got;
            n -= static_cast<size_t>(got);
            continue;
        }
        if (got == 0 || (errno != EINTR && errno != EAGAIN)) return -1;
        if (errno == EAGAIN && wait_readable(fd, deadline) != 0) return -1;
    }
    return 0;
}

}  // namespace

int ftp_proxy_parse(const void *data, size_t len, struct ftp_proxy_header *out) {
    if (out == nullptr || (data == nullptr && len > 0)) return FTP_PROXY_MALFORMED;
    const auto *p = static_cast<const unsigned char *>(data);
    if (len == 0) return need(out, kV1Shortest);
    if (p[0] == kV1Prefix[0]) {
        size_t n = len < kV1PrefixLen ? len : kV1PrefixLen;
        if (memcmp(p, kV1Prefix, n) != 0) return FTP_PROXY_MALFORMED;
        return len < kV1PrefixLen ? need(out, kV1Shortest) : parse_v1(p, len, out);
    }
    size_t n = len < sizeof kV2Signature ? len : sizeof kV2Signature;
    if (memcmp(p, kV2Signature, n) != 0) return FTP_PROXY_MALFORMED;
    return parse_v2(p, len, out);
}

int ftp_proxy_read(int fd, int timeout_ms, struct sockaddr_storage *src, struct sockaddr_storage *dst) {
    if (fd < 0 || src == nullptr || dst == nullptr) return -1;
    long long deadline = now_ms() + (timeout_ms > 0 ? timeout_ms : 0);
    // Room for any version 1 header and a version 2 one with a few TLVs; a longer version 2
    // header gets a block of its exact length.
    unsigned char small[256];
    ftpd_block large;
    unsigned char *buf = small;
    size_t cap = sizeof small;
    size_t have = 0;
    for (;;) {
        if (wait_readable(fd, deadline) != 0) return -1;
        ssize_t n = recv(fd, buf + have, cap - have, MSG_PEEK | MSG_DONTWAIT);
        if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN)) return -1;
        if (n < 0) continue;
        ftp_proxy_header h;
        int status = ftp_proxy_parse(buf, have + static_cast<size_t>(n), &h);
        if (status == FTP_PROXY_MALFORMED) return -1;
        // Bytes that do not yet make a whole header all belong to it; of a whole one, only its own.
        size_t step = status == FTP_PROXY_COMPLETE ? h.length - have : static_cast<size_t>(n);
        if (take(fd, buf + have, step, deadline) != 0) return -1;
        have += step;
        if (status == FTP_PROXY_COMPLETE) {
            *src = h.src;
            *dst = h.dst;
            return 0;
        }
        if (h.length > cap) {
            ftpd_block grown(FTPD_M_TMP, h.length);
            if (!grown) return -1;
            memcpy(grown.get(), buf, have);
            large = std::move(grown);
            buf = reinterpret_cast<unsigned char *>(large.get());
            cap = h.length;
        }
    }
}
