// The management socket: requests framed as ftps-cli frames them, served by the event master on
// this thread while a client thread talks to it; the startup replay at the first turn of the
// loop; and clients that misbehave without hurting the others.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "cli_internal.h"
#include "cli_proto.h"
#include "platform_conf.h"
#include "zq_thread.h"

namespace {

int g_value = 0;
int g_hook_calls = 0;

void echo_cmd(cli_cmd *cmd) {
    cli_printf("%s\n", cli_arg(cmd, "TEXT..."));
}
void set_cmd(cli_cmd *cmd) {
    if (cli_is_config(cmd)) {
        c2p_printf(g_value != 0, "set value %d", g_value);
        return;
    }
    g_value = static_cast<int>(cli_arg_int(cmd, "<1-100>", 0));
}
void show_cmd(cli_cmd *) {
    cli_printf("%d\n", g_value);
}
void big_cmd(cli_cmd *) {
    std::string line(99, 'x');
    for (int i = 0; i < 2000; ++i) cli_printf("%s\n", line.c_str());
}
void fail_cmd(cli_cmd *cmd) {
    cli_printf("%% Refused.\n");
    cli_client_execmd_fail(cmd);
}
void hook(void) {
    ++g_hook_calls;
}

const char *const kShowHelp[] = {"Show running system information", "The test value"};
const cli_node_def kDefs[] = {
    {"echo TEXT...", nullptr, echo_cmd, 0}, {"set value <1-100>", nullptr, set_cmd, CLI_F_CONFIG},
    {"show value", kShowHelp, show_cmd, 0}, {"big", nullptr, big_cmd, 0},
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
        dir_ = ::testing::TempDir() + "cli_server_test.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(dir_.data()));
        platform_conf conf;
        conf.cli_socket = dir_ + "/run/ftps/.cli";
        conf.startup_config = dir_ + "/startup.conf";
        conf.product_name = "S5800";
        conf.log_syslog = false;
        platform_set_for_test(conf);
        std::ofstream(conf.startup_config) << "set value 42\nno such command\n";
        cli_tree_reset();
        cli_config_reset();
        cli_builtin_reset();
        g_value = 0;
        g_hook_calls = 0;
        master_ = zq_thread_master_create();
        ASSERT_NE(nullptr, master_);
    }
    void TearDown() override {
        cli_server_stop();
        zq_thread_master_finish(master_);
        cli_tree_reset();
        cli_config_reset();
        cli_builtin_reset();
        std::string cmd = "rm -rf '" + dir_ + "'";
        ASSERT_EQ(0, std::system(cmd.c_str()));
    }

