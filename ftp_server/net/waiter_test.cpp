// Session event waiting: the descriptor list rules. (Readiness, and a waiter that cannot be
// allocated: the integration suite.)
#include "net/waiter.h"

#include <gtest/gtest.h>

#include "base/ftpd.h"

namespace {

class EpollTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ftpd_mem_init();
        ep_ = ftpd_epoll_create();
        ASSERT_NE(ep_, nullptr);
    }
    void TearDown() override { ftpd_epoll_destroy(ep_); }
    ftp_epoll_s *ep_ = nullptr;
};

TEST_F(EpollTest, SlotZeroHoldingZeroWaitsOnNothingUntilTimeout) {
    ep_->timeout = 0;
    EXPECT_EQ(ftpd_epoll(ep_, FTP_EPOLL_IN), 0);
    EXPECT_EQ(ep_->wait_n, 0);
    EXPECT_FALSE(ftpd_epoll_event(ep_, 0, FTP_EPOLL_IN));
}

TEST_F(EpollTest, NegativeDescriptorsFailAndLeaveTheListToBeBuiltAgain) {
    ep_->fd[0] = -2;
    EXPECT_EQ(ftpd_epoll(ep_, FTP_EPOLL_IN), -1);
    EXPECT_TRUE(ep_->first_time);
    // -1 passes the first check and fails at registration.
    ep_->fd[0] = -1;
    EXPECT_EQ(ftpd_epoll(ep_, FTP_EPOLL_IN), -1);
    EXPECT_TRUE(ep_->first_time);
}

}  // namespace
