// The management commands run through the command-line framework: the type-7 upper bound, the
// defaults restored by the "no" forms, the single-user forms and the top directory bounds.
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

TEST_F(CliFtpTest, EncryptedPasswordUpperBoundAndDecryptedListing) {
    char enc[FTP_PASSWD_LEN] = {0};
    login_password_encrypt("Hidden7", enc, sizeof enc);
    ASSERT_EQ(run(std::string("ftp-server username u1 password 7 ") + enc).rc, 0);
    EXPECT_EQ(run("show ftp-server user-password").out, "username:u1 password:Hidden7\n");
    result r = run("ftp-server username u2 password 7 " + std::string(53, 'A'));
    EXPECT_EQ(r.rc, 1);
    EXPECT_EQ(r.out, "% Invalid encrypted password, min length is 4, max length is 52.\n");
}

TEST_F(CliFtpTest, NoFormsRestoreDefaultsAndDropTheirLines) {
    for (const char *line : {"ftp-server timeout 30", "ftp-server login times 3", "ftp-server max-user-connect 5",
                             "ftp-server authentication mylist", "ftp-server topdir flash:/dir"})
        ASSERT_EQ(run(line).rc, 0) << line;
    EXPECT_EQ(ftpd_user_max_connect, 5u);
    EXPECT_STREQ(get_ftp_server_auth(), "mylist");
    EXPECT_STREQ(get_true_ftp_server_root_dir(), tree_.full("flash/dir").c_str());
    std::string cfg = running_config();
    EXPECT_TRUE(has_line(cfg, "ftp-server topdir flash:/dir"));
    EXPECT_EQ(cfg.find("login times"), std::string::npos);  // the default value writes no line
    for (const char *line : {"no ftp-server timeout", "no ftp-server max-user-connect", "no ftp-server authentication",
                             "no ftp-server topdir"})
        ASSERT_EQ(run(line).rc, 0) << line;
    EXPECT_EQ(get_ftp_timeout(), 10u);
    EXPECT_EQ(ftpd_user_max_connect, 10u);
    EXPECT_EQ(get_ftp_server_auth(), nullptr);
    EXPECT_EQ(get_ftp_server_root_dir(), nullptr);
    cfg = running_config();
    for (const char *gone : {"timeout", "authentication", "topdir"})
        EXPECT_EQ(cfg.find(gone), std::string::npos) << gone;
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
    EXPECT_EQ(run("ftp-server password 7 abc").out, "");
    // Removing the user by the pair's name clears the single-user half too.
    EXPECT_EQ(run("no ftp-server username solo").rc, 0);
    EXPECT_STREQ(get_ftp_server_user(), "");

    clear_users();
    result r = run("ftp-server password 7 abc");
    EXPECT_EQ(r.rc, 1);
    EXPECT_EQ(r.out, "Invalid encrypted password, min length is 4, max length is 52.\n");
    r = run("ftp-server username " + std::string(65, 'n'));
    EXPECT_EQ(r.rc, 1);
    EXPECT_EQ(r.out, "Username(" + std::string(65, 'n') + ") is NULL or too long, max length is 64.\n");
    r = run("ftp-server topdir /" + std::string(256, 'a'));
    EXPECT_EQ(r.rc, 1);
    EXPECT_EQ(r.out, "Root dir /" + std::string(256, 'a') + " too long, max length is 256.\n");
}

}  // namespace
