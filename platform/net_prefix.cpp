// Address prefixes: parsing the platform file's form and matching a peer's address against a
// list of them, with IPv4-mapped IPv6 addresses folded to IPv4 on both sides.
#include "net_prefix.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdlib>
#include <cstring>

namespace {

const unsigned char kMappedHead[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

bool is_mapped(const unsigned char *a16) {
    return memcmp(a16, kMappedHead, sizeof kMappedHead) == 0;
}

// Whether the first bits of a and b agree.
bool same_head(const unsigned char *a, const unsigned char *b, int bits) {
    int whole = bits / 8;
    if (memcmp(a, b, static_cast<size_t>(whole)) != 0) return false;
    int rest = bits % 8;
    if (rest == 0) return true;
    unsigned mask = (0xffu << (8 - rest)) & 0xffu;
    return (a[whole] & mask) == (b[whole] & mask);
}

bool bits_beyond(const unsigned char *a, int len, int bits) {
    for (int i = bits; i < len * 8; i++)
        if (a[i / 8] & (0x80u >> (i % 8))) return true;
    return false;
}

}  // namespace

bool platform_net_prefix_parse(const std::string &text, platform_net_prefix *out, std::string *reason) {
    size_t slash = text.find('/');
    std::string host = text.substr(0, slash);
    platform_net_prefix p;
    if (inet_pton(AF_INET, host.c_str(), p.addr) == 1) {
        p.family = AF_INET;
    } else if (inet_pton(AF_INET6, host.c_str(), p.addr) == 1) {
        p.family = AF_INET6;
    } else {
        *reason = "not an IPv4 or IPv6 address '" + text + "'";
        return false;
    }
    int max = p.family == AF_INET ? 32 : 128;
    p.bits = max;
    if (slash != std::string::npos) {
        const char *s = text.c_str() + slash + 1;
        char *end = nullptr;
        long v = strtol(s, &end, 10);
        if (*s < '0' || *s > '9' || *end != '\0' || v > max) {
            *reason = "bad prefix length in '" + text + "'";
            return false;
        }
        p.bits = static_cast<int>(v);
    }
    if (bits_beyond(p.addr, max / 8, p.bits)) {
        *reason = "address '" + text + "' has bits set beyond its prefix length";
        return false;
    }
    if (p.family == AF_INET6 && p.bits >= 96 && is_mapped(p.addr)) {
        memmove(p.addr, p.addr + 12, 4);
        memset(p.addr + 4, 0, 12);
        p.family = AF_INET;
        p.bits -= 96;
    }
    *out = p;
    return true;
}

bool platform_address_in_list(const struct sockaddr *a, const std::vector<platform_net_prefix> &list) {
    if (a == nullptr) return false;
    int family;
    const unsigned char *bytes;
    if (a->sa_family == AF_INET) {
        family = AF_INET;
        bytes = reinterpret_cast<const unsigned char *>(&reinterpret_cast<const sockaddr_in *>(a)->sin_addr);
    } else if (a->sa_family == AF_INET6) {
        bytes = reinterpret_cast<const unsigned char *>(&reinterpret_cast<const sockaddr_in6 *>(a)->sin6_addr);
        family = is_mapped(bytes) ? AF_INET : AF_INET6;
        if (family == AF_INET) bytes += 12;
    } else {
        return false;
    }
    for (const platform_net_prefix &p : list)
        if (p.family == family && same_head(bytes, p.addr, p.bits)) return true;
    return false;
}
