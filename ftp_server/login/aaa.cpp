// Authentication through the device's AAA service and local user database: registration, the
// method-list request with its packed attribute elements and its one allowed challenge, the
// direct database path, the account checks after a database login and the online count.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <cstring>

#include "aaa.h"
#include "base/ftpd.h"
#include "login/login.h"
#include "session/session.h"
#include "base/settings.h"

bool g_aaa_ready = false;

namespace {

#define AAA_ELEM_MAX_VALUE 248  // a value of this length or more is never packed
#define AAA_ELEM_BUF_SIZE 512
#define AAA_WAIT_SECONDS 10
#define AAA_SERVICE_TYPE_LOGIN 2
#define USER_LOGIN_MODE_FTP 0x10

// Both answer a failed PASS, so both wait out the failed-login delay first.
void reply_not_logged_in(ftp_session &s) {
    ftp_login_fail_wait(s);
    reply(s, "530 Not logged in.\r\n");
}

void reply_password_denied(ftp_session &s) {
    ftp_login_fail_wait(s);
    reply_code(s, "530", "Password access denied.");
}

uint32_t add_byte(struct aaa_iovec_s *iov, uint32_t code, uint8_t v) {
    return aaa_add_elem_ext(iov, code, &v, 1);
}

uint32_t add_text(struct aaa_iovec_s *iov, uint32_t code, const char *s) {
    return aaa_add_elem_ext(iov, code, s, static_cast<uint32_t>(strlen(s)));
}

}  // namespace

int ftp_aaa_init(void) {
    if (g_aaa_ready) return 1;
    aaa_srv_reg_info_s info;
    memset(&info, 0, sizeof info);
    (void)ftpd_strlcpy(info.name, "ftp", sizeof info.name);
    if (aaa_svr_reg(&info) >= 0) {
        g_aaa_ready = true;
        return 1;
    }
    FTPD_LOG_ERR("Fail to reg aaa.\n");
    return 0;
}

bool ftp_get_aaa_status(void) {
    if (!g_aaa_ready) return false;
    return aaa_get_new_model_status() != 0;
}

void aaa_iovec_init(struct aaa_iovec_s *iov, char *buf, uint32_t capacity) {
    if (iov == nullptr) return;
    iov->used = 0;
    iov->left = capacity;
    iov->data = capacity == 0 ? nullptr : buf;
}

uint32_t aaa_add_elem_ext(struct aaa_iovec_s *iov, uint32_t code, const void *value, uint32_t len) {
    if (iov == nullptr || value == nullptr || iov->data == nullptr) return 0;
    if (len == 0 || len >= AAA_ELEM_MAX_VALUE) return 0;
    uint32_t whole = len + static_cast<uint32_t>(sizeof(struct aaa_elem_s));
    if (iov->left < whole) return 0;
    struct aaa_elem_s head = {code, whole};
    char *at = iov->data + iov->used;
    memcpy(at, &head, sizeof head);  // packed back to back: no alignment assumed
    memcpy(at + sizeof head, value, len);
    iov->used += whole;
    iov->left -= whole;
    return whole;
}

