// HELP, SYST and server STAT: the two command tables that HELP shows (the parser, not these
// tables, decides what is carried out), the multi-line HELP layout, the SYST reply and the
// session status that STAT without an argument reports.
#include "control/help.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "base/ftpd.h"
#include "control/listener.h"
#include "net/reply.h"
#include "base/settings.h"
#include "data/transfer.h"
#include "zqsys.h"

// The standard profile serves a few more commands of the table than the device does.
static bool is_served(const struct tab *c) {
    if (c->implemented) return true;
    if (!ftpd_standard()) return false;
    static const char *const kStandard[] = {"NOOP", "FEAT", "OPTS", "ABOR", "APPE"};
    for (const char *name : kStandard)
        if (strcmp(c->name, name) == 0) return true;
    return false;
}

struct tab cmdtab[] = {
    {"USER", 1, "<sp> username"},
    {"PASS", 1, "<sp> password"},
    {"ACCT", 0, "(specify account)"},
    {"SMNT", 0, "(structure mount)"},
    {"REIN", 0, "(reinitialize server state)"},
    {"QUIT", 1, "(terminate service)"},
    {"PORT", 1, "<sp> b0, b1, b2, b3, b4"},
    {"PASV", 1, "(set server in passive mode)"},
    {"TYPE", 1, "<sp> [ A | E | I | L ]"},
    {"STRU", 0, "(specify file structure)"},
    {"MODE", 0, "(specify transfer mode)"},
    {"RETR", 1, "<sp> file-name"},
    {"STOR", 1, "<sp> file-name"},
    {"APPE", 0, "<sp> file-name"},
    {"MLFL", 0, "(mail file)"},
    {"MAIL", 0, "(mail to user)"},
    {"MSND", 0, "(mail send to terminal)"},
    {"MSOM", 0, "(mail send to terminal or mailbox)"},
    {"MSAM", 0, "(mail send to terminal and mailbox)"},
    {"MRSQ", 0, "(mail recipient scheme question)"},
    {"MRCP", 0, "(mail recipient)"},
    {"ALLO", 0, "allocate storage (vacuously)"},
    {"REST", 1, "<sp> offset (restart command)"},
    {"RNFR", 1, "<sp> file-name"},
    {"RNTO", 1, "<sp> file-name"},
    {"ABOR", 0, "(abort operation)"},
    {"DELE", 1, "<sp> file-name"},
    {"CWD", 1, "[ <sp> directory-name ]"},
    {"XCWD", 0, "[ <sp> directory-name ]"},
    {"LIST", 1, "[ <sp> path-name ]"},
    {"NLST", 1, "[ <sp> path-name ]"},
    {"SITE", 0, "site-cmd [ <sp> arguments ]"},
    {"SYST", 1, "(get type of operating system)"},
    {"STAT", 1, "[ <sp> path-name ]"},
    {"HELP", 1, "[ <sp> <string> ]"},
    {"NOOP", 0, ""},
    {"MKD", 1, "<sp> path-name"},
    {"XMKD", 0, "<sp> path-name"},
    {"RMD", 1, "<sp> path-name"},
    {"XRMD", 0, "<sp> path-name"},
    {"PWD", 1, "(return current directory)"},
    {"XPWD", 0, "(return current directory)"},
    {"CDUP", 1, "(change to parent directory)"},
    {"XCUP", 0, "(change to parent directory)"},
    {"STOU", 0, "<sp> file-name"},
    {"SIZE", 1, "<sp> path-name"},
    {"MDTM", 1, "<sp> path-name"},
    {"FEAT", 0, "extensions supported"},
    {"OPTS", 0, "<sp> command-name "},
    {"AUTH", 0, "<sp> authentication/security mechanism"},
    {"PBSZ", 0, "<sp> protection buffer size"},
    {"PROT", 0, "<sp> data channel protection level"},
    {"EPRT", 1, "<sp> <d><net-prt><d><net-addr><d><tcp-port><d>"},
    {"EPSV", 1, "[ <sp> <net-prt> or ALL ]"},
    {nullptr, 0, nullptr},
};

