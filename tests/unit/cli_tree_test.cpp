// Command trees of the command-line framework: definitions in the style the daemon registers,
// matching of typed lines (abbreviations, ranges, choices, storage keywords, rest of line, the
// "no" prefix), error texts with their offsets, help listings and completion.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "cli_internal.h"

namespace {

struct seen_call {
    std::string syntax;
    bool no = false;
    const cli_cmd *cmd = nullptr;
};
seen_call g_seen;

#define RECORDER(fn, text)          \
    void fn(cli_cmd *cmd) {         \
        g_seen.syntax = text;       \
        g_seen.no = cli_is_no(cmd); \
        g_seen.cmd = cmd;           \
    }
RECORDER(enable_cmd, "enable")
RECORDER(topdir_cmd, "topdir")
RECORDER(timeout_cmd, "timeout")
RECORDER(login_timeout_cmd, "login timeout")
RECORDER(login_times_cmd, "login times")
RECORDER(authen_cmd, "authentication")
RECORDER(max_connect_cmd, "max-user-connect")
RECORDER(user_cmd, "username")
RECORDER(show_cmd, "show ftp-server")
RECORDER(show_memory_cmd, "show ftp-server memory")
RECORDER(show_ftp_cmd, "show ftp")
RECORDER(debug_cmd, "debug ftp-server")

// Arguments are copied while the handler runs: the record does not outlive it.
std::string g_path, g_storage, g_password, g_type, g_minutes;
void capture_cmd(cli_cmd *cmd) {
    g_seen.syntax = "capture";
    g_seen.no = cli_is_no(cmd);
    auto get = [cmd](const char *t) { return std::string(cli_arg(cmd, t) ? cli_arg(cmd, t) : "(none)"); };
    g_path = get("PATH");
    g_storage = get("flash:") != "(none)" ? "flash:" : get("flash2:") != "(none)" ? "flash2:" : get("usb0:");
    g_password = get("PASSWORD...");
    g_type = get("7") != "(none)" ? "7" : get("0");
    g_minutes = std::to_string(cli_arg_int(cmd, "<1-3600>", -1));
}

const char *const kEnable[] = {"FTP server", "Enable FTP Server"};
const char *const kTopdir[] = {"FTP server",
                               "Specify path for top-of-tree for FTP Server (clients') operations",
                               "Set ftp-server access directory flash: file system",
                               "Set ftp-server access directory flash2: file system",
                               "Set ftp-server access directory usb0: file system",
                               "Set ftp-server access directory tmp: file system",
                               "Name of the directory/file"};
const char *const kTimeout[] = {"FTP server", "Specify timeout of FTP Server waits for FTP client's command",
                                "Number of ftp session idle timeout, in minutes (default value: 10)"};
const char *const kLoginTimeout[] = {"FTP server", "Specify login of FTP Server waits for FTP client's command",
                                     "Specify login timeout of FTP Server waits for FTP client's command",
                                     "Number of ftp login timeout, in minutes (default value: 2)"};
const char *const kLoginTimes[] = {"FTP server", "Specify login of FTP Server waits for FTP client's command",
                                   "Specify login times of FTP Server waits for FTP client's command", "Times"};
const char *const kAuthen[] = {"FTP server", "Use an authentication list with this name",
                               "Use the default authentication list.", "Use an authentication list with this name."};
const char *const kMax[] = {"FTP server", "Set max-user-connect", "numbers"};
const char *const kUser[] = {"FTP server",
                             "Specify username of FTP Server",
                             "Username length(1-64)",
                             "Specify password of FTP Server",
                             "Specifies an UNENCRYPTED password will follow",
                             "Specifies a HIDDEN password will follow",
                             "The UNENCRYPTED (cleartext) 'enable' password"};
const char *const kShow[] = {"Show running system information", "ftp-server information", "ftp-server config"};
const char *const kShowMemory[] = {"Show running system information", "ftp-server information", "ftp-server memory"};
const char *const kShowFtp[] = {"Show running system information", "ftp only"};
const char *const kDebug[] = {"Debugging functions", "FTP server", "debug ftp server error information",
                              "debug ftp server process information"};

const cli_node_def kConfigDefs[] = {
    {"ftp-server enable", kEnable, enable_cmd, CLI_F_NO | CLI_F_CONFIG},
    {"ftp-server topdir [(flash:|flash2:|usb0:|tmp:)] PATH", kTopdir, topdir_cmd, CLI_F_NO | CLI_F_CONFIG},
    {"ftp-server timeout <1-3600>", kTimeout, timeout_cmd, CLI_F_NO | CLI_F_CONFIG},
    {"ftp-server login timeout <1-30>", kLoginTimeout, login_timeout_cmd, CLI_F_NO | CLI_F_CONFIG},
    {"ftp-server login times <1-10>", kLoginTimes, login_times_cmd, CLI_F_NO | CLI_F_CONFIG},
    {"ftp-server authentication (default|LISTNAME)", kAuthen, authen_cmd, CLI_F_NO | CLI_F_CONFIG},
    {"ftp-server max-user-connect <1-20>", kMax, max_connect_cmd, 0},
    {"ftp-server username NAME password [(0|7)] PASSWORD...", kUser, user_cmd, CLI_F_NO | CLI_F_CONFIG},
};
const cli_node_def kShowDefs[] = {
    {"show ftp-server [config]", kShow, show_cmd, 0},
    {"show ftp-server memory", kShowMemory, show_memory_cmd, 0},
    {"show ftp", kShowFtp, show_ftp_cmd, 0},
};
const cli_node_def kDebugDefs[] = {
    {"debug ftp-server (err|pro)", kDebug, debug_cmd, CLI_F_NO},
};

class CliTreeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        cli_tree_reset();
        g_seen = seen_call();
        ASSERT_EQ(0, cli_add_command("cfg ftp server", kConfigDefs, 8));
        ASSERT_EQ(0, cli_add_command("ftp information", kShowDefs, 3));
        ASSERT_EQ(0, cli_add_command("debug ftp server", kDebugDefs, 1));
    }
    void TearDown() override { cli_tree_reset(); }

    // Runs line; returns the handler's name, or the error line with "@offset".
    static std::string run(const char *line) {
        g_seen = seen_call();
        std::string out;
        int off = -1;
        int rc = cli_execute_line_ex(line, &out, &off);
        if (rc != 0) return out.substr(0, out.size() - 1) + "@" + std::to_string(off);
        return (g_seen.no ? "no " : "") + g_seen.syntax;
    }

    static void use_capture() {
        static const cli_node_def defs[] = {
            {"cap topdir [(flash:|flash2:|usb0:)] PATH", nullptr, capture_cmd, CLI_F_NO},
            {"cap user NAME password [(0|7)] PASSWORD...", nullptr, capture_cmd, CLI_F_NO},
            {"cap timeout <1-3600>", nullptr, capture_cmd, CLI_F_NO},
        };
        ASSERT_EQ(0, cli_add_command("capture", defs, 3));
    }

    static std::string help(const char *line) {
        std::string out;
        int off = -1;
        int rc = cli_help_line(line, &out, &off);
        return rc == 0 ? out : out + "@" + std::to_string(off);
    }

    static std::vector<std::string> complete(const char *line) {
        std::vector<std::string> c;
        cli_complete_line(line, &c);
        return c;
    }
};

