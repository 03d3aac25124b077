// User table and connection slots: table bounds, slot claiming and reuse, the per-user limit,
// the permanent type-7 upgrade, and removing a user while its sessions live.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "ftpd.h"
#include "login_pwd.h"

namespace {

// A session record with its own name and password buffers, as a session sets it up.
struct session {
    char name[FTP_NAME_LEN] = {0};
    char passwd[FTP_PASSWD_LEN] = {0};
    credentials cred{};
    session() {
        cred.name = name;
        cred.passwd = passwd;
        cred.cnt_index = -1;
        cred.data = -1;
        cred.pdata = -1;
        cred.cnt.tran_type = 1;
    }
};

long outstanding_slots() {
    ftpd_mem_t m = ftpd_mem_get(FTPD_M_USER_CNT);
    return static_cast<long>(m.allocs) - static_cast<long>(m.deallocs);
}

class UsersTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ftp_userinfo_init();
        login_set_service_pwd_encrypt(0);
        ftpd_user_max_connect = FTP_DEF_USER_CONNECT;
        base_slots_ = outstanding_slots();
    }
    void TearDown() override {
        for (auto &row : gb_usinfo) {
            if (row.use_flag == 1) unset_ftp_server_userinfo(std::string(row.username).c_str());
        }
        login_set_service_pwd_encrypt(0);
        EXPECT_EQ(outstanding_slots(), base_slots_) << "slots leaked";
    }
    long base_slots_ = 0;
};

TEST_F(UsersTest, TableHoldsTenUsersAndRefusesAnEleventhAndDuplicates) {
    for (int i = 0; i < FTP_MAX_USERS; i++) {
        std::string n = "user" + std::to_string(i);
        ASSERT_EQ(set_ftp_server_userinfo(n.c_str(), "pw", nullptr, 0), 0);
    }
    EXPECT_EQ(set_ftp_server_userinfo("user10", "pw", nullptr, 0), 2);
    EXPECT_EQ(set_ftp_server_userinfo("user3", "other", nullptr, 0), 4);
    // A freed row is taken again, the lowest first.
    ASSERT_EQ(unset_ftp_server_userinfo("user3"), 0);
    ASSERT_EQ(set_ftp_server_userinfo("user10", "pw", nullptr, 0), 0);
    EXPECT_STREQ(gb_usinfo[3].username, "user10");
}

TEST_F(UsersTest, NameAndPasswordLengthBounds) {
    std::string n64(64, 'n'), n65(65, 'n'), p52(52, 'p'), p53(53, 'p');
    EXPECT_EQ(set_ftp_server_userinfo(n64.c_str(), p52.c_str(), nullptr, 0), 0);
    EXPECT_EQ(set_ftp_server_userinfo(n65.c_str(), "pw", nullptr, 0), 3);
    EXPECT_EQ(set_ftp_server_userinfo("short", p53.c_str(), nullptr, 0), 3);
    EXPECT_EQ(set_ftp_server_userinfo("", "pw", nullptr, 0), 3);
    EXPECT_EQ(set_ftp_server_userinfo("short", "", nullptr, 0), 3);
    EXPECT_EQ(unset_ftp_server_userinfo(n65.c_str()), 3);
    EXPECT_EQ(unset_ftp_server_userinfo("nobody"), 5);
}

TEST_F(UsersTest, SessionsClaimLowestFreeSlotAndLearnThePassword) {
    ASSERT_EQ(set_ftp_server_userinfo("alice", "secret", nullptr, 0), 0);
    session a, b, c;
    ASSERT_EQ(ftp_set_userinfo_connect("alice", &a.cred), 0);
    ASSERT_EQ(ftp_set_userinfo_connect("alice", &b.cred), 0);
    EXPECT_EQ(a.cred.cnt_index, 0);
    EXPECT_EQ(b.cred.cnt_index, 1);
    EXPECT_STREQ(a.name, "alice");
    EXPECT_STREQ(a.passwd, "secret");
    EXPECT_EQ(gb_usinfo[0].connect_num, 2);

    ASSERT_EQ(ftp_set_userinfo_disconnect(&a.cred), 0);
    ASSERT_EQ(ftp_set_userinfo_connect("alice", &c.cred), 0);
    EXPECT_EQ(c.cred.cnt_index, 0);

    EXPECT_EQ(ftp_set_userinfo_disconnect(&b.cred), 0);
    EXPECT_EQ(ftp_set_userinfo_disconnect(&c.cred), 0);
    EXPECT_EQ(gb_usinfo[0].connect_num, 0);
    // No connection left: a further disconnect is refused.
    EXPECT_EQ(ftp_set_userinfo_disconnect(&c.cred), -1);
    session stranger;
    EXPECT_EQ(ftp_set_userinfo_connect("bob", &stranger.cred), 5);
}

TEST_F(UsersTest, PerUserLimitRefusesTheEleventhUntilOneLeaves) {
    ASSERT_EQ(set_ftp_server_userinfo("alice", "secret", nullptr, 0), 0);
    session s[11];
    for (int i = 0; i < 10; i++) ASSERT_EQ(ftp_set_userinfo_connect("alice", &s[i].cred), 0);
    EXPECT_EQ(ftp_set_userinfo_connect("alice", &s[10].cred), 2);
    EXPECT_EQ(s[10].cred.cnt_index, -1);

    ASSERT_EQ(ftp_set_userinfo_disconnect(&s[6].cred), 0);
    ASSERT_EQ(ftp_set_userinfo_connect("alice", &s[10].cred), 0);
    EXPECT_EQ(s[10].cred.cnt_index, 6);
    for (int i = 0; i < 11; i++) {
        if (i == 6) continue;
        EXPECT_EQ(ftp_set_userinfo_disconnect(&s[i].cred), 0);
    }
}

