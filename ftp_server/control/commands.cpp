// The command table and what is derived from it: the two recognisers, FEAT, and which profile
// serves what. The rows are in the order HELP lists them.
#include "control/commands.h"

#include <strings.h>

#include <algorithm>
#include <cstring>

#include "base/ftpd.h"
#include "control/help.h"
#include "control/loop.h"
#include "files/cmds.h"
#include "login/login.h"
#include "login/security.h"
#include "transfer/transfer.h"

namespace {
constexpr ftp_needs kFree = ftp_needs::nothing;
constexpr ftp_needs kLogin = ftp_needs::login;
}  // namespace

// clang-format off
const ftp_command kCommands[] = {
    // word    handler          needs   known      served     listed     marked     tls    help, feat, modifies
    {"USER", user,              kFree,  kBoth,     kBoth,     kBoth,     kBoth,     false, "<sp> username", nullptr, false},
    {"PASS", pass,              kFree,  kBoth,     kBoth,     kBoth,     kBoth,     false, "<sp> password", nullptr, false},
    {"ACCT", nullptr,           kLogin, kBoth,     kNone,     kBoth,     kNone,     false, "(specify account)", nullptr, false},
    {"SMNT", nullptr,           kLogin, kBoth,     kNone,     kBoth,     kNone,     false, "(structure mount)", nullptr, false},
    {"REIN", nullptr,           kLogin, kBoth,     kNone,     kBoth,     kNone,     false, "(reinitialize server state)", nullptr, false},
    {"QUIT", command_quit,      kFree,  kBoth,     kBoth,     kBoth,     kBoth,     false, "(terminate service)", nullptr, false},
    {"PORT", command_port,      kLogin, kBoth,     kBoth,     kBoth,     kBoth,     false, "<sp> b0, b1, b2, b3, b4", nullptr, false},
    {"PASV", passive,           kLogin, kBoth,     kBoth,     kBoth,     kBoth,     false, "(set server in passive mode)", nullptr, false},
    {"TYPE", type_fun,          kLogin, kBoth,     kBoth,     kBoth,     kBoth,     false, "<sp> [ A | E | I | L ]", nullptr, false},
    {"STRU", command_stru,      kLogin, kBoth,     kStandard, kBoth,     kStandard,     false, "(specify file structure)", nullptr, false},
    {"MODE", command_mode,      kLogin, kBoth,     kStandard, kBoth,     kStandard,     false, "(specify transfer mode)", nullptr, false},
    {"RETR", command_retr,      kLogin, kBoth,     kBoth,     kBoth,     kBoth,     false, "<sp> file-name", nullptr, false},
    {"STOR", command_stor,      kLogin, kBoth,     kBoth,     kBoth,     kBoth,     false, "<sp> file-name", nullptr, true},
    {"APPE", command_appe,      kLogin, kBoth,     kStandard, kBoth,     kStandard, false, "<sp> file-name", nullptr, true},
    {"MLFL", nullptr,           kLogin, kBoth,     kNone,     kBoth,     kNone,     false, "(mail file)", nullptr, false},
    {"MAIL", nullptr,           kLogin, kBoth,     kNone,     kBoth,     kNone,     false, "(mail to user)", nullptr, false},
    {"MSND", nullptr,           kLogin, kBoth,     kNone,     kBoth,     kNone,     false, "(mail send to terminal)", nullptr, false},
    {"MSOM", nullptr,           kLogin, kBoth,     kNone,     kBoth,     kNone,     false, "(mail send to terminal or mailbox)", nullptr, false},
    {"MSAM", nullptr,           kLogin, kBoth,     kNone,     kBoth,     kNone,     false, "(mail send to terminal and mailbox)", nullptr, false},
    {"MRSQ", nullptr,           kLogin, kBoth,     kNone,     kBoth,     kNone,     false, "(mail recipient scheme question)", nullptr, false},
    {"MRCP", nullptr,           kLogin, kBoth,     kNone,     kBoth,     kNone,     false, "(mail recipient)", nullptr, false},
    {"ALLO", command_allo,      kLogin, kBoth,     kStandard, kBoth,     kStandard,     false, "allocate storage (vacuously)", nullptr, false},
    // The device's HELP shows REST as served, though the device answers it 502.
    {"REST", command_rest,      kLogin, kBoth,     kStandard, kBoth,     kBoth,     false, "<sp> offset (restart command)", "REST STREAM", false},
    {"RNFR", command_rnfr,      kLogin, kBoth,     kBoth,     kBoth,     kBoth,     false, "<sp> file-name", nullptr, true},
    {"RNTO", command_rnto,      kLogin, kBoth,     kBoth,     kBoth,     kBoth,     false, "<sp> file-name", nullptr, true},
    {"ABOR", command_abor,      kFree,  kBoth,     kStandard, kBoth,     kStandard, false, "(abort operation)", nullptr, false},
    {"DELE", command_dele,      kLogin, kBoth,     kBoth,     kBoth,     kBoth,     false, "<sp> file-name", nullptr, true},
    {"CWD",  command_cwd,       kLogin, kBoth,     kBoth,     kBoth,     kBoth,     false, "[ <sp> directory-name ]", "TVFS", false},
    {"XCWD", command_cwd,       kLogin, kBoth,     kStandard, kBoth,     kStandard,     false, "[ <sp> directory-name ]", nullptr, false},
    {"LIST", list_fun,          kLogin, kBoth,     kBoth,     kBoth,     kBoth,     false, "[ <sp> path-name ]", nullptr, false},
    {"NLST", nlst_fun,          kLogin, kBoth,     kBoth,     kBoth,     kBoth,     false, "[ <sp> path-name ]", nullptr, false},
    {"SITE", command_site,      kLogin, kBoth,     kStandard, kBoth,     kStandard,     false, "site-cmd [ <sp> arguments ]", nullptr, false},
    {"SYST", command_syst,      kFree,  kBoth,     kBoth,     kBoth,     kBoth,     false, "(get type of operating system)", nullptr, false},
    {"STAT", command_stat,      kLogin, kBoth,     kBoth,     kBoth,     kBoth,     false, "[ <sp> path-name ]", nullptr, false},
    {"HELP", command_help,      kFree,  kBoth,     kBoth,     kBoth,     kBoth,     false, "[ <sp> <string> ]", nullptr, false},
    {"NOOP", command_noop,      kFree,  kBoth,     kStandard, kBoth,     kStandard, false, "", nullptr, false},
    {"MKD",  command_mkd,       kLogin, kBoth,     kBoth,     kBoth,     kBoth,     false, "<sp> path-name", nullptr, true},
    {"XMKD", command_mkd,       kLogin, kBoth,     kStandard, kBoth,     kStandard,     false, "<sp> path-name", nullptr, true},
    {"RMD",  command_rmd,       kLogin, kBoth,     kBoth,     kBoth,     kBoth,     false, "<sp> path-name", nullptr, true},
    {"XRMD", command_rmd,       kLogin, kBoth,     kStandard, kBoth,     kStandard,     false, "<sp> path-name", nullptr, true},
    {"PWD",  pwd_fun,           ftp_needs::login_pwd_quirk,
                                        kBoth,     kBoth,     kBoth,     kBoth,     false, "(return current directory)", nullptr, false},
    {"XPWD", pwd_fun,           ftp_needs::login_pwd_quirk,
                                        kBoth,     kStandard, kBoth,     kStandard, false, "(return current directory)", nullptr, false},
    {"CDUP", command_cdup,      kLogin, kBoth,     kBoth,     kBoth,     kBoth,     false, "(change to parent directory)", nullptr, false},
    {"XCUP", command_cdup,      kLogin, kBoth,     kStandard, kBoth,     kStandard,     false, "(change to parent directory)", nullptr, false},
    {"STOU", nullptr,           kLogin, kBoth,     kNone,     kBoth,     kNone,     false, "<sp> file-name", nullptr, false},
    {"SIZE", command_size,      kLogin, kBoth,     kBoth,     kBoth,     kBoth,     false, "<sp> path-name", "SIZE", false},
    {"MDTM", command_mdtm,      kLogin, kBoth,     kBoth,     kBoth,     kBoth,     false, "<sp> path-name", "MDTM", false},
    {"FEAT", command_feat,      kFree,  kBoth,     kStandard, kBoth,     kStandard, false, "extensions supported", nullptr, false},
    {"OPTS", command_opts,      kFree,  kBoth,     kStandard, kBoth,     kStandard, false, "<sp> command-name ", "UTF8", false},
    {"AUTH", command_auth,      kFree,  kBoth,     kStandard, kBoth,     kStandard, true,  "<sp> authentication/security mechanism", "AUTH TLS", false},
    {"PBSZ", command_pbsz,      kFree,  kBoth,     kStandard, kBoth,     kStandard, true,  "<sp> protection buffer size", "PBSZ", false},
    {"PROT", command_prot,      kFree,  kBoth,     kStandard, kBoth,     kStandard, true,  "<sp> data channel protection level", "PROT", false},
    {"EPRT", command_eprt,      kLogin, kBoth,     kBoth,     kBoth,     kBoth,     false, "<sp> <d><net-prt><d><net-addr><d><tcp-port><d>", "EPRT", false},
    {"EPSV", command_epsv,      kLogin, kBoth,     kBoth,     kBoth,     kBoth,     false, "[ <sp> <net-prt> or ALL ]", "EPSV", false},
    {"MLSD", command_mlsd,      kLogin, kStandard, kStandard, kStandard, kStandard, false, "[ <sp> path-name ]", nullptr, false},
    {"MFMT", command_mfmt,      kLogin, kStandard, kStandard, kStandard, kStandard, false, "<sp> YYYYMMDDHHMMSS <sp> path-name", "MFMT", true},
    {"MLST", command_mlst,      kLogin, kStandard, kStandard, kStandard, kStandard, false, "[ <sp> path-name ]", "MLST type*;size*;modify*;perm*;unique*;", false},
};
const size_t kCommandCount = sizeof kCommands / sizeof kCommands[0];

