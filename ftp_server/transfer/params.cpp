// The transfer parameters: TYPE, REST, and the RFC 959 minimum of MODE, STRU and ALLO that the
// standard profile serves.
#include <strings.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/ftpd.h"
#include "session/session.h"
#include "transfer/transfer.h"

bool type_fun(ftp_session &s) {
    ftp_type type;
    const char *text;
    const char *arg = s.arg;
    // RFC 959's minimum: A with the default format N, and L 8 (which is binary).
    bool rfc = s.policy.rfc_replies;
    if (strcmp(arg, "A") == 0 || (rfc && (strcasecmp(arg, "A") == 0 || strcasecmp(arg, "A N") == 0))) {
        type = ftp_type::ascii;
        text = "Type set to A.";
    } else if (strcmp(arg, "I") == 0 || (rfc && (strcasecmp(arg, "I") == 0 || strcasecmp(arg, "L 8") == 0))) {
        type = ftp_type::binary;
        text = "Type set to I.";
    } else {
        reply_code(s, "504", "Type not implemented.");
        return true;
    }
    // The type changes only once the client has been told.
    if (reply_code(s, "200", text) == 0) s.type = type;
    return true;
}

// REST STREAM: the offset of the next RETR or STOR.
bool command_rest(ftp_session &s) {
    const char *p = s.arg;
    char *end = nullptr;
    errno = 0;
    long long v = *p >= '0' && *p <= '9' ? strtoll(p, &end, 10) : -1;
    if (v < 0 || errno != 0 || end == nullptr || *end != '\0') return reply(s, FTP_REPLY_501) >= 0;
    s.rest_offset = static_cast<off_t>(v);
    char text[96];
    (void)ftpd_snprintf(text, sizeof text, "350 Restarting at %lld. Send STORE or RETRIEVE to initiate transfer.\r\n", v);
    return reply(s, text) >= 0;
}

// Only the stream mode and the file structure exist here.
bool command_mode(ftp_session &s) {
    if (strcasecmp(s.arg, "S") == 0) return reply(s, "200 Mode set to S.\r\n") == 0;
    return reply(s, "504 Only mode S is served.\r\n") == 0;
}

bool command_stru(ftp_session &s) {
    if (strcasecmp(s.arg, "F") == 0) return reply(s, "200 Structure set to F.\r\n") == 0;
    return reply(s, "504 Only structure F is served.\r\n") == 0;
}

// Files need no space reserved ahead.
bool command_allo(ftp_session &s) {
    return reply(s, "202 ALLO command ignored.\r\n") == 0;
}
