// The commands that change a file's attributes (standard profile): SITE CHMOD (the permission
// bits), MFMT and SITE UTIME (the modification time, which mirroring clients keep). Each acts on a
// path resolved beneath the top directory.
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "base/ftpd.h"
#include "files/cmds.h"
#include "session/session.h"

namespace {

constexpr size_t kTimeDigits = 14;  // YYYYMMDDHHMMSS

// A UTC time of exactly fourteen digits (fractions after a dot are allowed and dropped).
bool parse_time(const char *text, size_t len, struct timespec *out) {
    if (len < kTimeDigits) return false;
    for (size_t i = 0; i < kTimeDigits; i++)
        if (!isdigit(static_cast<unsigned char>(text[i]))) return false;
    if (len > kTimeDigits && text[kTimeDigits] != '.') return false;
    auto num = [&](size_t at, size_t n) {
        int v = 0;
        for (size_t i = at; i < at + n; i++) v = v * 10 + (text[i] - '0');
        return v;
    };
    struct tm t {};
    t.tm_year = num(0, 4) - 1900;
    t.tm_mon = num(4, 2) - 1;
    t.tm_mday = num(6, 2);
    t.tm_hour = num(8, 2);
    t.tm_min = num(10, 2);
    t.tm_sec = num(12, 2);
    if (t.tm_mon < 0 || t.tm_mon > 11 || t.tm_mday < 1 || t.tm_mday > 31 || t.tm_hour > 23 || t.tm_min > 59 ||
        t.tm_sec > 60)
        return false;
    out->tv_sec = timegm(&t);
    out->tv_nsec = 0;
    return true;
}

// The real path of a name beneath the top directory, or nullptr once the refusal is sent.
const char *resolve_existing(ftp_session &s, const char *name, char *work) {
    if (is_data_empty(name)) {
        reply(s, FTP_REPLY_501);
        return nullptr;
    }
    struct stat st;
    if (ftpd_resolve_path(s, name, work, work + FTP_PATH_HALF) != ftpd_resolve_result::ok || stat(work, &st) != 0) {
        reply_code(s, nullptr, FTP_REPLY_NO_SUCH_FILE, name);
        return nullptr;
    }
    return work;
}

// Sets the modification time (the access time too) of a name; the reply is the caller's.
bool set_mtime(ftp_session &s, const char *name, const struct timespec &when, char *work) {
    const char *real = resolve_existing(s, name, work);
    if (real == nullptr) return false;
    struct timespec times[2] = {when, when};
    if (utimensat(AT_FDCWD, real, times, 0) != 0) {
        reply(s, FTP_REPLY_550);
        return false;
    }
    return true;
}

}  // namespace

bool command_mfmt(ftp_session &s) {
    if (!is_access(s)) return reply(s, FTP_REPLY_550) == 0;
    const char *arg = s.arg;
    const char *blank = strchr(arg, ' ');
    struct timespec when;
    if (blank == nullptr || !parse_time(arg, static_cast<size_t>(blank - arg), &when)) return reply(s, FTP_REPLY_501) == 0;
    ftpd_block work(FTPD_M_WHOLE_BUF, FTP_WHOLE_BUF_SIZE);
    if (!work) return reply(s, FTP_REPLY_451) == 0;
    const char *name = blank + 1;
    if (!set_mtime(s, name, when, work.get())) return true;
    char stamp[kTimeDigits + 1];
    memcpy(stamp, arg, kTimeDigits);
    stamp[kTimeDigits] = '\0';
    return reply_code(s, "213", "Modify=%s; %s", stamp, name) == 0;
}

bool site_utime(ftp_session &s) {
    // Two forms: "TIME name" and "name ATIME MTIME CTIME UTC".
    char *arg = s.arg;
    size_t len = strlen(arg);
    struct timespec when;
    const char *name = nullptr;
    const char *blank = strchr(arg, ' ');
    if (blank != nullptr && parse_time(arg, static_cast<size_t>(blank - arg), &when)) {
        name = blank + 1;
    } else if (len > 4 && strcmp(arg + len - 4, " UTC") == 0) {
        // The name may hold blanks: the three times are the last words before UTC.
        char *end = arg + len - 4;
        *end = '\0';
        char *words[3];
        for (int i = 2; i >= 0; i--) {
            words[i] = strrchr(arg, ' ');
            if (words[i] == nullptr) return reply(s, FTP_REPLY_501) == 0;
            *words[i]++ = '\0';
        }
        if (!parse_time(words[1], strlen(words[1]), &when)) return reply(s, FTP_REPLY_501) == 0;
        name = arg;
    } else {
        return reply(s, FTP_REPLY_501) == 0;
    }
    ftpd_block work(FTPD_M_WHOLE_BUF, FTP_WHOLE_BUF_SIZE);
    if (!work) return reply(s, FTP_REPLY_451) == 0;
    if (!set_mtime(s, name, when, work.get())) return true;
    return reply(s, "200 SITE UTIME command successful.\r\n") == 0;
}

bool site_chmod(ftp_session &s) {
    char *arg = s.arg;
    char *end = nullptr;
    long mode = strtol(arg, &end, 8);
    if (end == arg || *end != ' ' || mode < 0 || mode > 07777) return reply(s, FTP_REPLY_501) == 0;
    ftpd_block work(FTPD_M_WHOLE_BUF, FTP_WHOLE_BUF_SIZE);
    if (!work) return reply(s, FTP_REPLY_451) == 0;
    const char *real = resolve_existing(s, end + 1, work.get());
    if (real == nullptr) return true;
    // The permission bits only: no set-id or sticky bit comes from a client.
    if (chmod(real, static_cast<mode_t>(mode) & 0777) != 0) return reply(s, FTP_REPLY_550) == 0;
    return reply(s, "200 SITE CHMOD command successful.\r\n") == 0;
}
