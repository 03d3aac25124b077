// The directory commands CWD, CDUP (through cwd), PWD, MKD and RMD: their admission checks, the
// moves of the session's current directory and every reply they send. Each resolves its argument
// inside the top directory first and reports refusals without telling their cause.
#include <sys/stat.h>

#include <cstring>

#include "ftpd.h"
#include "ftpd_list_internal.h"

namespace {

const char kReply530[] = "530 Not logged in.\r\n";
const char kReply550[] = "550 Requested action not taken.\r\n";
const char kReply501[] = "501 Syntax error in parameters or arguments.\r\n";
const char kNoSuchFile[] = "550 \"%s\": No such file or directory.\r\n";

int send_text(int control_fd, const char *text) {
    return ftpd_reply(control_fd, nullptr, "%s", text, nullptr);
}

// The shared admission of MKD and RMD: 0 to go on, 1 refused and replied, -1 the reply failed.
int admit(int control_fd, const char *arg, const struct credentials *pcred) {
    const char *refusal = nullptr;
    if (!is_logged_in(pcred))
        refusal = kReply530;
    else if (!is_access(pcred))
        refusal = kReply550;
    else if (is_data_empty(arg))
        refusal = kReply501;
    if (refusal == nullptr) return 0;
    return send_text(control_fd, refusal) == 0 ? 1 : -1;
}

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
    if (!work) return send_text(control_fd, kReply550);
    char *inpath = work.get();
    char *outpath = inpath + FTP_PATH_HALF;

    if (ftpd_resolve_path(pcred, current_dir, name, inpath, outpath) != ftpd_resolve_result::ok ||
        mkdir(inpath, 0777) != 0) {
        ftpd_strlcpy(outpath, kReply550, FTP_PATH_HALF);
        return send_text(control_fd, outpath);
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
    if (!work) return send_text(control_fd, kReply550);
    char *inpath = work.get();
    char *outpath = inpath + FTP_PATH_HALF;

    if (ftpd_resolve_path(pcred, current_dir, name, inpath, outpath) != ftpd_resolve_result::ok)
        return ftpd_reply(control_fd, nullptr, kNoSuchFile, name, nullptr);
    // No rule protects the top directory itself: RMD / removes it when it is empty.
    if (rmdir(inpath) != 0) return ftpd_reply(control_fd, "550", "Remove %s fail.", name, nullptr);
    return ftpd_reply(control_fd, "250", "%s", "RMD command successful.", nullptr);
}

}  // namespace

int command_cwd(int control_fd, char *data_buff, char *reply_buff, char *currentdir, struct credentials *pcred) {
    if (!is_logged_in(pcred)) return send_text(control_fd, kReply530) == 0 ? 0 : -1;
    // CWD alone answers 553 for a session without a top directory.
    if (!is_access(pcred)) return ftpd_reply(control_fd, nullptr, "%s Access denied.", "553", nullptr) == 0 ? 0 : -1;
    if (is_data_empty(data_buff)) return send_text(control_fd, kReply501) == 0 ? 0 : -1;
    cwd(control_fd, currentdir, data_buff, reply_buff, pcred);
    return 0;
}

int cwd(int control_fd, char *current_dir, const char *path, char *sendbuff, struct credentials *pcred) {
    sendbuff[0] = '\0';
    ftpd_block work(FTPD_M_WHOLE_BUF, FTP_WHOLE_BUF_SIZE);
    if (!work) {
        send_text(control_fd, kReply550);
        return -1;
    }
    char *inpath = work.get();
    char *outpath = inpath + FTP_PATH_HALF;

    if (ftpd_resolve_path(pcred, current_dir, path, inpath, outpath) != ftpd_resolve_result::ok || !can_enter(inpath)) {
        ftpd_reply(control_fd, nullptr, kNoSuchFile, path, nullptr);
        return -1;
    }

    ftpd_strlcpy(current_dir, inpath, FTP_CURRENTDIR_LEN);
    size_t len = strlen(current_dir);
    if (len > 1 && current_dir[len - 1] == '/') current_dir[len - 1] = '\0';
    current_dir[FTP_CURRENTDIR_LEN - 1] = '\0';

    memset(outpath, 0, FTP_PATH_HALF);
    ftpd_absolute_to_relative_path(pcred, current_dir, outpath, FTP_PATH_HALF);
    ftpd_snprintf(sendbuff, FTP_BUF_SIZE, "250 Directory change to \"%s\".\r\n", outpath);
    sendbuff[FTP_BUF_SIZE - 1] = '\0';
    // The new directory stands even when the reply cannot be sent.
    ftpd_reply(control_fd, nullptr, "%s", sendbuff, nullptr);
    return 0;
}

int pwd_fun(int control_fd, char *current_dir, char *sendbuff, struct credentials *pcred) {
    ftpd_block view(FTPD_M_OUTPATH, FTP_BUF_SIZE);
    if (!view) return send_text(control_fd, kReply550);
    ftpd_absolute_to_relative_path(pcred, current_dir, view.get(), FTP_BUF_SIZE);
    memset(sendbuff, 0, FTP_BUF_SIZE);
    ftpd_snprintf(sendbuff, FTP_BUF_SIZE, "257 Current working directory is \"%s\".\r\n", view.get());
    sendbuff[FTP_BUF_SIZE - 1] = '\0';
    return ftpd_reply(control_fd, nullptr, "%s", sendbuff, nullptr);
}

int command_mkd(int control_fd, char *data_buff, char *currentdir, struct credentials *pcred) {
    int admitted = admit(control_fd, data_buff, pcred);
    if (admitted != 0) return admitted < 0 ? -1 : 0;
    makedir(control_fd, data_buff, currentdir, pcred);
    return 0;
}

int command_rmd(int control_fd, char *data_buff, char *current_dir, struct credentials *pcred) {
    int admitted = admit(control_fd, data_buff, pcred);
    if (admitted != 0) return admitted < 0 ? -1 : 0;
    removedir(control_fd, data_buff, current_dir, pcred);
    return 0;
}
