// LIST, and the listing pipeline LIST, NLST and MLSD share: a listing is staged in a private
// temporary file (batched writes) and sent over the data connection as a file is. The device's
// listing stages once the data connection is open; the standard profile skips option words,
// shows dot files on request and stages the listing first, so that a path that cannot be listed
// is refused before any preliminary reply.
#include "transfer/transfer.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <strings.h>
#include <sys/time.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "base/ftpd.h"
#include "data/dataconn.h"
#include "files/entries.h"
#include "base/path.h"
#include "login/security.h"
#include "session/session.h"
#include "transfer/list_internal.h"

namespace {

const char kReply451[] = "451 Requested action aborted. Local error in processing.\r\n";
const char kReply501[] = "501 Syntax error in parameters or arguments.\r\n";


// The staged listing goes out through the transfer engine, converted in 512-byte blocks in ASCII
// type as a file would be.
constexpr int kAsciiBlock = 512;

int reply451(ftp_session &s) {
    return reply(s, kReply451);
}
int reply501(ftp_session &s) {
    return reply(s, kReply501);
}

bool is_dir_root(const char *dir) {
    return strcmp(dir, "/") == 0;
}


}  // namespace

// ---------------------------------------------------------------------------------------------
// Shared internals

bool ftpd_entry_hidden(const char *name, const char *listtemp, bool dir_is_root) {
    if (strcmp(name, listtemp) == 0 || is_special_file(name)) return true;
    return dir_is_root && !is_access_path(name);
}

const char *ftpd_split_pattern(const char *path, char *dir, const char *current_dir) {
    const char *slash = strrchr(path, '/');
    const char *pattern;
    if (slash != nullptr) {
        size_t n = static_cast<size_t>(slash - path) + 1;
        // SECURITY: a directory cut short would be another directory.
        if (n > FTP_LIST_TEMPPATH_SIZE - 1) return nullptr;
        memcpy(dir, path, n);
        dir[n] = '\0';
        pattern = slash + 1;
    } else {
        if (!ftpd_strlcpy(dir, current_dir, FTP_CURRENTDIR_LEN)) return nullptr;
        pattern = path;
    }
    size_t len = strlen(dir);
    if ((len == 0 || dir[len - 1] != '/') && !ftpd_strlcat(dir, "/", FTP_LIST_TEMPPATH_SIZE)) return nullptr;
    return pattern;
}

