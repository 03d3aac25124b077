// The file commands DELE, RNFR/RNTO, SIZE, MDTM and STAT with a path: their admission checks, the
// file-system call each makes on the resolved real path, and every reply they send. STAT without
// a path is the server status and is only dispatched from here.
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include "base/ftpd.h"
#include "files/cmds.h"
#include "control/help.h"
#include "transfer/list.h"
#include "transfer/list_internal.h"
#include "files/path.h"
#include "net/reply.h"
#include "control/session.h"
#include "base/settings.h"
#include "data/transfer.h"

namespace {

const char kIllegalFile[] = "%s: is an illegal file.";

// The pending rename source and the area RNFR resolves into.
constexpr size_t kRenameFromLen = 256;
constexpr size_t kRenameOldLen = 1024;
// MDTM formats its line into the reply buffer within this bound.
constexpr size_t kMdtmBound = 256;

int refuse(int control_fd, const char *text) {
    return ftpd_reply_text(control_fd, text) == 0 ? 0 : -1;
}

// A work buffer with its two path halves; on ok, inpath holds the real path.
struct path_work {
    ftpd_block buf{FTPD_M_WHOLE_BUF, FTP_WHOLE_BUF_SIZE};
    char *inpath() const { return buf.get(); }
    char *outpath() const { return buf.get() + FTP_PATH_HALF; }
};

int delete_file(int control_fd, const char *name, char *sendbuff, const char *current_dir, struct credentials *pcred) {
    sendbuff[0] = '\0';
    path_work work;
    if (!work.buf) return ftpd_reply_text(control_fd, FTP_REPLY_550);
    if (ftpd_resolve_path(pcred, current_dir, name, work.inpath(), work.outpath()) != ftpd_resolve_result::ok)
        return ftpd_reply(control_fd, nullptr, FTP_REPLY_NO_SUCH_FILE, name, nullptr);
    struct stat st;
    if (stat(work.inpath(), &st) != 0 || !S_ISREG(st.st_mode))
        return ftpd_reply(control_fd, nullptr, FTP_REPLY_NO_SUCH_FILE, name, nullptr);
    if (unlink(work.inpath()) != 0) return ftpd_reply_text(control_fd, FTP_REPLY_450);
    return ftpd_reply_text(control_fd, FTP_REPLY_250);
}

int renamefrom(int control_fd, const char *name, const char *current_dir, struct credentials *pcred, char *oldname) {
    path_work work;
    if (!work.buf) return ftpd_reply_text(control_fd, FTP_REPLY_502);
    if (ftpd_resolve_path(pcred, current_dir, name, work.inpath(), work.outpath()) != ftpd_resolve_result::ok)
        return ftpd_reply_text(control_fd, FTP_REPLY_501);
    struct stat st;
    if (stat(work.inpath(), &st) != 0) return ftpd_reply_text(control_fd, FTP_REPLY_501);
    // A source that does not fit the pending-rename field is refused here: cutting it would
    // rename a different file.
    if (strlen(work.inpath()) >= kRenameFromLen) return ftpd_reply_text(control_fd, FTP_REPLY_501);
    if (ftpd_reply_text(control_fd, FTP_REPLY_350) != 0) return -1;
    (void)ftpd_strlcpy(oldname, work.inpath(), kRenameOldLen);
    return 0;
}

int renamecmd(int control_fd, const char *from, const char *to, const char *current_dir, struct credentials *pcred) {
    path_work work;
    if (!work.buf) return ftpd_reply_text(control_fd, FTP_REPLY_502);
    if (ftpd_resolve_path(pcred, current_dir, to, work.inpath(), work.outpath()) != ftpd_resolve_result::ok ||
        rename(from, work.inpath()) != 0)
        return ftpd_reply_text(control_fd, FTP_REPLY_553);
    return ftpd_reply_text(control_fd, FTP_REPLY_250);
}

int sizecmd(int control_fd, const char *filename, const char *current_dir, struct credentials *pcred) {
    path_work work;
    if (!work.buf) return ftpd_reply_text(control_fd, FTP_REPLY_451);
    switch (ftpd_resolve_path(pcred, current_dir, filename, work.inpath(), work.outpath())) {
        case ftpd_resolve_result::trim_failed:
            return ftpd_reply_text(control_fd, FTP_REPLY_451);
        case ftpd_resolve_result::refused:
            return ftpd_reply_text(control_fd, FTP_REPLY_450);
        case ftpd_resolve_result::too_long:
            return ftpd_reply(control_fd, "550", kIllegalFile, filename, nullptr);
        case ftpd_resolve_result::ok:
            break;
    }
    // The size as stored, whatever the transfer type.
    struct stat st;
    if (stat(work.inpath(), &st) == 0 && S_ISREG(st.st_mode))
        return ftpd_reply_size(control_fd, "213", "%lu", static_cast<unsigned long>(st.st_size), nullptr);
    return ftpd_reply(control_fd, "550", kIllegalFile, filename, nullptr);
}

// Sends one listing line of STAT; false when it could not be sent.
bool send_stat_line(int control_fd, const char *line) {
    return ftpd_reply_text(control_fd, line) == 0;
}

// One listing line per visible entry; false after a failure, once the 450 line has been sent.
bool stat_directory(int control_fd, const char *real_path, char *sendbuff, char *entry) {
    dir_handle dir(opendir(real_path));
    if (!dir) {
        ftpd_reply_text(control_fd, FTP_REPLY_450);
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
        if (!send_stat_line(control_fd, sendbuff)) {
            ftpd_reply_text(control_fd, FTP_REPLY_450);
            return false;
        }
    }
    return true;
}

int statfilecmd(int control_fd, const char *path, char *sendbuff, const char *current_dir, struct credentials *pcred) {
    path_work work;
    if (!work.buf) {
        FTPD_LOG_ERR("%s: malloc fail.\n", FTPD_MODULE);
        return ftpd_reply_text(control_fd, FTP_REPLY_451);
    }
    switch (ftpd_resolve_path(pcred, current_dir, path, work.inpath(), work.outpath())) {
        case ftpd_resolve_result::trim_failed:
            return ftpd_reply_text(control_fd, FTP_REPLY_451);
        case ftpd_resolve_result::refused:
        case ftpd_resolve_result::too_long:
            return ftpd_reply_text(control_fd, FTP_REPLY_450);
        case ftpd_resolve_result::ok:
            break;
    }
    const char *real_path = work.inpath();
    struct stat st;
    if (stat(real_path, &st) != 0) return ftpd_reply_text(control_fd, FTP_REPLY_450);

    sendbuff[0] = '\0';
    char product[FTP_BUF_SIZE];
    ftp_copy_product_name(product, sizeof product);
    if (ftpd_reply(control_fd, nullptr, "211- %s FTP server status:", product, nullptr) != 0) return -1;

    // Lines already sent are never withdrawn: a later failure adds the 450 line after them.
    if (S_ISREG(st.st_mode)) {
        const char *name = nullptr;
        if (get_file_name(real_path, &name) != 0 || is_special_file(name))
            return ftpd_reply_text(control_fd, FTP_REPLY_450);
        // The line is bounded by the reply buffer actually at hand.
        if (get_file_info(real_path, sendbuff, FTP_BUF_SIZE, name) != 0)
            return ftpd_reply_text(control_fd, FTP_REPLY_450);
        if (!send_stat_line(control_fd, sendbuff)) return ftpd_reply_text(control_fd, FTP_REPLY_450);
    } else if (S_ISDIR(st.st_mode)) {
        if (!stat_directory(control_fd, real_path, sendbuff, work.outpath())) return -1;
    } else {
        return ftpd_reply_text(control_fd, FTP_REPLY_450);
    }
    return ftpd_reply(control_fd, "211", "%s", "End of status.", nullptr);
}

}  // namespace

