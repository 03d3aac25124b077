// Tests of the local user database's rights keys: what an account may do as read back, and that a
// refused value leaves the account unable to log in rather than with wider rights.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "aaa.h"
#include "ftpd_test_support.h"

namespace {

class UserRightsTest : public ::testing::Test {
  protected:
    // Loads db as the database (a fresh file each time, so that it is read again) with the
    // storages flash and usb0 present; returns what loading printed.
    std::string load(const std::string &db) {
        ftpd_use_platform({{1, tree_.path()}, {3, tree_.path()}},
                          tree_.make_file("users" + std::to_string(files_++) + ".ini", db));
        username_lib_user_s u;
        testing::internal::CaptureStderr();
        username_lib_copy_user("-", &u);
        return testing::internal::GetCapturedStderr();
    }

    bool logs_in(const char *name) {
        authen_info_s req = {};
        req.sub.name = {static_cast<uint32_t>(strlen(name)), name};
        req.sub.password = {2, "pw"};
        aaa_result_s *r = nullptr;
        EXPECT_EQ(username_lib_authen_req(&req, &r), 0);
        bool ok = r != nullptr && r->sub.result == AAA_ACCEPT;
        free(r);
        return ok;
    }

    ftpd_temp_tree tree_;
    int files_ = 0;
};

// A home below flash, writing off and a rate limit, as a session meets them: the operations
// integration test.
TEST_F(UserRightsTest, RightsAreReadBackWithTheirDefaults) {
    struct row {
        const char *keys;
        int storage;
        const char *path;
        bool write;
        int rate;
    };
    const row rows[] = {
        {"", -1, "", true, 0},
        {"home = usb0:\nwrite = Off\nmax_rate = 10485760\n", 3, "/", false, 10485760},
        {"home = flash:/a..b/.c/\nwrite = yes\n", 1, "/a..b/.c/", true, 0},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.keys);
        EXPECT_EQ(load(std::string("[user alice]\npassword = pw\n") + r.keys), "");
        username_lib_rights_s got;
        ASSERT_EQ(username_lib_user_rights("alice", &got), 0);
        EXPECT_EQ(got.home_storage, r.storage);
        EXPECT_STREQ(got.home_path, r.path);
        EXPECT_EQ(got.write, r.write);
        EXPECT_EQ(got.max_rate, r.rate);
        EXPECT_TRUE(logs_in("alice"));
    }
    username_lib_rights_s got;
    EXPECT_EQ(username_lib_user_rights("nobody", &got), -2);
}

// SECURITY: a home or write switch that cannot be read must not leave the account with the whole
// top directory or with writing allowed.
TEST_F(UserRightsTest, ARefusedValueIsReportedAndTheAccountCannotLogIn) {
    const std::pair<const char *, const char *> rows[] = {
        {"home = sata0:/x",
         "key 'home': bad value 'sata0:/x': expected STORAGE:/path with a storage of the platform file"},
        {"home = /srv/ftp",
         "key 'home': bad value '/srv/ftp': expected STORAGE:/path with a storage of the platform file"},
        {"home = flash:users",
         "key 'home': bad value 'flash:users': the path must begin with '/' and have at most 255"},
        {"home = flash:/a/../b", "key 'home': bad value 'flash:/a/../b': the path may not hold control characters"},
        {"home = flash:/a/.", "key 'home': bad value 'flash:/a/.': the path may not hold"},
        {"home = flash:/a\tb", "key 'home': bad value 'flash:/a\tb': the path may not hold"},
        {"write = maybe", "key 'write': bad value 'maybe': expected yes or no; the account cannot log in"},
        {"max_rate = 10485761", "key 'max_rate': bad value '10485761': expected KiB/s from 0 to 10485760"},
        {"max_rate = 1k", "key 'max_rate': bad value '1k'"},
    };
    for (const auto &[key, message] : rows) {
        SCOPED_TRACE(key);
        std::string out = load(std::string("[user bob]\npassword = pw\n[user eve]\npassword = pw\n") + key + "\n");
        EXPECT_NE(out.find(":5: " + std::string(message)), std::string::npos) << out;
        username_lib_rights_s got;
        EXPECT_EQ(username_lib_user_rights("eve", &got), -3);
        EXPECT_FALSE(logs_in("eve"));
        EXPECT_TRUE(logs_in("bob"));  // the rest of the file still loads
    }
}

}  // namespace
