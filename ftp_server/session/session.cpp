// The session record: what a session takes at its start and gives back at its end, its replies,
// and the views of it that the data connection and the status report need.
#include "session/session.h"

#include <cstring>

#include "base/settings.h"

ftp_session::ftp_session(int control_fd, int stop, int fam, const ftp_connect_addr &a, const ftp_policy &p)
    : stop_fd(stop),
      family(fam),
      addr(a),
      policy(p),
      buffers(FTPD_M_WHOLE_BUF, FTP_WHOLE_BUF_SIZE),
      timeout_min(static_cast<int>(get_ftp_timeout())) {
    ctl.stream.reset(control_fd);
    struct sockaddr_storage peer {};
    if (fam == AF_INET6)
        memcpy(&peer, &a.his_addrv6, sizeof a.his_addrv6);
    else
        memcpy(&peer, &a.his_addr, sizeof a.his_addr);
    set_client(*this, peer);
    ctl.crlf = p.reply_crlf;
    ctl.shorten_echo = p.reply_shortens_echo;
    if (buffers) {
        arg = buffers.get();
        line = buffers.get() + FTP_BUF_SIZE;
        // In the order the device takes them: the top directory, the name, the password.
        rootdir = ftpd_block(FTPD_M_PCRED_DIR, FTP_ROOTDIR_LEN);
        if (rootdir) login.name = ftpd_block(FTPD_M_PCRED_NAME, FTP_NAME_LEN);
        if (login.name) login.passwd = ftpd_block(FTPD_M_PCRED_PWD, FTP_PASSWD_LEN);
        if (!login.passwd) {
            FTPD_LOG_ERR("%s: malloc fail.\n", FTPD_MODULE);
            login.name.reset();
            rootdir.reset();
        }
    } else {
        FTPD_LOG_ERR("%s: malloc fail.\n", FTPD_MODULE);
    }
}

ftp_session::~ftp_session() {
    FTPD_LOG_PRO("%s.\n", "clear_cred");
    ftp_set_userinfo_disconnect(&slot);
    data.release();
}

bool ftp_session::ready() const {
    return static_cast<bool>(buffers) && static_cast<bool>(login.passwd);
}

void set_client(ftp_session &s, const struct sockaddr_storage &addr) {
    s.client = addr;
    const void *bytes = addr.ss_family == AF_INET6
                            ? static_cast<const void *>(&reinterpret_cast<const struct sockaddr_in6 *>(&addr)->sin6_addr)
                            : static_cast<const void *>(&reinterpret_cast<const struct sockaddr_in *>(&addr)->sin_addr);
    if (inet_ntop(addr.ss_family, bytes, s.client_text, sizeof s.client_text) == nullptr) strcpy(s.client_text, "-");
}

const char *session_root(const ftp_session &s) {
    return s.rootdir ? s.rootdir.get() : "";
}

const char *session_name(const ftp_session &s) {
    return s.login.name ? s.login.name.get() : "";
}

int reply(ftp_session &s, const char *text) {
    return ftpd_reply_text(s.ctl, text);
}

int reply_code(ftp_session &s, const char *code, const char *fmt, const char *arg1, const char *arg2) {
    return ftpd_reply(s.ctl, code, fmt, arg1, arg2);
}

int admit_path_cmd(ftp_session &s, const char *arg) {
    const char *refusal = nullptr;
    if (!is_logged_in(s))
        refusal = FTP_REPLY_530;
    else if (!is_access(s))
        refusal = FTP_REPLY_550;
    else if (is_data_empty(arg))
        refusal = FTP_REPLY_501;
    if (refusal == nullptr) return 0;
    return reply(s, refusal) == 0 ? 1 : -1;
}

namespace {

struct ftp_user_cnt_info_s snapshot_of(const ftp_session &s) {
    struct ftp_user_cnt_info_s c {};
    c.use_flag = 1;
    c.tran_type = s.type;
    c.data_mode = s.data.mode();
    c.def_addr = s.addr;
    c.contrl_type = s.family;
    const ftp_data_addrs &a = s.data.addrs();
    c.data_type = a.family;
    c.data_dest = a.data_dest;
    c.data_destv6 = a.data_destv6;
    c.data_source = a.data_source;
    c.data_sourcev6 = a.data_sourcev6;
    c.pasv_dest = a.pasv_dest;
    c.pasv_destv6 = a.pasv_destv6;
    c.pasv_addr = a.pasv_addr;
    c.pasv_addrv6 = a.pasv_addrv6;
    return c;
}

}  // namespace

struct ftp_user_cnt_info_s slot_snapshot(const ftp_session &s) {
    return snapshot_of(s);
}

void slot_update(ftp_session &s) {
    FTPD_LOG_PRO("Update userinfo %s: data mode[%d]\n", session_name(s), static_cast<int>(s.data.mode()));
    ftp_set_userinfo_update(s.slot, snapshot_of(s));
}

ftp_data_env data_env(ftp_session &s, const char *real, bool upload, char *log_name) {
    ftp_data_env env;
    env.control = &s.ctl;
    env.stop_fd = s.stop_fd;
    env.idle_ms = s.timeout_min * 60 * 1000;
    env.family = s.family;
    env.addr = &s.addr;
    env.client = &s.client;
    env.type = s.type;
    env.watch = s.watch;
    env.protect = s.prot_private;
    env.control_tls = s.ctl.stream.tls();
    env.ascii_carry = s.policy.ascii_joins_blocks;
    env.lean = s.policy.lean_transfers;
    env.keep_listener = s.policy.keep_passive_listener;
    env.proxy = s.policy.proxy_protocol;
    env.max_rate = s.max_rate != 0 ? s.max_rate : s.policy.max_rate;
    env.slot_update = [](void *ctx) { slot_update(*static_cast<ftp_session *>(ctx)); };
    env.upload = upload;
    if (s.policy.transfer_log && real != nullptr && log_name != nullptr &&
        ftpd_absolute_to_relative_path(session_root(s), real, log_name, FTP_PATH_HALF) != nullptr) {
        env.log_name = log_name;
        env.user = s.login.client_name;
        env.client_text = s.client_text;
    }
    env.ctx = &s;
    return env;
}

ftpd_resolve_result ftpd_resolve_path(const ftp_session &s, const char *arg, char *inpath, char *outpath,
                                      bool follow, bool check_links) {
    ftpd_resolve_result r = ftpd_resolve_path(session_root(s), s.currentdir, arg, inpath, outpath);
    if (r != ftpd_resolve_result::ok) return r;
    // SECURITY: the daemon's own temporaries are nobody's to see or touch.
    if (ftpd_names_upload_temp(inpath + strlen(session_root(s)))) return ftpd_resolve_result::missing;
    // SECURITY: a link that leads out of the top directory is as good as missing.
    if (check_links && s.policy.confine_links && !ftpd_resolves_beneath(session_root(s), inpath, follow))
        return ftpd_resolve_result::missing;
    return r;
}

char *ftpd_client_view(const ftp_session &s, char *outpath, int size) {
    return ftpd_absolute_to_relative_path(session_root(s), s.currentdir, outpath, size);
}
