// Command trees of the command-line framework: definitions in the style the daemon registers,
// matching of typed lines (abbreviations, ranges, choices, storage keywords, rest of line, the
// "no" prefix), error texts with their offsets, help listings and completion.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cli_internal.h"
#include "base/ftpd.h"
#include "admin/admin.h"

namespace {

// What the last handler saw: its name, or for the capturing handler its arguments.
std::string g_seen;

// The daemon-style definitions below, in registration order.
const char *const kDefNames[] = {
    "enable",           "topdir",   "timeout",         "login timeout",          "login times", "authentication",
    "max-user-connect", "username", "show ftp-server", "show ftp-server memory", "show ftp",    "debug ftp-server"};
void record(cli_cmd *cmd) {
    g_seen = std::string(cli_is_no(cmd) ? "no " : "") + kDefNames[cmd->def];
}

// Arguments are copied while the handler runs: the record does not outlive it.
void capture_cmd(cli_cmd *cmd) {
    g_seen = cli_is_no(cmd) ? "no cap" : "cap";
    for (const char *token : {"PATH", "flash:", "flash2:", "usb0:", "PASSWORD...", "7", "0"})
        if (cli_arg(cmd, token) != nullptr) g_seen += std::string(" ") + token + "=[" + cli_arg(cmd, token) + "]";
    long minutes = cli_arg_int(cmd, "<1-3600>", -1);
    if (minutes != -1) g_seen += " min=" + std::to_string(minutes);
}

const cli_node_def kConfigDefs[] = {
    {"ftp-server enable", nullptr, record, CLI_F_NO | CLI_F_CONFIG},
    {"ftp-server topdir [(flash:|flash2:|usb0:|tmp:)] PATH", nullptr, record, CLI_F_NO | CLI_F_CONFIG},
    {"ftp-server timeout <1-3600>", nullptr, record, CLI_F_NO | CLI_F_CONFIG},
    {"ftp-server login timeout <1-30>", nullptr, record, CLI_F_NO | CLI_F_CONFIG},
    {"ftp-server login times <1-10>", nullptr, record, CLI_F_NO | CLI_F_CONFIG},
    {"ftp-server authentication (default|LISTNAME)", nullptr, record, CLI_F_NO | CLI_F_CONFIG},
    {"ftp-server max-user-connect <1-20>", nullptr, record, 0},
    {"ftp-server username NAME password [(0|7)] PASSWORD...", nullptr, record, CLI_F_NO | CLI_F_CONFIG},
};
const cli_node_def kShowDefs[] = {
    {"show ftp-server [config]", nullptr, record, 0},
    {"show ftp-server memory", nullptr, record, 0},
    {"show ftp", nullptr, record, 0},
};
const cli_node_def kDebugDefs[] = {{"debug ftp-server (err|pro)", nullptr, record, CLI_F_NO}};
const cli_node_def kCaptureDefs[] = {
    {"cap topdir [(flash:|flash2:|usb0:)] PATH", nullptr, capture_cmd, CLI_F_NO},
    {"cap user NAME password [(0|7)] PASSWORD...", nullptr, capture_cmd, CLI_F_NO},
    {"cap timeout <1-3600>", nullptr, capture_cmd, CLI_F_NO},
};

std::string help(const std::string &line) {
    std::string out;
    EXPECT_EQ(0, cli_help_line(line.c_str(), &out, nullptr)) << line;
    return out;
}

class CliTreeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        cli_tree_reset();
        ASSERT_EQ(0, cli_add_command("cfg ftp server", kConfigDefs, 8));
        ASSERT_EQ(0, cli_add_command("ftp information", kShowDefs, 3));
        ASSERT_EQ(0, cli_add_command("debug ftp server", kDebugDefs, 1));
    }
    void TearDown() override { cli_tree_reset(); }

    // Runs line; returns what the handler saw, or the error line with "@offset".
    static std::string run(const char *line) {
        g_seen.clear();
        std::string out;
        int off = -1;
        if (cli_execute_line_ex(line, &out, &off) != 0)
            return out.substr(0, out.size() - 1) + "@" + std::to_string(off);
        return g_seen;
    }
    static void expect_runs(std::initializer_list<std::pair<const char *, const char *>> table) {
        for (const auto &[line, expected] : table) EXPECT_EQ(expected, run(line)) << "line: " << line;
    }
    static std::vector<std::string> complete(const char *line) {
        std::vector<std::string> c;
        cli_complete_line(line, &c);
        return c;
    }
};

// A malformed definition is refused with its group; the daemon registers only its own, which every
// management integration test types, so a refusal there shows as missing commands.

