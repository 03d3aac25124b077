// USER and PASS over a socket pair: the server's own user table, the AAA-not-registered refusals,
// and the AAA paths (method lists and the local user database with its login check and online
// count), with the replies read back from the client's end.
#include <crypt.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "aaa.h"
#include "ftpd.h"
#include "ftpd_test_support.h"
#include "platform_conf.h"

namespace {

// A session record as the loop sets it up, with the loop's own name buffer.
struct login_session {
    char name[FTP_NAME_LEN] = {0};
    char passwd[FTP_PASSWD_LEN] = {0};
    char client_name[FTP_NAME_LEN] = {0};
    char arg[FTP_BUF_SIZE] = {0};
    credentials cred{};
    ftpd_socket_pair sock;
    login_session() {
        cred.name = name;
        cred.passwd = passwd;
        cred.cnt_index = -1;
        cred.data = cred.pdata = -1;
        cred.cnt.contrl_type = AF_INET;
    }
    ~login_session() {
        if (cred.logged_local_aaa_in) ftp_update_online_count(client_name, 0);
        ftp_aaa_del_user(&cred);
        ftp_set_userinfo_disconnect(&cred);
        if (cred.message != nullptr) ftpd_free(FTPD_M_PCRED_MSG, cred.message);
    }
    int user(const std::string &a) {
        snprintf(arg, sizeof arg, "%s", a.c_str());
        return ::user(sock.near(), arg, &cred, client_name);
    }
    int pass(const std::string &a) {
        snprintf(arg, sizeof arg, "%s", a.c_str());
        return ::pass(sock.near(), arg, &cred, client_name);
    }
    std::string replies() const { return sock.drain(); }
};

const char kNotLoggedIn[] = "530 Not logged in.\r\n";
const char kDenied[] = "530 Password access denied.\r\n";
const char kOk331[] = "331 User name okay, need password.\r\n";
const char kOk230[] = "230 User logged in, proceed.\r\n";

class LoginTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ftp_settings_defaults();
        ASSERT_EQ(set_ftp_server_userinfo("alice", "secret", nullptr, 0), 0);
        conf_.log_syslog = false;
        conf_.log_file = tree_.full("log.txt");
        conf_.user_database = tree_.full("users.ini");
        apply();
        g_aaa_ready = false;
    }
    void TearDown() override {
        unset_ftp_server_userinfo("alice");
        set_ftp_server_auth(nullptr);
        g_aaa_ready = false;
        platform_set_for_test(platform_conf{});
    }
    void apply() { platform_set_for_test(conf_); }
    void write_db(const std::string &text) { std::ofstream(tree_.full("users.ini")) << text; }
    std::string log_text() const {
        std::ifstream in(tree_.full("log.txt"));
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    void register_aaa() {
        g_aaa_ready = false;
        ASSERT_EQ(ftp_aaa_init(), 1);
    }
    static int online(const char *name) {
        username_lib_user_s u{};
        if (username_lib_copy_user(name, &u) != 0) return -1;
        username_lib_release_user(&u);
        return u.online_count;
    }
    ftpd_temp_tree tree_;
    platform_conf conf_;
};

TEST_F(LoginTest, TableUserLogsInWithExactPassword) {
    login_session s;
    EXPECT_EQ(s.user("alice"), 0);
    EXPECT_EQ(s.pass("secret"), 0);
    EXPECT_EQ(s.replies(), std::string(kOk331) + kOk230);
    EXPECT_EQ(s.cred.logged_in, 1);
    EXPECT_FALSE(s.cred.logged_local_aaa_in);
    EXPECT_EQ(s.cred.cnt_index, 0);
}

TEST_F(LoginTest, PassOutOfSequenceAnswers503) {
    login_session s;
    EXPECT_EQ(s.pass("secret"), 0);
    EXPECT_EQ(s.replies(), "503 Bad sequence of commands.\r\n");
    ASSERT_EQ(s.user("alice"), 0);
    ASSERT_EQ(s.pass("secret"), 0);
    s.replies();
    EXPECT_EQ(s.pass("secret"), 0);  // already logged in
    // A new USER after login rebinds the session, which stays logged in.
    EXPECT_EQ(s.user("alice"), 0);
    EXPECT_EQ(s.pass("secret"), 0);
    EXPECT_EQ(s.replies(),
              std::string("503 Bad sequence of commands.\r\n") + kOk331 + "503 Bad sequence of commands.\r\n");
    EXPECT_EQ(gb_usinfo[0].connect_num, 1);
}

TEST_F(LoginTest, WithoutAaaWrongPasswordsAndUnknownNamesAreRefused) {
    login_session s;
    ASSERT_EQ(s.user("alice"), 0);
    EXPECT_EQ(s.pass("Secret"), -1);
    ASSERT_EQ(s.user("alice"), 0);
    EXPECT_EQ(s.pass("secre"), -1);
    ASSERT_EQ(s.user("alice"), 0);
    EXPECT_EQ(s.pass(""), -1);
    EXPECT_EQ(s.replies(), std::string(kOk331) + kNotLoggedIn + kOk331 + kNotLoggedIn + kOk331 + kNotLoggedIn);
    EXPECT_EQ(s.cred.logged_in, 0);

    login_session t;
    EXPECT_EQ(t.user("bob"), -1);
    EXPECT_EQ(t.replies(), "530 User bob access denied.\r\n");
    EXPECT_EQ(t.pass("x"), 0);  // no password is awaited
    EXPECT_EQ(t.replies(), "503 Bad sequence of commands.\r\n");
}

