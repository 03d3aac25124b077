// Command recognition: turns one received control line into a command code and its argument.
// Recognition is a hand-written tree over the first letters; only the letters of the word are
// compared, so a word run together with its argument (LISTX, PASSWORD) still matches. That loose
// matching is relied on by clients and stays.
#include "base/ftpd.h"
#include "control/parser.h"

// Argument: from the first character that is not a blank, tab, CR or LF up to the first zero,
// CR or LF, at most FTP_BUF_SIZE - 1 characters; the rest is dropped silently.
static void set_data(const char *src, char *databuff) {
    while (*src == ' ' || *src == '\t' || *src == '\r' || *src == '\n') src++;
    int n = 0;
    while (n < FTP_BUF_SIZE - 1 && src[n] != '\0' && src[n] != '\r' && src[n] != '\n') {
        databuff[n] = src[n];
        n++;
    }
    databuff[n] = '\0';
}

static int _cmp1(char c, const char *p, char *databuff) {
    if (p[0] != c) return 0;
    set_data(p + 1, databuff);
    return 1;
}

// Each byte is tested before the next is read, so a line ending early never reads past its zero.
static int _cmp2(char c1, char c2, const char *p, char *databuff) {
    if (p[0] == '\0' || p[0] != c1) return 0;
    if (p[1] == '\0' || p[1] != c2) return 0;
    set_data(p + 2, databuff);
    return 1;
}

static int _cmp3(char c1, char c2, char c3, const char *p, char *databuff) {
    if (p[0] == '\0' || p[0] != c1) return 0;
    if (p[1] == '\0' || p[1] != c2) return 0;
    if (p[2] == '\0' || p[2] != c3) return 0;
    set_data(p + 3, databuff);
    return 1;
}

// One case a line: the tree reads as a table.
// clang-format off
// The line holds at least three characters here, so s[1] and s[2] are readable; s[3] may be the
// terminating zero, which no letter test matches.
static int parse_a(const char *s, char *d) {
    switch (s[1]) {
        case 'B': return _cmp2('O', 'R', s + 2, d) ? FTP_CMD_ABOR : 0;
        case 'C': return _cmp2('C', 'T', s + 2, d) ? FTP_CMD_ACCT : 0;
        case 'L': return _cmp2('L', 'O', s + 2, d) ? FTP_CMD_ALLO : 0;
        case 'P': return _cmp2('P', 'E', s + 2, d) ? FTP_CMD_APPE : 0;
        case 'U': return _cmp2('T', 'H', s + 2, d) ? FTP_CMD_AUTH : 0;
        default: return 0;
    }
}

static int parse_c(const char *s, char *d) {
    if (_cmp2('W', 'D', s + 1, d)) return FTP_CMD_CWD;
    if (_cmp3('D', 'U', 'P', s + 1, d)) return FTP_CMD_CDUP;
    return 0;
}

static int parse_e(const char *s, char *d) {
    if (s[1] != 'P') return 0;
    if (_cmp2('R', 'T', s + 2, d)) return FTP_CMD_EPRT;
    if (_cmp2('S', 'V', s + 2, d)) return FTP_CMD_EPSV;
    return 0;
}

static int parse_m(const char *s, char *d) {
    switch (s[1]) {
        case 'A': return _cmp2('I', 'L', s + 2, d) ? FTP_CMD_MAIL : 0;
        case 'D': return _cmp2('T', 'M', s + 2, d) ? FTP_CMD_MDTM : 0;
        case 'K': return _cmp1('D', s + 2, d) ? FTP_CMD_MKD : 0;
        case 'L':
            if (_cmp2('F', 'L', s + 2, d)) return FTP_CMD_MLFL;
            if (_cmp2('S', 'D', s + 2, d)) return FTP_CMD_MLSD;
            if (_cmp2('S', 'T', s + 2, d)) return FTP_CMD_MLST;
            return 0;
        case 'O': return _cmp2('D', 'E', s + 2, d) ? FTP_CMD_MODE : 0;
        case 'R':
            if (_cmp2('C', 'P', s + 2, d)) return FTP_CMD_MRCP;
            if (_cmp2('S', 'Q', s + 2, d)) return FTP_CMD_MRSQ;
            return 0;
        case 'S':
            switch (s[2]) {
                case 'N': return _cmp1('D', s + 3, d) ? FTP_CMD_MSND : 0;
                case 'O': return _cmp1('M', s + 3, d) ? FTP_CMD_MSOM : 0;
                case 'A': return _cmp1('M', s + 3, d) ? FTP_CMD_MSAM : 0;
                default: return 0;
            }
        default: return 0;
    }
}

static int parse_n(const char *s, char *d) {
    switch (s[1]) {
        case 'L': return _cmp2('S', 'T', s + 2, d) ? FTP_CMD_NLST : 0;
        case 'O': return _cmp2('O', 'P', s + 2, d) ? FTP_CMD_NOOP : 0;
        default: return 0;
    }
}

