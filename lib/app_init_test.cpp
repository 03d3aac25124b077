// Application frame: the path bound of the single-instance guard, the size limit of the
// key-message file, and the rate limit of worker notifications.
#include "app_init.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "app_dbg.h"
#include "ftpd_test_support.h"

namespace fs = std::filesystem;

namespace {

class AppTest : public ::testing::Test {
  protected:
    void SetUp() override {
        app_dbg_set_name("ftps");
        setenv("TMPDIR", dir_.c_str(), 1);
    }
    void TearDown() override { unsetenv("TMPDIR"); }  // the tree is gone
    fs::path app_dir() const { return fs::path(dir_) / "app" / "ftps"; }
    ftpd_temp_tree tree_;
    const std::string &dir_ = tree_.path();
};

// Without TMPDIR at all: the frame integration test.
TEST_F(AppTest, GuardNeedsAPathBelow64Bytes) {
    // 45 + 4 + 15 = 64 is refused before anything is made; 44 still fits.
    std::string base = dir_ + "/";
    ASSERT_LT(base.size(), 44u);
    std::string fits = base + std::string(44 - base.size(), 'd');
    std::string too_long = fits + "e";
    setenv("TMPDIR", too_long.c_str(), 1);
    EXPECT_EQ(app_instance_is_running("ftps"), -1);
    EXPECT_FALSE(fs::exists(too_long));

    ASSERT_TRUE(fs::create_directory(fits));
    setenv("TMPDIR", fits.c_str(), 1);
    int fd = app_instance_is_running("ftps");
    EXPECT_GE(fd, 0);
    if (fd >= 0) close(fd);
}

TEST_F(AppTest, KeyMessageFileOverTwoMebibytesIsEmptiedFirst) {
    fs::create_directories(app_dir());
    const fs::path msg = app_dir() / ".init_msg.txt";
    {
        std::ofstream out(msg, std::ios::binary);
        out << std::string(2097152, 'x');
    }
    app_write_keymsg("kept\n");
    EXPECT_GT(fs::file_size(msg), 2097152u);

    {
        std::ofstream out(msg, std::ios::binary | std::ios::trunc);
        out << std::string(2097153, 'x');
    }
    app_write_keymsg("fresh\n");
    std::string text = ftpd_read_all(msg.string());
    EXPECT_LT(text.size(), 100u);
    EXPECT_THAT(text, ::testing::EndsWith("]- fresh\n"));
}

TEST_F(AppTest, WorkerNotificationsAreRateLimitedPerThread) {
    unsigned long before = app_ham_notify_count();
    std::thread([] {
        app_ham_client_reset_thread_notify();  // unknown thread: entry added and notified
        app_ham_client_reset_thread_notify();  // within 120 s: dropped
    }).join();
    EXPECT_EQ(app_ham_notify_count() - before, 1u);

    before = app_ham_notify_count();
    std::thread([] {
        app_ham_client_reg_thread_notify();  // registration stamps the entry
        app_ham_client_reset_thread_notify();
    }).join();
    EXPECT_EQ(app_ham_notify_count() - before, 0u);
}

}  // namespace