    void start() {
        ASSERT_EQ(0, cli_client_init("TEST", master_));
        ASSERT_EQ(0, cli_add_command("test", kDefs, 5));
        ASSERT_EQ(0, cli_add_param_reload_end_hook(hook));
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

    static int dial() {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", cli_server_path());
        if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
            close(fd);
            return -1;
        }
        timeval tv{5, 0};  // a broken server fails the test instead of hanging it
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
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

    std::string dir_;
    zq_thread_master *master_ = nullptr;
};

TEST_F(CliServerTest, SocketIsPrivateAndRequestsAreAnswered) {
    start();
    struct stat st {};
    ASSERT_EQ(0, stat(cli_server_path(), &st));
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(0600u, st.st_mode & 0777);

    serve_while([] {
        int fd = dial();
        ASSERT_GE(fd, 0);
        reply r = ask(fd, CLI_REQ_EXEC, "echo  hi  there ");
        EXPECT_EQ(0, r.rc);
        EXPECT_EQ("hi  there \n", r.out);
        EXPECT_EQ(0, r.status);
        EXPECT_EQ(-1, r.offset);

        r = ask(fd, CLI_REQ_EXEC, "fail");
        EXPECT_EQ("% Refused.\n", r.out);
        EXPECT_EQ(1, r.status);

        r = ask(fd, CLI_REQ_EXEC, "set value 500");
        EXPECT_EQ("% Number 500 out of range 1-100.\n", r.out);
        EXPECT_EQ(1, r.status);
        EXPECT_EQ(10, r.offset);

        r = ask(fd, CLI_REQ_HELP, "show v");
        EXPECT_EQ("  value  The test value\n", r.out);
        EXPECT_EQ(0, r.status);
        r = ask(fd, CLI_REQ_HELP, "shw ");
        EXPECT_EQ(1, r.status);
        EXPECT_EQ(0, r.offset);

        EXPECT_EQ("show\n", ask(fd, CLI_REQ_COMPLETE, "sh").out);
        EXPECT_EQ("S5800", ask(fd, CLI_REQ_PROMPT, "").out);

        r = ask(fd, CLI_REQ_EXEC, "big");
        EXPECT_EQ(0, r.rc);
        EXPECT_EQ(200000u, r.out.size());
        close(fd);
    });
}

TEST_F(CliServerTest, StartupConfigurationIsReplayedBeforeTheFirstCommand) {
    start();
    serve_while([] {
        int fd = dial();
        ASSERT_GE(fd, 0);
        EXPECT_EQ("42\n", ask(fd, CLI_REQ_EXEC, "show value").out);
        EXPECT_EQ("set value 42\n", ask(fd, CLI_REQ_EXEC, "show running-config").out);
        close(fd);
    });
    EXPECT_EQ(1, g_hook_calls);
}

TEST_F(CliServerTest, PipelinedRequestsAreAnsweredInOrder) {
    start();
    serve_while([] {
        int fd = dial();
        ASSERT_GE(fd, 0);
        std::string frames;
        const std::string a = "echo first", b = "echo second";
        cli_proto_append(&frames, CLI_REQ_EXEC, a.data(), a.size());
        cli_proto_append(&frames, CLI_REQ_EXEC, b.data(), b.size());
        ASSERT_EQ(0, cli_proto_write_all(fd, frames.data(), frames.size()));
        uint8_t kind = 0;
        std::string payload;
        ASSERT_EQ(0, cli_proto_recv(fd, &kind, &payload, CLI_PROTO_MAX_CHUNK));
        EXPECT_EQ("first\n", payload);
        ASSERT_EQ(0, cli_proto_recv(fd, &kind, &payload, CLI_PROTO_MAX_CHUNK));
        EXPECT_EQ(CLI_RSP_END, kind);
        ASSERT_EQ(0, cli_proto_recv(fd, &kind, &payload, CLI_PROTO_MAX_CHUNK));
        EXPECT_EQ("second\n", payload);
        close(fd);
    });
}

TEST_F(CliServerTest, MisbehavingClientsLoseOnlyTheirOwnConnection) {
    start();
    serve_while([] {
        // A stalled half frame is kept and answered once it is complete.
        int stalled = dial();
        ASSERT_GE(stalled, 0);
        std::string frame;
        const std::string line = "echo late";
        cli_proto_append(&frame, CLI_REQ_EXEC, line.data(), line.size());
        ASSERT_EQ(0, cli_proto_write_all(stalled, frame.data(), 3));

        int huge = dial();
        ASSERT_GE(huge, 0);
        std::string header;
        cli_proto_append(&header, CLI_REQ_EXEC, "", 0);
        header[1] = 0x10;  // announces 1 MiB
        ASSERT_EQ(0, cli_proto_write_all(huge, header.data(), header.size()));
        EXPECT_TRUE(closed_by_peer(huge));
        close(huge);

        int gone = dial();
        ASSERT_GE(gone, 0);
        ASSERT_EQ(0, cli_proto_write_all(gone, frame.data(), 7));
        close(gone);

        int odd = dial();
        ASSERT_GE(odd, 0);
        reply r = ask(odd, 0x55, "?");
        EXPECT_EQ(0, r.rc);
        EXPECT_EQ(1, r.status);
        EXPECT_EQ("echo fine\n", ask(odd, CLI_REQ_EXEC, "echo echo fine").out);
        close(odd);

        ASSERT_EQ(0, cli_proto_write_all(stalled, frame.data() + 3, frame.size() - 3));
        uint8_t kind = 0;
        std::string payload;
        ASSERT_EQ(0, cli_proto_recv(stalled, &kind, &payload, CLI_PROTO_MAX_CHUNK));
        EXPECT_EQ("late\n", payload);
        close(stalled);
    });
}

TEST_F(CliServerTest, LiveSocketIsNotTakenOverButAStaleOneIs) {
    std::string path = dir_ + "/run/ftps/.cli";
    ASSERT_EQ(0, system(("mkdir -p '" + dir_ + "/run/ftps'").c_str()));
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
