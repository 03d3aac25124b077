// Data-address commands: the decimal field rule, PORT, EPRT for both families and EPSV, driven
// over a socket pair that stands for the control connection.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "ftpd.h"
#include "ftpd_test_support.h"

namespace {

TEST(Toint, AtMostFourCharactersAndSkippedNonDigitsKeepTheirPlace) {
    EXPECT_EQ(toint("", 0), -1);
    EXPECT_EQ(toint("0010", 1), 10);
    EXPECT_EQ(toint("9999", 1), 9999);
    EXPECT_EQ(toint("00010", 0), -1);
    EXPECT_EQ(toint("1x2", 0), 102);
    EXPECT_EQ(toint("12 ", 0), 120);
    EXPECT_EQ(toint("1x2", 1), -1);
}

class AddressCommands : public ::testing::Test {
  protected:
    void SetUp() override {
        cred_.logged_in = 1;
        cred_.usedefault = 1;
        cred_.listen_pdata = cred_.pdata = cred_.data = -1;
        cred_.ctl_fd = ctl_.near();
        cred_.cnt.contrl_type = AF_INET;
    }
    void TearDown() override {
        for (int fd : {cred_.listen_pdata, cred_.pdata, cred_.data})
            if (fd >= 0) close(fd);
    }
    std::string port(const char *a) { return run(command_port(ctl_.near(), copy(a), addr_, &port_, &cred_)); }
    std::string eprt(const char *a) { return run(command_eprt(ctl_.near(), copy(a), addr_, 48, &port_, &cred_)); }
    std::string epsv(const char *a) { return run(command_epsv(ctl_.near(), copy(a), &cred_)); }
    char *copy(const char *a) { return ftpd_strlcpy(arg_, a, sizeof arg_), arg_; }
    std::string run(int result) {
        EXPECT_EQ(result, 0);
        return ctl_.drain();
    }
    // One end of a fresh connection; peer_ keeps the other end to see it closed.
    int connection() {
        int fds[2];
        socketpair(AF_UNIX, SOCK_STREAM, 0, fds);
        peer_ = unique_fd(fds[1]);
        return fds[0];
    }
    bool peer_closed() {
        char c;
        return recv(peer_.get(), &c, 1, MSG_DONTWAIT) == 0;
    }

    ftpd_socket_pair ctl_;
    credentials cred_{};
    char arg_[512] = {0};
    char addr_[FTP_CLIENT_ADDR_LEN] = {0};
    int port_ = 0;
    unique_fd peer_;
};

TEST_F(AddressCommands, PortKeepsAddressAsTypedAndNeedsUnprivilegedPort) {
    cred_.pdata = connection();
    EXPECT_EQ(port("10,0,0,01,4,1"), "200 PORT Command okay.\r\n");
    EXPECT_STREQ(addr_, "10.0.0.01");
    EXPECT_EQ(port_, 1025);
    EXPECT_EQ(cred_.usedefault, 0);
    EXPECT_EQ(cred_.pdata, -1);
    EXPECT_TRUE(peer_closed());
    EXPECT_EQ(port("10,0,0,1,4,300"), "200 PORT Command okay.\r\n");  // port bytes unchecked
    EXPECT_EQ(port_, 4 * 256 + 300);

    for (const char *bad : {"10,0,0,1,4,0", "0,1,2,3,4,5", "255,1,1,1,4,5", "1,2,3,255,4,5", "00010,0,0,1,4,1", "",
                            "10,0,0", "10,0,0,1,4", "10,,0,1,4,1"})
        EXPECT_EQ(port(bad), "500 Illegal PORT Command.\r\n") << bad;
}

TEST_F(AddressCommands, NotLoggedInAndEpsvAllRefuseActiveMode) {
    cred_.logged_in = 0;
    EXPECT_EQ(port("10,0,0,1,4,1"), "530 Not logged in.\r\n");
    EXPECT_EQ(eprt("|1|10.0.0.1|2000|"), "530 Not logged in.\r\n");
    EXPECT_EQ(epsv(""), "530 Not logged in.\r\n");
    cred_.logged_in = 1;
    EXPECT_EQ(epsv("all"), "220 Active mode is disabled.\r\n");
    EXPECT_TRUE(cred_.epsv_all);
    EXPECT_EQ(cred_.listen_pdata, -1);
    EXPECT_EQ(port("10,0,0,1,4,1"), "501 Active mode is disabled.\r\n");
    EXPECT_EQ(eprt("|1|10.0.0.1|2000|"), "501 Active mode is disabled.\r\n");
    EXPECT_EQ(cred_.usedefault, 1);
}

TEST_F(AddressCommands, EprtIpv4) {
    for (const char *ok : {"|1|10.0.0.1|2000|", "#1#10,0,0,1#2000#"}) {
        EXPECT_EQ(eprt(ok), "200 EPRT Command okay.\r\n") << ok;
        EXPECT_STREQ(addr_, "10.0.0.1");
        EXPECT_EQ(port_, 2000);
    }
    EXPECT_EQ(cred_.cnt.data_type, AF_INET);
    for (const char *bad : {"|1|0.0.0.0|2000|", "|1|10.0.0.1|2000", "|1|10.0.0.1|70000|", "|1|256.0.0.1|2000|",
                            "|1|10.0.0|2000|", "|1-10.0.0.1|2000|", ""})
        EXPECT_EQ(eprt(bad), "501 Syntax error in IP address.\r\n") << bad;
    EXPECT_EQ(eprt("|3|10.0.0.1|2000|"), "522 Only IPv4 and IPv6 are supported (1,2).\r\n");
}

TEST_F(AddressCommands, EprtIpv6ZoneOnlyOnScopedAddresses) {
    EXPECT_EQ(eprt("#2#fe80::1%2#2000#"), "200 EPRT Command okay.\r\n");
    EXPECT_STREQ(addr_, "fe80::1");
    EXPECT_EQ(port_, 2000);
    // Neither a closing delimiter nor a port below 65536 is required here.
    EXPECT_EQ(eprt("|2|::1|70000"), "200 EPRT Command okay.\r\n");
    EXPECT_EQ(port_, 70000);
    cred_.cnt.data_type = AF_INET;
    for (const char *bad : {"|2|2001:db8::1%2|2000|", "|2|fe80::1%0|2000|", "|2|::1|0|", "|2|::1#2000|"})
        EXPECT_EQ(eprt(bad), "501 Syntax error in IP address.\r\n") << bad;
    EXPECT_EQ(cred_.cnt.data_type, AF_INET6);  // set although the command failed
}

TEST_F(AddressCommands, EpsvListensOnAnnouncedPortAndClosesActiveConnection) {
    EXPECT_EQ(epsv("3"), "501 Syntax error in parameters or arguments.\r\n");
    EXPECT_EQ(cred_.listen_pdata, -1);

    cred_.data = connection();
    std::string r = epsv("");
    unsigned announced = 0;
    ASSERT_EQ(sscanf(r.c_str(), "229 Extended Passive mode OK (|||%u|)", &announced), 1) << r;
    EXPECT_EQ(r, "229 Extended Passive mode OK (|||" + std::to_string(announced) + "|)\r\n");
    EXPECT_GE(announced, 1024u);
    sockaddr_in local{};
    socklen_t len = sizeof local;
    ASSERT_EQ(getsockname(cred_.listen_pdata, reinterpret_cast<sockaddr *>(&local), &len), 0);
    EXPECT_EQ(ntohs(local.sin_port), announced);
    EXPECT_EQ(cred_.data, -1);
    EXPECT_TRUE(peer_closed());
}

}  // namespace