void ftp_aaa_secu_set_aaa_elem_basic(int32_t level, const struct sockaddr_storage &peer, struct aaa_iovec_s *iov,
                                     const char *name, const char *password) {
    if (iov == nullptr) return;
    FTPD_LOG_PRO("[ACCESS] Add elem authen-type %d.\r\n", 1);
    add_byte(iov, AAA_ELEM_AUTHEN_TYPE, 1);
    FTPD_LOG_PRO("[ACCESS] Add elem authen-service %d.\r\n", 1);
    add_byte(iov, AAA_ELEM_AUTHEN_SERVICE, 1);
    FTPD_LOG_PRO("[ACCESS] Add elem action %d.\r\n", 1);
    add_byte(iov, AAA_ELEM_ACTION, 1);
    FTPD_LOG_PRO("[ACCESS] Add elem privilege %d.\r\n", level);
    add_byte(iov, AAA_ELEM_PRIVILEGE, static_cast<uint8_t>(level));
    FTPD_LOG_PRO("[ACCESS] Add elem port %d.\r\n", 21);
    add_byte(iov, AAA_ELEM_PORT, 21);

    char addr[INET6_ADDRSTRLEN] = "async";
    if (peer.ss_family == AF_INET) {
        if (inet_ntop(AF_INET, &reinterpret_cast<const struct sockaddr_in *>(&peer)->sin_addr, addr, sizeof addr) ==
            nullptr)
            addr[0] = '\0';
    } else if (peer.ss_family == AF_INET6) {
        if (inet_ntop(AF_INET6, &reinterpret_cast<const struct sockaddr_in6 *>(&peer)->sin6_addr, addr, sizeof addr) ==
            nullptr)
            addr[0] = '\0';
    }
    FTPD_LOG_PRO("[ACCESS] Add elem rem-addr %s.\r\n", addr);
    add_text(iov, AAA_ELEM_REM_ADDR, addr);
    if (name != nullptr) {
        FTPD_LOG_PRO("[ACCESS] Add elem username %s.\r\n", name);
        add_text(iov, AAA_ELEM_USERNAME, name);
    }
    if (password != nullptr) {
        // The protocol debug switch shows the password in clear on purpose.
        FTPD_LOG_PRO("[ACCESS] Add elem password %s.\r\n", password);
        add_text(iov, AAA_ELEM_PASSWORD, password);
    }
}

namespace {

// The method list to ask: the configured one, or "default". Its look-up code (0 missing, 3 first
// method none, else present) is returned and its name written into mlist.
int pick_method_list(char *mlist, size_t size) {
    const char *configured = get_ftp_server_auth();
    if (configured != nullptr) {
        (void)ftpd_strlcpy(mlist, configured, size);
        FTPD_LOG_PRO("Do aaa auth list %s.\n", mlist);
        int exists = aaa_mlist_existed(mlist, AAA_UTYPE_FTP);
        if (exists == 0) FTPD_LOG_PRO("aaa %s mlist not exist.\n", mlist);
        return exists;
    }
    (void)ftpd_strlcpy(mlist, "default", size);
    FTPD_LOG_PRO("Do aaa auth default.\n");
    int exists = aaa_mlist_existed("default", AAA_UTYPE_FTP);
    if (exists == 0) FTPD_LOG_PRO("aaa default mlist not exist.\n");
    return exists;
}

// Sends the request and waits for its verdict, answering one challenge: 0 accepted, otherwise
// the refusal has been answered.
int run_request(ftp_session &s, authen_info_s *req, const char *mlist, bool *local) {
    bool challenge_allowed = true;
    for (;;) {
        int rc = aaa_user_req_authen(req);
        if (rc != 0) {
            FTPD_LOG_ERR("Do aaa auth fail.\n");
            reply_not_logged_in(s);
            return rc;
        }
        aaa_result_s *result = nullptr;
        if (aaa_user_get_result(s.login.aaa_session, AAA_UTYPE_FTP, AAA_WAIT_SECONDS, &result) != 0) {
            FTPD_LOG_ERR("Get aaa auth result timeout.\n");
            reply_not_logged_in(s);
            if (result != nullptr) aaa_free_result_info(result);
            return -1;
        }
        if (result == nullptr) {
            FTPD_LOG_PRO("aaa auth error.\n");
            reply_not_logged_in(s);
            return -1;
        }
        if (result->sub.mtype == AAA_MTYPE_LOCAL) {
            FTPD_LOG_PRO("aaa %s local.!\n", mlist);
            *local = true;
        }
        FTPD_LOG_PRO("Get aaa auth result(%d).\n", static_cast<int>(result->sub.result));
        int priv = result->sub.ip_privilege;
        aaa_state_t state = result->sub.result;
        aaa_free_result_info(result);
        if (state == AAA_ACCEPT) {
            FTPD_LOG_PRO("Do aaa auth: accept, priv(%d).\n", priv);
            return 0;
        }
        if (state == AAA_CHALLENGE && challenge_allowed) {
            FTPD_LOG_PRO("Do aaa auth: challange, priv(%d). continue\n", priv);
            req->sub.is_challenge_answer = true;
            challenge_allowed = false;
            continue;
        }
        if (state == AAA_REJECT) {
            FTPD_LOG_PRO("Do aaa auth: reject, priv(%d).\n", priv);
            reply_password_denied(s);
        } else if (state == AAA_TIMEOUT) {
            FTPD_LOG_PRO("Do aaa auth: timeout, priv(%d).\n", priv);
            reply_not_logged_in(s);
        } else {
            FTPD_LOG_PRO("Do aaa auth: unknow.\n");
            reply_not_logged_in(s);
        }
        return -1;
    }
}

}  // namespace

