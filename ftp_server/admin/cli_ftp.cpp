// The server's management commands: one table of command definitions (syntax, help texts and
// handler side by side) registered in the framework's three groups, the handlers with their
// validation and messages, the configuration lines they write back, and the debug listing.
#include <cctype>
#include <cstring>

#include "app_init.h"
#include "cli.h"
#include "fs_info.h"
#include "base/ftpd.h"
#include "base/policy.h"
#include "admin/admin.h"
#include "control/listener.h"
#include "base/settings.h"
#include "base/users.h"
#include "login_pwd.h"
#include "pwd_policy.h"

namespace {

#define ENCRYPTED_MIN 4
#define POLICY_TEXT_LEN 256
#define PASSWORD_INPUT_LEN FTP_BUF_SIZE

void fail(struct cli_cmd *cmd) {
    cli_client_execmd_fail(cmd);
}

// Storage keywords of the top-directory command and the device's storage number of each.
struct storage_kw {
    const char *keyword;
    int index;
};
const storage_kw storages[] = {
    {"flash:", 2}, {"flash2:", 1}, {"sata0:", 3}, {"usb0:", 4}, {"tmp:", 6}, {"install:", 7}, {"nfs:", 9},
};

// A setting held as a number with its default and its configuration line.
void simple_setting(struct cli_cmd *cmd, const char *token, const char *line, unsigned int def,
                    unsigned int (*get)(void), void (*set)(unsigned int)) {
    if (cli_is_config(cmd)) {
        unsigned int v = get();
        c2p_printf(v != def, line, static_cast<int>(v));
        return;
    }
    if (cli_is_no(cmd)) {
        set(def);
        return;
    }
    set(static_cast<unsigned int>(cli_arg_int(cmd, token, def)));
}

// The outcome of screening a typed password: what the user table is given.
struct screened_password {
    char plain[FTP_PASSWD_LEN];
    char encrypted[FTP_PASSWD_LEN];
    uint32_t type;
};

// A password kept in plain text is saved as "... password TEXT"; when TEXT begins with the word
// 0 or 7, replaying that line reads the word as the password type and stores another password,
// or refuses the line and loses the user. (A password saved in its type-7 form replays as it is.)
bool replays_as_type(const char *text) {
    return (text[0] == '0' || text[0] == '7') && (text[1] == '\0' || text[1] == ' ');
}

// Screens the password text of the combined (single == false) or single-user form. Prints the
// refusal (if any) and returns false when the command must fail. text is trimmed in place.
bool screen_password(struct cli_cmd *cmd, char *text, bool single, screened_password *out) {
    memset(out, 0, sizeof *out);
    if (!is_valid_password(text)) {
        if (text != nullptr && text[0] != '\0') cli_printf("%%Password must include letter or number\n");
        return false;
    }
    size_t len = strlen(text);
    if (cli_arg(cmd, "7") != nullptr) {
        if (len < ENCRYPTED_MIN || len > FTP_PASSWORD_MAX) {
            cli_printf(single ? "Invalid encrypted password, min length is %d, max length is %d.\n"
                              : "%% Invalid encrypted password, min length is %d, max length is %d.\n",
                       ENCRYPTED_MIN, FTP_PASSWORD_MAX);
            return false;
        }
        login_password_decrypt(text, out->plain, sizeof out->plain);
        if (out->plain[0] == '\0') {
            cli_printf(single ? "Invalid encrypted password:%s\n" : "%% Invalid encrypted password:%s\n", text);
            return false;
        }
        (void)ftpd_strlcpy(out->encrypted, text, sizeof out->encrypted);
        out->type = 7;
        return true;
    }
    if (len > FTP_PLAIN_PASSWORD_MAX) {
        cli_printf("%% Password is too long, max length is %d\n", FTP_PLAIN_PASSWORD_MAX);
        return false;
    }
    if (!login_is_service_pwd_encrypt_enable() && replays_as_type(text)) {
        cli_printf(
            "%% Password cannot begin with the word 0 or 7, which the saved configuration reads as the "
            "password type\n");
        return false;
    }
    (void)ftpd_strlcpy(out->plain, text, sizeof out->plain);
    if (login_is_service_pwd_encrypt_enable()) {
        login_password_encrypt(text, out->encrypted, sizeof out->encrypted);
        if (out->encrypted[0] == '\0') {
            cli_printf("%% Password encryption fails, try again\n");
            return false;
        }
        out->type = 7;
    } else {
        out->type = 0;
    }
    return true;
}

// Copies the typed password into buf so that screening may trim it; nullptr when absent.
char *password_input(struct cli_cmd *cmd, char *buf, size_t size) {
    const char *typed = cli_arg(cmd, "PASSWORD...");
    if (typed == nullptr) return nullptr;
    // A password cut short would be another password.
    if (!ftpd_strlcpy(buf, typed, size)) {
        cli_printf("%% Password is too long, max length is %d\n", FTP_PLAIN_PASSWORD_MAX);
        return nullptr;
    }
    return buf;
}

// Adds the single-user pair to the table once both halves are known.
void add_single_user(void) {
    const char *name = get_ftp_server_user();
    const char *password = get_ftp_server_password();
    if (name[0] == '\0' || password[0] == '\0') return;
    const char *enc = get_ftp_server_pass_encrypt();
    set_ftp_server_userinfo(name, password, enc[0] != '\0' ? enc : nullptr, get_ftp_server_passtype());
}

// ----- handlers -----------------------------------------------------------------------------

void ftp_server_enable_cmd(struct cli_cmd *cmd) {
    if (cli_is_config(cmd)) {
        if (is_ftp_server_start()) c2p_printf(true, "ftp-server enable");
        return;
    }
    if (cli_is_no(cmd))
        ftp_server_disable();
    else
        ftp_server_enable();
}

void ftp_server_topdir_cmd(struct cli_cmd *cmd) {
    if (cli_is_config(cmd)) {
        const char *root = get_ftp_server_root_dir();
        if (root != nullptr) c2p_printf(true, "ftp-server topdir %s", root);
        return;
    }
    if (cli_is_no(cmd)) {
        set_ftp_server_root_dir(nullptr);
        return;
    }
    const char *path = cli_arg(cmd, "PATH");
    int ret = -1;
    const storage_kw *chosen = nullptr;
    for (const auto &s : storages) {
        if (cli_arg(cmd, s.keyword) != nullptr) chosen = &s;
    }
    if (chosen != nullptr)
        ret = set_ftp_server_root_dir_ext(chosen->index, path, get_fs_prefix_index(chosen->index - 1));
    else
        ret = set_ftp_server_root_dir(path);
    if (ret != 0) fail(cmd);
}

void ftp_time_out_cmd(struct cli_cmd *cmd) {
    simple_setting(cmd, "<1-3600>", "ftp-server timeout %d", FTP_DEF_TIMEOUT, get_ftp_timeout, set_ftp_timeout);
}

void ftp_login_timeout_cmd(struct cli_cmd *cmd) {
    simple_setting(cmd, "<1-30>", "ftp-server login timeout %d", FTP_DEF_LOGINTIMEOUT, get_ftp_logintimeout,
                   set_ftp_logintimeout);
}

void ftp_login_times_cmd(struct cli_cmd *cmd) {
    simple_setting(cmd, "<1-10>", "ftp-server login times %d", FTP_DEF_LOGINTIMES, get_ftp_logintimes,
                   set_ftp_logintimes);
}

void ftp_max_connect_cmd(struct cli_cmd *cmd) {
    // The limit is live only: it writes no configuration line and is never saved.
    if (cli_is_config(cmd)) return;
    if (cli_is_no(cmd)) {
        ftp_set_max_user_connect(ftp_policy_get().user_connect_default);
        return;
    }
    ftp_set_max_user_connect(static_cast<unsigned int>(cli_arg_int(cmd, "<1-20>", FTP_DEF_USER_CONNECT)));
}

void ftp_server_authen_cmd(struct cli_cmd *cmd) {
    if (cli_is_config(cmd)) {
        const char *name = get_ftp_server_auth();
        if (name != nullptr) c2p_printf(true, "ftp-server authentication %s", name);
        return;
    }
    if (cli_is_no(cmd)) {
        set_ftp_server_auth(nullptr);
        return;
    }
    const char *name = cli_arg(cmd, "default") != nullptr ? "default" : cli_arg(cmd, "NAME");
    if (name == nullptr || set_ftp_server_auth(name) != 0) fail(cmd);
}

void ftp_server_user_password_cmd(struct cli_cmd *cmd) {
    if (cli_is_config(cmd)) {
        for (int i = 0; i < FTP_MAX_USERS; i++) {
            char name[FTP_NAME_LEN] = {0};
            char password[FTP_PASSWD_LEN] = {0};
            uint32_t type = 0;
            if (get_ftp_server_userinfo(i, name, password, &type) != 0 || name[0] == '\0' || password[0] == '\0')
                continue;
            if (type == 7)
                c2p_printf(true, "ftp-server username %s password %d %s", name, 7, password);
            else
                c2p_printf(true, "ftp-server username %s password %s", name, password);
        }
        return;
    }
    const char *name = cli_arg(cmd, "NAME");
    if (name == nullptr || name[0] == '\0') {
        cli_printf("%% Username is NULL.\n");
        fail(cmd);
        return;
    }
    if (cli_is_no(cmd)) {
        FTPD_LOG_PRO("no or default ftp-server username xxx password xxx.\n");
        int ret = unset_ftp_server_userinfo(name);
        if (ret == 3) {
            cli_printf("%% Username is too long.\n");
            fail(cmd);
        } else if (ret == 5) {
            cli_printf("%% User is not exists.\n");
            fail(cmd);
        }
        return;
    }
    char input[PASSWORD_INPUT_LEN];
    char *typed = password_input(cmd, input, sizeof input);
    screened_password pw;
    if (!screen_password(cmd, typed, false, &pw)) {
        fail(cmd);
        return;
    }
    // Advisory only: the user is stored whatever the policy says.
    int verdict = pwd_policy_chk_pwd_safety_with_username(name, typed, static_cast<int>(strlen(typed)));
    if (verdict != 0) {
        char text[POLICY_TEXT_LEN] = {0};
        pwd_policy_format_result_string(verdict, text, sizeof text);
        cli_printf("%s\r\n", text);
    }
    int ret = set_ftp_server_userinfo(name, pw.plain, pw.type == 7 ? pw.encrypted : nullptr, pw.type);
    if (ret == 0) return;
    if (ret == 4)
        cli_printf("%% User is already exists.\n");
    else if (ret == 3)
        cli_printf("%% Username is too long.\n");
    else if (ret == 2)
        cli_printf("%% The number of users has reached the maximum value.\n");
    fail(cmd);
}

void ftp_server_user_cmd(struct cli_cmd *cmd) {
    if (cli_is_config(cmd)) return;
    if (cli_is_no(cmd)) {
        // "no ftp-server username NAME" lands here: it forgets the single-user name and removes
        // the user from the table through the combined form.
        set_ftp_server_user(nullptr);
        ftp_server_user_password_cmd(cmd);
        return;
    }
    if (get_ftp_server_user()[0] != '\0') return;
    const char *name = cli_arg(cmd, "NAME");
    if (set_ftp_server_user(name) != 0) {
        cli_printf("Username(%s) is NULL or too long, max length is %d.\n", name != nullptr ? name : "",
                   FTP_USERNAME_MAX);
        fail(cmd);
        return;
    }
    add_single_user();
}

void ftp_server_password_cmd(struct cli_cmd *cmd) {
    if (cli_is_config(cmd) || cli_is_no(cmd) || get_ftp_server_password()[0] != '\0') return;
    char input[PASSWORD_INPUT_LEN];
    char *typed = password_input(cmd, input, sizeof input);
    screened_password pw;
    if (!screen_password(cmd, typed, true, &pw)) {
        fail(cmd);
        return;
    }
    if (set_ftp_server_password(pw.plain, pw.type == 7 ? pw.encrypted : nullptr, pw.type) != 0) {
        cli_printf("Password %s is too long, max length is %d.\n", pw.plain, FTP_PASSWORD_MAX);
        fail(cmd);
        return;
    }
    add_single_user();
}

void debug_ftp_server_err_cmd(struct cli_cmd *cmd) {
    if (cli_is_no(cmd)) {
        cli_printf("debug ftp-server err debugging is off\n");
        set_ftp_debug_err(0);
    } else {
        set_ftp_debug_err(1);
        cli_printf("debug ftp-server err debugging is on\n");
    }
}

void debug_ftp_server_pro_cmd(struct cli_cmd *cmd) {
    if (cli_is_no(cmd)) {
        set_ftp_debug_pro(0);
        cli_printf("debug ftp-server pro debugging is off\n");
    } else {
        set_ftp_debug_pro(1);
        cli_printf("debug ftp-server pro debugging is on\n");
    }
}

void support_show_ftp_server_cmd(struct cli_cmd *) {
    dump_ftp_server_information(cli_printf);
}

void support_show_ftp_server_user_cmd(struct cli_cmd *) {
    dump_ftp_server_user_password(cli_printf);
}

void support_show_ftp_server_memory_cmd(struct cli_cmd *) {
    ftpd_mem_dump(cli_printf);
}

void support_show_ftp_server_ham_cmd(struct cli_cmd *) {
    app_ham_show_last_ntfy_time(cli_printf);
}

// ----- the command tree -------------------------------------------------------------------------

#define FTP_HELP "FTP server"
#define STORAGE_HELP(kw) "Set ftp-server access directory " kw " file system"
#define UNENCRYPTED_HELP "Specifies an UNENCRYPTED password will follow"
#define HIDDEN_HELP "Specifies a HIDDEN password will follow"
#define PASSWORD_HELP "The UNENCRYPTED (cleartext) 'enable' password"
#define ENCRYPTED_HELP "The ENCRYPTED 'enable' secret string"
#define LOGIN_HELP "Specify login of FTP Server waits for FTP client's command"

const char *const h_enable[] = {FTP_HELP, "Enable FTP Server"};
const char *const h_topdir[] = {FTP_HELP,
                                "Specify path for top-of-tree for FTP Server (clients') operations",
                                STORAGE_HELP("flash:"),
                                STORAGE_HELP("flash2:"),
                                STORAGE_HELP("sata0:"),
                                STORAGE_HELP("usb0:"),
                                STORAGE_HELP("tmp:"),
                                STORAGE_HELP("install:"),
                                STORAGE_HELP("nfs:"),
                                "Name of the directory/file"};
const char *const h_timeout[] = {FTP_HELP, "Specify timeout of FTP Server waits for FTP client's command",
                                 "Number of ftp session idle timeout, in minutes (default value: 10)"};
const char *const h_login_timeout[] = {FTP_HELP, LOGIN_HELP,
                                       "Specify login timeout of FTP Server waits for FTP client's command",
                                       "Number of ftp login timeout, in minutes (default value: 2)"};
const char *const h_login_times[] = {FTP_HELP, LOGIN_HELP,
                                     "Specify login times of FTP Server waits for FTP client's command", "Times"};
const char *const h_auth_default[] = {FTP_HELP, "Use an authentication list with this name",
                                      "Use the default authentication list."};
const char *const h_auth_name[] = {FTP_HELP, "Use an authentication list with this name",
                                   "Use an authentication list with this name."};
const char *const h_max_connect[] = {FTP_HELP, "Set max-user-connect", "numbers"};
// The password forms are registered as two rows each, plain ([0]) and hidden (7), so that the
// text after 7 has its own help.
#define USER_HELPS FTP_HELP, "Specify username of FTP Server", "Username length(1-64)"
const char *const h_user_password[] = {USER_HELPS, "Specify password of FTP Server", UNENCRYPTED_HELP, PASSWORD_HELP};
const char *const h_user_password_7[] = {USER_HELPS, "Specify password of FTP Server", HIDDEN_HELP, ENCRYPTED_HELP};
const char *const h_user[] = {USER_HELPS};
const char *const h_password[] = {FTP_HELP, "Specify password of FTP Server", UNENCRYPTED_HELP, PASSWORD_HELP};
const char *const h_password_7[] = {FTP_HELP, "Specify password of FTP Server", HIDDEN_HELP, ENCRYPTED_HELP};

const cli_node_def cfg_defs[] = {
    {"ftp-server enable", h_enable, ftp_server_enable_cmd, CLI_F_NO | CLI_F_CONFIG},
    {"ftp-server topdir [(flash:|flash2:|sata0:|usb0:|tmp:|install:|nfs:)] PATH", h_topdir, ftp_server_topdir_cmd,
     CLI_F_NO | CLI_F_CONFIG},
    {"ftp-server timeout <1-3600>", h_timeout, ftp_time_out_cmd, CLI_F_NO | CLI_F_CONFIG},
    {"ftp-server login timeout <1-30>", h_login_timeout, ftp_login_timeout_cmd, CLI_F_NO | CLI_F_CONFIG},
    {"ftp-server login times <1-10>", h_login_times, ftp_login_times_cmd, CLI_F_NO | CLI_F_CONFIG},
    // "default" or a list name: a keyword and a string at one place, so two definitions; the
    // one with the name writes the configuration line and takes the "no" form.
    {"ftp-server authentication default", h_auth_default, ftp_server_authen_cmd, 0},
    {"ftp-server authentication NAME", h_auth_name, ftp_server_authen_cmd, CLI_F_NO | CLI_F_CONFIG},
    {"ftp-server max-user-connect <1-20>", h_max_connect, ftp_max_connect_cmd, CLI_F_NO},
    {"ftp-server username NAME password [0] PASSWORD...", h_user_password, ftp_server_user_password_cmd,
     CLI_F_NO | CLI_F_CONFIG},
    {"ftp-server username NAME password 7 PASSWORD...", h_user_password_7, ftp_server_user_password_cmd,
     CLI_F_NO | CLI_F_CONFIG},
    // Also the target of "no ftp-server username NAME", which removes the user.
    {"ftp-server username NAME", h_user, ftp_server_user_cmd, CLI_F_NO},
    {"ftp-server password [0] PASSWORD...", h_password, ftp_server_password_cmd, 0},
    {"ftp-server password 7 PASSWORD...", h_password_7, ftp_server_password_cmd, 0},
};

const char *const h_debug_err[] = {"Debugging functions", FTP_HELP, "debug ftp server error information"};
const char *const h_debug_pro[] = {"Debugging functions", FTP_HELP, "debug ftp server process information"};

const cli_node_def debug_defs[] = {
    {"debug ftp-server err", h_debug_err, debug_ftp_server_err_cmd, CLI_F_NO},
    {"debug ftp-server pro", h_debug_pro, debug_ftp_server_pro_cmd, CLI_F_NO},
};

#define SHOW_HELP "Show running system information"
const char *const h_show[] = {SHOW_HELP, "ftp-server information"};
const char *const h_show_config[] = {SHOW_HELP, "ftp-server information", "ftp-server config"};
const char *const h_show_user[] = {SHOW_HELP, "ftp-server information", "ftp-server user password"};
const char *const h_show_memory[] = {SHOW_HELP, "ftp-server information", "ftp-server memory"};
const char *const h_show_ham[] = {SHOW_HELP, "ftp-server information", "debug ftp server ham information"};

const cli_node_def show_defs[] = {
    {"show ftp-server", h_show, support_show_ftp_server_cmd, 0},
    {"show ftp-server config", h_show_config, support_show_ftp_server_cmd, 0},
    {"show ftp-server user-password", h_show_user, support_show_ftp_server_user_cmd, 0},
    {"show ftp-server memory", h_show_memory, support_show_ftp_server_memory_cmd, 0},
    {"show ftp-server ham", h_show_ham, support_show_ftp_server_ham_cmd, 0},
};

template <size_t N>
int add_group(const char *group, const cli_node_def (&defs)[N]) {
    return cli_add_command(group, defs, static_cast<int>(N));
}

}  // namespace

