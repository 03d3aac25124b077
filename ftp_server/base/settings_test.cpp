// Server settings: the top directory in its plain and storage forms, its bounds and refusals,
// the method-list name, the product name's ownership and whole values under concurrent rewrites.
#include "base/settings.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "base/ftpd.h"
#include "ftpd_test_support.h"
#include "platform_conf.h"

namespace {

class SettingsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        tree_.make_dir("flash");
        tree_.make_dir("flash/dir");
        tree_.make_dir("tmp");
        tree_.make_dir("tmp/pub");
        use_platform("");
        ftp_settings_defaults();
    }
    void TearDown() override {
        ftp_settings_defaults();
        platform_set_for_test(platform_conf{});
    }
    // The flash home's trailing slash is dropped when joined.
    void use_platform(const std::string &product) {
        ftpd_use_platform({{1, tree_.full("flash/")}, {5, tree_.full("tmp")}}, "", product);
    }
    ftpd_temp_tree tree_;
};

// A missing directory and a system tree refused, with the exact messages: the management
// integration test.
TEST_F(SettingsTest, PlainFormJoinsFlashHomeNormalisesStopsClimbingAtTheStorageRootAndHasABound) {
    ASSERT_EQ(set_ftp_server_root_dir("/dir/../dir/./"), 0);
    EXPECT_STREQ(get_ftp_server_root_dir(), "/dir/");  // normalised; a trailing slash stays
    ASSERT_EQ(set_ftp_server_root_dir("../../dir"), 0);
    // 257 characters are too long; 256 pass the length test and are then missing.
    for (std::string refused : {"/" + std::string(256, 'a'), "/" + std::string(255, 'a')})
        EXPECT_EQ(set_ftp_server_root_dir(refused.c_str()), -1) << refused.size();
    EXPECT_STREQ(get_ftp_server_root_dir(), "/dir");
    EXPECT_STREQ(get_true_ftp_server_root_dir(), tree_.full("flash/dir").c_str());  // the home's slash is dropped
    // The "no" form clears the display form but keeps the file-system form.
    ASSERT_EQ(set_ftp_server_root_dir(nullptr), 0);
    EXPECT_EQ(get_ftp_server_root_dir(), nullptr);
    EXPECT_STREQ(get_true_ftp_server_root_dir(), tree_.full("flash/dir").c_str());
}

TEST_F(SettingsTest, StorageFormShowsPrefixAndResolvesOnItsStorage) {
    ASSERT_EQ(set_ftp_server_root_dir_ext(6, "pub", "tmp:"), 0);
    EXPECT_STREQ(get_ftp_server_root_dir(), "tmp:/pub");
    EXPECT_STREQ(get_true_ftp_server_root_dir(), tree_.full("tmp/pub").c_str());
    // An absent storage, a missing directory and an over-long text keep the old state.
    const std::string p252 = "/" + std::string(251, 'p');
    EXPECT_EQ(set_ftp_server_root_dir_ext(3, "/pub", "sata0:"), -1);
    for (const char *refused : {"/none", p252.c_str(), static_cast<const char *>(nullptr)})
        EXPECT_EQ(set_ftp_server_root_dir_ext(6, refused, "tmp:"), -1) << (refused ? refused : "null");
    EXPECT_STREQ(get_ftp_server_root_dir(), "tmp:/pub");
    EXPECT_STREQ(get_true_ftp_server_root_dir(), tree_.full("tmp/pub").c_str());
}

// 65 characters and their exact message: the management integration test; 64 still fit.
TEST_F(SettingsTest, AuthenticationListNameOf64Fits) {
    std::string n64(64, 'l');
    ASSERT_EQ(set_ftp_server_auth(n64.c_str()), 0);
    EXPECT_STREQ(get_ftp_server_auth(), n64.c_str());
}

// The platform's product name in the greeting: every integration test.
TEST_F(SettingsTest, ProductNameStaysUnknownUntilPlatformKnowsItAndIsReleasedSafely) {
    ftp_release_product_name();  // the built-in text is never freed
    EXPECT_STREQ(ftpd_product_name, "UNKNOWN");
    use_platform("SW-48");
    EXPECT_STREQ(ftp_get_product_name(), "SW-48");
    EXPECT_STREQ(ftpd_product_name, "SW-48");
    ftp_release_product_name();
    EXPECT_STREQ(ftpd_product_name, "UNKNOWN");
}

TEST_F(SettingsTest, SessionsReadWholeValuesWhileTheManagementThreadRewrites) {
    tree_.make_dir("flash/other-directory-name");
    std::string a = tree_.full("flash/dir"), b = tree_.full("flash/other-directory-name");
    ASSERT_EQ(set_ftp_server_root_dir("dir"), 0);
    std::atomic<bool> stop{false};
    std::atomic<int> torn{0};
    std::thread reader([&] {
        while (!stop) {
            const char *r = get_true_ftp_server_root_dir();
            if (r != nullptr && a != r && b != r) torn++;
        }
    });
    for (int i = 0; i < 300; i++) set_ftp_server_root_dir(i % 2 ? "dir" : "other-directory-name");
    stop = true;
    reader.join();
    EXPECT_EQ(torn.load(), 0);
}

}  // namespace