int ftp_aaa_auth(ftp_session &s, const char *name, const char *password, bool *local) {
    if (name == nullptr || password == nullptr || local == nullptr) return -1;
    *local = false;
    if (s.login.aaa_session == 0) {
        s.login.aaa_session = aaa_get_session_id();
        FTPD_LOG_PRO("ftp_aaa_auth. %d\n", static_cast<int>(s.login.aaa_session));
        if (s.login.aaa_session == 0) {
            FTPD_LOG_ERR("%s aaa get session id fail.\n", __func__);
            reply_not_logged_in(s);
            return -1;
        }
    }

    authen_info_s req;
    memset(&req, 0, sizeof req);
    req.sub.utype = AAA_UTYPE_FTP;
    req.sub.mode = AAA_AUTHEN_MODE_PAP;
    req.sub.is_challenge_answer = false;
    req.sub.session_id = s.login.aaa_session;
    req.sub.service_type = AAA_SERVICE_TYPE_LOGIN;
    req.sub.name = {static_cast<uint32_t>(strlen(name)), name};
    req.sub.password = {static_cast<uint32_t>(strlen(password)), password};

    char mlist[FTP_NAME_LEN];
    int exists = pick_method_list(mlist, sizeof mlist);
    if (exists == 0) {
        reply_not_logged_in(s);
        return -1;
    }
    if (exists == 3) {
        FTPD_LOG_PRO("aaa first mtd is none.\n");
        return 0;
    }
    req.mlist = mlist;

    ftpd_block buf(FTPD_M_TMP, AAA_ELEM_BUF_SIZE);
    if (!buf) {
        FTPD_LOG_PRO("aaa create memory failed.\n");
        reply_not_logged_in(s);
        return -1;
    }
    aaa_iovec_s iov;
    aaa_iovec_init(&iov, buf.get(), AAA_ELEM_BUF_SIZE);
    ftp_aaa_secu_set_aaa_elem_basic(s.login.level, s.client, &iov, name, password);
    req.iov = &iov;
    return run_request(s, &req, mlist, local);
}

