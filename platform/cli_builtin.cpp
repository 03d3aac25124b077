// The command-line framework's own commands (running configuration, write, service-password
// encryption, debugging, tech-support, help), the table of debug-listing callbacks behind
// "show debugging" and "debug all", and the ready notification.
#include <string>
#include <utility>
#include <vector>

#include "cli_internal.h"
#include "ham.h"
#include "login_pwd.h"
#include "pwd_policy.h"
#include "tech.h"

namespace {

std::vector<std::pair<std::string, void (*)(int)>> g_debug_callbacks;
bool g_registered = false;

// Codes of the debug-listing callbacks.
constexpr int kDebugAllOn = 1;
constexpr int kDebugAllOff = 2;
constexpr int kDebugList = 3;
// Message type of the password-policy broadcast that announces the encryption switch.
constexpr int kPolicyMsgEncryption = 1;

void show_running_config_cmd(cli_cmd *) {
    std::vector<std::string> lines;
    cli_collect_config(&lines);
    for (const std::string &l : lines) cli_printf("%s\n", l.c_str());
}

void write_cmd(cli_cmd *cmd) {
    const std::string &path = cli_config_startup_path();
    if (path.empty()) {
        cli_printf("%% No startup configuration file is configured.\n");
        cli_client_execmd_fail(cmd);
        return;
    }
    cli_printf("Building configuration...\n");
    std::vector<std::string> lines;
    cli_collect_config(&lines);
    std::string text;
    for (const std::string &l : lines) text += l + "\n";
    std::string err;
    if (cli_config_write(path.c_str(), text, &err) != 0) {
        cli_printf("%% Cannot save the configuration to %s: %s\n", path.c_str(), err.c_str());
        cli_client_execmd_fail(cmd);
        return;
    }
    cli_config_mark_saved();
    cli_printf("[OK]\n");
}

void service_password_encryption_cmd(cli_cmd *cmd) {
    if (cli_is_config(cmd)) {
        c2p_printf(login_is_service_pwd_encrypt_enable() == 1, "service password-encryption");
        return;
    }
    int on = cli_is_no(cmd) ? 0 : 1;
    login_set_service_pwd_encrypt(on);
    pwd_policy_broadcast(kPolicyMsgEncryption, on);
    cli_param_is_change();
}

void run_debug_callbacks(int code) {
    // A callback may register another; index so that growth is safe.
    for (size_t i = 0; i < g_debug_callbacks.size(); ++i) g_debug_callbacks[i].second(code);
}

void show_debugging_cmd(cli_cmd *) {
    run_debug_callbacks(kDebugList);
}

void debug_all_cmd(cli_cmd *cmd) {
    if (cli_is_no(cmd)) {
        run_debug_callbacks(kDebugAllOff);
        cli_printf("All debugging is off\n");
    } else {
        run_debug_callbacks(kDebugAllOn);
        cli_printf("All debugging is on\n");
    }
}

void show_tech_support_cmd(cli_cmd *) {
    tech_run_all(0);
}

void help_cmd(cli_cmd *) {
    cli_printf(
        "Help is available at every point of a command line:\n"
        "  ?          after a blank: the keywords and arguments that may follow, with their help\n"
        "  word?      the keywords that begin with word\n"
        "  Tab        completes a partly typed keyword\n"
        "Keywords may be shortened to any unambiguous beginning (\"sh run\" is \"show running-config\").\n"
        "Put \"no\" in front of a configuration command to undo it or restore its default.\n");
}

const char *const kShowRunHelp[] = {"Show running system information", "Current operating configuration"};
const char *const kWriteHelp[] = {"Save the running configuration as the startup configuration"};
const char *const kServiceHelp[] = {"Modify use of system services", "Encrypt system passwords"};
const char *const kShowDebugHelp[] = {"Show running system information", "State of each debugging option"};
const char *const kDebugAllHelp[] = {"Debugging functions", "Enable all debugging"};
const char *const kShowTechHelp[] = {"Show running system information",
                                     "Show system information for technical support"};
const char *const kHelpHelp[] = {"Description of the interactive help system"};

const cli_node_def kBuiltins[] = {
    {"show running-config", kShowRunHelp, show_running_config_cmd, 0},
    {"write", kWriteHelp, write_cmd, 0},
    {"service password-encryption", kServiceHelp, service_password_encryption_cmd, CLI_F_NO | CLI_F_CONFIG},
    {"show debugging", kShowDebugHelp, show_debugging_cmd, 0},
    {"debug all", kDebugAllHelp, debug_all_cmd, CLI_F_NO},
    {"show tech-support", kShowTechHelp, show_tech_support_cmd, 0},
    {"help", kHelpHelp, help_cmd, 0},
};

}  // namespace

int cli_builtin_register(void) {
    if (g_registered) return 0;
    if (cli_add_command("cli framework", kBuiltins, static_cast<int>(sizeof kBuiltins / sizeof kBuiltins[0])) != 0)
        return -1;
    g_registered = true;
    return 0;
}

void cli_builtin_reset(void) {
    g_registered = false;
    g_debug_callbacks.clear();
}

int sys_add_debug(const char *name, void (*callback)(int code)) {
    if (callback == nullptr) return -1;
    g_debug_callbacks.emplace_back(name == nullptr ? "" : name, callback);
    return 0;
}

int cli_client_ready(struct zq_thread *) {
    ham_notify_ready();
    return 0;
}
