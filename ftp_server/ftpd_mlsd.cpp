// MLSD and MLST (RFC 3659): machine-readable listings of the standard profile. MLSD runs the
// standard listing skeleton (staged before the data connection, sent by the transfer engine) with
// one facts line per entry; MLST answers the facts of one path on the control connection. Both
// show every name, dot files included, but never "." and ".." (the facts of the directory itself
// are what MLST is for; clients drop cdir and pdir entries anyway).
#include <sys/stat.h>

#include <cstring>
#include <ctime>

#include "ftpd.h"
#include "ftpd_list.h"
#include "ftpd_list_internal.h"
#include "ftpd_path.h"
#include "ftpd_reply.h"
#include "ftpd_session.h"

namespace {

// The longest facts text: both types, a 20-digit size, the time, seven perm letters and two
// 16-digit hex numbers fit with room to spare.
constexpr size_t kFactsLen = 192;

// The RFC 3659 facts of a file or directory, "type=...;size=...;modify=...;perm=...;unique=...;",
// into out (cap bytes); parent_writable tells whether the entry may be renamed or deleted. The
// length, or 0 for other file types or when the text does not fit.
size_t mlsx_facts(const struct stat &st, bool parent_writable, char *out, size_t cap) {
    bool dir = S_ISDIR(st.st_mode);
    if (!dir && !S_ISREG(st.st_mode)) return 0;
    bool r = (st.st_mode & S_IRUSR) != 0;
    bool w = (st.st_mode & S_IWUSR) != 0;
    bool x = (st.st_mode & S_IXUSR) != 0;
    // The owner's bits stand for what the server may do; renaming and deleting depend on the
    // directory that holds the entry.
    char perm[8];
    size_t k = 0;
    if (dir) {
        if (w && x) perm[k++] = 'c';
        if (parent_writable) perm[k++] = 'd';
        if (x) perm[k++] = 'e';
        if (parent_writable) perm[k++] = 'f';
        if (r) perm[k++] = 'l';
        if (w && x) perm[k++] = 'm';
        if (w && x) perm[k++] = 'p';
    } else {
        if (w) perm[k++] = 'a';
        if (parent_writable) perm[k++] = 'd';
        if (parent_writable) perm[k++] = 'f';
        if (r) perm[k++] = 'r';
        if (w) perm[k++] = 'w';
    }
    perm[k] = '\0';

    char size[32] = "";
    if (!dir) (void)ftpd_snprintf(size, sizeof size, "size=%lld;", static_cast<long long>(st.st_size));
    struct tm utc;
    gmtime_r(&st.st_mtime, &utc);
    bool fit = ftpd_snprintf(out, cap, "type=%s;%smodify=%04d%02d%02d%02d%02d%02d;perm=%s;unique=%llxU%llx;",
                             dir ? "dir" : "file", size, utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour,
                             utc.tm_min, utc.tm_sec, perm, static_cast<unsigned long long>(st.st_dev),
                             static_cast<unsigned long long>(st.st_ino));
    return fit ? strlen(out) : 0;
}

size_t mlsd_line(int dfd, const char *name, unsigned char d_type, const ftpd_std_view &view, char *line, size_t cap) {
    (void)d_type;
    struct stat st;
    if (fstatat(dfd, name, &st, 0) != 0) return 0;
    size_t n = mlsx_facts(st, view.dir_writable, line, cap);
    if (n == 0 || !ftpd_snprintf(line + n, cap - n, " %s\r\n", name)) return 0;
    return n + strlen(line + n);
}

const ftpd_std_kind kMlsdKind = {
    .line = mlsd_line,
    .options = false,
    .patterns = false,
    .single_file = false,
    .name_prefix = false,
    .raw_lines = true,
};

int send_reply(int control_fd, const char *text) {
    return ftpd_reply_text(control_fd, text) == 0 ? 0 : -1;
}

// Whether the object at the real path may be renamed or deleted: its directory is writable by its
// owner, and it is not the top directory itself. scratch holds FTP_PATH_HALF bytes.
bool may_rename(const struct credentials *pcred, const char *real, char *scratch) {
    if (!ftpd_strlcpy(scratch, real, FTP_PATH_HALF)) return false;
    size_t len = strlen(scratch);
    while (len > 1 && scratch[len - 1] == '/') scratch[--len] = '\0';
    if (pcred->rootdir != nullptr && strcmp(scratch, pcred->rootdir) == 0) return false;
    char *slash = strrchr(scratch, '/');
    if (slash == nullptr) return false;
    slash[slash == scratch ? 1 : 0] = '\0';
    struct stat st;
    return stat(scratch, &st) == 0 && (st.st_mode & S_IWUSR) != 0;
}

}  // namespace

int mlsd_fun(int control_fd, char *current_dir, char *path, int client_port, char *client_addr,
             struct credentials *pcred, int domain_fd) {
    return ftpd_run_std_listing(control_fd, current_dir, path, client_port, client_addr, pcred, domain_fd, kMlsdKind);
}

int command_mlst(int control_fd, char *data_buff, char *current_dir, struct credentials *pcred) {
    if (!is_logged_in(pcred)) return send_reply(control_fd, FTP_REPLY_530);
    if (!is_access(pcred)) return send_reply(control_fd, FTP_REPLY_550);
    ftpd_block work(FTPD_M_WHOLE_BUF, FTP_WHOLE_BUF_SIZE);
    if (!work) return send_reply(control_fd, FTP_REPLY_451);
    char *inpath = work.get();
    char *outpath = inpath + FTP_PATH_HALF;

    // The path is shown as the client named it; without one, as the current directory's view.
    char *shown = data_buff;
    if (shown[0] == '\0') (void)ftpd_absolute_to_relative_path(pcred, current_dir, shown, FTP_BUF_SIZE);
    auto missing = [&]() {
        return ftpd_reply(control_fd, nullptr, FTP_REPLY_NO_SUCH_FILE, shown, nullptr) == 0 ? 0 : -1;
    };
    switch (ftpd_resolve_path(pcred, current_dir, shown, inpath, outpath)) {
        case ftpd_resolve_result::trim_failed:
            return send_reply(control_fd, FTP_REPLY_451);
        case ftpd_resolve_result::refused:
        case ftpd_resolve_result::too_long:
            return missing();
        case ftpd_resolve_result::ok:
            break;
    }
    struct stat st;
    char facts[kFactsLen];
    if (stat(inpath, &st) != 0 || mlsx_facts(st, may_rename(pcred, inpath, outpath), facts, sizeof facts) == 0)
        return missing();

    // One send when the reply fits its bound (with room for the line ends the reply function
    // checks for). Else the heading goes first, its echo shortened if need be, and the facts line
    // must still carry the whole path: a cut one would name another file.
    char *text = outpath;
    if (ftpd_snprintf(text, FTP_PATH_HALF, "250-Listing %s\r\n %s %s\r\n250 End\r\n", shown, facts, shown) &&
        strlen(text) + 4 < FTP_BUF_SIZE)
        return send_reply(control_fd, text);
    if (!ftpd_snprintf(text, FTP_PATH_HALF, " %s %s\r\n250 End\r\n", facts, shown) || strlen(text) + 4 >= FTP_BUF_SIZE)
        return send_reply(control_fd, "501 Path too long for a facts line.\r\n");
    if (ftpd_reply(control_fd, nullptr, "250-Listing %s\r\n", shown, nullptr) != 0) return -1;
    return send_reply(control_fd, text);
}
