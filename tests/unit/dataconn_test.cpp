// Data connection setup over loopback TCP: the passive case after PASV, the active case after PORT
// and to the default address, reuse of an open connection, and the 425 replies; then the refusals
// of RETR and STOR, an unconnected STOR, and the unique-name rule.
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
#include <string>

#include "ftpd.h"
#include "ftpd_test_support.h"

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
    // PASV, then the client connects to the announced port.
    unique_fd pasv_and_connect() {
        passive(ctl(), &cred_);
        int p1 = 0, p2 = 0;
        sscanf(reply().c_str(), "227 Entering Passive Mode (%*d,%*d,%*d,%*d,%d,%d).", &p1, &p2);
        return connect_to(p1 * 256 + p2);
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
}

TEST_F(DataConn, RefusedActiveConnectGives425AndAnOpenOneIsReused) {
    int dead_port = port_of(listener().get());
    cred_.usedefault = 0;
    EXPECT_EQ(dataconn(ctl(), 0, "w", dead_port, "127.0.0.1", &cred_), -1);
    EXPECT_EQ(reply(), "425 Can't build data connection.\r\n");
    EXPECT_EQ(cred_.data, -1);

    unique_fd l = listener();
    cred_.data = connect_to(port_of(l.get())).release();
    EXPECT_EQ(dataconn(ctl(), 0, "r", 1025, "", &cred_), cred_.data);
    EXPECT_EQ(reply(), "125 Using existing data connection.\r\n");
    EXPECT_EQ(cred_.usedefault, 1);
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

}  // namespace

// The same session with a top directory and a socket pair standing for its domain socket.
class RetrStor : public DataConn {
  protected:
    void SetUp() override {
        DataConn::SetUp();
        ftpd_strlcpy(root_, top_.path().c_str(), sizeof root_);
        ftpd_strlcpy(cur_, root_, sizeof cur_);
        cred_.rootdir = root_;
        cred_.rwdir_flag = true;
        cred_.cnt_index = -1;
    }
    int retr(const char *name) {
        ftpd_strlcpy(arg_, name, sizeof arg_);
        return command_retr(ctl(), arg_, addr_, &client_port_, cur_, &cred_, dom_.near());
    }
    int stor(const char *name) {
        ftpd_strlcpy(arg_, name, sizeof arg_);
        return command_stor(ctl(), arg_, addr_, &client_port_, cur_, &cred_, dom_.near());
    }

    ftpd_temp_tree top_;
    ftpd_scoped_env tmpdir_{"TMPDIR", top_.path()};  // key messages stay in this test's directory
    // Stands for the session's domain socket; nothing is sent on it.
    ftpd_socket_pair dom_;
    ftpd_mem_balance whole_{FTPD_M_WHOLE_BUF};
    char root_[FTP_ROOTDIR_LEN], cur_[FTP_CURRENTDIR_LEN], arg_[512], addr_[FTP_CLIENT_ADDR_LEN] = {0};
    int client_port_ = 1025;  // as the session loop leaves it after PASV
};

TEST_F(RetrStor, RefusalsBeforeAnyTransferAndUnconnectedStorEmptiesTheFile) {
    top_.make_dir("sub");
    const char k451[] = "451 Requested action aborted. Local error in processing.\r\n";
    const struct {
        int logged_in, port;  // port 1024: no data address yet, or a privileged one
        bool writable, store;
        const char *name, *reply;
    } rows[] = {
        {0, 1025, true, true, "a.txt", "530 Not logged in.\r\n"},
        {1, 1024, true, false, "a.txt", k451},
        {1, 1025, false, true, "a.txt", k451},
        {1, 1025, true, false, "", "501 Syntax error in parameters or arguments.\r\n"},
        {1, 1025, true, false, "nofile", "550 nofile Can not be open.\r\n"},
        {1, 1025, true, false, "sub", "550 sub: is an illegal file.\r\n"},
    };
    for (const auto &r : rows) {
        cred_.logged_in = r.logged_in;
        client_port_ = r.port;
        cred_.rwdir_flag = r.writable;
        EXPECT_EQ(r.store ? stor(r.name) : retr(r.name), 0) << r.reply;
        EXPECT_EQ(reply(), r.reply);
    }
    EXPECT_FALSE(top_.exists("a.txt"));

    top_.make_file("d.txt", "was here");
    cred_.timeout = 0;  // nobody connects; the passive wait ends at once
    passive(ctl(), &cred_);
    reply();
    EXPECT_EQ(stor("d.txt"), 0);
    EXPECT_EQ(reply(), "425 Can't open data connection.\r\n");
    struct stat st {};
    EXPECT_EQ(stat(top_.full("d.txt").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 0);  // created or emptied all the same

    // A refusal that cannot be sent ends the session.
    shutdown(ctl(), SHUT_WR);
    signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(retr(""), -1);
}

TEST_F(RetrStor, UniqueNames) {
    top_.make_file("f");
    top_.make_file("f.2");
    std::string local = top_.full("f");
    char *u = gunique(ctl(), local.data());
    ASSERT_NE(u, nullptr);
    EXPECT_EQ(std::string(u), top_.full("f.1"));
    ftpd_free(FTPD_M_STRING, u);

    for (int i = 1; i <= 99; i++) top_.make_file("f." + std::to_string(i));
    ftpd_mem_t before = ftpd_mem_get(FTPD_M_STRING);
    EXPECT_EQ(gunique(ctl(), local.data()), nullptr);
    EXPECT_EQ(reply(), "452 Unique file name cannot be created.\r\n");
    EXPECT_EQ(gunique(ctl(), local.data()), nullptr);  // nothing is given back twice
    reply();
    ftpd_mem_t after = ftpd_mem_get(FTPD_M_STRING);
    EXPECT_EQ(after.deallocs - before.deallocs, 2u);
    std::string missing = top_.full("nodir/h");
    EXPECT_EQ(gunique(ctl(), missing.data()), nullptr);
    EXPECT_EQ(reply(), "553 Requested action not taken.\r\n");
}
