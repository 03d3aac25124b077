// Session event waiting: the descriptor list rules, readiness reporting per descriptor and mode,
// and the accounting of the waiter itself.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ftpd.h"

namespace {

class EpollTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ftpd_mem_init();
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, a_), 0);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, b_), 0);
        ep_ = ftpd_epoll_create();
        ASSERT_NE(ep_, nullptr);
    }
    void TearDown() override {
        ftpd_epoll_destroy(ep_);
        for (int fd : {a_[0], a_[1], b_[0], b_[1]}) close(fd);
    }
    int a_[2] = {-1, -1};
    int b_[2] = {-1, -1};
    ftp_epoll_s *ep_ = nullptr;
};

TEST_F(EpollTest, SlotZeroHoldingZeroWaitsOnNothingUntilTimeout) {
    ep_->timeout = 0;
    EXPECT_EQ(ftpd_epoll(ep_, FTP_EPOLL_IN), 0);
    EXPECT_EQ(ep_->wait_n, 0);
    EXPECT_FALSE(ftpd_epoll_event(ep_, 0, FTP_EPOLL_IN));
}

TEST_F(EpollTest, OnlyTheReadyDescriptorIsReported) {
    ep_->fd[0] = a_[0];
    ep_->fd[1] = b_[0];
    ASSERT_EQ(write(b_[1], "x", 1), 1);
    ep_->timeout = 5;
    EXPECT_EQ(ftpd_epoll(ep_, FTP_EPOLL_IN), 1);
    EXPECT_FALSE(ep_->first_time);
    EXPECT_FALSE(ftpd_epoll_event(ep_, a_[0], FTP_EPOLL_IN));
    EXPECT_TRUE(ftpd_epoll_event(ep_, b_[0], FTP_EPOLL_IN));
    EXPECT_FALSE(ftpd_epoll_event(ep_, b_[0], FTP_EPOLL_OUT));

    // A later wait modifies the registrations instead of adding them again.
    ASSERT_EQ(write(a_[1], "y", 1), 1);
    EXPECT_EQ(ftpd_epoll(ep_, FTP_EPOLL_IN), 2);
    EXPECT_TRUE(ftpd_epoll_event(ep_, a_[0], FTP_EPOLL_IN));
    EXPECT_TRUE(ftpd_epoll_event(ep_, b_[0], FTP_EPOLL_IN));
}

TEST_F(EpollTest, OutputModeAndHangUp) {
    ep_->fd[0] = a_[0];
    ep_->timeout = 5;
    EXPECT_EQ(ftpd_epoll(ep_, FTP_EPOLL_OUT), 1);
    EXPECT_TRUE(ftpd_epoll_event(ep_, a_[0], FTP_EPOLL_OUT));
    EXPECT_FALSE(ftpd_epoll_event(ep_, a_[0], FTP_EPOLL_IN));

    close(a_[1]);
    a_[1] = -1;
    EXPECT_EQ(ftpd_epoll(ep_, FTP_EPOLL_IN), 1);
    EXPECT_TRUE(ftpd_epoll_event(ep_, a_[0], FTP_EPOLL_IN));
}

TEST_F(EpollTest, NegativeDescriptorsAndFailedAllocation) {
    ep_->fd[0] = -2;
    EXPECT_EQ(ftpd_epoll(ep_, FTP_EPOLL_IN), -1);
    EXPECT_TRUE(ep_->first_time);
    // -1 passes the first check and fails at registration.
    ep_->fd[0] = -1;
    EXPECT_EQ(ftpd_epoll(ep_, FTP_EPOLL_IN), -1);
    EXPECT_TRUE(ep_->first_time);

    ftpd_mem_fail_after(FTPD_M_EPOLL, 1);
    EXPECT_EQ(ftpd_epoll_create(), nullptr);
    EXPECT_EQ(ftpd_mem_get(FTPD_M_EPOLL).allocfail, 1u);
    EXPECT_EQ(ftpd_epoll_destroy(nullptr), -1);
}

}  // namespace
