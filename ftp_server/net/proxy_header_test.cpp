// Tests of the PROXY protocol header: a table of valid and invalid headers of both versions, every
// split of each valid one, and the reader leaving the client's first bytes in the socket.
#include "net/proxy_header.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "base/raii.h"

namespace {

std::string v2(unsigned char ver_cmd, unsigned char fam, const std::string &body) {
    std::string h("\r\n\r\n\0\r\nQUIT\n", 12);
    h += static_cast<char>(ver_cmd);
    h += static_cast<char>(fam);
    h += static_cast<char>(body.size() >> 8);
    h += static_cast<char>(body.size() & 0xff);
    return h + body;
}

const std::string kV4Body("\xC0\x00\x02\x01\x0A\x00\x00\x01\xD4\x31\x00\x15", 12);  // 192.0.2.1:54321 -> 10.0.0.1:21
const std::string kV6Body = std::string("\x20\x01\x0d\xb8", 4) + std::string(11, '\0') + "\x07" +
                            std::string(15, '\0') + "\x01" + std::string("\x00\x50\x00\x15", 4);  // 2001:db8::7 port 80

// "ADDRESS PORT" of an address, or "own".
std::string text_of(const sockaddr_storage &ss) {
    char buf[INET6_ADDRSTRLEN] = "";
    if (ss.ss_family == AF_INET) {
        auto &s4 = reinterpret_cast<const sockaddr_in &>(ss);
        inet_ntop(AF_INET, &s4.sin_addr, buf, sizeof buf);
        return std::string(buf) + " " + std::to_string(ntohs(s4.sin_port));
    }
    if (ss.ss_family == AF_INET6) {
        auto &s6 = reinterpret_cast<const sockaddr_in6 &>(ss);
        inet_ntop(AF_INET6, &s6.sin6_addr, buf, sizeof buf);
        return std::string(buf) + " " + std::to_string(ntohs(s6.sin6_port));
    }
    return ss.ss_family == AF_UNSPEC ? "own" : "family " + std::to_string(ss.ss_family);
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
    {"PROXY TCP6 ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff 65535 65535\r\n",
     "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff 65535", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff 65535"},
    {"PROXY UNKNOWN\r\n", "own", "own"},
    {"PROXY UNKNOWN ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff 65535 65535\r\n",
     "own", "own"},  // 107 bytes, the longest
    {v2(0x21, 0x11, kV4Body), "192.0.2.1 54321", "10.0.0.1 21"},
    {v2(0x21, 0x21, kV6Body), "2001:db8::7 80", "::1 21"},
    {v2(0x21, 0x11, kV4Body + std::string("\x04\x00\x03xyz\x02\x00\x00", 9)), "192.0.2.1 54321", "10.0.0.1 21"},
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

TEST(ProxyHeader, ValidHeadersGiveTheirAddressesAndLengthWhateverFollows) {
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
    }
}

// Every proper beginning of a valid header asks for more, never for fewer bytes than it is short
// of nor for more than the whole header: a reader that takes that many never reads past it.
TEST(ProxyHeader, EveryBeginningOfAValidHeaderAsksForNoMoreThanTheRest) {
    for (const valid_row &r : kValid) {
        SCOPED_TRACE(testing::PrintToString(r.header));
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

class ProxyReadTest : public ::testing::Test {
  protected:
    void SetUp() override {
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        server_.reset(sv[0]);
        client_.reset(sv[1]);
    }
    void send_all(const std::string &s) { ASSERT_EQ(write(client_.get(), s.data(), s.size()), (ssize_t)s.size()); }
    // What is left in the socket after the header, up to the client's end.
    std::string rest() {
        client_.reset();
        std::string out;
        char buf[4096];
        ssize_t n;
        while ((n = read(server_.get(), buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
        return out;
    }

    unique_fd server_;
    unique_fd client_;
    sockaddr_storage src_ = {};
    sockaddr_storage dst_ = {};
};

TEST_F(ProxyReadTest, TakesExactlyTheHeaderAndLeavesTheCommandsThatFollow) {
    const std::string tlv = std::string("\x04\x0b\xb8", 3) + std::string(3000, 'n');  // beyond the first buffer
    for (const std::string &header : {kValid[0].header, kValid[5].header, v2(0x21, 0x11, kV4Body + tlv)}) {
        SCOPED_TRACE(testing::PrintToString(header.substr(0, 20)));
        SetUp();
        send_all(header + "USER alice\r\nPASS x\r\n");
        ASSERT_EQ(ftp_proxy_read(server_.get(), 5000, &src_, &dst_), 0);
        EXPECT_EQ(text_of(src_), header[0] == 'P' && header[6] == 'U' ? "own" : "192.0.2.1 54321");
        EXPECT_EQ(rest(), "USER alice\r\nPASS x\r\n");
    }
}

TEST_F(ProxyReadTest, AHeaderArrivingInPiecesIsJoined) {
    const std::string header = kValid[2].header;
    std::thread writer([&] {
        for (size_t at = 0; at < header.size(); at += 7) {
            send_all(header.substr(at, 7) + (at + 7 >= header.size() ? "NOOP\r\n" : ""));
            usleep(2000);
        }
    });
    int rc = ftp_proxy_read(server_.get(), 5000, &src_, &dst_);
    writer.join();
    ASSERT_EQ(rc, 0);
    EXPECT_EQ(text_of(src_), "2001:db8::7 80");
    EXPECT_EQ(rest(), "NOOP\r\n");
}

TEST_F(ProxyReadTest, MalformedClosedOrLateHeadersFail) {
    send_all("PROXY TCP4 192.0.2.1 10.0.0.1 1 02\r\nUSER x\r\n");
    EXPECT_EQ(ftp_proxy_read(server_.get(), 5000, &src_, &dst_), -1);
    SetUp();
    send_all("PROXY TCP4 192.0.2.1");
    client_.reset();
    EXPECT_EQ(ftp_proxy_read(server_.get(), 5000, &src_, &dst_), -1);
    SetUp();
    send_all(v2(0x21, 0x11, kV4Body).substr(0, 20));  // the rest never comes
    EXPECT_EQ(ftp_proxy_read(server_.get(), 100, &src_, &dst_), -1);
    EXPECT_EQ(ftp_proxy_read(-1, 100, &src_, &dst_), -1);
}

}  // namespace
