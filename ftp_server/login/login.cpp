// The USER and PASS commands: binding a session to a configured user and one of its connection
// slots, the password check against the user table, the hand-over to AAA or the local user
// database when the table does not accept the password, and the counts of failed attempts that
// end a session.
#include "login/login.h"

#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "base/settings.h"
#include "base/users.h"
#include "aaa.h"
#include "fs_info.h"
#include "ftp_platform.h"
#include "ftp_tls.h"
#include "login/security.h"
#include "login/trap.h"
#include "session/session.h"

namespace {

void release_message(ftp_session &s) {
    s.login.message.reset();
}

// The slot held from an earlier USER is given back while the session's name still names its user.
void give_back_slot(ftp_session &s) {
    if (s.slot.index == -1 && s.slot.generation == 0) return;
    ftp_set_userinfo_disconnect(&s.slot);
    FTPD_LOG_PRO("%s, ftp_set_userinfo_disconnect\n", __func__);
}

// One fixed line per failed USER or PASS, always written, with the client's address: what
// log tools and fail2ban read.
void log_failed_login(const ftp_session &s) {
    if (!s.policy.log_failed_logins) return;
    // The name is the client's text: kept to printable characters, so that no line can be forged.
    char name[FTP_NAME_LEN];
    size_t n = 0;
    for (const char *p = s.login.client_name; *p != '\0' && n < sizeof name - 1; p++)
        name[n++] = *p >= 0x20 && *p < 0x7f && *p != '"' ? *p : '?';
    name[n] = '\0';
    printk_syslog_ext(5, FTPD_MODULE, "LOGIN_FAIL", LOG_CLASS_ALWAYS, "Failed login for user \"%s\" from %s.\n", name,
                      s.client_text);
}

}  // namespace

void ftp_login_fail_wait(ftp_session &s) {
    // SECURITY: slows password guessing; once per PASS, however many 530 lines answer it.
    if (s.login.fail_waited) return;
    s.login.fail_waited = true;
    int delay = platform_ftp_login_fail_delay();
    if (delay > 0) sleep(static_cast<unsigned>(delay));
}

int auth_user(const char *name, ftp_session &s) {
    if (name == nullptr) return -1;
    s.login.guest = false;
    release_message(s);
    size_t msg_len = strlen(name) + 64;
    s.login.message = ftpd_block(FTPD_M_PCRED_MSG, msg_len);
    char *message = s.login.message.get();
    if (message == nullptr) return -1;
    if (name[0] == '\0') {
        (void)ftpd_strlcpy(message, "User is NULL.\n", msg_len);
        return -1;
    }
    give_back_slot(s);
    int ret = ftp_set_userinfo_connect(name, slot_snapshot(s), &s.slot, s.login.name.get(), s.login.passwd.get());
    FTPD_LOG_PRO("%s, ftp_set_userinfo_connect, ret = %d", __func__, ret);
    s.login.at_user_limit = ret == 2;
    switch (ret) {
        case 0:
            return 0;
        case 1:
            return -1;
        case 5:
            (void)ftpd_snprintf(message, msg_len, "User %s unknown.\n", name);
            return -1;
        default:
            (void)ftpd_snprintf(message, msg_len, "User connection limit reached. max number:[%d]\n",
                                static_cast<int>(ftpd_user_max_connect));
            return -1;
    }
}

