// Transfer engine: per-block line-end conversion, the send and receive workers over socket pairs
// with a temporary file, the stop message, the type refusals and TYPE.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "ftpd.h"

namespace {

TEST(LineEnds, EachBlockIsConvertedOnItsOwn) {
    auto to_dos = [](std::string in) {
        std::string out(2 * in.size(), '\0');
        out.resize(static_cast<size_t>(unix_to_dos(in.data(), out.data(), static_cast<int>(in.size()))));
        return out;
    };
    auto to_unix = [](std::string in) {
        std::string out(in.size(), '\0');
        out.resize(static_cast<size_t>(dos_to_unix(in.data(), out.data(), static_cast<int>(in.size()))));
        return out;
    };
    EXPECT_EQ(to_dos("a\nb\n"), "a\r\nb\r\n");
    EXPECT_EQ(to_dos("a\r\nb\rc"), "a\r\nb\rc");  // pairs and lone CRs pass
    EXPECT_EQ(to_dos("\n\n"), "\r\n\r\n");        // an opening LF always gets its CR
    EXPECT_EQ(to_unix("a\r\nb\rc\r\n"), "a\nb\rc\n");
    EXPECT_EQ(to_unix("a\r"), "a\r");  // a CR ending the block is kept
    EXPECT_EQ(to_unix("\r\r\n"), "\r\n");
}

// Control socket pair, a datagram pair standing for the control channel, a data socket pair and
// a temporary file.
class Transfer : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ctl_), 0);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, data_), 0);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, dom_), 0);
        const char *b = getenv("TMPDIR");
        file_ = std::string(b != nullptr && *b != '\0' ? b : "/tmp") + "/ftps-xfer-XXXXXX";
        close(mkstemp(file_.data()));
        cred_.timeout = 1;
        cred_.cnt.tran_type = 3;
        before_ = ftpd_mem_get(FTPD_M_BUF);
    }
    void TearDown() override {
        for (int fd : {ctl_[0], ctl_[1], data_[0], data_[1], dom_[0], dom_[1]}) close(fd);
        unlink(file_.c_str());
        ftpd_mem_t after = ftpd_mem_get(FTPD_M_BUF);  // given back on every way out
        EXPECT_EQ(after.allocs - before_.allocs, after.deallocs - before_.deallocs);
    }
    // What is already readable: the workers run synchronously before this is called.
    static std::string drain(int fd) {
        std::string s;
        char b[4096];
        ssize_t n;
        while ((n = recv(fd, b, sizeof b, MSG_DONTWAIT)) > 0) s.append(b, static_cast<size_t>(n));
        return s;
    }
    std::string replies() { return drain(ctl_[1]); }
    int send_file(const std::string &content) {
        FILE *f = fopen(file_.c_str(), "wb");
        fwrite(content.data(), 1, content.size(), f);
        fclose(f);
        int in = open(file_.c_str(), O_RDONLY);
        int r = send_data(ctl_[0], in, data_[0], 512, &cred_, dom_[0]);
        close(in);
        return r;
    }
    int receive_file(const std::string &wire, int flags = O_WRONLY | O_TRUNC) {
        send(data_[1], wire.data(), wire.size(), MSG_NOSIGNAL);
        shutdown(data_[1], SHUT_WR);
        int out = open(file_.c_str(), flags);
        int r = receive_data(ctl_[0], data_[0], out, &cred_, dom_[0]);
        close(out);
        return r;
    }
    std::string stored() {
        int fd = open(file_.c_str(), O_RDONLY);
        char b[4096];
        ssize_t n = read(fd, b, sizeof b);
        close(fd);
        return std::string(b, n > 0 ? static_cast<size_t>(n) : 0);
    }
    void send_stop() { send(dom_[1], FTP_STOP_MSG, strlen(FTP_STOP_MSG), 0); }

    int ctl_[2], data_[2], dom_[2];
    std::string file_;
    credentials cred_{};
    ftpd_mem_t before_{};
};

TEST_F(Transfer, AsciiSendCountsWireBytes) {
    cred_.cnt.tran_type = 1;
    EXPECT_EQ(send_file("first line\nsecond line\nthirds\n"), 0);  // 30 bytes, 3 lines
    EXPECT_EQ(cred_.byte_count, 33);
    EXPECT_EQ(drain(data_[1]), "first line\r\nsecond line\r\nthirds\r\n");
    EXPECT_EQ(replies(), "226 Closing data connection.\r\n");
}

TEST_F(Transfer, AsciiSendPairSplitAtBlockBoundaryGoesOutAsCrCrLf) {
    cred_.cnt.tran_type = 1;
    EXPECT_EQ(send_file(std::string(511, 'a') + "\r\nend"), 0);
    EXPECT_EQ(drain(data_[1]), std::string(511, 'a') + "\r\r\nend");
}