char *ftp_str_trim(char *s) {
    if (s == nullptr) return s;
    size_t start = 0;
    while (s[start] == ' ') start++;
    size_t len = strlen(s + start);
    memmove(s, s + start, len + 1);
    while (len > 0 && s[len - 1] == ' ') s[--len] = '\0';
    return s;
}

bool is_valid_password(char *password) {
    if (password == nullptr) {
        cli_printf("Error: filename input error !\n");
        return false;
    }
    ftp_str_trim(password);
    if (password[0] == '\0') return false;
    bool alnum = false;
    for (const char *p = password; *p != '\0'; p++) {
        unsigned char c = static_cast<unsigned char>(*p);
        if (!isprint(c)) return false;
        if (isalnum(c)) alnum = true;
    }
    return alnum;
}

void debug_ftp_server(int code) {
    if (code == 1) {
        set_ftp_debug_pro(1);
        set_ftp_debug_err(1);
    } else if (code == 2) {
        set_ftp_debug_pro(0);
        set_ftp_debug_err(0);
    } else if (code == 3) {
        if (get_ftp_debug_pro() == 1 || get_ftp_debug_err() == 1) cli_printf("FTP Server:\n");
        if (get_ftp_debug_pro() == 1) cli_printf("  ftp-server pro debugging is on\n");
        if (get_ftp_debug_err() == 1) cli_printf("  ftp-server err debugging is on\n");
    }
}

int cfg_ftp_server_init(void) {
    if (add_group("cfg ftp server", cfg_defs) != 0) {
        FTPD_LOG_ERR("add config ftp-server fail\n");
        return -1;
    }
    if (add_group("ftp information", show_defs) != 0) {
        FTPD_LOG_ERR("add show ftp information fail\n");
        return -1;
    }
    if (add_group("debug ftp server", debug_defs) != 0) {
        FTPD_LOG_ERR("add debug ftp-server fail\n");
        return -1;
    }
    sys_add_debug("ftp-server-debug", debug_ftp_server);
    return 0;
}