// Errors under a word on a real terminal (an ambiguous and an out-of-range word among them), help
// texts and completion of a unique keyword: the terminal integration test; lines as the
// administrator types them: the management one.
TEST_F(CliTreeTest, KeywordsMatchByUnambiguousPrefixAndNoLeavesOutTrailingArguments) {
    expect_runs({
        {"ftp tim 5", "timeout"},
        {"f lo times 3", "login times"},
        {"  ftp-server\tlogin  timeo 3  ", "login timeout"},
        {"ftp-server timeout 5 extra", "% Unknown command: 'extra'@21"},
        {"show ftp", "show ftp"},
        {"show ftp-", "show ftp-server"},
        // A node may be complete and still have children.
        {"show ftp-server config", "show ftp-server"},
        {"show ftp-server mem", "show ftp-server memory"},
        {"ftp-server", "% Incomplete command.@10"},
        {"ftp-server timeout ", "% Incomplete command.@19"},
        {"   ", ""},
        {"ftp-server authentication mylist", "authentication"},
        {"debug ftp-server foo", "% Unknown command: 'foo'@17"},
        // "no" lets trailing arguments be left out, but not keywords, and only where allowed.
        {"no ftp-server timeout", "no timeout"},
        {"no ftp-server timeout 20", "no timeout"},
        {"n ftp-server enable", "no enable"},
        {"no ftp-server topdir", "no topdir"},
        {"no ftp-server username bob password", "no username"},
        {"no ftp-server username bob", "% Incomplete command.@26"},
        {"no debug ftp-server ", "% Incomplete command.@20"},
        {"no ftp-server max-user-connect 5", "% Unknown command: 'max-user-connect'@14"},
        {"no show ftp-server", "% Unknown command: 'show'@3"},
        {"no", "% Incomplete command.@2"},
    });
}

TEST_F(CliTreeTest, ArgumentsRangesStorageKeywordsAndRestOfLine) {
    ASSERT_EQ(0, cli_add_command("capture", kCaptureDefs, 3));
    expect_runs({
        {"cap timeout 1", "cap min=1"},
        {"cap timeout 3600", "cap min=3600"},
        {"no cap timeout", "no cap"},
        {"cap timeout 99999999999999999999", "% Number 99999999999999999999 out of range 1-3600.@12"},
        {"cap timeout -5", "% Invalid number: '-5'@12"},
        {"cap topdir /pub", "cap PATH=[/pub]"},
        {"cap topdir flash: /pub", "cap PATH=[/pub] flash:=[flash:]"},
        {"cap topdir flash2:/a/b", "cap PATH=[/a/b] flash2:=[flash2:]"},
        // A storage keyword typed in full needs its path; a shortened one may still be a path.
        {"cap topdir flash:", "% Incomplete command.@17"},
        {"cap topdir us", "cap PATH=[us]"},
        {"cap topdir us /x", "cap PATH=[/x] usb0:=[usb0:]"},
        {"cap user bob password  p a  s  ", "cap PASSWORD...=[p a  s  ]"},
        {"cap user bob password 7 0A1B2C\r\n", "cap PASSWORD...=[0A1B2C] 7=[7]"},
        {"cap user bob password 7", "% Incomplete command.@23"},
        {"cap user bob password 77", "cap PASSWORD...=[77]"},
    });
}

TEST_F(CliTreeTest, HelpListsNextTokensInOrderAndCompletionTheLastWord) {
    EXPECT_EQ("  <cr>\n", help("ftp-server timeout 5 "));
    EXPECT_EQ("  config\n  memory\n  <cr>\n", help("show ftp-server "));
    std::string h = help("no ftp-server ");
    EXPECT_NE(std::string::npos, h.find("timeout"));
    EXPECT_EQ(std::string::npos, h.find("max-user-connect"));

    EXPECT_EQ((std::vector<std::string>{"timeout", "times"}), complete("ftp-server login ti"));
    EXPECT_EQ((std::vector<std::string>{"flash2:", "flash:"}), complete("ftp-server topdir fl"));
    EXPECT_EQ((std::vector<std::string>{"debug", "ftp-server", "no", "show"}), complete(""));
    EXPECT_EQ((std::vector<std::string>{"ftp-server"}), complete("no f"));
    EXPECT_TRUE(complete("ftp-server timeout ").empty());
}

// The daemon's own tree: each password form's help names what follows its type keyword.
TEST(DaemonCommandTreeTest, PasswordHelpNamesThePlainOrEncryptedTextThatFollows) {
    cli_tree_reset();
    ASSERT_EQ(0, cfg_ftp_server_init());
    for (std::string form : {"ftp-server username amy password ", "ftp-server password "}) {
        EXPECT_EQ("  PASSWORD...  The UNENCRYPTED (cleartext) 'enable' password\n", help(form + "0 "));
        EXPECT_EQ("  PASSWORD...  The ENCRYPTED 'enable' secret string\n", help(form + "7 "));
    }
    cli_tree_reset();
}

}  // namespace