static int parse_p(const char *s, char *d) {
    switch (s[1]) {
        case 'A':
            if (s[2] != 'S') return 0;
            if (_cmp1('S', s + 3, d)) return FTP_CMD_PASS;
            if (_cmp1('V', s + 3, d)) return FTP_CMD_PASV;
            return 0;
        case 'B': return _cmp2('S', 'Z', s + 2, d) ? FTP_CMD_PBSZ : 0;
        case 'O': return _cmp2('R', 'T', s + 2, d) ? FTP_CMD_PORT : 0;
        case 'R': return _cmp2('O', 'T', s + 2, d) ? FTP_CMD_PROT : 0;
        case 'W': return _cmp1('D', s + 2, d) ? FTP_CMD_PWD : 0;
        default: return 0;
    }
}

static int parse_r(const char *s, char *d) {
    switch (s[1]) {
        case 'M': return _cmp1('D', s + 2, d) ? FTP_CMD_RMD : 0;
        case 'N':
            if (s[2] == 'F') return _cmp1('R', s + 3, d) ? FTP_CMD_RNFR : 0;
            if (s[2] == 'T') return _cmp1('O', s + 3, d) ? FTP_CMD_RNTO : 0;
            return 0;
        case 'E':
            if (s[2] == 'S') return _cmp1('T', s + 3, d) ? FTP_CMD_REST : 0;
            if (s[2] == 'T') return _cmp1('R', s + 3, d) ? FTP_CMD_RETR : 0;
            if (s[2] == 'I') return _cmp1('N', s + 3, d) ? FTP_CMD_REIN : 0;
            return 0;
        default: return 0;
    }
}

static int parse_s(const char *s, char *d) {
    switch (s[1]) {
        case 'M': return _cmp2('N', 'T', s + 2, d) ? FTP_CMD_SMNT : 0;
        case 'I':
            if (_cmp2('T', 'E', s + 2, d)) return FTP_CMD_SITE;
            if (_cmp2('Z', 'E', s + 2, d)) return FTP_CMD_SIZE;
            return 0;
        case 'Y': return _cmp2('S', 'T', s + 2, d) ? FTP_CMD_SYST : 0;
        case 'T':
            switch (s[2]) {
                case 'O':
                    if (_cmp1('R', s + 3, d)) return FTP_CMD_STOR;
                    if (_cmp1('U', s + 3, d)) return FTP_CMD_STOU;
                    return 0;
                case 'R': return _cmp1('U', s + 3, d) ? FTP_CMD_STRU : 0;
                case 'A': return _cmp1('T', s + 3, d) ? FTP_CMD_STAT : 0;
                default: return 0;
            }
        default: return 0;
    }
}

static int parse_x(const char *s, char *d) {
    switch (s[1]) {
        case 'M': return _cmp2('K', 'D', s + 2, d) ? FTP_CMD_XMKD : 0;
        case 'C':
            if (_cmp2('U', 'P', s + 2, d)) return FTP_CMD_XCUP;
            if (_cmp2('W', 'D', s + 2, d)) return FTP_CMD_XCWD;
            return 0;
        case 'P': return _cmp2('W', 'D', s + 2, d) ? FTP_CMD_XPWD : 0;
        case 'R': return _cmp2('M', 'D', s + 2, d) ? FTP_CMD_XRMD : 0;
        default: return 0;
    }
}

// clang-format on

// clang-format off
int ftpd_parse_cmd(const char *str, char *databuff) {
    if (str == nullptr || str[0] == '\0' || str[1] == '\0' || str[2] == '\0') return 0;
    if (str[0] < 'A' || str[0] > 'X') return 0;

    switch (str[0]) {
        case 'A': return parse_a(str, databuff);
        case 'C': return parse_c(str, databuff);
        case 'D': return _cmp3('E', 'L', 'E', str + 1, databuff) ? FTP_CMD_DELE : 0;
        case 'E': return parse_e(str, databuff);
        case 'F': return _cmp3('E', 'A', 'T', str + 1, databuff) ? FTP_CMD_FEAT : 0;
        case 'H': return _cmp3('E', 'L', 'P', str + 1, databuff) ? FTP_CMD_HELP : 0;
        case 'L': return _cmp3('I', 'S', 'T', str + 1, databuff) ? FTP_CMD_LIST : 0;
        case 'M': return parse_m(str, databuff);
        case 'N': return parse_n(str, databuff);
        case 'O': return _cmp3('P', 'T', 'S', str + 1, databuff) ? FTP_CMD_OPTS : 0;
        case 'P': return parse_p(str, databuff);
        case 'Q': return _cmp3('U', 'I', 'T', str + 1, databuff) ? FTP_CMD_QUIT : 0;
        case 'R': return parse_r(str, databuff);
        case 'S': return parse_s(str, databuff);
        case 'T': return _cmp3('Y', 'P', 'E', str + 1, databuff) ? FTP_CMD_TYPE : 0;
        case 'U': return _cmp3('S', 'E', 'R', str + 1, databuff) ? FTP_CMD_USER : 0;
        case 'X': return parse_x(str, databuff);
        default: return 0;
    }
}
// clang-format on
