// The bulk paths of the transfer engine: many blocks per system call must give exactly what
// converting one block per call gives (CR and LF at every block boundary included), and partial
// sends are completed. (Binary transfers, and the buffers each transfer takes: the load and
// fault-injection integration tests.)
#include "data/transfer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "base/ftpd.h"
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
std::string per_block(const std::string &in, size_t blk, bool to_dos) {
    std::string out;
    std::vector<char> tmp(2 * blk);
    for (size_t off = 0; off < in.size(); off += blk) {
        int n = static_cast<int>(std::min(blk, in.size() - off));
        int got = to_dos ? unix_to_dos(in.data() + off, tmp.data(), n) : dos_to_unix(in.data() + off, tmp.data(), n);
        out.append(tmp.data(), static_cast<size_t>(got));
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
    for (const auto &c : cases) EXPECT_EQ(per_block(c.in, strlen(c.in), c.to_dos), c.out) << c.in;
}

// Control pair, a control-channel datagram pair, and a file below a private tree, in ASCII type.
// The data connection is made by each test: a stream pair, or a packet pair whose receives are exact.
class BulkTransfer : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, dom_), 0);
        cred_.timeout = 1;
        cred_.cnt.tran_type = 1;
    }
    void TearDown() override {
        close(dom_[0]);
        close(dom_[1]);
    }
    void make_data(int type) {
        ASSERT_EQ(socketpair(AF_UNIX, type, 0, data_), 0);
        // A small send buffer makes the sender wait for room and complete partial sends.
        int sndbuf = 4096;
        setsockopt(data_[0], SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf);
    }
    void close_data() {
        close(data_[0]);
        close(data_[1]);
    }
    // Sends the file while a reader thread takes what arrives in small reads.
    int send_file(std::string *received) {
        std::thread reader([&] {
            char b[1000];
            ssize_t n;
            while ((n = read(data_[1], b, sizeof b)) > 0) received->append(b, static_cast<size_t>(n));
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
        std::ifstream in(file_, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }

    ftpd_temp_tree tree_;
    ftpd_socket_pair ctl_;
    int dom_[2] = {-1, -1};
    int data_[2] = {-1, -1};
    std::string file_ = tree_.full("payload");
    credentials cred_{};
};

TEST_F(BulkTransfer, AsciiSendEqualsOneConversionPer512ByteBlock) {
    // Sizes around one block, around the engine's read chunk, and several chunks with a tail.
    for (size_t len : {size_t{1}, size_t{511}, size_t{512}, size_t{513}, size_t{65535}, size_t{65536}, size_t{65537},
                       size_t{300007}}) {
        std::string text = random_text(len, static_cast<unsigned>(len), 512);
        tree_.make_file("payload", text);
        make_data(SOCK_STREAM);
        cred_.byte_count = 0;
        std::string got;
        EXPECT_EQ(send_file(&got), 0) << len;
        close_data();
        std::string want = per_block(text, 512, true);
        EXPECT_TRUE(got == want) << "size " << len << ": " << got.size() << " bytes, want " << want.size();
        EXPECT_EQ(cred_.byte_count, static_cast<off_t>(want.size())) << len;
        EXPECT_EQ(ctl_.drain(), "226 Closing data connection.\r\n");
    }
}

TEST_F(BulkTransfer, AsciiReceiveEqualsOneConversionPerReceivedBlockOf1024) {
    // Packets are received one per call, so the received blocks are known: each packet cut into
    // blocks of 1024 from its start, as receiving at most one block per call would cut it.
    std::vector<std::string> pieces;
    std::string want;
    unsigned seed = 1;
    for (size_t len : {size_t{1}, size_t{1023}, size_t{1024}, size_t{1025}, size_t{2049}, size_t{4096}, size_t{8191},
                       size_t{3}, size_t{16384}}) {
        pieces.push_back(random_text(len, seed++, 1024));
        want += per_block(pieces.back(), 1024, false);
    }
    // A CR ending one packet and an LF opening the next stay as they are.
    pieces.push_back("x\r");
    pieces.push_back("\ny");
    want += "x\r\ny";
    make_data(SOCK_SEQPACKET);
    EXPECT_EQ(receive_pieces(pieces), 0);
    close_data();
    EXPECT_TRUE(stored() == want) << stored().size() << " bytes, want " << want.size();
    EXPECT_EQ(cred_.byte_count, static_cast<off_t>(want.size()));
    EXPECT_EQ(ctl_.drain(), "");
}

}  // namespace
