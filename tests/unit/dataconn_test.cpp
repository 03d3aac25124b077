// Data connection setup over loopback TCP: the passive case after PASV and EPSV, the active case
// after PORT and to the default address, reuse of an open connection, and the 425 replies; then
// RETR and STOR end to end in a temporary top directory, and the unique-name rule.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fs_info.h"
#include "ftpd.h"

namespace {

sockaddr_in loopback(int port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(port));
    return a;
}

int port_of(int fd, bool peer = false) {
    sockaddr_in a{};
    socklen_t len = sizeof a;
    (peer ? getpeername : getsockname)(fd, reinterpret_cast<sockaddr *>(&a), &len);
    return ntohs(a.sin_port);
}

unique_fd listener() {
    unique_fd l(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in a = loopback(0);
    bind(l.get(), reinterpret_cast<sockaddr *>(&a), sizeof a);
    listen(l.get(), 4);
    return l;
}

unique_fd connect_to(int port) {
    unique_fd c(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in a = loopback(port);
    return connect(c.get(), reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 ? std::move(c) : unique_fd();
}

// A logged-in session whose control connection is a loopback TCP connection.
class DataConn : public ::testing::Test {
  protected:
    void SetUp() override {
        unique_fd l = listener();
        client_ctl_ = connect_to(port_of(l.get()));
        server_ctl_ = unique_fd(accept(l.get(), nullptr, nullptr));
        ASSERT_TRUE(server_ctl_);
        cred_.logged_in = 1;
        cred_.usedefault = 1;
        cred_.listen_pdata = cred_.pdata = cred_.data = -1;
        cred_.ctl_fd = server_ctl_.get();
        cred_.timeout = 1;
        cred_.cnt.tran_type = 3;
        cred_.cnt.contrl_type = cred_.cnt.data_type = AF_INET;
        socklen_t len = sizeof(sockaddr_in);
        getsockname(ctl(), reinterpret_cast<sockaddr *>(&cred_.cnt.def_addr.ctrl_addr), &len);
        getpeername(ctl(), reinterpret_cast<sockaddr *>(&cred_.cnt.def_addr.his_addr), &len);
    }
    void TearDown() override {
        for (int fd : {cred_.listen_pdata, cred_.pdata, cred_.data})
            if (fd >= 0) close(fd);
    }
    int ctl() const { return server_ctl_.get(); }
    std::string reply() {
        char b[512];
        pollfd p = {client_ctl_.get(), POLLIN, 0};
        ssize_t n = poll(&p, 1, 5000) > 0 ? recv(client_ctl_.get(), b, sizeof b, 0) : 0;
        return n > 0 ? std::string(b, static_cast<size_t>(n)) : "";
    }
    // PASV, then the client connects to the announced address.
    unique_fd pasv_and_connect() {
        passive(ctl(), &cred_);
        int h[4], p1, p2;
        std::string r = reply();
        if (sscanf(r.c_str(), "227 Entering Passive Mode (%d,%d,%d,%d,%d,%d).", &h[0], &h[1], &h[2], &h[3], &p1, &p2) !=
            6)
            return unique_fd();
        // Announced: the address the client reached the control connection on.
        EXPECT_EQ(r,
                  "227 Entering Passive Mode (127,0,0,1," + std::to_string(p1) + "," + std::to_string(p2) + ").\r\n");
        return connect_to(p1 * 256 + p2);
    }
    static bool carries(int from, int to) {
        char b[8] = {0};
        return send(from, "ping", 4, MSG_NOSIGNAL) == 4 && recv(to, b, sizeof b, 0) == 4 && std::string(b) == "ping";
    }

    unique_fd client_ctl_, server_ctl_;
    credentials cred_{};
};

TEST_F(DataConn, PassiveAcceptsOneConnectionAndClosesListener) {
    unique_fd client = pasv_and_connect();
    ASSERT_TRUE(client);
    cred_.byte_count = 77;
    cred_.usedefault = 0;  // a PORT before PASV is ignored while the passive socket waits
    cred_.cnt.tran_type = 1;
    int fd = dataconn(ctl(), 0, "w", 2000, "127.0.0.1", &cred_);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fd, cred_.pdata);
    EXPECT_EQ(cred_.data, -1);
    EXPECT_EQ(cred_.listen_pdata, -1);
    EXPECT_EQ(cred_.byte_count, 0);
    EXPECT_EQ(reply(), "150 Opening ASCII mode data connection.\r\n");
    EXPECT_EQ(ntohs(cred_.cnt.pasv_dest.sin_port), port_of(client.get()));
    EXPECT_TRUE(carries(fd, client.get()));
}

TEST_F(DataConn, PassiveWaitWithoutClientGives425) {
    cred_.timeout = 0;  // the wait ends at once instead of after minutes
    passive(ctl(), &cred_);
    reply();
    EXPECT_EQ(dataconn(ctl(), 0, "w", 1025, "", &cred_), -1);
    EXPECT_EQ(reply(), "425 Can't open data connection.\r\n");
    EXPECT_EQ(cred_.listen_pdata, -1);
}

TEST_F(DataConn, PortThenDefaultAddressForTheNextTransfer) {
    unique_fd l = listener();
    int port = port_of(l.get());
    char arg[64], addr[FTP_CLIENT_ADDR_LEN];
    snprintf(arg, sizeof arg, "127,0,0,1,%d,%d", port >> 8, port & 0xff);
    int client_port = 0;
    ASSERT_EQ(command_port(ctl(), arg, addr, &client_port, &cred_), 0);
    ASSERT_EQ(reply(), "200 PORT Command okay.\r\n");
    int fd = dataconn(ctl(), 0, "w", client_port, addr, &cred_);
    ASSERT_EQ(fd, cred_.data);
    EXPECT_EQ(reply(), "150 Opening BINARY mode data connection.\r\n");
    unique_fd accepted(accept(l.get(), nullptr, nullptr));
    EXPECT_EQ(port_of(accepted.get(), true), ntohs(cred_.cnt.data_source.sin_port));
    EXPECT_TRUE(carries(fd, accepted.get()));
    EXPECT_EQ(cred_.usedefault, 1);
    close(cred_.data);
    cred_.data = -1;

    // Next: the client's control port plus one, in the control family once data_type is cleared.
    cred_.cnt.def_addr.his_addr = loopback(port - 1);
    cred_.cnt.data_type = 0;
    EXPECT_GE(dataconn(ctl(), 0, "w", client_port, addr, &cred_), 0);
    EXPECT_EQ(reply(), "150 Opening BINARY mode data connection.\r\n");
    EXPECT_TRUE(unique_fd(accept(l.get(), nullptr, nullptr)));
}

TEST_F(DataConn, OpenActiveConnectionIsReused) {
    unique_fd l = listener();
    cred_.data = connect_to(port_of(l.get())).release();
    cred_.usedefault = 0;
    EXPECT_EQ(dataconn(ctl(), 0, "r", 1025, "", &cred_), cred_.data);
    EXPECT_EQ(reply(), "125 Using existing data connection.\r\n");
    EXPECT_EQ(cred_.usedefault, 1);
}

TEST_F(DataConn, RefusedActiveConnectGives425) {
    int dead_port = port_of(listener().get());
    cred_.usedefault = 0;
    EXPECT_EQ(dataconn(ctl(), 0, "w", dead_port, "127.0.0.1", &cred_), -1);
    EXPECT_EQ(reply(), "425 Can't build data connection.\r\n");
    EXPECT_EQ(cred_.data, -1);
}

TEST_F(DataConn, EprtIpv6Loopback) {
    unique_fd l(socket(AF_INET6, SOCK_STREAM, 0));
    sockaddr_in6 a{};
    a.sin6_family = AF_INET6;
    a.sin6_addr = in6addr_loopback;
    socklen_t len = sizeof a;
    if (!l || bind(l.get(), reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || listen(l.get(), 2) != 0)
        GTEST_SKIP() << "no IPv6 loopback";
    getsockname(l.get(), reinterpret_cast<sockaddr *>(&a), &len);
    char arg[64], addr[FTP_CLIENT_ADDR_LEN];
    snprintf(arg, sizeof arg, "|2|::1|%u|", ntohs(a.sin6_port));
    int client_port = 0;
    ASSERT_EQ(command_eprt(ctl(), arg, addr, FTP_CLIENT_ADDR_LEN, &client_port, &cred_), 0);
    ASSERT_EQ(reply(), "200 EPRT Command okay.\r\n");
    EXPECT_GE(dataconn(ctl(), 0, "w", client_port, addr, &cred_), 0);
    EXPECT_EQ(reply(), "150 Opening BINARY mode data connection.\r\n");
    EXPECT_TRUE(unique_fd(accept(l.get(), nullptr, nullptr)));
}

}  // namespace

// The same session with a top directory and a datagram pair standing for the control channel.
class RetrStor : public DataConn {
  protected:
    void SetUp() override {
        DataConn::SetUp();
        const char *b = getenv("TMPDIR");
        old_tmpdir_ = b != nullptr ? b : "";
        top_ = (old_tmpdir_.empty() ? std::string("/tmp") : old_tmpdir_) + "/ftps-retrstor-XXXXXX";
        ASSERT_NE(mkdtemp(top_.data()), nullptr);
        setenv("TMPDIR", top_.c_str(), 1);  // key messages stay in this test's directory
        socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, dom_);
        ftpd_strlcpy(root_, top_.c_str(), sizeof root_);
        ftpd_strlcpy(cur_, top_.c_str(), sizeof cur_);
        cred_.rootdir = root_;
        cred_.rwdir_flag = true;
        cred_.cnt_index = -1;
        before_ = ftpd_mem_get(FTPD_M_WHOLE_BUF);
    }
    void TearDown() override {
        DataConn::TearDown();
        close(dom_[0]);
        close(dom_[1]);
        if (old_tmpdir_.empty())
            unsetenv("TMPDIR");
        else
            setenv("TMPDIR", old_tmpdir_.c_str(), 1);
        std::system(("rm -rf '" + top_ + "'").c_str());
        ftpd_mem_t after = ftpd_mem_get(FTPD_M_WHOLE_BUF);
        EXPECT_EQ(after.allocs - before_.allocs, after.deallocs - before_.deallocs);
    }
    void put(const std::string &name, const std::string &content) {
        FILE *f = fopen((top_ + "/" + name).c_str(), "wb");
        fwrite(content.data(), 1, content.size(), f);
        fclose(f);
    }
    std::string get(const std::string &name) {
        FILE *f = fopen((top_ + "/" + name).c_str(), "rb");
        if (f == nullptr) return "<none>";
        char b[256];
        size_t n = fread(b, 1, sizeof b, f);
        fclose(f);
        return std::string(b, n);
    }
    int retr(const char *name) {
        ftpd_strlcpy(arg_, name, sizeof arg_);
        return command_retr(ctl(), arg_, addr_, &client_port_, cur_, &cred_, dom_[0]);
    }
    int stor(const char *name) {
        ftpd_strlcpy(arg_, name, sizeof arg_);
        return command_stor(ctl(), arg_, addr_, &client_port_, cur_, &cred_, dom_[0]);
    }

    std::string top_, old_tmpdir_;
    int dom_[2] = {-1, -1};
    char root_[FTP_ROOTDIR_LEN], cur_[FTP_CURRENTDIR_LEN], arg_[512], addr_[FTP_CLIENT_ADDR_LEN] = {0};
    int client_port_ = 1025;  // as the session loop leaves it after PASV
    ftpd_mem_t before_{};
};

TEST_F(RetrStor, RetrSendsFileInsideTopDirectory) {
    put("a.txt", "hello over ftp\n");
    unique_fd client = pasv_and_connect();
    ASSERT_TRUE(client);
    EXPECT_EQ(retr("../../a.txt"), 0);  // cannot climb above the top directory
    EXPECT_EQ(reply(), "150 Opening BINARY mode data connection.\r\n226 Closing data connection.\r\n");
    char b[64];
    EXPECT_EQ(recv(client.get(), b, sizeof b, MSG_WAITALL), 15);
    EXPECT_EQ(cred_.pdata, -1);

    EXPECT_EQ(retr("nofile"), 0);
    EXPECT_EQ(reply(), "550 nofile Can not be open.\r\n");
    mkdir((top_ + "/sub").c_str(), 0755);
    EXPECT_EQ(retr("sub"), 0);
    EXPECT_EQ(reply(), "550 sub: is an illegal file.\r\n");
}

TEST_F(RetrStor, StorReplacesAbortedStorRemovesAndUnconnectedStorEmpties) {
    put("b.txt", "old contents that are longer");
    unique_fd client = pasv_and_connect();
    send(client.get(), "new", 3, 0);
    shutdown(client.get(), SHUT_WR);
    EXPECT_EQ(stor("b.txt"), 0);
    EXPECT_EQ(reply(), "150 Opening BINARY mode data connection.\r\n226 Transfer complete.\r\n");
    EXPECT_EQ(get("b.txt"), "new");

    client = pasv_and_connect();
    send(dom_[1], FTP_STOP_MSG, strlen(FTP_STOP_MSG), 0);
    EXPECT_EQ(stor("b.txt"), -1);  // the stop message ends the session
    EXPECT_EQ(reply(), "150 Opening BINARY mode data connection.\r\n426 Data Connection.\r\n");
    EXPECT_EQ(get("b.txt"), "<none>");

    put("d.txt", "was here");
    cred_.timeout = 0;  // nobody connects; the passive wait ends at once
    passive(ctl(), &cred_);
    reply();
    EXPECT_EQ(stor("d.txt"), 0);
    EXPECT_EQ(reply(), "425 Can't open data connection.\r\n");
    EXPECT_EQ(get("d.txt"), "");  // created or emptied all the same
}

TEST_F(RetrStor, RefusalsBeforeAnyTransfer) {
    cred_.logged_in = 0;
    EXPECT_EQ(stor("a.txt"), 0);
    EXPECT_EQ(reply(), "530 Not logged in.\r\n");
    cred_.logged_in = 1;
    client_port_ = 1024;  // no data address yet, or a privileged one
    EXPECT_EQ(retr("a.txt"), 0);
    EXPECT_EQ(reply(), "451 Requested action aborted. Local error in processing.\r\n");
    client_port_ = 1025;
    cred_.rwdir_flag = false;
    EXPECT_EQ(stor("a.txt"), 0);
    EXPECT_EQ(reply(), "451 Requested action aborted. Local error in processing.\r\n");
    cred_.rwdir_flag = true;
    EXPECT_EQ(retr(""), 0);
    EXPECT_EQ(reply(), "501 Syntax error in parameters or arguments.\r\n");
    EXPECT_EQ(get("a.txt"), "<none>");

    // Under the device root the system trees do not exist; under /mnt/ unmounted storage neither.
    ftpd_strlcpy(root_, "/", sizeof root_);
    ftpd_strlcpy(cur_, "/", sizeof cur_);
    EXPECT_EQ(retr("/proc/self/status"), 0);
    EXPECT_EQ(reply(), "550 \"/proc/self/status\": No such file or directory.\r\n");
    std::string mountinfo = top_ + "/mountinfo";
    FILE *f = fopen(mountinfo.c_str(), "w");
    fprintf(f, "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n");
    fclose(f);
    fs_set_mountinfo_path_for_test(mountinfo.c_str());
    ftpd_strlcpy(root_, "/mnt/ftps-unit-absent", sizeof root_);
    ftpd_strlcpy(cur_, root_, sizeof cur_);
    EXPECT_EQ(stor("x.bin"), 0);
    fs_set_mountinfo_path_for_test(nullptr);
    EXPECT_EQ(reply(), "550 \"x.bin\": No such file or directory.\r\n");

    // A refusal that cannot be sent ends the session.
    shutdown(ctl(), SHUT_WR);
    signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(retr(""), -1);
}

TEST_F(RetrStor, UniqueNames) {
    put("f", "");
    put("f.2", "");
    std::string local = top_ + "/f";
    char *u = gunique(ctl(), local.data());
    ASSERT_NE(u, nullptr);
    EXPECT_EQ(std::string(u), top_ + "/f.1");
    ftpd_free(FTPD_M_STRING, u);

    for (int i = 1; i <= 99; i++) put("f." + std::to_string(i), "");
    ftpd_mem_t before = ftpd_mem_get(FTPD_M_STRING);
    EXPECT_EQ(gunique(ctl(), local.data()), nullptr);
    EXPECT_EQ(reply(), "452 Unique file name cannot be created.\r\n");
    EXPECT_EQ(gunique(ctl(), local.data()), nullptr);  // nothing is given back twice
    reply();
    ftpd_mem_t after = ftpd_mem_get(FTPD_M_STRING);
    EXPECT_EQ(after.deallocs - before.deallocs, 2u);
    std::string missing = top_ + "/nodir/h";
    EXPECT_EQ(gunique(ctl(), missing.data()), nullptr);
    EXPECT_EQ(reply(), "553 Requested action not taken.\r\n");
}
