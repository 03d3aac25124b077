// Tests of the liveness monitor: the watchdog decision over the thread table, dropped
// notifications of an ignored thread, and the datagrams a fake systemd socket receives.
#include "ham.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "platform_conf.h"
#include "zq_thread.h"

namespace {

long long g_now_ms = 0;
long long fake_clock() {
    return g_now_ms;
}

class HamTest : public ::testing::Test {
  protected:
    void SetUp() override {
        platform_conf c;
        platform_conf_set_defaults(&c);
        c.log_syslog = false;
        platform_set_for_test(c);
        ham_reset_for_test();
        g_now_ms = 1000000;
        ham_set_clock_for_test(fake_clock);

        std::string tmpl = (std::filesystem::temp_directory_path() / "ham_test.XXXXXX").string();
        ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
        dir_ = tmpl;
        sock_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::string path = dir_ + "/notify";
        ASSERT_LT(path.size(), sizeof addr.sun_path);
        memcpy(addr.sun_path, path.c_str(), path.size() + 1);
        ASSERT_EQ(bind(sock_, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
    }
    void TearDown() override {
        unsetenv("NOTIFY_SOCKET");
        unsetenv("WATCHDOG_USEC");
        unsetenv("WATCHDOG_PID");
        ham_set_clock_for_test(nullptr);
        ham_reset_for_test();
        close(sock_);
        std::filesystem::remove_all(dir_);
    }

    // The datagrams waiting on the fake socket, joined by "|".
    std::string received() {
        std::string all;
        char buf[256];
        ssize_t n;
        while ((n = recv(sock_, buf, sizeof buf, 0)) > 0) all += (all.empty() ? "" : "|") + std::string(buf, n);
        return all;
    }

    std::string dir_;
    int sock_ = -1;
};

TEST_F(HamTest, WatchdogIsSentOnlyWhileEveryThreadIsWithinTimerTimesCount) {
    ham_notify_ready();
    ASSERT_EQ(ham_client_reg_thread_notify(getpid(), 100, 120, 15), 0);
    ASSERT_EQ(ham_client_reg_thread_notify(getpid(), 200, 10, 2), 0);
    EXPECT_EQ(ham_notify_watchdog(), 1);
    g_now_ms += 20 * 1000;  // exactly 10 * 2 seconds: still in time
    EXPECT_EQ(ham_notify_watchdog(), 1);
    g_now_ms += 1;
    EXPECT_EQ(ham_notify_watchdog(), 0);
    EXPECT_EQ(received(), "READY=1|WATCHDOG=1|WATCHDOG=1");

    ASSERT_EQ(ham_client_reset_thread_notify(getpid(), 200, 10, 2), 0);
    EXPECT_EQ(ham_notify_watchdog(), 1);
    g_now_ms += 21 * 1000;
    ASSERT_EQ(ham_client_unreg_thread_notify(200), 0);  // gone, so no longer late
    EXPECT_EQ(ham_notify_watchdog(), 1);
    EXPECT_EQ(received(), "WATCHDOG=1|WATCHDOG=1");
}

TEST_F(HamTest, IgnoredThreadsResetsAreDropped) {
    ASSERT_EQ(ham_client_reg_thread_notify(getpid(), 300, 1, 1), 0);
    ham_set_ignored_tid(300);
    g_now_ms += 1001;
    ASSERT_EQ(ham_client_reset_thread_notify(getpid(), 300, 1, 1), 0);
    EXPECT_EQ(ham_notify_watchdog(), 0);
    ham_set_ignored_tid(0);
    ASSERT_EQ(ham_client_reset_thread_notify(getpid(), 300, 1, 1), 0);
    EXPECT_EQ(ham_notify_watchdog(), 1);
}

// With the device's periods (120 s x 15) a silenced thread would only become late after half an
// hour; it must withhold the watchdog at the very next check instead.
TEST_F(HamTest, SilencedThreadWithholdsTheWatchdogAtOnceUntilReleased) {
    ASSERT_EQ(ham_client_reg_thread_notify(getpid(), 100, 120, 15), 0);
    ASSERT_EQ(ham_client_reg_thread_notify(getpid(), 400, 120, 15), 0);
    EXPECT_EQ(ham_notify_watchdog(), 1);
    ham_set_ignored_tid(400);
    EXPECT_EQ(ham_notify_watchdog(), 0);
    ASSERT_EQ(ham_client_reset_thread_notify(getpid(), 400, 120, 15), 0);  // dropped
    EXPECT_EQ(ham_notify_watchdog(), 0);
    EXPECT_EQ(received(), "WATCHDOG=1");

    // Released and within its period again: the watchdog resumes without a new notification.
    ham_set_ignored_tid(0);
    EXPECT_EQ(ham_notify_watchdog(), 1);

    // Silencing a thread that is not in the table, or one that has unregistered, blocks nothing.
    ham_set_ignored_tid(999);
    EXPECT_EQ(ham_notify_watchdog(), 1);
    ham_set_ignored_tid(400);
    ASSERT_EQ(ham_client_unreg_thread_notify(400), 0);
    EXPECT_EQ(ham_notify_watchdog(), 1);
    EXPECT_EQ(received(), "WATCHDOG=1|WATCHDOG=1|WATCHDOG=1");
}

TEST_F(HamTest, WatchdogTimerRepeatsOnTheMasterWhenSystemdAsksForIt) {
    setenv("WATCHDOG_USEC", "20000", 1);
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
    zq_thread_master *m = zq_thread_master_create();
    ASSERT_NE(m, nullptr);
    ham_watchdog_start(m);
    zq_thread task;
    for (int i = 0; i < 2; i++) {
        ASSERT_EQ(zq_thread_fetch(m, &task), &task);
        zq_thread_call(&task);
    }
    zq_thread_master_finish(m);
    EXPECT_EQ(received(), "WATCHDOG=1|WATCHDOG=1");
}

}  // namespace
