// Packing of AAA attribute elements: the 248-byte value bound, capacity, and the layout and order
// of the basic element set of a request.
#include "aaa.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "base/ftpd.h"
#include "login/login.h"

namespace {

struct elem {
    uint32_t code;
    std::string value;
};

// Walks a packed buffer back into its elements.
std::vector<elem> unpack(const aaa_iovec_s &iov) {
    std::vector<elem> out;
    uint32_t at = 0;
    while (at + 8 <= iov.used) {
        aaa_elem_s head;
        memcpy(&head, iov.data + at, sizeof head);
        if (head.len < 8 || at + head.len > iov.used) break;
        out.push_back({head.code, std::string(iov.data + at + 8, head.len - 8)});
        at += head.len;
    }
    return out;
}

// An element is its 8-byte head and its value; one of 255 bytes is the largest.
TEST(AaaElemTest, ValueBoundCapacityNullAndEmptyValuesAreRefusedWithoutChange) {
    char buf[600];
    aaa_iovec_s iov;
    aaa_iovec_init(&iov, buf, sizeof buf);
    std::string v247(247, 'x'), v248(248, 'x');
    EXPECT_EQ(aaa_add_elem_ext(&iov, 158, v248.data(), 248), 0u);
    EXPECT_EQ(iov.used, 0u);
    EXPECT_EQ(aaa_add_elem_ext(&iov, 158, v247.data(), 247), 255u);

    aaa_iovec_init(&iov, buf, 16);
    EXPECT_EQ(aaa_add_elem_ext(&iov, 1, "12345678", 8), 16u);  // exactly fills
    EXPECT_EQ(aaa_add_elem_ext(&iov, 1, "a", 1), 0u);
    EXPECT_EQ(iov.left, 0u);

    aaa_iovec_init(&iov, buf, 16);
    EXPECT_EQ(aaa_add_elem_ext(&iov, 1, "123456789", 9), 0u);  // needs 17
    EXPECT_EQ(aaa_add_elem_ext(&iov, 1, nullptr, 1), 0u);
    EXPECT_EQ(aaa_add_elem_ext(&iov, 1, "a", 0), 0u);
    EXPECT_EQ(aaa_add_elem_ext(nullptr, 1, "a", 1), 0u);
    EXPECT_EQ(iov.used, 0u);

    aaa_iovec_init(&iov, buf, 0);
    EXPECT_EQ(aaa_add_elem_ext(&iov, 1, "a", 1), 0u);
}

// Walked back into their elements, the packed values lie back to back.
TEST(AaaElemTest, BasicSetCarriesPeerAddressNameAndPasswordInOrder) {
    sockaddr_storage peer{};
    peer.ss_family = AF_INET6;
    inet_pton(AF_INET6, "2001:db8::7", &reinterpret_cast<sockaddr_in6 *>(&peer)->sin6_addr);
    char buf[512];
    aaa_iovec_s iov;
    aaa_iovec_init(&iov, buf, sizeof buf);
    ftp_aaa_secu_set_aaa_elem_basic(15, peer, &iov, "alice", "pw");
    auto elems = unpack(iov);
    ASSERT_EQ(elems.size(), 8u);
    const uint32_t codes[] = {147, 148, 145, 146, 152, 150, 157, 158};
    const char *values[] = {"\x0f", "\x15", "2001:db8::7", "alice", "pw"};
    for (size_t i = 0; i < 8; i++) EXPECT_EQ(elems[i].code, codes[i]) << i;
    for (size_t i = 3; i < 8; i++) EXPECT_EQ(elems[i].value, values[i - 3]) << i;

    // Neither family: the address is "async"; an over-long password is left out.
    aaa_iovec_init(&iov, buf, sizeof buf);
    std::string long_pw(300, 'p');
    peer.ss_family = AF_UNSPEC;
    ftp_aaa_secu_set_aaa_elem_basic(15, peer, &iov, "alice", long_pw.c_str());
    elems = unpack(iov);
    ASSERT_EQ(elems.size(), 7u);
    EXPECT_EQ(elems[5].value, "async");
    EXPECT_EQ(elems[6].code, 157u);
}

}  // namespace