const ftp_command kSiteCommands[] = {
    {"UMASK", nullptr,          kLogin, kBoth,     kNone,     kBoth,     kNone,     false, "[ <sp> umask ]", nullptr, false},
    {"IDLE",  nullptr,          kLogin, kBoth,     kNone,     kBoth,     kNone,     false, "[ <sp> maximum-idle-time ]", nullptr, false},
    {"CHMOD", site_chmod,       kLogin, kBoth,     kStandard, kBoth,     kStandard, false, "<sp> mode <sp> file-name", nullptr, true},
    {"HELP",  site_help,        kFree,  kBoth,     kStandard, kBoth,     kBoth,     false, "[ <sp> <string> ]", nullptr, false},
    {"UTIME", site_utime,       kLogin, kStandard, kStandard, kStandard, kStandard, false, "<sp> YYYYMMDDHHMMSS <sp> file-name", nullptr, true},
};
const size_t kSiteCommandCount = sizeof kSiteCommands / sizeof kSiteCommands[0];
// clang-format on

bool ftp_command_served(const ftp_command &c, const ftp_policy &p) {
    return c.handler != nullptr && in_profile(c.served, p) && (!c.tls || p.tls);
}

const ftp_command *ftp_find_site_command(const char *word, size_t len, const ftp_policy &p) {
    for (const ftp_command &c : kSiteCommands)
        if (strlen(c.word) == len && strncasecmp(word, c.word, len) == 0 && ftp_command_served(c, p)) return &c;
    return nullptr;
}

