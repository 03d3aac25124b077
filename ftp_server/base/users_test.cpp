// User table and connection slots: table bounds, slot claiming and reuse, the per-user limit, and
// removing a user while its sessions live.
#include "base/users.h"

#include <gtest/gtest.h>

#include <string>

#include "base/ftpd.h"
#include "ftpd_test_support.h"
#include "login_pwd.h"

namespace {

// A session's side of the table: its slot and the name and password it is given.
struct session {
    ftp_slot slot;
    char name[FTP_NAME_LEN] = {};
    char passwd[FTP_PASSWD_LEN] = {};
    int take(const char *user) { return ftp_set_userinfo_connect(user, ftp_user_cnt_info_s{}, &slot, name, passwd); }
    int update() {
        ftp_user_cnt_info_s snap{};
        snap.data_mode = ftp_data_mode::passive;
        return ftp_set_userinfo_update(slot, snap);
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
        for (auto &row : gb_usinfo)
            if (row.use_flag == 1) unset_ftp_server_userinfo(std::string(row.username).c_str());
        login_set_service_pwd_encrypt(0);
        EXPECT_EQ(outstanding_slots(), base_slots_) << "slots leaked";
    }
    long base_slots_ = 0;
};

// A duplicate, an over-long name, an eleventh user and an unknown one, each refused with its message
// and nothing changed: the management integration test.
TEST_F(UsersTest, NameAndPasswordBoundsAndAFreedRowTakenAgainLowestFirst) {
    const std::string n64(64, 'n'), n65(65, 'n'), p52(52, 'p'), p53(53, 'p');
    const struct {
        std::string name, password;
        int rc;
    } adds[] = {
        {n64, p52, 0}, {"short", p53, 3}, {"", "pw", 3}, {"short", "", 3},
    };
    for (const auto &a : adds)
        EXPECT_EQ(set_ftp_server_userinfo(a.name.c_str(), a.password.c_str(), nullptr, 0), a.rc) << a.name.size();
    for (int i = 1; i < 5; i++)
        ASSERT_EQ(set_ftp_server_userinfo(("user" + std::to_string(i)).c_str(), "pw", nullptr, 0), 0);
    ASSERT_EQ(unset_ftp_server_userinfo("user3"), 0);
    ASSERT_EQ(set_ftp_server_userinfo("user10", "pw", nullptr, 0), 0);
    EXPECT_STREQ(gb_usinfo[3].username, "user10");
    EXPECT_EQ(unset_ftp_server_userinfo(n65.c_str()), 3);
}

// The limit itself, the user's name and password reaching the session, and failed slot
// allocations: the session and fault-injection integration tests.
TEST_F(UsersTest, SessionsClaimTheLowestFreeSlotUpToTheLimit) {
    ASSERT_EQ(set_ftp_server_userinfo("alice", "secret", nullptr, 0), 0);
    session s[11];
    for (int i = 0; i < 10; i++) ASSERT_EQ(s[i].take("alice"), 0);
    EXPECT_EQ(s[1].slot.index, 1);
    EXPECT_EQ(s[10].take("alice"), 2);
    EXPECT_EQ(s[10].slot.index, -1);

    ASSERT_EQ(ftp_set_userinfo_disconnect(&s[6].slot), 0);
    ASSERT_EQ(s[10].take("alice"), 0);
    EXPECT_EQ(s[10].slot.index, 6);
    for (int i : {0, 1, 2, 3, 4, 5, 7, 8, 9, 10}) EXPECT_EQ(ftp_set_userinfo_disconnect(&s[i].slot), 0) << i;
    EXPECT_EQ(gb_usinfo[0].connect_num, 0);
    EXPECT_EQ(ftp_set_userinfo_disconnect(&s[0].slot), -1);  // no connection left
    session stranger;
    EXPECT_EQ(stranger.take("bob"), 5);
}

TEST_F(UsersTest, RemovingUserWithLiveSessionsFreesSlotsAndLaterDisconnectsFailHarmlessly) {
    ASSERT_EQ(set_ftp_server_userinfo("alice", "secret", nullptr, 0), 0);
    session a, b;
    ASSERT_EQ(a.take("alice"), 0);
    ASSERT_EQ(b.take("alice"), 0);
    ASSERT_EQ(unset_ftp_server_userinfo("alice"), 0);
    EXPECT_EQ(outstanding_slots(), base_slots_);
    EXPECT_EQ(ftp_set_userinfo_disconnect(&a.slot), -1);
    EXPECT_EQ(a.update(), -1);

    // Re-added under the same name, a stale session finds the row but no slot of its own.
    ASSERT_EQ(set_ftp_server_userinfo("alice", "secret", nullptr, 0), 0);
    EXPECT_EQ(b.update(), -1);
    EXPECT_EQ(ftp_set_userinfo_disconnect(&b.slot), -1);
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