int command_dele(int control_fd, char *data_buff, char *reply_buff, char *current_dir, struct credentials *pcred) {
    int admitted = ftpd_admit_path_cmd(control_fd, data_buff, pcred);
    if (admitted != 0) return admitted < 0 ? -1 : 0;
    delete_file(control_fd, data_buff, reply_buff, current_dir, pcred);
    return 0;
}

int command_rnfr(int control_fd, char *data_buff, char *reply_buff, char *rename_from, char *current_dir,
                 struct credentials *pcred) {
    (void)reply_buff;
    int admitted = ftpd_admit_path_cmd(control_fd, data_buff, pcred);
    if (admitted != 0) return admitted < 0 ? -1 : 0;
    char rename_old[kRenameOldLen] = {0};
    renamefrom(control_fd, data_buff, current_dir, pcred, rename_old);
    // Set only after a successful RNFR; the worker never leaves a source that does not fit.
    size_t len = strlen(rename_old);
    if (len > 0 && len < kRenameFromLen) {
        memcpy(rename_from, rename_old, len);
        rename_from[len] = '\0';
    }
    return 0;
}

int command_rnto(int control_fd, char *data_buff, char *rename_from, char *current_dir, struct credentials *pcred) {
    int admitted = ftpd_admit_path_cmd(control_fd, data_buff, pcred);
    if (admitted != 0) return admitted < 0 ? -1 : 0;
    if (rename_from[0] == '\0') return refuse(control_fd, FTP_REPLY_503);
    // The source stays pending: a second RNTO tries the same source again.
    renamecmd(control_fd, rename_from, data_buff, current_dir, pcred);
    return 0;
}

