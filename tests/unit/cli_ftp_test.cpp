// The management commands run through the command-line framework: password screening and its
// messages, type-7 bounds, the user limit, the configuration lines written back (and those never
// written), the single-user forms, the top directory, the method list and the debug switches.
#include <gtest/gtest.h>

#include <string>

#include "cli.h"
#include "cli_internal.h"
#include "fs_info.h"
#include "ftpd.h"
#include "ftpd_test_support.h"
#include "login_pwd.h"
#include "platform_conf.h"

namespace {

struct result {
    int rc;
    std::string out;
};

result run(const std::string &line) {
    result r;
    r.rc = cli_execute_line(line.c_str(), &r.out);
    return r;
}

bool ends_with(const std::string &text, const std::string &tail) {
    std::string t = "\n" + text;
    return t.size() >= tail.size() && t.compare(t.size() - tail.size(), tail.size(), tail) == 0;
}

std::string running_config() {
    return run("show running-config").out;
}

bool has_line(const std::string &text, const std::string &line) {
    return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
}

const char *storage_keywords[FS_STORAGE_SLOTS] = {"flash2", "flash", "sata0", "usb0", "", "tmp", "install", "", "nfs"};

class CliFtpTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        ASSERT_EQ(cli_builtin_register(), 0);
        ASSERT_EQ(cfg_ftp_server_init(), 0);
    }
    void SetUp() override {
        tree_.make_dir("flash");
        tree_.make_dir("flash/dir");
        platform_conf conf;
        for (int i = 0; i < FS_STORAGE_SLOTS; i++) conf.storages.push_back({storage_keywords[i], ""});
        conf.storages[1].dir = tree_.full("flash");
        conf.log_syslog = false;
        platform_set_for_test(conf);
        login_set_service_pwd_encrypt(0);
        ftp_settings_defaults();
        clear_users();
    }
    void TearDown() override {
        clear_users();
        login_set_service_pwd_encrypt(0);
        ftp_settings_defaults();
        platform_set_for_test(platform_conf{});
    }
    static void clear_users() {
        for (auto &row : gb_usinfo) {
            if (row.use_flag == 1) unset_ftp_server_userinfo(std::string(row.username).c_str());
        }
        set_ftp_server_user(nullptr);
        set_ftp_server_password(nullptr, nullptr, 0);
    }
    ftpd_temp_tree tree_;
};

TEST_F(CliFtpTest, PlainPasswordOf25IsAcceptedAnd26Refused) {
    EXPECT_EQ(run("ftp-server username u1 password 0 Abcdefghijklmnopqrstuvw9x").rc, 0);
    result r = run("ftp-server username u2 password Abcdefghijklmnopqrstuvw9xy");
    EXPECT_EQ(r.rc, 1);
    EXPECT_EQ(r.out, "% Password is too long, max length is 25\n");
    EXPECT_EQ(ftp_serch_userinfo("u2"), nullptr);
}

TEST_F(CliFtpTest, PasswordScreeningTrimsBlanksAndNeedsALetterOrDigit) {
    ASSERT_EQ(run("ftp-server username u1 password   Pw1x  ").rc, 0);
    EXPECT_EQ(run("show ftp-server user-password").out, "username:u1 password:Pw1x\n");
    result r = run("ftp-server username u2 password !#$%");
    EXPECT_EQ(r.rc, 1);
    EXPECT_EQ(r.out, "%Password must include letter or number\n");
    EXPECT_EQ(ftp_serch_userinfo("u2"), nullptr);
}

TEST_F(CliFtpTest, EncryptedPasswordBoundsAndDecryption) {
    char enc[FTP_PASSWD_LEN] = {0};
    login_password_encrypt("Hidden7", enc, sizeof enc);
    ASSERT_NE(enc[0], '\0');
    ASSERT_EQ(run(std::string("ftp-server username u1 password 7 ") + enc).rc, 0);
    EXPECT_EQ(run("show ftp-server user-password").out, "username:u1 password:Hidden7\n");
    EXPECT_TRUE(has_line(running_config(), std::string("ftp-server username u1 password 7 ") + enc));

    result r = run("ftp-server username u2 password 7 abc");
    EXPECT_EQ(r.rc, 1);
    EXPECT_EQ(r.out, "% Invalid encrypted password, min length is 4, max length is 52.\n");
    r = run("ftp-server username u2 password 7 " + std::string(53, 'A'));
    EXPECT_EQ(r.out, "% Invalid encrypted password, min length is 4, max length is 52.\n");
    r = run("ftp-server username u2 password 7 zzzz");
    EXPECT_EQ(r.rc, 1);
    EXPECT_EQ(r.out, "% Invalid encrypted password:zzzz\n");
}

