// The management socket: requests framed as ftps-cli frames them, served by the event master on
// this thread while a client thread talks to it, and clients that misbehave without hurting the
// others.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <thread>

#include "cli_internal.h"
#include "cli_proto.h"
#include "ftpd_test_support.h"
#include "platform_conf.h"
#include "zq_thread.h"

namespace {

void echo_cmd(cli_cmd *cmd) {
    cli_printf("%s\n", cli_arg(cmd, "TEXT..."));
}
void big_cmd(cli_cmd *) {
    std::string line(99, 'x');
    for (int i = 0; i < 2000; ++i) cli_printf("%s\n", line.c_str());
}
void fail_cmd(cli_cmd *cmd) {
    cli_printf("%% Refused.\n");
    cli_client_execmd_fail(cmd);
}

const cli_node_def kDefs[] = {
    {"echo TEXT...", nullptr, echo_cmd, 0},
    {"show value", nullptr, fail_cmd, 0},
    {"big", nullptr, big_cmd, 0},
    {"fail", nullptr, fail_cmd, 0},
};

struct reply {
    int rc = -1;
    std::string out;
    int status = -1;
    int offset = -2;
};

class CliServerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        platform_conf conf;
        conf.cli_socket = tree_.full("run/ftps/.cli");
        conf.product_name = "S5800";
        conf.log_syslog = false;
        platform_set_for_test(conf);
        cli_tree_reset();
        cli_config_reset();
        cli_builtin_reset();
        master_ = zq_thread_master_create();
        ASSERT_NE(nullptr, master_);
    }
    void TearDown() override {
        cli_server_stop();
        zq_thread_master_finish(master_);
        cli_tree_reset();
        cli_config_reset();
        cli_builtin_reset();
    }

    void start() {
        ASSERT_EQ(0, cli_client_init("TEST", master_));
        ASSERT_EQ(0, cli_add_command("test", kDefs, 4));
    }

    // Serves the event loop here while client runs in its own thread.
    void serve_while(const std::function<void()> &client) {
        zq_thread_master *m = master_;
        std::thread t([&client, m] {
            client();
            zq_thread_master_stop(m);
        });
        zq_thread task;
        while (zq_thread_fetch(master_, &task) != nullptr) zq_thread_call(&task);
        t.join();
    }

    static unique_fd dial() {
        unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", cli_server_path());
        EXPECT_EQ(0, connect(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr));
        timeval tv{5, 0};  // a broken server fails the test instead of hanging it
        setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        return fd;
    }

    static reply ask(int fd, uint8_t kind, const std::string &payload) {
        reply r;
        r.rc = cli_proto_request(fd, kind, payload, &r.out, &r.status, &r.offset);
        return r;
    }

    // True when the daemon closed fd.
    static bool closed_by_peer(int fd) {
        char c;
        return recv(fd, &c, 1, 0) == 0;
    }

    ftpd_temp_tree tree_;
    zq_thread_master *master_ = nullptr;
};

TEST_F(CliServerTest, SocketIsPrivateAndRequestsAreAnsweredWithStatusAndWholeOutput) {
    start();
    struct stat st {};
    ASSERT_EQ(0, stat(cli_server_path(), &st));
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(0600u, st.st_mode & 0777);

    serve_while([] {
        unique_fd fd = dial();
        reply r = ask(fd.get(), CLI_REQ_EXEC, "fail");
        EXPECT_EQ("% Refused.\n", r.out);
        EXPECT_EQ(1, r.status);
        r = ask(fd.get(), CLI_REQ_HELP, "shw ");
        EXPECT_EQ(1, r.status);
        EXPECT_EQ(0, r.offset);
        EXPECT_EQ("show\n", ask(fd.get(), CLI_REQ_COMPLETE, "sh").out);
        EXPECT_EQ("S5800", ask(fd.get(), CLI_REQ_PROMPT, "").out);
        r = ask(fd.get(), CLI_REQ_EXEC, "big");  // more than one chunk
        EXPECT_EQ(0, r.rc);
        EXPECT_EQ(0, r.status);
        EXPECT_EQ(200000u, r.out.size());
    });
}

TEST_F(CliServerTest, MisbehavingClientsLoseOnlyTheirOwnConnection) {
    start();
    serve_while([] {
        // A stalled half frame is kept and answered once it is complete.
        unique_fd stalled = dial();
        std::string frame;
        const std::string line = "echo late";
        cli_proto_append(&frame, CLI_REQ_EXEC, line.data(), line.size());
        ASSERT_EQ(0, cli_proto_write_all(stalled.get(), frame.data(), 3));

        unique_fd huge = dial();
        std::string header;
        cli_proto_append(&header, CLI_REQ_EXEC, "", 0);
        header[1] = 0x10;  // announces 1 MiB
        ASSERT_EQ(0, cli_proto_write_all(huge.get(), header.data(), header.size()));
        EXPECT_TRUE(closed_by_peer(huge.get()));

        unique_fd gone = dial();
        ASSERT_EQ(0, cli_proto_write_all(gone.get(), frame.data(), 7));
        gone.reset();  // vanishes mid-frame

        unique_fd odd = dial();
        reply r = ask(odd.get(), 0x55, "?");
        EXPECT_EQ(0, r.rc);
        EXPECT_EQ(1, r.status);
        EXPECT_EQ("echo fine\n", ask(odd.get(), CLI_REQ_EXEC, "echo echo fine").out);

        ASSERT_EQ(0, cli_proto_write_all(stalled.get(), frame.data() + 3, frame.size() - 3));
        uint8_t kind = 0;
        std::string payload;
        ASSERT_EQ(0, cli_proto_recv(stalled.get(), &kind, &payload, CLI_PROTO_MAX_CHUNK));
        EXPECT_EQ("late\n", payload);

        // Pipelined requests are answered in order, each closed by its end frame.
        unique_fd fd = dial();
        std::string frames;
        const std::string a = "echo first", b = "echo second";
        cli_proto_append(&frames, CLI_REQ_EXEC, a.data(), a.size());
        cli_proto_append(&frames, CLI_REQ_EXEC, b.data(), b.size());
        ASSERT_EQ(0, cli_proto_write_all(fd.get(), frames.data(), frames.size()));
        ASSERT_EQ(0, cli_proto_recv(fd.get(), &kind, &payload, CLI_PROTO_MAX_CHUNK));
        EXPECT_EQ("first\n", payload);
        ASSERT_EQ(0, cli_proto_recv(fd.get(), &kind, &payload, CLI_PROTO_MAX_CHUNK));
        EXPECT_EQ(CLI_RSP_END, kind);
        ASSERT_EQ(0, cli_proto_recv(fd.get(), &kind, &payload, CLI_PROTO_MAX_CHUNK));
        EXPECT_EQ("second\n", payload);
    });
}

TEST_F(CliServerTest, LiveSocketIsNotTakenOverButAStaleOneIs) {
    std::string path = tree_.full("run/ftps/.cli");
    tree_.make_dir("run");
    tree_.make_dir("run/ftps");
    int other = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    ASSERT_EQ(0, bind(other, reinterpret_cast<sockaddr *>(&addr), sizeof addr));
    ASSERT_EQ(0, listen(other, 1));
    EXPECT_EQ(-1, cli_client_init("TEST", master_));

    close(other);  // the file stays behind, as after a crash
    EXPECT_EQ(0, cli_client_init("TEST", master_));
    EXPECT_EQ(path, cli_server_path());
}

}  // namespace