bool ftpd_list_batch::flush() {
    const char *p = area_;
    size_t left = used_;
    used_ = 0;
    while (left > 0) {
        ssize_t n = write(fd_, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            failed_ = true;
            break;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    return !failed_;
}

bool ftpd_list_batch::add(const char *text, size_t len) {
    if (failed_) return false;
    if (used_ + len > size_ && !flush()) return false;
    // A line never exceeds the batch (lines are bounded by FTP_LIST_LINE_SIZE).
    if (len > size_) len = size_;
    memcpy(area_ + used_, text, len);
    used_ += len;
    return true;
}

bool ftpd_list_batch::finish() {
    if (!flush()) return false;
    // The device syncs its staged listing; the standard profile reads it back from the page
    // cache at once and never needs it on the disk.
    if (sync_) fsync(fd_);
    return true;
}

int ftpd_listtemp::create() {
    if (ftp_make_path(path_, FTP_LISTTEMP_LEN, FTP_TEMP_TEMPLATE) == nullptr) {
        path_[0] = '\0';
        return -1;
    }
    int fd = ftpd_mkstemp(path_);
    if (fd < 0) return -2;
    fd_.reset(fd);
    made_ = true;
    return 0;
}

bool ftpd_listtemp::reopen_for_reading() {
    fd_.reset();
    int fd = open(path_, O_RDONLY);
    if (fd < 0) return false;
    fd_.reset(fd);
    return true;
}

void ftpd_listtemp::remove() {
    fd_.reset();
    if (made_) {
        unlink(path_);
        made_ = false;
    }
}

namespace {

// A listing on its way: the session, the real path, which rows, and (standard profile) the staged
// file.
struct listing_run {
    ftp_session *s;
    const char *path;
    const ftpd_listing_kind *kind;
    ftpd_listtemp *staged;
    bool raw;  // lines carry their CR LF already: sent untouched whatever the type
};

// The staged listing goes out as a file would: converted in 512-byte blocks in ASCII type.
ftp_move send_staged(ftp_dataconn &dc, void *ctx) {
    auto *run = static_cast<listing_run *>(ctx);
    ftp_move r = dc.send_file(run->staged->fd(), kAsciiBlock, run->raw);
    // Gone before the final reply: no one sees the daemon's file after it.
    run->staged->remove();
    return r;
}

// The device's listing, staged once the data connection is open: every failure after the 150 is
// answered here with its own line.
ftp_move stage_and_send(ftp_dataconn &dc, void *ctx) {
    auto *run = static_cast<listing_run *>(ctx);
    ftp_session &s = *run->s;
    const ftpd_listing_kind &kind = *run->kind;
    const char *path = run->path;
    // One block: the line, the directory, the entry path, then the batch / sending area.
    ftpd_block whole(FTPD_M_WHOLE_BUF, FTP_LIST_BUF_SIZE + FTP_LIST_BATCH_SIZE);
    if (!whole) {
        if (kind.log_failures) FTPD_LOG_ERR("malloc while_buff fail\n");
        reply451(s);
        return ftp_move::replied;
    }
    char *databuff = whole.get();
    char *temppath = databuff + FTP_LIST_LINE_SIZE;
    char *batch_area = whole.get() + FTP_LIST_BUF_SIZE;

    ftpd_listtemp temp;
    int made = temp.create();
    if (made != 0) {
        if (made == -2 && kind.log_failures) FTPD_LOG_ERR("ftpd_mkstemp fail\n");
        reply451(s);
        return ftp_move::replied;
    }
    int r = 0;
    ftpd_list_batch out(temp.fd(), batch_area, FTP_LIST_BATCH_SIZE, true);
    struct stat st;
    if (stat(path, &st) != 0) {
        if (strpbrk(path, "*?") == nullptr) {
            temp.remove();
            reply_code(s, nullptr, FTP_REPLY_NO_SUCH_FILE, path);
            return ftp_move::replied;
        }
        r = kind.wildcard(path, out, temp.path(), databuff, temppath, s.currentdir);
    } else if (S_ISDIR(st.st_mode)) {
        r = kind.dir(path, out, temp.path(), databuff) != 0 ? -2 : 0;
    } else if (S_ISREG(st.st_mode)) {
        r = kind.reg(path, out, temp.path(), databuff);
    } else {
        r = -3;
    }
    if (r == 0 && !temp.reopen_for_reading()) r = -2;
    if (r != 0) {
        temp.remove();
        whole.reset();
        r == -3 ? reply501(s) : reply451(s);
        return ftp_move::replied;
    }
    whole.reset();
    run->staged = &temp;
    // The same waits as a file transfer: a client that stops reading meets the idle time-out, and
    // the stop message aborts the listing.
    return send_staged(dc, ctx);
}

}  // namespace

int ftpd_run_listing(ftp_session &s, const ftpd_listing_kind &kind) {
    char *path = s.arg;
    ftpd_block work(FTPD_M_WHOLE_BUF, FTP_WHOLE_BUF_SIZE);
    if (!work) {
        if (kind.log_malloc) FTPD_LOG_ERR("%s: malloc fail.\n", FTPD_MODULE);
        reply451(s);
        return 0;
    }
    char *inpath = work.get();
    char *outpath = inpath + FTP_PATH_HALF;

    // Options are never interpreted; a leading pattern star lists the whole current directory.
    if (kind.strip_options && (path[0] == '-' || path[0] == '*')) {
        FTPD_LOG_ERR(
            "This version not  LIST CMD with option values(such as -al,*.p),translate into LIST CMD "
            "only\n");
        path[0] = '\0';
    }
    if (path[0] == '\0') (void)ftpd_client_view(s, path, FTP_PATH_HALF);

    switch (ftpd_resolve_path(s, path, inpath, outpath)) {
        case ftpd_resolve_result::trim_failed:
        case ftpd_resolve_result::too_long:
            reply451(s);
            return 0;
        case ftpd_resolve_result::refused:
        case ftpd_resolve_result::missing:
            reply501(s);
            return 0;
        case ftpd_resolve_result::ok:
            break;
    }
    listing_run run{&s, inpath, &kind, nullptr, false};
    ftp_data_env env = data_env(s);
    return s.data.transfer(env, kDownloadReplies, stage_and_send, &run) == -1 ? -2 : 0;
}

// ---------------------------------------------------------------------------------------------
// LIST

namespace {
const ftpd_listing_kind kListKind = {
    .strip_options = true,
    .log_failures = true,
    .log_malloc = false,
    .count_before_update = false,
    .dir = list_dir,
    .reg = list_reg,
    .wildcard = list_wildcard,
};

size_t std_list_line(int dfd, const char *name, unsigned char d_type, const ftpd_std_view &view, char *line,
                     size_t cap) {
    (void)d_type;
    if (ftpd_entry_info_link(dfd, name, line, static_cast<int>(cap), view.this_year) != 0) return 0;
    return strlen(line);
}

const ftpd_std_kind kStdListKind = {
    .line = std_list_line,
    .options = true,
    .patterns = true,
    .single_file = true,
    .name_prefix = false,
    .raw_lines = false,
};
}  // namespace

bool list_fun(ftp_session &s) {
    return ftpd_list_command(s, &kListKind, &kStdListKind);
}

namespace {
// A LIST line for every entry that can be queried; entries are queried relative to the open
// directory, so no entry path is built.
bool list_line(int dfd, const struct dirent *ent, char *databuff, int year) {
    return ftpd_entry_info(dfd, ent->d_name, databuff, FTP_LIST_LINE_SIZE, year) == 0;
}
}  // namespace

int list_dir(const char *path, ftpd_list_batch &out, const char *listtemp, char *databuff) {
    return ftpd_scan_dir(path, nullptr, listtemp, out, databuff, list_line, -1);
}

int list_reg(const char *path, ftpd_list_batch &out, const char *listtemp, char *databuff) {
    const char *slash = strrchr(path, '/');
    const char *name = slash != nullptr ? slash + 1 : path;
    if (strcmp(name, listtemp) == 0 || is_special_file(name)) return -3;
    memset(databuff, 0, FTP_LIST_LINE_SIZE);
    if (get_file_info(path, databuff, FTP_LIST_LINE_SIZE, name) != 0) return -3;
    if (!out.add(databuff) || !out.finish()) return -2;
    return 0;
}

int list_wildcard(const char *path, ftpd_list_batch &out, const char *listtemp, char *databuff, char *temppath,
                  const char *current_dir) {
    return ftpd_scan_pattern(path, current_dir, temppath, listtemp, out, databuff, list_line);
}

int ftpd_scan_dir(const char *path, const char *pattern, const char *listtemp, ftpd_list_batch &out, char *databuff,
                  ftpd_entry_line line, int fail_code) {
    dir_handle dir(opendir(path));
    if (!dir) return fail_code;
    bool root = is_dir_root(path);
    int year = ftpd_this_year();
    int dfd = dirfd(dir.get());
    while (struct dirent *ent = readdir(dir.get())) {
        const char *name = ent->d_name;
        if (ftpd_entry_hidden(name, listtemp, root)) continue;
        if (pattern != nullptr && ftpd_is_match(name, pattern) != 1) continue;
        if (!line(dfd, ent, databuff, year)) continue;
        if (!out.add(databuff)) return fail_code;
    }
    return out.finish() ? 0 : fail_code;
}

int ftpd_scan_pattern(const char *path, const char *current_dir, char *temppath, const char *listtemp,
                      ftpd_list_batch &out, char *databuff, ftpd_entry_line line) {
    const char *pattern = ftpd_split_pattern(path, temppath, current_dir);
    struct stat st;
    if (pattern == nullptr || stat(temppath, &st) != 0 || !S_ISDIR(st.st_mode)) return -3;
    return ftpd_scan_dir(temppath, pattern, listtemp, out, databuff, line, -2);
}

// ---------------------------------------------------------------------------------------------
// Standard profile

namespace {

bool std_entry_hidden(const char *name, const ftpd_std_view &view) {
    if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) return true;
    // SECURITY: uploads still being received are nobody's to see.
    if (ftpd_is_upload_temp(name)) return true;
    // A line end inside a name would read as two names on the client's side.
    if (strpbrk(name, "\r\n") != nullptr) return true;
    if (view.temp_name != nullptr && strcmp(name, view.temp_name) == 0) return true;
    if (name[0] == '.' && !view.dot_names) return true;
    return view.root && !is_access_path(name);
}

}  // namespace

bool ftpd_link_stays_inside(const ftpd_std_view &view, const char *name) {
    char path[FTP_LIST_TEMPPATH_SIZE + FTP_NAME_LEN];
    if (!ftpd_snprintf(path, sizeof path, "%s/%s", view.dir, name)) return false;
    struct stat st;
    return ftpd_resolves_beneath(view.top, path, true) && stat(path, &st) == 0;
}

unsigned ftpd_mlst_select(const char *arg, char *reply_text, size_t cap) {
    static const struct {
        const char *name;
        unsigned bit;
    } kFacts[] = {{"type", kFactType}, {"size", kFactSize}, {"modify", kFactModify}, {"perm", kFactPerm},
                  {"unique", kFactUnique}};
    unsigned facts = 0;
    for (const char *p = arg; *p != '\0';) {
        size_t n = strcspn(p, ";");
        for (const auto &f : kFacts)
            if (strlen(f.name) == n && strncasecmp(p, f.name, n) == 0) facts |= f.bit;
        p += n;
        if (*p == ';') p++;
    }
    (void)ftpd_strlcpy(reply_text, "200 MLST OPTS ", cap);
    for (const auto &f : kFacts)
        if ((facts & f.bit) != 0) (void)(ftpd_strlcat(reply_text, f.name, cap) && ftpd_strlcat(reply_text, ";", cap));
    (void)ftpd_strlcat(reply_text, "\r\n", cap);
    return facts;
}

namespace {

// The temporary file's own name when it lies in the directory dir, else nullptr.
const char *temp_name_in(const char *listtemp, const char *dir) {
    const char *slash = strrchr(listtemp, '/');
    if (slash == nullptr) return nullptr;
    size_t n = static_cast<size_t>(slash - listtemp);
    size_t len = strlen(dir);
    while (len > 1 && dir[len - 1] == '/') len--;
    if (len != n || strncmp(listtemp, dir, n) != 0) return nullptr;
    return slash + 1;
}

// The client's text up to and including its last "/" (empty without one); with whole_dir, the
// text itself as a directory, ending in "/". Fits: the text is bounded by the command line.
void client_prefix(const char *client, bool whole_dir, char *prefix, size_t cap) {
    prefix[0] = '\0';
    if (whole_dir) {
        (void)ftpd_strlcpy(prefix, client, cap);
        size_t len = strlen(prefix);
        if (len > 0 && prefix[len - 1] != '/') (void)ftpd_strlcat(prefix, "/", cap);
        return;
    }
    const char *slash = strrchr(client, '/');
    if (slash == nullptr) return;
    size_t n = static_cast<size_t>(slash - client) + 1;
    if (n >= cap) n = cap - 1;
    memcpy(prefix, client, n);
    prefix[n] = '\0';
}

// Removes the leading option words (each a word beginning with "-") of a LIST or NLST argument in
// place, leaving the path. True when one of them asks for names beginning with "." (a or A).
bool skip_list_options(char *arg) {
    bool dots = false;
    char *p = arg;
    while (*p == '-') {
        for (; *p != '\0' && *p != ' ' && *p != '\t'; p++)
            if (*p == 'a' || *p == 'A') dots = true;
        while (*p == ' ' || *p == '\t') p++;
    }
    memmove(arg, p, strlen(p) + 1);
    return dots;
}

enum class std_stage { ok, missing, not_dir, failed };

// Writes the listing of the real path into the batch. area holds the line, then the directory
// scanned, then the name prefix. named: the client gave a path (an empty argument lists the
// current directory with bare names).
std_stage stage_std(const ftp_session &s, const char *real, const char *client, bool named, bool dot_names,
                    const ftpd_std_kind &kind, const char *listtemp, ftpd_list_batch &out, char *area) {
    const char *current_dir = s.currentdir;
    char *line = area;
    char *dir = line + FTP_LIST_LINE_SIZE;
    char *prefix = dir + FTP_LIST_TEMPPATH_SIZE;
    prefix[0] = '\0';
    ftpd_std_view view{};
    view.dot_names = dot_names;
    view.prefix = prefix;
    view.this_year = ftpd_this_year();
    view.dir = dir;
    view.top = session_root(s);
    view.facts = s.mlst_facts;

    struct stat st;
    const char *pattern = nullptr;
    if (stat(real, &st) != 0) {
        if (!kind.patterns || strpbrk(real, "*?") == nullptr) return std_stage::missing;
        pattern = ftpd_split_pattern(real, dir, current_dir);
        if (pattern == nullptr || stat(dir, &st) != 0 || !S_ISDIR(st.st_mode)) return std_stage::missing;
        // As in a shell, a pattern that begins with "." is asking for such names.
        if (pattern[0] == '.') view.dot_names = true;
        if (kind.name_prefix) client_prefix(client, false, prefix, FTP_LIST_ENTRY_SIZE);
    } else if (S_ISDIR(st.st_mode)) {
        if (!ftpd_strlcpy(dir, real, FTP_LIST_TEMPPATH_SIZE)) return std_stage::missing;
        if (kind.name_prefix && named) client_prefix(client, true, prefix, FTP_LIST_ENTRY_SIZE);
    } else if (!S_ISREG(st.st_mode)) {
        return kind.single_file ? std_stage::missing : std_stage::not_dir;
    } else {
        if (!kind.single_file) return std_stage::not_dir;
        // A file named by itself is shown, dot file or not, through its directory like any entry.
        const char *name = ftpd_split_pattern(real, dir, current_dir);
        if (name == nullptr) return std_stage::missing;
        unique_fd dfd(open(dir, O_PATH | O_DIRECTORY | O_CLOEXEC));
        const char *temp_name = temp_name_in(listtemp, dir);
        if (!dfd || (temp_name != nullptr && strcmp(name, temp_name) == 0)) return std_stage::missing;
        if (kind.name_prefix) client_prefix(client, false, prefix, FTP_LIST_ENTRY_SIZE);
        size_t n = kind.line(dfd.get(), name, DT_UNKNOWN, view, line, FTP_LIST_LINE_SIZE);
        if (n == 0) return std_stage::missing;
        return out.add(line, n) && out.finish() ? std_stage::ok : std_stage::failed;
    }

    dir_handle d(opendir(dir));
    if (!d) return std_stage::missing;
    int dfd = dirfd(d.get());
    struct stat dst;
    view.dir_writable = fstat(dfd, &dst) == 0 && (dst.st_mode & S_IWUSR) != 0;
    view.root = is_dir_root(dir);
    view.temp_name = temp_name_in(listtemp, dir);
    while (struct dirent *ent = readdir(d.get())) {
        const char *name = ent->d_name;
        if (std_entry_hidden(name, view)) continue;
        if (pattern != nullptr && ftpd_is_match(name, pattern) != 1) continue;
        size_t n = kind.line(dfd, name, ent->d_type, view, line, FTP_LIST_LINE_SIZE);
        if (n > 0 && !out.add(line, n)) return std_stage::failed;
    }
    return out.finish() ? std_stage::ok : std_stage::failed;
}

}  // namespace

int ftpd_run_std_listing(ftp_session &s, const ftpd_std_kind &kind) {
    char *path = s.arg;
    ftpd_block work(FTPD_M_WHOLE_BUF, FTP_WHOLE_BUF_SIZE);
    if (!work) {
        reply451(s);
        return 0;
    }
    char *inpath = work.get();
    char *outpath = inpath + FTP_PATH_HALF;

    bool dot_names = kind.options ? skip_list_options(path) : true;
    bool named = path[0] != '\0';
    if (!named) (void)ftpd_client_view(s, path, FTP_PATH_HALF);
    // Refusals name the path as the client sent it, never the real one.
    auto missing = [&]() {
        reply_code(s, nullptr, FTP_REPLY_NO_SUCH_FILE, path);
        return 0;
    };
    switch (ftpd_resolve_path(s, path, inpath, outpath)) {
        case ftpd_resolve_result::trim_failed:
            reply451(s);
            return 0;
        case ftpd_resolve_result::refused:
        case ftpd_resolve_result::too_long:
        case ftpd_resolve_result::missing:
            return missing();
        case ftpd_resolve_result::ok:
            break;
    }

    // The whole listing is staged before the data connection is opened: a path that cannot be
    // listed is refused without a preliminary reply.
    ftpd_block whole(FTPD_M_WHOLE_BUF, FTP_LIST_BUF_SIZE + FTP_LIST_BATCH_SIZE);
    if (!whole) {
        FTPD_LOG_ERR("malloc while_buff fail\n");
        reply451(s);
        return 0;
    }
    ftpd_listtemp temp;
    if (temp.create() != 0) {
        FTPD_LOG_ERR("ftpd_mkstemp fail\n");
        reply451(s);
        return 0;
    }
    ftpd_list_batch out(temp.fd(), whole.get() + FTP_LIST_BUF_SIZE, FTP_LIST_BATCH_SIZE, false);
    switch (stage_std(s, inpath, path, named, dot_names, kind, temp.path(), out, whole.get())) {
        case std_stage::missing:
            return missing();
        case std_stage::not_dir:
            reply_code(s, nullptr, "501 \"%s\": Not a directory.\r\n", path);
            return 0;
        case std_stage::failed:
            reply451(s);
            return 0;
        case std_stage::ok:
            break;
    }
    whole.reset();
    work.reset();
    if (!temp.reopen_for_reading()) {
        reply451(s);
        return 0;
    }
    listing_run run{&s, nullptr, nullptr, &temp, kind.raw_lines};
    ftp_data_env env = data_env(s);
    return s.data.transfer(env, kDownloadReplies, send_staged, &run) == -1 ? -2 : 0;
}

bool ftpd_list_command(ftp_session &s, const ftpd_listing_kind *device, const ftpd_std_kind *standard) {
    if (ftpd_data_needs_tls(s)) return true;
    int r = 0;
    if (!is_access(s) || s.client_port <= kReservedPort) {
        if (device == nullptr || device->log_failures) {
            if (!is_access(s)) FTPD_LOG_ERR("%s:topdir is not access.\n", FTPD_MODULE);
            if (s.client_port < kPassiveMark)
                FTPD_LOG_ERR("%s:client_port(%d) is small then IPPORT_RESERVED(%d).\n", FTPD_MODULE, s.client_port,
                             kReservedPort);
        }
        reply451(s);
    } else if (s.policy.standard_listings && standard != nullptr) {
        r = ftpd_run_std_listing(s, *standard);
    } else if (device != nullptr) {
        r = ftpd_run_listing(s, *device);
    }
    s.data.set_family(0);
    return r != -2;
}

// ---------------------------------------------------------------------------------------------
// Listing line, names, sending, temporary files, matching





int ftpd_mkstemp(char *templ) {
    if (templ == nullptr) return -1;
    size_t len = strlen(templ);
    if (len < 6) return -1;
    char *suffix = templ + len - 6;
    for (int i = 0; i < 6; i++) {
        if (suffix[i] != 'X') {
            FTPD_LOG_ERR("ftpd_mkstemp the last %d of %s is not X\n", 6, templ);
            return -1;
        }
    }
    // Lowest free number first, so numbers come back as soon as a listing removed its file.
    for (int num = 1; num <= 999998; num++) {
        char digits[8];
        (void)ftpd_snprintf(digits, sizeof digits, "%.6d", num);
        memcpy(suffix, digits, 6);
        struct stat st;
        if (stat(templ, &st) == 0) continue;
        int fd = open(templ, O_RDWR | O_CREAT | O_EXCL, 0644);
        // Another session took the number between the look and the open: the next one will do.
        if (fd < 0 && errno == EEXIST) continue;
        if (fd < 0) {
            int err = errno;
            FTPD_LOG_ERR("ftpd_mkstemp open (%s) fail,errno %d:%s\n", templ, err, strerror(err));
            return -1;
        }
        return fd;
    }
    FTPD_LOG_ERR("ftpd_mkstemp num is too large\n");
    return -1;
}