TEST_F(CliFtpTest, EleventhUserAndDuplicatesAreRefused) {
    for (int i = 0; i < FTP_MAX_USERS; i++)
        ASSERT_EQ(run("ftp-server username user" + std::to_string(i) + " password Kq7vLp2Xw" + std::to_string(i)).rc,
                  0);
    // The advisory policy may print its verdict first (its text depends on the host's settings).
    result r = run("ftp-server username user10 password Kq7vLp2Xw10");
    EXPECT_EQ(r.rc, 1);
    EXPECT_TRUE(ends_with(r.out, "\n% The number of users has reached the maximum value.\n")) << r.out;
    r = run("ftp-server username user3 password Zt5mWq8Rn3");
    EXPECT_TRUE(ends_with(r.out, "\n% User is already exists.\n")) << r.out;
}

TEST_F(CliFtpTest, RemovingUsersByTheNoForm) {
    ASSERT_EQ(run("ftp-server username u1 password Pw1").rc, 0);
    ASSERT_EQ(run("ftp-server username solo").rc, 0);
    EXPECT_EQ(run("no ftp-server username u1").rc, 0);
    EXPECT_EQ(ftp_serch_userinfo("u1"), nullptr);
    EXPECT_STREQ(get_ftp_server_user(), "");
    result r = run("no ftp-server username u1");
    EXPECT_EQ(r.rc, 1);
    EXPECT_EQ(r.out, "% User is not exists.\n");
}

TEST_F(CliFtpTest, UserLinesFollowTheEncryptionSwitch) {
    ASSERT_EQ(run("ftp-server username u1 password Pw1").rc, 0);
    EXPECT_TRUE(has_line(running_config(), "ftp-server username u1 password Pw1"));
    login_set_service_pwd_encrypt(1);
    std::string cfg = running_config();
    EXPECT_FALSE(has_line(cfg, "ftp-server username u1 password Pw1"));
    EXPECT_NE(cfg.find("ftp-server username u1 password 7 "), std::string::npos);
    // A user entered while the switch is on is stored as type 7 at once.
    ASSERT_EQ(run("ftp-server username u2 password Pw2").rc, 0);
    EXPECT_EQ(ftp_serch_userinfo("u2")->pass_type, 7u);
}

TEST_F(CliFtpTest, SimpleSettingsWriteLinesOnlyWhenNotDefaultAndMaxConnectNever) {
    ASSERT_EQ(run("ftp-server timeout 30").rc, 0);
    ASSERT_EQ(run("ftp-server login timeout 5").rc, 0);
    ASSERT_EQ(run("ftp-server login times 3").rc, 0);
    ASSERT_EQ(run("ftp-server max-user-connect 5").rc, 0);
    EXPECT_EQ(ftpd_user_max_connect, 5u);
    std::string cfg = running_config();
    EXPECT_TRUE(has_line(cfg, "ftp-server timeout 30"));
    EXPECT_TRUE(has_line(cfg, "ftp-server login timeout 5"));
    EXPECT_EQ(cfg.find("login times"), std::string::npos);
    EXPECT_EQ(cfg.find("max-user-connect"), std::string::npos);
    ASSERT_EQ(run("no ftp-server timeout").rc, 0);
    ASSERT_EQ(run("no ftp-server max-user-connect").rc, 0);
    EXPECT_EQ(get_ftp_timeout(), 10u);
    EXPECT_EQ(ftpd_user_max_connect, 10u);
    EXPECT_EQ(running_config().find("ftp-server timeout"), std::string::npos);
}

