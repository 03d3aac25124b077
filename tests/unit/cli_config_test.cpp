// Configuration lines of the command-line framework: collection from the handlers, write and
// replay of the startup configuration through a temp directory, and the debug callbacks.
#include <dirent.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "cli_internal.h"
#include "ftpd_test_support.h"
#include "platform_conf.h"

namespace {

// A small settings module in the daemon's style: a value with a default and a name shown by one
// handler on two lines.
constexpr int kDefaultTimeout = 10;
int g_timeout = kDefaultTimeout;
std::string g_name;
int g_shared_calls = 0;
std::vector<int> g_debug_codes;

void timeout_cmd(cli_cmd *cmd) {
    if (cli_is_config(cmd)) {
        cli_printf("not part of the configuration\n");
        c2p_printf(g_timeout != kDefaultTimeout, "ftp-server timeout %d", g_timeout);
        return;
    }
    g_timeout = cli_is_no(cmd) ? kDefaultTimeout : static_cast<int>(cli_arg_int(cmd, "<1-3600>", kDefaultTimeout));
}

void name_cmd(cli_cmd *cmd) {
    if (cli_is_config(cmd)) {
        ++g_shared_calls;
        c2p_printf(!g_name.empty(), "ftp-server name %s\nftp-server name-again %s\n", g_name.c_str(), g_name.c_str());
        return;
    }
    const char *v = cli_arg(cmd, "NAME");
    if (std::string(v) == "bad") {
        cli_printf("%% Bad name.\n");
        cli_client_execmd_fail(cmd);
        return;
    }
    g_name = v;
}

void debug_callback(int code) {
    g_debug_codes.push_back(code);
    if (code == 3) cli_printf("FTP Server:\n");
}

const cli_node_def kDefs[] = {
    {"ftp-server timeout <1-3600>", nullptr, timeout_cmd, CLI_F_NO | CLI_F_CONFIG},
    {"ftp-server name NAME", nullptr, name_cmd, CLI_F_NO | CLI_F_CONFIG},
    {"ftp-server name-again NAME", nullptr, name_cmd, CLI_F_NO | CLI_F_CONFIG},
};

class CliConfigTest : public ::testing::Test {
  protected:
    void SetUp() override {
        platform_conf quiet;  // failing replay lines are logged: keep them off the system log
        quiet.log_syslog = false;
        platform_set_for_test(quiet);
        reset_all();
        g_timeout = kDefaultTimeout;
        g_name.clear();
        g_shared_calls = 0;
        g_debug_codes.clear();
        ASSERT_EQ(0, cli_builtin_register());
        ASSERT_EQ(0, cli_add_command("cfg test", kDefs, 3));
    }
    void TearDown() override { reset_all(); }
    static void reset_all() {
        cli_tree_reset();
        cli_config_reset();
        cli_builtin_reset();
    }
    static std::string exec(const std::string &line, int *rc = nullptr) {
        std::string out;
        int r = cli_execute_line(line.c_str(), &out);
        if (rc != nullptr) *rc = r;
        return out;
    }
    std::vector<std::string> files() const {
        std::vector<std::string> names;
        DIR *d = opendir(tree_.path().c_str());
        while (dirent *e = d != nullptr ? readdir(d) : nullptr)
            if (e->d_name[0] != '.') names.push_back(e->d_name);
        if (d != nullptr) closedir(d);
        return names;
    }
    ftpd_temp_tree tree_;
};

TEST_F(CliConfigTest, WriteSavesNonDefaultLinesInRegistrationOrderAndReplayRestoresThem) {
    std::string path = tree_.full("startup.conf");
    cli_config_set_startup_path(path);
    exec("ftp-server name bob");
    exec("ftp-server timeout 3600");
    g_shared_calls = 0;
    const std::string saved = "ftp-server timeout 3600\nftp-server name bob\nftp-server name-again bob\n";
    EXPECT_EQ(saved, exec("show running-config"));
    EXPECT_EQ(1, g_shared_calls);  // one handler, two lines: asked once

    int rc = -1;
    EXPECT_EQ("Building configuration...\n[OK]\n", exec("write", &rc));
    EXPECT_EQ(0, rc);
    EXPECT_FALSE(cli_config_changed());
    std::stringstream ss;
    ss << std::ifstream(path).rdbuf();
    EXPECT_EQ(saved, ss.str());
    exec("write");  // over the first: still exactly one file, no temporary left
    EXPECT_EQ((std::vector<std::string>{"startup.conf"}), files());

    g_timeout = kDefaultTimeout;
    g_name.clear();
    EXPECT_EQ(0, cli_config_replay(path.c_str()));
    EXPECT_EQ(saved, exec("show running-config"));
    exec("no ftp-server timeout");
    EXPECT_EQ(std::string::npos, exec("show running-config").find("timeout"));
}

TEST_F(CliConfigTest, ReplaySkipsCommentsAndGoesOnAfterFailingLines) {
    std::string path = tree_.make_file("startup.conf",
                                       "! saved configuration\n\n   \t\n# comment\n  ! indented comment\n"
                                       "ftp-server timeout 99999\nftp-server name bad\nftp-server bogus\n"
                                       "ftp-server name carol\r\nftp-server timeout 20");
    EXPECT_EQ(3, cli_config_replay(path.c_str()));
    EXPECT_EQ("carol", g_name);
    EXPECT_EQ(20, g_timeout);
    EXPECT_EQ(0, cli_config_replay(tree_.full("missing.conf").c_str()));
}

TEST_F(CliConfigTest, WriteWithoutUsablePathFailsAndLeavesNothing) {
    int rc = -1;
    EXPECT_EQ("% No startup configuration file is configured.\n", exec("write", &rc));
    EXPECT_EQ(1, rc);
    cli_config_set_startup_path(tree_.full("no-such-dir/startup.conf"));
    std::string out = exec("write", &rc);
    EXPECT_EQ(1, rc);
    EXPECT_EQ(0u, out.find("Building configuration...\n% Cannot save the configuration to "));
    EXPECT_TRUE(files().empty());
}

TEST_F(CliConfigTest, DebugCallbacksGetTheirCodes) {
    ASSERT_EQ(0, sys_add_debug("ftp-server-debug", debug_callback));
    EXPECT_EQ("All debugging is on\n", exec("debug all"));
    EXPECT_EQ("All debugging is off\n", exec("no debug all"));
    EXPECT_EQ("FTP Server:\n", exec("show debugging"));
    EXPECT_EQ((std::vector<int>{1, 2, 3}), g_debug_codes);
    EXPECT_EQ(-1, sys_add_debug("none", nullptr));
}

}  // namespace
