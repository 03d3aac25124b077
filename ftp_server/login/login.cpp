// The USER and PASS commands: binding a session to a configured user and one of its connection
// slots, the password check against the user table, and the hand-over to AAA or the local user
// database when the table does not accept the password.
#include "login/login.h"

#include <unistd.h>

#include <cstring>

#include "ftp_platform.h"
#include "ftp_tls.h"
#include "base/ftpd.h"
#include "control/listener.h"
#include "net/reply.h"
#include "base/users.h"

namespace {

void release_message(struct credentials *pcred) {
    if (pcred->message != nullptr) ftpd_free(FTPD_M_PCRED_MSG, pcred->message);
    pcred->message = nullptr;
}

int reply_text(int control_fd, const char *text) {
    return ftpd_reply(control_fd, nullptr, "%s", text, nullptr);
}

}  // namespace

void ftp_login_fail_wait(struct credentials *pcred) {
    // SECURITY: slows password guessing; once per PASS, however many 530 lines answer it.
    if (pcred->fail_waited) return;
    pcred->fail_waited = true;
    int delay = platform_ftp_login_fail_delay();
    if (delay > 0) sleep(static_cast<unsigned>(delay));
}

int auth_user(const char *name, struct credentials *pcred) {
    if (name == nullptr || pcred == nullptr) return -1;
    pcred->guest = 0;
    release_message(pcred);
    size_t msg_len = strlen(name) + 64;
    pcred->message = static_cast<char *>(ftpd_malloc(FTPD_M_PCRED_MSG, msg_len));
    if (pcred->message == nullptr) return -1;
    if (name[0] == '\0') {
        (void)ftpd_strlcpy(pcred->message, "User is NULL.\n", msg_len);
        return -1;
    }
    if (pcred->cnt_index != -1) {
        ftp_set_userinfo_disconnect(pcred);
        FTPD_LOG_PRO("%s, ftp_set_userinfo_disconnect\n", __func__);
    }
    int ret = ftp_set_userinfo_connect(name, pcred);
    FTPD_LOG_PRO("%s, ftp_set_userinfo_connect, ret = %d", __func__, ret);
    pcred->at_user_limit = ret == 2;
    switch (ret) {
        case 0:
            return 0;
        case 1:
            return -1;
        case 5:
            (void)ftpd_snprintf(pcred->message, msg_len, "User %s unknown.\n", name);
            return -1;
        default:
            (void)ftpd_snprintf(pcred->message, msg_len, "User connection limit reached. max number:[%d]\n",
                                static_cast<int>(ftpd_user_max_connect));
            return -1;
    }
}

int user(int control_fd, char *arg, struct credentials *pcred, char *client_name) {
    if (arg == nullptr || pcred == nullptr || client_name == nullptr) return -1;
    memset(client_name, 0, FTP_USERNAME_MAX);
    // SECURITY: a name cut short could be another account's; one that does not fit names none.
    if (!ftpd_snprintf(client_name, FTP_USERNAME_MAX, "%s", arg)) client_name[0] = '\0';
    // The slot held from an earlier USER is given back while the session's name still names its
    // user: once the name is cleared below, the table could no longer find the row.
    if (pcred->cnt_index != -1) {
        ftp_set_userinfo_disconnect(pcred);
        FTPD_LOG_PRO("%s, ftp_set_userinfo_disconnect\n", __func__);
        pcred->cnt_index = -1;
    }
    if (pcred->name != nullptr) memset(pcred->name, 0, FTP_NAME_LEN);
    if (pcred->passwd != nullptr) memset(pcred->passwd, 0, FTP_PASSWD_LEN);

    int ret = auth_user(arg, pcred);
    // The composed text is dropped unsent: the client must not learn whether a name exists or
    // is at its connection limit.
    release_message(pcred);

    if (ret != 0 && !g_aaa_ready) {
        FTPD_LOG_ERR("Fail to reg aaa.\n");
        ftpd_reply(control_fd, "530", "User %s access denied.", arg, nullptr);
        return -1;
    }
    if (reply_text(control_fd, "331 User name okay, need password.\r\n") == 0) pcred->askpasswd = 1;
    return 0;
}

