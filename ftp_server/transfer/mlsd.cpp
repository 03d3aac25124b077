// MLSD and MLST (RFC 3659): machine-readable listings of the standard profile. MLSD runs the
// standard listing skeleton (staged before the data connection, sent by the transfer engine) with
// one facts line per entry; MLST answers the facts of one path on the control connection. Both
// show every name, dot files included, but never "." and ".." (the facts of the directory itself
// are what MLST is for; clients drop cdir and pdir entries anyway).
#include <fcntl.h>
#include <sys/stat.h>

#include <cstring>
#include <ctime>

#include "base/ftpd.h"
#include "base/path.h"
#include "session/session.h"
#include "transfer/list_internal.h"
#include "transfer/transfer.h"

namespace {

// The longest facts text: both types, a 20-digit size, the time, seven perm letters and two
// 16-digit hex numbers fit with room to spare.
constexpr size_t kFactsLen = 192;

// Appends text to a line without formatting calls: MLSD writes one line per entry, and a
// formatted line cost more than the entry's status query.
class line_writer {
  public:
    line_writer(char *out, size_t cap) : p_(out), end_(out + cap - 1), start_(out) {}
    void put(const char *s, size_t n) {
        if (n > static_cast<size_t>(end_ - p_)) {
            ok_ = false;
            return;
        }
        memcpy(p_, s, n);
        p_ += n;
    }
    void str(const char *s) { put(s, strlen(s)); }
    void dec(unsigned long long v, int width = 0) {
        char t[24];
        int i = sizeof t;
        do {
            t[--i] = static_cast<char>('0' + v % 10);
            v /= 10;
        } while (v != 0 || sizeof t - static_cast<size_t>(i) < static_cast<size_t>(width));
        put(t + i, sizeof t - static_cast<size_t>(i));
    }
    void hex(unsigned long long v) {
        static const char kDigits[] = "0123456789abcdef";
        char t[16];
        int i = sizeof t;
        do {
            t[--i] = kDigits[v & 15];
            v >>= 4;
        } while (v != 0);
        put(t + i, sizeof t - static_cast<size_t>(i));
    }
    // The length written (terminated), or 0 when it did not fit.
    size_t finish() {
        *p_ = '\0';
        return ok_ ? static_cast<size_t>(p_ - start_) : 0;
    }

