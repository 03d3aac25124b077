// Explicit TLS of the standard profile: AUTH TLS takes the control connection over, PBSZ and PROT
// choose protected data connections, and the platform's [tls] require setting decides what a
// client may do in clear text. The device profile never gets here: AUTH answers 502 there.
#include "login/security.h"

#include <strings.h>

#include <cstdio>
#include <cstring>

#include "ftp_tls.h"
#include "net/reply.h"
#include "control/session.h"

int ftpd_security_init(void) {
    if (!ftpd_standard()) return 0;
    char err[512] = {0};
    if (ftp_tls_init(err, sizeof err) == 0) return 0;
    fprintf(stderr, "ftp_server.elf: %s\n", err);
    printk_syslog_ext(3, FTPD_MODULE, "TLS", LOG_CLASS_ALWAYS, "%s\n", err);
    return -1;
}

bool ftpd_command_auth(int control_fd, const char *arg, struct credentials *pcred, int timeout_s) {
    if (pcred->tls != nullptr) return ftpd_reply_text(control_fd, "503 Already protected by TLS.\r\n") >= 0;
    if (strcasecmp(arg, "TLS") != 0 && strcasecmp(arg, "SSL") != 0 && strcasecmp(arg, "TLS-C") != 0)
        return ftpd_reply_text(control_fd, "504 AUTH type not supported: use AUTH TLS.\r\n") >= 0;
    if (ftpd_reply_text(control_fd, "234 AUTH TLS OK.\r\n") < 0) return false;
    char why[160] = {0};
    pcred->tls = ftp_tls_accept(control_fd, timeout_s * 1000, nullptr, why, sizeof why);
    if (pcred->tls == nullptr) {
        FTPD_LOG_PRO("control connection TLS: %s\n", why);
        return false;
    }
    FTPD_LOG_PRO("control connection protected (%s).\n", ftp_tls_version(pcred->tls));
    ftpd_reply_protect(control_fd, pcred->tls);
    return true;
}

void ftpd_command_pbsz(int control_fd, const char *arg, struct credentials *pcred) {
    if (pcred->tls == nullptr) {
        ftpd_reply_text(control_fd, "503 PBSZ needs AUTH TLS first.\r\n");
        return;
    }
    if (*arg < '0' || *arg > '9' || strspn(arg, "0123456789") != strlen(arg)) {
        ftpd_reply_text(control_fd, FTP_REPLY_501);
        return;
    }
    // A stream protected by TLS has no buffer size: every request is answered with 0.
    pcred->pbsz_seen = true;
    ftpd_reply_text(control_fd, "200 PBSZ=0\r\n");
}

void ftpd_command_prot(int control_fd, const char *arg, struct credentials *pcred) {
    if (pcred->tls == nullptr || !pcred->pbsz_seen) {
        ftpd_reply_text(control_fd, "503 PROT needs AUTH TLS and PBSZ first.\r\n");
        return;
    }
    if (strcasecmp(arg, "P") == 0) {
        pcred->prot_private = true;
        ftpd_reply_text(control_fd, "200 PROT now Private.\r\n");
    } else if (strcasecmp(arg, "C") != 0) {
        ftpd_reply_text(control_fd, "536 Only PROT P and PROT C are served.\r\n");
    } else if (ftp_tls_require() == PLATFORM_TLS_REQUIRE_ALL) {
        ftpd_reply_text(control_fd, "534 PROT C refused: data connections must be protected.\r\n");
    } else {
        pcred->prot_private = false;
        ftpd_reply_text(control_fd, "200 PROT now Clear.\r\n");
    }
}

bool ftpd_login_needs_tls(int control_fd, const struct credentials *pcred) {
    if (pcred->tls != nullptr || !ftp_tls_enabled() || ftp_tls_require() == PLATFORM_TLS_REQUIRE_NO) return false;
    ftpd_reply_text(control_fd, "530 Log in over TLS: send AUTH TLS first.\r\n");
    return true;
}

bool ftpd_data_needs_tls(int control_fd, const struct credentials *pcred) {
    if (pcred->prot_private || !ftp_tls_enabled() || ftp_tls_require() != PLATFORM_TLS_REQUIRE_ALL) return false;
    ftpd_reply_text(control_fd, "521 Data connections must be protected: send PBSZ 0 and PROT P first.\r\n");
    return true;
}

const char *ftpd_security_features(void) {
    return ftp_tls_enabled() ? " AUTH TLS\r\n PBSZ\r\n PROT\r\n" : "";
}

void ftpd_security_release(struct credentials *pcred) {
    if (pcred->tls == nullptr) return;
    ftpd_reply_protect(pcred->ctl_fd, nullptr);
    ftp_tls_free(pcred->tls);
    pcred->tls = nullptr;
}
