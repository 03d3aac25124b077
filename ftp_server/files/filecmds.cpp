// The file commands DELE, RNFR/RNTO, SIZE, MDTM and STAT with a path: their admission checks, the
// file-system call each makes on the resolved real path, and every reply they send. STAT without
// a path is the server status (HELP's file).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include "base/ftpd.h"
#include "base/settings.h"
#include "files/cmds.h"
#include "files/entries.h"
#include "base/path.h"
#include "base/raii.h"
#include "session/session.h"

namespace {

const char kIllegalFile[] = "%s: is an illegal file.";

// The pending rename source and the area RNFR resolves into.
constexpr size_t kRenameFromLen = 256;
constexpr size_t kRenameOldLen = 1024;
// MDTM formats its line into the reply buffer within this bound.
constexpr size_t kMdtmBound = 256;


// A work buffer with its two path halves; on ok, inpath holds the real path.
struct path_work {
    ftpd_block buf{FTPD_M_WHOLE_BUF, FTP_WHOLE_BUF_SIZE};
    char *inpath() const { return buf.get(); }
    char *outpath() const { return buf.get() + FTP_PATH_HALF; }
};

int delete_file(ftp_session &s, const char *name) {
    path_work work;
    if (!work.buf) return reply(s, FTP_REPLY_550);
    if (ftpd_resolve_path(s, name, work.inpath(), work.outpath(), false) != ftpd_resolve_result::ok)
        return reply_code(s, nullptr, FTP_REPLY_NO_SUCH_FILE, name);
    // SECURITY: the name is removed from its directory as opened below the top directory, so a
    // link swapped into the path after the check cannot take the removal out of it.
    const char *base = nullptr;
    unique_fd dir(ftpd_open_parent(session_root(s), work.inpath(), s.policy.confine_links, &base));
    // The device deletes regular files only, following a link to one; the standard profile
    // deletes a link itself, wherever it points.
    struct stat st;
    bool link = dir && s.policy.links_as_entries && fstatat(dir.get(), base, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
                S_ISLNK(st.st_mode);
    if (!dir || (!link && (fstatat(dir.get(), base, &st, 0) != 0 || !S_ISREG(st.st_mode))))
        return reply_code(s, nullptr, FTP_REPLY_NO_SUCH_FILE, name);
    if (unlinkat(dir.get(), base, 0) != 0) return reply(s, FTP_REPLY_450);
    return reply(s, FTP_REPLY_250);
}

int renamefrom(ftp_session &s, const char *name, char *oldname) {
    path_work work;
    if (!work.buf) return reply(s, FTP_REPLY_502);
    if (ftpd_resolve_path(s, name, work.inpath(), work.outpath(), false) != ftpd_resolve_result::ok)
        return reply(s, FTP_REPLY_501);
    struct stat st;
    if ((s.policy.links_as_entries ? lstat(work.inpath(), &st) : stat(work.inpath(), &st)) != 0)
        return reply(s, FTP_REPLY_501);
    // SECURITY: the served directory itself, and a storage's, stay where they are.
    if (ftpd_is_protected_dir(session_root(s), work.inpath())) return reply(s, FTP_REPLY_550);
    // A source that does not fit the pending-rename field is refused here: cutting it would
    // rename a different file.
    if (strlen(work.inpath()) >= kRenameFromLen) return reply(s, FTP_REPLY_501);
    if (reply(s, FTP_REPLY_350) != 0) return -1;
    (void)ftpd_strlcpy(oldname, work.inpath(), kRenameOldLen);
    return 0;
}

int renamecmd(ftp_session &s, const char *from, const char *to) {
    path_work work;
    if (!work.buf) return reply(s, FTP_REPLY_502);
    if (ftpd_resolve_path(s, to, work.inpath(), work.outpath(), false) != ftpd_resolve_result::ok)
        return reply(s, FTP_REPLY_553);
    if (ftpd_is_protected_dir(session_root(s), work.inpath())) return reply(s, FTP_REPLY_550);
    // SECURITY: both names are taken in their directories as opened below the top directory now.
    const char *from_base = nullptr, *to_base = nullptr;
    unique_fd from_dir(ftpd_open_parent(session_root(s), from, s.policy.confine_links, &from_base));
    unique_fd to_dir(ftpd_open_parent(session_root(s), work.inpath(), s.policy.confine_links, &to_base));
    if (!from_dir || !to_dir || renameat(from_dir.get(), from_base, to_dir.get(), to_base) != 0) {
        // The standard profile ends the pending rename with a failed RNTO, as with a done one.
        if (s.policy.rename_once) s.rename_from[0] = '\0';
        return reply(s, FTP_REPLY_553);
    }
    return reply(s, FTP_REPLY_250);
}

int sizecmd(ftp_session &s, const char *filename) {
    path_work work;
    if (!work.buf) return reply(s, FTP_REPLY_451);
    switch (ftpd_resolve_path(s, filename, work.inpath(), work.outpath())) {
        case ftpd_resolve_result::trim_failed:
            return reply(s, FTP_REPLY_451);
        case ftpd_resolve_result::refused:
            return reply(s, FTP_REPLY_450);
        case ftpd_resolve_result::too_long:
        case ftpd_resolve_result::missing:
            return reply_code(s, "550", kIllegalFile, filename);
        case ftpd_resolve_result::ok:
            break;
    }
    // The size as stored, whatever the transfer type; where the profile follows RFC 3659, ASCII
    // type has no size that RETR would not contradict.
    if (s.policy.rfc_replies && s.type == ftp_type::ascii) return reply(s, "550 SIZE not allowed in ASCII mode.\r\n");
    struct stat st;
    if (stat(work.inpath(), &st) == 0 && S_ISREG(st.st_mode))
        return ftpd_reply_size(s.ctl, "213", "%lu", static_cast<unsigned long>(st.st_size), nullptr);
    return reply_code(s, "550", kIllegalFile, filename);
}

// Sends one listing line of STAT; false when it could not be sent.
bool send_stat_line(ftp_session &s, const char *line) {
    return reply(s, line) == 0;
}

// One listing line per visible entry; false after a failure, once the 450 line has been sent.
bool stat_directory(ftp_session &s, const char *real_path, char *sendbuff, char *entry) {
    dir_handle dir(opendir(real_path));
    if (!dir) {
        reply(s, FTP_REPLY_450);
        return false;
    }
    bool root = strcmp(real_path, "/") == 0;
    while (struct dirent *ent = readdir(dir.get())) {
        const char *name = ent->d_name;
        if (is_special_file(name)) continue;
        if (root && !is_access_path(name)) continue;
        // An entry whose path does not fit is left out rather than shown as another file.
        if (!ftpd_strlcpy(entry, real_path, FTP_PATH_HALF)) continue;
        size_t len = strlen(entry);
        if ((len == 0 || entry[len - 1] != '/') && !ftpd_strlcat(entry, "/", FTP_PATH_HALF)) continue;
        if (!ftpd_strlcat(entry, name, FTP_PATH_HALF)) continue;
        if (get_file_info(entry, sendbuff, FTP_BUF_SIZE, name) != 0) continue;
        if (!send_stat_line(s, sendbuff)) {
            reply(s, FTP_REPLY_450);
            return false;
        }
    }
    return true;
}

int statfilecmd(ftp_session &s, const char *path, char *sendbuff) {
    path_work work;
    if (!work.buf) {
        FTPD_LOG_ERR("%s: malloc fail.\n", FTPD_MODULE);
        return reply(s, FTP_REPLY_451);
    }
    switch (ftpd_resolve_path(s, path, work.inpath(), work.outpath())) {
        case ftpd_resolve_result::trim_failed:
            return reply(s, FTP_REPLY_451);
        case ftpd_resolve_result::refused:
        case ftpd_resolve_result::too_long:
        case ftpd_resolve_result::missing:
            return reply(s, FTP_REPLY_450);
        case ftpd_resolve_result::ok:
            break;
    }
    const char *real_path = work.inpath();
    struct stat st;
    if (stat(real_path, &st) != 0) return reply(s, FTP_REPLY_450);

    sendbuff[0] = '\0';
    char product[FTP_BUF_SIZE];
    ftp_copy_product_name(product, sizeof product);
    if (reply_code(s, nullptr, "211- %s FTP server status:", product) != 0) return -1;

    // Lines already sent are never withdrawn: a later failure adds the 450 line after them.
    if (S_ISREG(st.st_mode)) {
        const char *name = nullptr;
        if (get_file_name(real_path, &name) != 0 || is_special_file(name))
            return reply(s, FTP_REPLY_450);
        // The line is bounded by the reply buffer actually at hand.
        if (get_file_info(real_path, sendbuff, FTP_BUF_SIZE, name) != 0)
            return reply(s, FTP_REPLY_450);
        if (!send_stat_line(s, sendbuff)) return reply(s, FTP_REPLY_450);
    } else if (S_ISDIR(st.st_mode)) {
        if (!stat_directory(s, real_path, sendbuff, work.outpath())) return -1;
    } else {
        return reply(s, FTP_REPLY_450);
    }
    return reply_code(s, "211", "%s", "End of status.");
}

}  // namespace

bool command_dele(ftp_session &s) {
    int admitted = admit_path_cmd(s, s.arg);
    if (admitted != 0) return admitted > 0;
    delete_file(s, s.arg);
    return true;
}

bool command_rnfr(ftp_session &s) {
    int admitted = admit_path_cmd(s, s.arg);
    if (admitted != 0) return admitted > 0;
    char rename_old[kRenameOldLen] = {0};
    renamefrom(s, s.arg, rename_old);
    // Set only after a successful RNFR; the worker never leaves a source that does not fit.
    size_t len = strlen(rename_old);
    if (len > 0 && len < kRenameFromLen) {
        memcpy(s.rename_from, rename_old, len);
        s.rename_from[len] = '\0';
    }
    return true;
}

bool command_rnto(ftp_session &s) {
    int admitted = admit_path_cmd(s, s.arg);
    if (admitted != 0) return admitted > 0;
    if (s.rename_from[0] == '\0') return reply(s, FTP_REPLY_503) == 0;
    // The source stays pending: a second RNTO tries the same source again.
    renamecmd(s, s.rename_from, s.arg);
    return true;
}

bool command_size(ftp_session &s) {
    int admitted = admit_path_cmd(s, s.arg);
    if (admitted != 0) return admitted > 0;
    sizecmd(s, s.arg);
    return true;
}

bool command_mdtm(ftp_session &s) {
    if (!is_access(s)) return reply(s, FTP_REPLY_550) == 0;
    path_work work;
    if (!work.buf) return reply(s, FTP_REPLY_451) == 0;
    switch (ftpd_resolve_path(s, s.arg, work.inpath(), work.outpath())) {
        case ftpd_resolve_result::trim_failed:
            return reply(s, FTP_REPLY_451) == 0;
        case ftpd_resolve_result::refused:
            return reply(s, FTP_REPLY_450) == 0;
        case ftpd_resolve_result::too_long:
        case ftpd_resolve_result::missing:
            return reply(s, FTP_REPLY_550) == 0;
        case ftpd_resolve_result::ok:
            break;
    }
    // An empty argument resolves to the current directory; only an empty real path is refused.
    if (is_data_empty(work.inpath())) return reply(s, FTP_REPLY_501) == 0;
    struct stat st;
    if (stat(work.inpath(), &st) != 0) return reply(s, FTP_REPLY_550) == 0;
    if (!S_ISREG(st.st_mode)) return reply_code(s, "550", kIllegalFile, s.arg) == 0;

    // UTC, and the line ends in a bare line feed: the reply function then adds no CR.
    struct tm utc;
    gmtime_r(&st.st_mtime, &utc);
    char text[kMdtmBound];
    (void)ftpd_snprintf(text, sizeof text, "213 %04d%02d%02d%02d%02d%02d\n", utc.tm_year + 1900, utc.tm_mon + 1,
                        utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
    return reply(s, text) == 0;
}

bool stat_path(ftp_session &s) {
    if (!is_access(s)) return reply(s, FTP_REPLY_550) == 0;
    statfilecmd(s, s.arg, s.line);
    return true;
}
