// Address prefixes of the platform file ("192.0.2.0/24", "2001:db8::/32", a bare address) and
// whether a peer's address falls in one of them. An IPv4-mapped IPv6 address, of a peer or of a
// prefix, counts as the IPv4 address it carries, so that a listener of either family sees the
// same answer for the same client.
#pragma once

#include <sys/socket.h>

#include <string>
#include <vector>

struct platform_net_prefix {
    int family = 0;               // AF_INET or AF_INET6
    unsigned char addr[16] = {};  // network order; an IPv4 address in the first four bytes
    int bits = 0;                 // prefix length: 0-32 or 0-128
};

// One prefix: ADDRESS or ADDRESS/BITS. false with *reason set when the text is not one, or when
// the address has bits set beyond the prefix length (a mistyped network is refused, not guessed).
bool platform_net_prefix_parse(const std::string &text, platform_net_prefix *out, std::string *reason);

// Whether a (AF_INET or AF_INET6) lies in any prefix of list; false for nullptr, other families
// and an empty list.
bool platform_address_in_list(const struct sockaddr *a, const std::vector<platform_net_prefix> &list);
