// Reply formatting over a socket pair: what reaches the peer, the 511-character bound, and the
// cases where nothing may be sent at all.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "ftpd.h"

namespace {

class ReplyTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv_), 0);
        // A send to a closed peer must fail with an error, as in the daemon.
        signal(SIGPIPE, SIG_IGN);
    }
    void TearDown() override {
        if (sv_[0] >= 0) close(sv_[0]);
        if (sv_[1] >= 0) close(sv_[1]);
    }
    std::string received() {
        std::string out;
        char buf[1024];
        ssize_t n;
        while ((n = recv(sv_[1], buf, sizeof buf, MSG_DONTWAIT)) > 0) out.append(buf, static_cast<size_t>(n));
        return out;
    }
    int sv_[2] = {-1, -1};
};

TEST_F(ReplyTest, CrLfIsAddedOnlyWhenTheTextLacksALineFeed) {
    EXPECT_EQ(ftpd_reply(sv_[0], "501", "Active mode is disabled.\r\n", nullptr, nullptr), 0);
    EXPECT_EQ(ftpd_reply(sv_[0], "550", "%s: No such file.", "a.txt", nullptr), 0);
    EXPECT_EQ(ftpd_reply(sv_[0], "257", "\"%s\" %s", "/pub", "created."), 0);
    EXPECT_EQ(ftpd_reply(sv_[0], nullptr, "%s", "214-    USER \n", nullptr), 0);
    // Without arguments the format is plain text: its percent sign stays.
    EXPECT_EQ(ftpd_reply(sv_[0], "200", "100%s done", nullptr, nullptr), 0);
    EXPECT_EQ(received(),
              "501 Active mode is disabled.\r\n"
              "550 a.txt: No such file.\r\n"
              "257 \"/pub\" created.\r\n"
              "214-    USER \n"
              "200 100%s done\r\n");
    EXPECT_EQ(ftpd_reply(sv_[0], "200", "%s %s", nullptr, "x"), -1);
    EXPECT_EQ(received(), "");
}

TEST_F(ReplyTest, LengthBoundAt511IncludingCrLf) {
    std::string t509(509, 'a');
    EXPECT_EQ(ftpd_reply(sv_[0], nullptr, "%s", t509.c_str(), nullptr), 0);
    EXPECT_EQ(received(), t509 + "\r\n");

    std::string t510(510, 'b');
    EXPECT_EQ(ftpd_reply(sv_[0], nullptr, "%s", t510.c_str(), nullptr), -1);
    EXPECT_EQ(received(), "");

    // The code and its blank count against the same bound.
    std::string t505(505, 'e');
    EXPECT_EQ(ftpd_reply(sv_[0], "550", "%s", t505.c_str(), nullptr), 0);
    EXPECT_EQ(received(), "550 " + t505 + "\r\n");
    std::string t506(506, 'f');
    EXPECT_EQ(ftpd_reply(sv_[0], "550", "%s", t506.c_str(), nullptr), -1);
    EXPECT_EQ(received(), "");
}

TEST_F(ReplyTest, SizeReplyFormatsZeroAndLargeNumbers) {
    EXPECT_EQ(ftpd_reply_size(sv_[0], "213", "%lu", 0UL, nullptr), 0);
    EXPECT_EQ(received(), "213 0\r\n");
    EXPECT_EQ(ftpd_reply_size(sv_[0], "213", "%lu", 4294967296UL, "ignored"), 0);
    EXPECT_EQ(received(), "213 4294967296\r\n");
}

TEST_F(ReplyTest, SendToClosedPeerFails) {
    close(sv_[1]);
    sv_[1] = -1;
    EXPECT_EQ(ftpd_reply(sv_[0], "221", "Goodbye.", nullptr, nullptr), -1);
    EXPECT_EQ(ftpd_reply_size(sv_[0], "213", "%lu", 1UL, nullptr), -1);
}

}  // namespace
