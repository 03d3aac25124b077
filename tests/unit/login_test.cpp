// USER and PASS over a socket pair: the command order, the server's own user table when AAA is not
// registered, and the verdicts of the method lists, with the replies read back from the client's end.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "aaa.h"
#include "ftpd.h"
#include "ftpd_test_support.h"
#include "platform_conf.h"

namespace {

// A session record as the loop sets it up, with the loop's own name buffer.
struct login_session : ftpd_named_session {
    char client_name[FTP_NAME_LEN] = {0};
    char arg[FTP_BUF_SIZE] = {0};
    ftpd_socket_pair sock;
    login_session() { cred.cnt.contrl_type = AF_INET; }
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
        platform_set_for_test(conf_);
        g_aaa_ready = false;
    }
    void TearDown() override {
        unset_ftp_server_userinfo("alice");
        set_ftp_server_auth(nullptr);
        g_aaa_ready = false;
        platform_set_for_test(platform_conf{});
    }
    void register_aaa() {
        g_aaa_ready = false;
        ASSERT_EQ(ftp_aaa_init(), 1);
    }
    platform_conf conf_;
};

TEST_F(LoginTest, PassOutOfSequenceAnswers503AndUserRebindsALoggedInSession) {
    login_session s;
    EXPECT_EQ(s.pass("secret"), 0);
    EXPECT_EQ(s.replies(), "503 Bad sequence of commands.\r\n");
    ASSERT_EQ(s.user("alice"), 0);
    ASSERT_EQ(s.pass("secret"), 0);
    EXPECT_EQ(s.replies(), std::string(kOk331) + kOk230);
    EXPECT_FALSE(s.cred.logged_local_aaa_in);
    EXPECT_EQ(s.pass("secret"), 0);  // already logged in
    EXPECT_EQ(s.user("alice"), 0);
    EXPECT_EQ(s.pass("secret"), 0);
    EXPECT_EQ(s.replies(),
              std::string("503 Bad sequence of commands.\r\n") + kOk331 + "503 Bad sequence of commands.\r\n");
    EXPECT_EQ(s.cred.logged_in, 1);
    EXPECT_EQ(gb_usinfo[0].connect_num, 1);  // counted once
}

TEST_F(LoginTest, WithoutAaaOnlyTheExactPasswordOfAKnownUserPasses) {
    for (const char *wrong : {"Secret", "secre", ""}) {
        login_session s;
        ASSERT_EQ(s.user("alice"), 0);
        EXPECT_EQ(s.pass(wrong), -1) << wrong;
        EXPECT_EQ(s.replies(), std::string(kOk331) + kNotLoggedIn) << wrong;
        EXPECT_EQ(s.cred.logged_in, 0);
    }
    login_session t;
    EXPECT_EQ(t.user("bob"), -1);
    EXPECT_EQ(t.replies(), "530 User bob access denied.\r\n");
    EXPECT_EQ(t.pass("x"), 0);  // no password is awaited
    EXPECT_EQ(t.replies(), "503 Bad sequence of commands.\r\n");

    login_session guest;
    ASSERT_EQ(guest.user("alice"), 0);
    guest.cred.guest = 1;
    EXPECT_EQ(guest.pass("secret"), -1);
    EXPECT_EQ(guest.replies(), std::string(kOk331) + kDenied);
}

TEST_F(LoginTest, UnknownNameStillGets331WhenAaaIsRegistered) {
    register_aaa();
    login_session s;
    EXPECT_EQ(s.user("bob"), 0);
    EXPECT_EQ(s.replies(), kOk331);
    EXPECT_EQ(s.cred.askpasswd, 1);
    EXPECT_EQ(s.cred.message, nullptr);  // composed and dropped
}

TEST_F(LoginTest, MethodListVerdicts) {
    conf_.aaa_lists.push_back({"open", {"none", "local"}});
    conf_.aaa_lists.push_back({"silent", {"radius"}});
    platform_set_for_test(conf_);
    register_aaa();
    // An unknown list refuses; a list where no method answers times out; "none" first accepts.
    const struct {
        const char *list;
        int rc;
        std::string replies;
    } cases[] = {
        {"nolist", -1, std::string(kOk331) + kNotLoggedIn + kDenied},
        {"silent", -1, std::string(kOk331) + kNotLoggedIn + kDenied},
        {"open", 0, std::string(kOk331) + kOk230},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.list);
        ASSERT_EQ(set_ftp_server_auth(c.list), 0);
        login_session s;
        ASSERT_EQ(s.user("eve"), 0);
        EXPECT_EQ(s.pass("any"), c.rc);
        EXPECT_EQ(s.replies(), c.replies);
        EXPECT_FALSE(s.cred.logged_local_aaa_in);
    }
}

}  // namespace