TEST_F(CliTreeTest, MalformedDefinitionRejectsTheWholeGroup) {
    const char *bad[] = {"ftp-server x <5-1>", "ftp-server [x",  "ftp-server (a|)", "ftp-server LINE... x", "",
                         "ftp-server <1-x>",   "ftp-server (a|b"};
    for (const char *syntax : bad) {
        cli_node_def defs[] = {{"fresh ok", nullptr, enable_cmd, 0}, {syntax, nullptr, enable_cmd, 0}};
        EXPECT_EQ(-1, cli_add_command("bad", defs, 2)) << syntax;
    }
    EXPECT_EQ(12, cli_def_count());
    EXPECT_EQ("% Unknown command: 'fresh'@0", run("fresh ok"));
}

TEST_F(CliTreeTest, KeywordsMatchByUnambiguousPrefix) {
    EXPECT_EQ("timeout", run("ftp-server timeout 5"));
    EXPECT_EQ("timeout", run("ftp tim 5"));
    EXPECT_EQ("login times", run("f lo times 3"));
    EXPECT_EQ("login timeout", run("  ftp-server\tlogin  timeo 3  "));
    EXPECT_EQ("% Ambiguous command: 't'@11", run("ftp-server t 5"));
    EXPECT_EQ("% Ambiguous command: 'time'@17", run("ftp-server login time 3"));
    EXPECT_EQ("% Unknown command: 'tiemout'@11", run("ftp-server tiemout 5"));
    EXPECT_EQ("% Unknown command: 'extra'@21", run("ftp-server timeout 5 extra"));
}

