// Fuzz target: the TLS commands of the standard profile. The input is a series of control lines;
// each is recognised and, when it is AUTH, PBSZ or PROT, handled as on a control connection that
// TLS protects (PBSZ, PROT) or that asks for it (AUTH, with no TLS configured: no handshake).
// Replies go to a socket pair that is drained after every line.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

#include "base/ftpd.h"
#include "control/parser.h"
#include "login/security.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool once = [] {
        ftpd_profile_set(true);
        return true;
    }();
    (void)once;
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv) != 0) return 0;
    struct credentials cred {};
    // Never followed by PBSZ or PROT: they only ask whether the control connection is protected.
    cred.tls = reinterpret_cast<struct ftp_tls *>(&cred);
    char line[FTP_BUF_SIZE];
    char arg[FTP_BUF_SIZE];
    size_t pos = 0;
    while (pos < size) {
        const uint8_t *nl = static_cast<const uint8_t *>(memchr(data + pos, '\n', size - pos));
        size_t len = (nl != nullptr ? static_cast<size_t>(nl - (data + pos)) : size - pos);
        size_t take = len < sizeof line - 1 ? len : sizeof line - 1;
        memcpy(line, data + pos, take);
        line[take] = '\0';
        pos += len + 1;
        switch (ftpd_parse_cmd(line, arg)) {
            case FTP_CMD_AUTH: {
                struct credentials plain {};
                (void)ftpd_command_auth(sv[0], arg, &plain, 1);
                break;
            }
            case FTP_CMD_PBSZ:
                ftpd_command_pbsz(sv[0], arg, &cred);
                break;
            case FTP_CMD_PROT:
                ftpd_command_prot(sv[0], arg, &cred);
                break;
            default:
                break;
        }
        char sink[4096];
        while (read(sv[1], sink, sizeof sink) > 0) {
        }
    }
    close(sv[0]);
    close(sv[1]);
    return 0;
}
