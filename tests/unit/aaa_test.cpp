// Tests of the AAA service and the local user database: method-list lookup, verdicts of local and
// none, fall-through past a RADIUS server that never answers (and what that server was sent),
// the bookkeeping of results per session, and the database's defaults, reloads and online counts.
#include "aaa.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "aaa_method.h"
#include "platform_conf.h"

namespace {

// SHA-512 crypt(3) of "hashpass1".
const char kHash[] =
    "$6$ftpstest$l.aL31DcAc1YdNn4aieRZqQ0tr./7o/OyM6w8qHM3s06DhBYV.9/VbvEVTNEEjpdCB73NvOUBa1dDqQ3qohZB/";

class AaaTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string tmpl = (std::filesystem::temp_directory_path() / "ftps-aaa-XXXXXX").string();
        ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
        dir_ = tmpl;
        db_ = dir_ + "/users.ini";
        write_db("[user bob]\npassword = bobpass1\n\n[user hashed]\nsecret = " + std::string(kHash) + "\n");
        platform_conf_set_defaults(&conf_);
        conf_.log_syslog = false;
        conf_.user_database = db_;
        platform_set_for_test(conf_);
    }

    void TearDown() override {
        unlink(db_.c_str());
        rmdir(dir_.c_str());
        platform_conf c;
        platform_conf_set_defaults(&c);
        platform_set_for_test(c);
    }

    // Each write gets a later modification time, so that the database sees a change.
    void write_db(const std::string &text) {
        std::ofstream(db_) << text;
        struct timespec times[2] = {{0, UTIME_OMIT}, {1000000000 + generation_++, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, db_.c_str(), times, 0), 0);
    }

    void use_lists(std::vector<std::pair<std::string, std::vector<std::string>>> lists) {
        conf_.aaa_lists = std::move(lists);
        platform_set_for_test(conf_);
    }

    struct outcome {
        aaa_state_t state;
        aaa_mtype_t mtype;
    };

    // One request along the list, waited for as the daemon does.
    outcome authen(const char *list, const std::string &name, const std::string &password, aaa_iovec_s *iov = nullptr) {
        authen_info_s req{};
        req.sub.utype = AAA_UTYPE_FTP;
        req.sub.session_id = aaa_get_session_id();
        req.sub.name = {static_cast<uint32_t>(name.size()), name.c_str()};
        req.sub.password = {static_cast<uint32_t>(password.size()), password.c_str()};
        req.mlist = list;
        req.iov = iov;
        EXPECT_EQ(aaa_user_req_authen(&req), 0);
        aaa_result_s *result = nullptr;
        EXPECT_EQ(aaa_user_get_result(req.sub.session_id, AAA_UTYPE_FTP, 10, &result), 0);
        if (result == nullptr) return {AAA_ERROR, AAA_MTYPE_NONE};
        outcome o{result->sub.result, result->sub.mtype};
        aaa_free_result_info(result);
        aaa_delete_user(req.sub.session_id, AAA_UTYPE_FTP);
        return o;
    }

    std::string dir_;
    std::string db_;
    platform_conf conf_;
    int generation_ = 0;
};

TEST_F(AaaTest, ListLookupKnowsDefaultFirstMethodNoneAndUnknownNames) {
    EXPECT_EQ(aaa_mlist_existed("default", AAA_UTYPE_FTP), 1);  // built in: local
    EXPECT_EQ(aaa_mlist_existed("corp", AAA_UTYPE_FTP), 0);
    EXPECT_EQ(aaa_mlist_existed(nullptr, AAA_UTYPE_FTP), 0);
    use_lists({{"open", {"none", "local"}}, {"corp", {"radius", "none"}}});
    EXPECT_EQ(aaa_mlist_existed("open", AAA_UTYPE_FTP), 3);
    EXPECT_EQ(aaa_mlist_existed("corp", AAA_UTYPE_FTP), 1);
    EXPECT_EQ(aaa_mlist_existed("Corp", AAA_UTYPE_FTP), 0);
}