TEST_F(CliTreeTest, ExactKeywordWinsOverLongerOnes) {
    EXPECT_EQ("show ftp", run("show ftp"));
    EXPECT_EQ("show ftp-server", run("show ftp-"));
    EXPECT_EQ("show ftp-server", run("sh ftp-server"));
}

TEST_F(CliTreeTest, NodeCanBeCompleteAndHaveChildren) {
    EXPECT_EQ("show ftp-server", run("show ftp-server"));
    EXPECT_EQ("show ftp-server", run("show ftp-server config"));
    EXPECT_EQ("show ftp-server memory", run("show ftp-server mem"));
    EXPECT_EQ("% Incomplete command.@10", run("ftp-server"));
    EXPECT_EQ("% Incomplete command.@19", run("ftp-server timeout "));
    EXPECT_EQ("", run("   "));
}

TEST_F(CliTreeTest, NumbersAreCheckedAgainstTheirRange) {
    use_capture();
    EXPECT_EQ("capture", run("cap timeout 1"));
    EXPECT_EQ("1", g_minutes);
    EXPECT_EQ("capture", run("cap timeout 3600"));
    EXPECT_EQ("3600", g_minutes);
    EXPECT_EQ("% Number 0 out of range 1-3600.@12", run("cap timeout 0"));
    EXPECT_EQ("% Number 3601 out of range 1-3600.@12", run("cap timeout 3601"));
    EXPECT_EQ("% Number 99999999999999999999 out of range 1-3600.@12", run("cap timeout 99999999999999999999"));
    EXPECT_EQ("% Invalid number: 'ten'@12", run("cap timeout ten"));
    EXPECT_EQ("% Invalid number: '-5'@12", run("cap timeout -5"));
}

TEST_F(CliTreeTest, OptionalStorageKeywordAndGluedPath) {
    use_capture();
    EXPECT_EQ("capture", run("cap topdir /pub"));
    EXPECT_EQ("/pub", g_path);
    EXPECT_EQ("(none)", g_storage);
    EXPECT_EQ("capture", run("cap topdir flash: /pub"));
    EXPECT_EQ("flash:", g_storage);
    EXPECT_EQ("/pub", g_path);
    EXPECT_EQ("capture", run("cap topdir flash:/pub"));
    EXPECT_EQ("flash:", g_storage);
    EXPECT_EQ("/pub", g_path);
    EXPECT_EQ("capture", run("cap topdir flash2:/a/b"));
    EXPECT_EQ("flash2:", g_storage);
    EXPECT_EQ("/a/b", g_path);
    // A storage keyword typed in full needs its path; a shortened one may still be a path.
    EXPECT_EQ("% Incomplete command.@17", run("cap topdir flash:"));
    EXPECT_EQ("capture", run("cap topdir us"));
    EXPECT_EQ("us", g_path);
    EXPECT_EQ("capture", run("cap topdir us /x"));
    EXPECT_EQ("usb0:", g_storage);
    EXPECT_EQ("/x", g_path);
}

TEST_F(CliTreeTest, RestOfLineKeepsInnerAndTrailingBlanks) {
    use_capture();
    EXPECT_EQ("capture", run("cap user bob password  p a  s  "));
    EXPECT_EQ("p a  s  ", g_password);
    EXPECT_EQ("(none)", g_type);
    EXPECT_EQ("capture", run("cap user bob password 7 0A1B2C\r\n"));
    EXPECT_EQ("7", g_type);
    EXPECT_EQ("0A1B2C", g_password);
    EXPECT_EQ("% Incomplete command.@23", run("cap user bob password 7"));
    EXPECT_EQ("capture", run("cap user bob password 77"));
    EXPECT_EQ("77", g_password);
}

TEST_F(CliTreeTest, ChoiceOfKeywordOrName) {
    EXPECT_EQ("authentication", run("ftp-server authentication default"));
    EXPECT_EQ("authentication", run("ftp-server authentication mylist"));
    EXPECT_EQ("debug ftp-server", run("debug ftp-server err"));
    EXPECT_EQ("% Unknown command: 'foo'@17", run("debug ftp-server foo"));
}