int auth_pass(const char *arg, const struct credentials *pcred) {
    if (arg == nullptr || pcred == nullptr || pcred->passwd == nullptr || arg[0] == '\0') return 1;
    size_t len = strlen(arg);
    if (len != strlen(pcred->passwd)) return 1;
    return memcmp(arg, pcred->passwd, len) == 0 ? 0 : 1;
}

namespace {

// The 230 of an accepted login. On a protected control connection the TLS session is bound to the
// login first, so that the ticket data connections resume goes out with this reply.
int reply_logged_in(int control_fd, struct credentials *pcred, const char *client_name) {
    if (pcred->tls != nullptr && ftp_tls_bind_login(pcred->tls, client_name) != 0)
        FTPD_LOG_ERR("%s: TLS session not bound to the login.\n", FTPD_MODULE);
    return reply_text(control_fd, "230 User logged in, proceed.\r\n");
}

}  // namespace

int pass(int control_fd, char *arg, struct credentials *pcred, char *client_name) {
    if (arg == nullptr || pcred == nullptr || client_name == nullptr) return -1;
    if (pcred->logged_in != 0 || pcred->askpasswd == 0) {
        reply_text(control_fd, "503 Bad sequence of commands.\r\n");
        return 0;
    }
    pcred->askpasswd = 0;
    pcred->fail_waited = false;
    if (pcred->guest != 0) {
        ftp_login_fail_wait(pcred);
        ftpd_reply(control_fd, "530", "Password access denied.", nullptr, nullptr);
        return -1;
    }
    if (pcred->name != nullptr && pcred->passwd != nullptr && pcred->name[0] != '\0' && pcred->passwd[0] != '\0' &&
        auth_pass(arg, pcred) == 0) {
        pcred->logged_in = 1;
        reply_logged_in(control_fd, pcred, client_name);
        return 0;
    }
    // Stock clients wait and try again on 421, but give up on 530: a user at its connection
    // limit is told so, once the password has shown that the name is theirs.
    if (ftpd_standard() && pcred->at_user_limit && ftp_userinfo_password_matches(client_name, arg)) {
        reply_text(control_fd, "421 Too many connections for this user, try again later.\r\n");
        return -2;
    }
    if (!g_aaa_ready) {
        FTPD_LOG_ERR("Fail to reg aaa.\n");
        ftp_login_fail_wait(pcred);
        reply_text(control_fd, "530 Not logged in.\r\n");
        return -1;
    }

    bool local = false;
    int ret;
    if (ftp_get_aaa_status()) {
        ret = ftp_aaa_auth(control_fd, client_name, pcred, arg, &local);
        FTPD_LOG_PRO("Ftp aaa authentication finish, ret = %d.\n", ret);
    } else {
        ret = ftp_aaa_auth_local(control_fd, client_name, pcred, arg);
        local = true;
        FTPD_LOG_PRO("Ftp local authentication finish, ret = %d.\n", ret);
    }
    if (ret != 0) {
        // The device sends this second 530 after the one of the authentication step; a stock
        // client would take it for the answer to its next command.
        ftp_login_fail_wait(pcred);
        if (!ftpd_standard()) ftpd_reply(control_fd, "530", "Password access denied.", nullptr, nullptr);
        return -1;
    }
    if (!local) {
        pcred->logged_in = 1;
        reply_logged_in(control_fd, pcred, client_name);
        return 0;
    }
    FTPD_LOG_PRO("Going to check login.\n");
    if (ftp_username_login_check(client_name) != 0) {
        ftp_login_fail_wait(pcred);
        reply_text(control_fd, "530 Not logged in.\r\n");
        return -1;
    }
    if (reply_logged_in(control_fd, pcred, client_name) != 0) return -1;
    ftp_update_online_count(client_name, 1);
    // A later USER changes client_name; the count goes back to the account that took it.
    (void)ftpd_strlcpy(pcred->online_name, client_name, sizeof pcred->online_name);
    pcred->logged_in = 1;
    pcred->logged_local_aaa_in = true;
    return 0;
}