namespace {

// Argument: from the first character that is not a blank, tab, CR or LF up to the first zero,
// CR or LF, at most FTP_BUF_SIZE - 1 characters; the rest is dropped silently.
void set_data(const char *src, char *arg) {
    while (*src == ' ' || *src == '\t' || *src == '\r' || *src == '\n') src++;
    int n = 0;
    while (n < FTP_BUF_SIZE - 1 && src[n] != '\0' && src[n] != '\r' && src[n] != '\n') {
        arg[n] = src[n];
        n++;
    }
    arg[n] = '\0';
}

// Only the letters of the word are compared, case-sensitively: the character after it may be
// anything (LISTX is LIST with the argument X). No word is the beginning of another.
const ftp_command *recognise_letters(const char *line, char *arg) {
    for (const ftp_command &c : kCommands) {
        if ((c.known & kDevice) == 0) continue;
        size_t n = strlen(c.word);
        if (strncmp(line, c.word, n) != 0) continue;
        set_data(line + n, arg);
        return &c;
    }
    return nullptr;
}

// The word up to the first blank, in any case; the argument is the rest of the line after the
// blanks that follow the word, never cut at a CR (a line's own end is gone already).
const ftp_command *recognise_word(const char *line, char *arg) {
    size_t n = strcspn(line, " ");
    for (const ftp_command &c : kCommands) {
        if ((c.known & kStandard) == 0 || strlen(c.word) != n || strncasecmp(line, c.word, n) != 0) continue;
        const char *p = line + n;
        while (*p == ' ') p++;
        (void)ftpd_strlcpy(arg, p, FTP_BUF_SIZE);
        return &c;
    }
    return nullptr;
}

}  // namespace

const ftp_command *ftpd_parse_cmd(const char *line, char *arg, const ftp_policy &p) {
    if (line == nullptr) return nullptr;
    return p.line_input ? recognise_word(line, arg) : recognise_letters(line, arg);
}

bool ftp_feat_reply(const ftp_policy &p, char *out, size_t cap) {
    const char *lines[kCommandCount];
    size_t n = 0;
    for (const ftp_command &c : kCommands)
        if (c.feat != nullptr && ftp_command_served(c, p)) lines[n++] = c.feat;
    std::sort(lines, lines + n, [](const char *a, const char *b) { return strcmp(a, b) < 0; });
    if (!ftpd_strlcpy(out, "211-Features:\r\n", cap)) return false;
    for (size_t i = 0; i < n; i++)
        if (!ftpd_strlcat(out, " ", cap) || !ftpd_strlcat(out, lines[i], cap) || !ftpd_strlcat(out, "\r\n", cap))
            return false;
    return ftpd_strlcat(out, "211 End\r\n", cap);
}
