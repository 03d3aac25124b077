// Explicit TLS of the standard profile: AUTH TLS takes the control connection over, PBSZ and PROT
// choose protected data connections, and the platform's [tls] require setting decides what a
// client may do in clear text. Only a policy with TLS serves these commands.
#include "login/security.h"

#include <strings.h>

#include <cstdio>
#include <cstring>

#include "base/ftpd.h"
#include "ftp_tls.h"
#include "session/session.h"

int ftpd_security_init(bool standard) {
    if (!standard) return 0;
    char err[512] = {0};
    if (ftp_tls_init(err, sizeof err) == 0) return 0;
    fprintf(stderr, "ftp_server.elf: %s\n", err);
    printk_syslog_ext(3, FTPD_MODULE, "TLS", LOG_CLASS_ALWAYS, "%s\n", err);
    return -1;
}

bool command_auth(ftp_session &s) {
    if (s.ctl.stream.is_protected()) return reply(s, "503 Already protected by TLS.\r\n") >= 0;
    const char *arg = s.arg;
    if (strcasecmp(arg, "TLS") != 0 && strcasecmp(arg, "SSL") != 0 && strcasecmp(arg, "TLS-C") != 0)
        return reply(s, "504 AUTH type not supported: use AUTH TLS.\r\n") >= 0;
    // SECURITY: what followed AUTH in the same segment was sent in clear text and is never taken
    // as a protected command.
    s.input.len = 0;
    s.input.discarding = false;
    if (reply(s, "234 AUTH TLS OK.\r\n") < 0) return false;
    char why[160] = {0};
    ftp_tls *t = ftp_tls_accept(s.ctl.stream.fd(), s.waiter->timeout * 1000, nullptr, why, sizeof why);
    if (t == nullptr) {
        FTPD_LOG_PRO("control connection TLS: %s\n", why);
        return false;
    }
    FTPD_LOG_PRO("control connection protected (%s).\n", ftp_tls_version(t));
    s.ctl.stream.protect(t);
    return true;
}

bool command_pbsz(ftp_session &s) {
    if (!s.ctl.stream.is_protected()) return reply(s, "503 PBSZ needs AUTH TLS first.\r\n") >= 0;
    const char *arg = s.arg;
    if (*arg < '0' || *arg > '9' || strspn(arg, "0123456789") != strlen(arg)) return reply(s, FTP_REPLY_501) >= 0;
    // A stream protected by TLS has no buffer size: every request is answered with 0.
    s.pbsz_seen = true;
    return reply(s, "200 PBSZ=0\r\n") >= 0;
}

bool command_prot(ftp_session &s) {
    if (!s.ctl.stream.is_protected() || !s.pbsz_seen)
        return reply(s, "503 PROT needs AUTH TLS and PBSZ first.\r\n") >= 0;
    const char *arg = s.arg;
    if (strcasecmp(arg, "P") == 0) {
        s.prot_private = true;
        return reply(s, "200 PROT now Private.\r\n") >= 0;
    }
    if (strcasecmp(arg, "C") != 0) return reply(s, "536 Only PROT P and PROT C are served.\r\n") >= 0;
    if (ftp_tls_require() == PLATFORM_TLS_REQUIRE_ALL)
        return reply(s, "534 PROT C refused: data connections must be protected.\r\n") >= 0;
    s.prot_private = false;
    return reply(s, "200 PROT now Clear.\r\n") >= 0;
}

bool ftpd_login_needs_tls(ftp_session &s) {
    if (s.ctl.stream.is_protected() || !s.policy.tls || ftp_tls_require() == PLATFORM_TLS_REQUIRE_NO) return false;
    reply(s, "530 Log in over TLS: send AUTH TLS first.\r\n");
    return true;
}

bool ftpd_data_needs_tls(ftp_session &s) {
    if (s.prot_private || !s.policy.tls || ftp_tls_require() != PLATFORM_TLS_REQUIRE_ALL) return false;
    reply(s, "521 Data connections must be protected: send PBSZ 0 and PROT P first.\r\n");
    return true;
}
