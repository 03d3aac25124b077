// Reply formatting over a socket pair: what reaches the peer, the 511-character bound, and the
// cases where nothing may be sent at all.
#include "net/reply.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <string>

#include "base/ftpd.h"
#include "ftpd_test_support.h"

namespace {

class ReplyTest : public ::testing::Test {
  protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);  // a send to a closed peer must fail, as in the daemon
        fd_.stream.reset(dup(pair_.near()));
    }
    ftpd_socket_pair pair_;
    ftp_control fd_;
};

TEST_F(ReplyTest, CrLfIsAddedOnlyWhenTheTextLacksALineFeed) {
    EXPECT_EQ(ftpd_reply(fd_, "501", "Active mode is disabled.\r\n", nullptr, nullptr), 0);
    EXPECT_EQ(ftpd_reply(fd_, "550", "%s: No such file.", "a.txt", nullptr), 0);
    EXPECT_EQ(ftpd_reply(fd_, "257", "\"%s\" %s", "/pub", "created."), 0);
    EXPECT_EQ(ftpd_reply(fd_, nullptr, "%s", "214-    USER \n", nullptr), 0);
    // Without arguments the format is plain text: its percent sign stays.
    EXPECT_EQ(ftpd_reply(fd_, "200", "100%s done", nullptr, nullptr), 0);
    EXPECT_EQ(ftpd_read_all(pair_.far()),
              "501 Active mode is disabled.\r\n"
              "550 a.txt: No such file.\r\n"
              "257 \"/pub\" created.\r\n"
              "214-    USER \n"
              "200 100%s done\r\n");
    EXPECT_EQ(ftpd_reply(fd_, "200", "%s %s", nullptr, "x"), -1);
    EXPECT_EQ(ftpd_read_all(pair_.far()), "");
}

// The code and its blank count against the same bound.
TEST_F(ReplyTest, LengthBoundAt511IncludingCrLf) {
    const struct {
        const char *code;
        size_t len;
        bool fits;
    } rows[] = {{nullptr, 509, true}, {nullptr, 510, false}, {"550", 505, true}, {"550", 506, false}};
    for (const auto &r : rows) {
        std::string text(r.len, 'a');
        EXPECT_EQ(ftpd_reply(fd_, r.code, "%s", text.c_str(), nullptr), r.fits ? 0 : -1) << r.len;
        std::string line = (r.code != nullptr ? std::string(r.code) + " " : "") + text + "\r\n";
        EXPECT_EQ(ftpd_read_all(pair_.far()), r.fits ? line : "") << r.len;
    }
}

TEST_F(ReplyTest, SizeReplyKeepsLargeNumbersWholeAndSendsToAClosedPeerFail) {
    EXPECT_EQ(ftpd_reply_size(fd_, "213", "%lu", 4294967296UL, "ignored"), 0);
    EXPECT_EQ(ftpd_read_all(pair_.far()), "213 4294967296\r\n");
    pair_.close_far();
    EXPECT_EQ(ftpd_reply(fd_, "221", "Goodbye.", nullptr, nullptr), -1);
    EXPECT_EQ(ftpd_reply_size(fd_, "213", "%lu", 1UL, nullptr), -1);
}

}  // namespace