TEST_F(AaaTest, LocalAndNoneVerdictsCarryTheirMethodType) {
    use_lists({{"default", {"local"}}, {"open", {"none"}}});
    outcome o = authen("default", "bob", "bobpass1");
    EXPECT_EQ(o.state, AAA_ACCEPT);
    EXPECT_EQ(o.mtype, AAA_MTYPE_LOCAL);
    EXPECT_EQ(authen("default", "bob", "bobpass2").state, AAA_REJECT);
    EXPECT_EQ(authen("default", "bob", "").state, AAA_REJECT);
    EXPECT_EQ(authen("default", "nobody", "bobpass1").state, AAA_REJECT);
    EXPECT_EQ(authen("default", "hashed", "hashpass1").state, AAA_ACCEPT);
    EXPECT_EQ(authen("default", "hashed", kHash).state, AAA_REJECT);  // the hash is not a password
    o = authen("open", "anyone", "anything");
    EXPECT_EQ(o.state, AAA_ACCEPT);
    EXPECT_EQ(o.mtype, AAA_MTYPE_NONE);
}

TEST_F(AaaTest, ListOfSilentMethodsEndsInTimeout) {
    use_lists({{"default", {"radius"}}});  // no RADIUS server configured: never answers
    EXPECT_EQ(authen("default", "bob", "bobpass1").state, AAA_TIMEOUT);
}

TEST_F(AaaTest, ResultsAreKeptPerSessionUntilCollectedOrDeleted) {
    aaa_result_s *result = nullptr;
    EXPECT_NE(aaa_user_get_result(aaa_get_session_id(), AAA_UTYPE_FTP, 0, &result), 0);
    EXPECT_EQ(result, nullptr);

    authen_info_s req{};
    req.sub.utype = AAA_UTYPE_FTP;
    req.mlist = "default";
    EXPECT_NE(aaa_user_req_authen(&req), 0);  // no session id
    req.sub.session_id = aaa_get_session_id();
    req.mlist = "unknown";
    EXPECT_NE(aaa_user_req_authen(&req), 0);
    req.mlist = "default";
    ASSERT_EQ(aaa_user_req_authen(&req), 0);
    aaa_delete_user(req.sub.session_id, AAA_UTYPE_FTP);
    EXPECT_NE(aaa_user_get_result(req.sub.session_id, AAA_UTYPE_FTP, 1, &result), 0);

    ASSERT_EQ(aaa_user_req_authen(&req), 0);
    ASSERT_EQ(aaa_user_get_result(req.sub.session_id, AAA_UTYPE_FTP, 10, &result), 0);
    aaa_free_result_info(result);
    // Collected once: a second collection has nothing to wait for.
    EXPECT_NE(aaa_user_get_result(req.sub.session_id, AAA_UTYPE_FTP, 0, &result), 0);
}

// Appends one element as the daemon packs it: code, whole length, value.
void pack(std::vector<char> *buf, uint32_t code, const std::string &value) {
    aaa_elem_s head{code, static_cast<uint32_t>(sizeof head + value.size())};
    const char *p = reinterpret_cast<const char *>(&head);
    buf->insert(buf->end(), p, p + sizeof head);
    buf->insert(buf->end(), value.begin(), value.end());
}

// The attributes of a RADIUS packet by type (the first of each).
std::map<int, std::string> attributes(const std::string &pkt) {
    std::map<int, std::string> out;
    for (size_t at = 20; at + 2 <= pkt.size();) {
        size_t len = static_cast<unsigned char>(pkt[at + 1]);
        if (len < 2 || at + len > pkt.size()) break;
        out.emplace(static_cast<unsigned char>(pkt[at]), pkt.substr(at + 2, len - 2));
        at += len;
    }
    return out;
}