int ftp_aaa_auth_local(ftp_session &s, const char *name, const char *password) {
    if (name == nullptr || password == nullptr) return -1;
    FTPD_LOG_PRO("Ftp aaa auth local, %s, %s\n", name, password);
    authen_info_s req;
    memset(&req, 0, sizeof req);
    req.sub.utype = AAA_UTYPE_FTP;
    req.sub.session_id = 0;
    req.sub.is_challenge_answer = false;
    req.sub.name = {static_cast<uint32_t>(strlen(name)), name};
    req.sub.password = {static_cast<uint32_t>(strlen(password)), password};

    aaa_result_s *result = nullptr;
    int rc = username_lib_authen_req(&req, &result);
    if (rc != 0) {
        FTPD_LOG_ERR("Call usrname-lib-authen-req fail(%d).\n", rc);
        if (result != nullptr) aaa_free_result_info(result);
        reply_not_logged_in(s);
        return -1;
    }
    if (result == nullptr) {
        FTPD_LOG_PRO("aaa authen local error.\n");
        reply_not_logged_in(s);
        return -1;
    }
    FTPD_LOG_PRO("Get aaa auth local result(%d).\n", static_cast<int>(result->sub.result));
    int priv = result->sub.ip_privilege;
    aaa_state_t state = result->sub.result;
    aaa_free_result_info(result);
    switch (state) {
        case AAA_ACCEPT:
            FTPD_LOG_PRO("Do aaa auth local: accept, priv(%d).\n", priv);
            return 0;
        case AAA_CHALLENGE:
            FTPD_LOG_PRO("Do auth local: not support challenge.\n");
            reply_not_logged_in(s);
            break;
        case AAA_REJECT:
            FTPD_LOG_PRO("Do aaa auth local: reject, priv(%d).\n", priv);
            reply_password_denied(s);
            break;
        case AAA_TIMEOUT:
            FTPD_LOG_PRO("Do aaa auth local: timeout, priv(%d).\n", priv);
            reply_not_logged_in(s);
            break;
        default:
            FTPD_LOG_PRO("Do aaa auth local: unknow.\n");
            reply_not_logged_in(s);
            break;
    }
    return -1;
}

int ftp_username_login_check(const char *name) {
    if (name == nullptr) return -1;
    FTPD_LOG_PRO("In %s.\n", __func__);
    char key[FTP_NAME_LEN];
    (void)ftpd_strlcpy(key, name, sizeof key);
    username_lib_user_s user;
    memset(&user, 0, sizeof user);
    int rc = username_lib_copy_user(key, &user);
    if (rc < 0) {
        FTPD_LOG_PRO("[ACCESS]%s username lib copy user fail %d.\r\n", __func__, rc);
        return -1;
    }
    int ret = -1;
    if (user.reject_remote_login) {
        FTPD_LOG_PRO("[ACCESS] This username reject rlogin.\r\n");
    } else if (user.login_mode != 0 && (user.login_mode & USER_LOGIN_MODE_FTP) == 0) {
        FTPD_LOG_PRO("[ACCESS] This username was rejected login for unauthorization.\r\n");
    } else if (user.online_amount > 0 && user.online_count >= user.online_amount) {
        printk_syslog_ext(5, "LOGIN", "LIMIT", LOG_CLASS_ALWAYS,
                          "The number of online users %d has reached the upper limit %d.\r\n", user.online_count,
                          user.online_amount);
    } else if (user.online_amount != 0) {
        ret = 0;
    } else {
        FTPD_LOG_PRO("[LOGIN] This username was rejected login for online amount is zero.\r\n");
    }
    username_lib_release_user(&user);
    return ret;
}

void ftp_update_online_count(const char *name, int login) {
    if (name == nullptr) {
        FTPD_LOG_PRO("%s: got wrong param\r\n", __func__);
        return;
    }
    username_lib_user_s user;
    memset(&user, 0, sizeof user);
    int rc = username_lib_copy_user(name, &user);
    if (rc < 0) {
        FTPD_LOG_PRO("Username lib copy user fail %d.\r\n", rc);
        return;
    }
    // The copy holds no resources of its own once its values are read.
    username_lib_release_user(&user);
    FTPD_LOG_PRO("Login online_count is %d.\n", user.online_count);
    user.online_count += login ? 1 : -1;
    rc = username_lib_update_user(&user);
    FTPD_LOG_PRO("Username lib update user count %d ret %d.\r\n", user.online_count, rc);
}

void ftp_aaa_del_user(ftp_session &s) {
    FTPD_LOG_PRO("ftp_aaa_del_user. %d\n", static_cast<int>(s.login.aaa_session));
    if (s.login.aaa_session != 0) {
        aaa_delete_user(s.login.aaa_session, AAA_UTYPE_FTP);
        s.login.aaa_session = 0;
    }
}
