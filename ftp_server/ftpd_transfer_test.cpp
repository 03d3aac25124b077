// The bulk paths of the transfer engine: many blocks per system call must give exactly what
// converting one block per call gives (CR and LF at every block boundary included), partial sends
// are completed, and each transfer takes the buffers it always took.
#include "ftpd_transfer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ftpd.h"
#include "ftpd_test_support.h"

namespace {

// Text rich in line ends; `edges` puts a CR at the end and an LF at the start of every block of
// that size, and the pair the other way round at every second boundary.
std::string random_text(size_t len, unsigned seed, size_t edges) {
    std::mt19937 rng(seed);
    const char alphabet[] = "ab\r\n\n\r x";
    std::string s(len, 'a');
    for (char &c : s) c = alphabet[rng() % (sizeof alphabet - 1)];
    for (size_t b = edges; b < len; b += edges) {
        s[b - 1] = (b / edges) % 2 != 0 ? '\r' : '\n';
        s[b] = (b / edges) % 2 != 0 ? '\n' : '\r';
    }
    return s;
}

// The reference: one call of the per-block function for each block.
std::string per_block_to_dos(const std::string &in, size_t blk) {
    std::string out;
    std::vector<char> tmp(2 * blk);
    for (size_t off = 0; off < in.size(); off += blk) {
        int n = static_cast<int>(std::min(blk, in.size() - off));
        out.append(tmp.data(), static_cast<size_t>(unix_to_dos(in.data() + off, tmp.data(), n)));
    }
    return out;
}

std::string per_block_to_unix(const std::string &in, size_t blk) {
    std::string out;
    std::vector<char> tmp(blk);
    for (size_t off = 0; off < in.size(); off += blk) {
        int n = static_cast<int>(std::min(blk, in.size() - off));
        out.append(tmp.data(), static_cast<size_t>(dos_to_unix(in.data() + off, tmp.data(), n)));
    }
    return out;
}

// Each block is converted on its own: pairs split by a block boundary are not recognised.
TEST(LineEnds, EachBlockIsConvertedOnItsOwn) {
    struct {
        bool to_dos;
        const char *in, *out;
    } cases[] = {
        {true, "a\nb\n", "a\r\nb\r\n"},
        {true, "a\r\nb\rc", "a\r\nb\rc"},  // pairs and lone CRs pass
        {true, "\n\n", "\r\n\r\n"},        // an opening LF always gets its CR
        {false, "a\r\nb\rc\r\n", "a\nb\rc\n"},
        {false, "a\r", "a\r"},  // a CR ending the block is kept
        {false, "\r\r\n", "\r\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.in);
        std::string in = c.in;
        EXPECT_EQ(c.to_dos ? per_block_to_dos(in, in.size()) : per_block_to_unix(in, in.size()), c.out);
    }
}

std::string read_all(int fd) {
    std::string s;
    char b[65536];
    ssize_t n;
    while ((n = read(fd, b, sizeof b)) > 0) s.append(b, static_cast<size_t>(n));
    return s;
}

// Control pair, a control-channel datagram pair, and a file below a private tree. The data
// connection is made by each test: a stream pair, or a packet pair whose receives are exact.
class BulkTransfer : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, dom_), 0);
        file_ = tree_.full("payload");
        cred_.timeout = 1;
    }
    void TearDown() override {
        close(dom_[0]);
        close(dom_[1]);
    }
    void make_data(int type, int sndbuf = 0) {
        ASSERT_EQ(socketpair(AF_UNIX, type, 0, data_), 0);
        // A small send buffer makes the sender wait for room and complete partial sends.
        if (sndbuf > 0) setsockopt(data_[0], SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf);
    }
    void close_data() {
        close(data_[0]);
        close(data_[1]);
    }
    void put_file(const std::string &content) {
        int fd = open(file_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ASSERT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
        close(fd);
    }
    // Sends the file while a reader thread takes what arrives, in small reads when asked.
    int send_file(std::string *received, size_t read_size = 65536) {
        std::thread reader([&] {
            std::vector<char> b(read_size);
            ssize_t n;
            while ((n = read(data_[1], b.data(), b.size())) > 0) received->append(b.data(), static_cast<size_t>(n));
        });
        int in = open(file_.c_str(), O_RDONLY);
        int r = send_data(ctl_.near(), in, data_[0], 512, &cred_, dom_[0]);
        close(in);
        shutdown(data_[0], SHUT_WR);
        reader.join();
        return r;
    }
    // Receives into the file what a writer thread sends in the given pieces, then end of file.
    int receive_pieces(const std::vector<std::string> &pieces) {
        std::thread writer([&] {
            for (const std::string &p : pieces) send(data_[1], p.data(), p.size(), MSG_NOSIGNAL);
            shutdown(data_[1], SHUT_WR);
        });
        int out = open(file_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int r = receive_data(ctl_.near(), data_[0], out, &cred_, dom_[0]);
        close(out);
        writer.join();
        return r;
    }
    std::string stored() {
        int fd = open(file_.c_str(), O_RDONLY);
        std::string s = read_all(fd);
        close(fd);
        return s;
    }

    ftpd_temp_tree tree_;
    ftpd_socket_pair ctl_;
    int dom_[2] = {-1, -1};
    int data_[2] = {-1, -1};
    std::string file_;
    credentials cred_{};
};

TEST_F(BulkTransfer, AsciiSendEqualsOneConversionPer512ByteBlock) {
    cred_.cnt.tran_type = 1;
    // Sizes around one block, around the engine's read chunk, and several chunks with a tail.
    for (size_t len : {size_t{1}, size_t{511}, size_t{512}, size_t{513}, size_t{65535}, size_t{65536}, size_t{65537},
                       size_t{300007}}) {
        std::string text = random_text(len, static_cast<unsigned>(len), 512);
        put_file(text);
        make_data(SOCK_STREAM, 4096);
        cred_.byte_count = 0;
        std::string got;
        EXPECT_EQ(send_file(&got, 1000), 0) << len;
        close_data();
        std::string want = per_block_to_dos(text, 512);
        EXPECT_TRUE(got == want) << "size " << len << ": " << got.size() << " bytes, want " << want.size();
        EXPECT_EQ(cred_.byte_count, static_cast<off_t>(want.size())) << len;
        EXPECT_EQ(ctl_.drain(), "226 Closing data connection.\r\n");
    }
}

TEST_F(BulkTransfer, AsciiReceiveEqualsOneConversionPerReceivedBlockOf1024) {
    cred_.cnt.tran_type = 1;
    // Packets are received one per call, so the received blocks are known: each packet cut into
    // blocks of 1024 from its start, as receiving at most one block per call would cut it.
    std::vector<std::string> pieces;
    std::string want;
    size_t total = 0;
    unsigned seed = 1;
    for (size_t len : {size_t{1}, size_t{1023}, size_t{1024}, size_t{1025}, size_t{2049}, size_t{4096}, size_t{8191},
                       size_t{3}, size_t{16384}}) {
        std::string p = random_text(len, seed++, 1024);
        want += per_block_to_unix(p, 1024);
        total += len;
        pieces.push_back(p);
    }
    // A CR ending one packet and an LF opening the next stay as they are.
    pieces.push_back("x\r");
    pieces.push_back("\ny");
    want += "x\r\ny";
    make_data(SOCK_SEQPACKET);
    EXPECT_EQ(receive_pieces(pieces), 0);
    close_data();
    EXPECT_TRUE(stored() == want) << stored().size() << " bytes, want " << want.size() << " of " << total;
    EXPECT_EQ(cred_.byte_count, static_cast<off_t>(want.size()));
    EXPECT_EQ(ctl_.drain(), "");
}

TEST_F(BulkTransfer, BinarySendThroughASmallSendBufferIsWhole) {
    cred_.cnt.tran_type = 3;
    std::string content = random_text(3 * 1024 * 1024 + 17, 5, 512);
    put_file(content);
    // The pipe drains into the connection in many partial moves, with waits for room between.
    make_data(SOCK_STREAM, 4096);
    std::string got;
    EXPECT_EQ(send_file(&got, 1000), 0);
    close_data();
    EXPECT_TRUE(got == content) << got.size() << " bytes";
    EXPECT_EQ(cred_.byte_count, static_cast<off_t>(content.size()));
    EXPECT_EQ(ctl_.drain(), "226 Closing data connection.\r\n");
}

TEST_F(BulkTransfer, EachTransferTakesOneBlockOfEachCategory) {
    put_file(std::string(200000, 'z'));
    struct counts {
        unsigned buf, chang, data, epoll;
    };
    auto now = [] {
        return counts{ftpd_mem_get(FTPD_M_BUF).allocs, ftpd_mem_get(FTPD_M_CHANG_BUF).allocs,
                      ftpd_mem_get(FTPD_M_DATA_BUF).allocs, ftpd_mem_get(FTPD_M_EPOLL).allocs};
    };
    ftpd_mem_balance b1(FTPD_M_BUF), b2(FTPD_M_CHANG_BUF), b3(FTPD_M_DATA_BUF), b4(FTPD_M_EPOLL);
    for (int type : {1, 3}) {
        cred_.cnt.tran_type = type;
        make_data(SOCK_STREAM);
        counts before = now();
        std::string got;
        EXPECT_EQ(send_file(&got), 0);
        counts after = now();
        EXPECT_EQ(after.buf - before.buf, 1u) << type;
        EXPECT_EQ(after.chang - before.chang, 1u) << type;
        EXPECT_EQ(after.epoll - before.epoll, 1u) << type;
        EXPECT_EQ(after.data - before.data, 0u) << type;
        close_data();

        make_data(SOCK_STREAM);
        before = now();
        EXPECT_EQ(receive_pieces({got}), 0);
        after = now();
        EXPECT_EQ(after.buf - before.buf, 1u) << type;
        EXPECT_EQ(after.data - before.data, 1u) << type;
        EXPECT_EQ(after.epoll - before.epoll, 1u) << type;
        EXPECT_EQ(after.chang - before.chang, 0u) << type;
        close_data();
    }
    ctl_.drain();
}

}  // namespace
