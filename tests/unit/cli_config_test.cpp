// Configuration lines of the command-line framework: collection from the handlers, the running
// configuration, write and replay of the startup configuration (a round trip through a temp
// directory), and the framework's own commands around them.
#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "cli_internal.h"
#include "login_pwd.h"
#include "platform_conf.h"

namespace {

// A small settings module in the daemon's style: a value with a default, a name, a flag.
constexpr int kDefaultTimeout = 10;
int g_timeout = kDefaultTimeout;
std::string g_name;
bool g_enabled = false;
int g_shared_calls = 0;
int g_hook_calls = 0;
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
    if (cli_is_no(cmd)) {
        g_name.clear();
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

void enable_cmd(cli_cmd *cmd) {
    if (cli_is_config(cmd)) {
        c2p_printf(g_enabled, "ftp-server enable");
        return;
    }
    g_enabled = !cli_is_no(cmd);
}

void debug_callback(int code) {
    g_debug_codes.push_back(code);
    if (code == 3) cli_printf("FTP Server:\n");
}

void reload_hook(void) {
    ++g_hook_calls;
}

const cli_node_def kDefs[] = {
    {"ftp-server enable", nullptr, enable_cmd, CLI_F_NO | CLI_F_CONFIG},
    {"ftp-server timeout <1-3600>", nullptr, timeout_cmd, CLI_F_NO | CLI_F_CONFIG},
    {"ftp-server name NAME", nullptr, name_cmd, CLI_F_NO | CLI_F_CONFIG},
    {"ftp-server name-again NAME", nullptr, name_cmd, CLI_F_NO | CLI_F_CONFIG},
};

std::string slurp(const std::string &path) {
    std::ifstream f(path);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

class CliConfigTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dir_ = ::testing::TempDir() + "cli_config_test.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(dir_.data()));
        platform_conf quiet;  // failing replay lines are logged: keep them off the system log
        quiet.log_syslog = false;
        platform_set_for_test(quiet);
        reset_all();
        g_timeout = kDefaultTimeout;
        g_name.clear();
        g_enabled = false;
        g_shared_calls = 0;
        g_hook_calls = 0;
        g_debug_codes.clear();
        ASSERT_EQ(0, cli_builtin_register());
        ASSERT_EQ(0, cli_add_command("cfg test", kDefs, 4));
    }
    void TearDown() override {
        login_set_service_pwd_encrypt(0);
        reset_all();
        std::string cmd = "rm -rf '" + dir_ + "'";
        ASSERT_EQ(0, std::system(cmd.c_str()));
    }
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
        DIR *d = opendir(dir_.c_str());
        while (dirent *e = d != nullptr ? readdir(d) : nullptr)
            if (e->d_name[0] != '.') names.push_back(e->d_name);
        if (d != nullptr) closedir(d);
        return names;
    }
    std::string dir_;
};

TEST_F(CliConfigTest, OnlyNonDefaultLinesInRegistrationOrderEachHandlerOnce) {
    EXPECT_EQ("", exec("show running-config"));
    g_shared_calls = 0;
    exec("ftp-server name alice");
    exec("ftp-server timeout 30");
    exec("ftp-server enable");
    EXPECT_EQ("ftp-server enable\nftp-server timeout 30\nftp-server name alice\nftp-server name-again alice\n",
              exec("show running-config"));
    EXPECT_EQ(1, g_shared_calls);
    exec("no ftp-server timeout");
    EXPECT_EQ(std::string::npos, exec("show running-config").find("timeout"));
}

TEST_F(CliConfigTest, ServicePasswordEncryptionShowsAndSwitches) {
    exec("service password-encryption");
    EXPECT_EQ(1, login_is_service_pwd_encrypt_enable());
    EXPECT_TRUE(cli_config_changed());
    EXPECT_EQ("service password-encryption\n", exec("show running-config"));
    exec("no service password-encryption");
    EXPECT_EQ(0, login_is_service_pwd_encrypt_enable());
    EXPECT_EQ("", exec("show running-config"));
}

TEST_F(CliConfigTest, WriteThenReplayRestoresTheSameConfiguration) {
    std::string path = dir_ + "/startup.conf";
    cli_config_set_startup_path(path);
    exec("ftp-server enable");
    exec("ftp-server timeout 3600");
    exec("ftp-server name bob");
    cli_param_is_change();
    int rc = -1;
    EXPECT_EQ("Building configuration...\n[OK]\n", exec("write", &rc));
    EXPECT_EQ(0, rc);
    EXPECT_FALSE(cli_config_changed());
    std::string saved = exec("show running-config");
    EXPECT_EQ(saved, slurp(path));
    EXPECT_EQ((std::vector<std::string>{"startup.conf"}), files());

    g_enabled = false;
    g_timeout = kDefaultTimeout;
    g_name.clear();
    cli_add_param_reload_end_hook(reload_hook);
    EXPECT_EQ(0, cli_config_replay(path.c_str()));
    cli_run_reload_end_hooks();
    EXPECT_EQ(1, g_hook_calls);
    EXPECT_EQ(saved, exec("show running-config"));

    // A second write over the first leaves exactly one file.
    exec("write");
    EXPECT_EQ((std::vector<std::string>{"startup.conf"}), files());
}

TEST_F(CliConfigTest, ReplaySkipsCommentsAndGoesOnAfterAFailingLine) {
    std::string path = dir_ + "/startup.conf";
    {
        std::ofstream f(path);
        f << "! saved configuration\n"
             "\n"
             "   \t\n"
             "# comment\n"
             "  ! indented comment\n"
             "ftp-server timeout 99999\n"
             "ftp-server name bad\n"
             "ftp-server bogus\n"
             "ftp-server name carol\r\n"
             "ftp-server timeout 20";
    }
    EXPECT_EQ(3, cli_config_replay(path.c_str()));
    EXPECT_EQ("carol", g_name);
    EXPECT_EQ(20, g_timeout);
    EXPECT_EQ(0, cli_config_replay((dir_ + "/missing.conf").c_str()));
}

TEST_F(CliConfigTest, WriteFailsCleanly) {
    int rc = -1;
    EXPECT_EQ("% No startup configuration file is configured.\n", exec("write", &rc));
    EXPECT_EQ(1, rc);

    cli_config_set_startup_path(dir_ + "/no-such-dir/startup.conf");
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

TEST_F(CliConfigTest, ParseErrorsAndRefusalsFailTheCommand) {
    int rc = 0;
    EXPECT_EQ("% Bad name.\n", exec("ftp-server name bad", &rc));
    EXPECT_EQ(1, rc);
    EXPECT_EQ("% Unknown command: 'bogus'\n", exec("ftp-server bogus", &rc));
    EXPECT_EQ(1, rc);
    EXPECT_EQ("", exec("ftp-server name ok", &rc));
    EXPECT_EQ(0, rc);
    EXPECT_EQ(0, cli_execute_line("ftp-server name quiet", nullptr));
    EXPECT_EQ("quiet", g_name);
}

}  // namespace
