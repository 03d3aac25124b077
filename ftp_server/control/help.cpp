// HELP, SYST, STAT without a path, FEAT, OPTS and NOOP: the informational commands. HELP and FEAT
// are derived from the command table: HELP lists the rows the profile lists, marking with "*" those
// it does not show as served, and explains one; FEAT lists the served rows' lines.
#include "control/help.h"

#include <arpa/inet.h>
#include <strings.h>
#include <sys/socket.h>

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "base/ftpd.h"
#include "base/settings.h"
#include "control/commands.h"
#include "control/listener.h"
#include "files/cmds.h"
#include "session/session.h"
#include "transfer/list_internal.h"
#include "zqsys.h"

#define FTP_HELP_TEXT_LEN 128
#define FTP_HELP_LINE_WIDTH 76

namespace {

// A copy taken under the name's lock: the shared text is released at shutdown while sessions run.
struct product_name {
    char text[FTP_BUF_SIZE];
    product_name() { ftp_copy_product_name(text, sizeof text); }
};

// The rows of a table that the profile's HELP lists.
struct help_table {
    const ftp_command *rows;
    size_t count;
    const char *prefix;
};

bool listed(const ftp_command &c, const ftp_policy &p) {
    return in_profile(c.listed, p);
}

bool marked(const ftp_command &c, const ftp_policy &p) {
    return in_profile(c.marked, p) && (!c.tls || p.tls);
}

// The table's listed rows, in order, into rows (room for t.count).
size_t listed_rows(const help_table &t, const ftp_policy &p, const ftp_command **rows) {
    size_t n = 0;
    for (size_t i = 0; i < t.count; i++)
        if (listed(t.rows[i], p)) rows[n++] = &t.rows[i];
    return n;
}

// The whole table in columns, filled column by column; each line leaves with a bare LF so that
// the lines form one multi-line 214 reply.
void help_list(ftp_session &s, const help_table &t, int width) {
    if (reply_code(s, nullptr, "214- The following %scommands are recognized %s.", t.prefix,
                   "(* =>is unimplemented)") != 0)
        return;
    const ftp_command *rows[kCommandCount];
    int count = static_cast<int>(listed_rows(t, s.policy, rows));
    int columns = FTP_HELP_LINE_WIDTH / width;
    if (columns < 1) columns = 1;
    int lines = (count + columns - 1) / columns;

    for (int i = 0; i < lines; i++) {
        char line[FTP_BUF_SIZE];
        (void)ftpd_strlcpy(line, "214-    ", sizeof line);
        for (int j = 0; j < columns; j++) {
            int row = j * lines + i;
            if (row >= count) break;
            const ftp_command *c = rows[row];
            (void)ftpd_strlcat(line, c->word, sizeof line);
            (void)ftpd_strlcat(line, marked(*c, s.policy) ? " " : "*", sizeof line);
            if (row + lines >= count) break;
            for (int w = static_cast<int>(strlen(c->word)) + 1; w < width; w++) (void)ftpd_strlcat(line, " ", sizeof line);
        }
        (void)ftpd_strlcat(line, "\n", sizeof line);
        if (reply(s, line) != 0) return;
    }
    reply_code(s, "214", "Direct comments to ftp-bugs@%s.", product_name().text);
}

void ftpd_help(ftp_session &s, const help_table &t, char *word) {
    const ftp_command *rows[kCommandCount];
    size_t count = listed_rows(t, s.policy, rows);
    int longest = 0;
    for (size_t i = 0; i < count; i++) {
        int len = static_cast<int>(strlen(rows[i]->word));
        if (len > longest) longest = len;
    }
    int width = (longest + 8) & ~7;
    if (word == nullptr) {
        help_list(s, t, width);
        return;
    }
    for (char *p = word; *p != '\0'; p++) *p = static_cast<char>(toupper(static_cast<unsigned char>(*p)));
    const ftp_command *c = nullptr;
    for (size_t i = 0; i < count && c == nullptr; i++)
        if (strcmp(word, rows[i]->word) == 0) c = rows[i];
    if (c == nullptr) {
        reply_code(s, "502", "Unknown command %s.", word);
        return;
    }
    char text[FTP_HELP_TEXT_LEN];
    if (!marked(*c, s.policy))
        (void)ftpd_snprintf(text, sizeof text, "%s%-*s\t%s; unimplemented.", t.prefix, width, c->word, c->help);
    else
        (void)ftpd_snprintf(text, sizeof text, "Syntax: %s%s %s", t.prefix, c->word, c->help);
    reply_code(s, "214", "%s", text);
}

// The address line of the data destination, with a bare LF.
int stat_address_line(ftp_session &s, int family, const struct sockaddr_in *v4, const struct sockaddr_in6 *v6) {
    char line[FTP_BUF_SIZE];
    if (family == AF_INET6) {
        char text[INET6_ADDRSTRLEN] = {0};
        inet_ntop(AF_INET6, &v6->sin6_addr, text, sizeof text);
        (void)ftpd_snprintf(line, sizeof line, "     (%s(%d))\n", text, ntohs(v6->sin6_port));
    } else {
        const auto *a = reinterpret_cast<const unsigned char *>(&v4->sin_addr.s_addr);
        unsigned port = ntohs(v4->sin_port);
        (void)ftpd_snprintf(line, sizeof line, "     (%d,%d,%d,%d,%d,%d)\n", a[0], a[1], a[2], a[3],
                            static_cast<int>(port >> 8), static_cast<int>(port & 0xff));
    }
    return reply(s, line);
}

// STAT without a path: the session's state.
void statcmd(ftp_session &s) {
    if (reply_code(s, nullptr, "211- %s FTP server status:", product_name().text) != 0) return;
    if (!no_version && reply_code(s, nullptr, "     ftpd (%s) %s.", "FTP SERVER", "1.0") != 0) return;

    const ftp_login &l = s.login;
    int ret;
    if (!l.logged_in)
        ret = reply_code(s, nullptr, l.asked_password ? "     Waiting for password." : "     Waiting for user name.");
    else if (l.guest)
        ret = reply_code(s, nullptr, "     Logged in anonymously.");
    else
        ret = reply_code(s, nullptr, "     Logged in as %s.", session_name(s));
    if (ret != 0) return;

    int type = static_cast<int>(s.type);
    if (reply_code(s, nullptr, "     TYPE: %s.", type >= 0 && type <= 4 ? typenames[type] : "0") != 0) return;

    // Between commands no data connection is open; the last active destination is shown once a
    // PORT or EPRT named one.
    const ftp_data_addrs &a = s.data.addrs();
    if (s.data.mode() == ftp_data_mode::active) {
        ret = reply_code(s, nullptr, "     Data connection open.");
    } else if (!s.data.has_target()) {
        ret = reply_code(s, nullptr, "     No data connection.");
    } else {
        ret = reply_code(s, nullptr, a.family == AF_INET6 ? "     EPRT" : "     PORT");
        if (ret == 0) ret = stat_address_line(s, a.family, &a.data_dest, &a.data_destv6);
    }
    if (ret != 0) return;
    reply_code(s, "211", "End of status.");
}

}  // namespace