TEST_F(UsersTest, SlotAllocationFailureLeavesCountUnchanged) {
    ASSERT_EQ(set_ftp_server_userinfo("alice", "secret", nullptr, 0), 0);
    session a;
    ftpd_mem_fail_after(FTPD_M_USER_CNT, 3);  // the third slot of ten fails
    EXPECT_EQ(ftp_set_userinfo_connect("alice", &a.cred), 1);
    ftpd_mem_fail_after(FTPD_M_USER_CNT, 0);
    EXPECT_EQ(gb_usinfo[0].connect_num, 0);
}

TEST_F(UsersTest, ReadingWithEncryptionOnUpgradesRowToTypeSevenForGood) {
    ASSERT_EQ(set_ftp_server_userinfo("alice", "secret", nullptr, 0), 0);
    char name[FTP_NAME_LEN], pw[FTP_PASSWD_LEN];
    uint32_t type = 99;
    ASSERT_EQ(get_ftp_server_userinfo(0, name, pw, &type), 0);
    EXPECT_EQ(type, 0u);
    EXPECT_STREQ(pw, "secret");

    login_set_service_pwd_encrypt(1);
    ASSERT_EQ(get_ftp_server_userinfo(0, name, pw, &type), 0);
    EXPECT_EQ(type, 7u);
    std::string encrypted = pw;
    char back[FTP_PASSWD_LEN] = {0};
    login_password_decrypt(encrypted.c_str(), back, sizeof back);
    EXPECT_STREQ(back, "secret");

    login_set_service_pwd_encrypt(0);
    ASSERT_EQ(get_ftp_server_userinfo(0, name, pw, &type), 0);
    EXPECT_EQ(type, 7u);
    EXPECT_EQ(encrypted, pw);
    EXPECT_STREQ(gb_usinfo[0].password, "secret");  // the plain text is kept as well
    EXPECT_EQ(get_ftp_server_userinfo(1, name, pw, &type), -1);
}

TEST_F(UsersTest, RemovingUserWithLiveSessionsFreesSlotsAndLaterDisconnectsFailHarmlessly) {
    ASSERT_EQ(set_ftp_server_userinfo("alice", "secret", nullptr, 0), 0);
    session a, b;
    ASSERT_EQ(ftp_set_userinfo_connect("alice", &a.cred), 0);
    ASSERT_EQ(ftp_set_userinfo_connect("alice", &b.cred), 0);
    ASSERT_EQ(unset_ftp_server_userinfo("alice"), 0);
    EXPECT_EQ(outstanding_slots(), base_slots_);
    EXPECT_EQ(ftp_set_userinfo_disconnect(&a.cred), -1);
    a.cred.pdata = 5;
    EXPECT_EQ(ftp_set_userinfo_update(&a.cred), -1);

    // Re-added under the same name, a stale session finds the row but no slot of its own.
    ASSERT_EQ(set_ftp_server_userinfo("alice", "secret", nullptr, 0), 0);
    EXPECT_EQ(ftp_set_userinfo_update(&b.cred), -1);
    EXPECT_EQ(ftp_set_userinfo_disconnect(&b.cred), -1);
}

TEST_F(UsersTest, UpdateRecordsDataModeOfTheTransfer) {
    ASSERT_EQ(set_ftp_server_userinfo("alice", "secret", nullptr, 0), 0);
    session a;
    EXPECT_EQ(ftp_set_userinfo_update(&a.cred), -1);  // no slot yet
    ASSERT_EQ(ftp_set_userinfo_connect("alice", &a.cred), 0);
    a.cred.pdata = 7;
    a.cred.cnt.tran_type = 3;
    ASSERT_EQ(ftp_set_userinfo_update(&a.cred), 0);
    EXPECT_EQ(gb_usinfo[0].cnt[0]->data_mode, 2);
    EXPECT_EQ(gb_usinfo[0].cnt[0]->tran_type, 3);
    a.cred.pdata = -1;
    a.cred.data = 8;
    ASSERT_EQ(ftp_set_userinfo_update(&a.cred), 0);
    EXPECT_EQ(gb_usinfo[0].cnt[0]->data_mode, 1);
    a.cred.data = -1;
    EXPECT_EQ(ftp_set_userinfo_update(&a.cred), -1);
    EXPECT_EQ(gb_usinfo[0].cnt[0]->data_mode, 0);
    EXPECT_EQ(ftp_set_userinfo_disconnect(&a.cred), 0);
}

TEST(SingleUserTest, PasswordTooLongReturnsItsLengthAndStoresNothing) {
    ASSERT_EQ(set_ftp_server_password("first", nullptr, 0), 0);
    std::string p60(60, 'x');
    EXPECT_EQ(set_ftp_server_password(p60.c_str(), nullptr, 7), 60);
    EXPECT_STREQ(get_ftp_server_password(), "first");
    EXPECT_EQ(get_ftp_server_passtype(), 7u);  // the type is stored whatever follows
    EXPECT_EQ(set_ftp_server_password(nullptr, nullptr, 0), 0);
}

}  // namespace
