// What the server reports: HELP, SYST and STAT as the client sees them (the full HELP layout, the
// SITE forms, SYST without an OS name, the STAT active address line), and the show reports (user
// rows in plain and encrypted form, the user/password listing, a passive IPv6 transfer).
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "ftpd.h"
#include "ftpd_test_support.h"
#include "platform_conf.h"

namespace {

class ReportTest : public ::testing::Test {
  protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        saved_product_ = ftpd_product_name;
        ftpd_product_name = product_;
    }
    void TearDown() override {
        ftpd_product_name = saved_product_;
        platform_conf conf;
        platform_conf_set_defaults(&conf);
        platform_set_for_test(conf);
    }
    std::string help(const char *arg) {
        char buf[FTP_BUF_SIZE];
        ftpd_strlcpy(buf, arg, sizeof buf);
        command_help(sock_.near(), buf);
        return sock_.drain();
    }
    ftpd_socket_pair sock_;
    char product_[16] = "TESTBOX";
    char *saved_product_ = nullptr;
};

TEST_F(ReportTest, FullListIsNineColumnsBySixLinesFilledColumnByColumn) {
    EXPECT_EQ(help(""),
              "214- The following commands are recognized (* =>is unimplemented).\r\n"
              "214-    USER    PORT    STOR    MSAM*   RNTO    NLST    MKD     CDUP    OPTS*\n"
              "214-    PASS    PASV    APPE*   MRSQ*   ABOR*   SITE*   XMKD*   XCUP*   AUTH*\n"
              "214-    ACCT*   TYPE    MLFL*   MRCP*   DELE    SYST    RMD     STOU*   PBSZ*\n"
              "214-    SMNT*   STRU*   MAIL*   ALLO*   CWD     STAT    XRMD*   SIZE    PROT*\n"
              "214-    REIN*   MODE*   MSND*   REST    XCWD*   HELP    PWD     MDTM    EPRT \n"
              "214-    QUIT    RETR    MSOM*   RNFR    LIST    NOOP*   XPWD*   FEAT*   EPSV \n"
              "214 Direct comments to ftp-bugs@TESTBOX.\r\n");
}

TEST_F(ReportTest, SiteTableIsUsedOnlyWhenSiteIsUpperCase) {
    const std::string site_list =
        "214- The following SITE commands are recognized (* =>is unimplemented).\r\n"
        "214-    UMASK*  IDLE*   CHMOD*  HELP \n"
        "214 Direct comments to ftp-bugs@TESTBOX.\r\n";
    const std::pair<const char *, std::string> rows[] = {
        {"SITE", site_list},
        {"SITE ", site_list},
        {"SITE help", "214 Syntax: SITE HELP [ <sp> <string> ]\r\n"},
        {"SITE RETR", "502 Unknown command RETR.\r\n"},
        {"RETRX", "502 Unknown command RETRX.\r\n"},
        // Lower-case "site" is an ordinary word of the main table.
        {"site chmod", "502 Unknown command SITE CHMOD.\r\n"},
        {"site", "214 SITE    \tsite-cmd [ <sp> arguments ]; unimplemented.\r\n"},
    };
    for (const auto &[arg, expected] : rows) EXPECT_EQ(help(arg), expected) << arg;
}

TEST_F(ReportTest, SystWithoutOsNameEndsTheSessionWithoutReply) {
    platform_conf conf;
    platform_conf_set_defaults(&conf);
    conf.os_name = "-";
    platform_set_for_test(conf);
    EXPECT_EQ(command_syst(sock_.near()), -1);
    EXPECT_EQ(sock_.drain(), "");
}

TEST_F(ReportTest, StatShowsTheActiveAddressWithPortBytesHighFirst) {
    no_version = 1;
    char sendbuff[FTP_BUF_SIZE];
    ftpd_named_session s;
    ftpd_strlcpy(s.name, "alice", sizeof s.name);
    s.cred.logged_in = 1;
    s.cred.cnt.tran_type = 3;
    s.cred.cnt.data_type = AF_INET;
    s.cred.cnt.data_dest.sin_family = AF_INET;
    inet_pton(AF_INET, "192.168.1.20", &s.cred.cnt.data_dest.sin_addr);
    s.cred.cnt.data_dest.sin_port = htons(0x1234);
    statcmd(sock_.near(), sendbuff, &s.cred);
    EXPECT_EQ(sock_.drain(),
              "211- TESTBOX FTP server status:\r\n     Logged in as alice.\r\n     TYPE: BINARY.\r\n"
              "     PORT\r\n     (192,168,1,20,18,52)\n211 End of status.\r\n");
}

const char kHeader[] =
    "    ftp-server information\n===================================\nenable : N\ntopdir : not config\n"
    "timeout: 10min\n";

void set_v6(sockaddr_in6 *a, const char *ip, int port) {
    a->sin6_family = AF_INET6;
    inet_pton(AF_INET6, ip, &a->sin6_addr);
    a->sin6_port = htons(static_cast<uint16_t>(port));
}

class ShowTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ftp_settings_defaults();
        ftpd_user_max_connect = FTP_DEF_USER_CONNECT;
        ftpd_captured().clear();
    }
    void TearDown() override {
        unset_ftp_server_userinfo("alice");
        unset_ftp_server_userinfo("bob");
    }
};

TEST_F(ShowTest, UsersAreShownPlainOrEncryptedAndListedWithPlainPasswords) {
    ASSERT_EQ(set_ftp_server_userinfo("alice", "secret", nullptr, 0), 0);
    ASSERT_EQ(set_ftp_server_userinfo("bob", "decrypted", "AB12CD", 7), 0);
    dump_ftp_server_information(ftpd_capture);
    EXPECT_EQ(ftpd_captured(), std::string(kHeader) +
                                   "username:alice\npassword:(PLAINT)secret\nconnect num[0]\n"
                                   "username:bob\npassword:(ENCRYPT)AB12CD\nconnect num[0]\n");
    ftpd_captured().clear();
    dump_ftp_server_user_password(ftpd_capture);
    EXPECT_EQ(ftpd_captured(), "username:alice password:secret\nusername:bob password:decrypted\n");
}

TEST_F(ShowTest, PassiveTransferOverIpv6ShowsTextualDataAddresses) {
    ASSERT_EQ(set_ftp_server_userinfo("alice", "secret", nullptr, 0), 0);
    ftpd_named_session s;
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
    dump_ftp_server_information(ftpd_capture);
    EXPECT_EQ(ftpd_captured(), std::string(kHeader) +
                                   "username:alice\npassword:(PLAINT)secret\nconnect num[1]\n"
                                   "    [0]trans-type:BINARY (ctrl)server IP:2001:db8::1[21]\n"
                                   "                               client IP:2001:db8::2[50000]\n"
                                   "                     (data-PASV)server IP:2001:db8::1[2000]\n"
                                   "                                client IP:2001:db8::2[50001]\n");
    ftp_set_userinfo_disconnect(&s.cred);
}

}  // namespace