bool command_help(ftp_session &s) {
    char *arg = s.arg;
    help_table commands{kCommands, kCommandCount, ""};
    if (arg[0] == '\0') {
        ftpd_help(s, commands, nullptr);
        return true;
    }
    // "SITE" is recognised case-sensitively, before the word is upper-cased.
    if (strncmp(arg, "SITE", 4) == 0) {
        char *rest = arg + 4;
        if (*rest == ' ') rest++;
        ftpd_help(s, help_table{kSiteCommands, kSiteCommandCount, "SITE "}, *rest == '\0' ? nullptr : rest);
        return true;
    }
    ftpd_help(s, commands, arg);
    return true;
}

bool site_help(ftp_session &s) {
    ftpd_help(s, help_table{kSiteCommands, kSiteCommandCount, "SITE "}, s.arg[0] == '\0' ? nullptr : s.arg);
    return true;
}

bool command_site(ftp_session &s) {
    char *arg = s.arg;
    size_t len = strcspn(arg, " ");
    const ftp_command *c = ftp_find_site_command(arg, len, s.policy);
    if (c == nullptr) return reply(s, "500 Unknown SITE command.\r\n") == 0;
    if (c->modifies && !s.may_write) return reply(s, "550 Permission denied.\r\n") == 0;
    // The SITE command's own argument follows its word.
    char *rest = arg + len;
    while (*rest == ' ') rest++;
    memmove(arg, rest, strlen(rest) + 1);
    return c->handler(s);
}

bool command_syst(ftp_session &s) {
    char *name = zqsys_get_os_name();
    if (name == nullptr) return false;
    int ret = reply_code(s, "215", "%sType: L8.", name);
    free(name);
    return ret == 0;
}

bool command_stat(ftp_session &s) {
    if (!is_data_empty(s.arg)) return stat_path(s);
    statcmd(s);
    return true;
}

bool command_noop(ftp_session &s) {
    return reply(s, "200 NOOP ok.\r\n") >= 0;
}

bool command_feat(ftp_session &s) {
    char text[FTP_BUF_SIZE];
    if (!ftp_feat_reply(s.policy, text, sizeof text)) return reply(s, FTP_REPLY_451) >= 0;
    return reply(s, text) >= 0;
}

bool command_opts(ftp_session &s) {
    const char *arg = s.arg;
    if (strcasecmp(arg, "UTF8 ON") == 0 || strcasecmp(arg, "UTF8") == 0)
        return reply(s, "200 Always in UTF8 mode.\r\n") >= 0;
    // The facts MLST and MLSD send from now on: those of the list that the daemon knows.
    if (strncasecmp(arg, "MLST", 4) == 0 && (arg[4] == '\0' || arg[4] == ' ')) {
        char text[FTP_BUF_SIZE];
        s.mlst_facts = ftpd_mlst_select(arg[4] == ' ' ? arg + 5 : "", text, sizeof text);
        return reply(s, text) >= 0;
    }
    return reply(s, "501 Option not understood.\r\n") >= 0;
}
