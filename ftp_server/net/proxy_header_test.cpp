// Tests of the PROXY protocol header: a table of valid and invalid headers of both versions, every
// split of each valid one, and the reader leaving the client's first bytes in the socket.
#include "net/proxy_header.h"

#include <gtest/gtest.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <thread>

#include "ftpd_test_support.h"

namespace {

// A version 2 header: signature, version and command, family and transport, length, block.
std::string v2(char ver_cmd, char fam, const std::string &body) {
    const char len[] = {static_cast<char>(body.size() >> 8), static_cast<char>(body.size() & 0xff)};
    return std::string("\r\n\r\n\0\r\nQUIT\n", 12) + ver_cmd + fam + std::string(len, 2) + body;
}

const std::string kV4Body("\xC0\x00\x02\x01\x0A\x00\x00\x01\xD4\x31\x00\x15", 12);  // 192.0.2.1:54321 -> 10.0.0.1:21
const std::string kV6Body = std::string("\x20\x01\x0d\xb8", 4) + std::string(11, '\0') + "\x07" +
                            std::string(15, '\0') + "\x01" + std::string("\x00\x50\x00\x15", 4);  // 2001:db8::7 port 80

// "ADDRESS PORT" of an address, or "own".
std::string text_of(const sockaddr_storage &ss) {
    char host[NI_MAXHOST], port[NI_MAXSERV];
    if (ss.ss_family == AF_UNSPEC) return "own";
    if (getnameinfo(reinterpret_cast<const sockaddr *>(&ss), sizeof ss, host, sizeof host, port, sizeof port,
                    NI_NUMERICHOST | NI_NUMERICSERV) != 0)
        return "family " + std::to_string(ss.ss_family);
    return std::string(host) + " " + port;
}

struct valid_row {
    std::string header;
    const char *src;
    const char *dst;
};

const valid_row kValid[] = {
    {"PROXY TCP4 192.0.2.1 10.0.0.1 54321 21\r\n", "192.0.2.1 54321", "10.0.0.1 21"},
    {"PROXY TCP4 255.255.255.255 0.0.0.0 65535 0\r\n", "255.255.255.255 65535", "0.0.0.0 0"},
    {"PROXY TCP6 2001:db8::7 2001:DB8::1 80 21\r\n", "2001:db8::7 80", "2001:db8::1 21"},
    {"PROXY UNKNOWN\r\n", "own", "own"},
    {"PROXY UNKNOWN ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff 65535 65535\r\n",
     "own", "own"},  // 107 bytes, the longest
    {v2(0x21, 0x11, kV4Body), "192.0.2.1 54321", "10.0.0.1 21"},
    {v2(0x21, 0x21, kV6Body), "2001:db8::7 80", "::1 21"},
    {v2(0x20, 0x00, ""), "own", "own"},                     // LOCAL: a health check
    {v2(0x20, 0xff, kV4Body), "own", "own"},                // LOCAL ignores the family and skips the block
    {v2(0x21, 0x00, "abc"), "own", "own"},                  // PROXY, unspecified
    {v2(0x21, 0x12, kV4Body), "own", "own"},                // UDP: the connection's own endpoints
    {v2(0x21, 0x31, std::string(216, 'u')), "own", "own"},  // AF_UNIX
};

const std::string kInvalid[] = {
    "GET / HTTP/1.0\r\n",
    "USER alice\r\n",
    "proxy TCP4 192.0.2.1 10.0.0.1 1 2\r\n",
    "PROXY  TCP4 192.0.2.1 10.0.0.1 1 2\r\n",
    "PROXY TCP4 192.0.2.1 10.0.0.1 1 2\n",
    "PROXY TCP4 192.0.2.1 10.0.0.1 1 2\rX",
    "PROXY TCP4 192.0.2.1 10.0.0.1 1 2 \r\n",
    "PROXY TCP4 192.0.2.1  10.0.0.1 1 2\r\n",
    "PROXY TCP4 192.0.2.1 10.0.0.1 1\r\n",
    "PROXY TCP4 192.0.2.1 10.0.0.1 1 2 3\r\n",
    "PROXY TCP4 192.0.2.01 10.0.0.1 1 2\r\n",
    "PROXY TCP4 192.0.2.1 10.0.0.1 01 2\r\n",
    "PROXY TCP4 192.0.2.1 10.0.0.1 1 65536\r\n",
    "PROXY TCP4 192.0.2.1 10.0.0.1 -1 2\r\n",
    "PROXY TCP4 2001:db8::1 10.0.0.1 1 2\r\n",
    "PROXY TCP6 192.0.2.1 2001:db8::1 1 2\r\n",
    std::string("PROXY TCP4 192.0.2.1\0 10.0.0.1 1 2\r\n", 36),
    "PROXY TCP5 192.0.2.1 10.0.0.1 1 2\r\n",
    "PROXY UNKNOWNX\r\n",
    "PROXY UNKNOWN " + std::string(92, 'x') + "\r\n",  // CR LF past the 107th byte
    "PROXY " + std::string(101, 'x'),                  // 107 bytes and no CR LF
    v2(0x11, 0x11, kV4Body),                           // version 1 in a version 2 header
    v2(0x22, 0x11, kV4Body),                           // command 2
    v2(0x21, 0x41, kV4Body),                           // family 4
    v2(0x21, 0x13, kV4Body),                           // transport 3
    v2(0x21, 0x11, kV4Body.substr(0, 11)),             // block shorter than two IPv4 addresses
    v2(0x21, 0x21, kV4Body),                           // and than two IPv6 ones
    std::string("\r\n\r\n\0\r\nQUIX\n", 12),
};

// Every proper beginning of a valid header asks for more, never for fewer bytes than it is short
// of nor for more than the whole header: a reader that takes that many never reads past it.
TEST(ProxyHeader, ValidHeadersGiveTheirAddressesAndLengthWhateverFollowsAndTheirBeginningsAskForTheRest) {
    for (const valid_row &r : kValid) {
        SCOPED_TRACE(testing::PrintToString(r.header));
        for (const std::string &after : {std::string(), std::string("USER alice\r\n"), std::string("\r\n\r\n\0", 5)}) {
            std::string bytes = r.header + after;
            ftp_proxy_header h;
            ASSERT_EQ(ftp_proxy_parse(bytes.data(), bytes.size(), &h), FTP_PROXY_COMPLETE);
            EXPECT_EQ(h.length, r.header.size());
            EXPECT_EQ(text_of(h.src), r.src);
            EXPECT_EQ(text_of(h.dst), r.dst);
        }
        for (size_t n = 0; n < r.header.size(); n++) {
            ftp_proxy_header h;
            ASSERT_EQ(ftp_proxy_parse(r.header.data(), n, &h), FTP_PROXY_NEED_MORE) << n;
            EXPECT_GT(h.length, n);
            EXPECT_LE(h.length, r.header.size());
        }
    }
}

TEST(ProxyHeader, InvalidHeadersAreRefusedOnceTheirFaultHasArrived) {
    for (const std::string &bad : kInvalid) {
        SCOPED_TRACE(testing::PrintToString(bad));
        ftp_proxy_header h;
        EXPECT_EQ(ftp_proxy_parse(bad.data(), bad.size(), &h), FTP_PROXY_MALFORMED);
        // Appending what a valid header would end with must not rescue it.
        std::string more = bad + "\r\n" + std::string(300, 'x');
        EXPECT_EQ(ftp_proxy_parse(more.data(), more.size(), &h), FTP_PROXY_MALFORMED);
    }
}

// A version 1 header followed by commands, and a malformed one refused: the operations integration
// test; version 2 through a real balancer: the HAProxy one.
// The reader on a connection: what the client sends, in pieces of `piece` bytes (0: at once),
// then closes or (src nullptr) keeps open; what the reader takes within `ms`, and what it leaves
// for the commands.
TEST(ProxyRead, TakesExactlyTheHeaderAndFailsOnMalformedClosedOrLateOnes) {
    const std::string tlv = std::string("\x04\x0b\xb8", 3) + std::string(3000, 'n');  // beyond the first buffer
    const std::string cmds = "USER alice\r\nPASS x\r\n";
    const struct {
        std::string sent;
        size_t piece;
        int ms, rc;
        const char *src;
    } rows[] = {
        {v2(0x21, 0x11, kV4Body + tlv) + cmds, 0, 5000, 0, "192.0.2.1 54321"},
        {kValid[2].header + cmds, 7, 5000, 0, "2001:db8::7 80"},  // joined from its pieces
        {"PROXY TCP4 192.0.2.1", 0, 5000, -1, ""},                     // closed before its end
        {v2(0x21, 0x11, kV4Body).substr(0, 20), 0, 100, -1, nullptr},  // the rest never comes
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(testing::PrintToString(r.sent.substr(0, 20)));
        ftpd_socket_pair pair;
        std::thread client([&] {
            const size_t piece = r.piece != 0 ? r.piece : r.sent.size();
            for (size_t at = 0; at < r.sent.size(); at += piece) {
                ASSERT_GT(send(pair.far(), r.sent.data() + at, std::min(piece, r.sent.size() - at), 0), 0);
                usleep(2000);
            }
            if (r.src != nullptr) pair.close_far();
        });
        sockaddr_storage src = {}, dst = {};
        EXPECT_EQ(ftp_proxy_read(pair.near(), r.ms, &src, &dst), r.rc);
        client.join();
        if (r.rc != 0) continue;
        EXPECT_EQ(text_of(src), r.src);
        EXPECT_EQ(ftpd_read_all(pair.near()), cmds);
    }
}

}  // namespace
