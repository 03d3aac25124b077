// The show reports: header lines, user rows in plain and encrypted form, connected sessions with
// their control and data addresses, and the user/password listing.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <string>

#include "ftpd.h"

namespace {

std::string captured;

int capture(const char *fmt, ...) {
    char buf[1024];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    captured += buf;
    return n;
}

const char kHeader[] =
    "    ftp-server information\n"
    "===================================\n"
    "enable : N\n"
    "topdir : not config\n"
    "timeout: 10min\n";

struct session {
    char name[FTP_NAME_LEN] = {0};
    char passwd[FTP_PASSWD_LEN] = {0};
    credentials cred{};
    session() {
        cred.name = name;
        cred.passwd = passwd;
        cred.cnt_index = -1;
        cred.data = cred.pdata = -1;
        cred.cnt.tran_type = 1;
    }
};

void set_v4(sockaddr_in *a, const char *ip, int port) {
    a->sin_family = AF_INET;
    inet_pton(AF_INET, ip, &a->sin_addr);
    a->sin_port = htons(static_cast<uint16_t>(port));
}

void set_v6(sockaddr_in6 *a, const char *ip, int port) {
    a->sin6_family = AF_INET6;
    inet_pton(AF_INET6, ip, &a->sin6_addr);
    a->sin6_port = htons(static_cast<uint16_t>(port));
}

class StatusTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ftp_settings_defaults();
        ftpd_user_max_connect = FTP_DEF_USER_CONNECT;
        captured.clear();
    }
    void TearDown() override {
        unset_ftp_server_userinfo("alice");
        unset_ftp_server_userinfo("bob");
    }
};

TEST_F(StatusTest, EmptyTableGivesOnlyTheHeader) {
    dump_ftp_server_information(capture);
    EXPECT_EQ(captured, kHeader);
    captured.clear();
    dump_ftp_server_user_password(capture);
    EXPECT_EQ(captured, "");
}

TEST_F(StatusTest, UsersAreShownPlainOrEncryptedAndListedWithPlainPasswords) {
    ASSERT_EQ(set_ftp_server_userinfo("alice", "secret", nullptr, 0), 0);
    ASSERT_EQ(set_ftp_server_userinfo("bob", "decrypted", "AB12CD", 7), 0);
    dump_ftp_server_information(capture);
    EXPECT_EQ(captured, std::string(kHeader) +
                            "username:alice\npassword:(PLAINT)secret\nconnect num[0]\n"
                            "username:bob\npassword:(ENCRYPT)AB12CD\nconnect num[0]\n");
    captured.clear();
    dump_ftp_server_user_password(capture);
    EXPECT_EQ(captured, "username:alice password:secret\nusername:bob password:decrypted\n");
}

TEST_F(StatusTest, SessionWithoutTransferShowsControlAddressesOnly) {
    ASSERT_EQ(set_ftp_server_userinfo("alice", "secret", nullptr, 0), 0);
    session s;
    s.cred.cnt.contrl_type = AF_INET;
    set_v4(&s.cred.cnt.def_addr.ctrl_addr, "192.0.2.1", 21);
    set_v4(&s.cred.cnt.def_addr.his_addr, "198.51.100.7", 40000);
    ASSERT_EQ(ftp_set_userinfo_connect("alice", &s.cred), 0);
    dump_ftp_server_information(capture);
    EXPECT_EQ(captured, std::string(kHeader) +
                            "username:alice\npassword:(PLAINT)secret\nconnect num[1]\n"
                            "    [0]trans-type:ASCII (ctrl)server IP:192.0.2.1[21]\n"
                            "                               client IP:198.51.100.7[40000]\n");
    ftp_set_userinfo_disconnect(&s.cred);
}

TEST_F(StatusTest, PassiveTransferOverIpv6ShowsTextualDataAddresses) {
    ASSERT_EQ(set_ftp_server_userinfo("alice", "secret", nullptr, 0), 0);
    session s;
    s.cred.cnt.contrl_type = AF_INET6;
    set_v6(&s.cred.cnt.def_addr.ctrl_addrv6, "2001:db8::1", 21);
    set_v6(&s.cred.cnt.def_addr.his_addrv6, "2001:db8::2", 50000);
    ASSERT_EQ(ftp_set_userinfo_connect("alice", &s.cred), 0);
    s.cred.cnt.tran_type = 3;
    s.cred.cnt.data_type = AF_INET6;
    set_v6(&s.cred.cnt.pasv_addrv6, "2001:db8::1", 2000);
    set_v6(&s.cred.cnt.pasv_destv6, "2001:db8::2", 50001);
    s.cred.pdata = 9;
    ASSERT_EQ(ftp_set_userinfo_update(&s.cred), 0);
    dump_ftp_server_information(capture);
    EXPECT_EQ(captured, std::string(kHeader) +
                            "username:alice\npassword:(PLAINT)secret\nconnect num[1]\n"
                            "    [0]trans-type:BINARY (ctrl)server IP:2001:db8::1[21]\n"
                            "                               client IP:2001:db8::2[50000]\n"
                            "                     (data-PASV)server IP:2001:db8::1[2000]\n"
                            "                                client IP:2001:db8::2[50001]\n");
    ftp_set_userinfo_disconnect(&s.cred);
}

}  // namespace
