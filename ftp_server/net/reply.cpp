// Reply formatting: every reply on a control connection is built here in one 512-byte buffer,
// given its final CR LF, sent with a single send (one TLS record on a protected connection) and
// traced. A reply that does not fit is refused whole, never truncated.
#include "net/reply.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/ftpd.h"

namespace {

enum class fill_result { ok, too_long, bad_args };

// Every line feed not already preceded by a carriage return gets one; false when the text then
// does not fit.
bool bare_lf_to_crlf(char *buf, size_t *len, size_t cap) {
    size_t extra = 0;
    for (size_t i = 0; i < *len; i++)
        if (buf[i] == '\n' && (i == 0 || buf[i - 1] != '\r')) extra++;
    if (extra == 0) return true;
    if (*len + extra >= cap) return false;
    size_t out = *len + extra;
    buf[out] = '\0';
    for (size_t i = *len; i-- > 0;) {
        buf[--out] = buf[i];
        if (buf[i] == '\n' && (i == 0 || buf[i - 1] != '\r')) buf[--out] = '\r';
    }
    *len += extra;
    return true;
}

// The echoed name, shortened to at most keep bytes: its head, "..." and its tail.
void shorten_name(const char *name, size_t keep, char *out, size_t cap) {
    size_t n = strlen(name);
    if (keep >= cap) keep = cap - 1;
    if (n <= keep) {
        memcpy(out, name, n + 1);
        return;
    }
    if (keep < 5) keep = 5;
    size_t head = (keep - 3) / 2;
    size_t tail = keep - 3 - head;
    memcpy(out, name, head);
    memcpy(out + head, "...", 3);
    memcpy(out + head + 3, name + n - tail, tail);
    out[keep] = '\0';
}

// The shape shared by both reply functions: optional "CODE ", then the text the caller formats,
// then CR LF unless the text already ends in a line feed, then one send.
template <typename Format>
int reply_common(ftp_control &c, const char *cmd, Format &&format_text) {
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

    // Stock clients read every line of a reply up to its CR LF; a bare line feed is taken for a
    // server bug.
    if (c.crlf && !bare_lf_to_crlf(buf, &len, sizeof buf)) {
        FTPD_LOG_ERR("%s:reply information too long.\n", FTPD_MODULE);
        return -1;
    }

    if (len == 0 || buf[len - 1] != '\n') {
        if (!ftpd_strlcat(buf, "\r\n", sizeof buf)) {
            FTPD_LOG_ERR("%s:reply information too long.\n", FTPD_MODULE);
            return -1;
        }
        len += 2;
    }

    if (c.stream.write_all(buf, len, c.send_timeout_ms) == 0) {
        FTPD_LOG_PRO("(REPLY)  %s\n", buf);
        return 0;
    }
    int err = errno;
    char errtext[128];
    FTPD_LOG_ERR("%s:send fail(errno %d:%s).\n", FTPD_MODULE, err, strerror_r(err, errtext, sizeof errtext));
    // A reply that could not go out whole (the peer is gone, or stopped reading for a whole
    // time-out) leaves the connection unusable; shutting it down makes the session's next wait
    // end it, also where a handler ignores this result.
    shutdown(c.stream.fd(), SHUT_RDWR);
    return -1;
}

}  // namespace

int ftpd_reply(ftp_control &c, const char *cmd, const char *fmt, const char *arg1, const char *arg2) {
    if (c.shorten_echo && fmt != nullptr && arg1 != nullptr) {
        // A reply too long for the bound is sent with its echoed name shortened, never dropped:
        // a client waiting for the reply would hang.
        char probe[FTP_BUF_SIZE];
        size_t code_len = cmd != nullptr ? strlen(cmd) + 1 : 0;
        int need =
            arg2 != nullptr ? snprintf(probe, sizeof probe, fmt, arg1, arg2) : snprintf(probe, sizeof probe, fmt, arg1);
        // Room for the CR LF and for the CRs a bare line feed may get.
        size_t total = code_len + static_cast<size_t>(need > 0 ? need : 0) + 4;
        if (need > 0 && total >= sizeof probe) {
            const char *longest = arg2 != nullptr && strlen(arg2) > strlen(arg1) ? arg2 : arg1;
            size_t over = total - (sizeof probe - 1);
            size_t n = strlen(longest);
            char shortened[FTP_BUF_SIZE];
            shorten_name(longest, n > over + 8 ? n - over - 3 : 8, shortened, sizeof shortened);
            const char *a1 = longest == arg1 ? shortened : arg1;
            const char *a2 = longest == arg2 ? shortened : arg2;
            return reply_common(c, cmd, [&](char *out, size_t space) {
                bool fit = a2 != nullptr ? ftpd_snprintf(out, space, fmt, a1, a2) : ftpd_snprintf(out, space, fmt, a1);
                return fit ? fill_result::ok : fill_result::too_long;
            });
        }
    }
    return reply_common(c, cmd, [&](char *out, size_t space) {
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

int ftpd_reply_size(ftp_control &c, const char *cmd, const char *fmt, unsigned long arg1, const char *arg2) {
    (void)arg2;
    return reply_common(c, cmd, [&](char *out, size_t space) {
        if (fmt == nullptr) return fill_result::bad_args;
        return ftpd_snprintf(out, space, fmt, arg1) ? fill_result::ok : fill_result::too_long;
    });
}

int ftpd_reply_text(ftp_control &c, const char *text) {
    return ftpd_reply(c, nullptr, "%s", text, nullptr);
}