struct tab sitetab[] = {
    {"UMASK", 0, "[ <sp> umask ]"},
    {"IDLE", 0, "[ <sp> maximum-idle-time ]"},
    {"CHMOD", 0, "<sp> mode <sp> file-name"},
    {"HELP", 1, "[ <sp> <string> ]"},
    {nullptr, 0, nullptr},
};

#define FTP_HELP_TEXT_LEN 128
#define FTP_HELP_LINE_WIDTH 76

struct tab *lookup(struct tab *p, const char *cmd) {
    if (p == nullptr || cmd == nullptr) return nullptr;
    for (; p->name != nullptr; p++)
        if (strcmp(cmd, p->name) == 0) return p;
    return nullptr;
}

void str_toupper(char *s) {
    if (s == nullptr) return;
    for (; *s != '\0'; s++)
        if (islower(static_cast<unsigned char>(*s))) *s = static_cast<char>(toupper(static_cast<unsigned char>(*s)));
}

namespace {
// A copy taken under the name's lock: the shared text is released at shutdown while sessions run.
struct product_name {
    char text[FTP_BUF_SIZE];
    product_name() { ftp_copy_product_name(text, sizeof text); }
};
}  // namespace

// The whole table in columns, filled column by column; each line leaves with a bare LF so that
// the lines form one multi-line 214 reply.
static void help_list(int control_fd, struct tab *ctab, const char *prefix, int width) {
    if (ftpd_reply(control_fd, nullptr, "214- The following %scommands are recognized %s.", prefix,
                   "(* =>is unimplemented)") != 0)
        return;

    int rows = 0;
    while (ctab[rows].name != nullptr) rows++;
    int columns = FTP_HELP_LINE_WIDTH / width;
    if (columns < 1) columns = 1;
    int lines = (rows + columns - 1) / columns;

    for (int i = 0; i < lines; i++) {
        char line[FTP_BUF_SIZE];
        (void)ftpd_strlcpy(line, "214-    ", sizeof line);
        for (int j = 0; j < columns; j++) {
            int row = j * lines + i;
            if (row >= rows) break;
            const struct tab *c = &ctab[row];
            (void)ftpd_strlcat(line, c->name, sizeof line);
            (void)ftpd_strlcat(line, is_served(c) ? " " : "*", sizeof line);
            if (row + lines >= rows) break;
            for (int w = static_cast<int>(strlen(c->name)) + 1; w < width; w++) (void)ftpd_strlcat(line, " ", sizeof line);
        }
        (void)ftpd_strlcat(line, "\n", sizeof line);
        if (ftpd_reply(control_fd, nullptr, "%s", line, nullptr) != 0) return;
    }
    ftpd_reply(control_fd, "214", "Direct comments to ftp-bugs@%s.", product_name().text, nullptr);
}

void ftpd_help(int control_fd, struct tab *ctab, char *s) {
    const char *prefix = ctab == sitetab ? "SITE " : "";

    int longest = 0;
    for (const struct tab *c = ctab; c->name != nullptr; c++) {
        int len = static_cast<int>(strlen(c->name));
        if (len > longest) longest = len;
    }
    int width = (longest + 8) & ~7;

    if (s == nullptr) {
        help_list(control_fd, ctab, prefix, width);
        return;
    }

    str_toupper(s);
    const struct tab *c = lookup(ctab, s);
    if (c == nullptr) {
        ftpd_reply(control_fd, "502", "Unknown command %s.", s, nullptr);
        return;
    }
    char text[FTP_HELP_TEXT_LEN];
    if (!is_served(c))
        (void)ftpd_snprintf(text, sizeof text, "%s%-*s\t%s; unimplemented.", prefix, width, c->name, c->help);
    else
        (void)ftpd_snprintf(text, sizeof text, "Syntax: %s%s %s", prefix, c->name, c->help);
    ftpd_reply(control_fd, "214", "%s", text, nullptr);
}

