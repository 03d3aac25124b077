// Reply formatting: every reply on a control connection is built here in one 512-byte buffer,
// given its final CR LF, sent with a single send and traced. A reply that does not fit is refused
// whole, never truncated.
#include "ftpd.h"
#include "ftpd_replies.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace {

enum class fill_result { ok, too_long, bad_args };

// The shape shared by both reply functions: optional "CODE ", then the text the caller formats,
// then CR LF unless the text already ends in a line feed, then one send.
template <typename Format>
int reply_common(int send_sk, const char *cmd, Format &&format_text) {
    char buf[FTP_BUF_SIZE] = {0};
    size_t len = 0;

    if (cmd != nullptr) {
        if (!ftpd_snprintf(buf, sizeof buf, "%s ", cmd)) {
            FTPD_LOG_ERR("%s:reply information too long.\n", FTPD_MODULE);
            return -1;
        }
        len = strlen(buf);
    }

    fill_result r = format_text(buf + len, sizeof buf - len);
    if (r == fill_result::bad_args) {
        FTPD_LOG_ERR("%s:reply information error.\n", FTPD_MODULE);
        return -1;
    }
    if (r == fill_result::too_long) {
        FTPD_LOG_ERR("%s:reply information too long.\n", FTPD_MODULE);
        return -1;
    }
    len += strlen(buf + len);

    if (len == 0 || buf[len - 1] != '\n') {
        if (!ftpd_strlcat(buf, "\r\n", sizeof buf)) {
            FTPD_LOG_ERR("%s:reply information too long.\n", FTPD_MODULE);
            return -1;
        }
        len += 2;
    }

    ssize_t sent = send(send_sk, buf, len, 0);
    if (sent == static_cast<ssize_t>(len)) {
        FTPD_LOG_PRO("(REPLY)  %s\n", buf);
        return 0;
    }
    int err = sent < 0 ? errno : 0;
    char errtext[128];
    FTPD_LOG_ERR("%s:send fail(errno %d:%s).\n", FTPD_MODULE, err, strerror_r(err, errtext, sizeof errtext));
    // A reply that could not go out whole (the peer is gone, or stopped reading for a whole
    // time-out) leaves the connection unusable; shutting it down makes the session's next wait
    // end it, also where a handler ignores this result.
    shutdown(send_sk, SHUT_RDWR);
    return -1;
}

}  // namespace

int ftpd_reply(int send_sk, const char *cmd, const char *fmt, const char *arg1, const char *arg2) {
    return reply_common(send_sk, cmd, [&](char *out, size_t space) {
        if (fmt == nullptr) return fill_result::bad_args;
        bool fit;
        if (arg1 != nullptr && arg2 != nullptr)
            fit = ftpd_snprintf(out, space, fmt, arg1, arg2);
        else if (arg1 != nullptr)
            fit = ftpd_snprintf(out, space, fmt, arg1);
        else if (arg2 == nullptr)
            fit = ftpd_snprintf(out, space, "%s", fmt);  // a percent sign in plain text stays literal
        else
            return fill_result::bad_args;
        return fit ? fill_result::ok : fill_result::too_long;
    });
}

int ftpd_reply_size(int send_sk, const char *cmd, const char *fmt, unsigned long arg1, const char *arg2) {
    (void)arg2;
    return reply_common(send_sk, cmd, [&](char *out, size_t space) {
        if (fmt == nullptr) return fill_result::bad_args;
        return ftpd_snprintf(out, space, fmt, arg1) ? fill_result::ok : fill_result::too_long;
    });
}

int ftpd_reply_text(int control_fd, const char *text) { return ftpd_reply(control_fd, nullptr, "%s", text, nullptr); }

int ftpd_admit_path_cmd(int control_fd, const char *arg, const struct credentials *pcred) {
    const char *refusal = nullptr;
    if (!is_logged_in(pcred))
        refusal = FTP_REPLY_530;
    else if (!is_access(pcred))
        refusal = FTP_REPLY_550;
    else if (is_data_empty(arg))
        refusal = FTP_REPLY_501;
    if (refusal == nullptr) return 0;
    return ftpd_reply_text(control_fd, refusal) == 0 ? 1 : -1;
}