int command_size(int control_fd, char *data_buff, char *current_dir, struct credentials *pcred) {
    int admitted = ftpd_admit_path_cmd(control_fd, data_buff, pcred);
    if (admitted != 0) return admitted < 0 ? -1 : 0;
    sizecmd(control_fd, data_buff, current_dir, pcred);
    return 0;
}

int command_mdtm(int control_fd, char *data_buff, char *reply_buff, char *current_dir, struct credentials *pcred) {
    if (!is_logged_in(pcred)) return refuse(control_fd, FTP_REPLY_530);
    if (!is_access(pcred)) return refuse(control_fd, FTP_REPLY_550);

    path_work work;
    if (!work.buf) return refuse(control_fd, FTP_REPLY_451);
    switch (ftpd_resolve_path(pcred, current_dir, data_buff, work.inpath(), work.outpath())) {
        case ftpd_resolve_result::trim_failed:
            return refuse(control_fd, FTP_REPLY_451);
        case ftpd_resolve_result::refused:
            return refuse(control_fd, FTP_REPLY_450);
        case ftpd_resolve_result::too_long:
            return refuse(control_fd, FTP_REPLY_550);
        case ftpd_resolve_result::ok:
            break;
    }
    // An empty argument resolves to the current directory; only an empty real path is refused.
    if (is_data_empty(work.inpath())) return refuse(control_fd, FTP_REPLY_501);
    struct stat st;
    if (stat(work.inpath(), &st) != 0) return refuse(control_fd, FTP_REPLY_550);
    if (!S_ISREG(st.st_mode)) return ftpd_reply(control_fd, "550", kIllegalFile, data_buff, nullptr) == 0 ? 0 : -1;

    // UTC, and the line ends in a bare line feed: the reply function then adds no CR.
    struct tm utc;
    gmtime_r(&st.st_mtime, &utc);
    (void)ftpd_snprintf(reply_buff, kMdtmBound, "213 %04d%02d%02d%02d%02d%02d\n", utc.tm_year + 1900, utc.tm_mon + 1,
                  utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
    return ftpd_reply_text(control_fd, reply_buff) == 0 ? 0 : -1;
}

int command_stat(int control_fd, char *data_buff, char *reply_buff, char *current_dir, struct credentials *pcred) {
    if (!is_logged_in(pcred)) return refuse(control_fd, FTP_REPLY_530);
    if (is_data_empty(data_buff)) {
        statcmd(control_fd, reply_buff, pcred);
        return 0;
    }
    if (!is_access(pcred)) return refuse(control_fd, FTP_REPLY_550);
    statfilecmd(control_fd, data_buff, reply_buff, current_dir, pcred);
    return 0;
}