TEST_F(CliFtpTest, SingleUserFormsAddThePairOnceBothAreKnown) {
    ASSERT_EQ(run("ftp-server username solo").rc, 0);
    EXPECT_EQ(ftp_serch_userinfo("solo"), nullptr);
    ASSERT_EQ(run("ftp-server password 0 Solo1").rc, 0);
    ASSERT_NE(ftp_serch_userinfo("solo"), nullptr);
    EXPECT_STREQ(ftp_serch_userinfo("solo")->password, "Solo1");
    // Once stored, neither half is replaced.
    EXPECT_EQ(run("ftp-server username other").rc, 0);
    EXPECT_STREQ(get_ftp_server_user(), "solo");
    result r = run("ftp-server password 7 abc");
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.out, "");

    clear_users();
    r = run("ftp-server password 7 abc");
    EXPECT_EQ(r.rc, 1);
    EXPECT_EQ(r.out, "Invalid encrypted password, min length is 4, max length is 52.\n");
    r = run("ftp-server username " + std::string(65, 'n'));
    EXPECT_EQ(r.rc, 1);
    EXPECT_EQ(r.out, "Username(" + std::string(65, 'n') + ") is NULL or too long, max length is 64.\n");
}

TEST_F(CliFtpTest, TopDirectoryMessagesAndConfigurationRoundTrip) {
    result r = run("ftp-server topdir nodir");
    EXPECT_EQ(r.rc, 1);
    EXPECT_EQ(r.out, "topdir /nodir don't exist!\n");
    r = run("ftp-server topdir /" + std::string(256, 'a'));
    EXPECT_EQ(r.out, "Root dir /" + std::string(256, 'a') + " too long, max length is 256.\n");

    ASSERT_EQ(run("ftp-server topdir flash:/dir").rc, 0);
    EXPECT_STREQ(get_ftp_server_root_dir(), "flash:/dir");
    std::string cfg = running_config();
    EXPECT_TRUE(has_line(cfg, "ftp-server topdir flash:/dir"));
    ASSERT_EQ(run("no ftp-server topdir").rc, 0);
    EXPECT_EQ(get_ftp_server_root_dir(), nullptr);
    ASSERT_EQ(run("ftp-server topdir flash:/dir").rc, 0);  // the written line replays
    EXPECT_STREQ(get_true_ftp_server_root_dir(), tree_.full("flash/dir").c_str());
}

TEST_F(CliFtpTest, AuthenticationListDefaultNameAndRefusal) {
    ASSERT_EQ(run("ftp-server authentication default").rc, 0);
    EXPECT_TRUE(has_line(running_config(), "ftp-server authentication default"));
    ASSERT_EQ(run("ftp-server authentication mylist").rc, 0);
    EXPECT_STREQ(get_ftp_server_auth(), "mylist");
    result r = run("ftp-server authentication " + std::string(65, 'l'));
    EXPECT_EQ(r.rc, 1);
    EXPECT_EQ(r.out, "authentication list name(" + std::string(65, 'l') + ") is NULL or too long, max length is 64.\n");
    EXPECT_STREQ(get_ftp_server_auth(), "mylist");
    ASSERT_EQ(run("no ftp-server authentication").rc, 0);
    EXPECT_EQ(get_ftp_server_auth(), nullptr);
}

TEST_F(CliFtpTest, DebugSwitchesAndTheirListing) {
    EXPECT_EQ(run("debug ftp-server pro").out, "debug ftp-server pro debugging is on\n");
    EXPECT_EQ(run("show debugging").out, "FTP Server:\n  ftp-server pro debugging is on\n");
    EXPECT_EQ(run("no debug ftp-server pro").out, "debug ftp-server pro debugging is off\n");
    EXPECT_EQ(run("debug ftp-server err").out, "debug ftp-server err debugging is on\n");
    EXPECT_EQ(run("no debug ftp-server err").out, "debug ftp-server err debugging is off\n");
    EXPECT_EQ(run("show debugging").out, "");
    EXPECT_EQ(get_ftp_debug_pro(), 0);
    EXPECT_EQ(get_ftp_debug_err(), 0);
}

}  // namespace