void command_help(int control_fd, char *data_buff) {
    if (data_buff == nullptr || data_buff[0] == '\0') {
        ftpd_help(control_fd, cmdtab, nullptr);
        return;
    }
    // "SITE" is recognised case-sensitively, before the word is upper-cased.
    if (strncmp(data_buff, "SITE", 4) == 0) {
        char *rest = data_buff + 4;
        if (*rest == ' ') rest++;
        ftpd_help(control_fd, sitetab, *rest == '\0' ? nullptr : rest);
        return;
    }
    ftpd_help(control_fd, cmdtab, data_buff);
}

int command_syst(int control_fd) {
    char *name = zqsys_get_os_name();
    if (name == nullptr) return -1;
    int ret = ftpd_reply(control_fd, "215", "%sType: L8.", name, nullptr);
    free(name);
    return ret;
}

// The address line of the data destination, with a bare LF; built in the session's reply buffer.
static int stat_address_line(int control_fd, char *sendbuff, int family, const struct sockaddr_in *v4,
                             const struct sockaddr_in6 *v6) {
    memset(sendbuff, 0, FTP_BUF_SIZE);
    if (family == AF_INET6) {
        char text[INET6_ADDRSTRLEN] = {0};
        inet_ntop(AF_INET6, &v6->sin6_addr, text, sizeof text);
        (void)ftpd_snprintf(sendbuff, FTP_BUF_SIZE, "     (%s(%d))\n", text, ntohs(v6->sin6_port));
    } else {
        const auto *a = reinterpret_cast<const unsigned char *>(&v4->sin_addr.s_addr);
        unsigned port = ntohs(v4->sin_port);
        (void)ftpd_snprintf(sendbuff, FTP_BUF_SIZE, "     (%d,%d,%d,%d,%d,%d)\n", a[0], a[1], a[2], a[3],
                      static_cast<int>(port >> 8), static_cast<int>(port & 0xff));
    }
    return ftpd_reply(control_fd, nullptr, "%s", sendbuff, nullptr);
}

void statcmd(int control_fd, char *sendbuff, struct credentials *pcred) {
    if (ftpd_reply(control_fd, nullptr, "211- %s FTP server status:", product_name().text, nullptr) != 0) return;
    if (!no_version && ftpd_reply(control_fd, nullptr, "     ftpd (%s) %s.", "FTP SERVER", "1.0") != 0) return;

    int ret;
    if (!pcred->logged_in)
        ret = ftpd_reply(control_fd, nullptr,
                         pcred->askpasswd ? "     Waiting for password." : "     Waiting for user name.", nullptr,
                         nullptr);
    else if (pcred->guest)
        ret = ftpd_reply(control_fd, nullptr, "     Logged in anonymously.", nullptr, nullptr);
    else
        ret = ftpd_reply(control_fd, nullptr, "     Logged in as %s.", pcred->name != nullptr ? pcred->name : "",
                         nullptr);
    if (ret != 0) return;

    int type = pcred->cnt.tran_type;
    const char *type_name = type >= 0 && type <= 4 ? typenames[type] : "0";
    if (ftpd_reply(control_fd, nullptr, "     TYPE: %s.", type_name, nullptr) != 0) return;

    const struct ftp_user_cnt_info_s &cnt = pcred->cnt;
    if (pcred->data != -1) {
        ret = ftpd_reply(control_fd, nullptr, "     Data connection open.", nullptr, nullptr);
    } else if (pcred->pdata == -1 && pcred->usedefault) {
        ret = ftpd_reply(control_fd, nullptr, "     No data connection.", nullptr, nullptr);
    } else if (pcred->pdata == -1) {
        ret = ftpd_reply(control_fd, nullptr, cnt.data_type == AF_INET6 ? "     EPRT" : "     PORT", nullptr, nullptr);
        if (ret == 0) ret = stat_address_line(control_fd, sendbuff, cnt.data_type, &cnt.data_dest, &cnt.data_destv6);
    } else {
        ret = ftpd_reply(control_fd, nullptr, "     in Passive mode.", nullptr, nullptr);
        if (ret == 0) ret = stat_address_line(control_fd, sendbuff, cnt.data_type, &cnt.pasv_addr, &cnt.pasv_addrv6);
    }
    if (ret != 0) return;

    ftpd_reply(control_fd, "211", "End of status.", nullptr, nullptr);
}
