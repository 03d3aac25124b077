// The directory commands CWD, CDUP, PWD, MKD and RMD: their admission checks, the moves of the
// session's current directory and every reply they send. Each resolves its argument inside the
// top directory first and reports refusals without telling their cause.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "base/ftpd.h"
#include "files/cmds.h"
#include "base/path.h"
#include "base/raii.h"
#include "session/session.h"

namespace {

// A directory that can be entered: it exists, opens as a directory, and its real path fits the
// current-directory buffer.
bool can_enter(const char *real_path) {
    struct stat st;
    if (stat(real_path, &st) != 0) return false;
    dir_handle dir(opendir(real_path));
    if (!dir) return false;
    return strlen(real_path) <= FTP_CURRENTDIR_LEN - 1;
}

// RFC 959's 257 reply: the path first, in quotes, each quote inside it doubled.
int reply_quoted_path(ftp_session &s, const char *path, const char *what) {
    char quoted[2 * FTP_PATH_HALF];
    size_t n = 0;
    for (const char *p = path; *p != '\0' && n + 2 < sizeof quoted; p++) {
        if (*p == '"') quoted[n++] = '"';
        quoted[n++] = *p;
    }
    quoted[n] = '\0';
    return reply_code(s, "257", "\"%s\" %s", quoted, what);
}

int makedir(ftp_session &s, const char *name) {
    ftpd_block work(FTPD_M_WHOLE_BUF, FTP_WHOLE_BUF_SIZE);
    if (!work) return reply(s, FTP_REPLY_550);
    char *inpath = work.get();
    char *outpath = inpath + FTP_PATH_HALF;

    // SECURITY: made in its directory as opened below the top directory, whatever link is swapped
    // into the path after the check.
    const char *base = nullptr;
    unique_fd dir;
    if (ftpd_resolve_path(s, name, inpath, outpath, false) == ftpd_resolve_result::ok)
        dir.reset(ftpd_open_parent(session_root(s), inpath, s.policy.confine_links, &base));
    if (!dir || mkdirat(dir.get(), base, s.policy.mkdir_mode) != 0) {
        (void)ftpd_strlcpy(outpath, FTP_REPLY_550, FTP_PATH_HALF);
        return reply(s, outpath);
    }
    if (s.policy.rfc_replies) {
        // The client's view of the new directory, first in the reply, its quotes doubled.
        (void)ftpd_absolute_to_relative_path(session_root(s), inpath, outpath, FTP_PATH_HALF);
        return reply_quoted_path(s, outpath, "created");
    }
    // The argument is echoed as sent; resolved paths always take the first branch, the others
    // stay as the fallback chain.
    const char *current_dir = s.currentdir;
    if (inpath[0] == '/') return reply_code(s, "257", "\"%s\" new directory created.", name);
    if (strncmp(inpath, "./", 2) == 0) return reply_code(s, "257", "\"%s\" new directory created.", name + 1);
    if (current_dir[0] != '\0') {
        if (strcmp(current_dir, "/") == 0) return reply_code(s, "257", "\"%s%s\" new directory created.", current_dir, name);
        return reply_code(s, "257", "\"%s/%s\" new directory created.", current_dir, name);
    }
    return reply_code(s, "257", "%s", "(unknown absolute name) new directory created.");
}

int removedir(ftp_session &s, const char *name) {
    ftpd_block work(FTPD_M_WHOLE_BUF, FTP_WHOLE_BUF_SIZE);
    if (!work) return reply(s, FTP_REPLY_550);
    char *inpath = work.get();
    char *outpath = inpath + FTP_PATH_HALF;

    if (ftpd_resolve_path(s, name, inpath, outpath, false) != ftpd_resolve_result::ok)
        return reply_code(s, nullptr, FTP_REPLY_NO_SUCH_FILE, name);
    // SECURITY: the served directory itself, and a storage's, are never removed; the name is
    // removed from its directory as opened below the top directory.
    const char *base = nullptr;
    unique_fd dir;
    if (!ftpd_is_protected_dir(session_root(s), inpath))
        dir.reset(ftpd_open_parent(session_root(s), inpath, s.policy.confine_links, &base));
    if (!dir || unlinkat(dir.get(), base, AT_REMOVEDIR) != 0) return reply_code(s, "550", "Remove %s fail.", name);
    return reply_code(s, "250", "%s", "RMD command successful.");
}

}  // namespace

bool command_cwd(ftp_session &s) {
    // CWD alone answers 553 for a session without a top directory.
    if (!is_access(s)) return reply_code(s, nullptr, "%s Access denied.", "553") == 0;
    if (is_data_empty(s.arg)) return reply(s, FTP_REPLY_501) == 0;
    cwd(s, s.arg);
    return true;
}

bool command_cdup(ftp_session &s) {
    if (!is_access(s)) return reply(s, FTP_REPLY_550) >= 0;
    cwd(s, "..");
    return true;
}

int cwd(ftp_session &s, const char *path) {
    ftpd_block work(FTPD_M_WHOLE_BUF, FTP_WHOLE_BUF_SIZE);
    if (!work) {
        reply(s, FTP_REPLY_550);
        return -1;
    }
    char *inpath = work.get();
    char *outpath = inpath + FTP_PATH_HALF;

    if (ftpd_resolve_path(s, path, inpath, outpath) != ftpd_resolve_result::ok || !can_enter(inpath)) {
        reply_code(s, nullptr, FTP_REPLY_NO_SUCH_FILE, path);
        return -1;
    }

    (void)ftpd_strlcpy(s.currentdir, inpath, FTP_CURRENTDIR_LEN);
    size_t len = strlen(s.currentdir);
    if (len > 1 && s.currentdir[len - 1] == '/') s.currentdir[len - 1] = '\0';

    memset(outpath, 0, FTP_PATH_HALF);
    (void)ftpd_client_view(s, outpath, FTP_PATH_HALF);
    // The new directory stands even when the reply cannot be sent.
    reply_code(s, nullptr, "250 Directory change to \"%s\".\r\n", outpath);
    return 0;
}

bool pwd_fun(ftp_session &s) {
    // PWD needs a top directory as well as the login.
    if (!is_access(s)) return reply(s, FTP_REPLY_550) >= 0;
    ftpd_block view(FTPD_M_OUTPATH, FTP_BUF_SIZE);
    if (!view) return reply(s, FTP_REPLY_550) >= 0;
    (void)ftpd_client_view(s, view.get(), FTP_BUF_SIZE);
    if (s.policy.rfc_replies)
        reply_quoted_path(s, view.get(), "is the current directory");
    else
        reply_code(s, nullptr, "257 Current working directory is \"%s\".\r\n", view.get());
    return true;
}

bool command_mkd(ftp_session &s) {
    int admitted = admit_path_cmd(s, s.arg);
    if (admitted != 0) return admitted > 0;
    makedir(s, s.arg);
    return true;
}

bool command_rmd(ftp_session &s) {
    int admitted = admit_path_cmd(s, s.arg);
    if (admitted != 0) return admitted > 0;
    removedir(s, s.arg);
    return true;
}