TEST_F(LoginTest, UnknownNameStillGets331WhenAaaIsRegistered) {
    register_aaa();
    login_session s;
    EXPECT_EQ(s.user("bob"), 0);
    EXPECT_EQ(s.replies(), kOk331);
    EXPECT_EQ(s.cred.askpasswd, 1);
    EXPECT_EQ(s.cred.message, nullptr);  // composed and dropped
}

TEST_F(LoginTest, GuestSessionIsRefused) {
    login_session s;
    ASSERT_EQ(s.user("alice"), 0);
    s.cred.guest = 1;
    EXPECT_EQ(s.pass("secret"), -1);
    EXPECT_EQ(s.replies(), std::string(kOk331) + kDenied);
}

TEST_F(LoginTest, MethodListFallsToLocalDatabaseWithLoginCheckAndOnlineCount) {
    write_db("[user carol]\npassword = pw1\nonline_amount = 2\n");
    register_aaa();
    {
        login_session a, b, c;
        ASSERT_EQ(a.user("carol"), 0);
        EXPECT_EQ(a.pass("pw1"), 0);
        EXPECT_EQ(a.replies(), std::string(kOk331) + kOk230);
        EXPECT_TRUE(a.cred.logged_local_aaa_in);
        EXPECT_NE(a.cred.session_id, 0u);
        EXPECT_EQ(online("carol"), 1);

        ASSERT_EQ(b.user("carol"), 0);
        EXPECT_EQ(b.pass("wrong"), -1);
        EXPECT_EQ(b.replies(), std::string(kOk331) + kDenied + kDenied);
        ASSERT_EQ(b.user("carol"), 0);
        EXPECT_EQ(b.pass("pw1"), 0);
        EXPECT_EQ(online("carol"), 2);

        ASSERT_EQ(c.user("carol"), 0);
        c.replies();
        EXPECT_EQ(c.pass("pw1"), -1);
        EXPECT_EQ(c.replies(), kNotLoggedIn);
        EXPECT_NE(log_text().find("%LOGIN-5-LIMIT: The number of online users 2 has reached the upper limit 2."),
                  std::string::npos);
    }
    EXPECT_EQ(online("carol"), 0);  // both logins given back at session end
}

TEST_F(LoginTest, DatabaseChecksRefuseZeroLimitForeignLoginModeAndRemoteLogins) {
    write_db(
        "[user zero]\npassword = pw\nonline_amount = 0\n"
        "[user telnet]\npassword = pw\nlogin_mode = 0x1\n"
        "[user ftp]\npassword = pw\nlogin_mode = 0x11\n"
        "[user remote]\npassword = pw\nreject_remote_login = yes\n");
    conf_.aaa_new_model = false;  // straight to the database
    apply();
    register_aaa();
    for (const char *name : {"zero", "telnet", "remote"}) {
        login_session s;
        ASSERT_EQ(s.user(name), 0);
        EXPECT_EQ(s.pass("pw"), -1) << name;
        EXPECT_EQ(s.replies(), std::string(kOk331) + kNotLoggedIn) << name;
    }
    login_session ok;
    ASSERT_EQ(ok.user("ftp"), 0);
    EXPECT_EQ(ok.pass("pw"), 0);
    EXPECT_TRUE(ok.cred.logged_local_aaa_in);
}

TEST_F(LoginTest, CryptSecretIsCheckedAndDatabaseReloadsWhenChanged) {
    struct crypt_data data {};
    const char *hash = crypt_r("s3cret", "$6$abcdefgh$", &data);
    ASSERT_NE(hash, nullptr);
    write_db(std::string("[user dave]\nsecret = ") + hash + "\n");
    register_aaa();
    login_session s;
    ASSERT_EQ(s.user("dave"), 0);
    EXPECT_EQ(s.pass("s3cret"), 0);

    // A changed file is read again: the account is gone.
    write_db("[user other]\npassword = x\n");
    struct timespec later[2] = {{0, UTIME_NOW}, {time(nullptr) + 5, 0}};
    utimensat(AT_FDCWD, tree_.full("users.ini").c_str(), later, 0);
    login_session t;
    ASSERT_EQ(t.user("dave"), 0);
    EXPECT_EQ(t.pass("s3cret"), -1);
}

TEST_F(LoginTest, UnknownMethodListRefusesAndListStartingWithNoneAccepts) {
    conf_.aaa_lists.push_back({"open", {"none", "local"}});
    conf_.aaa_lists.push_back({"silent", {"radius", "pam"}});
    apply();
    register_aaa();
    ASSERT_EQ(set_ftp_server_auth("nolist"), 0);
    {
        login_session s;
        ASSERT_EQ(s.user("eve"), 0);
        EXPECT_EQ(s.pass("any"), -1);
        EXPECT_EQ(s.replies(), std::string(kOk331) + kNotLoggedIn + kDenied);
    }
    ASSERT_EQ(set_ftp_server_auth("silent"), 0);
    {
        login_session s;  // no method answers: the verdict is a time-out
        ASSERT_EQ(s.user("eve"), 0);
        EXPECT_EQ(s.pass("any"), -1);
        EXPECT_EQ(s.replies(), std::string(kOk331) + kNotLoggedIn + kDenied);
    }
    ASSERT_EQ(set_ftp_server_auth("open"), 0);
    {
        login_session s;
        ASSERT_EQ(s.user("eve"), 0);
        EXPECT_EQ(s.pass("any"), 0);
        EXPECT_EQ(s.replies(), std::string(kOk331) + kOk230);
        EXPECT_FALSE(s.cred.logged_local_aaa_in);
    }
}

}  // namespace
