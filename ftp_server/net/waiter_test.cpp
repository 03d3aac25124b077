// Session event waiting: the descriptor list rules. (Readiness, and a waiter that cannot be
// allocated: the integration suite.)
#include "net/waiter.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

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

// Registrations are kept between waits and changed only when a slot's events change: every
// wait must still see what its mode asks for, in whatever order the modes come.
TEST_F(EpollTest, EachWaitSeesTheEventsOfItsOwnMode) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    ep_->fd[0] = sv[0];
    ep_->timeout = 0;
    struct step {
        int mode;          // the slot's mode; 0: the call's (IN)
        bool data_queued;  // bytes waiting to be read on the slot
        bool ready;
    };
    const step steps[] = {
        {0, false, false},
        {0, true, true},
        {0, true, true},
        {FTP_EPOLL_OUT, false, true},
        {FTP_EPOLL_OUT, false, true},
        {FTP_EPOLL_IN, false, false},
        {0, false, false},
        {FTP_EPOLL_IN, true, true},
    };
    for (size_t i = 0; i < sizeof steps / sizeof steps[0]; i++) {
        const step &s = steps[i];
        char b[8];
        while (recv(sv[0], b, sizeof b, MSG_DONTWAIT) > 0) {
        }
        if (s.data_queued) {
            ASSERT_EQ(send(sv[1], "x", 1, 0), 1);
        }
        ep_->mode[0] = s.mode;
        int n = ftpd_epoll(ep_, FTP_EPOLL_IN);
        EXPECT_EQ(n, s.ready ? 1 : 0) << "step " << i;
        int mode = s.mode != 0 ? s.mode : FTP_EPOLL_IN;
        EXPECT_EQ(ftpd_epoll_event(ep_, sv[0], mode), s.ready) << "step " << i;
    }
    close(sv[0]);
    close(sv[1]);
}

}  // namespace