TEST_F(AaaTest, SilentRadiusServerFallsThroughAfterGettingTheRequestAttributes) {
    int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(sock, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    ASSERT_EQ(bind(sock, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    ASSERT_EQ(getsockname(sock, reinterpret_cast<sockaddr *>(&addr), &len), 0);
    conf_.radius_servers = {"127.0.0.1:" + std::to_string(ntohs(addr.sin_port))};
    conf_.radius_secret = "s3cret";
    conf_.radius_timeout = 1;
    conf_.radius_retries = 1;
    use_lists({{"default", {"radius", "local"}}});

    std::vector<char> buf;
    pack(&buf, AAA_ELEM_AUTHEN_TYPE, std::string(1, '\1'));
    pack(&buf, AAA_ELEM_PORT, std::string(1, '\25'));
    pack(&buf, AAA_ELEM_REM_ADDR, "192.0.2.7");
    aaa_iovec_s iov{0, static_cast<uint32_t>(buf.size()), buf.data()};
    outcome o = authen("default", "bob", "bobpass1", &iov);
    EXPECT_EQ(o.state, AAA_ACCEPT);
    EXPECT_EQ(o.mtype, AAA_MTYPE_LOCAL);

    pollfd p{sock, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 0), 1);
    char pkt[4096];
    ssize_t n = recv(sock, pkt, sizeof pkt, 0);
    close(sock);
    ASSERT_GT(n, 20);
    EXPECT_EQ(pkt[0], 1);  // Access-Request
    std::map<int, std::string> attrs = attributes(std::string(pkt, static_cast<size_t>(n)));
    EXPECT_EQ(attrs[1], "bob");
    EXPECT_EQ(attrs[2].size(), 16u);  // User-Password, hidden with the secret
    EXPECT_EQ(attrs[2].find("bobpass1"), std::string::npos);
    EXPECT_EQ(attrs[5], std::string("\0\0\0\25", 4));  // NAS-Port 21
    EXPECT_EQ(attrs[6], std::string("\0\0\0\1", 4));   // Service-Type Login
    EXPECT_EQ(attrs[31], "192.0.2.7");                 // Calling-Station-Id
    EXPECT_EQ(attrs.count(24), 0u);                    // no State in a fresh request
}

TEST(AaaRadiusServerListTest, AddsTheSecretToEveryServerAndRefusesUnwritableSecrets) {
    EXPECT_EQ(aaa_radius_server_list({"127.0.0.1:1812", "[::1]:1813"}, "s3c:ret"),
              "127.0.0.1:1812:s3c:ret,[::1]:1813:s3c:ret");
    EXPECT_EQ(aaa_radius_server_list({"127.0.0.1:1812"}, ""), "");
    EXPECT_EQ(aaa_radius_server_list({"127.0.0.1:1812"}, "two words"), "");
    EXPECT_EQ(aaa_radius_server_list({"127.0.0.1:1812"}, "a,b"), "");
    EXPECT_EQ(aaa_radius_server_list({}, "secret"), "");
}

TEST_F(AaaTest, DatabaseDefaultsAndOnlineCountsSurviveAReload) {
    username_lib_user_s u;
    ASSERT_EQ(username_lib_copy_user("bob", &u), 0);
    EXPECT_EQ(u.online_amount, 20);
    EXPECT_EQ(u.online_count, 0);
    EXPECT_EQ(u.login_mode, 0u);
    EXPECT_FALSE(u.reject_remote_login);
    EXPECT_LT(username_lib_copy_user("nobody", &u), 0);

    ASSERT_EQ(username_lib_copy_user("bob", &u), 0);
    u.online_count = 2;
    ASSERT_EQ(username_lib_update_user(&u), 0);
    write_db("[user bob]\npassword = newpass1\nonline_amount = 5\nlogin_mode = 0x10\nreject_remote_login = yes\n");
    ASSERT_EQ(username_lib_copy_user("bob", &u), 0);
    EXPECT_EQ(u.online_amount, 5);
    EXPECT_EQ(u.online_count, 2);  // counts live in memory, not in the file
    EXPECT_EQ(u.login_mode, 0x10u);
    EXPECT_TRUE(u.reject_remote_login);
    EXPECT_LT(username_lib_copy_user("hashed", &u), 0);  // gone from the file

    use_lists({{"default", {"local"}}});
    EXPECT_EQ(authen("default", "bob", "newpass1").state, AAA_ACCEPT);
    EXPECT_EQ(authen("default", "bob", "bobpass1").state, AAA_REJECT);
}

}  // namespace