TEST_F(CliTreeTest, NoPrefixAllowsTrailingArgumentsToBeLeftOut) {
    EXPECT_EQ("no timeout", run("no ftp-server timeout"));
    EXPECT_EQ("no timeout", run("no ftp-server timeout 20"));
    EXPECT_EQ("no enable", run("n ftp-server enable"));
    EXPECT_EQ("no topdir", run("no ftp-server topdir"));
    EXPECT_EQ("no username", run("no ftp-server username bob password"));
    EXPECT_EQ("no debug ftp-server", run("no debug ftp-server pro"));
    // Keywords may not be left out, and only definitions that take "no" accept it.
    EXPECT_EQ("% Incomplete command.@26", run("no ftp-server username bob"));
    EXPECT_EQ("% Incomplete command.@20", run("no debug ftp-server "));
    EXPECT_EQ("% Unknown command: 'max-user-connect'@14", run("no ftp-server max-user-connect 5"));
    EXPECT_EQ("% Unknown command: 'show'@3", run("no show ftp-server"));
    EXPECT_EQ("% Incomplete command.@2", run("no"));
}

TEST_F(CliTreeTest, AbsentArgumentsGiveTheFallback) {
    use_capture();
    EXPECT_EQ("capture", run("cap timeout 42"));
    EXPECT_EQ("42", g_minutes);
    EXPECT_EQ("no capture", run("no cap timeout"));
    EXPECT_EQ("-1", g_minutes);
    EXPECT_EQ(nullptr, cli_arg(nullptr, "PATH"));
    EXPECT_FALSE(cli_is_no(nullptr));
    EXPECT_FALSE(cli_is_config(nullptr));
}

TEST_F(CliTreeTest, HelpListsNextTokensWithTheirTexts) {
    std::string h = help("ftp-server login ");
    EXPECT_NE(std::string::npos,
              h.find("  timeout  Specify login timeout of FTP Server waits for FTP client's command\n"));
    EXPECT_NE(std::string::npos,
              h.find("  times    Specify login times of FTP Server waits for FTP client's command\n"));
    EXPECT_EQ(std::string::npos, h.find("<cr>"));

    EXPECT_EQ("  <1-3600>  Number of ftp session idle timeout, in minutes (default value: 10)\n",
              help("ftp-server timeout "));
    EXPECT_EQ("  <cr>\n", help("ftp-server timeout 5 "));

    h = help("show ftp-server ");
    EXPECT_LT(h.find("config"), h.find("memory"));
    EXPECT_LT(h.find("memory"), h.find("<cr>"));

    h = help("ftp-server topdir ");
    EXPECT_NE(std::string::npos, h.find("flash2:"));
    EXPECT_LT(h.find("usb0:"), h.find("PATH"));

    EXPECT_EQ(5, std::count(h.begin(), h.end(), '\n'));

    // A partial word lists only what it may still become.
    h = help("ftp-server login ti");
    EXPECT_NE(std::string::npos, h.find("timeout"));
    EXPECT_NE(std::string::npos, h.find("times"));
    EXPECT_EQ("  memory  ftp-server memory\n", help("show ftp-server m"));
}

TEST_F(CliTreeTest, HelpAtTheRootAndAfterNo) {
    std::string h = help("");
    EXPECT_NE(std::string::npos, h.find("  no          Negate a command or set its defaults\n"));
    EXPECT_NE(std::string::npos, h.find("  show"));
    h = help("no ftp-server ");
    EXPECT_NE(std::string::npos, h.find("timeout"));
    EXPECT_EQ(std::string::npos, h.find("max-user-connect"));
    EXPECT_NE(std::string::npos, help("no ftp-server timeout ").find("<cr>"));
    EXPECT_EQ("% Unknown command: 'bogus'\n@11", help("ftp-server bogus "));
    EXPECT_EQ("% Unknown command: 'zz'\n@16", help("show ftp-server zz"));
}

TEST_F(CliTreeTest, CompletionOffersKeywordsForTheLastWord) {
    EXPECT_EQ((std::vector<std::string>{"login"}), complete("ftp-server lo"));
    EXPECT_EQ((std::vector<std::string>{"timeout", "times"}), complete("ftp-server login ti"));
    EXPECT_EQ((std::vector<std::string>{"flash2:", "flash:"}), complete("ftp-server topdir fl"));
    EXPECT_EQ((std::vector<std::string>{"debug", "ftp-server", "no", "show"}), complete(""));
    EXPECT_EQ((std::vector<std::string>{"ftp-server"}), complete("no f"));
    EXPECT_TRUE(complete("ftp-server timeout ").empty());
    EXPECT_TRUE(complete("bogus x").empty());
}

}  // namespace