  private:
    char *p_;
    char *end_;
    char *start_;
    bool ok_ = true;
};

// The modification time in UTC, "modify=YYYYMMDDHHMMSS;".
void put_modify(const struct stat &st, line_writer &w) {
    struct tm utc;
    gmtime_r(&st.st_mtime, &utc);
    w.str("modify=");
    w.dec(static_cast<unsigned long long>(utc.tm_year + 1900), 4);
    w.dec(static_cast<unsigned long long>(utc.tm_mon + 1), 2);
    w.dec(static_cast<unsigned long long>(utc.tm_mday), 2);
    w.dec(static_cast<unsigned long long>(utc.tm_hour), 2);
    w.dec(static_cast<unsigned long long>(utc.tm_min), 2);
    w.dec(static_cast<unsigned long long>(utc.tm_sec), 2);
    w.put(";", 1);
}

// The RFC 3659 facts of a file, a directory or (the standard profile's links that lead nowhere
// served) a link, "type=...;size=...;modify=...;perm=...;unique=...;" as far as facts selects them,
// onto w; parent_writable tells whether the entry may be renamed or deleted. False for other file
// types.
bool put_facts(const struct stat &st, bool parent_writable, unsigned facts, line_writer &w) {
    bool dir = S_ISDIR(st.st_mode);
    bool link = S_ISLNK(st.st_mode);
    if (!dir && !link && !S_ISREG(st.st_mode)) return false;
    bool r = (st.st_mode & S_IRUSR) != 0;
    bool wr = (st.st_mode & S_IWUSR) != 0;
    bool x = (st.st_mode & S_IXUSR) != 0;
    // The owner's bits stand for what the server may do; renaming and deleting depend on the
    // directory that holds the entry.
    char perm[8];
    size_t k = 0;
    if (dir) {
        if (wr && x) perm[k++] = 'c';
        if (parent_writable) perm[k++] = 'd';
        if (x) perm[k++] = 'e';
        if (parent_writable) perm[k++] = 'f';
        if (r) perm[k++] = 'l';
        if (wr && x) perm[k++] = 'm';
        if (wr && x) perm[k++] = 'p';
    } else {
        if (wr) perm[k++] = 'a';
        if (parent_writable) perm[k++] = 'd';
        if (parent_writable) perm[k++] = 'f';
        if (r) perm[k++] = 'r';
        if (wr) perm[k++] = 'w';
    }

    if (link) k = 0;
    if ((facts & kFactType) != 0) w.str(dir ? "type=dir;" : link ? "type=OS.unix=symlink;" : "type=file;");
    if ((facts & kFactSize) != 0 && !dir && !link) {
        w.str("size=");
        w.dec(static_cast<unsigned long long>(st.st_size));
        w.put(";", 1);
    }
    if ((facts & kFactModify) != 0) put_modify(st, w);
    if ((facts & kFactPerm) != 0) {
        w.str("perm=");
        w.put(perm, k);
        w.put(";", 1);
    }
    if ((facts & kFactUnique) != 0) {
        w.str("unique=");
        w.hex(static_cast<unsigned long long>(st.st_dev));
        w.put("U", 1);
        w.hex(static_cast<unsigned long long>(st.st_ino));
        w.put(";", 1);
    }
    return true;
}


// The facts alone into out (cap bytes): the length, or 0.
size_t mlsx_facts(const struct stat &st, bool parent_writable, unsigned facts, char *out, size_t cap) {
    line_writer w(out, cap);
    if (!put_facts(st, parent_writable, facts, w)) return 0;
    return w.finish();
}

size_t mlsd_line(int dfd, const char *name, unsigned char d_type, const ftpd_std_view &view, char *line, size_t cap) {
    (void)d_type;
    // A link is shown as what it names where that lies beneath the top directory, else as a link.
    struct stat st;
    if (fstatat(dfd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return 0;
    if (S_ISLNK(st.st_mode)) {
        struct stat target;
        if (ftpd_link_stays_inside(view, name) && fstatat(dfd, name, &target, 0) == 0) st = target;
    }
    line_writer w(line, cap);
    if (!put_facts(st, view.dir_writable, view.facts, w)) return 0;
    w.put(" ", 1);
    w.str(name);
    w.put("\r\n", 2);
    return w.finish();
}

const ftpd_std_kind kMlsdKind = {
    .line = mlsd_line,
    .options = false,
    .patterns = false,
    .single_file = false,
    .name_prefix = false,
    .raw_lines = true,
};

bool send_reply(ftp_session &s, const char *text) {
    return reply(s, text) == 0;
}

// Whether the object at the real path may be renamed or deleted: its directory is writable by its
// owner, and it is not the top directory itself. scratch holds FTP_PATH_HALF bytes.
bool may_rename(const char *root, const char *real, char *scratch) {
    if (!ftpd_strlcpy(scratch, real, FTP_PATH_HALF)) return false;
    size_t len = strlen(scratch);
    while (len > 1 && scratch[len - 1] == '/') scratch[--len] = '\0';
    if (strcmp(scratch, root) == 0) return false;
    char *slash = strrchr(scratch, '/');
    if (slash == nullptr) return false;
    slash[slash == scratch ? 1 : 0] = '\0';
    struct stat st;
    return stat(scratch, &st) == 0 && (st.st_mode & S_IWUSR) != 0;
}

}  // namespace

bool command_mlsd(ftp_session &s) {
    return ftpd_list_command(s, nullptr, &kMlsdKind);
}

bool command_mlst(ftp_session &s) {
    if (!is_access(s)) return send_reply(s, FTP_REPLY_550);
    ftpd_block work(FTPD_M_WHOLE_BUF, FTP_WHOLE_BUF_SIZE);
    if (!work) return send_reply(s, FTP_REPLY_451);
    char *inpath = work.get();
    char *outpath = inpath + FTP_PATH_HALF;

    // The path is shown as the client named it; without one, as the current directory's view.
    char *shown = s.arg;
    if (shown[0] == '\0') (void)ftpd_client_view(s, shown, FTP_BUF_SIZE);
    auto missing = [&]() { return reply_code(s, nullptr, FTP_REPLY_NO_SUCH_FILE, shown) == 0; };
    switch (ftpd_resolve_path(s, shown, inpath, outpath)) {
        case ftpd_resolve_result::trim_failed:
            return send_reply(s, FTP_REPLY_451);
        case ftpd_resolve_result::refused:
        case ftpd_resolve_result::too_long:
        case ftpd_resolve_result::missing:
            return missing();
        case ftpd_resolve_result::ok:
            break;
    }
    struct stat st;
    char facts[kFactsLen];
    if (stat(inpath, &st) != 0 || mlsx_facts(st, may_rename(session_root(s), inpath, outpath), s.mlst_facts, facts, sizeof facts) == 0)
        return missing();

    // One send when the reply fits its bound (with room for the line ends the reply function
    // checks for). Else the heading goes first, its echo shortened if need be, and the facts line
    // must still carry the whole path: a cut one would name another file.
    char *text = outpath;
    if (ftpd_snprintf(text, FTP_PATH_HALF, "250-Listing %s\r\n %s %s\r\n250 End\r\n", shown, facts, shown) &&
        strlen(text) + 4 < FTP_BUF_SIZE)
        return send_reply(s, text);
    if (!ftpd_snprintf(text, FTP_PATH_HALF, " %s %s\r\n250 End\r\n", facts, shown) || strlen(text) + 4 >= FTP_BUF_SIZE)
        return send_reply(s, "501 Path too long for a facts line.\r\n");
    if (reply_code(s, nullptr, "250-Listing %s\r\n", shown) != 0) return false;
    return send_reply(s, text);
}
