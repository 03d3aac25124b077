// The directory commands CWD, CDUP (through cwd), PWD, MKD and RMD: their admission checks, the
// moves of the session's current directory and every reply they send. Each resolves its argument
// inside the top directory first and reports refusals without telling their cause.
#include <sys/stat.h>

#include <cstring>

#include "base/ftpd.h"
#include "files/cmds.h"
#include "transfer/list_internal.h"
#include "files/path.h"
#include "net/reply.h"
#include "control/session.h"

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

int makedir(int control_fd, const char *name, const char *current_dir, struct credentials *pcred) {
    ftpd_block work(FTPD_M_WHOLE_BUF, FTP_WHOLE_BUF_SIZE);
    if (!work) return ftpd_reply_text(control_fd, FTP_REPLY_550);
    char *inpath = work.get();
    char *outpath = inpath + FTP_PATH_HALF;

    // The device's process runs with no umask; on plain Linux a new directory is not world-writable.
    mode_t mode = ftpd_standard() ? 0755 : 0777;
    if (ftpd_resolve_path(pcred, current_dir, name, inpath, outpath) != ftpd_resolve_result::ok ||
        mkdir(inpath, mode) != 0) {
        (void)ftpd_strlcpy(outpath, FTP_REPLY_550, FTP_PATH_HALF);
        return ftpd_reply_text(control_fd, outpath);
    }
    // The argument is echoed as sent; resolved paths always take the first branch, the others
    // stay as the fallback chain.
    if (inpath[0] == '/') return ftpd_reply(control_fd, "257", "\"%s\" new directory created.", name, nullptr);
    if (strncmp(inpath, "./", 2) == 0)
        return ftpd_reply(control_fd, "257", "\"%s\" new directory created.", name + 1, nullptr);
    if (current_dir != nullptr && current_dir[0] != '\0') {
        if (strcmp(current_dir, "/") == 0)
            return ftpd_reply(control_fd, "257", "\"%s%s\" new directory created.", current_dir, name);
        return ftpd_reply(control_fd, "257", "\"%s/%s\" new directory created.", current_dir, name);
    }
    return ftpd_reply(control_fd, "257", "%s", "(unknown absolute name) new directory created.", nullptr);
}

int removedir(int control_fd, const char *name, const char *current_dir, struct credentials *pcred) {
    ftpd_block work(FTPD_M_WHOLE_BUF, FTP_WHOLE_BUF_SIZE);
    if (!work) return ftpd_reply_text(control_fd, FTP_REPLY_550);
    char *inpath = work.get();
    char *outpath = inpath + FTP_PATH_HALF;

    if (ftpd_resolve_path(pcred, current_dir, name, inpath, outpath) != ftpd_resolve_result::ok)
        return ftpd_reply(control_fd, nullptr, FTP_REPLY_NO_SUCH_FILE, name, nullptr);
    // No rule protects the top directory itself: RMD / removes it when it is empty.
    if (rmdir(inpath) != 0) return ftpd_reply(control_fd, "550", "Remove %s fail.", name, nullptr);
    return ftpd_reply(control_fd, "250", "%s", "RMD command successful.", nullptr);
}

}  // namespace

int command_cwd(int control_fd, char *data_buff, char *reply_buff, char *currentdir, struct credentials *pcred) {
    if (!is_logged_in(pcred)) return ftpd_reply_text(control_fd, FTP_REPLY_530) == 0 ? 0 : -1;
    // CWD alone answers 553 for a session without a top directory.
    if (!is_access(pcred)) return ftpd_reply(control_fd, nullptr, "%s Access denied.", "553", nullptr) == 0 ? 0 : -1;
    if (is_data_empty(data_buff)) return ftpd_reply_text(control_fd, FTP_REPLY_501) == 0 ? 0 : -1;
    cwd(control_fd, currentdir, data_buff, reply_buff, pcred);
    return 0;
}

int cwd(int control_fd, char *current_dir, const char *path, char *sendbuff, struct credentials *pcred) {
    sendbuff[0] = '\0';
    ftpd_block work(FTPD_M_WHOLE_BUF, FTP_WHOLE_BUF_SIZE);
    if (!work) {
        ftpd_reply_text(control_fd, FTP_REPLY_550);
        return -1;
    }
    char *inpath = work.get();
    char *outpath = inpath + FTP_PATH_HALF;

    if (ftpd_resolve_path(pcred, current_dir, path, inpath, outpath) != ftpd_resolve_result::ok || !can_enter(inpath)) {
        ftpd_reply(control_fd, nullptr, FTP_REPLY_NO_SUCH_FILE, path, nullptr);
        return -1;
    }

    (void)ftpd_strlcpy(current_dir, inpath, FTP_CURRENTDIR_LEN);
    size_t len = strlen(current_dir);
    if (len > 1 && current_dir[len - 1] == '/') current_dir[len - 1] = '\0';
    current_dir[FTP_CURRENTDIR_LEN - 1] = '\0';

    memset(outpath, 0, FTP_PATH_HALF);
    (void)ftpd_absolute_to_relative_path(pcred, current_dir, outpath, FTP_PATH_HALF);
    // The new directory stands even when the reply cannot be sent.
    ftpd_reply(control_fd, nullptr, "250 Directory change to \"%s\".\r\n", outpath, nullptr);
    return 0;
}

int pwd_fun(int control_fd, char *current_dir, char *sendbuff, struct credentials *pcred) {
    ftpd_block view(FTPD_M_OUTPATH, FTP_BUF_SIZE);
    if (!view) return ftpd_reply_text(control_fd, FTP_REPLY_550);
    (void)ftpd_absolute_to_relative_path(pcred, current_dir, view.get(), FTP_BUF_SIZE);
    memset(sendbuff, 0, FTP_BUF_SIZE);
    return ftpd_reply(control_fd, nullptr, "257 Current working directory is \"%s\".\r\n", view.get(), nullptr);
}

int command_mkd(int control_fd, char *data_buff, char *currentdir, struct credentials *pcred) {
    int admitted = ftpd_admit_path_cmd(control_fd, data_buff, pcred);
    if (admitted != 0) return admitted < 0 ? -1 : 0;
    makedir(control_fd, data_buff, currentdir, pcred);
    return 0;
}

int command_rmd(int control_fd, char *data_buff, char *current_dir, struct credentials *pcred) {
    int admitted = ftpd_admit_path_cmd(control_fd, data_buff, pcred);
    if (admitted != 0) return admitted < 0 ? -1 : 0;
    removedir(control_fd, data_buff, current_dir, pcred);
    return 0;
}