namespace {

// A USER after a login ends that login first: its slot and counts go back, and the commands that
// follow need the new PASS. No two sessions ever act on one slot.
void end_login(ftp_session &s) {
    ftp_login &l = s.login;
    if (l.local_aaa) ftp_update_online_count(l.online_name, 0);
    l.local_aaa = false;
    l.online_name[0] = '\0';
    ftp_aaa_del_user(s);
    l.logged_in = false;
}

// USER's own step: 0, or -1 when the name was refused (a failed attempt).
int take_user(ftp_session &s) {
    const char *arg = s.arg;
    ftp_login &l = s.login;
    if (l.logged_in) end_login(s);
    memset(l.client_name, 0, sizeof l.client_name);
    // SECURITY: a name cut short could be another account's; one that does not fit names none.
    if (!ftpd_snprintf(l.client_name, FTP_USERNAME_MAX, "%s", arg)) l.client_name[0] = '\0';
    give_back_slot(s);
    memset(l.name.get(), 0, FTP_NAME_LEN);
    memset(l.passwd.get(), 0, FTP_PASSWD_LEN);

    int ret = auth_user(arg, s);
    // The composed text is dropped unsent: the client must not learn whether a name exists or
    // is at its connection limit.
    release_message(s);

    if (ret != 0 && !g_aaa_ready) {
        FTPD_LOG_ERR("Fail to reg aaa.\n");
        reply_code(s, "530", "User %s access denied.", arg);
        return -1;
    }
    if (reply(s, "331 User name okay, need password.\r\n") == 0) l.asked_password = true;
    return 0;
}

// The 230 of an accepted login. On a protected control connection the TLS session is bound to the
// login first, so that the ticket data connections resume goes out with this reply.
int reply_logged_in(ftp_session &s) {
    if (s.ctl.stream.is_protected() && ftp_tls_bind_login(s.ctl.stream.tls(), s.login.client_name) != 0)
        FTPD_LOG_ERR("%s: TLS session not bound to the login.\n", FTPD_MODULE);
    return reply(s, "230 User logged in, proceed.\r\n");
}

// An account of the local user database may have a home of its own (its top directory, below the
// daemon's), be read-only and have a rate of its own. False when its rights cannot be served.
bool take_rights(ftp_session &s) {
    username_lib_rights_s r{};
    int rc = username_lib_user_rights(s.login.client_name, &r);
    if (rc == -2) return true;
    if (rc != 0) return false;
    s.may_write = r.write;
    s.max_rate = r.max_rate > 0 ? static_cast<unsigned>(r.max_rate) : 0;
    if (r.home_storage < 0) return true;
    char home[FTP_ROOTDIR_LEN];
    struct stat st;
    if (get_final_path(r.home_storage, r.home_path, home, sizeof home) < 0 || stat(home, &st) != 0 ||
        !S_ISDIR(st.st_mode) || strlen(home) >= FTP_CURRENTDIR_LEN)
        return false;
    size_t len = strlen(home);
    if (len > 1 && home[len - 1] == '/') home[len - 1] = '\0';
    (void)ftpd_strlcpy(s.rootdir.get(), home, FTP_ROOTDIR_LEN);
    (void)ftpd_strlcpy(s.currentdir, home, sizeof s.currentdir);
    s.has_topdir = true;
    return true;
}

// Through AAA or the local user database, once the table has not accepted the password.
int pass_through_aaa(ftp_session &s, const char *arg) {
    ftp_login &l = s.login;
    bool local = false;
    int ret;
    if (ftp_get_aaa_status()) {
        ret = ftp_aaa_auth(s, l.client_name, arg, &local);
        FTPD_LOG_PRO("Ftp aaa authentication finish, ret = %d.\n", ret);
    } else {
        ret = ftp_aaa_auth_local(s, l.client_name, arg);
        local = true;
        FTPD_LOG_PRO("Ftp local authentication finish, ret = %d.\n", ret);
    }
    if (ret != 0) {
        // The device sends this second 530 after the one of the authentication step; a stock
        // client would take it for the answer to its next command.
        ftp_login_fail_wait(s);
        if (!s.policy.single_530) reply_code(s, "530", "Password access denied.");
        return -1;
    }
    if (!local) {
        l.logged_in = true;
        reply_logged_in(s);
        return 0;
    }
    FTPD_LOG_PRO("Going to check login.\n");
    if (ftp_username_login_check(l.client_name) != 0 || (s.policy.user_rights && !take_rights(s))) {
        ftp_login_fail_wait(s);
        reply(s, "530 Not logged in.\r\n");
        return -1;
    }
    if (reply_logged_in(s) != 0) return -1;
    ftp_update_online_count(l.client_name, 1);
    // A later USER changes client_name; the count goes back to the account that took it.
    (void)ftpd_strlcpy(l.online_name, l.client_name, sizeof l.online_name);
    l.logged_in = true;
    l.local_aaa = true;
    return 0;
}

// PASS's own step: 0 accepted (or answered 503), -1 refused, -2 refused for good.
int take_pass(ftp_session &s) {
    const char *arg = s.arg;
    ftp_login &l = s.login;
    if (l.logged_in || !l.asked_password) {
        reply(s, "503 Bad sequence of commands.\r\n");
        return 0;
    }
    l.asked_password = false;
    l.fail_waited = false;
    if (l.guest) {
        ftp_login_fail_wait(s);
        reply_code(s, "530", "Password access denied.");
        return -1;
    }
    if (l.name.get()[0] != '\0' && l.passwd.get()[0] != '\0' && auth_pass(arg, s) == 0) {
        l.logged_in = true;
        reply_logged_in(s);
        return 0;
    }
    // Stock clients wait and try again on 421, but give up on 530: a user at its connection
    // limit is told so, once the password has shown that the name is theirs.
    if (s.policy.user_limit_421 && l.at_user_limit && ftp_userinfo_password_matches(l.client_name, arg)) {
        reply(s, "421 Too many connections for this user, try again later.\r\n");
        return -2;
    }
    if (!g_aaa_ready) {
        FTPD_LOG_ERR("Fail to reg aaa.\n");
        ftp_login_fail_wait(s);
        reply(s, "530 Not logged in.\r\n");
        return -1;
    }
    return pass_through_aaa(s, arg);
}

}  // namespace

int auth_pass(const char *arg, const ftp_session &s) {
    const char *passwd = s.login.passwd.get();
    if (arg == nullptr || passwd == nullptr || arg[0] == '\0') return 1;
    size_t len = strlen(arg);
    if (len != strlen(passwd)) return 1;
    return memcmp(arg, passwd, len) == 0 ? 0 : 1;
}

bool user(ftp_session &s) {
    if (ftpd_login_needs_tls(s)) return true;
    if (take_user(s) == -1) {
        log_failed_login(s);
        ftp_authen_trap_send();
        s.login.failed_users++;
    }
    return get_ftp_logintimes() > static_cast<unsigned>(s.login.failed_users);
}

bool pass(ftp_session &s) {
    if (ftpd_login_needs_tls(s)) return true;
    ftp_login &l = s.login;
    // SECURITY: a PASS out of sequence (503) neither resets the failure counts nor ends the login
    // time-out, or guesses could be interleaved without limit.
    if (s.policy.pass_sequence_strict && (l.logged_in || !l.asked_password)) {
        take_pass(s);
        return true;
    }
    int passed = take_pass(s);
    if (passed == -2) return false;
    if (passed != -1) {
        l.failed_users = 0;
        l.failed_passwords = 0;
        l.passed_once = true;
        return true;
    }
    log_failed_login(s);
    ftp_authen_trap_send();
    l.failed_passwords++;
    return get_ftp_logintimes() > static_cast<unsigned>(l.failed_passwords);
}

void ftp_login_release(ftp_session &s) {
    if (s.login.local_aaa) ftp_update_online_count(s.login.online_name, 0);
    ftp_aaa_del_user(s);
}
