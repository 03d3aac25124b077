// HELP, SYST and server STAT as the client sees them: the full HELP layout line by line, the
// single-word and SITE forms, SYST with and without an OS name, and the STAT lines.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "ftpd.h"
#include "platform_conf.h"

namespace {

class HelpTest : public ::testing::Test {
  protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv_), 0);
        saved_product_ = ftpd_product_name;
        ftpd_product_name = product_;
    }
    void TearDown() override {
        ftpd_product_name = saved_product_;
        close(sv_[0]);
        close(sv_[1]);
        platform_conf conf;
        platform_conf_set_defaults(&conf);
        platform_set_for_test(conf);
    }
    std::string received() {
        std::string out;
        char buf[4096];
        ssize_t n;
        while ((n = recv(sv_[1], buf, sizeof buf, MSG_DONTWAIT)) > 0) out.append(buf, static_cast<size_t>(n));
        return out;
    }
    std::string help(const char *arg) {
        char buf[FTP_BUF_SIZE];
        ftpd_strlcpy(buf, arg, sizeof buf);
        command_help(sv_[0], buf);
        return received();
    }
    int sv_[2] = {-1, -1};
    char product_[16] = "TESTBOX";
    char *saved_product_ = nullptr;
};

TEST_F(HelpTest, FullListIsNineColumnsBySixLinesFilledColumnByColumn) {
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

TEST_F(HelpTest, SiteListHasOneLineAndThePrefixInItsHeading) {
    const std::string expected =
        "214- The following SITE commands are recognized (* =>is unimplemented).\r\n"
        "214-    UMASK*  IDLE*   CHMOD*  HELP \n"
        "214 Direct comments to ftp-bugs@TESTBOX.\r\n";
    EXPECT_EQ(help("SITE"), expected);
    EXPECT_EQ(help("SITE "), expected);
}

TEST_F(HelpTest, SingleWordIsUpperCasedThenLookedUpExactly) {
    EXPECT_EQ(help("retr"), "214 Syntax: RETR <sp> file-name\r\n");
    EXPECT_EQ(help("abor"), "214 ABOR    \t(abort operation); unimplemented.\r\n");
    EXPECT_EQ(help("xyz"), "502 Unknown command XYZ.\r\n");
    EXPECT_EQ(help("RETRX"), "502 Unknown command RETRX.\r\n");
}

TEST_F(HelpTest, SiteWordsUseTheSiteTableOnlyWhenSiteIsUpperCase) {
    EXPECT_EQ(help("SITE chmod"), "214 SITE CHMOD   \t<sp> mode <sp> file-name; unimplemented.\r\n");
    EXPECT_EQ(help("SITE help"), "214 Syntax: SITE HELP [ <sp> <string> ]\r\n");
    EXPECT_EQ(help("SITE RETR"), "502 Unknown command RETR.\r\n");
    // Lower-case "site" is an ordinary word of the main table.
    EXPECT_EQ(help("site chmod"), "502 Unknown command SITE CHMOD.\r\n");
    EXPECT_EQ(help("site"), "214 SITE    \tsite-cmd [ <sp> arguments ]; unimplemented.\r\n");
}

TEST_F(HelpTest, SystNamesTheOsOrEndsTheSessionWithoutReply) {
    platform_conf conf;
    platform_conf_set_defaults(&conf);
    conf.os_name = "TestOS";
    platform_set_for_test(conf);
    EXPECT_EQ(command_syst(sv_[0]), 0);
    EXPECT_EQ(received(), "215 TestOSType: L8.\r\n");

    conf.os_name = "-";
    platform_set_for_test(conf);
    EXPECT_EQ(command_syst(sv_[0]), -1);
    EXPECT_EQ(received(), "");
}

class StatTest : public HelpTest {
  protected:
    void SetUp() override {
        HelpTest::SetUp();
        no_version = 1;
        memset(&cred_, 0, sizeof cred_);
        cred_.name = name_;
        cred_.logged_in = 1;
        cred_.data = -1;
        cred_.pdata = -1;
        cred_.listen_pdata = -1;
        cred_.usedefault = 1;
        cred_.cnt.tran_type = 1;
    }
    std::string stat() {
        statcmd(sv_[0], sendbuff_, &cred_);
        return received();
    }
    credentials cred_;
    char name_[FTP_NAME_LEN] = "alice";
    char sendbuff_[FTP_BUF_SIZE];
};

TEST_F(StatTest, ActiveAddressLineIPv4HasPortBytesHighFirst) {
    cred_.usedefault = 0;
    cred_.cnt.tran_type = 3;
    cred_.cnt.data_type = AF_INET;
    cred_.cnt.data_dest.sin_family = AF_INET;
    inet_pton(AF_INET, "192.168.1.20", &cred_.cnt.data_dest.sin_addr);
    cred_.cnt.data_dest.sin_port = htons(0x1234);
    EXPECT_EQ(stat(),
              "211- TESTBOX FTP server status:\r\n"
              "     Logged in as alice.\r\n"
              "     TYPE: BINARY.\r\n"
              "     PORT\r\n"
              "     (192,168,1,20,18,52)\n"
              "211 End of status.\r\n");
}

TEST_F(StatTest, PassiveAddressLineIPv6WhileAwaitingPassword) {
    cred_.pdata = 9;
    cred_.cnt.data_type = AF_INET6;
    cred_.cnt.pasv_addrv6.sin6_family = AF_INET6;
    inet_pton(AF_INET6, "2001:db8::5", &cred_.cnt.pasv_addrv6.sin6_addr);
    cred_.cnt.pasv_addrv6.sin6_port = htons(50000);
    cred_.logged_in = 0;
    cred_.askpasswd = 1;
    EXPECT_EQ(stat(),
              "211- TESTBOX FTP server status:\r\n"
              "     Waiting for password.\r\n"
              "     TYPE: ASCII.\r\n"
              "     in Passive mode.\r\n"
              "     (2001:db8::5(50000))\n"
              "211 End of status.\r\n");
}

}  // namespace