TEST_F(Transfer, BinarySendOfEmptyFileCompletesWithNoBytes) {
    EXPECT_EQ(send_file(""), 0);
    EXPECT_EQ(cred_.byte_count, 0);
    EXPECT_EQ(replies(), "226 Closing data connection.\r\n");
}

TEST_F(Transfer, SendFailuresAndStop) {
    send_stop();
    EXPECT_EQ(send_file("payload"), -2);
    EXPECT_EQ(replies(), "426 Connection closed; transfer aborted.\r\n");

    close(data_[1]);
    data_[1] = socket(AF_UNIX, SOCK_STREAM, 0);  // keeps TearDown's close valid
    EXPECT_EQ(send_file("payload"), -1);
    EXPECT_EQ(replies(), "426 Connection closed; transfer aborted.\r\n");

    int dir = open(".", O_RDONLY | O_DIRECTORY);
    EXPECT_EQ(send_data(ctl_[0], dir, data_[0], 512, &cred_, dom_[0]), -1);
    close(dir);
    EXPECT_EQ(replies(), "551 Error on input file.\r\n");
}

TEST_F(Transfer, AsciiReceiveStripsPairsButKeepsOneSplitAtBlockBoundary) {
    cred_.cnt.tran_type = 1;
    // Byte 1024 is a CR that ends the first receive block; its LF opens the next.
    std::string head(1017, 'x');
    EXPECT_EQ(receive_file("ab\r\ncd" + head + "\r\nrest\r\n"), 0);
    EXPECT_EQ(stored(), "ab\ncd" + head + "\r\nrest\n");
    EXPECT_EQ(cred_.byte_count, static_cast<off_t>(5 + 1017 + 2 + 5));
    EXPECT_EQ(replies(), "");  // the 226 is the caller's
}

TEST_F(Transfer, ReceiveFailuresStopAndTimeOut) {
    cred_.timeout = 0;  // an immediate time-out instead of minutes
    EXPECT_EQ(receive_data(ctl_[0], data_[0], 1, &cred_, dom_[0]), -1);
    EXPECT_EQ(replies(), "426 Data Connection.\r\n");
    cred_.timeout = 1;

    EXPECT_EQ(receive_file("abc", O_RDONLY), -1);
    EXPECT_EQ(replies(), "452 Error writing file.\r\n");

    send_stop();
    EXPECT_EQ(receive_file(""), -2);
    EXPECT_EQ(replies(), "426 Data Connection.\r\n");
}

TEST_F(Transfer, RefusedTypesAndResourceShortage) {
    cred_.cnt.tran_type = 2;
    EXPECT_EQ(send_file("x"), -1);
    EXPECT_EQ(replies(), "550 Unimplemented TYPE BINARY in send_data.\r\n");
    EXPECT_EQ(receive_data(ctl_[0], data_[0], 1, &cred_, dom_[0]), -1);
    EXPECT_EQ(replies(), "550 Unimplemented TYPE 2 in receive_data.\r\n");

    cred_.cnt.tran_type = 4;
    ftpd_mem_fail_after(FTPD_M_CHANG_BUF, 1);
    EXPECT_EQ(send_file("x"), -1);
    ftpd_mem_fail_after(FTPD_M_CHANG_BUF, 0);
    EXPECT_EQ(replies(), "451 Local resource failure: malloc.\r\n");
    ftpd_mem_fail_after(FTPD_M_EPOLL, 1);
    EXPECT_EQ(receive_data(ctl_[0], data_[0], 1, &cred_, dom_[0]), -1);
    ftpd_mem_fail_after(FTPD_M_EPOLL, 0);
    EXPECT_EQ(replies(), "451 Local resource failure: epoll.\r\n");
}

TEST_F(Transfer, TypeAcceptsOnlyExactAOrI) {
    type_fun(ctl_[0], "I", &cred_);
    EXPECT_EQ(cred_.cnt.tran_type, 3);
    type_fun(ctl_[0], "A", &cred_);
    EXPECT_EQ(cred_.cnt.tran_type, 1);
    EXPECT_EQ(replies(), "200 Type set to I.\r\n200 Type set to A.\r\n");
    for (const char *bad : {"a", "A N", "E", "L"}) {
        type_fun(ctl_[0], bad, &cred_);
        EXPECT_EQ(replies(), "504 Type not implemented.\r\n") << bad;
    }
    EXPECT_EQ(cred_.cnt.tran_type, 1);
    EXPECT_STREQ(typenames[cred_.cnt.tran_type], "ASCII");
}

}  // namespace
